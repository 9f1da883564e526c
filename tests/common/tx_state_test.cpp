// The transmit side: the datagrams tx_func sends, how rx_func folds acknowledgements into
// the sender's vector, and when the scheduler wraps back to the window's base.
#include "common/tx_state.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/common.hpp"
#include "station/station.hpp"
#include "tests/support/test_support.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int RECV_MS = 2000;

std::vector<std::string> logLines;
void captureLog(int, const char *line) { logLines.emplace_back(line); }

bool logged(const std::string &text) {
  for (const std::string &l : logLines)
    if (l.find(text) != std::string::npos) return true;
  return false;
}

// One local file being sent to a scripted peer.
class TxFixture : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = kt::makeTempDir();
    ASSERT_TRUE(peer_.bind(peerIp(), 0));
    sock_ = socket_init(0);
    ASSERT_GE(sock_, 0);
    logLines.clear();
    DBG_setHook(captureLog);
    tx_.fd = -1;
  }
  void TearDown() override {
    DBG_setHook(nullptr);
    releaseFileCache(&tx_);
    if (tx_.fd >= 0) close(tx_.fd);
    close(sock_);
  }
  virtual const char *peerIp() const = 0;

  // Fills the record as the upload session does, for `content` (or a sparse file of `size`).
  void openFile(const std::string &content, off_t sparseSize = 0) {
    std::string path = dir_ + "/src";
    ASSERT_TRUE(kt::writeFile(path, content));
    if (sparseSize > 0) {
      ASSERT_EQ(truncate(path.c_str(), sparseSize), 0);
    }
    releaseFileCache(&tx_);
    if (tx_.fd >= 0) close(tx_.fd);
    std::memset(&tx_, 0, sizeof tx_);
    tx_.fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(tx_.fd, 0);
    tx_.blkSize = KESTIL_BLOCK_SIZE;
    tx_.reqId = htonl(KESTIL_REQ_ID);
    fstat(tx_.fd, &tx_.stat);
    tx_.size = static_cast<uint32_t>(tx_.stat.st_size);
    initBlkRxVector(&tx_.rxVec, tx_.blkSize);
    setBlkRxVectorFileSize(&tx_.rxVec, tx_.size);
  }
  // Sends block n and returns tx_func's answer; the datagram goes to `got`.
  int send(uint32_t n, Bytes *got) {
    tx_.nextBlkNum = n;
    int r = tx_func(&tx_, sock_, &peer_.address());
    *got = r >= 0 ? peer_.recv(nullptr, RECV_MS) : Bytes{};
    return r;
  }

  std::string dir_;
  kt::UdpPeer peer_;
  int sock_ = -1;
  KESTIL_TXState tx_{};
};

struct TxFunc : TxFixture {
  const char *peerIp() const override { return "127.0.3.10"; }
};

TEST_F(TxFunc, MetadataCarriesSizeTimeAndDigest) {
  const std::string content = kt::patternBytes(300, 7);
  openFile(content);
  ASSERT_EQ(lseek(tx_.fd, 123, SEEK_SET), 123);
  Bytes got;
  ASSERT_EQ(send(0, &got), 33);
  ASSERT_EQ(got.size(), 33u);
  const uint32_t mtime = static_cast<uint32_t>(tx_.stat.st_mtime);
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 17),
            (Bytes{0x04, 0, 0, 0, 1, 0, 0, 0x01, 0x2C, static_cast<uint8_t>(mtime >> 24),
                   static_cast<uint8_t>(mtime >> 16), static_cast<uint8_t>(mtime >> 8),
                   static_cast<uint8_t>(mtime), 0, 0, 0, 0}));
  char hex[33];
  for (int i = 0; i < 16; ++i) std::snprintf(hex + 2 * i, 3, "%02x", got[17 + i]);
  EXPECT_EQ(std::string(hex), kt::md5Hex(content));
  EXPECT_EQ(lseek(tx_.fd, 0, SEEK_CUR), 123);  // the digest left the file where it was

  ASSERT_EQ(cacheFile(&tx_), 0);  // the file position (123) is not the start: short of the size
  ASSERT_EQ(lseek(tx_.fd, 0, SEEK_SET), 0);
  ASSERT_EQ(cacheFile(&tx_), 1);
  Bytes cached;
  ASSERT_EQ(send(0, &cached), 33);
  EXPECT_EQ(cached, got);
}

