// The get command against a scripted file service: clean and lossy downloads, the requests'
// bytes, the closing acknowledgements, and the ends by digest mismatch, error report and silence.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "tests/support/file_server.hpp"
#include "tests/support/test_support.hpp"

namespace {

constexpr int RUN_MS = 20000;
constexpr size_t SIZE = 4230;  // 30 blocks of 141 bytes
const std::string DONE_OUT =
    "File is 4230 bytes!\nMD5 time!\nclient done\nReceived file a.bin...\nElapsed time: T A\n"
    "Waiting for satellite to stop spamming...\n";

std::vector<uint8_t> getRequest(const std::string &name, uint8_t flags = 0) {
  std::vector<uint8_t> r{10, flags, 0x00, 0x8D, 0, 0, 0, 1};
  r.insert(r.end(), name.begin(), name.end());
  r.push_back(0);
  return r;
}

std::string clean(const std::string &out) { return kt::withoutTimes(kt::withoutRedraws(out)); }

// The last `n` acknowledgements are identical and 300 ms apart.
void expectClosing(const std::vector<std::vector<uint8_t>> &acks, const std::vector<long long> &times, size_t n,
                   const std::vector<uint8_t> &expected) {
  ASSERT_GE(acks.size(), n);
  for (size_t i = acks.size() - n; i < acks.size(); ++i) EXPECT_EQ(acks[i], expected) << i;
  EXPECT_GE(times.back() - times[times.size() - n], 1700);
}

}  // namespace

TEST(GetDownload, CleanDownloadVerifiesAndRemovesTheStateFile) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.1", 3223));
  std::string content = kt::patternBytes(SIZE, 1);
  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.1", "-c", "/data/a.bin"});
  kt::Served seen = kt::serveFile(peer, c.pid, content);
  kt::Result r = kt::finish(c, RUN_MS);

  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(clean(r.out), DONE_OUT);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(kt::readFile(dir + "/a.bin"), content);
  EXPECT_FALSE(kt::exists(dir + "/.a.bin.kestil_state"));
  ASSERT_EQ(seen.requests.size(), 1u);
  EXPECT_EQ(seen.requests[0], getRequest("/data/a.bin", 4));
  // Blocks 0-30 held: the window stops at 24, whose byte has blocks 24-30 (1111 1110).
  expectClosing(seen.acks, seen.ackTimesMs, 7, kt::bytes({9, 0, 0, 0, 24, 0xFE}));
  EXPECT_TRUE(seen.finals.empty());
}

TEST(GetDownload, LostMetadataAndBlocksAreRecoveredThroughAcknowledgements) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.2", 3223));
  std::string content = kt::patternBytes(40 * 141 - 17, 2);
  kt::ServeOptions o;
  o.dropPercent = 25;
  o.seed = 3;
  o.dropMetadata = 1;
  o.blocksOnRepeat = false;
  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.2", "-t", "10", "lossy.bin"});
  kt::Served seen = kt::serveFile(peer, c.pid, content, o);
  kt::Result r = kt::finish(c, RUN_MS);

  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(kt::readFile(dir + "/lossy.bin"), content);
  ASSERT_FALSE(seen.dropped.empty());
  // Without the metadata the request is repeated after a second of silence.
  ASSERT_GE(seen.requests.size(), 2u);
  EXPECT_EQ(seen.requests[1], getRequest("lossy.bin"));
  // The first acknowledgement reports exactly the lost blocks missing: the blocks that came
  // before the metadata were kept.
  ASSERT_FALSE(seen.acks.empty());
  const std::vector<uint8_t> &first = seen.acks[0];
  for (uint32_t b = 0; b <= 40; ++b)
    EXPECT_EQ(kt::ackHas(first.data(), first.size(), b), seen.dropped.count(b) == 0) << "block " << b;
}

TEST(GetDownload, DigestMismatchRemovesBothFiles) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.4", 3223));
  kt::ServeOptions o;
  o.md5 = "0123456789abcdef";
  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.4", "a.bin"});
  kt::Served seen = kt::serveFile(peer, c.pid, kt::patternBytes(SIZE, 4), o);
  kt::Result r = kt::finish(c, RUN_MS);

  EXPECT_EQ(r.status, 12);
  EXPECT_EQ(clean(r.out),
            "File is 4230 bytes!\nMD5 time!\nclient done\nChecksum failed on a.bin...\nElapsed time: T A\n"
            "Waiting for satellite to stop spamming...\n");
  EXPECT_FALSE(kt::exists(dir + "/a.bin"));
  EXPECT_FALSE(kt::exists(dir + "/.a.bin.kestil_state"));
  expectClosing(seen.acks, seen.ackTimesMs, 7, kt::bytes({9, 0, 0, 0, 24, 0xFE}));
}

