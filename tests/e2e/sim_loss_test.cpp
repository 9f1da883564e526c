// get and put through a lossy link: independent loss at 10% and 30% in both directions,
// with duplication, hold-back and delay, all seeded. Every file is checked with MD5.
#include <gtest/gtest.h>

#include "tests/support/sim_process.hpp"

namespace {

struct LossCase {
  const char *name;
  const char *loss;
  const char *getAddr;
  const char *putAddr;
};

class SimLoss : public ::testing::TestWithParam<LossCase> {
 protected:
  std::vector<std::string> link() const {
    return {"--loss", GetParam().loss, "--dup", "0.05", "--reorder", "0.1", "--delay", "20", "--seed", "7", "-v"};
  }
  // The trace shows the link at work: losses, duplicates and held-back datagrams.
  static void expectLinkEffects(const simt::Sim &sim) {
    std::string trace = sim.trace();
    EXPECT_NE(trace.find("DROPPED(loss)"), std::string::npos);
    EXPECT_NE(trace.find(" dup\n"), std::string::npos);
    EXPECT_NE(trace.find(" late\n"), std::string::npos);
  }
};

TEST_P(SimLoss, GetCompletesWithTheRightDigest) {
  simt::Served sim(GetParam().getAddr, link());
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string content = kt::patternBytes(20000, 11), work = simt::mkdirs(sim.dir + "/work");
  ASSERT_TRUE(kt::writeFile(sim.root + "/lossy.bin", content));
  kt::Result r = sim.run(work, "kestil-get", {"-t", "10", "lossy.bin"}, 90000);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("Received file lossy.bin...\n"), std::string::npos);
  EXPECT_EQ(kt::md5Hex(kt::readFile(work + "/lossy.bin")), kt::md5Hex(content));
  expectLinkEffects(sim);
}

TEST_P(SimLoss, PutCompletesWithTheRightDigest) {
  simt::Served sim(GetParam().putAddr, link());
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string content = kt::patternBytes(20000, 12);
  ASSERT_TRUE(kt::writeFile(sim.dir + "/lossy.bin", content));
  kt::Result r = sim.run(sim.dir, "kestil-put", {"-t", "10", "-p", "200", "lossy.bin"}, 90000);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("Done!\n"), std::string::npos);
  EXPECT_EQ(kt::md5Hex(kt::readFile(sim.root + "/lossy.bin")), kt::md5Hex(content));
  expectLinkEffects(sim);
}

INSTANTIATE_TEST_SUITE_P(Link, SimLoss,
                         ::testing::Values(LossCase{"TenPercent", "0.1", "127.0.7.70", "127.0.7.71"},
                                           LossCase{"ThirtyPercent", "0.3", "127.0.7.72", "127.0.7.73"}),
                         [](const ::testing::TestParamInfo<LossCase> &info) { return std::string(info.param.name); });

}  // namespace
