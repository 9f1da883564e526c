// The simulator's request handling, driven datagram by datagram with stepped time: what the
// transfer service sends for get, put and report requests and their acknowledgements, and
// what the file manager answers. The service's socket is real (loopback); its link is clean.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/common.hpp"
#include "common/wire_codec.hpp"
#include "queue/downlink_queue.hpp"
#include "sim/filemgr_service.hpp"
#include "sim/transfer_service.hpp"
#include "tests/support/test_support.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

int entryCount(const char *dir) {
  int n = -2;  // "." and ".."
  DIR *d = opendir(dir);
  if (d == nullptr) return -1;
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

class SimServices : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = kt::makeTempDir();
    ASSERT_TRUE(getcwd(saved_, sizeof saved_) != nullptr);
    ASSERT_EQ(chdir(root_.c_str()), 0);
    char real[PATH_MAX];
    ASSERT_TRUE(realpath(".", real) != nullptr);
    mkdir("up", 0755);
    dwnq_init("queue.dat");
    ASSERT_TRUE(client_.bind("127.0.8.20", 0));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.8.21", &local.sin_addr);
    int fd = openUdpSocket(local);
    ASSERT_GE(fd, 0);
    now_ = 1000000000;
    ASSERT_TRUE(transferServiceStart(&svc_, &opts_, real, &loop_, &trace_, fd, now_));
  }
  void TearDown() override {
    transferServiceStop(&svc_);
    dwnq_cleanup();
    close(datafd);
    datafd = -1;
    ASSERT_EQ(chdir(saved_), 0);
    ASSERT_EQ(std::system(("rm -rf '" + root_ + "'").c_str()), 0);
  }

  void deliver(const Bytes &d) {
    transferHandleDatagram(&svc_, d.data(), static_cast<int>(d.size()), client_.address(), now_);
  }
  // Steps the service's clock by `ms` in 1 ms ticks.
  void advance(int ms) {
    for (int i = 0; i < ms; ++i) {
      now_ += 1000;
      loopRunDue(&loop_, now_);
    }
  }
  // Everything the service has sent to the client so far.
  std::vector<Bytes> received() {
    std::vector<Bytes> all;
    for (;;) {
      Bytes d = client_.recv(nullptr, 100);
      if (d.empty()) return all;
      all.push_back(d);
    }
  }
  // The block numbers of the data datagrams among `ds`; -1 stands for the metadata.
  static std::vector<int> blocks(const std::vector<Bytes> &ds) {
    std::vector<int> out;
    for (const Bytes &d : ds) {
      KestilDataBlock b{};
      if (decodeDataBlock(d.data(), d.size(), &b)) {
        out.push_back(static_cast<int>(b.blkNum));
      } else if (d[0] == KESTIL_METADATA) {
        out.push_back(-1);
      }
    }
    return out;
  }
  static Bytes request(uint8_t cmd, const std::string &name, uint16_t blockSize = 141, Bytes ack = {}) {
    Bytes d = {cmd, 0, static_cast<uint8_t>(blockSize >> 8), static_cast<uint8_t>(blockSize), 0, 0, 0, 1};
    d.insert(d.end(), name.begin(), name.end());
    d.push_back(0);
    d.insert(d.end(), ack.begin(), ack.end());
    return d;
  }

  std::string root_;
  char saved_[PATH_MAX]{};
  SimOptions opts_;
  Trace trace_;
  EventLoop loop_;
  TransferService svc_;
  kt::UdpPeer client_;
  int64_t now_ = 0;
};

TEST_F(SimServices, ErrorReportsCarryReasonErrnoAndRequestCode) {
  mkdir("dir", 0755);
  ASSERT_TRUE(kt::writeFile("f.bin", "x"));
  const std::pair<Bytes, Bytes> cases[] = {
      {request(KESTIL_GET, "missing"), kt::bytes({15, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 10})},     // ENOENT
      {request(KESTIL_GET, "../f.bin"), kt::bytes({15, 0, 0, 0, 2, 0, 0, 0, 13, 0, 0, 0, 10})},  // EACCES
      {request(KESTIL_GET, "dir"), kt::bytes({15, 0, 0, 0, 4, 0, 0, 0, 21, 0, 0, 0, 10})},        // EISDIR
      {request(KESTIL_GET, "f.bin", 0), kt::bytes({15, 0, 0, 0, 3, 0, 0, 0, 22, 0, 0, 0, 10})},   // EINVAL
  };
  for (const auto &[req, expected] : cases) {
    deliver(req);
    EXPECT_EQ(received(), std::vector<Bytes>{expected});
    EXPECT_EQ(transferSessionCount(&svc_), 0u);
  }
}