TEST(GetDownload, ErrorReportEndsWithStatus14AndKeepsBothFiles) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.5", 3223));
  struct Case {
    std::vector<uint8_t> report;
    std::string out;
  } cases[] = {
      {kt::bytes({15, 0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0, 3}), "Server returned error code: 1, -2, 3\n"},
      {kt::bytes({15, 0, 0, 0, 1}), ""},  // another length: the same end, without the line
  };
  for (const Case &k : cases) {
    kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.5", "e.bin"});
    sockaddr_in client{};
    std::vector<uint8_t> req = peer.recv(&client, 5000);
    ASSERT_EQ(req, getRequest("e.bin"));
    peer.send(k.report, client);
    kt::Result r = kt::finish(c, RUN_MS);
    EXPECT_EQ(r.status, 14);
    EXPECT_EQ(clean(r.out), k.out);
    EXPECT_TRUE(kt::exists(dir + "/e.bin"));
    EXPECT_EQ(kt::readFile(dir + "/.e.bin.kestil_state").size(), 2248u);
  }
}

TEST(GetDownload, IdleLimitZeroEndsAtTheFirstTickWithSevenClosingAcks) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.6", 3223));
  kt::ServeOptions o;
  o.answer = false;
  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.6", "-t", "0", "z.bin"});
  kt::Served seen = kt::serveFile(peer, c.pid, "", o);
  kt::Result r = kt::finish(c, RUN_MS);

  EXPECT_EQ(r.status, 13);
  EXPECT_EQ(r.out, "\nWaiting for satellite to stop spamming...\n");
  EXPECT_EQ(seen.requests.size(), 1u);
  // Size unknown: the closing form carries one vector byte.
  ASSERT_EQ(seen.finals.size(), 7u);
  expectClosing(seen.finals, seen.finalTimesMs, 7, kt::bytes({14, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(kt::exists(dir + "/.z.bin.kestil_state"));
}

TEST(GetDownload, UnansweredRequestIsRepeatedEverySecondUntilTheIdleLimit) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.8", 3223));
  kt::ServeOptions o;
  o.answer = false;
  // -t 3: six idle ticks; the request goes out at the start and after ticks 2 and 4.
  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.8", "-t", "3", "-L", "r.bin"});
  kt::Served seen = kt::serveFile(peer, c.pid, "", o);
  kt::Result r = kt::finish(c, RUN_MS);

  EXPECT_EQ(r.status, 13);
  ASSERT_EQ(seen.requests.size(), 3u);
  for (const auto &req : seen.requests) EXPECT_EQ(req, getRequest("r.bin", 8));
  EXPECT_EQ(seen.finals.size(), 7u);
}

TEST(GetDownload, ForeignMetadataIsRefusedAndForeignBlocksFailTheDigest) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer, otherPort, otherHost;
  ASSERT_TRUE(peer.bind("127.0.5.7", 3223));
  ASSERT_TRUE(otherPort.bind("127.0.5.7", 3224));
  ASSERT_TRUE(otherHost.bind("127.0.5.17", 3223));
  std::string content = kt::patternBytes(SIZE, 7);
  std::string md5 = kt::md5Raw(content);
  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.7", "f.bin"});
  sockaddr_in client{};
  ASSERT_FALSE(peer.recv(&client, 5000).empty());

  otherPort.send(kt::metadataDatagram(1, md5), client);
  otherHost.send(kt::metadataDatagram(1, md5), client);
  std::string forged = content;
  forged[2 * 141] ^= 0x55;
  otherHost.send(kt::blockDatagram(forged, 3), client);
  peer.send(kt::metadataDatagram(SIZE, md5), client);
  for (uint32_t b = 1; b <= 30; ++b)
    if (b != 3) peer.send(kt::blockDatagram(content, b), client);
  kt::Result r = kt::finish(c, RUN_MS);

  EXPECT_EQ(r.status, 12);
  std::string out = clean(r.out);
  EXPECT_EQ(out.find("File is 1 bytes!"), std::string::npos) << out;
  EXPECT_EQ(out.rfind("File is 4230 bytes!\nMD5 time!\nclient done\nChecksum failed on f.bin...", 0), 0u) << out;
}

