// Golden bytes of the datagram codecs in sentinel-filled buffers, and their length rules.
#include "common/wire_codec.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

struct Buffer {
  uint8_t b[1600];
  Buffer() { std::memset(b, 0xEE, sizeof b); }
  Bytes first(size_t n) const { return Bytes(b, b + n + 1); }  // one sentinel byte included
};

TEST(WireCodec, DataBlocksUseTheNarrowestNumber) {
  const struct {
    uint32_t blkNum;
    Bytes header;
  } cases[] = {{255, {5, 0xFF}},
               {256, {6, 1, 0}},
               {65535, {6, 0xFF, 0xFF}},
               {65536, {7, 1, 0, 0}},
               {16777215, {7, 0xFF, 0xFF, 0xFF}},
               {16777216, {8, 1, 0, 0, 0}}};
  for (const auto &c : cases) {
    Buffer buf;
    ASSERT_EQ(encodeDataBlock(buf.b, sizeof buf.b, c.blkNum, nullptr, 0), c.header.size());
    Bytes expected = c.header;
    expected.push_back(0xEE);
    EXPECT_EQ(buf.first(c.header.size()), expected) << c.blkNum;
    KestilDataBlock back{};
    ASSERT_TRUE(decodeDataBlock(buf.b, c.header.size(), &back));
    EXPECT_EQ(back.blkNum, c.blkNum);
  }
  uint8_t data[141] = {};
  Buffer buf;
  EXPECT_EQ(encodeDataBlock(buf.b, sizeof buf.b, 300, data, 141), 144u);
  EXPECT_EQ(buf.first(3), (Bytes{6, 0x01, 0x2C, 0}));
  EXPECT_EQ(encodeDataBlock(buf.b, 143, 300, data, 141), 0u);  // does not fit: nothing
}

TEST(WireCodec, RemoveAndErrorRecords) {
  const char *names[] = {"a/b", "cd"};
  Buffer rm;
  ASSERT_EQ(encodeRm(rm.b, sizeof rm.b, KESTIL_RM_FLAG_FORCE, names, 2), 9u);
  EXPECT_EQ(rm.first(9), (Bytes{3, 2, 'a', '/', 'b', 0, 'c', 'd', 0, 0xEE}));
  KESTIL_rm back{};
  ASSERT_TRUE(decodeRm(rm.b, 9, &back));
  size_t pos = 0;
  EXPECT_STREQ(rmNextName(back, &pos), "a/b");
  EXPECT_STREQ(rmNextName(back, &pos), "cd");
  EXPECT_EQ(rmNextName(back, &pos), nullptr);
  EXPECT_FALSE(decodeRm(rm.b, 8, &back));  // last name without its NUL
  EXPECT_FALSE(decodeRm(rm.b, 2, &back));  // no name at all

  Buffer err;
  ASSERT_EQ(encodeError(err.b, sizeof err.b, {-2, 0, 70000}), 13u);
  EXPECT_EQ(err.first(13), (Bytes{15, 0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0, 0, 0, 1, 0x11, 0x70, 0xEE}));
  KESTIL_error e{};
  ASSERT_TRUE(decodeError(err.b, 13, &e));
  EXPECT_EQ(e.error_code1, -2);
  EXPECT_EQ(e.error_code3, 70000);
  EXPECT_FALSE(decodeError(err.b, 12, &e));
  EXPECT_FALSE(decodeError(err.b, 14, &e));
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

  KestilDataBlock block{};
  const uint8_t code8[] = {8, 0, 0, 1};
  EXPECT_FALSE(decodeDataBlock(code8, 4, &block));

  KESTIL_get get{};
  const uint8_t req[] = {10, 0, 0, 141, 0, 0, 0, 1, 'a', 0, 9, 0, 0, 0, 0, 0xFF};
  ASSERT_TRUE(decodeGetRequest(req, 16, &get));
  EXPECT_STREQ(get.name, "a");
  ASSERT_TRUE(get.hasAck);
  EXPECT_EQ(get.ack.vectorLen, 1u);
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
