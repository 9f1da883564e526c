// The put command against a scripted remote file service: the request and the first burst
// byte for byte, a lossy upload to completion, the remote side's closing and refusing
// answers, and the silence rules.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>
#include <regex>
#include <string>

#include "common/common.hpp"
#include "common/wire_codec.hpp"
#include "tests/support/test_support.hpp"

namespace {

constexpr int RUN_MS = 30000;
const std::regex STATS_LINE(R"(Elapsed time: 00:00:\d\d\.\d{6}(      Avg Bps: \d+\.\d\d)?\n)");

struct Upload {
  kt::UdpPeer peer;
  std::string dir = kt::makeTempDir();
  std::string content;
  kt::Child child;

  Upload(const char *ip, size_t size, const std::vector<std::string> &args) {
    EXPECT_TRUE(peer.bind(ip, KESTIL_PORT));
    content = kt::patternBytes(size, static_cast<uint32_t>(size));
    kt::writeFile(dir + "/f.bin", content);
    std::vector<std::string> argv = {"-h", ip};
    argv.insert(argv.end(), args.begin(), args.end());
    child = kt::start(dir, "kestil-put", argv);
  }
  // The next datagram from the client, which is remembered as the reply address.
  std::vector<uint8_t> next(sockaddr_in *from, int ms = 3000) { return peer.recv(from, ms); }
};

// Splits the client's output at the statistics line, which must end it.
std::string beforeStatistics(const std::string &out) {
  size_t at = out.rfind("Elapsed time: ");
  if (at == std::string::npos) return out + "<no statistics>";
  EXPECT_TRUE(std::regex_match(out.substr(at), STATS_LINE)) << out.substr(at);
  return out.substr(0, at);
}

}  // namespace

TEST(PutUpload, RequestCarriesEmptyAckAndFirstBurstIsMetadataAndFiveBlocks) {
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.6.1", KESTIL_PORT));
  std::string dir = kt::makeTempDir();
  mkdir((dir + "/sub").c_str(), 0755);
  std::string content = kt::patternBytes(1000, 1);  // 8 blocks: lastBlk 9
  kt::writeFile(dir + "/sub/f.bin", content);
  kt::Child child = kt::start(dir, "kestil-put", {"-h", "127.0.6.1", "sub/f.bin"});

  sockaddr_in client{};
  // Put request for the last path component, then an empty acknowledgement of blocks 0 to 15.
  EXPECT_EQ(peer.recv(&client, 3000), kt::bytes({0x01, 0x00, 0x00, 0x8D, 0, 0, 0, 1, 'f', '.', 'b', 'i', 'n', 0,
                                                 0x09, 0, 0, 0, 0, 0x00, 0x00}));
  // The answer's vector claims blocks 0 to 7 but is not applied: the burst starts at block 0.
  peer.send(kt::bytes({0x09, 0, 0, 0, 0, 0xFF}), client);

  KESTIL_metadata meta{};
  std::vector<uint8_t> d = peer.recv(&client, 3000);
  ASSERT_TRUE(decodeMetadata(d.data(), d.size(), &meta));
  struct stat st {};
  stat((dir + "/sub/f.bin").c_str(), &st);
  EXPECT_EQ(meta.reqId, 1u);
  EXPECT_EQ(meta.size, 1000u);
  EXPECT_EQ(meta.utcModTime_s, static_cast<uint32_t>(st.st_mtime));
  EXPECT_EQ(meta.utcModTime_ns, 0u);
  char hex[33];
  for (int i = 0; i < 16; ++i) std::snprintf(hex + 2 * i, 3, "%02x", meta.md5[i]);
  EXPECT_EQ(std::string(hex), kt::md5Hex(content));
  for (uint32_t blk = 1; blk <= 5; ++blk) {
    d = peer.recv(&client, 3000);
    ASSERT_EQ(d.size(), 143u) << blk;
    EXPECT_EQ(d[0], KESTIL_DATA1);
    EXPECT_EQ(d[1], blk);
    EXPECT_EQ(std::string(d.begin() + 2, d.end()), content.substr((blk - 1) * 141, 141));
  }
  peer.send(kt::bytes({0x0E, 0, 0, 0, 0}), client);
  kt::Result r = kt::finish(child, RUN_MS);
  EXPECT_EQ(peer.recv(&client, 200), std::vector<uint8_t>{});  // nothing after the burst
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(beforeStatistics(r.out),
            "ACK 0\nsend blocks\nSend block 0 / 6.000000\nSend block 1 / 5.000000\nSend block 2 / 4.000000\n"
            "Send block 3 / 3.000000\nSend block 4 / 2.000000\nSend block 5 / 1.000000\nACK 0\nDone!\n");
}

