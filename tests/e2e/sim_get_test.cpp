// get, resume and progress against kestil-sim: a download cut off by a pass gap longer than
// the client's -t ends early and resume completes it; errors come back as error reports.
#include <gtest/gtest.h>

#include "tests/support/sim_process.hpp"

namespace {

TEST(SimGet, PassGapEndsTheGetAndResumeCompletesItWhileProgressShowsTheRecord) {
  // 64 kbit/s carries about 45 blocks a second: more than the first 2-second pass holds. The
  // 3-second gap is longer than get's -t 1, shorter than resume's -t 10 and the idle limit.
  simt::Served sim("127.0.7.2", {"--rate", "64000", "--pass", "2:3", "--idle", "20", "-v"});
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string content = kt::patternBytes(20000, 2);  // 142 blocks
  ASSERT_TRUE(kt::writeFile(simt::mkdirs(sim.root + "/data") + "/pass.bin", content));
  kt::Result got = sim.run(sim.dir, "kestil-get", {"-t", "1", "data/pass.bin"});
  EXPECT_EQ(got.status, 13) << got.out;
  EXPECT_NE(got.out.find("File is 20000 bytes!\n"), std::string::npos);
  EXPECT_TRUE(got.out.ends_with("\nWaiting for satellite to stop spamming...\n")) << got.out;

  kt::Child resume = kt::start(sim.dir, "kestil", {"resume", "-t", "10", "pass.bin"});
  kt::Result progress = kt::run(sim.dir, "kestil-progress", {"pass.bin"}, 10000);
  EXPECT_EQ(progress.status, 0) << progress.out << progress.err;
  EXPECT_TRUE(
      progress.out.starts_with("State file is .pass.bin.kestil_state\nRemote file: data/pass.bin\n"
                               "File number: "))
      << progress.out;
  EXPECT_NE(progress.out.find("Remote host: 127.0.7.2:3223\nBlock size: 141\nPercent complete: "), std::string::npos);

  kt::Result resumed = kt::finish(resume, 60000);
  EXPECT_EQ(resumed.status, 0) << resumed.out;
  EXPECT_NE(resumed.out.find("client done\nReceived file pass.bin...\nElapsed time: "), std::string::npos);
  EXPECT_EQ(kt::md5Hex(kt::readFile(sim.dir + "/pass.bin")), kt::md5Hex(content));
  EXPECT_FALSE(kt::exists(sim.dir + "/.pass.bin.kestil_state"));
  EXPECT_EQ(sim.stop(), 0);
  EXPECT_NE(sim.trace().find("DROPPED(pass)"), std::string::npos);
  EXPECT_NE(sim.trace().find("transfer of 'data/pass.bin' ends: complete"), std::string::npos);
}

TEST(SimGet, MissingAndRefusedFilesGetErrorReports) {
  simt::Served sim("127.0.7.3");
  ASSERT_TRUE(sim.ready) << sim.err;
  simt::mkdirs(sim.root + "/data");
  ASSERT_TRUE(kt::writeFile(sim.dir + "/outside.bin", "secret"));
  // Reason (1 cannot open, 2 path refused, 4 not a file), errno, and the get's code 10.
  const std::pair<const char *, const char *> cases[] = {{"data/none.bin", "1, 2, 10"},
                                                         {"../outside.bin", "2, 13, 10"},
                                                         {"/etc/hostname", "2, 13, 10"},
                                                         {"data/../../outside.bin", "2, 13, 10"},
                                                         {"data", "4, 21, 10"}};
  for (auto [path, codes] : cases) {
    kt::Result r = sim.run(sim.dir, "kestil-get", {"-t", "5", "-o", "x", path});
    EXPECT_EQ(r.status, 14) << path;
    EXPECT_EQ(r.out, std::string("Server returned error code: ") + codes + "\n") << path;
  }
}

}  // namespace