TEST_F(TxFunc, ThreeHundredByteFileInBlocks) {
  const std::string content = kt::patternBytes(300, 3);
  openFile(content);
  EXPECT_EQ(tx_.rxVec.lastBlk, 4u);
  for (int pass = 0; pass < 2; ++pass) {  // from the file, then from the cache
    Bytes b1, b2, b3, b4;
    EXPECT_EQ(send(1, &b1), 143);
    EXPECT_EQ(send(2, &b2), 143);
    EXPECT_EQ(send(3, &b3), 20);
    EXPECT_EQ(send(4, &b4), 2);  // at the end of the file: the header alone
    EXPECT_EQ(Bytes(b1.begin(), b1.begin() + 2), (Bytes{0x05, 0x01}));
    EXPECT_EQ(std::string(b2.begin() + 2, b2.end()), content.substr(141, 141));
    EXPECT_EQ(std::string(b3.begin() + 2, b3.end()), content.substr(282));
    EXPECT_EQ(b4, (Bytes{0x05, 0x04}));
    ASSERT_EQ(lseek(tx_.fd, 0, SEEK_SET), 0);
    if (pass == 0) {
      ASSERT_EQ(cacheFile(&tx_), 1);
    }
  }
  // Block 4 lies past the end: read from the file it is simply empty, from the cache it is
  // reported as well.
  EXPECT_TRUE(logged("block length past end of file buffer"));

  // An offset equal to the size (a file of two whole blocks) is no error.
  openFile(content.substr(0, 282));
  ASSERT_EQ(cacheFile(&tx_), 1);
  logLines.clear();
  Bytes b3;
  EXPECT_EQ(send(3, &b3), 2);
  EXPECT_TRUE(logLines.empty());
}

TEST_F(TxFunc, HeaderWidthsAtTheByteEdges) {
  openFile("", static_cast<off_t>(65536) * KESTIL_BLOCK_SIZE);
  Bytes got;
  EXPECT_EQ(send(255, &got), 143);
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 2), (Bytes{0x05, 0xFF}));
  EXPECT_EQ(send(256, &got), 144);
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 3), (Bytes{0x06, 0x01, 0x00}));
  EXPECT_EQ(send(65536, &got), 145);
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 4), (Bytes{0x07, 0x01, 0x00, 0x00}));
  // A block size above the datagram room is cut to 1500 bytes in all.
  tx_.blkSize = 1600;
  EXPECT_EQ(send(2, &got), 1500);
}

TEST_F(TxFunc, FailedReadSendsNothing) {
  openFile("abc");
  close(tx_.fd);
  tx_.fd = open((dir_ + "/src").c_str(), O_WRONLY);
  Bytes got;
  EXPECT_LT(send(1, &got), 0);
  EXPECT_TRUE(logged("data read error"));
  const char marker = 'm';
  peer_.send(&marker, 1, peer_.address());  // whatever arrives first must be the marker
  EXPECT_EQ(peer_.recv(nullptr, RECV_MS), (Bytes{'m'}));
}

TEST_F(TxFunc, CacheRefusals) {
  openFile("");
  EXPECT_EQ(cacheFile(&tx_), 0);
  EXPECT_TRUE(logLines.empty());
  openFile("", 262144);
  EXPECT_EQ(cacheFile(&tx_), 0);
  EXPECT_TRUE(logged("file of size 262144 is too big to cache"));
  openFile("short");
  tx_.size = 10;  // the file is shorter than the record says
  EXPECT_EQ(cacheFile(&tx_), 0);
  EXPECT_TRUE(logged("failed to cache file contents"));
  EXPECT_EQ(tx_.fileContents, nullptr);
}

