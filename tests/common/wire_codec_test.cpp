// Golden bytes of every transfer datagram, written into sentinel-filled buffers so that
// overruns show, and the length rules of their decoders.
#include "common/wire_codec.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

constexpr uint8_t SENTINEL = 0xEE;
using Bytes = std::vector<uint8_t>;

struct Buffer {
  uint8_t b[1600];
  Buffer() { std::memset(b, SENTINEL, sizeof b); }
  Bytes first(size_t n) const { return Bytes(b, b + n); }
  bool untouchedFrom(size_t n) const {
    for (size_t i = n; i < sizeof b; ++i)
      if (b[i] != SENTINEL) return false;
    return true;
  }
};

TEST(WireCodec, GetRequestForImgJpgIsSixteenBytes) {
  Buffer buf;
  KESTIL_get req{KESTIL_GET, 0, 141, KESTIL_REQ_ID, "img.jpg", 7, false, {}};
  ASSERT_EQ(encodeGetRequest(buf.b, sizeof buf.b, req), 16u);
  EXPECT_EQ(buf.first(16), (Bytes{0x0A, 0x00, 0x00, 0x8D, 0x00, 0x00, 0x00, 0x01, 'i', 'm', 'g', '.', 'j',
                                  'p', 'g', 0x00}));
  EXPECT_TRUE(buf.untouchedFrom(16));

  KESTIL_get back{};
  ASSERT_TRUE(decodeGetRequest(buf.b, 16, &back));
  EXPECT_EQ(back.cmd, KESTIL_GET);
  EXPECT_EQ(back.blocksize, 141);
  EXPECT_EQ(back.reqId, 1u);
  EXPECT_STREQ(back.name, "img.jpg");
  EXPECT_EQ(back.nameLen, 7u);
  EXPECT_FALSE(back.hasAck);
}

TEST(WireCodec, GetRequestCarriesItsAcknowledgementAndRefusesBadShapes) {
  const uint8_t vec[] = {0xFF, 0x80};
  KESTIL_get req{KESTIL_PUT, KESTIL_FLAG_LONG_NAME, 141, 1, "a", 1, true, {KESTIL_VECACK, 0, vec, 2}};
  Buffer buf;
  ASSERT_EQ(encodeGetRequest(buf.b, sizeof buf.b, req), 17u);
  EXPECT_EQ(buf.first(17), (Bytes{0x01, 0x08, 0x00, 0x8D, 0, 0, 0, 1, 'a', 0, 0x09, 0, 0, 0, 0, 0xFF, 0x80}));
  KESTIL_get back{};
  ASSERT_TRUE(decodeGetRequest(buf.b, 17, &back));
  ASSERT_TRUE(back.hasAck);
  EXPECT_EQ(back.ack.vectorLen, 2u);
  EXPECT_EQ(back.ack.vector[1], 0x80);

  EXPECT_FALSE(decodeGetRequest(buf.b, 9, &back));   // name without its NUL
  EXPECT_FALSE(decodeGetRequest(buf.b, 12, &back));  // two bytes of an acknowledgement
  EXPECT_FALSE(decodeGetRequest(buf.b, 7, &back));   // header cut short
  buf.b[0] = KESTIL_RM;
  EXPECT_FALSE(decodeGetRequest(buf.b, 17, &back));

  Buffer small;  // an encoder never writes past its capacity
  EXPECT_EQ(encodeGetRequest(small.b, 9, req), 0u);
  EXPECT_TRUE(small.untouchedFrom(9));
}

TEST(WireCodec, DataBlocksUseTheNarrowestNumber) {
  struct Case {
    uint32_t blkNum;
    Bytes header;
  } cases[] = {
      {1, {0x05, 0x01}},
      {255, {0x05, 0xFF}},
      {256, {0x06, 0x01, 0x00}},
      {65535, {0x06, 0xFF, 0xFF}},
      {65536, {0x07, 0x01, 0x00, 0x00}},
      {16777215, {0x07, 0xFF, 0xFF, 0xFF}},
      {16777216, {0x08, 0x01, 0x00, 0x00, 0x00}},
      {0xFFFFFFFF, {0x08, 0xFF, 0xFF, 0xFF, 0xFF}},
  };
  for (const Case &c : cases) {
    Buffer buf;
    const int len = encodeDataBlockHeader(buf.b, sizeof buf.b, c.blkNum);
    EXPECT_EQ(len, dataBlockHeaderLen(c.blkNum)) << c.blkNum;
    EXPECT_EQ(buf.first(static_cast<size_t>(len)), c.header) << c.blkNum;
    EXPECT_TRUE(buf.untouchedFrom(static_cast<size_t>(len))) << c.blkNum;
    KestilDataBlock back{};
    ASSERT_TRUE(decodeDataBlock(buf.b, static_cast<size_t>(len), &back));
    EXPECT_EQ(back.blkNum, c.blkNum);
    EXPECT_EQ(back.dataLen, 0u);
  }
}

