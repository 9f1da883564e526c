// Vector acknowledgements and requests, byte for byte, as a scripted peer on loopback
// receives them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/common.hpp"
#include "station/station.hpp"
#include "tests/support/test_support.hpp"

namespace {

constexpr uint8_t SENTINEL = 0xEE;
constexpr int RECV_MS = 2000;
using Bytes = std::vector<uint8_t>;

BlkRxVector vectorOfSize(uint32_t fileSize) {
  BlkRxVector v;
  std::memset(&v, 0, sizeof v);
  initBlkRxVector(&v, KESTIL_BLOCK_SIZE);
  if (fileSize > 0) setBlkRxVectorFileSize(&v, fileSize);
  return v;
}

// Ring bytes 0..127 filled with their own index, so each wire byte names its ring byte.
void numberRing(BlkRxVector *v) {
  for (int i = 0; i < 128; ++i) v->vector[i] = static_cast<uint8_t>(i);
}

// A scripted peer plus the sending socket of the code under test.
struct Link {
  kt::UdpPeer peer;
  int fd = -1;
  explicit Link(const char *ip) {
    EXPECT_TRUE(peer.bind(ip, 0));
    fd = socket_init(0);
    EXPECT_GE(fd, 0);
  }
  ~Link() {
    if (fd >= 0) close(fd);
  }
  const sockaddr_in *target() const { return &peer.address(); }
  Bytes next() { return peer.recv(nullptr, RECV_MS); }
};

TEST(FillVecack, ShortLimitsAndTheUnknownSize) {
  BlkRxVector v = vectorOfSize(0);
  v.vector[0] = 0x7F;
  uint8_t buf[16];
  std::memset(buf, SENTINEL, sizeof buf);
  EXPECT_EQ(fill_vecack_packet(buf, 5, &v, 0), 0);
  EXPECT_EQ(buf[0], SENTINEL);
  // Size unknown: exactly one vector byte, however much room there is.
  EXPECT_EQ(fill_vecack_packet(buf, 6, &v, 0), 6);
  EXPECT_EQ(Bytes(buf, buf + 7), (Bytes{0x09, 0, 0, 0, 0, 0x7F, SENTINEL}));
  std::memset(buf, SENTINEL, sizeof buf);
  EXPECT_EQ(fill_vecack_packet(buf, 16, &v, 1), 6);
  EXPECT_EQ(Bytes(buf, buf + 7), (Bytes{0x0E, 0, 0, 0, 0, 0x7F, SENTINEL}));
}

TEST(FillVecack, VectorRunsToTheGroupOfLastBlk) {
  uint8_t buf[200];
  // lastBlk 16, a multiple of 8: groups 0, 8 and 16, the last one always empty.
  BlkRxVector v = vectorOfSize(15 * KESTIL_BLOCK_SIZE);
  numberRing(&v);
  EXPECT_EQ(fill_vecack_packet(buf, 133, &v, 0), 8);
  // lastBlk 9: groups 0 and 8.
  BlkRxVector w = vectorOfSize(1000);
  numberRing(&w);
  EXPECT_EQ(fill_vecack_packet(buf, 133, &w, 0), 7);
  // The base has passed the last group: header only.
  w.blkNumBase = 16;
  std::memset(buf, SENTINEL, sizeof buf);
  EXPECT_EQ(fill_vecack_packet(buf, 133, &w, 0), 5);
  EXPECT_EQ(Bytes(buf, buf + 6), (Bytes{0x09, 0, 0, 0, 0x10, SENTINEL}));
}

TEST(FillVecack, ReadsTheRingFromHeadAndWraps) {
  BlkRxVector v = vectorOfSize(8000 * KESTIL_BLOCK_SIZE);
  numberRing(&v);
  v.blkNumBase = 0x01020300;
  v.lastBlk = 0x01020300 + 8000;
  v.head = 126;
  uint8_t buf[140];
  std::memset(buf, SENTINEL, sizeof buf);
  ASSERT_EQ(fill_vecack_packet(buf, 133, &v, 0), 133);
  EXPECT_EQ(Bytes(buf, buf + 8), (Bytes{0x09, 0x01, 0x02, 0x03, 0x00, 126, 127, 0}));
  EXPECT_EQ(buf[132], 125);
  EXPECT_EQ(buf[133], SENTINEL);
  // A limit cuts the vector, never past the limit.
  std::memset(buf, SENTINEL, sizeof buf);
  EXPECT_EQ(fill_vecack_packet(buf, 20, &v, 0), 20);
  EXPECT_EQ(buf[20], SENTINEL);
}

TEST(SendVectorAck, FullWindowIsOneHundredThirtyThreeBytes) {
  Link link("127.0.3.1");
  BlkRxVector v = vectorOfSize(8000 * KESTIL_BLOCK_SIZE);
  numberRing(&v);
  sendVectorAck(link.fd, link.target(), &v, 0);
  Bytes got = link.next();
  ASSERT_EQ(got.size(), 133u);
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 6), (Bytes{0x09, 0, 0, 0, 0, 0}));
  EXPECT_EQ(got[132], 127);  // blocks 1016..1023
  sendVectorAck(link.fd, link.target(), &v, 1);
  EXPECT_EQ(link.next()[0], KESTIL_VECACK_FINAL);
}

