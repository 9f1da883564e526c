// The sending half of the block protocol: the record of one file being sent, the datagram
// builder, the acknowledgement folding and the scheduler of the next block.
#pragma once

#include <netinet/in.h>
#include <sys/stat.h>

#include <cstdint>

#include "common/blk_rx_vector.hpp"

struct KESTIL_TXState {
  uint16_t blkSize;
  uint32_t nextBlkNum;  // 0: the metadata
  uint32_t reqId;       // already in network byte order
  uint32_t size;
  uint8_t flags;
  int fd;
  char filename[257];
  BlkRxVector rxVec;  // the sender's copy of the receiver's vector
  struct stat stat;
  int ackCnt;
  int lastWrapAckCnt;
  int dataCnt;
  char *tmpFileName;
  char *fileContents;  // whole file when cacheFile succeeded, else null; owned
};

// Builds block `blkNum` (the metadata for 0, else a data block) into `buf`, which holds
// KESTIL_MAX_DATAGRAM bytes: its length, or the negative result of a failed file read.
int tx_build(const KESTIL_TXState *txState, uint32_t blkNum, uint8_t *buf);
// Sends block nextBlkNum as tx_build makes it; 33 for the metadata, the bytes sent for a data block, or the
// negative result of a failed file read (nothing sent).
int tx_func(KESTIL_TXState *txState, int tofd, const struct sockaddr_in *addr);
// Applies one acknowledgement datagram of `len` bytes; 1 when every block is acknowledged.
uint8_t rx_func(KESTIL_TXState *txState, const uint8_t *ack, int len);
// Moves nextBlkNum to the next block to send; returns the window's end (base + 1024).
uint32_t tx_advance_nextBlkNum(KESTIL_TXState *txState);
int cacheFile(KESTIL_TXState *txState);
// Frees the in-memory copy that cacheFile made (allocated with malloc) and clears the pointer.
void releaseFileCache(KESTIL_TXState *txState);
