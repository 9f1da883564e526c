// put against kestil-sim: the upload is stored under the served root with its modification
// time, and refusals reach the client as put failures.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/e2e/sim_harness.hpp"
#include "tests/support/test_support.hpp"

namespace {

class SimPut : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = kt::makeTempDir();
    root_ = simt::mkdirs(dir_ + "/root/up");
    work_ = simt::mkdirs(dir_ + "/work");
  }
  void TearDown() override { sim_.stop(); }
  std::string dir_;
  std::string root_;
  std::string work_;
  simt::Sim sim_;
};

TEST_F(SimPut, StoresTheFileWithItsModificationTime) {
  std::string content = kt::patternBytes(25000, 3);
  ASSERT_TRUE(kt::writeFile(work_ + "/local.bin", content));
  timespec times[2] = {{1714568865, 0}, {1714568865, 0}};  // 2024-05-01 13:07:45 UTC
  ASSERT_EQ(utimensat(AT_FDCWD, (work_ + "/local.bin").c_str(), times, 0), 0);
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", "127.0.7.10"})) << sim_.err;
  kt::Result r = kt::run(work_, "kestil-put", {"-h", "127.0.7.10", "-p", "300", "-o", "up/stored.bin", "local.bin"}, 60000);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("Done!\nElapsed time: "), std::string::npos) << r.out;
  EXPECT_EQ(kt::md5Hex(kt::readFile(root_ + "/stored.bin")), kt::md5Hex(content));
  struct stat st{};
  ASSERT_EQ(stat((root_ + "/stored.bin").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1714568865);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  // The part file it grew in is gone: the directory holds the stored file alone.
  EXPECT_EQ(simt::entries(root_), std::vector<std::string>{"stored.bin"});
}

TEST_F(SimPut, RefusedTargetsEndThePutWithAFailure) {
  ASSERT_TRUE(kt::writeFile(work_ + "/local.bin", "twelve bytes"));
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", "127.0.7.11"})) << sim_.err;
  // Out of the root, absolute, the root itself, and a directory in the way.
  for (const char *target : {"../escaped.bin", "/tmp/escaped.bin", ".", "up"}) {
    kt::Result r = kt::run(work_, "kestil-put", {"-h", "127.0.7.11", "-o", target, "local.bin"}, 30000);
    EXPECT_EQ(r.status, 1) << target;
    EXPECT_TRUE(r.out.ends_with("PUT failure\n")) << target << ": " << r.out;
  }
  EXPECT_FALSE(kt::exists(dir_ + "/escaped.bin"));
}

}  // namespace
