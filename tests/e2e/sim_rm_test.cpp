// rm against kestil-sim: files and, with -r, directories go; nothing outside the root, and
// never the root itself. rm gets no answer, so each case ends by removing a marker file
// named last in the same request: once the marker is gone, the request has been handled.
#include <gtest/gtest.h>

#include "tests/e2e/sim_harness.hpp"
#include "tests/support/test_support.hpp"

namespace {

class SimRm : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = kt::makeTempDir();
    root_ = simt::mkdirs(dir_ + "/root/tree/sub");
    ASSERT_TRUE(kt::writeFile(root_ + "/f", "f"));
    ASSERT_TRUE(kt::writeFile(dir_ + "/root/a", "a"));
    ASSERT_TRUE(kt::writeFile(dir_ + "/outside", "o"));
    work_ = simt::mkdirs(dir_ + "/work");
  }
  void TearDown() override { sim_.stop(); }
  // Runs rm with the arguments and a fresh marker; true once the marker has gone.
  bool rm(const std::string &addr, std::vector<std::string> args) {
    std::string marker = "marker" + std::to_string(markers_++);
    if (!kt::writeFile(dir_ + "/root/" + marker, "m")) return false;
    args.insert(args.begin(), {"-h", addr});
    args.push_back(marker);
    kt::Result r = kt::run(work_, "kestil-rm", args, 10000);
    if (r.status != 0) return false;
    return simt::eventually([&] { return !kt::exists(dir_ + "/root/" + marker); }, 5000);
  }
  std::string dir_;
  std::string root_;
  std::string work_;
  int markers_ = 0;
  simt::Sim sim_;
};

TEST_F(SimRm, RemovesFilesAndDirectoriesOnlyWithRecursion) {
  const std::string addr = "127.0.7.20";
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", addr})) << sim_.err;
  ASSERT_TRUE(rm(addr, {"a"}));
  EXPECT_FALSE(kt::exists(dir_ + "/root/a"));
  ASSERT_TRUE(rm(addr, {"tree"}));  // a directory without -r stays
  EXPECT_TRUE(kt::exists(root_ + "/f"));
  ASSERT_TRUE(rm(addr, {"-f", "no/such/file"}));
  ASSERT_TRUE(rm(addr, {"-r", "tree"}));
  EXPECT_FALSE(kt::exists(dir_ + "/root/tree"));
}

TEST_F(SimRm, NeverLeavesTheRootNorRemovesIt) {
  const std::string addr = "127.0.7.21";
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", addr})) << sim_.err;
  std::string outside = dir_ + "/outside";
  ASSERT_TRUE(rm(addr, {"-r", "-f", "../outside", outside, "tree/../..", ".", ""}));
  EXPECT_TRUE(kt::exists(outside));
  EXPECT_TRUE(kt::exists(root_ + "/f"));
  EXPECT_TRUE(kt::exists(dir_ + "/root/a"));
}

}  // namespace
