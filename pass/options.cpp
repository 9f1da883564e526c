// Parsing of kestil-pass's options. Every number is checked in full.
#include "pass/options.hpp"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>

#include "pass/archive_paths.hpp"
#include "pass/schedule.hpp"

namespace {

enum LongOnly : int {
  OPT_ARCHIVE = 256,
  OPT_FOR,
  OPT_UNTIL,
  OPT_GROUP,
  OPT_CONFIRM,
  OPT_DB,
  OPT_SCHEDULE,
  OPT_RETRIES,
  OPT_STATUS,
  OPT_JSON,
  OPT_CLEAR,
  OPT_HELP,
};

const option LONG_OPTIONS[] = {
    {"archive", required_argument, nullptr, OPT_ARCHIVE},
    {"for", required_argument, nullptr, OPT_FOR},
    {"until", required_argument, nullptr, OPT_UNTIL},
    {"group", required_argument, nullptr, OPT_GROUP},
    {"confirm", no_argument, nullptr, OPT_CONFIRM},
    {"db", required_argument, nullptr, OPT_DB},
    {"schedule", required_argument, nullptr, OPT_SCHEDULE},
    {"retries", required_argument, nullptr, OPT_RETRIES},
    {"status", no_argument, nullptr, OPT_STATUS},
    {"json", no_argument, nullptr, OPT_JSON},
    {"clear", no_argument, nullptr, OPT_CLEAR},
    {"help", no_argument, nullptr, OPT_HELP},
    {nullptr, 0, nullptr, 0},
};

bool parseNumber(const std::string &text, uint64_t min, uint64_t max, uint64_t *out) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return false;
  errno = 0;
  char *end = nullptr;
  unsigned long long v = std::strtoull(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < min || v > max) return false;
  *out = v;
  return true;
}

// "G:BYTES:ENTRIES"; 0 bytes or 0 entries sets no such limit.
bool parseGroup(const std::string &text, GroupLimit *out) {
  size_t a = text.find(':');
  size_t b = a == std::string::npos ? a : text.find(':', a + 1);
  if (b == std::string::npos) return false;
  uint64_t g = 0, bytes = 0, entries = 0;
  if (!parseNumber(text.substr(0, a), 0, 255, &g) ||
      !parseNumber(text.substr(a + 1, b - a - 1), 0, UINT32_MAX, &bytes) ||
      !parseNumber(text.substr(b + 1), 0, UINT32_MAX, &entries))
    return false;
  // As the report command sends it: no size limit travels as all ones.
  *out = {static_cast<uint8_t>(g), bytes == 0 ? UINT32_MAX : static_cast<uint32_t>(bytes),
          static_cast<uint32_t>(entries)};
  return true;
}

// One option; false with `error` set when its value is bad.
bool takeOption(int c, const std::string &value, PassOptions *o, std::string *error) {
  uint64_t n = 0;
  auto bad = [&](const char *what) {
    *error = "bad value '" + value + "' (" + what + ")";
    return false;
  };
  switch (c) {
    case 'h': o->host = value; break;
    case 'q': o->quiet = true; break;
    case 't':
      if (!parseNumber(value, 1, 86400, &n)) return bad("-t takes seconds from 1 to 86400");
      o->timeoutS = static_cast<int>(n);
      break;
    case OPT_ARCHIVE: o->archive = value; break;
    case OPT_FOR:
      if (!parseNumber(value, 1, 10LL * 365 * 86400, &n)) return bad("--for takes seconds, at least 1");
      o->forSeconds = static_cast<int64_t>(n);
      break;
    case OPT_UNTIL:
      if (!parseUtcTime(value, &o->untilMs)) return bad("--until takes a UTC time such as 2026-11-23T08:00:00Z");
      break;
    case OPT_GROUP: {
      GroupLimit g{};
      if (!parseGroup(value, &g)) return bad("--group takes GROUP:BYTES:ENTRIES, 0 for no limit");
      if (o->limits.size() == KESTIL_MAX_GROUP_LIMITS) return bad("at most 20 groups");
      o->limits.push_back(g);
      break;
    }
    case OPT_CONFIRM: o->confirm = true; break;
    case OPT_DB: o->db = value; break;
    case OPT_SCHEDULE: o->schedule = value; break;
    case OPT_RETRIES:
      if (!parseNumber(value, 1, 1000, &n)) return bad("--retries takes a count from 1 to 1000");
      o->retries = static_cast<int>(n);
      break;
    case OPT_STATUS: o->mode = PassMode::Status; break;
    case OPT_JSON: o->json = true; break;
    case OPT_CLEAR: o->mode = PassMode::Clear; break;
    default: *error = "unknown option or missing value"; return false;
  }
  return true;
}

// What must and must not come together.
bool checkCombination(const PassOptions &o, std::string *error) {
  int windows = (o.forSeconds != 0) + (o.untilMs != 0) + !o.schedule.empty();
  if (o.mode == PassMode::Clear && o.names.empty()) *error = "--clear needs the remote paths to clear";
  if (o.mode == PassMode::Pass && (o.host.empty() || o.archive.empty()))
    *error = "a pass needs -h HOST and --archive DIR";
  if (o.mode == PassMode::Pass && !o.names.empty()) *error = "unexpected argument '" + o.names[0] + "'";
  if (o.mode == PassMode::Status && !o.names.empty()) *error = "unexpected argument '" + o.names[0] + "'";
  if (windows > 1) *error = "--for, --until and --schedule exclude each other";
  return error->empty();
}

}  // namespace

OptionsOutcome parsePassOptions(int argc, char **argv, PassOptions *o, std::string *error) {
  optind = 0;
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, ":h:t:q", LONG_OPTIONS, nullptr)) != -1) {
    if (c == OPT_HELP) return OptionsOutcome::Help;
    if (c == '?' || c == ':') {
      *error = c == ':' ? "option " + std::string(argv[optind - 1]) + " needs a value"
                        : "unknown option '" + std::string(argv[optind - 1]) + "'";
      return OptionsOutcome::Error;
    }
    if (!takeOption(c, optarg != nullptr ? optarg : "", o, error)) return OptionsOutcome::Error;
  }
  for (int i = optind; i < argc; ++i) o->names.push_back(argv[i]);
  return checkCombination(*o, error) ? OptionsOutcome::Run : OptionsOutcome::Error;
}

const char *passUsage() {
  return "usage: kestil-pass -h HOST --archive DIR [--for SECONDS | --until TIME | --schedule FILE]\n"
         "                   [--group G:BYTES:ENTRIES ...] [--confirm] [--db FILE] [-t SECONDS] [--retries N] [-q]\n"
         "       kestil-pass --status [--archive DIR | --db FILE] [--json]\n"
         "       kestil-pass --clear [--archive DIR | --db FILE] REMOTE_PATH...\n";
}

std::string ledgerPath(const PassOptions &o) {
  if (!o.db.empty()) return o.db;
  return (o.archive.empty() ? std::string(".") : o.archive) + "/" + LEDGER_FILE;
}
