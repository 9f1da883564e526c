// The receive loop's own limits: the idle limit for seconds too large for an int, the size bound
// handed to the block processing before the first metadata; and its progress bar.
#include "client/receive_session.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include "client/progress.hpp"
#include "client/session_time.hpp"
#include "common/rx_process.hpp"
#include "tests/support/test_support.hpp"

TEST(ReceiveLimits, IdleLimitIsCappedNeverWrapped) {
  EXPECT_EQ(idleLimitTicks(1073741823), 2147483646);
  EXPECT_EQ(idleLimitTicks(1073741824), INT_MAX);
  EXPECT_EQ(clampSeconds(5000000000L), INT_MAX);
  EXPECT_EQ(clampSeconds(-5000000000L), INT_MIN);
}

TEST(ReceiveLimits, BeforeMetadataOnlyBlockOneIsKept) {
  FILE *f = std::fopen((kt::makeTempDir() + "/data").c_str(), "w+");
  ASSERT_NE(f, nullptr);
  BlkRxVector vec{};
  initBlkRxVector(&vec, 1);
  ReceiveSession s{};
  s.rxSet = &vec;
  beginSession(s);  // a new record gets the block size asked for
  ASSERT_EQ(vec.block_size, 141u);
  auto offer = [&](uint32_t n) {
    std::vector<uint8_t> d{6, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n), 'x'};
    return processData(d.data(), static_cast<int>(d.size()), fileno(f), sizeBound(s), &vec, 0);
  };
  EXPECT_EQ(offer(1), 1);
  EXPECT_EQ(offer(2), 0);  // past a size of 0: refused and left missing
  EXPECT_EQ(offer(0), 0);  // (0 - 1) x 141 wraps past the bound: only the metadata marks block 0
  EXPECT_FALSE(blkIsInVector(&vec, 0));
  EXPECT_FALSE(blkIsInVector(&vec, 2));

  // Once the size is known it is the bound: a 1000-byte file ends in block 8.
  setBlkRxVectorFileSize(&vec, 1000);
  s.file_size = 1000;
  EXPECT_EQ(offer(8), 1);
  EXPECT_EQ(offer(9), 0);
  std::fclose(f);
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
