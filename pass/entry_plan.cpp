// Entry decisions and the archive's preparation for a fetch.
#include "pass/entry_plan.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "listing/listing.hpp"
#include "pass/partial_state.hpp"

namespace {

void collectEntry(void *param, uint8_t, uint8_t group, uint8_t priority, uint32_t size, const char *filename) {
  static_cast<std::vector<QueueEntry> *>(param)->push_back({filename, group, priority, size});
}

bool exists(const std::string &path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

bool sameFile(const std::string &a, const std::string &b) {
  struct stat sa {};
  struct stat sb {};
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

bool fail(std::string *error, const std::string &what) {
  *error = what + ": " + std::strerror(errno);
  return false;
}

FileRow freshRow(const QueueEntry &e, const ArchivePath &path) {
  FileRow row;
  row.remote = e.name;
  row.local = path.rel;
  row.size = e.size;
  return row;
}

// A second name for the complete file, "rel.~n~", with the first n that neither the archive
// nor the ledger uses. A hard link: until the ledger moves the row to it, the file is still
// where the ledger says, and a link left by a killed run is found again and used.
bool linkEarlierVersion(const std::string &archive, Ledger &l, const std::string &rel, std::string *kept) {
  const std::string data = underArchive(archive, rel);
  for (int n = 1;; ++n) {
    *kept = versionName(rel, n);
    const std::string target = underArchive(archive, *kept);
    if (!ledgerLocalOwner(l, *kept, "").empty()) continue;
    if (link(data.c_str(), target.c_str()) == 0) return true;
    if (errno != EEXIST) return false;
    if (sameFile(data, target)) return true;
  }
}

// The file held complete is kept as an earlier version; the new one gets a row of its own.
bool keepEarlierVersion(const std::string &archive, Ledger &l, const QueueEntry &e, EntryPlan *plan, bool *ledgerOk,
                        std::string *error) {
  const std::string data = underArchive(archive, plan->path.rel);
  FileRow fresh = freshRow(e, plan->path);
  if (!exists(data)) {
    // Nothing left to keep (removed by hand): the row is reused for the new version.
    fresh.id = plan->row.id;
    fresh.attempts = plan->row.attempts;
    plan->row = fresh;
    return true;
  }
  std::string kept;
  if (!linkEarlierVersion(archive, l, plan->path.rel, &kept)) return fail(error, "cannot keep " + data);
  if (!ledgerArchiveVersion(l, &plan->row, kept, &fresh)) {
    *ledgerOk = false;
    *error = "the ledger cannot be written";
    return false;
  }
  plan->row = fresh;
  if (unlink(data.c_str()) != 0 && errno != ENOENT) return fail(error, "cannot remove " + data);
  return true;
}

// What the archive holds for the name must be the start of this very download, or go.
bool clearStaleFiles(const std::string &archive, const QueueEntry &e, const ArchivePath &path, std::string *error) {
  const std::string data = underArchive(archive, path.rel);
  const std::string state = underArchive(archive, stateFileOf(path));
  RecordView rec = readDownloadRecord(state);
  bool haveData = exists(data);
  bool dropData = haveData && (!rec.present || (rec.sized && rec.size != e.size));
  bool dropState = exists(state) && (!rec.present || !haveData || dropData);
  // The state record goes first: a data file without one is dropped by the next run too.
  if (dropState && unlink(state.c_str()) != 0 && errno != ENOENT) return fail(error, "cannot remove " + state);
  if (dropData && unlink(data.c_str()) != 0 && errno != ENOENT) return fail(error, "cannot remove " + data);
  return true;
}

}  // namespace

std::vector<QueueEntry> readQueueReport(const std::string &listingPath) {
  std::vector<QueueEntry> entries;
  iterate_dirlisting(listingPath.c_str(), collectEntry, &entries);
  return entries;
}

EntryPlan planEntry(Ledger &l, const QueueEntry &e, int retries) {
  EntryPlan plan;
  NameVerdict verdict = mapRemoteName(e.name, &plan.path);
  bool known = ledgerFindFile(l, e.name, &plan.row);
  if (verdict != NameVerdict::Ok) {
    plan.action = EntryAction::Refused;
    plan.why = nameVerdictText(verdict);
  } else if (known && plan.row.state == FileState::Complete && plan.row.size == e.size) {
    plan.action = EntryAction::Held;
  } else if (known && plan.row.state != FileState::Complete && plan.row.failures >= retries) {
    plan.action = EntryAction::GivenUp;
    plan.why = "failed " + std::to_string(plan.row.failures) + " times (" + plan.row.note + ")";
  } else if (std::string owner = ledgerLocalOwner(l, plan.path.rel, e.name); !owner.empty()) {
    plan.action = EntryAction::Refused;
    plan.why = "its archive name is taken by " + owner;
  }
  return plan;
}

Prepared prepareFetch(const std::string &archive, Ledger &l, const QueueEntry &e, EntryPlan *plan, std::string *error) {
  if (plan->row.id != 0 && plan->row.state == FileState::Complete) {
    bool ledgerOk = true;
    if (!keepEarlierVersion(archive, l, e, plan, &ledgerOk, error))
      return ledgerOk ? Prepared::EntryFailed : Prepared::LedgerFailed;
  } else if (plan->row.id == 0) {
    plan->row = freshRow(e, plan->path);
  }
  if (!clearStaleFiles(archive, e, plan->path, error)) return Prepared::EntryFailed;
  if (!makeDirs(archive, plan->path.dir)) {
    fail(error, "cannot make " + underArchive(archive, plan->path.dir));
    return Prepared::EntryFailed;
  }
  FileRow &row = plan->row;
  if (row.size != e.size) {
    row.md5.clear();
    row.mtimeNs = 0;
  }
  row.size = e.size;
  row.local = plan->path.rel;
  row.state = FileState::Partial;
  row.attempts++;
  if (ledgerSaveFile(l, &row)) return Prepared::Ready;
  *error = "the ledger cannot be written";
  return Prepared::LedgerFailed;
}

bool recordRefusal(Ledger &l, const QueueEntry &e, EntryPlan *plan) {
  FileRow &row = plan->row;
  if (row.id != 0 && row.state == FileState::Refused && row.note == plan->why) return true;
  if (row.id == 0) row = freshRow(e, plan->path);
  row.state = FileState::Refused;
  row.note = plan->why;
  return ledgerSaveFile(l, &row);
}
