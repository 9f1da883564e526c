// The simulator's request handling, datagram by datagram with stepped time: what the
// transfer service sends in answer to requests and acknowledgements, and what the file
// manager answers. The service's socket is real (loopback); its link is clean. (A download's
// pace and resends: the pacing tests; whatever datagram arrives: the simulator's fuzz target.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "common/wire_codec.hpp"
#include "queue/downlink_queue.hpp"
#include "sim/filemgr_service.hpp"
#include "sim/transfer_service.hpp"
#include "tests/support/file_server.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes request(uint8_t cmd, const std::string &name, Bytes ack = {}) {
  Bytes d = kt::request(cmd, 0, name);
  d.insert(d.end(), ack.begin(), ack.end());
  return d;
}

class SimServices : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::current_path(root_);  // the service works from its root
    mkdir("up", 0755);
    dwnq_init("queue.dat");
    ASSERT_TRUE(client_.bind("127.0.8.20", 0));
    sockaddr_in local{AF_INET, 0, {htonl(0x7F000815)}, {}};  // 127.0.8.21
    transferServiceStart(&svc_, &opts_, real_, &loop_, &trace_, openUdpSocket(local), now_);
  }
  void TearDown() override {
    transferServiceStop(&svc_);
    dwnq_cleanup();
    close(datafd);
    datafd = -1;
    std::filesystem::current_path(saved_);
    std::filesystem::remove_all(root_);
  }
  void deliver(const Bytes &d) {
    transferHandleDatagram(&svc_, d.data(), static_cast<int>(d.size()), client_.address(), now_);
  }
  void advance(int ms) {
    for (int i = 0; i < ms; ++i) loopRunDue(&loop_, now_ += 1000);
  }
  std::vector<Bytes> received() {
    std::vector<Bytes> all;
    for (Bytes d = client_.recv(nullptr, 100); !d.empty(); d = client_.recv(nullptr, 100)) all.push_back(d);
    return all;
  }
  // Block numbers of the data datagrams received after `ms` more milliseconds; -1 stands for
  // the metadata.
  std::vector<int> blocksAfter(int ms) {
    advance(ms);
    std::vector<int> out;
    for (const Bytes &d : received()) {
      KestilDataBlock b{};
      if (decodeDataBlock(d.data(), d.size(), &b)) out.push_back(static_cast<int>(b.blkNum));
      if (d[0] == KESTIL_METADATA) out.push_back(-1);
    }
    return out;
  }
  // The blocks of an upload of `content`, after its metadata with the right digest or not.
  void sendUpload(const std::string &content, bool rightDigest, std::vector<uint32_t> order) {
    std::string md5 = kt::md5Raw(content);
    md5[0] ^= rightDigest ? 0 : 1;
    deliver(kt::metadataDatagram(content.size(), md5));
    for (uint32_t n : order) deliver(kt::blockDatagram(content, n));
  }

  std::filesystem::path saved_ = std::filesystem::current_path();
  std::string root_ = kt::makeTempDir(), real_ = std::filesystem::canonical(root_);
  SimOptions opts_;
  Trace trace_;
  EventLoop loop_;
  TransferService svc_;
  kt::UdpPeer client_;
  int64_t now_ = 1000000000;
};

TEST_F(SimServices, PiggyBackedAcknowledgementLimitsAResumeToWhatIsMissing) {
  ASSERT_TRUE(kt::writeFile("f.bin", kt::patternBytes(705, 6)));            // 5 blocks
  deliver(request(KESTIL_GET, "f.bin", kt::bytes({9, 0, 0, 0, 0, 0xE0})));  // holds 0, 1, 2
  EXPECT_EQ(blocksAfter(50), (std::vector<int>{-1, 3, 4, 5}));              // and no second pass of its own
}