TEST(SendRequest, NewAndResumedGetRequests) {
  Link link("127.0.3.2");
  BlkRxVector fresh = vectorOfSize(0);
  sendRequest(link.fd, link.target(), "img.jpg", &fresh, 0, KESTIL_GET);
  EXPECT_EQ(link.next(), (Bytes{0x0A, 0, 0, 0x8D, 0, 0, 0, 1, 'i', 'm', 'g', '.', 'j', 'p', 'g', 0}));

  // lastBlk 9, base 0: 19 request bytes, then the acknowledgement of groups 0 and 8.
  BlkRxVector resumed = vectorOfSize(1000);
  resumed.vector[0] = 0xF0;
  resumed.vector[1] = 0x80;
  sendRequest(link.fd, link.target(), "0123456789", &resumed, KESTIL_FLAG_C, KESTIL_GET);
  Bytes got = link.next();
  ASSERT_EQ(got.size(), 26u);
  EXPECT_EQ(got[1], KESTIL_FLAG_C);
  EXPECT_EQ(Bytes(got.begin() + 18, got.end()), (Bytes{0, 0x09, 0, 0, 0, 0, 0xF0, 0x80}));

  // A put request carries the resumed vector's own block size.
  BlkRxVector odd = vectorOfSize(0);
  odd.block_size = 0x1234;
  sendRequest(link.fd, link.target(), "x", &odd, 0, KESTIL_PUT);
  EXPECT_EQ(link.next(), (Bytes{0x01, 0, 0x12, 0x34, 0, 0, 0, 1, 'x', 0}));
}

TEST(SendRequest, PiggybackIsCappedAtSixtyFourBytes) {
  Link link("127.0.3.3");
  BlkRxVector big = vectorOfSize(8000 * KESTIL_BLOCK_SIZE);
  numberRing(&big);
  sendRequest(link.fd, link.target(), "ab", &big, 0, KESTIL_LS);
  Bytes got = link.next();
  ASSERT_EQ(got.size(), 11u + 64u);  // 59 vector bytes
  EXPECT_EQ(got[11], KESTIL_VECACK);
  EXPECT_EQ(got.back(), 58);
  // 208 request bytes leave 16 bytes of room: an acknowledgement of 11 vector bytes.
  sendRequest(link.fd, link.target(), std::string(199, 'n').c_str(), &big, KESTIL_FLAG_LONG_NAME, KESTIL_GET);
  EXPECT_EQ(link.next().size(), 224u);
}

TEST(SendRequest, NameLimitsWithAndWithoutTheLongNameFlag) {
  Link link("127.0.3.4");
  BlkRxVector v = vectorOfSize(1000);
  const std::string n191(191, 'a'), n192(192, 'b'), n200(200, 'c'), n1441(1441, 'd'), n1442(1442, 'e');

  testing::internal::CaptureStdout();
  sendRequest(link.fd, link.target(), n192.c_str(), &v, 0, KESTIL_GET);
  sendRequest(link.fd, link.target(), n200.c_str(), &v, 0, KESTIL_GET);
  sendRequest(link.fd, link.target(), n1442.c_str(), &v, KESTIL_FLAG_LONG_NAME, KESTIL_GET);
  sendRequest(link.fd, link.target(), n191.c_str(), &v, 0, KESTIL_GET);
  sendRequest(link.fd, link.target(), n200.c_str(), &v, KESTIL_FLAG_LONG_NAME, KESTIL_GET);
  sendRequest(link.fd, link.target(), n1441.c_str(), &v, KESTIL_FLAG_LONG_NAME, KESTIL_PUT);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Name too long\nName too long\nName too long\n");

  // The refused requests sent nothing: the first datagram is the 191-character name,
  // 200 bytes with room for 24 bytes of acknowledgement (lastBlk 9: 7 bytes).
  EXPECT_EQ(link.next().size(), 207u);
  Bytes longName = link.next();  // 209 bytes: room 15, no acknowledgement
  ASSERT_EQ(longName.size(), 209u);
  EXPECT_EQ(longName[1], KESTIL_FLAG_LONG_NAME);
  EXPECT_EQ(longName.back(), 0);
  EXPECT_EQ(link.next().size(), 1450u);
}

TEST(SendQReq, TwentyLimitsAndTheirAcknowledgement) {
  Link link("127.0.3.5");
  GroupLimit limits[20];
  for (int i = 0; i < 20; ++i) limits[i] = {static_cast<uint8_t>(i + 1), 0x10000u + i, 7u * i};
  BlkRxVector v = vectorOfSize(8000 * KESTIL_BLOCK_SIZE);
  numberRing(&v);
  testing::internal::CaptureStdout();
  sendQReq(link.fd, link.target(), &v, 20, limits, KESTIL_LS_FLAG_R);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Sent 224 byte qreq!\n");
  Bytes got = link.next();
  ASSERT_EQ(got.size(), 189u + 35u);
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 18),
            (Bytes{0x0B, 0x01, 0x00, 0x8D, 0, 0, 0, 1, 20, 1, 0, 1, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Bytes(got.begin() + 180, got.begin() + 189), (Bytes{20, 0, 1, 0, 0x13, 0, 0, 0, 133}));
  EXPECT_EQ(got[189], KESTIL_VECACK);
  EXPECT_EQ(got.back(), 29);  // 30 vector bytes
}

TEST(SendQReq, NoLimitsFreshVectorAndOversizedRequests) {
  Link link("127.0.3.6");
  BlkRxVector fresh = vectorOfSize(0);
  GroupLimit many[22] = {};
  testing::internal::CaptureStdout();
  sendQReq(link.fd, link.target(), &fresh, 22, many, 0);
  sendQReq(link.fd, link.target(), &fresh, 21, many, 0);
  sendQReq(link.fd, link.target(), &fresh, 0, nullptr, 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Q Request too long\nQ Request too long\nSent 9 byte qreq!\n");
  EXPECT_EQ(link.next(), (Bytes{0x0B, 0, 0, 0x8D, 0, 0, 0, 1, 0}));
}

}  // namespace
