// BlkRxVector: the sliding bitmap of received blocks of one transfer, with the file facts
// the metadata brings. Its bytes are also the vector part of the state files.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

// Modification time as stored in the state files: 32-bit fields whatever the platform's
// own timespec is.
struct KestilTimespec {
  int32_t tv_sec;
  int32_t tv_nsec;
};

// The ring of received-block bits and the window of blocks it covers beyond blkNumBase.
constexpr uint32_t RING_BYTES = 128;
constexpr uint32_t BLK_RX_WINDOW = RING_BYTES * 8;

struct BlkRxVector {
  uint32_t blkNumBase;  // multiple of 8; every block below it is received
  uint32_t lastBlk;     // data blocks + 1 (block 0 is the metadata); 0 while the size is unknown
  uint32_t file_size;
  uint32_t block_size;
  uint32_t uniqueBlkCnt;
  KestilTimespec modTime;
  int32_t head;  // ring byte holding blocks blkNumBase .. blkNumBase + 7
  uint8_t md5[16];
  uint8_t vector[RING_BYTES];
};

// The state files hold the record as a native little-endian image.
static_assert(std::endian::native == std::endian::little, "state files are little-endian images");
static_assert(std::is_trivially_copyable_v<BlkRxVector>);
static_assert(sizeof(BlkRxVector) == 176);
static_assert(offsetof(BlkRxVector, blkNumBase) == 0);
static_assert(offsetof(BlkRxVector, lastBlk) == 4);
static_assert(offsetof(BlkRxVector, file_size) == 8);
static_assert(offsetof(BlkRxVector, block_size) == 12);
static_assert(offsetof(BlkRxVector, uniqueBlkCnt) == 16);
static_assert(offsetof(BlkRxVector, modTime) == 20);
static_assert(offsetof(BlkRxVector, head) == 28);
static_assert(offsetof(BlkRxVector, md5) == 32);
static_assert(offsetof(BlkRxVector, vector) == 48);

void initBlkRxVector(BlkRxVector *vec, uint32_t blkSize);
void setBlkRxVectorFileSize(BlkRxVector *vec, uint32_t fileSize);
int fitsInBlkRxVector(const BlkRxVector *vec, uint32_t blkNum);
int blkIsInVector(const BlkRxVector *vec, uint32_t blkNum);
void addBlkToVector(BlkRxVector *vec, uint32_t blkNum);
void slideBlkRxVector(BlkRxVector *vec);
int vectorIsFinished(const BlkRxVector *vec);
// Vector byte i (below RING_BYTES): the bits of blocks blkNumBase + 8i to + 8i + 7, in the
// order of the wire vector.
uint8_t blkRxVectorByte(const BlkRxVector *vec, uint32_t i);
void setBlkRxVectorByte(BlkRxVector *vec, uint32_t i, uint8_t bits);
// Moves the window up to `base` (a multiple of 8), clearing every ring byte it leaves; a jump
// past the whole window starts an empty ring at `base`. A base at or below blkNumBase is kept.
void advanceBlkRxVector(BlkRxVector *vec, uint32_t base);
// True when the ring index lies inside the ring and the base is a multiple of 8: the record
// comes from a file, and other values would send the operations outside the ring.
bool blkRxVectorIsUsable(const BlkRxVector *vec);

// Block arithmetic, in the protocol's unsigned 32-bit terms.
// File offset of data block n (n >= 1).
constexpr uint32_t blockOffset(uint32_t n, uint32_t blockSize) { return (n - 1) * blockSize; }
// lastBlk of a file: data blocks + 1. The rounding-up is done without the sum
// fileSize + blockSize - 1, which would wrap for sizes within a block of 4 GiB.
constexpr uint32_t lastBlkForSize(uint32_t fileSize, uint32_t blockSize) {
  return fileSize / blockSize + (fileSize % blockSize != 0 ? 1 : 0) + 1;
}