TEST_F(SimServices, RepeatedRequestContinuesTheTransferAndTheClosingFormEndsIt) {
  ASSERT_TRUE(kt::writeFile("f.bin", kt::patternBytes(500, 7)));
  for (int i = 0; i < 2; ++i) {  // the client still lacks the metadata: the same transfer passes again
    deliver(request(KESTIL_GET, "f.bin"));
    EXPECT_EQ(blocksAfter(50), (std::vector<int>{-1, 1, 2, 3, 4}));
    EXPECT_EQ(transferSessionCount(&svc_), 1u);
  }
  deliver(kt::bytes({14, 0, 0, 0, 0, 0x80}));
  EXPECT_EQ(transferSessionCount(&svc_), 0u);
  deliver(kt::bytes({9, 0, 0, 0, 0, 0x80}));  // late acknowledgements get nothing
  EXPECT_TRUE(blocksAfter(50).empty());
}

TEST_F(SimServices, PutStoresTheUploadAndAnswersLateDatagramsWithTheClosingForm) {
  opts_.ackBlocks = 3;
  std::string content = kt::patternBytes(300, 8);
  deliver(request(KESTIL_PUT, "up/new.bin"));
  EXPECT_EQ(received(), std::vector<Bytes>{kt::bytes({9, 0, 0, 0, 0, 0})});  // size unknown yet
  advance(500);
  EXPECT_EQ(received().size(), 1u);  // acknowledged regularly while nothing comes
  sendUpload(content, true, {1, 3});
  EXPECT_EQ(received(), std::vector<Bytes>{kt::bytes({9, 0, 0, 0, 0, 0xD0})});  // after 3 new blocks
  EXPECT_FALSE(kt::exists("up/new.bin"));
  const Bytes complete = kt::bytes({9, 0, 0, 0, 0, 0xF0});
  sendUpload(content, true, {2});
  EXPECT_EQ(received(), std::vector<Bytes>{complete});
  EXPECT_EQ(kt::readFile("up/new.bin"), content);  // its time: see the put through kestil-sim
  sendUpload(content, true, {2});                  // the client missed the completion: the closing form answers
  EXPECT_EQ(received(), (std::vector<Bytes>{kt::bytes({14, 0, 0, 0, 0, 0xF0}), kt::bytes({14, 0, 0, 0, 0, 0xF0})}));
  advance(1000);
  EXPECT_TRUE(received().empty());  // no periodic acknowledgements once done
}

TEST_F(SimServices, PutRefusesAMismatchedDigestAndLeavesNothingBehind) {
  deliver(request(KESTIL_PUT, "up/bad.bin"));
  sendUpload(kt::patternBytes(200, 9), false, {1, 2});
  const Bytes refusal = kt::bytes({13, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0, 1});
  EXPECT_EQ(received().back(), refusal);
  EXPECT_EQ(kt::namesStartingWith("up", ""), std::vector<std::string>{});  // neither the file nor its part file
  deliver(request(KESTIL_PUT, "up/bad.bin"));
  EXPECT_EQ(received(), std::vector<Bytes>{refusal});
}

TEST_F(SimServices, FileManagerRefusesWhatItCannotQueue) {
  ASSERT_TRUE(kt::writeFile("f", "12345"));
  auto answer = [&](uint8_t cmd, uint8_t group, const char *name, bool nul = true) {
    Bytes req = {cmd, group, 7, 0};
    req.insert(req.end(), name, name + std::strlen(name) + (nul ? 1 : 0));
    uint8_t resp[2];
    return Bytes(resp, resp + filemgrAnswer(real_, req.data(), static_cast<int>(req.size()), resp, 2));
  };
  EXPECT_EQ(answer(0x10, 3, "./f"), kt::bytes({0x11, 0}));
  EXPECT_STREQ(groups[3].head->name, "f");                          // queued under its normalised path
  EXPECT_EQ(answer(0x10, 3, "up"), kt::bytes({0x11, 0xFC}));        // a directory
  EXPECT_EQ(answer(0x10, 3, "f", false), kt::bytes({0x11, 0xFD}));  // no NUL
  EXPECT_EQ(answer(0x12, 2, "f"), kt::bytes({0x13, 0xFE}));         // queued in group 3, not 2
  EXPECT_EQ(answer(0x11, 3, "f"), Bytes{});                         // an answer code: no answer
}

}  // namespace
