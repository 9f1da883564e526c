// kestil-pass's command line: a pass (or a schedule of passes) against a host into an
// archive, the ledger's status, or the clearing of entries that failed too often.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/wire.hpp"

enum class PassMode : uint8_t { Pass, Status, Clear };

struct PassOptions {
  PassMode mode = PassMode::Pass;
  std::string host;
  std::string archive;
  std::string db;          // empty: the archive's own ledger
  std::string schedule;    // a file of pass windows
  int64_t forSeconds = 0;  // 0: not given
  int64_t untilMs = 0;     // milliseconds since the epoch; 0: not given
  std::vector<GroupLimit> limits;
  bool confirm = false;
  int timeoutS = 10;
  int retries = 3;
  bool quiet = false;
  bool json = false;
  std::vector<std::string> names;  // --clear's remote paths
};

enum class OptionsOutcome : uint8_t { Run, Help, Error };

// Fills `o` from the command line; on Error `error` holds one line saying what is wrong.
[[nodiscard]] OptionsOutcome parsePassOptions(int argc, char **argv, PassOptions *o, std::string *error);
const char *passUsage();
// The ledger's path for these options: --db, else the archive's, else the one in the working folder.
std::string ledgerPath(const PassOptions &o);
