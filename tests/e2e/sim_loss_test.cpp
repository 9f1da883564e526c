// get and put through a lossy link: independent loss at 10% and 30% in both directions,
// with duplication, hold-back and delay, all seeded. Every file is checked with MD5.
#include <gtest/gtest.h>

#include "tests/support/sim_process.hpp"
#include "tests/support/test_support.hpp"

namespace {

struct LossCase {
  const char *name;
  const char *loss;
  const char *getAddr;
  const char *putAddr;
};

class SimLoss : public ::testing::TestWithParam<LossCase> {
 protected:
  void SetUp() override {
    dir_ = kt::makeTempDir();
    root_ = simt::mkdirs(dir_ + "/root");
    work_ = simt::mkdirs(dir_ + "/work");
  }
  void TearDown() override { sim_.stop(); }
  bool startSim(const char *addr) {
    return simt::start(&sim_, dir_,
                       {"--root", "root", "--addr", addr, "--loss", GetParam().loss, "--dup", "0.05", "--reorder",
                        "0.1", "--delay", "20", "--seed", "7", "-v"});
  }
  // The trace shows the link at work: losses, duplicates and held-back datagrams.
  void expectLinkEffects() {
    std::string trace = kt::readFile(sim_.tracePath);
    EXPECT_NE(trace.find("DROPPED(loss)"), std::string::npos);
    EXPECT_NE(trace.find(" dup\n"), std::string::npos);
    EXPECT_NE(trace.find(" late\n"), std::string::npos);
  }
  std::string dir_;
  std::string root_;
  std::string work_;
  simt::Sim sim_;
};

TEST_P(SimLoss, GetCompletesWithTheRightDigest) {
  std::string content = kt::patternBytes(20000, 11);
  ASSERT_TRUE(kt::writeFile(root_ + "/lossy.bin", content));
  ASSERT_TRUE(startSim(GetParam().getAddr)) << sim_.err;
  kt::Result r = kt::run(work_, "kestil-get", {"-h", GetParam().getAddr, "-t", "10", "lossy.bin"}, 90000);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("Received file lossy.bin...\n"), std::string::npos);
  EXPECT_EQ(kt::md5Hex(kt::readFile(work_ + "/lossy.bin")), kt::md5Hex(content));
  expectLinkEffects();
}

TEST_P(SimLoss, PutCompletesWithTheRightDigest) {
  std::string content = kt::patternBytes(20000, 12);
  ASSERT_TRUE(kt::writeFile(work_ + "/lossy.bin", content));
  ASSERT_TRUE(startSim(GetParam().putAddr)) << sim_.err;
  kt::Result r = kt::run(work_, "kestil-put", {"-h", GetParam().putAddr, "-t", "10", "-p", "200", "lossy.bin"}, 90000);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("Done!\n"), std::string::npos);
  EXPECT_EQ(kt::md5Hex(kt::readFile(root_ + "/lossy.bin")), kt::md5Hex(content));
  expectLinkEffects();
}

INSTANTIATE_TEST_SUITE_P(Link, SimLoss,
                         ::testing::Values(LossCase{"TenPercent", "0.1", "127.0.7.70", "127.0.7.71"},
                                           LossCase{"ThirtyPercent", "0.3", "127.0.7.72", "127.0.7.73"}),
                         [](const ::testing::TestParamInfo<LossCase> &info) { return std::string(info.param.name); });

}  // namespace
