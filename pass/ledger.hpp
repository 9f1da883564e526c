// The ledger: an SQLite database of the passes (when, against which host, why each ended,
// what it carried) and of the files (where each landed, its size, time and digest, how far
// it got, which pass completed it, its attempts, and the bytes each pass brought). Every
// write is one transaction, so a kill at any instant leaves a database that opens and
// agrees with the archive.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;

struct Ledger {
  sqlite3 *db = nullptr;
};

enum class FileState : uint8_t { Partial, Complete, Failed, Refused };
const char *fileStateName(FileState state);

struct FileRow {
  int64_t id = 0;  // 0 until saved
  std::string remote;
  std::string local;  // relative to the archive
  uint32_t size = 0;
  int64_t mtimeNs = 0;  // 0 until the metadata has been seen
  std::string md5;      // hex; empty until the metadata has been seen
  FileState state = FileState::Partial;
  int64_t completedPass = 0;  // 0: not complete
  int attempts = 0;
  int failures = 0;      // failed attempts since the last clearing
  bool current = true;   // false: an earlier version kept under a suffixed name
  std::string note;      // why the last attempt failed, or why the name was refused
  uint64_t fetched = 0;  // bytes over all passes (read only)
};

struct PassRow {
  int64_t id = 0;
  int64_t startMs = 0;
  int64_t endMs = 0;  // the last moment recorded
  std::string host;
  std::string ended;  // empty while the pass runs
  uint64_t bytes = 0;
  uint64_t datagrams = 0;
  int64_t busyMs = 0;  // time a receive session was running
};

struct FilePassBytes {
  int64_t fileId;
  int64_t passId;
  uint64_t bytes;
  uint64_t datagrams;
};

// Opens the ledger, creating it when `create` is set.
[[nodiscard]] bool ledgerOpen(const std::string &path, bool create, Ledger *ledger, std::string *error);
void ledgerClose(Ledger *ledger);
// Closes the passes a killed run left open, as "killed". Only the holder of the archive's
// lock may call it: any other open pass is running.
[[nodiscard]] bool ledgerCloseKilledPasses(Ledger &ledger);

[[nodiscard]] bool ledgerStartPass(Ledger &ledger, PassRow *pass);
[[nodiscard]] bool ledgerSavePass(Ledger &ledger, const PassRow &pass);

// The current version of a remote name; false when the ledger has none.
bool ledgerFindFile(Ledger &ledger, const std::string &remote, FileRow *out);
// The remote name whose file (any version) lies at `local`, other than `remote`; empty if none.
std::string ledgerLocalOwner(Ledger &ledger, const std::string &local, const std::string &remote);
// Inserts (id 0) or updates a file row.
[[nodiscard]] bool ledgerSaveFile(Ledger &ledger, FileRow *row);
// One transaction: the file row, the bytes it brought in the pass, and the pass's totals.
[[nodiscard]] bool ledgerRecordOutcome(Ledger &ledger, FileRow *row, const PassRow &pass, uint64_t bytes,
                                       uint64_t datagrams);
// One transaction: `old` becomes an earlier version kept at `versionLocal`, and `fresh`
// (same remote name) is inserted as the current one.
[[nodiscard]] bool ledgerArchiveVersion(Ledger &ledger, FileRow *old, const std::string &versionLocal, FileRow *fresh);
// Forgets the failures of a remote name's current version; the rows changed.
int ledgerClearFailures(Ledger &ledger, const std::string &remote);

std::vector<FileRow> ledgerFiles(Ledger &ledger);
std::vector<PassRow> ledgerPasses(Ledger &ledger);
std::vector<FilePassBytes> ledgerFilePassBytes(Ledger &ledger);
