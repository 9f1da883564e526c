// The upload session's steps driven with chosen times: credit earned between acknowledgements,
// bursts and idle ticks that meet the end of a pass, failed reads, the statistics line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "client/put.hpp"
#include "client/session_time.hpp"
#include "common/common.hpp"
#include "station/station.hpp"
#include "tests/support/test_support.hpp"

namespace {

// One session sending to a peer that stands for the remote side; the test plays the clock.
struct Pacing {
  kt::UdpPeer peer;
  KESTIL_TXState tx{};
  PutSession s{};
  int sock = socket_init(0);
  int fileFd = -1;

  Pacing(const char *ip, size_t size, float rate, int openFlags = O_RDONLY) {
    EXPECT_TRUE(peer.bind(ip, 0));
    std::string path = kt::makeTempDir() + "/f.bin";
    kt::writeFile(path, kt::patternBytes(size, 3));
    fileFd = open(path.c_str(), openFlags);
    struct stat st {};
    stat(path.c_str(), &st);
    putInitTxState(&tx, fileFd, st);
    putInitSession(&s, &tx, sock, &peer.address(), "f.bin", 0, 1000, rate);
  }
  ~Pacing() {
    close(sock);
    close(fileFd);
  }
  // A datagram read at `secs`, or an idle tick, after which the session goes on.
  void feed(double secs, const std::vector<uint8_t> &d) {
    timeval now{static_cast<time_t>(secs), static_cast<suseconds_t>((secs - static_cast<long>(secs)) * 1e6)};
    EXPECT_EQ(putOnDatagram(&s, d.data(), static_cast<int>(d.size()), peer.address(), now), PutStep::Continue);
  }
  void tick() { EXPECT_EQ(putOnIdleTick(&s), PutStep::Continue); }
  // Block numbers of the datagrams that reached the peer (0: the metadata).
  std::vector<int> arrived() {
    std::vector<int> blocks;
    uint8_t buf[KESTIL_MAX_DATAGRAM];
    for (int n; (n = peer.recv(buf, sizeof buf, nullptr, 50)) > 0;)
      blocks.push_back(buf[0] == KESTIL_METADATA ? 0 : static_cast<int>(loadBeN(buf + 1, buf[0] - 4)));
    return blocks;
  }
};

// A code-9 acknowledgement of blocks 0 to n - 1 of a file of `size` bytes.
std::vector<uint8_t> ackUpTo(uint32_t n, uint32_t size) {
  BlkRxVector vec{};
  initBlkRxVector(&vec, KESTIL_BLOCK_SIZE);
  setBlkRxVectorFileSize(&vec, size);
  for (uint32_t b = 0; b < n; ++b) addBlkToVector(&vec, b);
  uint8_t buf[KESTIL_VECACK_MAX_LEN + 1];
  int len = fill_vecack_packet(buf, KESTIL_VECACK_MAX_LEN, &vec, 0);
  return std::vector<uint8_t>(buf, buf + len);
}

std::vector<int> range(int from, int to) {
  std::vector<int> v;
  for (int b = from; b < to; ++b) v.push_back(b);
  return v;
}

const std::vector<uint8_t> ANSWER = kt::bytes({0x09, 0, 0, 0, 0, 0x00});

}  // namespace

TEST(PutPacing, CreditAccruesAsRateTimesElapsedAndCarriesFractions) {
  constexpr uint32_t SIZE = 141 * 100;
  Pacing p("127.0.6.20", SIZE, 6.0f);
  p.feed(100.0, ANSWER);
  EXPECT_EQ(p.arrived(), range(0, 6));
  int sent = 6;
  for (int k = 1; k <= 4; ++k) {  // 1.5 units per quarter second: one, two, one, two datagrams
    p.feed(100.0 + 0.25 * k, ackUpTo(sent, SIZE));
    int burst = k % 2 == 1 ? 1 : 2;
    EXPECT_EQ(p.arrived(), range(sent, sent + burst)) << k;
    sent += burst;
  }
  // Ten quiet seconds earn sixty datagrams at once: the credit has no ceiling.
  p.feed(111.0, ackUpTo(12, SIZE));
  EXPECT_EQ(p.arrived(), range(12, 72));
}

TEST(PutPacing, ExhaustedPassAsksTheSchedulerBeforeSending) {
  Pacing p("127.0.6.23", 300, 6.0f);  // blocks 1 to 3: lastBlk 4
  p.feed(1.0, ANSWER);
  EXPECT_EQ(p.arrived(), range(0, 4));
  // An acknowledgement with a base off the 8-block grid is not applied: no wrap, no empty block.
  p.feed(2.0, kt::bytes({0x09, 0, 0, 0, 12, 0xFF}));
  EXPECT_EQ(p.arrived(), std::vector<int>{});
  // Blocks 0 and 1 acknowledged: the pass wraps and sends 2 and 3 once.
  p.feed(3.0, kt::bytes({0x09, 0, 0, 0, 0, 0xC0}));
  EXPECT_EQ(p.arrived(), range(2, 4));
  // Silence at the end without a new acknowledgement walks again from the window's base.
  for (int i = 0; i < 3; ++i) p.tick();
  EXPECT_EQ(p.arrived(), (std::vector<int>{0, 2, 3}));
}

TEST(PutPacing, FailedReadEndsTheBurstUnchargedAndStaysOnTheBlock) {
  Pacing p("127.0.6.24", 141 * 20, 6.0f, O_WRONLY);  // every read of the file fails
  p.feed(1.0, ANSWER);
  EXPECT_EQ(p.arrived(), range(0, 1));  // the metadata still goes out
  EXPECT_EQ(p.tx.nextBlkNum, 1u);
  EXPECT_FLOAT_EQ(p.s.pkt_limit, 5.0f);
  p.tick();
  EXPECT_EQ(p.arrived(), std::vector<int>{});
  EXPECT_EQ(p.tx.nextBlkNum, 1u);
}

TEST(PutStatistics, ElapsedTimeAndAverageRate) {
  char line[160];
  formatStatistics(line, sizeof line, timeval{3725, 500000}, 1000);
  EXPECT_STREQ(line, "Elapsed time: 01:02:05.500000      Avg Bps: 0.27");
  formatStatistics(line, sizeof line, timeval{2, 0}, 0);
  EXPECT_STREQ(line, "Elapsed time: 00:00:02.000000");
  formatStatistics(line, sizeof line, timeval{0, 0}, 1000);
  EXPECT_STREQ(line, "Elapsed time: 00:00:00.000000");
}