TEST(WireCodec, DataBlockThreeHundredAndDecoderLengthRules) {
  uint8_t data[141];
  for (int i = 0; i < 141; ++i) data[i] = static_cast<uint8_t>(i);
  Buffer buf;
  ASSERT_EQ(encodeDataBlock(buf.b, sizeof buf.b, 300, data, sizeof data), 144u);
  EXPECT_EQ(buf.first(4), (Bytes{0x06, 0x01, 0x2C, 0x00}));
  EXPECT_EQ(buf.b[143], 140);
  EXPECT_TRUE(buf.untouchedFrom(144));

  KestilDataBlock back{};
  ASSERT_TRUE(decodeDataBlock(buf.b, 144, &back));
  EXPECT_EQ(back.blkNum, 300u);
  EXPECT_EQ(back.dataLen, 141u);
  EXPECT_EQ(back.data, buf.b + 3);  // a view into the datagram, not a copy

  const uint8_t code8Short[] = {0x08, 0, 0, 1};
  EXPECT_FALSE(decodeDataBlock(code8Short, 4, &back));
  const uint8_t code4[] = {0x04, 1, 2};
  EXPECT_FALSE(decodeDataBlock(code4, 3, &back));
  EXPECT_FALSE(decodeDataBlock(code4, 0, &back));
  const uint8_t lone5[] = {0x05, 0x07};
  ASSERT_TRUE(decodeDataBlock(lone5, 2, &back));
  EXPECT_EQ(back.blkNum, 7u);
  EXPECT_EQ(back.dataLen, 0u);

  Buffer tight;
  EXPECT_EQ(encodeDataBlock(tight.b, 100, 300, data, sizeof data), 0u);
  EXPECT_EQ(encodeDataBlockHeader(tight.b, 2, 256), 0);
  EXPECT_TRUE(tight.untouchedFrom(0));
}

TEST(WireCodec, MetadataIsExactlyThirtyThreeBytes) {
  KESTIL_metadata meta{1, 1000, 0x5F5E1000, 123456789, {}};
  for (int i = 0; i < 16; ++i) meta.md5[i] = static_cast<uint8_t>(0xA0 + i);
  Buffer buf;
  ASSERT_EQ(encodeMetadata(buf.b, sizeof buf.b, meta), 33u);
  EXPECT_EQ(buf.first(17), (Bytes{0x04, 0, 0, 0, 1, 0, 0, 0x03, 0xE8, 0x5F, 0x5E, 0x10, 0x00, 0x07, 0x5B,
                                  0xCD, 0x15}));
  EXPECT_EQ(buf.b[17], 0xA0);
  EXPECT_EQ(buf.b[32], 0xAF);
  EXPECT_TRUE(buf.untouchedFrom(33));

  KESTIL_metadata back{};
  ASSERT_TRUE(decodeMetadata(buf.b, 33, &back));
  EXPECT_EQ(std::memcmp(&back, &meta, sizeof meta), 0);
  EXPECT_FALSE(decodeMetadata(buf.b, 32, &back));
  EXPECT_FALSE(decodeMetadata(buf.b, 34, &back));
  buf.b[0] = KESTIL_DATA1;
  EXPECT_FALSE(decodeMetadata(buf.b, 33, &back));
}

TEST(WireCodec, VectorAcknowledgementLayoutAndCodes) {
  const uint8_t vec[] = {0xC0};
  Buffer buf;
  ASSERT_EQ(encodeVecAck(buf.b, sizeof buf.b, {KESTIL_VECACK, 8, vec, 1}), 6u);
  // base 8, byte 1100 0000: blocks 8 and 9 (0 to 7 are below the base)
  EXPECT_EQ(buf.first(6), (Bytes{0x09, 0, 0, 0, 0x08, 0xC0}));
  EXPECT_TRUE(buf.untouchedFrom(6));

  KESTIL_vecack back{};
  ASSERT_TRUE(decodeVecAck(buf.b, 6, &back));
  EXPECT_EQ(back.base, 8u);
  ASSERT_EQ(back.vectorLen, 1u);
  EXPECT_EQ(back.vector[0], 0xC0);
  ASSERT_TRUE(decodeVecAck(buf.b, 5, &back));  // no vector bytes at all
  EXPECT_EQ(back.vectorLen, 0u);
  EXPECT_FALSE(decodeVecAck(buf.b, 4, &back));
  buf.b[0] = KESTIL_VECACK_FINAL;
  EXPECT_TRUE(decodeVecAck(buf.b, 6, &back));
  buf.b[0] = KESTIL_PUT_FAILURE;
  EXPECT_FALSE(decodeVecAck(buf.b, 6, &back));
}

