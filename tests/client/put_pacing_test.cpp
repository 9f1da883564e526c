// The upload session's steps driven with chosen times: credit earned between acknowledgements
// with its fractions carried.
// (A pass that runs out and asks the scheduler: lossy puts through kestil-sim; idle ticks that
// resend from the base: its small uploads at half a datagram a second.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/put.hpp"
#include "common/common.hpp"
#include "station/station.hpp"
#include "tests/support/test_support.hpp"

namespace {

// One session sending to a peer that stands for the remote side; the test plays the clock.
struct Pacing {
  kt::UdpPeer peer;
  KESTIL_TXState tx{};
  PutSession s{};
  int sock = socket_init(0), fileFd = -1;

  Pacing(const char *ip, size_t size) {
    EXPECT_TRUE(peer.bind(ip, 0));
    std::string path = kt::makeTempDir() + "/f.bin";
    kt::writeFile(path, kt::patternBytes(size, 3));
    fileFd = open(path.c_str(), O_RDONLY);
    struct stat st {};
    stat(path.c_str(), &st);
    putInitTxState(&tx, fileFd, st);
    putInitSession(&s, &tx, sock, &peer.address(), "f.bin", 0, 1000, 6.0f);
  }
  ~Pacing() { close(sock), close(fileFd); }
  // Block numbers of the datagrams that reached the peer (0: the metadata).
  std::vector<int> arrived() {
    std::vector<int> blocks;
    for (std::vector<uint8_t> b; !(b = peer.recv(nullptr, 50)).empty();)
      blocks.push_back(b[0] == KESTIL_METADATA ? 0 : static_cast<int>(loadBeN(b.data() + 1, b[0] - 4)));
    return blocks;
  }
  // A datagram read at `secs`, then what arrived.
  std::vector<int> feed(double secs, const std::vector<uint8_t> &d) {
    timeval now{static_cast<time_t>(secs), static_cast<suseconds_t>((secs - static_cast<long>(secs)) * 1e6)};
    EXPECT_EQ(putOnDatagram(&s, d.data(), static_cast<int>(d.size()), peer.address(), now), PutStep::Continue);
    return arrived();
  }
};

std::vector<int> range(int from, int to) {
  std::vector<int> v;
  for (int b = from; b < to; ++b) v.push_back(b);
  return v;
}

TEST(PutPacing, CreditAccruesAsRateTimesElapsedAndCarriesFractions) {
  Pacing p("127.0.6.20", 141 * 100);
  EXPECT_EQ(p.feed(100.0, kt::bytes({0x09, 0, 0, 0, 0, 0x00})), range(0, 6));
  // Acknowledgements that hold all sent so far, as bytes 0x00..: the base stays 0, the bits grow.
  auto ackUpTo = [](int n) {
    std::vector<uint8_t> ack{0x09, 0, 0, 0, 0};
    for (int b = 0; b < n; b += 8) ack.push_back(static_cast<uint8_t>(n - b >= 8 ? 0xFF : 0xFF00 >> (n - b)));
    return ack;
  };
  int sent = 6;
  for (int k = 1; k <= 4; ++k) {  // 1.5 units per quarter second: one, two, one, two datagrams
    int burst = k % 2 == 1 ? 1 : 2;
    EXPECT_EQ(p.feed(100.0 + 0.25 * k, ackUpTo(sent)), range(sent, sent + burst)) << k;
    sent += burst;
  }
  // Ten quiet seconds earn sixty datagrams at once: the credit has no ceiling.
  EXPECT_EQ(p.feed(111.0, ackUpTo(12)), range(12, 72));
}

}  // namespace
