// Decoded forms of the transfer protocol's datagrams, with one encoder and one decoder per
// message. Encoders write into a caller's buffer and answer 0 when the message does not
// fit; decoders check the code and every length rule of the record and answer false
// otherwise. Names and data stay pointers into the datagram: nothing is copied.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/wire.hpp"

// Sequential big-endian reader over one datagram; it stays failed once a field does not fit,
// so a decoder checks `ok` once at the end.
struct WireReader {
  const uint8_t *p;
  size_t len;
  size_t pos = 0;
  bool ok = true;

  bool has(size_t n) const { return ok && len - pos >= n; }
  size_t left() const { return ok ? len - pos : 0; }
  const uint8_t *take(size_t n);
  uint8_t u8();
  uint16_t be16();
  uint32_t be32();
  uint32_t beN(int width);
};

// Sequential big-endian writer into a buffer of `cap` bytes; it stays failed once a field
// does not fit and never writes past `cap`.
struct WireWriter {
  uint8_t *p;
  size_t cap;
  size_t pos = 0;
  bool ok = true;

  uint8_t *reserve(size_t n);
  void u8(uint8_t v);
  void be16(uint16_t v);
  void be32(uint32_t v);
  void bytes(const void *src, size_t n);
  // Bytes written, or 0 when anything did not fit.
  size_t done() const { return ok ? pos : 0; }
};

// Vector acknowledgement, code 9 or the closing code 14.
struct KESTIL_vecack {
  uint8_t cmd;
  uint32_t base;
  const uint8_t *vector;  // vectorLen bytes; bit 0x80 of byte i is block base + 8i
  size_t vectorLen;
};

// Get (10), put (1) or directory-listing (2) request.
struct KESTIL_get {
  uint8_t cmd;
  uint8_t flags;
  uint16_t blocksize;
  uint32_t reqId;
  const char *name;  // NUL-terminated inside the datagram
  size_t nameLen;
  bool hasAck;  // a piggy-backed acknowledgement follows the name
  KESTIL_vecack ack;
};

// Queue-report request (11).
struct KESTIL_qreport {
  uint8_t flags;
  uint16_t blocksize;
  uint32_t reqId;
  uint8_t num_grps;
  GroupLimit limits[KESTIL_MAX_GROUP_LIMITS];  // plain numbers
  bool hasAck;
  KESTIL_vecack ack;
};

// Remove request (3): NUL-terminated paths back to back.
struct KESTIL_rm {
  uint8_t flags;
  const char *names;
  size_t namesLen;  // including every NUL
};

// Metadata (4), block 0 of a transfer.
struct KESTIL_metadata {
  uint32_t reqId;
  uint32_t size;
  uint32_t utcModTime_s;
  uint32_t utcModTime_ns;
  uint8_t md5[16];
};

// Data block datagram (5 to 8); the code follows from the block number's width.
struct KestilDataBlock {
  uint32_t blkNum;
  const uint8_t *data;
  size_t dataLen;
};

// Error report (15).
struct KESTIL_error {
  int32_t error_code1;
  int32_t error_code2;
  int32_t error_code3;
};

size_t encodeVecAck(uint8_t *dst, size_t cap, const KESTIL_vecack &ack);
// Code 9 or 14 and at least the 5 header bytes.
[[nodiscard]] bool decodeVecAck(const uint8_t *src, size_t len, KESTIL_vecack *out);

// Header, name and NUL, then the acknowledgement when hasAck. Name limits are the
// sender's policy (sendRequest), not checked here.
size_t encodeGetRequest(uint8_t *dst, size_t cap, const KESTIL_get &req);
// Code 1, 2 or 10, a NUL inside the datagram, and nothing or a whole acknowledgement after it.
[[nodiscard]] bool decodeGetRequest(const uint8_t *src, size_t len, KESTIL_get *out);

size_t encodeQReport(uint8_t *dst, size_t cap, const KESTIL_qreport &req);
// Code 11, at most 20 limits, all of them present, and nothing or a whole acknowledgement after.
[[nodiscard]] bool decodeQReport(const uint8_t *src, size_t len, KESTIL_qreport *out);

// Code 3 and at least one name, the last one NUL-terminated.
[[nodiscard]] bool decodeRm(const uint8_t *src, size_t len, KESTIL_rm *out);
// The name at *pos of a decoded remove request, advancing *pos past it; null after the last.
const char *rmNextName(const KESTIL_rm &rm, size_t *pos);

size_t encodeMetadata(uint8_t *dst, size_t cap, const KESTIL_metadata &meta);
// Exactly 33 bytes with code 4.
[[nodiscard]] bool decodeMetadata(const uint8_t *src, size_t len, KESTIL_metadata *out);

// Header length of block blkNum's datagram: the code byte and the narrowest number.
int dataBlockHeaderLen(uint32_t blkNum);
// Writes the code byte and the block number; returns the header length (cap >= 5 assumed
// by callers that pass a datagram buffer; 0 when it does not fit).
int encodeDataBlockHeader(uint8_t *dst, size_t cap, uint32_t blkNum);
size_t encodeDataBlock(uint8_t *dst, size_t cap, uint32_t blkNum, const uint8_t *data, size_t dataLen);
// Codes 5 to 8 with the whole block number present; the data may be empty.
[[nodiscard]] bool decodeDataBlock(const uint8_t *src, size_t len, KestilDataBlock *out);

size_t encodeError(uint8_t *dst, size_t cap, const KESTIL_error &err);
// Exactly 13 bytes with code 15.
[[nodiscard]] bool decodeError(const uint8_t *src, size_t len, KESTIL_error *out);