TEST(PutUpload, LossyUploadCompletesWithMatchingCopy) {
  Upload up("127.0.6.2", 30000, {"-p", "400", "-t", "10", "f.bin"});  // 213 data blocks
  BlkRxVector vec{};
  initBlkRxVector(&vec, KESTIL_BLOCK_SIZE);
  std::string copy(up.content.size(), '\0');
  std::mt19937 loss(6);  // seeded: a quarter of the data and of the acknowledgements is lost
  sockaddr_in client{};
  bool answered = false;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  auto nextAck = std::chrono::steady_clock::now();
  uint32_t metaSize = 0;
  while (!vectorIsFinished(&vec) && std::chrono::steady_clock::now() < deadline) {
    uint8_t buf[KESTIL_MAX_DATAGRAM];
    sockaddr_in from{};
    int n = up.peer.recv(buf, sizeof buf, &from, 20);
    if (n > 0) {
      client = from;
      answered = true;
      KESTIL_metadata meta{};
      KestilDataBlock blk{};
      if (buf[0] != KESTIL_PUT && loss() % 4 == 0) continue;
      if (decodeMetadata(buf, static_cast<size_t>(n), &meta)) {
        metaSize = meta.size;
        if (vec.lastBlk == 0) setBlkRxVectorFileSize(&vec, meta.size);
        addBlkToVector(&vec, 0);
      } else if (decodeDataBlock(buf, static_cast<size_t>(n), &blk) && blk.blkNum >= 1) {
        size_t at = (blk.blkNum - 1) * KESTIL_BLOCK_SIZE;
        ASSERT_LE(at + blk.dataLen, copy.size());
        copy.replace(at, blk.dataLen, reinterpret_cast<const char *>(blk.data), blk.dataLen);
        addBlkToVector(&vec, blk.blkNum);
      }
    }
    if (answered && std::chrono::steady_clock::now() >= nextAck) {
      if (loss() % 4 != 0) sendVectorAck(up.peer.fd(), &client, &vec, 0);
      nextAck += std::chrono::milliseconds(100);
    }
  }
  ASSERT_TRUE(vectorIsFinished(&vec));
  sendVectorAck(up.peer.fd(), &client, &vec, 0);
  kt::Result r = kt::finish(up.child, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(metaSize, 30000u);
  EXPECT_EQ(kt::md5Hex(copy), kt::md5Hex(up.content));
  std::string out = beforeStatistics(r.out);
  EXPECT_EQ(out.substr(out.size() - 6), "Done!\n");
}

TEST(PutUpload, ClosingAckAsFirstAnswerIsDone) {
  Upload up("127.0.6.3", 500, {"f.bin"});
  sockaddr_in client{};
  ASSERT_EQ(up.next(&client).at(0), KESTIL_PUT);
  up.peer.send(kt::bytes({0x0E, 0, 0, 0, 0}), client);
  kt::Result r = kt::finish(up.child, RUN_MS);
  EXPECT_EQ(up.peer.recv(&client, 200), std::vector<uint8_t>{});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(beforeStatistics(r.out), "ACK 0\nDone!\n");
}

TEST(PutUpload, RefusalEndsWithPutFailureAndShortOnesAreIgnored) {
  Upload up("127.0.6.4", 500, {"f.bin"});
  sockaddr_in client{};
  ASSERT_EQ(up.next(&client).at(0), KESTIL_PUT);
  up.peer.send(kt::bytes({0x0D, 0, 0, 0}), client);  // 4 bytes: ignored
  up.peer.send(kt::bytes({0x09, 0, 0, 0}), client);  // likewise
  up.peer.send(kt::bytes({0x0D, 1, 2, 3, 4}), client);
  kt::Result r = kt::finish(up.child, RUN_MS);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "PUT failure\n");
  EXPECT_EQ(r.err, "");
}

TEST(PutUpload, SilenceAfterAnswerResendsOnePerTickThenTimesOut) {
  // -t 3: six idle ticks. The burst leaves block 6 next; ticks resend 6, 7, 8, then, with no
  // acknowledgement applied, start again at the base: metadata and block 1.
  Upload up("127.0.6.5", 1000, {"-t", "3", "f.bin"});
  sockaddr_in client{};
  ASSERT_EQ(up.next(&client).at(0), KESTIL_PUT);
  up.peer.send(kt::bytes({0x09, 0, 0, 0, 0, 0}), client);
  for (int i = 0; i < 6; ++i) ASSERT_FALSE(up.next(&client).empty());
  std::vector<int> resent;
  for (std::vector<uint8_t> d; !(d = up.next(&client, 1200)).empty();)
    resent.push_back(d[0] == KESTIL_METADATA ? 0 : d[1]);
  kt::Result r = kt::finish(up.child, RUN_MS);
  EXPECT_EQ(resent, (std::vector<int>{6, 7, 8, 0, 1}));
  EXPECT_EQ(r.status, 1);
  std::string out = beforeStatistics(r.out);
  EXPECT_EQ(out.substr(out.find("resend")),
            "resend block 6\nresend block 7\nresend block 8\nresend block 0\nresend block 1\n"
            "Put file f.bin timed out.\n");
}

TEST(PutUpload, NoAnswerRepeatsRequestEveryTwoSecondsAndGivesUpAtTwenty) {
  Upload up("127.0.6.6", 0, {"-o", "remote/name", "f.bin"});
  sockaddr_in client{};
  std::vector<uint8_t> first = up.next(&client);
  int requests = first.empty() ? 0 : 1;
  for (std::vector<uint8_t> d; !(d = up.next(&client, 2600)).empty(); ++requests) EXPECT_EQ(d, first);
  kt::Result r = kt::finish(up.child, RUN_MS);
  EXPECT_EQ(requests, 10);
  EXPECT_EQ(r.status, 1);
  std::string resends;
  for (int i = 0; i < 9; ++i) resends += "resend request\n";
  EXPECT_EQ(r.out, resends + "Put file f.bin timed out.\n" + r.out.substr(r.out.find("Elapsed")));
  EXPECT_TRUE(std::regex_match(r.out.substr(r.out.find("Elapsed")), std::regex("Elapsed time: 00:00:2\\d\\.\\d{6}\n")));
}

TEST(PutCommand, SetUpFailures) {
  std::string dir = kt::makeTempDir();
  kt::Result r = kt::run(dir, "kestil", {"put", "-h", "127.0.6.7"}, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "put [-L] [-h host] [-o <remote file>] <local file>\n");
  r = kt::run(dir, "kestil-put", {"-h", "", "f.bin"}, RUN_MS);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "inet_aton() failed\n");
  r = kt::run(dir, "kestil-put", {"-h", "127.0.6.7", "missing.bin"}, RUN_MS);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "missing.bin: No such file or directory\n");
}
