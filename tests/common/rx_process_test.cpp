// Incoming data blocks: the length and size rules, and what lands in the output file and the
// vector. (The metadata's length, request and address rules: the get command's tests, which
// offer it short, long, for another request and from other ports and hosts.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/common.hpp"
#include "tests/support/test_support.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes block(uint32_t blkNum, size_t dataLen, char fill) {
  Bytes data(dataLen, static_cast<uint8_t>(fill)), out(1500);
  out.resize(encodeDataBlock(out.data(), out.size(), blkNum, data.data(), data.size()));
  return out;
}

class ProcessData : public testing::Test {
 protected:
  void SetUp() override {
    path_ = kt::makeTempDir() + "/out";
    fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    std::memset(&vec_, 0, sizeof vec_);
    initBlkRxVector(&vec_, KESTIL_BLOCK_SIZE);
  }
  void TearDown() override { close(fd_); }
  // processData's answer; its trace goes to trace_.
  int offer(const Bytes &pkt, uint32_t filesize, int fd = -1, int ignoreSize = 0) {
    testing::internal::CaptureStdout();
    int r = processData(pkt.data(), static_cast<int>(pkt.size()), fd < 0 ? fd_ : fd, filesize, &vec_, ignoreSize);
    trace_ = testing::internal::GetCapturedStdout();
    return r;
  }
  std::string file() const { return kt::readFile(path_); }

  std::string path_, trace_;
  int fd_ = -1;
  BlkRxVector vec_;
};

TEST_F(ProcessData, LengthRulesRefuseBeforeTraceAndCount) {
  setBlkRxVectorFileSize(&vec_, 100000);
  Bytes tooLong = block(2, 141, 'x');
  tooLong.resize(145, 'x');  // block_size + 5, whatever the code
  for (const Bytes &pkt : {tooLong, block(300, 142, 'x'), block(3, 142, 'x') /* fits, but more than a block */,
                           Bytes{5}, Bytes{8, 0, 0, 1}, Bytes{7, 0, 1}, Bytes{6, 1}, Bytes{4, 0, 0, 0, 1}}) {
    EXPECT_EQ(offer(pkt, 100000), 0) << pkt.size();
    EXPECT_EQ(trace_, "");
  }
  EXPECT_EQ(vec_.uniqueBlkCnt, 0u);
  EXPECT_EQ(file(), "");

  EXPECT_EQ(offer(block(2, 141, 'b'), 100000), 1);  // 143 bytes, code 5
  EXPECT_EQ(trace_, "   block 2, ");
  EXPECT_EQ(offer(block(300, 141, 'c'), 100000), 1);       // 144 bytes, code 6
  EXPECT_EQ(offer(Bytes{8, 0, 0, 0, 4, 'z'}, 100000), 1);  // wider header than needed
  EXPECT_EQ(offer(Bytes{5, 6}, 100000), 1);                // no data: marked, nothing written
  EXPECT_EQ(file().size(), 300u * 141u);
  EXPECT_EQ(file().substr(141, 142), std::string(141, 'b') + '\0');
  EXPECT_EQ(file()[3 * 141], 'z');
  for (uint32_t b : {2u, 4u, 6u, 300u}) EXPECT_TRUE(blkIsInVector(&vec_, b)) << b;
  EXPECT_EQ(vec_.uniqueBlkCnt, 4u);
}

TEST_F(ProcessData, SizeBoundCountsRefusedBlocks) {
  setBlkRxVectorFileSize(&vec_, 1000);
  EXPECT_EQ(offer(block(8, 13, 'e'), 1000), 1);   // offset 987: the file's last 13 bytes
  EXPECT_EQ(offer(block(9, 141, 'f'), 1000), 0);  // offset 1128
  EXPECT_EQ(trace_, "   block 9, ");
  EXPECT_EQ(file(), std::string(987, '\0') + std::string(13, 'e'));
  EXPECT_FALSE(blkIsInVector(&vec_, 9));
  EXPECT_EQ(vec_.uniqueBlkCnt, 2u);                   // the refused block is counted all the same
  EXPECT_EQ(offer(block(9, 141, 'f'), 0, -1, 1), 1);  // unless the bound is ignored
}

TEST_F(ProcessData, DuplicatesRewrittenAndFailedWritesStayWanted) {
  setBlkRxVectorFileSize(&vec_, 2000);
  for (uint32_t b = 0; b <= 8; ++b) addBlkToVector(&vec_, b);
  EXPECT_EQ(offer(block(2, 141, 'r'), 2000), 1);  // below the base
  EXPECT_EQ(offer(block(8, 141, 's'), 2000), 1);  // in the ring
  EXPECT_EQ(vec_.uniqueBlkCnt, 0u);
  EXPECT_EQ(file().substr(141, 141), std::string(141, 'r'));

  int readOnly = open(path_.c_str(), O_RDONLY);
  EXPECT_EQ(offer(block(10, 141, 'w'), 2000, readOnly), 1);
  close(readOnly);
  EXPECT_FALSE(blkIsInVector(&vec_, 10));
  EXPECT_EQ(vec_.uniqueBlkCnt, 1u);
}

}  // namespace