TEST(WireCodec, QueueReportWithLimits) {
  KESTIL_qreport req{};
  req.flags = KESTIL_LS_FLAG_R;
  req.blocksize = 141;
  req.reqId = 1;
  req.num_grps = 1;
  req.limits[0] = {3, 0x01020304, 0x0A0B0C0D};
  Buffer buf;
  ASSERT_EQ(encodeQReport(buf.b, sizeof buf.b, req), 18u);
  EXPECT_EQ(buf.first(18), (Bytes{0x0B, 0x01, 0x00, 0x8D, 0, 0, 0, 1, 0x01, 0x03, 0x01, 0x02, 0x03, 0x04,
                                  0x0A, 0x0B, 0x0C, 0x0D}));
  EXPECT_TRUE(buf.untouchedFrom(18));
  KESTIL_qreport back{};
  ASSERT_TRUE(decodeQReport(buf.b, 18, &back));
  EXPECT_EQ(back.num_grps, 1);
  EXPECT_EQ(back.limits[0].sizeTarget, 0x01020304u);
  EXPECT_EQ(back.limits[0].numEntriesTarget, 0x0A0B0C0Du);
  EXPECT_FALSE(back.hasAck);
  EXPECT_FALSE(decodeQReport(buf.b, 17, &back));  // last limit cut short
  EXPECT_FALSE(decodeQReport(buf.b, 20, &back));  // two stray bytes are no acknowledgement

  req.num_grps = 20;
  EXPECT_EQ(encodeQReport(buf.b, sizeof buf.b, req), 189u);
  buf.b[8] = 21;
  EXPECT_FALSE(decodeQReport(buf.b, 198, &back));
  req.num_grps = 21;
  EXPECT_EQ(encodeQReport(buf.b, sizeof buf.b, req), 0u);
}

TEST(WireCodec, RemoveRequestPacksNamesBackToBack) {
  const char *names[] = {"a/b", "cd"};
  Buffer buf;
  ASSERT_EQ(encodeRm(buf.b, sizeof buf.b, KESTIL_RM_FLAG_FORCE, names, 2), 9u);
  EXPECT_EQ(buf.first(9), (Bytes{0x03, 0x02, 'a', '/', 'b', 0, 'c', 'd', 0}));
  EXPECT_TRUE(buf.untouchedFrom(9));
  KESTIL_rm back{};
  ASSERT_TRUE(decodeRm(buf.b, 9, &back));
  EXPECT_EQ(back.flags, KESTIL_RM_FLAG_FORCE);
  size_t pos = 0;
  EXPECT_STREQ(rmNextName(back, &pos), "a/b");
  EXPECT_STREQ(rmNextName(back, &pos), "cd");
  EXPECT_EQ(rmNextName(back, &pos), nullptr);
  EXPECT_FALSE(decodeRm(buf.b, 8, &back));  // last name without its NUL
  EXPECT_FALSE(decodeRm(buf.b, 2, &back));  // no name
}

TEST(WireCodec, ErrorReportIsThirteenSignedBytes) {
  Buffer buf;
  ASSERT_EQ(encodeError(buf.b, sizeof buf.b, {-2, 0, 70000}), 13u);
  EXPECT_EQ(buf.first(13), (Bytes{0x0F, 0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0, 0, 0x00, 0x01, 0x11, 0x70}));
  EXPECT_TRUE(buf.untouchedFrom(13));
  KESTIL_error back{};
  ASSERT_TRUE(decodeError(buf.b, 13, &back));
  EXPECT_EQ(back.error_code1, -2);
  EXPECT_EQ(back.error_code3, 70000);
  EXPECT_FALSE(decodeError(buf.b, 12, &back));
  EXPECT_FALSE(decodeError(buf.b, 14, &back));
}

}  // namespace
