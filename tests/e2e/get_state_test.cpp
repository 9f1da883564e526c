// The get command's use of an existing state record: a run killed mid-transfer is completed by
// the next, two runs of one local file share one record, and records that cannot be ours are
// refused.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <string>

#include "client/state_file.hpp"

#include "tests/support/file_server.hpp"
#include "tests/support/test_support.hpp"

namespace {
constexpr int RUN_MS = 20000;
}

TEST(GetState, KilledDownloadIsCompletedByTheNextGet) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.11", 3223));
  std::string content = kt::patternBytes(50 * 141, 11);

  kt::Child first = kt::start(dir, "kestil-get", {"-h", "127.0.5.11", "k.bin"});
  sockaddr_in client{};
  ASSERT_FALSE(peer.recv(&client, 5000).empty());
  peer.send(kt::metadataDatagram(static_cast<uint32_t>(content.size()), kt::md5Raw(content)), client);
  for (uint32_t b = 1; b <= 20; ++b) peer.send(kt::blockDatagram(content, b), client);
  // The periodic acknowledgement shows the blocks stored; kill the client at once after it.
  std::vector<uint8_t> ack;
  for (int i = 0; i < 10 && (ack.empty() || ack[0] != 9); ++i) ack = peer.recv(&client, 1000);
  ASSERT_FALSE(ack.empty());
  kill(first.pid, SIGKILL);
  kt::Result r1 = kt::finish(first, RUN_MS);
  EXPECT_EQ(r1.signal, SIGKILL);

  kt::Child second = kt::start(dir, "kestil-get", {"-h", "127.0.5.11", "-t", "5", "k.bin"});
  kt::Served seen = kt::serveFile(peer, second.pid, content);
  kt::Result r2 = kt::finish(second, RUN_MS);
  EXPECT_EQ(r2.status, 0);
  EXPECT_EQ(kt::readFile(dir + "/k.bin"), content);
  ASSERT_FALSE(seen.requests.empty());
  const std::vector<uint8_t> &req = seen.requests[0];
  size_t at = kt::piggyBackAt(req);
  ASSERT_LT(at, req.size());
  for (uint32_t b = 0; b <= 20; ++b) EXPECT_TRUE(kt::ackHas(req.data() + at, req.size() - at, b)) << b;
  EXPECT_FALSE(kt::ackHas(req.data() + at, req.size() - at, 21));
}

TEST(GetState, TwoGetsOfOneLocalFileShareTheRecordAndBothFinish) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.12", 3223));
  std::string content = kt::patternBytes(60 * 141 + 5, 12);
  std::vector<uint8_t> meta = kt::metadataDatagram(static_cast<uint32_t>(content.size()), kt::md5Raw(content));
  // Each run is sent half of the blocks and nothing is resent: only a shared record completes.
  auto serveHalf = [&](uint32_t parity) {
    sockaddr_in client{};
    std::vector<uint8_t> req = peer.recv(&client, 5000);
    ASSERT_FALSE(req.empty());
    peer.send(meta, client);
    for (uint32_t b = 1; b <= 61; ++b)
      if (b % 2 == parity) peer.send(kt::blockDatagram(content, b), client);
  };
  kt::Child a = kt::start(dir, "kestil-get", {"-h", "127.0.5.12", "-t", "3", "s.bin"});
  serveHalf(1);
  kt::Child b = kt::start(dir, "kestil-get", {"-h", "127.0.5.12", "-t", "3", "s.bin"});
  serveHalf(0);
  kt::Result ra = kt::finish(a, RUN_MS);
  kt::Result rb = kt::finish(b, RUN_MS);
  EXPECT_EQ(ra.status, 0) << ra.out;
  EXPECT_EQ(rb.status, 0) << rb.out;
  EXPECT_EQ(kt::readFile(dir + "/s.bin"), content);
  EXPECT_FALSE(kt::exists(dir + "/.s.bin.kestil_state"));
}

TEST(GetState, RefusesOverlongRecordAndOverlongLocalName) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.13", 3223));
  ASSERT_TRUE(kt::writeFile(dir + "/.o.bin.kestil_state", std::string(2249, '\0')));
  kt::Result longer = kt::run(dir, "kestil-get", {"-h", "127.0.5.13", "o.bin"}, RUN_MS);
  EXPECT_EQ(longer.status, 1);
  EXPECT_EQ(longer.err, "State file .o.bin.kestil_state is 2249 bytes, not the 2248 bytes of a state record\n");
  EXPECT_EQ(kt::readFile(dir + "/.o.bin.kestil_state").size(), 2249u);

  std::string name(1586, 'n');
  kt::Result tooLong = kt::run(dir, "kestil-get", {"-h", "127.0.5.13", "-o", name, "r"}, RUN_MS);
  EXPECT_EQ(tooLong.status, 1);
  EXPECT_EQ(tooLong.err, "Local file name too long: 1586 characters, at most 1585\n");
  EXPECT_FALSE(kt::exists(dir + "/" + name));

  sockaddr_in from{};
  EXPECT_TRUE(peer.recv(&from, 0).empty());  // neither run sent a request
}

TEST(GetState, CompleteRecordIsVerifiedWithoutReceiving) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.15", 3223));
  std::string content = kt::patternBytes(4230, 15);
  ASSERT_TRUE(kt::writeFile(dir + "/c.bin", content));
  // Blocks 0-30 of a 30-block file: window at 24 in ring byte 3, blocks 24-30 set.
  SavedRXState st;
  std::memset(&st, 0, sizeof st);
  st.rxSet.blkNumBase = 24;
  st.rxSet.lastBlk = 31;
  st.rxSet.file_size = 4230;
  st.rxSet.block_size = 141;
  st.rxSet.uniqueBlkCnt = 30;
  st.rxSet.head = 3;
  st.rxSet.vector[3] = 0xFE;
  std::string md5 = kt::md5Raw(content);
  std::memcpy(st.rxSet.md5, md5.data(), 16);
  ASSERT_TRUE(kt::writeFile(dir + "/.c.bin.kestil_state", std::string(reinterpret_cast<char *>(&st), sizeof st)));

  kt::Child c = kt::start(dir, "kestil-get", {"-h", "127.0.5.15", "c.bin"});
  kt::Served seen = kt::serveFile(peer, c.pid, content);
  kt::Result r = kt::finish(c, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(kt::withoutTimes(r.out), "MD5 time!\nclient done\nReceived file c.bin...\nElapsed time: T A\n"
                                     "Waiting for satellite to stop spamming...\n");
  EXPECT_EQ(seen.requests.size(), 1u);
  EXPECT_EQ(seen.acks.size(), 7u);
  EXPECT_FALSE(kt::exists(dir + "/.c.bin.kestil_state"));
}

TEST(GetState, ZeroPaddingCutsALongerOldFileToTheRemoteSize) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.14", 3223));
  std::string content = kt::patternBytes(4230, 14);
  struct Case {
    std::vector<std::string> args;
    int status;
  } cases[] = {{{"-h", "127.0.5.14", "-z", "p.bin"}, 0}, {{"-h", "127.0.5.14", "p.bin"}, 12}};
  for (const Case &k : cases) {
    ASSERT_TRUE(kt::writeFile(dir + "/p.bin", std::string(6000, 'o')));
    kt::Child c = kt::start(dir, "kestil-get", k.args);
    kt::serveFile(peer, c.pid, content);
    kt::Result r = kt::finish(c, RUN_MS);
    EXPECT_EQ(r.status, k.status) << k.args[2];
    if (k.status == 0) {
      EXPECT_EQ(kt::readFile(dir + "/p.bin"), content);
    }
  }
}
