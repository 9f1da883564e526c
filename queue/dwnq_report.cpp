// The queue report: each group's entries in queue order, cut short by the group's limits on
// total size and entry count, written as a listing file.
#include <cstdint>

#include "queue/downlink_queue.hpp"

namespace {

// The first limit naming `group`, or null.
const GroupLimit *limitFor(const GroupLimit *limits, int limLen, int group) {
  for (int i = 0; i < limLen; ++i) {
    if (limits[i].group == group) return &limits[i];
  }
  return nullptr;
}

// A limit of 0 is no limit. A group without a size limit is listed whole even when its
// sizes add up past 32 bits.
void reportGroup(FileListing *listing, const Group &g, uint32_t sizeLimit, uint32_t entryLimit) {
  uint32_t runningSize = 0;
  uint32_t listed = 0;
  for (File *f = g.head; f != nullptr; f = f->groupNext) {
    if (entryLimit != 0 && listed >= entryLimit) return;
    if (sizeLimit != 0) {
      if (runningSize >= sizeLimit) return;
      // Compared without forming the sum, so that a sum past 32 bits cannot wrap below the
      // limit and let an entry through.
      if (f->size > sizeLimit - runningSize) return;
      runningSize += f->size;
    }
    listing_add_file(listing, f);
    ++listed;
  }
}

}  // namespace

FileListing *dwnq_report(GroupLimit *limits, int limLen) {
  FileListing *listing = listing_init(1);
  if (listing == nullptr) return nullptr;
  const bool limited = limLen >= 1 && limits != nullptr;
  for (int group = 0; group < DWNQ_GROUPS; ++group) {
    const Group &g = groups[group];
    if (g.head == nullptr) continue;
    uint32_t sizeLimit = 0;
    uint32_t entryLimit = 0;
    if (limited) {
      const GroupLimit *lim = limitFor(limits, limLen, group);
      if (lim == nullptr) continue;
      sizeLimit = lim->sizeTarget;
      entryLimit = lim->numEntriesTarget;
    }
    reportGroup(listing, g, sizeLimit, entryLimit);
  }
  listing_done_adding(listing);
  return listing;
}
