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

// (A block too long by a byte, a code-5 block without its number and a stray block past the
// end before the metadata: the get command's clean download.)
TEST_F(ProcessData, LengthRulesRefuseBeforeTraceAndCount) {
  setBlkRxVectorFileSize(&vec_, 100000);
  for (const Bytes &pkt : {block(300, 142, 'x'), block(3, 142, 'x') /* fits, but more than a block */,
                           Bytes{8, 0, 0, 1}, Bytes{7, 0, 1}, Bytes{6, 1}, Bytes{4, 0, 0, 0, 1}})
    EXPECT_EQ(std::pair(offer(pkt, 100000), trace_), std::pair(0, std::string())) << pkt.size();
  EXPECT_EQ(vec_.uniqueBlkCnt + file().size(), 0u);

  EXPECT_EQ(offer(block(2, 141, 'b'), 100000), 1);  // 143 bytes, code 5
  EXPECT_EQ(trace_, "   block 2, ");
  EXPECT_EQ(offer(block(300, 141, 'c'), 100000), 1);       // 144 bytes, code 6
  EXPECT_EQ(offer(Bytes{8, 0, 0, 0, 4, 'z'}, 100000), 1);  // wider header than needed
  EXPECT_EQ(offer(Bytes{5, 6}, 100000), 1);                // no data: marked, nothing written
  EXPECT_EQ(file().size(), 300u * 141u);
  EXPECT_EQ(file().substr(141, 142) + file()[3 * 141], std::string(141, 'b') + '\0' + 'z');
  for (uint32_t b : {2u, 4u, 6u, 300u}) EXPECT_TRUE(blkIsInVector(&vec_, b)) << b;
  EXPECT_EQ(vec_.uniqueBlkCnt, 4u);
}

// Refused past the size, rewritten as duplicates, left wanted when the write fails: counted
// only when new, whether stored or not.
TEST_F(ProcessData, SizeBoundDuplicatesAndFailedWrites) {
  setBlkRxVectorFileSize(&vec_, 2000);
  for (uint32_t b = 0; b <= 8; ++b) addBlkToVector(&vec_, b);
  EXPECT_EQ(offer(block(2, 141, 'r'), 2000), 1);  // below the base
  EXPECT_EQ(offer(block(8, 141, 's'), 2000), 1);  // in the ring
  EXPECT_EQ(file().substr(141, 141), std::string(141, 'r'));
  EXPECT_EQ(offer(block(16, 141, 'f'), 2000), 0);  // offset 2115: past the end
  EXPECT_EQ(trace_, "   block 16, ");
  EXPECT_FALSE(blkIsInVector(&vec_, 16));
  EXPECT_EQ(offer(block(16, 141, 'f'), 0, -1, 1), 1);  // unless the bound is ignored
  int readOnly = open(path_.c_str(), O_RDONLY);
  EXPECT_EQ(offer(block(10, 141, 'w'), 2000, readOnly), 1);
  close(readOnly);
  EXPECT_FALSE(blkIsInVector(&vec_, 10));
  EXPECT_EQ(vec_.uniqueBlkCnt, 3u);  // 16 refused and then stored, and 10
}

}  // namespace
