// What a session's record on disk says: the download state record beside a partial file,
// or the bare vector record of a report fetch. Read only; the sessions own the records.
#pragma once

#include <cstdint>
#include <string>

#include "common/blk_rx_vector.hpp"

struct RecordView {
  bool present = false;  // a whole record was read
  bool sized = false;    // the metadata has arrived: size, time and digest are valid
  uint32_t size = 0;
  uint64_t heldBytes = 0;  // bytes of the file the marked blocks hold
  KestilTimespec modTime{};
  uint8_t md5[16]{};
};

// The download state record at `path`.
RecordView readDownloadRecord(const std::string &path);
// The 176-byte vector record of a listing or report fetch at `path`.
RecordView readVectorRecord(const std::string &path);
// Bytes of the file covered by the blocks `v` marks as received (block 0, the metadata,
// holds none); before the metadata, the marked blocks at full block size.
uint64_t heldBytes(const BlkRxVector &v);
// The 32 lower-case hex digits of a digest.
std::string md5Hex(const uint8_t digest[16]);
// The digest of the file at `path` as hex; empty when it cannot be read.
std::string md5OfFile(const std::string &path);
