// ISO 8601 UTC times and the schedule file.
#include "pass/schedule.hpp"

#include <algorithm>
#include <cstdio>

namespace {

// Days from 1970-01-01 to the given civil date (proleptic Gregorian).
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2 ? 1 : 0;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

unsigned daysInMonth(int64_t y, unsigned m) {
  static const unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  return m == 2 && leap ? 29 : days[m - 1];
}

// `width` decimal digits at `pos`; false if any is missing.
bool digits(std::string_view s, size_t pos, size_t width, unsigned *out) {
  if (pos + width > s.size()) return false;
  unsigned v = 0;
  for (size_t i = pos; i < pos + width; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    v = v * 10 + static_cast<unsigned>(s[i] - '0');
  }
  *out = v;
  return true;
}

// What follows the seconds: a fraction (milliseconds kept), then the zone, which must be UTC.
bool parseTail(std::string_view rest, int64_t *ms) {
  *ms = 0;
  size_t i = 0;
  if (i < rest.size() && rest[i] == '.') {
    size_t start = ++i;
    for (int64_t scale = 100; i < rest.size() && rest[i] >= '0' && rest[i] <= '9'; ++i, scale /= 10)
      *ms += (rest[i] - '0') * scale;
    if (i == start) return false;
  }
  std::string_view zone = rest.substr(i);
  return zone.empty() || zone == "Z" || zone == "+00:00" || zone == "+0000";
}

bool parseWindowLine(std::string_view line, PassWindow *w) {
  size_t gap = line.find_first_of(" \t");
  if (gap == std::string_view::npos) return false;
  size_t second = line.find_first_not_of(" \t", gap);
  if (second == std::string_view::npos) return false;
  size_t end = line.find_first_of(" \t", second);
  if (end != std::string_view::npos && line.find_first_not_of(" \t", end) != std::string_view::npos) return false;
  return parseUtcTime(line.substr(0, gap), &w->startMs) &&
         parseUtcTime(line.substr(second, end == std::string_view::npos ? end : end - second), &w->endMs);
}

std::string_view trimmed(std::string_view s) {
  size_t a = s.find_first_not_of(" \t\r");
  if (a == std::string_view::npos) return {};
  return s.substr(a, s.find_last_not_of(" \t\r") - a + 1);
}

}  // namespace

bool parseUtcTime(std::string_view s, int64_t *unixMs) {
  unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!digits(s, 0, 4, &year) || s.size() < 19 || s[4] != '-' || !digits(s, 5, 2, &month) || s[7] != '-' ||
      !digits(s, 8, 2, &day) || s[10] != 'T' || !digits(s, 11, 2, &hour) || s[13] != ':' ||
      !digits(s, 14, 2, &minute) || s[16] != ':' || !digits(s, 17, 2, &second))
    return false;
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 || minute > 59 || second > 59)
    return false;
  int64_t ms = 0;
  if (!parseTail(s.substr(19), &ms)) return false;
  int64_t seconds = daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
  *unixMs = seconds * 1000 + ms;
  return true;
}

std::string formatUtc(int64_t unixMs) {
  int64_t secs = unixMs >= 0 ? unixMs / 1000 : (unixMs - 999) / 1000;
  int64_t days = secs >= 0 ? secs / 86400 : (secs - 86399) / 86400;
  int64_t rem = secs - days * 86400;
  // The inverse of daysFromCivil.
  int64_t z = days + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  const int64_t y = static_cast<int64_t>(yoe) + era * 400 + (m <= 2 ? 1 : 0);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02d:%02d:%02dZ", static_cast<long long>(y), m, d,
                static_cast<int>(rem / 3600), static_cast<int>(rem % 3600 / 60), static_cast<int>(rem % 60));
  return buf;
}

bool parseSchedule(std::string_view text, std::vector<PassWindow> *out, std::string *error) {
  std::vector<std::pair<PassWindow, int>> windows;  // with their line numbers
  int lineNo = 0;
  for (size_t at = 0; at < text.size();) {
    size_t nl = text.find('\n', at);
    std::string_view line = trimmed(text.substr(at, nl == std::string_view::npos ? nl : nl - at));
    at = nl == std::string_view::npos ? text.size() : nl + 1;
    ++lineNo;
    if (line.empty() || line[0] == '#') continue;
    PassWindow w{};
    if (!parseWindowLine(line, &w)) {
      *error = "line " + std::to_string(lineNo) + ": not \"START END\" in ISO 8601 UTC";
      return false;
    }
    if (w.endMs <= w.startMs) {
      *error = "line " + std::to_string(lineNo) + ": the window ends before it starts";
      return false;
    }
    windows.emplace_back(w, lineNo);
  }
  std::stable_sort(windows.begin(), windows.end(),
                   [](const auto &a, const auto &b) { return a.first.startMs < b.first.startMs; });
  out->clear();
  for (size_t i = 0; i < windows.size(); ++i) {
    if (i > 0 && windows[i].first.startMs < windows[i - 1].first.endMs) {
      *error = "line " + std::to_string(windows[i].second) + ": overlaps the window of line " +
               std::to_string(windows[i - 1].second);
      return false;
    }
    out->push_back(windows[i].first);
  }
  return true;
}
