// The progress bar: cells from the block count, the spinner that turns on every redraw.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "client/download.hpp"
#include "tests/support/test_support.hpp"

namespace {

// What update_progress prints, with standard output sent to a file.
std::string draw(uint32_t unique, uint32_t lastBlk) {
  BlkRxVector v{};
  v.uniqueBlkCnt = unique;
  v.lastBlk = lastBlk;
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
  // 50 of 200: 25 %, 12 full cells and the spinner in cell 12; it turns on every redraw.
  for (char spin : std::string("|/-\\|"))
    EXPECT_EQ(draw(50, 200), "\r[" + std::string(12, '=') + spin + std::string(37, ' ') + "]");
  // Ten data blocks and the metadata: a whole file shows 90 %.
  EXPECT_EQ(draw(10, 11), "\r[" + std::string(45, '=') + "/" + std::string(4, ' ') + "]");
  EXPECT_EQ(draw(0, 0), "\r[-" + std::string(49, ' ') + "]");  // size unknown
}
