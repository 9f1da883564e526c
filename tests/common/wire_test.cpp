// What goes on the wire: data block numbers at the edges of their widths, vector
// acknowledgements byte for byte, and the requests' bounds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <tuple>
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
    EXPECT_TRUE(decodeDataBlock(buf.data(), header.size(), &back) && back.blkNum == blkNum) << blkNum;
  }
  uint8_t data[141] = {}, buf[150];
  EXPECT_EQ(encodeDataBlock(buf, sizeof buf, 300, data, 141), 144u);
  EXPECT_EQ(encodeDataBlock(buf, 143, 300, data, 141), 0u);  // does not fit: nothing
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

// (The closing form while the size is unknown, byte for byte: the get command's silent remote.)
TEST(FillVecack, LengthFollowsLimitSizeAndBase) {
  uint8_t buf[140];
  BlkRxVector fresh = numberedVector(0), sixteen = numberedVector(15 * KESTIL_BLOCK_SIZE), past = sixteen;
  past.blkNumBase = 24;  // sixteen holds groups 0, 8 and 16; past the last group: header only
  for (auto [vec, limit, len] :
       {std::tuple{&fresh, 5, 0}, {&fresh, 6, 6}, {&fresh, 133, 6}, {&sixteen, 133, 8}, {&past, 133, 5}})
    EXPECT_EQ(fill_vecack_packet(buf, limit, vec, 0), len) << limit;

  BlkRxVector wrapped = numberedVector(8000 * KESTIL_BLOCK_SIZE);
  wrapped.blkNumBase = 0x01020300;
  wrapped.lastBlk += wrapped.blkNumBase;
  wrapped.head = 126;
  std::memset(buf, 0xEE, sizeof buf);
  ASSERT_EQ(fill_vecack_packet(buf, 133, &wrapped, 0), 133);
  EXPECT_EQ(Bytes(buf, buf + 8), (Bytes{9, 1, 2, 3, 0, 126, 127, 0}));
  EXPECT_EQ(Bytes(buf + 132, buf + 134), (Bytes{125, 0xEE}));
}

// What only a unit sees of the requests: the refusals and their texts, and the bounds that
// keep a request and its piggy-backed acknowledgement within one datagram. (Their bytes: the
// get, resume, ls, report and put commands' tests against a scripted peer.)
TEST(SendRequest, NameAndLimitBoundsAndThePiggyBackedAcknowledgement) {
  kt::UdpPeer peer, self;
  ASSERT_TRUE(peer.bind("127.0.3.4", 0) && self.bind("127.0.3.4", 0));
  const int fd = self.fd();
  const sockaddr_in *to = &peer.address();
  BlkRxVector v = numberedVector(1000), full = numberedVector(8000 * KESTIL_BLOCK_SIZE);
  GroupLimit limits[22] = {};
  auto get = [&](size_t nameLen, uint8_t flags, uint8_t cmd = KESTIL_GET, const BlkRxVector *vec = nullptr) {
    sendRequest(fd, to, std::string(nameLen, 'n').c_str(), vec ? vec : &v, flags, cmd);
  };
  testing::internal::CaptureStdout();
  get(192, 0);
  get(1442, KESTIL_FLAG_LONG_NAME);
  sendQReq(fd, to, &v, 22, limits, 0);
  sendQReq(fd, to, &v, 21, limits, 0);
  get(191, 0);                                         // 200 bytes and a 7-byte acknowledgement
  get(200, KESTIL_FLAG_LONG_NAME);                     // room 15: no acknowledgement
  get(1441, KESTIL_FLAG_LONG_NAME);                    // the longest
  get(2, 0, KESTIL_LS, &full);                         // the acknowledgement is capped at 64 bytes
  get(199, KESTIL_FLAG_LONG_NAME, KESTIL_PUT, &full);  // 208 + 16: request and acknowledgement within 224
  sendQReq(fd, to, &full, 20, limits, KESTIL_LS_FLAG_R);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Name too long\nName too long\nQ Request too long\nQ Request too long\nSent 224 byte qreq!\n");
  std::vector<size_t> sizes;  // the refused ones sent nothing
  for (Bytes d; !(d = peer.recv(nullptr, 500)).empty();) sizes.push_back(d.size());
  EXPECT_EQ(sizes, (std::vector<size_t>{207, 209, 1450, 75, 224, 224}));
}

}  // namespace
