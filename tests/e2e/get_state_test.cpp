// The get command with an existing state record: a run killed mid-transfer is completed by the
// next, two runs of one local file share one record, and records it cannot use are refused.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "tests/support/file_server.hpp"

TEST(GetState, KilledDownloadIsCompletedByTheNextGet) {
  std::string content = kt::patternBytes(50 * 141, 11);
  kt::RemoteRun first("127.0.5.11", "kestil-get", {"k.bin"});
  ASSERT_FALSE(first.recv().empty());
  first.send(kt::metadataDatagram(content.size(), kt::md5Raw(content)));
  for (uint32_t b = 1; b <= 20; ++b) first.send(kt::blockDatagram(content, b));
  // Killed right after its periodic acknowledgement, with blocks 0 to 20 stored.
  std::vector<uint8_t> ack = first.recvCode(9);
  ASSERT_FALSE(ack.empty());
  kill(first.child.pid, SIGKILL);
  EXPECT_EQ(first.finish().signal, SIGKILL);

  kt::Child second = kt::start(first.dir, "kestil-get", {"-h", "127.0.5.11", "-t", "5", "k.bin"});
  kt::Served seen = kt::serveFile(first.peer, second.pid, content);
  EXPECT_EQ(kt::finish(second, 30000).status, 0);
  EXPECT_EQ(kt::readFile(first.dir + "/k.bin"), content);
  // Its request says what the killed run had stored.
  ASSERT_FALSE(seen.requests.empty());
  const std::vector<uint8_t> &req = seen.requests[0];
  size_t at = kt::piggyBackAt(req);
  ASSERT_LT(at, req.size());
  for (uint32_t b = 0; b <= 21; ++b) EXPECT_EQ(kt::ackHas(req.data() + at, req.size() - at, b), b <= 20) << b;
}

TEST(GetState, TwoGetsOfOneLocalFileShareTheRecordAndBothFinish) {
  std::string content = kt::patternBytes(60 * 141 + 5, 12);
  // Each run is sent half of the blocks and nothing is resent: only a shared record completes.
  kt::RemoteRun a("127.0.5.12", "kestil-get", {"-t", "3", "s.bin"});
  kt::Child b;
  for (uint32_t parity : {1u, 0u}) {
    if (parity == 0) b = kt::start(a.dir, "kestil-get", {"-h", "127.0.5.12", "-t", "3", "s.bin"});
    ASSERT_FALSE(a.recv().empty());
    a.send(kt::metadataDatagram(content.size(), kt::md5Raw(content)));
    for (uint32_t n = 1; n <= 61; ++n)
      if (n % 2 == parity) a.send(kt::blockDatagram(content, n));
  }
  EXPECT_EQ(a.finish().status, 0);
  EXPECT_EQ(kt::finish(b, 30000).status, 0);
  EXPECT_EQ(kt::readFile(a.dir + "/s.bin"), content);
  EXPECT_FALSE(kt::exists(a.dir + "/.s.bin.kestil_state"));
}

TEST(GetState, RefusesOverlongRecordAndOverlongLocalName) {
  std::string dir = kt::makeTempDir();
  ASSERT_TRUE(kt::writeFile(dir + "/.o.bin.kestil_state", std::string(2249, '\0')));
  EXPECT_EQ(kt::shown(kt::run(dir, "kestil-get", {"-h", "127.0.5.13", "o.bin"}, 10000)),
            (kt::Shown{1, "", "State file .o.bin.kestil_state is 2249 bytes, not the 2248 bytes of a state record\n"}));
  EXPECT_EQ(kt::readFile(dir + "/.o.bin.kestil_state").size(), 2249u);

  std::string name(1586, 'n');
  EXPECT_EQ(kt::shown(kt::run(dir, "kestil-get", {"-h", "127.0.5.13", "-o", name, "r"}, 10000)),
            (kt::Shown{1, "", "Local file name too long: 1586 characters, at most 1585\n"}));
  EXPECT_FALSE(kt::exists(dir + "/" + name));
}
