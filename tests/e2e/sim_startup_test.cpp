// What kestil-sim says when it cannot start, and that it stops cleanly on SIGINT.
#include <gtest/gtest.h>

#include "tests/support/sim_process.hpp"

namespace {

TEST(SimStartup, BadOptionsPortsInUseAndUnservableRootsAreNamed) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer squatter;
  ASSERT_TRUE(squatter.bind("127.0.7.61", 3224));
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"--loss", "10"}, 2, "kestil-sim: bad value for --loss: '10' (a fraction from 0 to 1, 0.1 = 10%)\nusage: "},
      {{"--addr", "127.0.7.61"},
       1,
       "kestil-sim: cannot bind the file manager to 127.0.7.61:3224: Address already in use\n"},
      {{"--root", "no-such-dir", "--addr", "127.0.7.62"},
       1,
       "kestil-sim: cannot serve no-such-dir: No such file or directory\n"},
  };
  for (const auto &[args, status, err] : cases) {
    kt::Result r = kt::run(dir, "kestil-sim", args, 5000, KESTIL_SIM_BIN);
    EXPECT_EQ(r.status, status) << args[0];
    EXPECT_EQ(r.err.substr(0, err.size()), err);
  }
}

TEST(SimStartup, StopsWithStatusZeroOnSigint) {
  simt::Sim sim;
  ASSERT_TRUE(simt::start(&sim, kt::makeTempDir(), {"--addr", "127.0.7.63"})) << sim.err;
  EXPECT_EQ(sim.stop(SIGINT), 0);
}

}  // namespace
