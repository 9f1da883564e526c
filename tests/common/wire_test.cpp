// What goes on the wire: data block numbers at the edges of their widths, the decoders'
// length rules, and vector acknowledgements and requests byte for byte as a scripted peer on
// loopback receives them. (Remove requests and error reports: the rm and get commands' tests
// compare them byte for byte.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/common.hpp"
#include "common/wire_codec.hpp"
#include "station/station.hpp"
#include "tests/support/test_support.hpp"

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

// A vector of `fileSize` bytes whose ring bytes hold their own index, so that each wire
// byte names the ring byte it came from.
BlkRxVector numberedVector(uint32_t fileSize) {
  BlkRxVector v;
  std::memset(&v, 0, sizeof v);
  initBlkRxVector(&v, KESTIL_BLOCK_SIZE);
  if (fileSize > 0) setBlkRxVectorFileSize(&v, fileSize);
  for (int i = 0; i < 128; ++i) v.vector[i] = static_cast<uint8_t>(i);
  return v;
}

struct Link {
  kt::UdpPeer peer;
  int fd = socket_init(0);
  explicit Link(const char *ip) { EXPECT_TRUE(peer.bind(ip, 0)); }
  ~Link() { close(fd); }
  const sockaddr_in *to() const { return &peer.address(); }
  Bytes next() { return peer.recv(nullptr, 2000); }
};

TEST(FillVecack, LengthFollowsLimitSizeAndBase) {
  uint8_t buf[140];
  BlkRxVector fresh = numberedVector(0);
  std::memset(buf, 0xEE, sizeof buf);
  EXPECT_EQ(fill_vecack_packet(buf, 5, &fresh, 0), 0);
  EXPECT_EQ(buf[0], 0xEE);
  EXPECT_EQ(fill_vecack_packet(buf, 6, &fresh, 1), 6);  // size unknown: one vector byte
  EXPECT_EQ(Bytes(buf, buf + 7), (Bytes{14, 0, 0, 0, 0, 0, 0xEE}));
  EXPECT_EQ(fill_vecack_packet(buf, 133, &fresh, 0), 6);

  BlkRxVector sixteen = numberedVector(15 * KESTIL_BLOCK_SIZE);  // groups 0, 8 and 16
  EXPECT_EQ(fill_vecack_packet(buf, 133, &sixteen, 0), 8);
  sixteen.blkNumBase = 24;  // past the last group: header only
  EXPECT_EQ(fill_vecack_packet(buf, 133, &sixteen, 0), 5);

  BlkRxVector wrapped = numberedVector(8000 * KESTIL_BLOCK_SIZE);
  wrapped.blkNumBase = 0x01020300;
  wrapped.lastBlk += wrapped.blkNumBase;
  wrapped.head = 126;
  std::memset(buf, 0xEE, sizeof buf);
  ASSERT_EQ(fill_vecack_packet(buf, 133, &wrapped, 0), 133);
  EXPECT_EQ(Bytes(buf, buf + 8), (Bytes{9, 1, 2, 3, 0, 126, 127, 0}));
  EXPECT_EQ(Bytes(buf + 132, buf + 134), (Bytes{125, 0xEE}));
}

