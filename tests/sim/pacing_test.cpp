// How a download leaves the simulator, with stepped time: the pace in bits of wire, the
// window, resends of blocks an acknowledgement shows lost, and the rounds of unacknowledged
// blocks that fill an idle wire.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/common.hpp"
#include "common/wire_codec.hpp"
#include "sim/transfer_service.hpp"
#include "tests/support/test_support.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

class SimPacing : public ::testing::Test {
 protected:
  void start(uint64_t paceBits, size_t fileSize) {
    root_ = kt::makeTempDir();
    ASSERT_TRUE(getcwd(saved_, sizeof saved_) != nullptr);
    ASSERT_EQ(chdir(root_.c_str()), 0);
    ASSERT_TRUE(realpath(".", real_) != nullptr);
    ASSERT_TRUE(kt::writeFile("f.bin", kt::patternBytes(fileSize, 3)));
    opts_.paceBits = paceBits;
    ASSERT_TRUE(client_.bind("127.0.8.30", 0));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(0x7F00081F);  // 127.0.8.31
    transferServiceStart(&svc_, &opts_, real_, &loop_, &trace_, openUdpSocket(local), now_);
    started_ = true;
    Bytes req = {KESTIL_GET, 0, 0, 141, 0, 0, 0, 1, 'f', '.', 'b', 'i', 'n', 0};
    deliver(req);
  }
  void TearDown() override {
    if (!started_) return;
    transferServiceStop(&svc_);
    ASSERT_EQ(chdir(saved_), 0);
    ASSERT_EQ(std::system(("rm -rf '" + root_ + "'").c_str()), 0);
  }
  void deliver(const Bytes &d) {
    transferHandleDatagram(&svc_, d.data(), static_cast<int>(d.size()), client_.address(), now_);
  }
  // Steps of 0.1 ms; what arrives is collected as it comes, so no socket buffer overflows.
  void advance(int ms) {
    for (int i = 0; i < ms * 10; ++i) {
      loopRunDue(&loop_, now_ += 100);
      collect(0);
    }
  }
  void collect(int timeoutMs) {
    for (Bytes d = client_.recv(nullptr, timeoutMs); !d.empty(); d = client_.recv(nullptr, timeoutMs)) {
      KestilDataBlock b{};
      if (decodeDataBlock(d.data(), d.size(), &b)) got_.push_back(b.blkNum);
      if (d[0] == KESTIL_METADATA) got_.push_back(0);
    }
  }
  // Block numbers received since the last call, in order; 0 stands for the metadata.
  std::vector<uint32_t> blocks() {
    collect(20);
    std::vector<uint32_t> out;
    out.swap(got_);
    return out;
  }
  // An acknowledgement with base 0 whose first bytes are `bits` (one bit per block, MSB first).
  static Bytes ack(const Bytes &bits) {
    Bytes d = {KESTIL_VECACK, 0, 0, 0, 0};
    d.insert(d.end(), bits.begin(), bits.end());
    return d;
  }

  std::string root_;
  char saved_[PATH_MAX]{};
  char real_[PATH_MAX]{};
  bool started_ = false;
  SimOptions opts_;
  Trace trace_;
  EventLoop loop_;
  TransferService svc_;
  kt::UdpPeer client_;
  std::vector<uint32_t> got_;
  int64_t now_ = 1000000000;
};

// A full block datagram of 141 bytes with a 2-byte header is 171 bytes on the wire with IP/UDP.
TEST_F(SimPacing, PaceIsBitsOfWireSoShortDatagramsLeaveRoomForMore) {
  start(171 * 8 * 20, 141 * 60);  // 20 full blocks a second
  advance(1000);
  std::vector<uint32_t> got = blocks();
  // The metadata (61 bytes on the wire) goes at once and costs a third of a block; a second
  // then carries about 20 blocks more.
  ASSERT_GE(got.size(), 20u);
  EXPECT_LE(got.size(), 22u);
  for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], i);
}