// rx_func and the scheduler work on the record alone.
class Sender : public testing::Test {
 protected:
  void SetUp() override {
    std::memset(&tx_, 0, sizeof tx_);
    tx_.blkSize = KESTIL_BLOCK_SIZE;
    initBlkRxVector(&tx_.rxVec, KESTIL_BLOCK_SIZE);
  }
  void sizeInBlocks(uint32_t dataBlocks) {
    tx_.size = dataBlocks * KESTIL_BLOCK_SIZE;
    setBlkRxVectorFileSize(&tx_.rxVec, tx_.size);
  }
  uint8_t ack(uint32_t base, Bytes vector) {
    Bytes d(5 + vector.size());
    KESTIL_vecack a{KESTIL_VECACK, base, vector.data(), vector.size()};
    encodeVecAck(d.data(), d.size(), a);
    return rx_func(&tx_, d.data(), static_cast<int>(d.size()));
  }
  KESTIL_TXState tx_{};
};

TEST_F(Sender, AcknowledgementBaseRules) {
  sizeInBlocks(5000);
  EXPECT_EQ(ack(12, {0xFF}), 0);  // not a multiple of 8: ignored, not counted
  EXPECT_EQ(tx_.ackCnt, 0);
  EXPECT_EQ(tx_.rxVec.vector[0], 0);
  const uint8_t tooShort[] = {KESTIL_VECACK, 0, 0, 0};
  EXPECT_EQ(rx_func(&tx_, tooShort, 4), 0);
  EXPECT_EQ(tx_.ackCnt, 0);

  tx_.rxVec.vector[5] = 0xAA;
  EXPECT_EQ(ack(2048, {0x80}), 0);  // more than a window ahead: a fresh window at 2048
  EXPECT_EQ(tx_.ackCnt, 1);
  EXPECT_EQ(tx_.rxVec.blkNumBase, 2048u);
  EXPECT_EQ(tx_.rxVec.head, 0);
  EXPECT_EQ(tx_.rxVec.vector[0], 0x80);
  EXPECT_EQ(tx_.rxVec.vector[5], 0);

  EXPECT_EQ(ack(2048 + 16, {}), 0);  // within the window: two steps, bytes cleared
  EXPECT_EQ(tx_.rxVec.blkNumBase, 2064u);
  EXPECT_EQ(tx_.rxVec.head, 2);
  EXPECT_EQ(tx_.rxVec.vector[0], 0);
}

TEST_F(Sender, LowerBaseUpdatesOnlyFromTheSendersBase) {
  sizeInBlocks(5000);
  ack(16, {});
  ASSERT_EQ(tx_.rxVec.head, 2);
  // base 0: bytes for groups 0 and 8 are below the sender's base and skipped;
  // group 16 lands at head, group 24 after it.
  EXPECT_EQ(ack(0, {0x11, 0x22, 0x0F, 0xF0}), 0);
  EXPECT_EQ(tx_.rxVec.blkNumBase, 16u);
  EXPECT_EQ(tx_.rxVec.vector[2], 0x0F);
  EXPECT_EQ(tx_.rxVec.vector[3], 0xF0);
  EXPECT_EQ(tx_.rxVec.vector[0], 0);
  EXPECT_EQ(tx_.rxVec.vector[1], 0);
}