TEST(GetDownload, MalformedAndRepeatedDatagramsChangeNothing) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.9", 3223));
  std::string content = kt::patternBytes(SIZE, 9);
  std::string md5 = kt::md5Raw(content);
  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.9", "m.bin"});
  sockaddr_in client{};
  ASSERT_FALSE(peer.recv(&client, 5000).empty());

  std::vector<uint8_t> meta = kt::metadataDatagram(SIZE, md5);
  std::vector<uint8_t> shortMeta(meta.begin(), meta.end() - 1);
  std::vector<uint8_t> longMeta = meta;
  longMeta.push_back(0);
  peer.send(shortMeta, client);
  peer.send(longMeta, client);
  peer.send(kt::metadataDatagram(1, md5, 2), client);  // another request identifier
  peer.send(kt::bytes({5}), client);
  peer.send(kt::bytes({12, 1, 2, 3}), client);
  peer.send(meta, client);
  for (uint32_t b = 1; b <= 30; ++b) {
    peer.send(kt::blockDatagram(content, b), client);
    if (b == 2) {
      // A 146-byte datagram is too long for a 141-byte block: it must not overwrite block 2.
      std::vector<uint8_t> overlong = kt::blockDatagram(std::string(5000, 'X'), 2);
      overlong.resize(146, 'X');
      peer.send(overlong, client);
      peer.send(kt::blockDatagram(content, 2), client);  // a duplicate
      peer.send(meta, client);                            // identical metadata again
    }
  }
  kt::Result r = kt::finish(c, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(clean(r.out), "File is 4230 bytes!\nMD5 time!\nclient done\nReceived file m.bin...\nElapsed time: T A\n"
                          "Waiting for satellite to stop spamming...\n");
  EXPECT_EQ(kt::readFile(dir + "/m.bin"), content);
}

TEST(GetDownload, LaterDifferentMetadataReplacesTheDigest) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.10", 3223));
  std::string content = kt::patternBytes(SIZE, 10);
  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.10", "d.bin"});
  sockaddr_in client{};
  ASSERT_FALSE(peer.recv(&client, 5000).empty());
  peer.send(kt::metadataDatagram(SIZE, kt::md5Raw(content)), client);
  for (uint32_t b = 1; b < 30; ++b) peer.send(kt::blockDatagram(content, b), client);
  peer.send(kt::metadataDatagram(SIZE, kt::md5Raw("something else")), client);
  peer.send(kt::blockDatagram(content, 30), client);
  kt::Result r = kt::finish(c, RUN_MS);
  EXPECT_EQ(r.status, 12);
  EXPECT_FALSE(kt::exists(dir + "/d.bin"));
}

TEST(GetDownload, InterruptEndsIncompleteAndKeepsBothFiles) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.16", 3223));
  std::string content = kt::patternBytes(SIZE, 16);
  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.16", "i.bin"});
  sockaddr_in client{};
  ASSERT_FALSE(peer.recv(&client, 5000).empty());
  peer.send(kt::metadataDatagram(SIZE, kt::md5Raw(content)), client);
  for (uint32_t b = 1; b <= 10; ++b) peer.send(kt::blockDatagram(content, b), client);
  kill(c.pid, SIGINT);
  kt::ServeOptions o;
  o.resend = false;
  kt::Served seen = kt::serveFile(peer, c.pid, content, o);
  kt::Result r = kt::finish(c, RUN_MS);
  EXPECT_EQ(r.status, 13);
  EXPECT_EQ(seen.finals.size(), 7u);
  EXPECT_TRUE(kt::exists(dir + "/i.bin"));
  EXPECT_EQ(kt::readFile(dir + "/.i.bin.kestil_state").size(), 2248u);
}

// The one case that waits out the 20 s give-up.
TEST(GetDownload, SilentRemoteIsAskedTwentyTimesThenGivenUp) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.18", 3223));
  kt::ServeOptions o;
  o.answer = false;
  o.deadlineMs = 40000;
  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.18", "g.bin"});
  kt::Served seen = kt::serveFile(peer, c.pid, "", o);
  kt::Result r = kt::finish(c, 40000);
  EXPECT_EQ(r.status, 13);
  EXPECT_EQ(seen.requests.size(), 20u);
  EXPECT_EQ(seen.finals.size(), 7u);
  EXPECT_EQ(kt::withoutRedraws(r.out), "\nWaiting for satellite to stop spamming...\n");
}
