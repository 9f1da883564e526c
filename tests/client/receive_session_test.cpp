// The receive loop's idle limit for seconds too large for an int, and its progress bar.
// (Blocks before the first metadata: the get command's lossy download.)
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "client/progress.hpp"
#include "client/session_time.hpp"
#include "common/common.hpp"

TEST(ReceiveLimits, IdleLimitIsCappedNeverWrapped) {
  EXPECT_EQ(idleLimitTicks(1073741824), INT_MAX);
  EXPECT_EQ(clampSeconds(5000000000L), INT_MAX);
  EXPECT_EQ(clampSeconds(-5000000000L), INT_MIN);
}

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
