// The sliding bitmap of received blocks: 1024 block bits in a 128-byte ring that moves
// forward over completed bytes once the file size is known.
#include "common/blk_rx_vector.hpp"

#include <cstring>

namespace {

// `head` comes from a mapped state file; reducing it keeps a damaged one inside the ring.
uint32_t headIndex(const BlkRxVector *vec) { return static_cast<uint32_t>(vec->head) % RING_BYTES; }
// Ring index of block b; b must lie in the window.
uint32_t ringIndex(const BlkRxVector *vec, uint32_t b) {
  return ((b - vec->blkNumBase) / 8 + headIndex(vec)) % RING_BYTES;
}
uint8_t bitMask(uint32_t b) { return static_cast<uint8_t>(0x80u >> (b % 8)); }

// The window moves by one ring byte: the byte it leaves is cleared for its re-entry at the far end.
void stepWindow(BlkRxVector *vec) {
  vec->vector[headIndex(vec)] = 0;
  vec->head = static_cast<int32_t>((headIndex(vec) + 1) % RING_BYTES);
  vec->blkNumBase += 8;
}

}  // namespace

void initBlkRxVector(BlkRxVector *vec, uint32_t blkSize) {
  std::memset(vec->vector, 0, sizeof vec->vector);
  vec->block_size = blkSize;
  vec->file_size = 0;
  vec->head = 0;
  vec->blkNumBase = 0;
  vec->lastBlk = 0;
}

void setBlkRxVectorFileSize(BlkRxVector *vec, uint32_t fileSize) {
  vec->file_size = fileSize;
  vec->lastBlk = lastBlkForSize(fileSize, vec->block_size);
}

int fitsInBlkRxVector(const BlkRxVector *vec, uint32_t blkNum) { return blkNum < vec->blkNumBase + BLK_RX_WINDOW; }

int blkIsInVector(const BlkRxVector *vec, uint32_t blkNum) {
  if (blkNum < vec->blkNumBase) return 1;
  if (!fitsInBlkRxVector(vec, blkNum)) return 0;
  return (vec->vector[ringIndex(vec, blkNum)] & bitMask(blkNum)) != 0;
}

void addBlkToVector(BlkRxVector *vec, uint32_t blkNum) {
  if (blkNum < vec->blkNumBase || !fitsInBlkRxVector(vec, blkNum)) return;
  vec->vector[ringIndex(vec, blkNum)] |= bitMask(blkNum);
  slideBlkRxVector(vec);
}

void slideBlkRxVector(BlkRxVector *vec) {
  // lastBlk 0 (size unknown) stops the slide: nothing can be completed before the metadata.
  while (vec->vector[headIndex(vec)] == 0xFF && vec->blkNumBase < vec->lastBlk) stepWindow(vec);
}

int vectorIsFinished(const BlkRxVector *vec) {
  if (vec->lastBlk == 0) return 0;
  if (vec->blkNumBase > vec->lastBlk) return 1;
  uint32_t lastGroup = vec->lastBlk & ~7u;
  if (vec->blkNumBase < lastGroup) return 0;
  for (uint32_t b = lastGroup; b < vec->lastBlk; ++b) {
    if (!blkIsInVector(vec, b)) return 0;
  }
  return 1;
}

uint8_t blkRxVectorByte(const BlkRxVector *vec, uint32_t i) { return vec->vector[(headIndex(vec) + i) % RING_BYTES]; }

void setBlkRxVectorByte(BlkRxVector *vec, uint32_t i, uint8_t bits) {
  vec->vector[(headIndex(vec) + i) % RING_BYTES] = bits;
}

void advanceBlkRxVector(BlkRxVector *vec, uint32_t base) {
  if (base <= vec->blkNumBase) return;
  if (base - vec->blkNumBase > BLK_RX_WINDOW) {
    std::memset(vec->vector, 0, sizeof vec->vector);
    vec->head = 0;
    vec->blkNumBase = base;
    return;
  }
  while (vec->blkNumBase < base) stepWindow(vec);
}

bool blkRxVectorIsUsable(const BlkRxVector *vec) {
  return vec->head >= 0 && static_cast<uint32_t>(vec->head) < RING_BYTES && vec->blkNumBase % 8 == 0;
}