TEST_F(SimServices, GetSendsMetadataAndEveryBlockThenWaitsForAnAcknowledgement) {
  std::string content = kt::patternBytes(300, 5);
  ASSERT_TRUE(kt::writeFile("f.bin", content));
  struct stat st{};
  ASSERT_EQ(stat("f.bin", &st), 0);
  deliver(request(KESTIL_GET, "f.bin"));
  advance(50);
  std::vector<Bytes> got = received();
  ASSERT_EQ(blocks(got), (std::vector<int>{-1, 1, 2, 3}));
  KESTIL_metadata meta{};
  ASSERT_TRUE(decodeMetadata(got[0].data(), got[0].size(), &meta));
  EXPECT_EQ(meta.reqId, 1u);
  EXPECT_EQ(meta.size, 300u);
  EXPECT_EQ(meta.utcModTime_s, static_cast<uint32_t>(st.st_mtime));
  uint8_t digest[16];
  md5_buff(content.data(), content.size(), digest);
  EXPECT_EQ(std::memcmp(meta.md5, digest, 16), 0);
  EXPECT_EQ(got[1].size(), 143u);
  EXPECT_EQ(got[3].size(), 20u);  // 18 bytes of data in the last block
  // Nothing more until an acknowledgement: the pass is spent.
  advance(1000);
  EXPECT_TRUE(received().empty());

  // Blocks 0, 1 and 3 arrived: only block 2 is sent again.
  deliver(kt::bytes({9, 0, 0, 0, 0, 0xD0}));
  advance(50);
  EXPECT_EQ(blocks(received()), std::vector<int>{2});
  EXPECT_EQ(transferSessionCount(&svc_), 1u);
  // The complete acknowledgement ends the transfer.
  deliver(kt::bytes({9, 0, 0, 0, 0, 0xF0}));
  EXPECT_EQ(transferSessionCount(&svc_), 0u);
}

TEST_F(SimServices, PiggyBackedAcknowledgementLimitsAResumeToWhatIsMissing) {
  ASSERT_TRUE(kt::writeFile("f.bin", kt::patternBytes(705, 6)));  // 5 blocks, lastBlk 6
  deliver(request(KESTIL_GET, "f.bin", 141, kt::bytes({9, 0, 0, 0, 0, 0xE0})));  // holds 0, 1, 2
  advance(50);
  EXPECT_EQ(blocks(received()), (std::vector<int>{-1, 3, 4, 5}));
}

TEST_F(SimServices, RepeatedRequestContinuesTheTransferAndClosingAckEndsIt) {
  ASSERT_TRUE(kt::writeFile("f.bin", kt::patternBytes(500, 7)));  // 4 blocks
  deliver(request(KESTIL_GET, "f.bin"));
  advance(50);
  EXPECT_EQ(blocks(received()), (std::vector<int>{-1, 1, 2, 3, 4}));
  // The client repeats its request while it lacks the metadata: the same transfer starts its
  // pass over; a request for another file from the same port replaces it.
  deliver(request(KESTIL_GET, "f.bin"));
  advance(50);
  EXPECT_EQ(blocks(received()), (std::vector<int>{-1, 1, 2, 3, 4}));
  EXPECT_EQ(transferSessionCount(&svc_), 1u);
  deliver(kt::bytes({14, 0, 0, 0, 0, 0x80}));
  EXPECT_EQ(transferSessionCount(&svc_), 0u);
  // Late acknowledgements of the ended transfer get nothing.
  deliver(kt::bytes({9, 0, 0, 0, 0, 0x80}));
  advance(50);
  EXPECT_TRUE(received().empty());
}

TEST_F(SimServices, IdleTransfersAreDropped) {
  opts_.idleS = 2;
  ASSERT_TRUE(kt::writeFile("f.bin", "abc"));
  deliver(request(KESTIL_GET, "f.bin"));
  advance(1500);
  EXPECT_EQ(transferSessionCount(&svc_), 1u);
  advance(2000);
  EXPECT_EQ(transferSessionCount(&svc_), 0u);
}

