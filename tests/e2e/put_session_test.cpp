// The put command against a scripted remote file service: the request and the first burst
// byte for byte, a lossy upload to completion, the remote side's closing and refusing
// answers, interruption and the silence time-out.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstring>
#include <random>
#include <regex>
#include <string>

#include "common/common.hpp"
#include "common/wire_codec.hpp"
#include "tests/support/test_support.hpp"

namespace {

constexpr int RUN_MS = 30000;

struct Upload {
  kt::UdpPeer peer;
  std::string dir = kt::makeTempDir();
  std::string content;
  kt::Child child;
  sockaddr_in client{};

  Upload(const char *ip, size_t size, std::vector<std::string> args, const std::string &local = "f.bin") {
    EXPECT_TRUE(peer.bind(ip, KESTIL_PORT));
    mkdir((dir + "/sub").c_str(), 0755);
    content = kt::patternBytes(size, static_cast<uint32_t>(size));
    kt::writeFile(dir + "/" + local, content);
    args.insert(args.begin(), {"-h", ip});
    args.push_back(local);
    child = kt::start(dir, "kestil-put", args);
  }
  std::vector<uint8_t> next(int ms = 3000) { return peer.recv(&client, ms); }
  void send(std::initializer_list<int> d) { peer.send(kt::bytes(d), client); }
};

// The output before the statistics line, which must end it.
std::string beforeStatistics(const std::string &out) {
  size_t at = out.rfind("Elapsed time: ");
  if (at == std::string::npos) return out + "<no statistics>";
  EXPECT_TRUE(std::regex_match(out.substr(at), std::regex(R"(Elapsed time: 00:00:\d\d\.\d{6}(      Avg Bps: \d+\.\d\d)?\n)")))
      << out.substr(at);
  return out.substr(0, at);
}

}  // namespace

TEST(PutUpload, RequestCarriesEmptyAckAndFirstBurstIsMetadataAndFiveBlocks) {
  Upload up("127.0.6.1", 1000, {}, "sub/f.bin");  // 8 data blocks
  // Request for the last path component with an empty acknowledgement of blocks 0 to 15.
  EXPECT_EQ(up.next(), kt::bytes({1, 0, 0, 0x8D, 0, 0, 0, 1, 'f', '.', 'b', 'i', 'n', 0, 9, 0, 0, 0, 0, 0, 0}));
  up.send({0x09, 0, 0, 0, 0, 0xFF});  // the answer's vector is not applied: block 0 comes first

  KESTIL_metadata meta{};
  std::vector<uint8_t> d = up.next();
  ASSERT_TRUE(decodeMetadata(d.data(), d.size(), &meta));
  struct stat st {};
  stat((up.dir + "/sub/f.bin").c_str(), &st);
  EXPECT_EQ(meta.size, 1000u);
  EXPECT_EQ(meta.utcModTime_s, static_cast<uint32_t>(st.st_mtime));
  EXPECT_EQ(meta.utcModTime_ns, 0u);
  uint8_t digest[16];
  md5_buff(up.content.data(), up.content.size(), digest);
  EXPECT_EQ(0, std::memcmp(meta.md5, digest, 16));
  for (int blk = 1; blk <= 5; ++blk) {
    d = up.next();
    std::string expected = std::string{char(KESTIL_DATA1), char(blk)} + up.content.substr((blk - 1) * 141, 141);
    EXPECT_EQ(std::string(d.begin(), d.end()), expected) << blk;
  }
  up.send({0x0E, 0, 0, 0, 0});
  kt::Result r = kt::finish(up.child, RUN_MS);
  EXPECT_TRUE(up.next(200).empty());  // nothing but the burst
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(beforeStatistics(r.out),
            "ACK 0\nsend blocks\nSend block 0 / 6.000000\nSend block 1 / 5.000000\nSend block 2 / 4.000000\n"
            "Send block 3 / 3.000000\nSend block 4 / 2.000000\nSend block 5 / 1.000000\nACK 0\nDone!\n");
}

