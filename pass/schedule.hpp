// Pass windows: UTC times in ISO 8601 as a pass predictor prints them, and the schedule file
// of one "START END" window a line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct PassWindow {
  int64_t startMs;  // milliseconds since the epoch
  int64_t endMs;
};

// "YYYY-MM-DDTHH:MM:SS", optional fraction, optional "Z" or "+00:00": milliseconds since the
// epoch. False for anything else, an impossible date or another time zone among them.
[[nodiscard]] bool parseUtcTime(std::string_view text, int64_t *unixMs);
// "YYYY-MM-DDTHH:MM:SSZ" (whole seconds, rounded down).
std::string formatUtc(int64_t unixMs);

// The windows of a schedule, in time order. Blank lines and lines starting with "#" are
// skipped. False with `error` naming the line for a malformed line, an empty window or
// windows that overlap.
[[nodiscard]] bool parseSchedule(std::string_view text, std::vector<PassWindow> *out, std::string *error);
