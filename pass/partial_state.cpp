// Reading the sessions' records: the vector at its offset, checked for size first.
#include "pass/partial_state.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>

#include "client/state_file.hpp"
#include "common/digest.hpp"

namespace {

RecordView readRecord(const std::string &path, size_t recordSize, off_t vectorOffset) {
  RecordView view;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return view;
  BlkRxVector v{};
  off_t end = lseek(fd, 0, SEEK_END);
  bool whole = end == static_cast<off_t>(recordSize) && pread(fd, &v, sizeof v, vectorOffset) == sizeof v;
  close(fd);
  if (!whole) return view;
  view.present = true;
  view.sized = v.lastBlk != 0;
  view.size = v.file_size;
  view.heldBytes = heldBytes(v);
  view.modTime = v.modTime;
  for (int i = 0; i < 16; ++i) view.md5[i] = v.md5[i];
  return view;
}

}  // namespace

RecordView readDownloadRecord(const std::string &path) {
  return readRecord(path, sizeof(SavedRXState), offsetof(SavedRXState, rxSet));
}

RecordView readVectorRecord(const std::string &path) { return readRecord(path, sizeof(BlkRxVector), 0); }

uint64_t heldBytes(const BlkRxVector &v) {
  const uint64_t bs = v.block_size;
  if (bs == 0) return 0;
  uint64_t held = 0;
  if (v.lastBlk == 0) {
    for (uint32_t b = v.blkNumBase; b < v.blkNumBase + BLK_RX_WINDOW; ++b)
      if (b > 0 && blkIsInVector(&v, b)) held += bs;
    return held;
  }
  const uint64_t size = v.file_size;
  // Every block below the base is held: a prefix of the file. Above it the window says.
  const uint32_t below = v.blkNumBase < v.lastBlk ? v.blkNumBase : v.lastBlk;
  if (below > 1) held = std::min<uint64_t>((below - 1) * bs, size);
  const uint32_t end = std::min<uint64_t>(static_cast<uint64_t>(v.blkNumBase) + BLK_RX_WINDOW, v.lastBlk);
  for (uint32_t b = below > 1 ? below : 1; b < end; ++b) {
    uint64_t offset = (b - 1) * bs;
    if (offset < size && blkIsInVector(&v, b)) held += std::min(bs, size - offset);
  }
  return held;
}

std::string md5Hex(const uint8_t digest[16]) {
  static const char hex[] = "0123456789abcdef";
  std::string out;
  for (int i = 0; i < 16; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

std::string md5OfFile(const std::string &path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "";
  uint8_t digest[16];
  int ok = md5_fd(fd, digest);
  close(fd);
  return ok == 1 ? md5Hex(digest) : "";
}
