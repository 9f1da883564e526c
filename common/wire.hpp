// Command codes, flag bits and sizes of the transfer protocol, and the big-endian helpers
// every encoder and decoder of its datagrams is written with.
#pragma once

#include <cstddef>
#include <cstdint>

// Command codes (byte 0 of every datagram on the transfer socket).
constexpr uint8_t KESTIL_PUT = 1;
constexpr uint8_t KESTIL_LS = 2;
constexpr uint8_t KESTIL_RM = 3;
constexpr uint8_t KESTIL_METADATA = 4;
constexpr uint8_t KESTIL_DATA1 = 5;
constexpr uint8_t KESTIL_DATA2 = 6;
constexpr uint8_t KESTIL_DATA3 = 7;
constexpr uint8_t KESTIL_DATA4 = 8;
constexpr uint8_t KESTIL_VECACK = 9;
constexpr uint8_t KESTIL_GET = 10;
constexpr uint8_t KESTIL_QREPORT = 11;
constexpr uint8_t KESTIL_PUT_FAILURE = 13;
constexpr uint8_t KESTIL_VECACK_FINAL = 14;
constexpr uint8_t KESTIL_ERROR = 15;

// Request flags; each request kind has its own bits.
constexpr uint8_t KESTIL_FLAG_LONG_NAME = 8;  // get, put
constexpr uint8_t KESTIL_FLAG_C = 4;          // get
constexpr uint8_t KESTIL_LS_FLAG_R = 1;       // directory listing, queue report
constexpr uint8_t KESTIL_LS_FLAG_A = 2;       // directory listing
constexpr uint8_t KESTIL_RM_FLAG_RECURSIVE = 1;
constexpr uint8_t KESTIL_RM_FLAG_FORCE = 2;

constexpr int KESTIL_MAX_DATAGRAM = 1500;
constexpr uint16_t KESTIL_PORT = 3223;       // the remote file service's transfer port
constexpr uint32_t KESTIL_REQ_ID = 1;        // every request carries it
constexpr uint32_t KESTIL_BLOCK_SIZE = 141;  // block size of every new transfer
constexpr int KESTIL_METADATA_LEN = 33;
constexpr int KESTIL_ERROR_LEN = 13;
constexpr int KESTIL_VECACK_HEADER_LEN = 5;
constexpr int KESTIL_VECACK_MAX_LEN = 133;  // an acknowledgement datagram of its own
constexpr int KESTIL_MAX_GROUP_LIMITS = 20;
constexpr int KESTIL_GROUP_LIMIT_LEN = 9;

inline uint16_t loadBe16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline uint32_t loadBe32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
         p[3];
}
// A `width`-byte (1 to 4) big-endian number placed at the low end of a 32-bit value.
inline uint32_t loadBeN(const uint8_t *p, int width) {
  uint32_t v = 0;
  for (int i = 0; i < width; ++i) v = v << 8 | p[i];
  return v;
}
inline void storeBe16(uint8_t *p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
inline void storeBe32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

// One group's limits in a queue-report request, held as plain numbers; the request
// encoder writes them big-endian (9 bytes each on the wire).
struct GroupLimit {
  uint8_t group;
  uint32_t sizeTarget;
  uint32_t numEntriesTarget;
};