TEST(SendRequest, FullAcknowledgementThenNewResumedAndPiggyBackedRequests) {
  Link link("127.0.3.2");
  BlkRxVector full = numberedVector(8000 * KESTIL_BLOCK_SIZE);
  sendVectorAck(link.fd, link.to(), &full, 0);
  Bytes ack = link.next();
  ASSERT_EQ(ack.size(), 133u);  // an acknowledgement of its own holds the whole ring
  EXPECT_EQ(Bytes(ack.begin(), ack.begin() + 6), (Bytes{9, 0, 0, 0, 0, 0}));
  EXPECT_EQ(ack.back(), 127);  // blocks 1016..1023

  BlkRxVector fresh = numberedVector(0);
  sendRequest(link.fd, link.to(), "img.jpg", &fresh, 0, KESTIL_GET);
  EXPECT_EQ(link.next(), (Bytes{10, 0, 0, 0x8D, 0, 0, 0, 1, 'i', 'm', 'g', '.', 'j', 'p', 'g', 0}));

  BlkRxVector resumed = numberedVector(1000);  // lastBlk 9, base 0: groups 0 and 8
  sendRequest(link.fd, link.to(), "0123456789", &resumed, KESTIL_FLAG_C, KESTIL_GET);
  Bytes got = link.next();
  ASSERT_EQ(got.size(), 26u);
  EXPECT_EQ(got[1], KESTIL_FLAG_C);
  EXPECT_EQ(Bytes(got.begin() + 18, got.end()), (Bytes{0, 9, 0, 0, 0, 0, 0, 1}));

  BlkRxVector &big = full;
  big.block_size = 0x1234;  // the request repeats the vector's block size
  sendRequest(link.fd, link.to(), "ab", &big, 0, KESTIL_LS);
  got = link.next();
  ASSERT_EQ(got.size(), 11u + 64u);  // the acknowledgement is capped at 64 bytes
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 4), (Bytes{2, 0, 0x12, 0x34}));
  EXPECT_EQ(got.back(), 58);
  sendRequest(link.fd, link.to(), std::string(199, 'n').c_str(), &big, KESTIL_FLAG_LONG_NAME, KESTIL_PUT);
  EXPECT_EQ(link.next().size(), 224u);  // 208 + 16: request and acknowledgement within 224
}

TEST(SendRequest, NameLimitsWithAndWithoutTheLongNameFlag) {
  Link link("127.0.3.4");
  BlkRxVector v = numberedVector(1000);
  const std::string n191(191, 'a'), n192(192, 'b'), n200(200, 'c'), n1441(1441, 'd'), n1442(1442, 'e');
  testing::internal::CaptureStdout();
  sendRequest(link.fd, link.to(), n192.c_str(), &v, 0, KESTIL_GET);
  sendRequest(link.fd, link.to(), n1442.c_str(), &v, KESTIL_FLAG_LONG_NAME, KESTIL_GET);
  sendRequest(link.fd, link.to(), n191.c_str(), &v, 0, KESTIL_GET);
  sendRequest(link.fd, link.to(), n200.c_str(), &v, KESTIL_FLAG_LONG_NAME, KESTIL_GET);
  sendRequest(link.fd, link.to(), n1441.c_str(), &v, KESTIL_FLAG_LONG_NAME, KESTIL_GET);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Name too long\nName too long\n");
  // The refused ones sent nothing: first comes the 191-character name (200 bytes + 7).
  EXPECT_EQ(link.next().size(), 207u);
  EXPECT_EQ(link.next().size(), 209u);  // room 15: no acknowledgement
  EXPECT_EQ(link.next().size(), 1450u);
}

TEST(SendQReq, LimitsAcknowledgementAndSizeBound) {
  Link link("127.0.3.5");
  GroupLimit limits[22];
  for (int i = 0; i < 22; ++i) limits[i] = {static_cast<uint8_t>(i + 1), 0x10000u + i, 7u * i};
  BlkRxVector v = numberedVector(8000 * KESTIL_BLOCK_SIZE);
  BlkRxVector fresh = numberedVector(0);
  testing::internal::CaptureStdout();
  sendQReq(link.fd, link.to(), &fresh, 22, limits, 0);
  sendQReq(link.fd, link.to(), &fresh, 21, limits, 0);
  sendQReq(link.fd, link.to(), &v, 20, limits, KESTIL_LS_FLAG_R);
  sendQReq(link.fd, link.to(), &fresh, 0, nullptr, 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Q Request too long\nQ Request too long\nSent 224 byte qreq!\nSent 9 byte qreq!\n");
  Bytes got = link.next();
  ASSERT_EQ(got.size(), 189u + 35u);
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 18), (Bytes{11, 1, 0, 0x8D, 0, 0, 0, 1, 20, 1, 0, 1, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Bytes(got.begin() + 180, got.begin() + 190), (Bytes{20, 0, 1, 0, 0x13, 0, 0, 0, 133, 9}));
  EXPECT_EQ(got.back(), 29);  // 30 vector bytes
  EXPECT_EQ(link.next(), (Bytes{11, 0, 0, 0x8D, 0, 0, 0, 1, 0}));
}

}  // namespace
