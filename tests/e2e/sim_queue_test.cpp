// The download queue through kestil-sim: qadd, qrm and status on the file manager, report
// with group limits and with -r, and the queue's data file across a restart.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tests/e2e/sim_harness.hpp"
#include "tests/support/test_support.hpp"

namespace {

// The table the report printed, in its order.
std::vector<std::string> table(const std::string &out) {
  std::vector<std::string> lines;
  std::istringstream in(out);
  std::string line;
  bool on = false;
  while (std::getline(in, line)) {
    if (line.starts_with("flags    group")) {
      on = true;
    } else if (on) {
      lines.push_back(line);
    }
  }
  return lines;
}

class SimQueue : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = kt::makeTempDir();
    std::string root = simt::mkdirs(dir_ + "/root/q");
    ASSERT_TRUE(kt::writeFile(root + "/one", std::string(10, 'a')));
    ASSERT_TRUE(kt::writeFile(root + "/two", std::string(20, 'b')));
    ASSERT_TRUE(kt::writeFile(root + "/three", std::string(30, 'c')));
    work_ = simt::mkdirs(dir_ + "/work");
  }
  void TearDown() override { sim_.stop(); }
  kt::Result cmd(const std::string &argv0, const std::vector<std::string> &args) {
    return kt::run(work_, argv0, args, 30000);
  }
  std::string dir_;
  std::string work_;
  simt::Sim sim_;
};

TEST_F(SimQueue, AddRemoveAndStatusAnswerAsTheFileManager) {
  const std::string addr = "127.0.7.50";
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", addr})) << sim_.err;
  kt::Result status = cmd("filemgr-status", {addr});
  EXPECT_EQ(status.status, 0);
  EXPECT_EQ(status.out, "");
  kt::Result added = cmd("dlq-add", {"-h", addr, "-g", "3", "-p", "7", "q/one"});
  EXPECT_EQ(added.status, 0);
  EXPECT_EQ(added.out, "");
  // No such file (-2); out of the root (-1).
  kt::Result missing = cmd("dlq-add", {"-h", addr, "q/none"});
  EXPECT_EQ(missing.status, 6);
  EXPECT_EQ(missing.out, "bad result code -2 from add operation\n");
  kt::Result outside = cmd("dlq-add", {"-h", addr, "../root/q/one"});
  EXPECT_EQ(outside.status, 6);
  EXPECT_EQ(outside.out, "bad result code -1 from add operation\n");
  kt::Result removed = cmd("dlq-rm", {"-h", addr, "-g", "3", "q/one"});
  EXPECT_EQ(removed.status, 0);
  // Not queued (any more) in that group.
  kt::Result again = cmd("dlq-rm", {"-h", addr, "-g", "3", "q/one"});
  EXPECT_EQ(again.status, 6);
  EXPECT_EQ(again.out, "bad result code -2 from add operation\n");
}

TEST_F(SimQueue, ReportHonoursLimitsAndRemovesConfirmedEntriesWithR) {
  const std::string addr = "127.0.7.51";
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", addr, "--queue", "queue.dat"})) << sim_.err;
  ASSERT_EQ(cmd("dlq-add", {"-h", addr, "-g", "3", "-p", "2", "q/two"}).status, 0);
  ASSERT_EQ(cmd("dlq-add", {"-h", addr, "-g", "3", "-p", "1", "q/one"}).status, 0);
  ASSERT_EQ(cmd("dlq-add", {"-h", addr, "-g", "5", "q/three"}).status, 0);

  kt::Result all = cmd("kestil-report", {"-h", addr, "-t", "5"});
  EXPECT_EQ(all.status, 0) << all.out;
  EXPECT_EQ(table(all.out), (std::vector<std::string>{"0        3        1        10       q/one",
                                                       "0        3        2        20       q/two",
                                                       "0        5        0        30       q/three"}));
  // One entry of group 3, nothing of group 5.
  kt::Result limited = cmd("kestil-report", {"-h", addr, "-t", "5", "3", "1"});
  EXPECT_EQ(limited.status, 0) << limited.out;
  EXPECT_TRUE(limited.out.starts_with("group: 3 size 0 entries 1\n"));
  EXPECT_EQ(table(limited.out), std::vector<std::string>{"0        3        1        10       q/one"});
  // With -r the reported entry leaves the queue once the client confirms.
  kt::Result taken = cmd("kestil-report", {"-r", "-h", addr, "-t", "5", "3", "1"});
  EXPECT_EQ(taken.status, 0) << taken.out;
  EXPECT_EQ(table(taken.out), std::vector<std::string>{"0        3        1        10       q/one"});

  // The queue survives a restart through its data file.
  EXPECT_EQ(sim_.stop(), 0);
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", addr, "--queue", "queue.dat"})) << sim_.err;
  kt::Result after = cmd("kestil-report", {"-h", addr, "-t", "5"});
  EXPECT_EQ(table(after.out), (std::vector<std::string>{"0        3        2        20       q/two",
                                                         "0        5        0        30       q/three"}));
}

}  // namespace
