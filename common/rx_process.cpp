// The receiving side's handling of one datagram: a data block is stored at its place in
// the output file and marked in the vector; metadata is checked against the request.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/packet.hpp"

uint8_t processData(const uint8_t *pkt, int nread, int outputFd, uint32_t filesize, BlkRxVector *rxSet,
                    int ignoreFileSize) {
  if (nread <= 1) return 0;
  // The longest datagram taken is block_size + 4 bytes, whatever the header width.
  if (static_cast<uint64_t>(nread) >= static_cast<uint64_t>(rxSet->block_size) + 5) return 0;
  if (pkt[0] < KESTIL_DATA1 || pkt[0] > KESTIL_DATA4) return 0;
  const int width = pkt[0] - KESTIL_DATA1 + 1;
  const int headerLen = 1 + width;
  if (nread < headerLen) return 0;
  const uint32_t blkNum = loadBeN(pkt + 1, width);
  const uint32_t dataLen = static_cast<uint32_t>(nread - headerLen);
  // A data part longer than a block is refused outright: storing it would overwrite the
  // start of the next block, and cutting it would mark a block whose bytes are suspect.
  if (dataLen > rxSet->block_size) return 0;

  // The trace runs on into the progress line the session redraws.
  std::printf("   block %u, ", blkNum);
  if (!fitsInBlkRxVector(rxSet, blkNum)) return 0;
  // Counted before the size check and the write, so a refused or short block counts too.
  if (!blkIsInVector(rxSet, blkNum)) rxSet->uniqueBlkCnt++;
  const uint32_t offset = blockOffset(blkNum, rxSet->block_size);
  if (ignoreFileSize == 0 && offset > filesize) return 0;

  lseek(outputFd, static_cast<off_t>(offset), SEEK_SET);
  ssize_t written = write(outputFd, pkt + headerLen, dataLen);
  // A short or failed write leaves the block wanted by the next acknowledgement.
  if (written == static_cast<ssize_t>(dataLen)) addBlkToVector(rxSet, blkNum);
  return 1;
}

uint8_t processMetadata(const uint8_t *buff, int nread, const struct sockaddr_in *client,
                        const struct sockaddr_in *remote, uint32_t *filesize, uint32_t reqId,
                        KestilTimespec *modTime, uint8_t *md5) {
  if (nread != KESTIL_METADATA_LEN || buff[0] != KESTIL_METADATA) return 0;
  if (remote->sin_port != client->sin_port || remote->sin_addr.s_addr != client->sin_addr.s_addr) return 0;
  if (loadBe32(buff + 1) != reqId) return 0;
  *filesize = loadBe32(buff + 5);
  modTime->tv_sec = static_cast<int32_t>(loadBe32(buff + 9));
  modTime->tv_nsec = static_cast<int32_t>(loadBe32(buff + 13));
  std::memcpy(md5, buff + 17, 16);
  return 1;
}