TEST_F(Sender, LatestReportReplacesGroupsAndSlides) {
  sizeInBlocks(5000);
  EXPECT_EQ(ack(0, {0x7F, 0xFF, 0xFF}), 0);
  EXPECT_EQ(tx_.rxVec.blkNumBase, 0u);
  // Block 0 arrives and blocks 8..15 turn out missing after all: replaced, not combined.
  EXPECT_EQ(ack(0, {0xFF, 0x00}), 0);
  EXPECT_EQ(tx_.rxVec.blkNumBase, 8u);
  EXPECT_EQ(tx_.rxVec.vector[1], 0x00);
  EXPECT_EQ(tx_.rxVec.vector[2], 0xFF);
  EXPECT_FALSE(blkIsInVector(&tx_.rxVec, 9));
  // A vector running past the window's end stops there.
  Bytes full(200, 0x01);
  EXPECT_EQ(ack(8, full), 0);
  EXPECT_EQ(tx_.rxVec.vector[0], 0x01);  // ring byte 0 is the window's last byte now
}

TEST_F(Sender, FinishedWhenEveryBlockIsAcknowledged) {
  sizeInBlocks(0);  // empty file: block 0 only
  EXPECT_EQ(tx_.rxVec.lastBlk, 1u);
  EXPECT_EQ(ack(0, {0x00}), 0);
  EXPECT_EQ(ack(0, {0x80}), 1);

  SetUp();
  tx_.size = 300;
  setBlkRxVectorFileSize(&tx_.rxVec, 300);  // lastBlk 4
  EXPECT_EQ(ack(0, {0xE0}), 0);
  EXPECT_EQ(ack(0, {0xF0}), 1);
}

TEST_F(Sender, SchedulerWrapsOnlyAfterANewAcknowledgement) {
  tx_.size = 300;
  setBlkRxVectorFileSize(&tx_.rxVec, 300);  // blocks 0..3
  EXPECT_EQ(tx_advance_nextBlkNum(&tx_), 1024u);
  EXPECT_EQ(tx_.nextBlkNum, 0u);  // the first pass starts at the metadata
  tx_.nextBlkNum = 4;               // every block sent once
  EXPECT_EQ(tx_advance_nextBlkNum(&tx_), 1024u);
  EXPECT_EQ(tx_.nextBlkNum, 4u);  // no acknowledgement since the start: nothing to send

  ack(0, {0xA0});  // blocks 0 and 2 arrived
  tx_advance_nextBlkNum(&tx_);
  EXPECT_EQ(tx_.nextBlkNum, 1u);  // the lowest block still missing
  EXPECT_EQ(tx_.lastWrapAckCnt, 1);
  tx_.nextBlkNum = 2;
  tx_advance_nextBlkNum(&tx_);
  EXPECT_EQ(tx_.nextBlkNum, 3u);  // 2 is acknowledged: skipped
  tx_.nextBlkNum = 4;
  tx_advance_nextBlkNum(&tx_);
  EXPECT_EQ(tx_.nextBlkNum, 4u);  // one wrap per acknowledgement
  ack(0, {0xE0});
  tx_advance_nextBlkNum(&tx_);
  EXPECT_EQ(tx_.nextBlkNum, 3u);
}

TEST_F(Sender, SchedulerStaysWithinTheWindow) {
  sizeInBlocks(5000);
  ack(0, {0xFF, 0xFF});  // base 16
  tx_.nextBlkNum = 16 + 1024;
  EXPECT_EQ(tx_advance_nextBlkNum(&tx_), 1040u);
  EXPECT_EQ(tx_.nextBlkNum, 16u);  // wrapped back to the base
  tx_.nextBlkNum = 1040;
  EXPECT_EQ(tx_advance_nextBlkNum(&tx_), 1040u);
  EXPECT_EQ(tx_.nextBlkNum, 1040u);  // at the window's end until the next acknowledgement

  // Block numbers above 2^31 stay exact in the returned window end.
  tx_.rxVec.blkNumBase = 0x80000000u;
  tx_.rxVec.lastBlk = 0x80001000u;
  tx_.nextBlkNum = 0x80000000u;
  EXPECT_EQ(tx_advance_nextBlkNum(&tx_), 0x80000400u);
  EXPECT_EQ(tx_.nextBlkNum, 0x80000000u);
}

}  // namespace
