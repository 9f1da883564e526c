// The transmit side: how rx_func folds acknowledgements into the sender's vector and when they
// finish the file. (The datagrams tx_func sends are compared byte for byte by the put command's
// tests, and through the file cache by the simulator's downloads; the scheduler's wrap back to
// the window's base: lossy puts through kestil-sim.)
#include "common/tx_state.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <vector>

#include "common/common.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

// rx_func works on the record alone.
class Sender : public testing::Test {
 protected:
  void SetUp() override { sized(5000 * KESTIL_BLOCK_SIZE); }
  void sized(uint32_t size) {
    std::memset(&tx_, 0, sizeof tx_);
    tx_.size = size;
    initBlkRxVector(&tx_.rxVec, KESTIL_BLOCK_SIZE);
    setBlkRxVectorFileSize(&tx_.rxVec, size);
  }
  uint8_t ack(uint32_t base, Bytes vector) {
    Bytes d(5 + vector.size());
    encodeVecAck(d.data(), d.size(), {KESTIL_VECACK, base, vector.data(), vector.size()});
    return rx_func(&tx_, d.data(), static_cast<int>(d.size()));
  }
  // Acknowledgements counted, the window's base and ring index, and ring bytes 0 to 5.
  std::tuple<int, uint32_t, int, Bytes> seen() const {
    return {tx_.ackCnt, tx_.rxVec.blkNumBase, tx_.rxVec.head, Bytes(tx_.rxVec.vector, tx_.rxVec.vector + 6)};
  }
  KESTIL_TXState tx_{};
};

TEST_F(Sender, AcknowledgementBaseRules) {
  EXPECT_EQ(ack(12, {0xFF}), 0);  // not a multiple of 8: ignored, not counted
  const uint8_t tooShort[] = {9, 0, 0, 0};
  EXPECT_EQ(rx_func(&tx_, tooShort, 4), 0);
  EXPECT_EQ(seen(), std::tuple(0, 0u, 0, Bytes(6, 0)));

  tx_.rxVec.vector[5] = 0xAA;
  ack(2048, {0x80});  // more than a window ahead: a fresh window at 2048
  EXPECT_EQ(seen(), std::tuple(1, 2048u, 0, Bytes{0x80, 0, 0, 0, 0, 0}));
  ack(2064, {});  // within the window: two steps, the bytes left behind cleared
  EXPECT_EQ(seen(), std::tuple(2, 2064u, 2, Bytes(6, 0)));

  // A lower base: groups below the sender's base are skipped, group 2064 lands at head.
  ack(2048, {0x11, 0x22, 0x0F, 0xF0});
  EXPECT_EQ(tx_.rxVec.blkNumBase, 2064u);
  EXPECT_EQ(Bytes(tx_.rxVec.vector, tx_.rxVec.vector + 4), (Bytes{0, 0, 0x0F, 0xF0}));
  ack(2064, Bytes(200, 0x01));  // a vector past the window's end stops there
  EXPECT_EQ(tx_.rxVec.vector[2], 0x01);

  sized(5000 * KESTIL_BLOCK_SIZE);  // a remote side that lost blocks 8 to 15 after all: replaced, not combined
  ack(0, {0x7F, 0xFF, 0xFF});
  ack(0, {0xFF, 0x00});
  EXPECT_EQ(std::pair(blkIsInVector(&tx_.rxVec, 9), blkIsInVector(&tx_.rxVec, 16)), std::pair(0, 1));

  sized(300);  // blocks 0 to 3: finished only when all of them are held
  EXPECT_EQ(ack(0, {0xE0}), 0);
  EXPECT_EQ(ack(0, {0xF0}), 1);
}

}  // namespace
