// Creation, opening and mapping of the state files that carry a transfer's receive vector
// from one run to the next.
#include "client/state_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

bool downloadStateName(const char *localName, char out[STATE_NAME_MAX]) {
  if (std::strlen(localName) > LOCAL_NAME_MAX) return false;
  std::snprintf(out, STATE_NAME_MAX, ".%s%s", localName, STATE_SUFFIX);
  return true;
}

bool isStateFileName(const char *arg) {
  size_t len = std::strlen(arg);
  size_t suffix = std::strlen(STATE_SUFFIX);
  return len > 14 && arg[0] == '.' && std::strcmp(arg + len - suffix, STATE_SUFFIX) == 0;
}

void initSavedRXState(SavedRXState *st, const char *remoteName, const struct sockaddr_in *src) {
  std::memset(st, 0, sizeof *st);
  initBlkRxVector(&st->rxSet, 1);
  st->rxSet.uniqueBlkCnt = 0;
  std::strncpy(st->filename, remoteName, STATE_REMOTE_NAME_MAX);
  st->src.family = src->sin_family;
  std::memcpy(st->src.port, &src->sin_port, 2);
  std::memcpy(st->src.addr, &src->sin_addr.s_addr, 4);
}

bool holdsOneRecord(const struct stat &st, size_t recordSize) { return st.st_size == static_cast<off_t>(recordSize); }

namespace {

// Writes the initial record as a new state file in one write.
bool createRecord(const char *stateName, const void *initial, size_t recordSize) {
  UniqueFd cfd(open(stateName, O_RDWR | O_CREAT | O_TRUNC, 0644));
  if (!cfd.valid()) {
    std::perror("resume fd 2");
    return false;
  }
  if (write(cfd.get(), initial, recordSize) != static_cast<ssize_t>(recordSize)) {
    std::perror("tmpvec");
    return false;
  }
  cfd.reset();
  struct stat st {};
  if (stat(stateName, &st) != 0) {
    std::perror("restat");
    return false;
  }
  return true;
}

// Steps shared by both record kinds: create the record when needed, open it, check its size
// and map it. `initial` is the record written on creation.
StateFailure openState(const char *stateName, const void *initial, size_t recordSize, size_t vectorOffset,
                       StateMapping *out) {
  struct stat st {};
  bool create = stat(stateName, &st) != 0;
  // A shorter file can only be left by a creation cut off before its one write, before any
  // request went out: it is created anew. A longer one is not ours to guess at.
  if (!create && static_cast<size_t>(st.st_size) < recordSize) create = true;
  if (create && !createRecord(stateName, initial, recordSize)) return StateFailure::Fatal;
  UniqueFd sfd(open(stateName, O_RDWR));
  if (!sfd.valid()) {
    std::perror("resume fd");
    return StateFailure::Fatal;
  }
  // The size that is mapped is the size of the file actually opened: never map or touch more
  // than it holds.
  if (fstat(sfd.get(), &st) != 0 || !holdsOneRecord(st, recordSize)) {
    std::fprintf(stderr, "State file %s is %lld bytes, not the %zu bytes of a state record\n", stateName,
                 static_cast<long long>(st.st_size), recordSize);
    return StateFailure::Fatal;
  }
  Mapping map = Mapping::shared(sfd.get(), recordSize, PROT_READ | PROT_WRITE);
  if (map.addr == nullptr) {
    std::perror("mmap 1");
    return StateFailure::Fatal;
  }
  BlkRxVector vec;
  std::memcpy(&vec, static_cast<const uint8_t *>(map.addr) + vectorOffset, sizeof vec);
  // A sized record with block size 0 could never take a block.
  if (!blkRxVectorIsUsable(&vec) || (vec.lastBlk != 0 && vec.block_size == 0)) {
    std::fprintf(stderr, "State file %s is damaged: its block vector cannot be used\n", stateName);
    return StateFailure::Fatal;
  }
  static_cast<Mapping &>(*out) = std::move(map);
  out->fd = std::move(sfd);
  return StateFailure::None;
}

}  // namespace

StateFailure openDownloadState(const char *stateName, const char *remoteName, const struct sockaddr_in *src,
                               StateMapping *out) {
  SavedRXState initial;
  initSavedRXState(&initial, remoteName, src);
  return openState(stateName, &initial, sizeof initial, offsetof(SavedRXState, rxSet), out);
}

StateFailure openVectorState(const char *stateName, StateMapping *out) {
  BlkRxVector initial;
  std::memset(&initial, 0, sizeof initial);
  initBlkRxVector(&initial, 1);
  initial.lastBlk = 0;
  initial.uniqueBlkCnt = 0;
  return openState(stateName, &initial, sizeof initial, 0, out);
}

void closeState(StateMapping *m) {
  m->reset();
  m->fd.reset();
}
