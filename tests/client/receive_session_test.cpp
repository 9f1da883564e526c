// The receive loop's progress bar.
// (Blocks before the first metadata: the get command's lossy download.)
#include <gtest/gtest.h>

#include <string>

#include "client/progress.hpp"
#include "common/common.hpp"

TEST(ProgressBar, CellsFollowTheBlockCountAndTheSpinnerTurns) {
  auto draw = [](uint32_t unique, uint32_t lastBlk) {
    BlkRxVector v{};
    v.uniqueBlkCnt = unique;
    v.lastBlk = lastBlk;
    testing::internal::CaptureStdout();
    update_progress(&v);
    return testing::internal::GetCapturedStdout();
  };
  // 50 of 200: 25 %, 12 full cells and the spinner in cell 12; it turns on every redraw.
  for (char spin : std::string("|/-\\|"))
    EXPECT_EQ(draw(50, 200), "\r[" + std::string(12, '=') + spin + std::string(37, ' ') + "]");
  // Ten data blocks and the metadata: a whole file shows 90 %.
  EXPECT_EQ(draw(10, 11), "\r[" + std::string(45, '=') + "/" + std::string(4, ' ') + "]");
  EXPECT_EQ(draw(0, 0), "\r[-" + std::string(49, ' ') + "]");  // size unknown
}
