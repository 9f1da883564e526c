// The sending half of the block protocol: metadata and data datagrams built from the local
// file (or its in-memory copy), acknowledgements folded into the sender's copy of the
// receiver's vector, and the choice of the next block to send.
#include "common/tx_state.hpp"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/digest.hpp"
#include "common/wire_codec.hpp"
#include "station/station.hpp"

namespace {

constexpr int LOG_LEVEL = 4;
constexpr uint32_t CACHE_LIMIT = 262144;  // files of this size or more are read block by block

int buildMetadata(const KESTIL_TXState *tx, uint8_t *buf) {
  KESTIL_metadata meta{};
  // The record holds reqId in network order already; the encoder writes host order
  // big-endian, so converting back leaves the datagram bytes unchanged.
  meta.reqId = ntohl(tx->reqId);
  meta.size = tx->size;
  meta.utcModTime_s = static_cast<uint32_t>(tx->stat.st_mtime);
  meta.utcModTime_ns = 0;
  // Digested afresh for every send of block 0, resends included.
  if (tx->fileContents != nullptr) {
    md5_buff(tx->fileContents, tx->size, meta.md5);
  } else {
    md5_fd(tx->fd, meta.md5);
  }
  return static_cast<int>(encodeMetadata(buf, KESTIL_METADATA_LEN, meta));
}

// Moves nextBlkNum over blocks the receiver already has, within the window and the file.
void skipAcknowledged(KESTIL_TXState *tx, uint32_t vecEnd) {
  while (tx->nextBlkNum < vecEnd && tx->nextBlkNum < tx->rxVec.lastBlk && blkIsInVector(&tx->rxVec, tx->nextBlkNum)) {
    tx->nextBlkNum++;
  }
}

}  // namespace

int tx_build(const KESTIL_TXState *txState, uint32_t blkNum, uint8_t *buf) {
  if (blkNum == 0) return buildMetadata(txState, buf);

  const int headerLen = encodeDataBlockHeader(buf, KESTIL_MAX_DATAGRAM, blkNum);
  uint32_t limit = static_cast<uint32_t>(KESTIL_MAX_DATAGRAM - headerLen);
  if (txState->blkSize < limit) limit = txState->blkSize;
  const uint32_t offset = blockOffset(blkNum, txState->blkSize);

  ssize_t dataLen = 0;
  if (txState->fileContents != nullptr) {
    if (offset > txState->size) {
      DBG_print(LOG_LEVEL, "block length past end of file buffer");
    } else {
      uint32_t left = txState->size - offset;
      dataLen = left < limit ? left : limit;
      std::memcpy(buf + headerLen, txState->fileContents + offset, static_cast<size_t>(dataLen));
    }
  } else {
    errno = 0;
    lseek(txState->fd, static_cast<off_t>(offset), SEEK_SET);
    DBG_LOG_ERRNO(LOG_LEVEL, "seek error");
    dataLen = read(txState->fd, buf + headerLen, limit);
    DBG_LOG_ERRNO(LOG_LEVEL, "data read error");
  }
  if (dataLen < 0) return static_cast<int>(dataLen);
  return headerLen + static_cast<int>(dataLen);
}

int tx_func(KESTIL_TXState *txState, int tofd, const struct sockaddr_in *addr) {
  uint8_t buf[KESTIL_MAX_DATAGRAM];
  const int len = tx_build(txState, txState->nextBlkNum, buf);
  // A failed read sends nothing, so the caller does not count the send.
  if (len < 0) return len;
  socket_write(tofd, buf, len, addr);
  return len;
}

uint8_t rx_func(KESTIL_TXState *txState, const uint8_t *ack, int len) {
  // Too short to hold a base: not an acknowledgement, and not counted.
  if (len < KESTIL_VECACK_HEADER_LEN) return 0;
  BlkRxVector &vec = txState->rxVec;
  const uint32_t base = loadBe32(ack + 1);
  if (base % 8 != 0) return 0;
  txState->ackCnt++;

  advanceBlkRxVector(&vec, base);

  // The receiver's latest report replaces each group of eight it covers.
  const int vectorLen = len - KESTIL_VECACK_HEADER_LEN;
  for (int i = 0; i < vectorLen; ++i) {
    const uint64_t first = static_cast<uint64_t>(base) + 8u * static_cast<uint64_t>(i);
    if (first < vec.blkNumBase) continue;
    const uint64_t pos = (first - vec.blkNumBase) / 8;
    if (pos >= RING_BYTES) break;
    setBlkRxVectorByte(&vec, static_cast<uint32_t>(pos), ack[KESTIL_VECACK_HEADER_LEN + i]);
  }
  slideBlkRxVector(&vec);
  return vectorIsFinished(&vec) ? 1 : 0;
}

uint32_t tx_advance_nextBlkNum(KESTIL_TXState *txState) {
  const uint32_t vecEnd = txState->rxVec.blkNumBase + BLK_RX_WINDOW;
  skipAcknowledged(txState, vecEnd);
  if (txState->nextBlkNum < vecEnd && txState->nextBlkNum < txState->rxVec.lastBlk) return vecEnd;
  // A wrap back to the window's base needs an acknowledgement applied since the last one.
  if (txState->lastWrapAckCnt >= txState->ackCnt) return vecEnd;
  txState->nextBlkNum = txState->rxVec.blkNumBase;
  txState->lastWrapAckCnt = txState->ackCnt;
  skipAcknowledged(txState, vecEnd);
  return vecEnd;
}

int cacheFile(KESTIL_TXState *txState) {
  if (txState->size == 0) return 0;
  if (txState->size >= CACHE_LIMIT) {
    DBG_print(LOG_LEVEL, "file of size %lu is too big to cache", static_cast<unsigned long>(txState->size));
    return 0;
  }
  std::free(txState->fileContents);
  txState->fileContents = static_cast<char *>(std::malloc(txState->size));
  if (txState->fileContents == nullptr) {
    DBG_print(LOG_LEVEL, "failed to allocate memory for file contents cache");
    return 0;
  }
  uint32_t got = 0;
  while (got < txState->size) {
    errno = 0;
    ssize_t n = read(txState->fd, txState->fileContents + got, txState->size - got);
    DBG_LOG_ERRNO(LOG_LEVEL, "data read error");
    if (n <= 0) break;
    got += static_cast<uint32_t>(n);
  }
  if (got < txState->size) {
    DBG_print(LOG_LEVEL, "failed to cache file contents");
    releaseFileCache(txState);
    return 0;
  }
  return 1;
}

void releaseFileCache(KESTIL_TXState *txState) {
  std::free(txState->fileContents);
  txState->fileContents = nullptr;
}
