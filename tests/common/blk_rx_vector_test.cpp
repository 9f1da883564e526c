// The block receive vector: the window's slide at its edges, and the block arithmetic at the
// edges of a 32-bit size. (Where a file finishes: the downloads of every size the suite makes.)
#include "common/blk_rx_vector.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

namespace {

constexpr uint32_t BS = 141;

BlkRxVector vectorOf(uint32_t fileSize, uint32_t markUpTo) {
  BlkRxVector v;
  std::memset(&v, 0, sizeof v);
  initBlkRxVector(&v, BS);
  setBlkRxVectorFileSize(&v, fileSize);
  for (uint32_t b = 0; b <= markUpTo; ++b) addBlkToVector(&v, b);
  return v;
}

// Where the window stands: base, ring index of the base, and whether the file is complete.
std::tuple<uint32_t, int, bool> window(const BlkRxVector &v) {
  return {v.blkNumBase, v.head, vectorIsFinished(&v) != 0};
}

TEST(BlkRxVector, WindowEdgesAndRingWrap) {
  BlkRxVector v = vectorOf(5000 * BS, 7);
  EXPECT_TRUE(blkIsInVector(&v, 5));  // below the base: received without the ring
  EXPECT_FALSE(blkIsInVector(&v, 8 + 1024));
  EXPECT_EQ(std::pair(fitsInBlkRxVector(&v, 1031), fitsInBlkRxVector(&v, 1032)), std::pair(1, 0));
  addBlkToVector(&v, 1032);  // beyond the window: dropped
  for (uint8_t b : v.vector) EXPECT_EQ(b, 0);

  for (uint32_t b = 8; b <= 1035; ++b) addBlkToVector(&v, b);
  // 129 slides: head went round to 1; ring byte 1 = 1111 0000 (blocks 1032..1035)
  EXPECT_EQ(window(v), std::tuple(1032u, 1, false));
  EXPECT_EQ(v.vector[1], 0xF0);
  EXPECT_FALSE(blkIsInVector(&v, 2055));  // the re-entered far byte starts empty
  addBlkToVector(&v, 2055);               // the window's last block lives in ring byte 0
  EXPECT_EQ(v.vector[0], 0x01);
}

TEST(BlockArithmetic, SizesAndOffsetsAtTheEdges) {
  // 0xFFFFFFFF bytes: 30460760 blocks and 135 bytes, without wrapping.
  for (auto [size, lastBlk] : {std::pair{0u, 1u}, {1u, 2u}, {BS, 2u}, {BS + 1, 3u}, {0xFFFFFFFFu, 30460762u}})
    EXPECT_EQ(lastBlkForSize(size, BS), lastBlk) << size;
  for (auto [blk, offset] : {std::pair{1u, 0u}, {2u, BS}, {30460761u, 0xFFFFFF78u}, {0u, 0u - BS}})
    EXPECT_EQ(blockOffset(blk, BS), offset) << blk;  // block 0 wraps far past any file size
}

}  // namespace
