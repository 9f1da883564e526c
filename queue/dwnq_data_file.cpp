// The queue data file: one record per queued entry (16-bit native entry length, the name
// and its zero byte, group, priority, flags). Loaded once, appended to on each insertion,
// rewritten in full after each removal.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "queue/downlink_queue.hpp"
#include "station/station.hpp"

int datafd = -1;

namespace {

// The entry length counts the name, its zero byte and the three attribute bytes.
constexpr uint16_t ENTRY_FIXED_BYTES = 4;

// While the file is being read, a removal (a duplicate name moving its entry, or the group
// cap) must not rewrite it: the truncation would cut off the records not read yet. Such a
// rewrite is put off and done once when the read loop is over.
bool loading = false;
bool rewriteDeferred = false;

void writeLogged(int fd, const void *buf, size_t len) {
  errno = 0;
  const ssize_t n = write(fd, buf, len);
  if (n != static_cast<ssize_t>(len)) DBG_LOG_ERRNO(4, "bad write to data file");
  errno = 0;
}

void emptyGroups() {
  dwnq_cleanup();
  memset(groups, 0, sizeof groups);
}

// The file ends in a record cut short (a process stopped between the writes of an append):
// the file is cut back to its last whole record, or the records appended after the cut one
// would be read as part of it at the next load and lost.
void dropCutRecord(off_t wholeEnd) {
  errno = 0;
  if (ftruncate(datafd, wholeEnd) != 0) DBG_LOG_ERRNO(4, "unable to truncate qdata");
  errno = 0;
}

// Reads the records of the open data file into the queue.
void loadRecords() {
  uint8_t *entry = nullptr;
  uint16_t entryLen = 0;
  off_t wholeEnd = 0;  // end of the last whole record
  for (;;) {
    errno = 0;
    const ssize_t got = read(datafd, &entryLen, sizeof entryLen);
    if (got != static_cast<ssize_t>(sizeof entryLen)) {
      // End of file, or one stray byte at the end: nothing more to load.
      if (got < 0) DBG_LOG_ERRNO(4, "bad read from data file");
      if (got == 1) dropCutRecord(wholeEnd);
      break;
    }
    // One byte at least, so that an entry length of 0 still gets a buffer.
    auto *grown = static_cast<uint8_t *>(realloc(entry, entryLen + 1u));
    if (grown == nullptr) {
      perror("initialization malloc");
      break;
    }
    entry = grown;
    errno = 0;
    const ssize_t body = read(datafd, entry, entryLen);
    if (body != entryLen) {
      DBG_LOG_ERRNO(4, "bad read from data file");
      if (body >= 0) dropCutRecord(wholeEnd);
      break;
    }
    wholeEnd += static_cast<off_t>(sizeof entryLen) + entryLen;
    // The name's zero byte must leave room for the three attribute bytes inside the record.
    // A record without it is skipped: its length still frames it, so loading goes on with
    // the next record.
    const void *zero = entryLen >= ENTRY_FIXED_BYTES ? memchr(entry, 0, entryLen - 3u) : nullptr;
    if (zero == nullptr) {
      DBG_print(4, "malformed record in queue data file (entry length %u) skipped\n", entryLen);
      continue;
    }
    const auto *attrs = static_cast<const uint8_t *>(zero) + 1;
    dwnq_insert(reinterpret_cast<const char *>(entry), attrs[0], attrs[1], attrs[2]);
  }
  free(entry);
}

}  // namespace

void dwnq_init(const char *queueFile) {
  emptyGroups();
  if (datafd >= 0) return;

  errno = 0;
  datafd = open(queueFile, O_RDWR | O_CREAT, 0666);
  DBG_LOG_ERRNO(4, "Unable to open queue data file");
  if (datafd < 0) {
    fputs("error opening queue data file\n", stderr);
    return;
  }

  loading = true;
  rewriteDeferred = false;
  loadRecords();
  loading = false;
  dwnq_initialized = 1;
  if (rewriteDeferred) update_data_file();
}

void add_to_data_file(File *node) {
  const auto entryLen = static_cast<uint16_t>(strlen(node->name) + ENTRY_FIXED_BYTES);
  if (datafd < 0) return;
  char *name = strdup(node->name);
  if (name == nullptr) {
    perror("adding to data file");
    return;
  }
  const uint8_t attrs[3] = {node->group, node->priority, node->flags};
  lseek(datafd, 0, SEEK_END);
  writeLogged(datafd, &entryLen, sizeof entryLen);
  writeLogged(datafd, name, strlen(name) + 1);
  writeLogged(datafd, attrs, sizeof attrs);
  free(name);
}

void update_data_file() {
  if (loading) {
    rewriteDeferred = true;
    return;
  }
  errno = 0;
  const int rc = ftruncate(datafd, 0);
  DBG_LOG_ERRNO(4, "unable to truncate qdata");
  if (rc != 0) {
    fputs("unable to truncate data file\n", stderr);
    return;
  }
  for (const Group &g : groups) {
    for (File *f = g.head; f != nullptr; f = f->groupNext) add_to_data_file(f);
  }
}

void dwnq_close() {
  emptyGroups();
  if (datafd >= 0) close(datafd);
  datafd = -1;
  dwnq_initialized = 0;
  loading = false;
  rewriteDeferred = false;
}
