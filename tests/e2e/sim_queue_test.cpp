// The download queue through kestil-sim: status, qadd and qrm on the file manager, report with
// group limits and with -r, and the queue's data file across a restart.
#include <gtest/gtest.h>

#include "tests/support/sim_process.hpp"

namespace {

TEST(SimQueue, FileManagerRequestsAndReportsWithLimitsAndRemoval) {
  simt::Served sim("127.0.7.50", {"--queue", "queue.dat"});
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string q = simt::mkdirs(sim.root + "/q");
  ASSERT_TRUE(kt::writeFile(q + "/one", std::string(10, 'a')) && kt::writeFile(q + "/two", std::string(20, 'b')) &&
              kt::writeFile(q + "/three", std::string(30, 'c')));
  auto cmd = [&](const std::string &argv0, std::vector<std::string> args) { return sim.run(sim.dir, argv0, args); };
  EXPECT_EQ(kt::run(sim.dir, "filemgr-status", {sim.addr}, 10000).status, 0);
  for (auto [group, prio, name] : {std::tuple{"3", "2", "q/two"}, {"3", "1", "q/one"}, {"5", "0", "q/three"}}) {
    kt::Result r = cmd("dlq-add", {"-g", group, "-p", prio, name});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
  }
  // No such file (-2), out of the root (-1), not queued in that group (-2).
  for (auto [argv0, args] : {std::pair{"dlq-add", std::vector<std::string>{"q/none"}},
                             {"dlq-add", {"../root/q/one"}},
                             {"dlq-rm", {"-g", "4", "q/one"}}}) {
    kt::Result r = cmd(argv0, args);
    EXPECT_EQ(r.status, 6) << args.back();
    EXPECT_EQ(r.out, std::string("bad result code ") + (args.back() == "../root/q/one" ? "-1" : "-2") +
                         " from add operation\n");
  }

  const std::string one = "0        3        1        10       q/one";
  const std::string two = "0        3        2        20       q/two";
  const std::string three = "0        5        0        30       q/three";
  kt::Result all = cmd("kestil-report", {"-t", "5"});
  EXPECT_EQ(all.status, 0) << all.out;
  EXPECT_EQ(simt::tableRows(all.out), (std::vector<std::string>{one, two, three}));
  kt::Result limited = cmd("kestil-report", {"-t", "5", "3", "1"});  // one entry of group 3 only
  EXPECT_TRUE(limited.out.starts_with("group: 3 size 0 entries 1\n"));
  EXPECT_EQ(simt::tableRows(limited.out), std::vector<std::string>{one});
  kt::Result taken = cmd("kestil-report", {"-r", "-t", "5", "3", "1"});  // confirmed: it leaves
  EXPECT_EQ(simt::tableRows(taken.out), std::vector<std::string>{one});
  EXPECT_EQ(cmd("dlq-rm", {"-g", "5", "q/three"}).status, 0);

  // What is left survives a restart through the data file.
  ASSERT_TRUE(sim.restart()) << sim.err;
  EXPECT_EQ(simt::tableRows(cmd("kestil-report", {"-t", "5"}).out), std::vector<std::string>{two});
}

}  // namespace
