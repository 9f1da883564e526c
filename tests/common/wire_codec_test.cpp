// Golden bytes of the data block codec at the edges of its number widths, and the decoders'
// length rules. (Remove requests and error reports: the rm and get commands' tests compare
// them byte for byte.)
#include "common/wire_codec.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

TEST(WireCodec, DataBlocksUseTheNarrowestNumber) {
  const std::pair<uint32_t, Bytes> cases[] = {{255, {5, 0xFF}},
                                              {256, {6, 1, 0}},
                                              {65535, {6, 0xFF, 0xFF}},
                                              {65536, {7, 1, 0, 0}},
                                              {16777215, {7, 0xFF, 0xFF, 0xFF}},
                                              {16777216, {8, 1, 0, 0, 0}}};
  for (const auto &[blkNum, header] : cases) {
    Bytes buf(8, 0xEE), expected = header;
    expected.resize(8, 0xEE);  // nothing written past the header
    ASSERT_EQ(encodeDataBlock(buf.data(), buf.size(), blkNum, nullptr, 0), header.size());
    EXPECT_EQ(buf, expected) << blkNum;
    KestilDataBlock back{};
    ASSERT_TRUE(decodeDataBlock(buf.data(), header.size(), &back));
    EXPECT_EQ(back.blkNum, blkNum);
  }
  uint8_t data[141] = {}, buf[150];
  EXPECT_EQ(encodeDataBlock(buf, sizeof buf, 300, data, 141), 144u);
  EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{6, 0x01, 0x2C, 0}));
  EXPECT_EQ(encodeDataBlock(buf, 143, 300, data, 141), 0u);  // does not fit: nothing
}

TEST(WireCodec, DecodersRefuseWhatDoesNotFit) {
  KESTIL_vecack ack{};
  const uint8_t vecack[] = {9, 0, 0, 0, 8, 0xC0};  // base 8: blocks 8 and 9 besides 0..7
  ASSERT_TRUE(decodeVecAck(vecack, 6, &ack));
  EXPECT_EQ(ack.base, 8u);
  EXPECT_EQ(ack.vectorLen, 1u);
  EXPECT_TRUE(decodeVecAck(vecack, 5, &ack));
  EXPECT_FALSE(decodeVecAck(vecack, 4, &ack));

  KESTIL_metadata meta{};
  const uint8_t md[34] = {4};
  EXPECT_TRUE(decodeMetadata(md, 33, &meta));
  EXPECT_FALSE(decodeMetadata(md, 32, &meta));
  EXPECT_FALSE(decodeMetadata(md, 34, &meta));

  KESTIL_get get{};
  const uint8_t req[] = {10, 0, 0, 141, 0, 0, 0, 1, 'a', 0, 9, 0, 0, 0, 0, 0xFF};
  ASSERT_TRUE(decodeGetRequest(req, 16, &get));
  EXPECT_STREQ(get.name, "a");
  EXPECT_TRUE(get.hasAck && get.ack.vectorLen == 1);
  EXPECT_FALSE(decodeGetRequest(req, 9, &get));   // name without its NUL
  EXPECT_FALSE(decodeGetRequest(req, 12, &get));  // part of an acknowledgement

  KESTIL_qreport q{};
  uint8_t qr[200] = {11, 1, 0, 141, 0, 0, 0, 1, 1, 3, 1, 2, 3, 4, 0, 0, 0, 9};
  ASSERT_TRUE(decodeQReport(qr, 18, &q));
  EXPECT_EQ(q.limits[0].sizeTarget, 0x01020304u);
  EXPECT_EQ(q.limits[0].numEntriesTarget, 9u);
  EXPECT_FALSE(decodeQReport(qr, 17, &q));
  EXPECT_FALSE(decodeQReport(qr, 20, &q));  // two stray bytes are no acknowledgement
  qr[8] = 21;
  EXPECT_FALSE(decodeQReport(qr, 198, &q));
}

}  // namespace
