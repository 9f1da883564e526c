// The receiving side's handling of one datagram: a data block is stored at its place in
// the output file and marked in the vector; metadata is checked against the request.
#include "common/rx_process.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/wire_codec.hpp"

uint8_t processData(const uint8_t *pkt, int nread, int outputFd, uint32_t filesize, BlkRxVector *rxSet,
                    int ignoreFileSize) {
  if (nread <= 1) return 0;
  // The longest datagram taken is block_size + 4 bytes, whatever the header width.
  if (static_cast<uint64_t>(nread) >= static_cast<uint64_t>(rxSet->block_size) + 5) return 0;
  KestilDataBlock block{};
  if (!decodeDataBlock(pkt, static_cast<size_t>(nread), &block)) return 0;
  const uint32_t blkNum = block.blkNum;
  // A data part longer than a block is refused outright: storing it would overwrite the
  // start of the next block, and cutting it would mark a block whose bytes are suspect.
  if (block.dataLen > rxSet->block_size) return 0;

  // The trace runs on into the progress line the session redraws.
  std::printf("   block %u, ", blkNum);
  if (!fitsInBlkRxVector(rxSet, blkNum)) return 0;
  // Counted before the size check and the write, so a refused or short block counts too.
  if (!blkIsInVector(rxSet, blkNum)) rxSet->uniqueBlkCnt++;
  const uint32_t offset = blockOffset(blkNum, rxSet->block_size);
  if (ignoreFileSize == 0 && offset > filesize) return 0;

  // The seek and the write in one positioned write: nothing reads the file's offset.
  ssize_t written = pwrite(outputFd, block.data, block.dataLen, static_cast<off_t>(offset));
  // A short or failed write leaves the block wanted by the next acknowledgement.
  if (written == static_cast<ssize_t>(block.dataLen)) addBlkToVector(rxSet, blkNum);
  return 1;
}

uint8_t processMetadata(const uint8_t *buff, int nread, const struct sockaddr_in *client,
                        const struct sockaddr_in *remote, uint32_t *filesize, uint32_t reqId, KestilTimespec *modTime,
                        uint8_t *md5) {
  KESTIL_metadata meta{};
  if (nread < 0 || !decodeMetadata(buff, static_cast<size_t>(nread), &meta)) return 0;
  if (remote->sin_port != client->sin_port || remote->sin_addr.s_addr != client->sin_addr.s_addr) return 0;
  if (meta.reqId != reqId) return 0;
  *filesize = meta.size;
  modTime->tv_sec = static_cast<int32_t>(meta.utcModTime_s);
  modTime->tv_nsec = static_cast<int32_t>(meta.utcModTime_ns);
  std::memcpy(md5, meta.md5, sizeof meta.md5);
  return 1;
}
