// What kestil-sim says when it cannot start: bad options, a port in use, a root it cannot
// serve; and that it stops cleanly on SIGINT as on SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "tests/e2e/sim_harness.hpp"
#include "tests/support/test_support.hpp"

namespace {

TEST(SimStartup, RefusesBadOptionsWithUsage) {
  std::string dir = kt::makeTempDir();
  kt::Result r = simt::runToEnd(dir, {"--loss", "10"}, 5000);
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(r.err.starts_with("kestil-sim: bad value for --loss: '10' (a fraction from 0 to 1, 0.1 = 10%)\n"
                                "usage: kestil-sim "))
      << r.err;
  r = simt::runToEnd(dir, {"--pass", "5"}, 5000);
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(r.err.starts_with("kestil-sim: bad value for --pass: '5' (UP_S:DOWN_S with UP_S above 0)\n")) << r.err;
}

TEST(SimStartup, SaysWhichPortIsInUse) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer squatter;
  ASSERT_TRUE(squatter.bind("127.0.7.61", 3224));
  kt::Result r = simt::runToEnd(dir, {"--root", ".", "--addr", "127.0.7.61"}, 5000);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "kestil-sim: cannot bind the file manager to 127.0.7.61:3224: Address already in use\n");
}

TEST(SimStartup, SaysWhichRootItCannotServe) {
  std::string dir = kt::makeTempDir();
  kt::Result r = simt::runToEnd(dir, {"--root", "no-such-dir", "--addr", "127.0.7.62"}, 5000);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "kestil-sim: cannot serve no-such-dir: No such file or directory\n");
}

TEST(SimStartup, StopsWithStatusZeroOnSigint) {
  std::string dir = kt::makeTempDir();
  simt::Sim sim;
  ASSERT_TRUE(simt::start(&sim, dir, {"--addr", "127.0.7.63"})) << sim.err;
  kill(sim.pid, SIGINT);
  int st = 0;
  ASSERT_TRUE(simt::eventually([&] { return waitpid(sim.pid, &st, WNOHANG) == sim.pid; }, 5000));
  sim.pid = -1;
  EXPECT_TRUE(WIFEXITED(st));
  EXPECT_EQ(WEXITSTATUS(st), 0);
}

}  // namespace
