// Vector acknowledgements built from a BlkRxVector, and the requests that open a transfer,
// each carrying a piggy-backed acknowledgement when the vector knows the file size.
#include "common/requests.hpp"

#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/wire_codec.hpp"
#include "station/station.hpp"

namespace {

// A request plus its piggy-backed acknowledgement stays within these bytes, the
// acknowledgement within the second bound, and a smaller room carries none.
constexpr int PIGGYBACK_TOTAL_LIMIT = 224;
constexpr int PIGGYBACK_ACK_LIMIT = 64;
constexpr int PIGGYBACK_MIN_ROOM = 15;
constexpr int REQUEST_HEADER_LEN = 8;
constexpr int NAME_LIMIT = 200;
constexpr int LONG_NAME_LIMIT = 1450;
constexpr int QREQ_LIMIT = 200;

// Appends the acknowledgement of rxSet after `len` request bytes; returns the new length.
int appendPiggyback(uint8_t *buf, int len, const BlkRxVector *rxSet) {
  if (rxSet->lastBlk == 0) return len;
  int room = PIGGYBACK_TOTAL_LIMIT - len;
  if (room > PIGGYBACK_ACK_LIMIT) room = PIGGYBACK_ACK_LIMIT;
  if (room <= PIGGYBACK_MIN_ROOM) return len;
  return len + fill_vecack_packet(buf + len, room, rxSet, 0);
}

}  // namespace

ssize_t sendReported(int fd, const struct sockaddr_in *target, const uint8_t *buf, size_t len, const char *what) {
  errno = 0;
  const ssize_t sent = sendto(fd, buf, len, 0, reinterpret_cast<const sockaddr *>(target), sizeof(sockaddr_in));
  const int err = errno;
  if (what != nullptr) std::printf("Sent %d byte %s!\n", static_cast<int>(sent), what);
  if (sent != static_cast<ssize_t>(len)) {
    std::fflush(stdout);
    errno = err;
    std::perror("Send");
  }
  return sent;
}

int fill_vecack_packet(uint8_t *dst, int byteLimit, const BlkRxVector *vec, int abort) {
  if (byteLimit <= KESTIL_VECACK_HEADER_LEN) return 0;
  dst[0] = abort != 0 ? KESTIL_VECACK_FINAL : KESTIL_VECACK;
  storeBe32(dst + 1, vec->blkNumBase);
  // The vector runs up to and including the byte that holds lastBlk's group of eight.
  const uint32_t lastGroup = vec->lastBlk & ~7u;
  uint32_t i = 0;
  while (i < RING_BYTES && KESTIL_VECACK_HEADER_LEN + static_cast<int>(i) < byteLimit &&
         vec->blkNumBase + 8u * i <= lastGroup) {
    dst[KESTIL_VECACK_HEADER_LEN + i] = blkRxVectorByte(vec, i);
    ++i;
  }
  return KESTIL_VECACK_HEADER_LEN + static_cast<int>(i);
}

void sendVectorAck(int fd, const struct sockaddr_in *target, const BlkRxVector *vec, int abort) {
  uint8_t buf[KESTIL_VECACK_MAX_LEN + 1];
  int len = fill_vecack_packet(buf, KESTIL_VECACK_MAX_LEN, vec, abort);
  if (len > 0) socket_write(fd, buf, len, target);
}

void sendRequest(int fd, const struct sockaddr_in *target, const char *remote_filename, const BlkRxVector *rxSet,
                 uint8_t flags, uint8_t cmd) {
  uint8_t buf[KESTIL_MAX_DATAGRAM];
  const size_t nameLen = std::strlen(remote_filename);
  const size_t limit = (flags & KESTIL_FLAG_LONG_NAME) != 0 ? LONG_NAME_LIMIT : NAME_LIMIT;
  if (nameLen + REQUEST_HEADER_LEN + 1 > limit) {
    std::puts("Name too long");
    return;
  }
  KESTIL_get req{};
  req.cmd = cmd;
  req.flags = flags;
  req.blocksize = static_cast<uint16_t>(rxSet->block_size);
  req.reqId = KESTIL_REQ_ID;
  req.name = remote_filename;
  req.nameLen = nameLen;
  int len = appendPiggyback(buf, static_cast<int>(encodeGetRequest(buf, sizeof buf, req)), rxSet);
  sendReported(fd, target, buf, static_cast<size_t>(len), nullptr);
}

void sendQReq(int fd, const struct sockaddr_in *target, const BlkRxVector *rxSet, uint8_t num_grps,
              const GroupLimit *limits, uint8_t flags) {
  uint8_t buf[KESTIL_MAX_DATAGRAM];
  const int reqLen = KESTIL_GROUP_LIMIT_LEN * (num_grps + 1);
  // 21 limits would still fit the 200-byte bound, but no caller holds more than 20 and the
  // record has room for 20; more is refused like an oversized request.
  if (reqLen > QREQ_LIMIT || num_grps > KESTIL_MAX_GROUP_LIMITS) {
    std::puts("Q Request too long");
    return;
  }
  KESTIL_qreport req{};
  req.flags = flags;
  req.blocksize = static_cast<uint16_t>(rxSet->block_size);
  req.reqId = KESTIL_REQ_ID;
  req.num_grps = num_grps;
  if (num_grps > 0) std::memcpy(req.limits, limits, num_grps * sizeof *limits);
  int len = appendPiggyback(buf, static_cast<int>(encodeQReport(buf, sizeof buf, req)), rxSet);
  sendReported(fd, target, buf, static_cast<size_t>(len), "qreq");
}
