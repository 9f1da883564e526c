// The block receive vector: window slide, finish test, blocks before the metadata, and the
// block arithmetic at its edges.
#include "common/blk_rx_vector.hpp"

#include <gtest/gtest.h>

#include <cstring>

namespace {

constexpr uint32_t BS = 141;

BlkRxVector freshVector(uint32_t fileSize) {
  BlkRxVector v;
  std::memset(&v, 0, sizeof v);
  initBlkRxVector(&v, BS);
  setBlkRxVectorFileSize(&v, fileSize);
  return v;
}

void markRange(BlkRxVector *v, uint32_t from, uint32_t to) {
  for (uint32_t b = from; b <= to; ++b) addBlkToVector(v, b);
}

TEST(BlkRxVector, ThousandByteFileFinishesOnAPartialLastByte) {
  BlkRxVector v = freshVector(1000);
  EXPECT_EQ(v.lastBlk, 9u);
  markRange(&v, 0, 7);
  EXPECT_EQ(v.blkNumBase, 8u);
  EXPECT_EQ(v.head, 1);
  EXPECT_EQ(v.vector[0], 0x00);  // the byte slid over is cleared for re-entry
  EXPECT_FALSE(vectorIsFinished(&v));
  addBlkToVector(&v, 8);
  // ring byte 1: 1000 0000 (block 8 only); blocks 9..15 are not part of the file
  EXPECT_EQ(v.vector[1], 0x80);
  EXPECT_EQ(v.blkNumBase, 8u);
  EXPECT_TRUE(vectorIsFinished(&v));
}

TEST(BlkRxVector, WholeBlockFilesFinishOnTheGroupBoundary) {
  BlkRxVector v = freshVector(987);  // exactly 7 blocks
  EXPECT_EQ(v.lastBlk, 8u);
  markRange(&v, 0, 6);
  EXPECT_FALSE(vectorIsFinished(&v));
  addBlkToVector(&v, 7);
  EXPECT_EQ(v.blkNumBase, 8u);
  EXPECT_TRUE(vectorIsFinished(&v));

  // lastBlk 16: after blocks 0..15 the base stops at 16, the next byte being empty.
  BlkRxVector w = freshVector(15 * BS);
  EXPECT_EQ(w.lastBlk, 16u);
  markRange(&w, 0, 15);
  EXPECT_EQ(w.blkNumBase, 16u);
  EXPECT_EQ(w.head, 2);
  EXPECT_TRUE(vectorIsFinished(&w));
}

TEST(BlkRxVector, EmptyFileIsFinishedByTheMetadataAlone) {
  BlkRxVector v = freshVector(0);
  EXPECT_EQ(v.lastBlk, 1u);
  EXPECT_FALSE(vectorIsFinished(&v));
  addBlkToVector(&v, 0);
  EXPECT_TRUE(vectorIsFinished(&v));
}

TEST(BlkRxVector, OutOfOrderBlocksFinishOnlyWhenTheGapCloses) {
  BlkRxVector v = freshVector(20 * BS);  // blocks 0..20, lastBlk 21
  markRange(&v, 0, 20);
  BlkRxVector gap = freshVector(20 * BS);
  for (uint32_t b = 20; b > 0; --b) addBlkToVector(&gap, b);
  // ring: 0111 1111 | 1111 1111 | 1111 1000 ... block 0 missing holds the base at 0
  EXPECT_EQ(gap.blkNumBase, 0u);
  EXPECT_EQ(gap.vector[0], 0x7F);
  EXPECT_FALSE(vectorIsFinished(&gap));
  addBlkToVector(&gap, 0);
  EXPECT_EQ(gap.blkNumBase, 16u);
  EXPECT_TRUE(vectorIsFinished(&gap));
  EXPECT_EQ(std::memcmp(&v, &gap, sizeof v), 0);
}

TEST(BlkRxVector, WindowEdgesAndBlocksBelowTheBase) {
  BlkRxVector v = freshVector(5000 * BS);
  markRange(&v, 0, 7);
  ASSERT_EQ(v.blkNumBase, 8u);
  EXPECT_TRUE(blkIsInVector(&v, 5));           // below the base: received, ring not read
  EXPECT_FALSE(blkIsInVector(&v, 8 + 1024));   // one past the window
  EXPECT_TRUE(fitsInBlkRxVector(&v, 1031));
  EXPECT_FALSE(fitsInBlkRxVector(&v, 1032));
  EXPECT_TRUE(fitsInBlkRxVector(&v, 0));
  addBlkToVector(&v, 1032);                    // beyond the window: dropped
  addBlkToVector(&v, 3);                       // below the base: nothing to do
  EXPECT_EQ(v.blkNumBase, 8u);
  for (uint8_t b : v.vector) EXPECT_EQ(b, 0);
}

TEST(BlkRxVector, RingWrapsAndReenteringBytesStartEmpty) {
  BlkRxVector v = freshVector(5000 * BS);
  markRange(&v, 0, 1023);
  // 128 slides bring head round to 0 with every ring byte cleared.
  EXPECT_EQ(v.blkNumBase, 1024u);
  EXPECT_EQ(v.head, 0);
  for (uint8_t b : v.vector) EXPECT_EQ(b, 0);
  EXPECT_TRUE(blkIsInVector(&v, 1023));
  EXPECT_FALSE(blkIsInVector(&v, 1024));
  markRange(&v, 1024, 1035);  // base 1032, head 1; ring byte 1 = 1111 0000
  EXPECT_EQ(v.blkNumBase, 1032u);
  EXPECT_EQ(v.head, 1);
  EXPECT_EQ(v.vector[1], 0xF0);
  addBlkToVector(&v, 1032 + 1023);  // last bit of the window lives in ring byte 0 now
  EXPECT_EQ(v.vector[0], 0x01);
  EXPECT_TRUE(blkIsInVector(&v, 2055));
  EXPECT_FALSE(blkIsInVector(&v, 2054));
}

TEST(BlkRxVector, BlocksBeforeTheMetadataStayInTheFirstWindow) {
  BlkRxVector v;
  std::memset(&v, 0, sizeof v);
  initBlkRxVector(&v, BS);
  addBlkToVector(&v, 1030);  // beyond blocks 0..1023: not recorded
  markRange(&v, 1, 9);
  // No slide while the size is unknown, even over a full byte.
  EXPECT_EQ(v.blkNumBase, 0u);
  EXPECT_EQ(v.vector[0], 0x7F);
  EXPECT_EQ(v.vector[1], 0xC0);
  EXPECT_FALSE(vectorIsFinished(&v));
  // The metadata arrives: size known, block 0 marked, the window slides over 0..7.
  setBlkRxVectorFileSize(&v, 9 * BS);
  addBlkToVector(&v, 0);
  EXPECT_EQ(v.blkNumBase, 8u);
  EXPECT_TRUE(vectorIsFinished(&v));
  EXPECT_FALSE(blkIsInVector(&v, 1030));  // now inside the window, but it was never recorded
}

TEST(BlkRxVector, InitKeepsCountDigestAndTime) {
  BlkRxVector v;
  std::memset(&v, 0xAB, sizeof v);
  initBlkRxVector(&v, 512);
  EXPECT_EQ(v.block_size, 512u);
  EXPECT_EQ(v.blkNumBase, 0u);
  EXPECT_EQ(v.lastBlk, 0u);
  EXPECT_EQ(v.file_size, 0u);
  EXPECT_EQ(v.head, 0);
  EXPECT_EQ(v.uniqueBlkCnt, 0xABABABABu);
  EXPECT_EQ(v.md5[15], 0xAB);
  for (uint8_t b : v.vector) EXPECT_EQ(b, 0);
}

TEST(BlockArithmetic, SizesAndOffsetsAtTheEdges) {
  EXPECT_EQ(lastBlkForSize(0, BS), 1u);
  EXPECT_EQ(lastBlkForSize(1, BS), 2u);
  EXPECT_EQ(lastBlkForSize(BS, BS), 2u);
  EXPECT_EQ(lastBlkForSize(BS + 1, BS), 3u);
  // 4 GiB - 1 bytes: 30460760 whole blocks and 135 bytes; no wrap near the top.
  EXPECT_EQ(lastBlkForSize(0xFFFFFFFFu, BS), 30460762u);
  EXPECT_EQ(blockOffset(1, BS), 0u);
  EXPECT_EQ(blockOffset(2, BS), BS);
  EXPECT_EQ(blockOffset(30460761, BS), 0xFFFFFF78u);  // the last whole block of that file
  // Block 0 has no data offset: the product wraps far past any file size.
  EXPECT_EQ(blockOffset(0, BS), 0u - BS);
}

}  // namespace
