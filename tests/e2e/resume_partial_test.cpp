// The resume command: a download stopped by its stop length is continued from its state
// record, with the record's host and remote name and a request that says what is held.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/file_server.hpp"

TEST(ResumeDownload, StopLengthEndsIncompleteAndResumeCompletes) {
  std::string content = kt::patternBytes(4230, 3);  // 30 blocks
  // Ten blocks of 141 bytes reach the stop length of 1410; -z pads the file to the remote size.
  kt::RemoteRun first("127.0.5.3", "kestil-get", {"-z", "-l", "1410", "-t", "5", "/d/a.bin"});
  kt::Served s1 = first.serve(content);
  kt::Result r1 = first.finish();
  EXPECT_EQ(kt::plainShown(r1),
            (kt::Shown{13, "File is 4230 bytes!\n\nWaiting for satellite to stop spamming...\n", ""}));
  // Blocks 0-10 held: base 8, then 1110 0000 and the two bytes up to block 24's.
  std::vector<uint8_t> held = kt::bytes({0, 0, 0, 8, 0xE0, 0, 0});
  ASSERT_EQ(s1.finals.size(), 7u);
  EXPECT_EQ(std::vector<uint8_t>(s1.finals[0].begin() + 1, s1.finals[0].end()), held);
  EXPECT_EQ(kt::readFile(first.dir + "/a.bin").size(), content.size());

  kt::Child second = kt::start(first.dir, "kestil-resume", {"-t", "5", "a.bin"});
  kt::Served s2 = kt::serveFile(first.peer, second.pid, content);
  kt::Result r2 = kt::finish(second, 30000);
  EXPECT_EQ(kt::readFile(first.dir + "/a.bin"), content);
  EXPECT_FALSE(kt::exists(first.dir + "/.a.bin.kestil_state"));
  // The remote name comes from the record; the acknowledgement of what is held rides along.
  std::vector<uint8_t> request = kt::request(10, 0, "/d/a.bin");
  request.push_back(9);
  request.insert(request.end(), held.begin(), held.end());
  ASSERT_FALSE(s2.requests.empty());
  EXPECT_EQ(s2.requests[0], request);
  EXPECT_EQ(kt::plainShown(r2), (kt::Shown{0,
                                           "MD5 time!\nclient done\nReceived file a.bin...\nElapsed time: T A\n"
                                           "Waiting for satellite to stop spamming...\n",
                                           ""}));
}

TEST(ResumeDownload, RefusesMissingAndShortStateRecords) {
  std::string dir = kt::makeTempDir();
  EXPECT_EQ(kt::shown(kt::run(dir, "kestil-resume", {"x.bin"}, 10000)),
            (kt::Shown{1, "", "No partial download state found: No such file or directory\n"}));
  ASSERT_TRUE(kt::writeFile(dir + "/.x.bin.kestil_state", std::string(2247, '\0')));
  kt::Result shortRecord = kt::run(dir, "kestil-resume", {"x.bin"}, 10000);
  EXPECT_EQ(shortRecord.status, 1);
  EXPECT_EQ(shortRecord.err.rfind("Bad resume state read: ", 0), 0u) << shortRecord.err;
}