class SimPutService : public SimServices {
 protected:
  Bytes metadata(const std::string &content, uint32_t mtime, bool rightDigest = true) {
    KESTIL_metadata meta{};
    meta.reqId = 1;
    meta.size = static_cast<uint32_t>(content.size());
    meta.utcModTime_s = mtime;
    md5_buff(content.data(), content.size(), meta.md5);
    if (!rightDigest) meta.md5[0] ^= 1;
    Bytes d(KESTIL_METADATA_LEN);
    encodeMetadata(d.data(), d.size(), meta);
    return d;
  }
  Bytes block(const std::string &content, uint32_t n) {
    size_t off = (n - 1) * 141;
    size_t len = std::min<size_t>(141, content.size() - off);
    Bytes d(KESTIL_MAX_DATAGRAM);
    d.resize(encodeDataBlock(d.data(), d.size(), n, reinterpret_cast<const uint8_t *>(content.data()) + off, len));
    return d;
  }
};

TEST_F(SimPutService, StoresTheUploadWithItsTimeAndAnswersLateDatagramsWithCompletion) {
  opts_.ackBlocks = 2;
  std::string content = kt::patternBytes(300, 8);
  deliver(request(KESTIL_PUT, "up/new.bin"));
  // The answer: an empty acknowledgement (size unknown: one vector byte).
  EXPECT_EQ(received(), std::vector<Bytes>{kt::bytes({9, 0, 0, 0, 0, 0})});
  // Regular acknowledgements while nothing comes.
  advance(500);
  EXPECT_EQ(received().size(), 1u);
  deliver(metadata(content, 1714568865));
  deliver(block(content, 1));
  EXPECT_EQ(received(), std::vector<Bytes>{kt::bytes({9, 0, 0, 0, 0, 0xC0})});  // after 2 new blocks
  EXPECT_FALSE(kt::exists("up/new.bin"));
  deliver(block(content, 3));
  deliver(block(content, 2));
  const Bytes complete = kt::bytes({9, 0, 0, 0, 0, 0xF0});
  EXPECT_EQ(received(), std::vector<Bytes>{complete});
  EXPECT_EQ(kt::readFile("up/new.bin"), content);
  struct stat st{};
  ASSERT_EQ(stat("up/new.bin", &st), 0);
  EXPECT_EQ(st.st_mtime, 1714568865);
  EXPECT_EQ(kt::readFile("up/new.bin").size(), 300u);
  // The client lost the completion and resends a block: it hears it again.
  deliver(block(content, 2));
  EXPECT_EQ(received(), std::vector<Bytes>{complete});
  advance(1000);
  EXPECT_TRUE(received().empty());  // no more periodic acknowledgements once done
}

TEST_F(SimPutService, RefusesAMismatchedDigestAndLeavesNothingBehind) {
  std::string content = kt::patternBytes(200, 9);
  deliver(request(KESTIL_PUT, "up/bad.bin"));
  received();
  deliver(metadata(content, 1, false));
  deliver(block(content, 1));
  deliver(block(content, 2));
  const Bytes refusal = kt::bytes({13, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0, 1});
  std::vector<Bytes> got = received();
  ASSERT_FALSE(got.empty());
  EXPECT_EQ(got.back(), refusal);
  EXPECT_FALSE(kt::exists("up/bad.bin"));
  EXPECT_EQ(entryCount("up"), 0);  // the part file went too
  deliver(request(KESTIL_PUT, "up/bad.bin"));
  EXPECT_EQ(received(), std::vector<Bytes>{refusal});
}

TEST_F(SimServices, ReportWithRemovalTakesEntriesOnlyOnTheCompleteAcknowledgement) {
  ASSERT_TRUE(kt::writeFile("a", "aaaa"));
  ASSERT_TRUE(kt::writeFile("b", "bb"));
  dwnq_insert("a", 4, 0, 0);
  dwnq_insert("b", 4, 1, 0);
  auto count = [] { return groups[4].fileCnt; };
  // num_grps 1: group 4, sizeTarget 0xFFFFFFFF, numEntriesTarget 1; flags 1 (remove).
  Bytes req = {11, 1, 0, 141, 0, 0, 0, 1, 1, 4, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1};
  deliver(req);
  advance(50);
  std::vector<Bytes> got = received();
  ASSERT_FALSE(got.empty());
  KESTIL_metadata meta{};
  ASSERT_TRUE(decodeMetadata(got[0].data(), got[0].size(), &meta));
  // The closing form is no confirmation.
  deliver(kt::bytes({14, 0, 0, 0, 0, 0xFF}));
  EXPECT_EQ(count(), 2u);
  deliver(req);
  advance(50);
  received();
  deliver(kt::bytes({9, 0, 0, 0, 0, 0xFF}));
  EXPECT_EQ(count(), 1u);
  EXPECT_STREQ(groups[4].head->name, "b");
}

