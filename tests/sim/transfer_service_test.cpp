// The simulator's transfer service, datagram by datagram with stepped time: what it sends in
// answer to acknowledgements (resends of blocks an acknowledgement shows lost, the rounds of
// unacknowledged blocks that fill an idle wire), to a repeated request and to an upload whose
// digest is wrong. The service's socket is real (loopback); its link is clean. (Stored
// uploads, the file manager and the options: the scenarios against kestil-sim.)
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <utility>

#include "common/wire_codec.hpp"
#include "queue/downlink_queue.hpp"
#include "sim/transfer_service.hpp"
#include "tests/support/file_server.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
using Blocks = std::vector<int>;

// An acknowledgement with base 0 whose first bytes are `bits` (one bit per block, MSB first).
Bytes ack(const Bytes &bits, uint8_t code = KESTIL_VECACK) { return kt::withTail({code, 0, 0, 0, 0}, bits, false); }

class SimServices : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::current_path(root_);  // the service works from its root
    mkdir("up", 0755);
    dwnq_init("queue.dat");
    ASSERT_TRUE(client_.bind("127.0.8.20", 0));
  }
  // The service, once the test has set its options.
  void start() {
    sockaddr_in local{AF_INET, 0, {htonl(0x7F000815)}, {}};  // 127.0.8.21
    transferServiceStart(&svc_, &opts_, real_, &loop_, &trace_, openUdpSocket(local), now_);
    started_ = true;
  }
  // A download of f.bin, `size` bytes, paced at `paceBits`.
  void get(uint64_t paceBits, size_t size) {
    ASSERT_TRUE(kt::writeFile("f.bin", kt::patternBytes(size, 3)));
    opts_.paceBits = paceBits;
    start();
    deliver(kt::request(KESTIL_GET, 0, "f.bin"));
  }
  void TearDown() override {
    if (started_) transferServiceStop(&svc_);
    dwnq_cleanup();
    close(datafd);
    datafd = -1;
    std::filesystem::current_path(saved_);
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
    for (Bytes d = client_.recv(nullptr, timeoutMs); !d.empty(); d = client_.recv(nullptr, timeoutMs))
      got_.push_back(d);
  }
  // The datagrams received since the last call.
  std::vector<Bytes> received() {
    collect(20);
    return std::exchange(got_, {});
  }
  // Block numbers of the data datagrams received after `ms` more milliseconds; 0 stands for
  // the metadata.
  Blocks blocksAfter(int ms) {
    advance(ms);
    Blocks out;
    for (const Bytes &d : received()) {
      KestilDataBlock b{};
      if (decodeDataBlock(d.data(), d.size(), &b)) out.push_back(static_cast<int>(b.blkNum));
      if (d[0] == KESTIL_METADATA) out.push_back(0);
    }
    return out;
  }

  std::filesystem::path saved_ = std::filesystem::current_path();
  std::string root_ = kt::makeTempDir(), real_ = std::filesystem::canonical(root_);
  bool started_ = false;
  SimOptions opts_;
  Trace trace_;
  EventLoop loop_;
  TransferService svc_;
  kt::UdpPeer client_;
  std::vector<Bytes> got_;
  int64_t now_ = 1000000000;
};

TEST_F(SimServices, AcknowledgementShowingALaterArrivalResendsTheHoleFirstAndNotWhatIsInFlight) {
  get(171 * 8 * 1000, 141 * 40);  // blocks 1 to 40
  int sent = static_cast<int>(blocksAfter(10).size());
  ASSERT_GE(sent, 10);
  // The client has 0-3 and 5-7: 4 was lost, 8 and what followed may still be on the way.
  deliver(ack({0xF7, 0x00}));
  Blocks got = blocksAfter(3);
  ASSERT_GE(got.size(), 2u);
  EXPECT_EQ(Blocks(got.begin(), got.begin() + 2), (Blocks{4, sent}));  // then the pass goes on
}

// The client acknowledges every so many datagrams it takes in, copies included: the rounds
// send a budget of them since the newest arrival it reported, so that its answer comes, then
// wait for it.
TEST_F(SimServices, ThePassEndsWithRoundsOfUnacknowledgedBlocksThenWaitsForTheClient) {
  get(171 * 8 * 1000, 141 * 15);  // blocks 1 to 15, lastBlk 16
  int sent = static_cast<int>(blocksAfter(3).size());
  ASSERT_GE(sent, 2);
  ASSERT_LT(sent, 8);
  Bytes all = ack({static_cast<uint8_t>(0xFF00 >> sent)});  // all of them arrived
  deliver(all);
  deliver(all);  // a copy the link made is no news and no new budget
  Blocks got = blocksAfter(3000);
  ASSERT_GT(got.size(), 16u);
  for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], sent + static_cast<int>(i) % (16 - sent)) << i;
  EXPECT_TRUE(blocksAfter(1000).empty());
  deliver(all);  // the client's periodic acknowledgement that heard nothing new: all of it was lost
  EXPECT_EQ(blocksAfter(1000).size(), got.size());
}

// A client that lacks the metadata repeats its request: the pass starts over, even after it
// has ended.
TEST_F(SimServices, RepeatedRequestPassesAgainAndTheClosingFormEndsTheTransfer) {
  ASSERT_TRUE(kt::writeFile("f.bin", kt::patternBytes(500, 7)));
  start();
  for (int i = 0; i < 2; ++i) {
    deliver(kt::request(KESTIL_GET, 0, "f.bin"));
    EXPECT_EQ(blocksAfter(50), (Blocks{0, 1, 2, 3, 4}));
  }
  deliver(ack({0x80}, KESTIL_VECACK_FINAL));
  deliver(ack({0x80}));  // late acknowledgements get nothing: the transfer has ended
  EXPECT_TRUE(blocksAfter(50).empty());
}

TEST_F(SimServices, PutRefusesAMismatchedDigestAndLeavesNothingBehind) {
  start();
  deliver(kt::request(KESTIL_PUT, 0, "up/bad.bin"));
  const std::string content = kt::patternBytes(200, 9);  // blocks 1 and 2
  deliver(kt::metadataDatagram(content.size(), kt::md5Raw("another")));
  deliver(kt::blockDatagram(content, 1));
  EXPECT_FALSE(kt::exists("up/bad.bin"));  // nothing under its name while blocks are missing
  deliver(kt::blockDatagram(content, 2));
  const Bytes refusal = kt::bytes({13, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0, 1});
  EXPECT_EQ(received().back(), refusal);
  EXPECT_EQ(kt::namesStartingWith("up", ""), std::vector<std::string>{});  // neither the file nor its part file
  deliver(kt::request(KESTIL_PUT, 0, "up/bad.bin"));
  EXPECT_EQ(received(), std::vector<Bytes>{refusal});
}

}  // namespace
