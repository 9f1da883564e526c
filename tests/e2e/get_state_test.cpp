// The state record across runs: two gets of one local file share one record, and a download
// stopped by its stop length is continued by resume from its record, with the record's remote
// name and a request that says what is held. (Runs killed mid-transfer: the crash soak.)
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

TEST(GetState, StopLengthEndsIncompleteAndResumeCompletes) {
  std::string content = kt::patternBytes(4230, 3);  // 30 blocks
  // Ten blocks of 141 bytes reach the stop length of 1410; -z pads the file to the remote size.
  kt::RemoteRun first("127.0.5.3", "kestil-get", {"-z", "-l", "1410", "-t", "5", "/d/a.bin"});
  kt::Served s1 = first.serve(content);
  EXPECT_EQ(kt::plainShown(first.finish()),
            (kt::Result{13, "File is 4230 bytes!\n\nWaiting for satellite to stop spamming...\n", ""}));
  // Blocks 0-10 held: base 8, then 1110 0000 and the two bytes up to block 24's.
  std::vector<uint8_t> held = kt::bytes({0, 0, 0, 8, 0xE0, 0, 0}), request = kt::request(10, 0, "/d/a.bin");
  EXPECT_EQ(s1.finals, std::vector(7, kt::bytes({14, 0, 0, 0, 8, 0xE0, 0, 0})));
  EXPECT_EQ(kt::readFile(first.dir + "/a.bin").size(), content.size());

  kt::Child second = kt::start(first.dir, "kestil-resume", {"-t", "5", "a.bin"});
  kt::Served s2 = kt::serveFile(first.peer, second.pid, content);
  EXPECT_EQ(kt::plainShown(kt::finish(second, 30000)),
            (kt::Result{0,
                        "MD5 time!\nclient done\nReceived file a.bin...\nElapsed time: T A\n"
                        "Waiting for satellite to stop spamming...\n",
                        ""}));
  EXPECT_EQ(kt::readFile(first.dir + "/a.bin"), content);
  EXPECT_FALSE(kt::exists(first.dir + "/.a.bin.kestil_state"));
  // The remote name comes from the record; the acknowledgement of what is held rides along.
  request.push_back(9);
  request.insert(request.end(), held.begin(), held.end());
  ASSERT_FALSE(s2.requests.empty());
  EXPECT_EQ(s2.requests[0], request);
}