TEST(PutUpload, LossyUploadCompletesWithMatchingCopy) {
  Upload up("127.0.6.2", 30000, {"-p", "400", "-t", "10"});  // 213 data blocks
  BlkRxVector vec{};
  initBlkRxVector(&vec, KESTIL_BLOCK_SIZE);
  setBlkRxVectorFileSize(&vec, 30000);
  std::string copy(30000, '\0');
  std::mt19937 loss(6);  // a quarter of the blocks and of the acknowledgements is lost
  ASSERT_EQ(up.next().at(0), KESTIL_PUT);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  auto nextAck = std::chrono::steady_clock::now();
  while (!vectorIsFinished(&vec) && std::chrono::steady_clock::now() < deadline) {
    if (std::chrono::steady_clock::now() >= nextAck) {
      if (loss() % 4 != 0) sendVectorAck(up.peer.fd(), &up.client, &vec, 0);
      nextAck += std::chrono::milliseconds(100);
    }
    std::vector<uint8_t> d = up.next(20);
    KestilDataBlock blk{};
    KESTIL_metadata meta{};
    if (d.empty() || loss() % 4 == 0) continue;
    if (decodeMetadata(d.data(), d.size(), &meta) && meta.size == 30000) addBlkToVector(&vec, 0);
    if (decodeDataBlock(d.data(), d.size(), &blk) && blk.blkNum >= 1 && blk.blkNum <= 213) {
      copy.replace((blk.blkNum - 1) * 141, blk.dataLen, reinterpret_cast<const char *>(blk.data), blk.dataLen);
      addBlkToVector(&vec, blk.blkNum);
    }
  }
  sendVectorAck(up.peer.fd(), &up.client, &vec, 0);
  kt::Result r = kt::finish(up.child, RUN_MS);
  EXPECT_EQ(kt::md5Hex(copy), kt::md5Hex(up.content));
  EXPECT_EQ(r.status, 0);
  std::string out = beforeStatistics(r.out);
  EXPECT_EQ(out.substr(out.size() - 6), "Done!\n");
}

TEST(PutUpload, RemoteSideClosesOrRefusesAndInterruptEndsQuietly) {
  Upload closing("127.0.6.3", 500, {});
  ASSERT_EQ(closing.next().at(0), KESTIL_PUT);
  closing.send({0x0E, 0, 0, 0, 0});  // closing acknowledgement as the very first answer
  kt::Result r = kt::finish(closing.child, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(beforeStatistics(r.out), "ACK 0\nDone!\n");

  Upload refused("127.0.6.4", 500, {});
  ASSERT_EQ(refused.next().at(0), KESTIL_PUT);
  refused.send({0x0D, 0, 0, 0});  // 4 bytes or fewer: ignored, whatever the code
  refused.send({0x09, 0, 0, 0});
  refused.send({0x0D, 1, 2, 3, 4});
  r = kt::finish(refused.child, RUN_MS);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "PUT failure\n");

  Upload interrupted("127.0.6.5", 500, {});
  ASSERT_EQ(interrupted.next().at(0), KESTIL_PUT);
  kill(interrupted.child.pid, SIGINT);
  r = kt::finish(interrupted.child, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(beforeStatistics(r.out), "");
}

TEST(PutUpload, NoAnswerRepeatsRequestEveryTwoSecondsAndGivesUpAtTwenty) {
  Upload up("127.0.6.6", 0, {"-o", "remote/name"});
  std::vector<uint8_t> first = up.next();
  int requests = first.empty() ? 0 : 1;
  for (std::vector<uint8_t> d; !(d = up.next(2600)).empty(); ++requests) EXPECT_EQ(d, first);
  kt::Result r = kt::finish(up.child, RUN_MS);
  EXPECT_EQ(requests, 10);
  EXPECT_EQ(r.status, 1);
  std::string resends;
  for (int i = 0; i < 9; ++i) resends += "resend request\n";
  EXPECT_EQ(beforeStatistics(r.out), resends + "Put file f.bin timed out.\n");
  EXPECT_NE(r.out.find("Elapsed time: 00:00:2"), std::string::npos);  // no rate for an empty file
}

TEST(PutCommand, UsageAndUnreadableLocalFile) {
  std::string dir = kt::makeTempDir();
  kt::Result r = kt::run(dir, "kestil", {"put", "-h", "127.0.6.7"}, RUN_MS);
  EXPECT_EQ(r.out, "put [-L] [-h host] [-o <remote file>] <local file>\n");
  EXPECT_EQ(r.status, 0);
  r = kt::run(dir, "kestil-put", {"-h", "127.0.6.7", "missing.bin"}, RUN_MS);
  EXPECT_EQ(r.err, "missing.bin: No such file or directory\n");
  EXPECT_EQ(r.status, 1);
}