TEST_F(SimServices, NoDatagramCrashesTheService) {
  // Seeded junk of every code and length, from the one client port, with time passing;
  // afterwards an ordinary download still works.
  ASSERT_TRUE(kt::writeFile("f.bin", kt::patternBytes(1000, 10)));
  uint32_t x = 12345;
  auto next = [&x] {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
  };
  for (int i = 0; i < 3000; ++i) {
    Bytes d(next() % 160);
    for (uint8_t &b : d) b = static_cast<uint8_t>(next());
    if (!d.empty()) d[0] = static_cast<uint8_t>(next() % 18);
    // Now and then a well-formed request, so that acknowledgements and blocks meet a session.
    if (i % 50 == 0) d = request(i % 100 == 0 ? KESTIL_GET : KESTIL_PUT, i % 200 == 0 ? "f.bin" : "up/x");
    deliver(d);
    if (i % 10 == 0) advance(1);
  }
  received();
  deliver(request(KESTIL_GET, "f.bin", 500));
  advance(50);
  EXPECT_EQ(blocks(received()), (std::vector<int>{-1, 1, 2}));
}

TEST(SimFileManager, AnswersStatusAddAndRemove) {
  std::string root = kt::makeTempDir();
  char saved[PATH_MAX];
  ASSERT_TRUE(getcwd(saved, sizeof saved) != nullptr);
  ASSERT_EQ(chdir(root.c_str()), 0);
  char real[PATH_MAX];
  ASSERT_TRUE(realpath(".", real) != nullptr);
  dwnq_init("q.dat");
  ASSERT_TRUE(kt::writeFile("f", "12345"));
  mkdir("d", 0755);
  auto answer = [&](Bytes req) {
    uint8_t resp[2];
    int n = filemgrAnswer(real, req.data(), static_cast<int>(req.size()), resp, sizeof resp);
    return Bytes(resp, resp + n);
  };
  auto named = [](uint8_t cmd, uint8_t group, uint8_t prio, const std::string &name) {
    Bytes d = {cmd, group, prio, 0};
    d.insert(d.end(), name.begin(), name.end());
    d.push_back(0);
    return d;
  };
  EXPECT_EQ(answer({1}), kt::bytes({0xF1}));
  EXPECT_EQ(answer(named(0x10, 3, 7, "./f")), kt::bytes({0x11, 0}));
  ASSERT_EQ(groups[3].fileCnt, 1u);
  EXPECT_STREQ(groups[3].head->name, "f");  // queued under its normalised path
  EXPECT_EQ(groups[3].head->priority, 7);
  EXPECT_EQ(answer(named(0x10, 3, 0, "none")), kt::bytes({0x11, 0xFE}));
  EXPECT_EQ(answer(named(0x10, 3, 0, "../f")), kt::bytes({0x11, 0xFF}));
  EXPECT_EQ(answer(named(0x10, 3, 0, "/etc/hostname")), kt::bytes({0x11, 0xFF}));
  EXPECT_EQ(answer(named(0x10, 3, 0, "d")), kt::bytes({0x11, 0xFC}));
  EXPECT_EQ(answer({0x10, 3, 0, 0, 'f'}), kt::bytes({0x11, 0xFD}));  // no NUL
  EXPECT_EQ(answer(named(0x12, 2, 0, "f")), kt::bytes({0x13, 0xFE}));  // queued in group 3, not 2
  EXPECT_EQ(answer(named(0x12, 3, 0, "f")), kt::bytes({0x13, 0}));
  EXPECT_EQ(groups[3].fileCnt, 0u);
  EXPECT_EQ(answer({0x11, 0}), Bytes{});  // not a request
  EXPECT_EQ(answer({}), Bytes{});
  dwnq_cleanup();
  close(datafd);
  datafd = -1;
  ASSERT_EQ(chdir(saved), 0);
  ASSERT_EQ(std::system(("rm -rf '" + root + "'").c_str()), 0);
}

}  // namespace
