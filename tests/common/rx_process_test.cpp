// Incoming data blocks and metadata: the length, size and address rules, and what lands in
// the output file and the vector.
#include <arpa/inet.h>
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

Bytes dataBlock(uint32_t blkNum, size_t dataLen, uint8_t fill) {
  Bytes data(dataLen, fill);
  Bytes out(1500);
  out.resize(encodeDataBlock(out.data(), out.size(), blkNum, data.data(), data.size()));
  return out;
}

// A data block with an explicit code, for headers wider than the number needs.
Bytes rawBlock(uint8_t code, std::initializer_list<int> numberAndData) {
  Bytes out{code};
  for (int b : numberAndData) out.push_back(static_cast<uint8_t>(b));
  return out;
}

class ProcessData : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = kt::makeTempDir();
    path_ = dir_ + "/out";
    fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd_, 0);
    std::memset(&vec_, 0, sizeof vec_);
    initBlkRxVector(&vec_, KESTIL_BLOCK_SIZE);
  }
  void TearDown() override { close(fd_); }

  // Runs processData with stdout captured; returns its answer and keeps the trace.
  int offer(const Bytes &pkt, uint32_t filesize, int nread = -1) {
    testing::internal::CaptureStdout();
    int r = processData(pkt.data(), nread < 0 ? static_cast<int>(pkt.size()) : nread, fd_, filesize, &vec_, 0);
    trace_ = testing::internal::GetCapturedStdout();
    return r;
  }
  std::string file() const { return kt::readFile(path_); }

  std::string dir_, path_, trace_;
  int fd_ = -1;
  BlkRxVector vec_;
};

TEST_F(ProcessData, LengthRulesAtTheBlockSize) {
  setBlkRxVectorFileSize(&vec_, 100000);
  // 145 bytes (block_size + 4 + 1) is refused whatever the code; nothing is traced or counted.
  EXPECT_EQ(offer(rawBlock(5, {1}), 100000, 0), 0);
  Bytes tooLong = dataBlock(2, 141, 'x');
  tooLong.resize(145, 'x');
  EXPECT_EQ(offer(tooLong, 100000), 0);
  EXPECT_EQ(offer(dataBlock(300, 142, 'x'), 100000), 0);
  EXPECT_EQ(trace_, "");
  // A code-5 datagram with 142 data bytes fits the length rule but is longer than a block.
  EXPECT_EQ(offer(dataBlock(3, 142, 'x'), 100000), 0);
  EXPECT_EQ(trace_, "");
  EXPECT_EQ(vec_.uniqueBlkCnt, 0u);
  EXPECT_EQ(file(), "");

  EXPECT_EQ(offer(dataBlock(2, 141, 'b'), 100000), 1);  // 143 bytes, a full block
  EXPECT_EQ(trace_, "   block 2, ");
  EXPECT_EQ(offer(dataBlock(300, 141, 'c'), 100000), 1);  // 144 bytes with code 6
  EXPECT_EQ(file().size(), 300u * 141u);
  EXPECT_EQ(file().substr(141, 141), std::string(141, 'b'));
  EXPECT_TRUE(blkIsInVector(&vec_, 2));
  EXPECT_TRUE(blkIsInVector(&vec_, 300));
  EXPECT_EQ(vec_.uniqueBlkCnt, 2u);
}

TEST_F(ProcessData, ShortAndForeignDatagrams) {
  setBlkRxVectorFileSize(&vec_, 100000);
  EXPECT_EQ(offer(rawBlock(5, {}), 100000), 0);               // 1 byte
  EXPECT_EQ(offer(rawBlock(8, {0, 0, 1}), 100000), 0);        // 4 bytes, code 8 needs 5
  EXPECT_EQ(offer(rawBlock(7, {0, 1}), 100000), 0);
  EXPECT_EQ(offer(rawBlock(6, {1}), 100000), 0);
  EXPECT_EQ(offer(rawBlock(4, {0, 0, 0, 1}), 100000), 0);     // metadata code
  EXPECT_EQ(offer(rawBlock(9, {0, 0, 0, 1}), 100000), 0);
  EXPECT_EQ(trace_, "");
  // A wider header than needed is still read as its code says: code 8, block 3.
  EXPECT_EQ(offer(rawBlock(8, {0, 0, 0, 3, 'z'}), 100000), 1);
  EXPECT_EQ(trace_, "   block 3, ");
  EXPECT_EQ(file(), std::string(282, '\0') + "z");
}

TEST_F(ProcessData, TwoByteBlockIsMarkedWithNothingWritten) {
  setBlkRxVectorFileSize(&vec_, 100000);
  EXPECT_EQ(offer(rawBlock(5, {6}), 100000), 1);
  EXPECT_TRUE(blkIsInVector(&vec_, 6));
  EXPECT_EQ(vec_.uniqueBlkCnt, 1u);
  EXPECT_EQ(file(), "");
}

TEST_F(ProcessData, SizeBoundOfAThousandByteFile) {
  setBlkRxVectorFileSize(&vec_, 1000);
  EXPECT_EQ(offer(dataBlock(8, 13, 'e'), 1000), 1);  // offset 987, the file's last 13 bytes
  EXPECT_EQ(file(), std::string(987, '\0') + std::string(13, 'e'));
  EXPECT_EQ(offer(dataBlock(9, 141, 'f'), 1000), 0);  // offset 1128
  EXPECT_EQ(trace_, "   block 9, ");
  EXPECT_EQ(file().size(), 1000u);
  EXPECT_FALSE(blkIsInVector(&vec_, 9));
  // Refused by the size check, yet counted: the count runs ahead of what is stored.
  EXPECT_EQ(vec_.uniqueBlkCnt, 2u);
}

