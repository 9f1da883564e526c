// The download queue in memory: 256 groups, each a singly linked list sorted by priority,
// with at most 1024 entries. Every change is mirrored into the data file.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "queue/downlink_queue.hpp"
#include "station/station.hpp"

Group groups[DWNQ_GROUPS];
int dwnq_initialized = 0;

namespace {

void freeNode(File *node) {
  free(node->name);
  free(node);
}

// The last entry of `group` whose priority is not greater than `priority`, or null when the
// new entry belongs at the head: entries of equal priority stay in insertion order.
File *insertionPrev(const Group &group, uint8_t priority) {
  File *prev = nullptr;
  for (File *f = group.head; f != nullptr && f->priority <= priority; f = f->groupNext) prev = f;
  return prev;
}

File *predecessorOf(const Group &group, const File *node) {
  File *prev = nullptr;
  for (File *f = group.head; f != nullptr && f != node; f = f->groupNext) prev = f;
  return prev;
}

}  // namespace

int insert_node_internal(Group *group, File *prevLoc, File *insLoc, File *node) {
  node->groupNext = insLoc;
  if (prevLoc == nullptr) {
    group->head = node;
  } else {
    prevLoc->groupNext = node;
  }
  if (insLoc == nullptr) group->tail = node;
  group->totalSize += node->size;
  group->fileCnt += 1;

  if (group->fileCnt <= DWNQ_GROUP_CAP) return 0;
  File *last = group->tail;
  const bool droppedSelf = last == node;
  remove_node_internal(group, predecessorOf(*group, last), last, 1);
  return droppedSelf ? -1 : 0;
}

void remove_node_internal(Group *group, File *prev, File *loc, int shouldFreeNode) {
  group->totalSize -= loc->size;
  if (prev == nullptr) {
    group->head = loc->groupNext;
  } else {
    prev->groupNext = loc->groupNext;
  }
  if (group->tail == loc) group->tail = prev;
  group->fileCnt -= 1;
  loc->groupNext = nullptr;
  update_data_file();
  if (shouldFreeNode != 0) freeNode(loc);
}

void dwnq_insert(const char *name, uint8_t group, uint8_t priority, uint8_t flags) {
  Group &g = groups[group];

  File *prev = nullptr;
  File *node = g.head;
  while (node != nullptr && std::strcmp(node->name, name) != 0) {
    prev = node;
    node = node->groupNext;
  }

  if (node != nullptr) {
    // A move keeps the entry's name and size; the file is not looked up again.
    remove_node_internal(&g, prev, node, 0);
  } else {
    errno = 0;
    struct stat st {};
    const int rc = stat(name, &st);
    DBG_LOG_ERRNO(4, "Stats for new downlinked file failed");
    if (rc != 0) {
      fputs("Failed stats\n", stderr);
      return;
    }
    // A size does not fit the 32-bit fields of the queue, the listing and the transfer from
    // 4 GiB on, and such a file could not be sent anyway: it is refused.
    if (static_cast<unsigned long long>(st.st_size) > UINT32_MAX) {
      fprintf(stderr, "File %s too large to queue\n", name);
      return;
    }
    node = static_cast<File *>(calloc(1, sizeof(File)));
    if (node != nullptr) node->name = strdup(name);
    if (node == nullptr || node->name == nullptr) {
      perror("queue entry");
      free(node);
      return;
    }
    node->group = group;
    node->size = static_cast<uint32_t>(st.st_size);
  }
  node->priority = priority;
  node->flags = flags;

  const uint32_t countBefore = g.fileCnt;
  File *after = insertionPrev(g, priority);
  if (insert_node_internal(&g, after, after != nullptr ? after->groupNext : g.head, node) < 0) return;
  // When the cap dropped another entry, its removal rewrote the file with this one in it.
  const bool rewritten = g.fileCnt == countBefore;
  if (dwnq_initialized == 1 && !rewritten) add_to_data_file(node);
}

void dwnq_remove(const char *name, uint8_t group) {
  Group &g = groups[group];
  File *prev = nullptr;
  for (File *f = g.head; f != nullptr; prev = f, f = f->groupNext) {
    if (std::strcmp(f->name, name) == 0) {
      remove_node_internal(&g, prev, f, 1);
      return;
    }
  }
}

void iterate_listing_group(uint8_t groupNum, listing_itr_cb cb, void *arg) {
  if (dwnq_initialized == 0) return;
  for (File *f = groups[groupNum].head; f != nullptr; f = f->groupNext) {
    if (cb(f->name, f->group, f->priority, arg) != 0) return;
  }
}

void dwnq_cleanup() {
  for (Group &g : groups) {
    File *f = g.head;
    while (f != nullptr) {
      File *next = f->groupNext;
      freeNode(f);
      f = next;
    }
    g.head = nullptr;
    g.tail = nullptr;
  }
}
