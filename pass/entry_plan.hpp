// What a pass does with each entry of the queue report: fetch it (new, continued from its
// state record, or as a new version of a file held complete), leave it (held complete, or
// given up after too many failures), or refuse its name; and the archive's preparation for a
// fetch, ordered so that a kill between any two steps leaves archive and ledger agreeing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "pass/archive_paths.hpp"
#include "pass/ledger.hpp"

struct QueueEntry {
  std::string name;
  uint8_t group = 0;
  uint8_t priority = 0;
  uint32_t size = 0;
};

enum class EntryAction : uint8_t { Fetch, Held, Refused, GivenUp };

struct EntryPlan {
  EntryAction action = EntryAction::Fetch;
  ArchivePath path;
  FileRow row;      // the ledger's current row for the name; id 0 when it has none yet
  std::string why;  // for Refused and GivenUp
};

// The entries of a queue report's listing file, in report order.
std::vector<QueueEntry> readQueueReport(const std::string &listingPath);

// Decides from the entry's name and the ledger alone; nothing is changed.
EntryPlan planEntry(Ledger &ledger, const QueueEntry &entry, int retries);
enum class Prepared : uint8_t {
  Ready,
  EntryFailed,   // the archive cannot take this entry (`error` says why); the rest may go on
  LedgerFailed,  // the ledger cannot be written
};
// Makes archive and ledger ready to fetch: a complete file of another size is kept under a
// versioned name, a partial of another size or a stray file is dropped, the folders are made,
// and the attempt is counted.
[[nodiscard]] Prepared prepareFetch(const std::string &archive, Ledger &ledger, const QueueEntry &entry,
                                    EntryPlan *plan, std::string *error);
// Records a refused name in the ledger.
[[nodiscard]] bool recordRefusal(Ledger &ledger, const QueueEntry &entry, EntryPlan *plan);
