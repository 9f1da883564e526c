// The progress bar: cells from the block count, the spinner that turns on every redraw.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "client/download.hpp"
#include "tests/support/test_support.hpp"

namespace {

// Runs update_progress with standard output sent to a file and returns what it printed.
std::string draw(const BlkRxVector &v) {
  std::string path = kt::makeTempDir() + "/out";
  std::fflush(stdout);
  int saved = dup(1);
  FILE *f = std::fopen(path.c_str(), "w");
  dup2(fileno(f), 1);
  update_progress(&v);
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  std::fclose(f);
  return kt::readFile(path);
}

}  // namespace

TEST(ProgressBar, CellsFollowTheBlockCountAndTheSpinnerTurns) {
  BlkRxVector v{};
  v.lastBlk = 200;
  v.uniqueBlkCnt = 50;  // 25 %: 12 full cells, the spinner in cell 12
  std::string spins;
  for (int i = 0; i < 5; ++i) {
    std::string line = draw(v);
    ASSERT_EQ(line.size(), 53u);
    EXPECT_EQ(line.substr(0, 14), "\r[" + std::string(12, '='));
    EXPECT_EQ(line.substr(15), std::string(37, ' ') + "]");
    spins += line[14];
  }
  EXPECT_EQ(spins, "|/-\\|");

  BlkRxVector complete{};
  complete.lastBlk = 11;  // ten data blocks and the metadata: a whole file shows 90 %
  complete.uniqueBlkCnt = 10;
  EXPECT_EQ(draw(complete).substr(0, 47), "\r[" + std::string(45, '='));

  BlkRxVector unknown{};  // no metadata yet: the spinner in the first cell
  std::string line = draw(unknown);
  EXPECT_EQ(line.substr(3), std::string(49, ' ') + "]");
}