TEST_F(ProcessData, BeforeTheMetadataOnlyBlockOnePasses) {
  EXPECT_EQ(offer(dataBlock(3, 141, 'c'), 0), 0);
  EXPECT_EQ(vec_.uniqueBlkCnt, 1u);
  EXPECT_FALSE(blkIsInVector(&vec_, 3));
  EXPECT_EQ(offer(dataBlock(0, 5, 'z'), 0), 0);  // (0 - 1) x 141 wraps far past the bound
  EXPECT_EQ(offer(dataBlock(1, 141, 'a'), 0), 1);
  EXPECT_TRUE(blkIsInVector(&vec_, 1));
  EXPECT_EQ(file(), std::string(141, 'a'));
  // Beyond the first window nothing is counted.
  EXPECT_EQ(offer(dataBlock(1024, 141, 'q'), 0), 0);
  EXPECT_EQ(trace_, "   block 1024, ");
  EXPECT_EQ(vec_.uniqueBlkCnt, 3u);
}

TEST_F(ProcessData, DuplicatesAreRewrittenButNotCounted) {
  setBlkRxVectorFileSize(&vec_, 2000);
  for (uint32_t b = 0; b <= 8; ++b) addBlkToVector(&vec_, b);
  ASSERT_EQ(vec_.blkNumBase, 8u);
  vec_.uniqueBlkCnt = 9;
  EXPECT_EQ(offer(dataBlock(2, 141, 'r'), 2000), 1);  // below the base
  EXPECT_EQ(offer(dataBlock(8, 141, 's'), 2000), 1);  // already in the ring
  EXPECT_EQ(vec_.uniqueBlkCnt, 9u);
  EXPECT_EQ(file().substr(141, 141), std::string(141, 'r'));
  EXPECT_EQ(file().substr(987, 141), std::string(141, 's'));
}

TEST_F(ProcessData, FailedWriteLeavesTheBlockWanted) {
  setBlkRxVectorFileSize(&vec_, 100000);
  int readOnly = open(path_.c_str(), O_RDONLY);
  ASSERT_GE(readOnly, 0);
  Bytes pkt = dataBlock(4, 141, 'w');
  testing::internal::CaptureStdout();
  EXPECT_EQ(processData(pkt.data(), static_cast<int>(pkt.size()), readOnly, 100000, &vec_, 0), 1);
  testing::internal::GetCapturedStdout();
  close(readOnly);
  EXPECT_FALSE(blkIsInVector(&vec_, 4));
  EXPECT_EQ(vec_.uniqueBlkCnt, 1u);
  // ignoreFileSize skips the bound: a block far past a zero size is stored.
  EXPECT_EQ(processData(pkt.data(), static_cast<int>(pkt.size()), fd_, 0, &vec_, 1), 1);
  EXPECT_TRUE(blkIsInVector(&vec_, 4));
}

struct MetadataCase : testing::Test {
  sockaddr_in client{}, remote{};
  uint8_t pkt[40];
  void SetUp() override {
    client.sin_family = AF_INET;
    client.sin_port = htons(KESTIL_PORT);
    inet_aton("127.0.3.40", &client.sin_addr);
    remote = client;
    KESTIL_metadata meta{1, 1000, 1700000000, 250, {}};
    for (int i = 0; i < 16; ++i) meta.md5[i] = static_cast<uint8_t>(i * 17);
    std::memset(pkt, 0xEE, sizeof pkt);
    encodeMetadata(pkt, sizeof pkt, meta);
  }
  int offer(int nread) {
    return processMetadata(pkt, nread, &client, &remote, &size, 1, &modTime, md5);
  }
  uint32_t size = 0;
  KestilTimespec modTime{};
  uint8_t md5[16] = {};
};

TEST_F(MetadataCase, TakesTheRequestsOwnMetadata) {
  EXPECT_EQ(offer(33), 1);
  EXPECT_EQ(size, 1000u);
  EXPECT_EQ(modTime.tv_sec, 1700000000);
  EXPECT_EQ(modTime.tv_nsec, 250);
  EXPECT_EQ(md5[0], 0);
  EXPECT_EQ(md5[15], 255);
}

TEST_F(MetadataCase, RefusesWrongLengthCodeSourceOrRequest) {
  EXPECT_EQ(offer(32), 0);
  EXPECT_EQ(offer(34), 0);
  remote.sin_port = htons(KESTIL_PORT + 1);
  EXPECT_EQ(offer(33), 0);
  remote = client;
  inet_aton("127.0.3.41", &remote.sin_addr);
  EXPECT_EQ(offer(33), 0);
  remote = client;
  pkt[4] = 2;  // request identifier 2
  EXPECT_EQ(offer(33), 0);
  pkt[4] = 1;
  pkt[0] = KESTIL_DATA1;
  EXPECT_EQ(offer(33), 0);
  EXPECT_EQ(size, 0u);  // nothing stored by a refusal
}

}  // namespace
