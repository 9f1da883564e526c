// get, resume and progress against kestil-sim: a download cut off by a pass gap longer than
// the client's -t ends early and resume completes it; errors come back as error reports.
#include <gtest/gtest.h>

#include "tests/e2e/sim_harness.hpp"
#include "tests/support/test_support.hpp"

namespace {

class SimGet : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = kt::makeTempDir();
    root_ = simt::mkdirs(dir_ + "/root/data");
    work_ = simt::mkdirs(dir_ + "/work");
  }
  void TearDown() override { sim_.stop(); }
  std::string dir_;
  std::string root_;
  std::string work_;
  simt::Sim sim_;
};

TEST_F(SimGet, DownloadsAndVerifiesAFile) {
  std::string content = kt::patternBytes(40000, 1);
  ASSERT_TRUE(kt::writeFile(root_ + "/a.bin", content));
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", "127.0.7.1", "-v"})) << sim_.err;
  kt::Result r = kt::run(work_, "kestil-get", {"-h", "127.0.7.1", "-t", "5", "data/a.bin"}, 60000);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("File is 40000 bytes!\n"), std::string::npos);
  EXPECT_NE(r.out.find("client done\nReceived file a.bin...\nElapsed time: "), std::string::npos);
  EXPECT_EQ(kt::md5Hex(kt::readFile(work_ + "/a.bin")), kt::md5Hex(content));
  EXPECT_FALSE(kt::exists(work_ + "/.a.bin.kestil_state"));
  EXPECT_EQ(sim_.stop(), 0);
  EXPECT_NE(kt::readFile(sim_.tracePath).find("transfer of 'data/a.bin' ends: complete"), std::string::npos);
}

TEST_F(SimGet, PassGapEndsTheGetAndResumeCompletesItWhileProgressShowsTheRecord) {
  // 64 kbit/s carries about 45 blocks a second: 20000 bytes (142 blocks) need more than the
  // first 2-second pass. The 3-second gap is longer than get's -t 1 and shorter than resume's
  // -t 10 and the simulator's idle limit.
  std::string content = kt::patternBytes(20000, 2);
  ASSERT_TRUE(kt::writeFile(root_ + "/pass.bin", content));
  ASSERT_TRUE(simt::start(&sim_, dir_,
                          {"--root", "root", "--addr", "127.0.7.2", "--rate", "64000", "--pass", "2:3", "--idle", "20",
                           "-v"}))
      << sim_.err;
  kt::Result got = kt::run(work_, "kestil-get", {"-h", "127.0.7.2", "-t", "1", "data/pass.bin"}, 30000);
  EXPECT_EQ(got.status, 13) << got.out;
  EXPECT_NE(got.out.find("File is 20000 bytes!\n"), std::string::npos);
  EXPECT_TRUE(got.out.ends_with("\nWaiting for satellite to stop spamming...\n")) << got.out;
  ASSERT_TRUE(kt::exists(work_ + "/.pass.bin.kestil_state"));

  kt::Child resume = kt::start(work_, "kestil", {"resume", "-t", "10", "pass.bin"});
  kt::Result progress = kt::run(work_, "kestil-progress", {"pass.bin"}, 10000);
  EXPECT_EQ(progress.status, 0) << progress.out << progress.err;
  EXPECT_TRUE(progress.out.starts_with("State file is .pass.bin.kestil_state\nRemote file: data/pass.bin\n"))
      << progress.out;
  EXPECT_NE(progress.out.find("Remote host: 127.0.7.2:3223\nBlock size: 141\nPercent complete: "), std::string::npos)
      << progress.out;

  kt::Result resumed = kt::finish(resume, 60000);
  EXPECT_EQ(resumed.status, 0) << resumed.out;
  EXPECT_NE(resumed.out.find("Received file pass.bin...\n"), std::string::npos);
  EXPECT_EQ(kt::md5Hex(kt::readFile(work_ + "/pass.bin")), kt::md5Hex(content));
  EXPECT_FALSE(kt::exists(work_ + "/.pass.bin.kestil_state"));
  EXPECT_NE(kt::readFile(sim_.tracePath).find("DROPPED(pass)"), std::string::npos);
}

TEST_F(SimGet, MissingAndRefusedFilesGetErrorReports) {
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", "127.0.7.3"})) << sim_.err;
  ASSERT_TRUE(kt::writeFile(dir_ + "/outside.bin", "secret"));
  // Missing file: cannot open (1), ENOENT (2), in answer to a get (10).
  kt::Result missing = kt::run(work_, "kestil-get", {"-h", "127.0.7.3", "-t", "5", "data/none.bin"}, 30000);
  EXPECT_EQ(missing.status, 14);
  EXPECT_EQ(missing.out, "Server returned error code: 1, 2, 10\n");
  // Leaving the root: path refused (2), EACCES (13); absolute paths likewise.
  for (const char *path : {"../outside.bin", "/etc/hostname", "data/../../outside.bin"}) {
    kt::Result refused = kt::run(work_, "kestil-get", {"-h", "127.0.7.3", "-t", "5", "-o", "x", path}, 30000);
    EXPECT_EQ(refused.status, 14) << path;
    EXPECT_EQ(refused.out, "Server returned error code: 2, 13, 10\n") << path;
  }
  // A directory is not a file (4), EISDIR (21).
  kt::Result dir = kt::run(work_, "kestil-get", {"-h", "127.0.7.3", "-t", "5", "-o", "d", "data"}, 30000);
  EXPECT_EQ(dir.status, 14);
  EXPECT_EQ(dir.out, "Server returned error code: 4, 21, 10\n");
}

}  // namespace
