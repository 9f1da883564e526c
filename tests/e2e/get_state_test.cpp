// The get command with an existing state record: two runs of one local file share one record,
// and records it cannot use are refused. (Runs killed mid-transfer and continued: the crash soak.)
#include <gtest/gtest.h>

#include <string>

#include "tests/support/file_server.hpp"

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