TEST_F(SimPacing, AcknowledgementShowingALaterArrivalResendsTheHoleFirstAndNotWhatIsInFlight) {
  start(171 * 8 * 1000, 141 * 40);  // blocks 1 to 40
  advance(10);
  size_t sent = blocks().size();
  ASSERT_GE(sent, 10u);
  // The client has 0-3 and 5-7: 4 was lost, 8 and what followed may still be on the way.
  deliver(ack({0xF7, 0x00}));
  advance(3);
  std::vector<uint32_t> got = blocks();
  ASSERT_GE(got.size(), 2u);
  EXPECT_EQ(got[0], 4u);
  EXPECT_EQ(got[1], sent);  // then the pass goes on; 8 and later are not resent
}

// The client acknowledges every 256 datagrams it takes in, copies included: the rounds send
// that many since the newest arrival it reported, so that its answer comes, then wait for it.
TEST_F(SimPacing, ThePassEndsWithRoundsOfUnacknowledgedBlocksThenWaitsForTheClient) {
  start(171 * 8 * 1000, 141 * 15);  // blocks 1 to 15, lastBlk 16
  advance(3);
  uint32_t sent = static_cast<uint32_t>(blocks().size());
  ASSERT_GE(sent, 2u);
  ASSERT_LT(sent, 8u);
  Bytes all = ack({static_cast<uint8_t>(0xFF00 >> sent)});  // all of them arrived
  deliver(all);
  deliver(all);  // a copy the link made is no news and no new budget
  advance(3000);
  std::vector<uint32_t> got = blocks();
  uint32_t rest = 16 - sent;
  ASSERT_EQ(got.size(), 256u);
  for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], sent + i % rest) << i;
  advance(1000);
  EXPECT_TRUE(blocks().empty());
  // The client's 2 s acknowledgement that heard nothing new: all of it was lost.
  deliver(all);
  advance(1000);
  EXPECT_EQ(blocks().size(), 256u);
}

// No cap on datagrams in flight beyond the window: a cap stalls the pass whenever two
// acknowledgements in a row are lost, since the client acknowledges only every 256 blocks.
// A client that is behind holds in its socket buffer what it has not reported, so nothing
// goes twice while more than an acknowledgement's worth of datagrams is unreported.
TEST_F(SimPacing, AClientBehindGetsTheWindowAndNoCopies) {
  start(171 * 8 * 100000, 141 * 1100);
  advance(100);
  std::vector<uint32_t> got = blocks();
  ASSERT_EQ(got.size(), 1024u);  // blocks 0 to 1023, and no round of resends before any report
  EXPECT_EQ(got.back(), 1023u);
  deliver(ack(Bytes(32, 0xFF)));  // 0-255 arrived: the window moves on to the file's end
  advance(1000);
  got = blocks();
  ASSERT_EQ(got.size(), 77u);
  EXPECT_EQ(got.front(), 1024u);
  EXPECT_EQ(got.back(), 1100u);
  deliver(ack(Bytes(128, 0xFF)));  // 0-1023: only 77 unreported, fewer than the client's 256
  advance(1000);
  got = blocks();
  ASSERT_EQ(got.size(), 256u - 77);
  for (uint32_t b : got) EXPECT_GE(b, 1024u);
}

TEST(SimPaceOptions, PaceRateWinsOverDatagramsAndTheLinkRate) {
  SimOptions o;
  EXPECT_DOUBLE_EQ(effectivePaceBits(o, 141), 2000.0 * 174 * 8);
  o.link.rateBps = 9600;  // the link's own rate, not whole blocks of it
  EXPECT_DOUBLE_EQ(effectivePaceBits(o, 141), 9600.0);
  o.pace = 50;
  EXPECT_DOUBLE_EQ(effectivePaceBits(o, 141), 50.0 * 174 * 8);
  const char *argv[] = {"kestil-sim", "--pace-rate", "64000"};
  std::string err;
  ASSERT_EQ(parseSimOptions(3, argv, &o, &err), ParseOutcome::Run) << err;
  EXPECT_DOUBLE_EQ(effectivePaceBits(o, 141), 64000.0);
}

}  // namespace
