// Achieved datagram rate of `put -p R` against a remote side that acknowledges every 0.4 s.
// Each rate runs the real kestil executable for at least the given seconds of sending; the
// datagrams that credit paid for are counted apart from resends on idle ticks.
//
// Usage: put_rate_bench [seconds] [rate ...]   (defaults: 30 s; rates 2 6 50 500)
#include <sys/socket.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/common.hpp"
#include "common/wire_codec.hpp"
#include "tests/support/test_support.hpp"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto ACK_INTERVAL = std::chrono::milliseconds(400);
constexpr double TOLERANCE = 0.05;

struct Outcome {
  double seconds = 0;    // from the answer to the last acknowledgement counted
  long paid = 0;         // datagrams sent on earned credit in that span
  long firstBurst = 0;   // sent on the starting credit, before any time had passed
  long idleResends = 0;  // "resend block" lines of the client
  bool ok = false;
};

int countLines(const std::string &text, const std::string &prefix) {
  int n = 0;
  for (size_t at = 0; (at = text.find(prefix, at)) != std::string::npos; at += prefix.size())
    if (at == 0 || text[at - 1] == '\n') ++n;
  return n;
}

// One upload at `rate`, acknowledged every 0.4 s with the vector of what has arrived, for
// `acks` acknowledgements after the answer; then a closing acknowledgement ends it.
Outcome measure(const char *ip, double rate, int acks) {
  Outcome out;
  kt::UdpPeer peer;
  if (!peer.bind(ip, KESTIL_PORT)) {
    std::fprintf(stderr, "cannot bind %s\n", ip);
    return out;
  }
  // A burst at 500/s lands at once: give the socket room for it rather than lose datagrams.
  int room = 8 << 20;
  if (setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0)
    setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  // Enough blocks that the file never runs out while the rate is measured.
  const double seconds = acks * 0.4;
  const size_t blocks = static_cast<size_t>(rate * (seconds + 5)) + 64;
  std::string dir = kt::makeTempDir();
  kt::writeFile(dir + "/f.bin", kt::patternBytes(blocks * KESTIL_BLOCK_SIZE, 9));
  char rateText[32];
  std::snprintf(rateText, sizeof rateText, "%g", rate);
  kt::Child child = kt::start(dir, "kestil-put", {"-h", ip, "-p", rateText, "-t", "60", "f.bin"});

  BlkRxVector vec{};
  initBlkRxVector(&vec, KESTIL_BLOCK_SIZE);
  setBlkRxVectorFileSize(&vec, static_cast<uint32_t>(blocks * KESTIL_BLOCK_SIZE));
  sockaddr_in client{};
  uint8_t buf[KESTIL_MAX_DATAGRAM];
  if (peer.recv(buf, sizeof buf, &client, 5000) <= 0 || buf[0] != KESTIL_PUT) {
    std::fprintf(stderr, "no put request at %g/s\n", rate);
    kt::finish(child, 5000);
    return out;
  }
  const Clock::time_point answered = Clock::now();
  sendVectorAck(peer.fd(), &client, &vec, 0);

  Clock::time_point nextAck = answered + ACK_INTERVAL;
  Clock::time_point lastAck = answered;
  const Clock::time_point deadline = answered + std::chrono::seconds(static_cast<long>(seconds) + 10);
  long received = 0;
  int sentAcks = 0;
  // The datagrams that follow the last counted acknowledgement are its burst: collect them for
  // a short while before closing.
  Clock::time_point stopAt = Clock::time_point::max();
  while (Clock::now() < deadline && Clock::now() < stopAt) {
    auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(std::min(nextAck, stopAt) - Clock::now());
    sockaddr_in from{};
    int n = peer.recv(buf, sizeof buf, &from, static_cast<int>(std::max<long>(0, wait.count())));
    if (n > 0) {
      KestilDataBlock blk{};
      if (buf[0] == KESTIL_METADATA) {
        addBlkToVector(&vec, 0);
        ++received;
      } else if (decodeDataBlock(buf, static_cast<size_t>(n), &blk)) {
        addBlkToVector(&vec, blk.blkNum);
        ++received;
      }
      if (sentAcks == 0) out.firstBurst = received;
    }
    if (sentAcks < acks && Clock::now() >= nextAck) {
      sendVectorAck(peer.fd(), &client, &vec, 0);
      lastAck = Clock::now();
      nextAck += ACK_INTERVAL;
      if (++sentAcks == acks) stopAt = lastAck + std::chrono::milliseconds(150);
    }
  }
  peer.send(kt::bytes({KESTIL_VECACK_FINAL, 0, 0, 0, 0}), client);
  kt::Result r = kt::finish(child, 10000);

  out.seconds = std::chrono::duration<double>(lastAck - answered).count();
  out.paid = received - out.firstBurst;
  out.idleResends = countLines(r.out, "resend block ");
  // Idle-tick resends use no credit; take them out of what the peer counted.
  out.paid -= out.idleResends;
  int sendLines = countLines(r.out, "Send block ");
  double achieved = out.paid / out.seconds;
  out.ok = r.status == 0 && sentAcks == acks && std::fabs(achieved - rate) <= TOLERANCE * rate &&
           sendLines == received - out.idleResends;
  if (sendLines != received - out.idleResends)
    std::fprintf(stderr, "at %g/s the client logged %d credited sends, the peer got %ld\n", rate, sendLines,
                 received - out.idleResends);
  return out;
}

}  // namespace

int main(int argc, char **argv) {
  double seconds = argc > 1 ? std::atof(argv[1]) : 30.0;
  std::vector<double> rates;
  for (int i = 2; i < argc; ++i) rates.push_back(std::atof(argv[i]));
  if (rates.empty()) rates = {2, 6, 50, 500};
  // Whole acknowledgement periods covering at least the asked time.
  int acks = static_cast<int>(std::ceil(seconds / 0.4 - 1e-9));

  std::printf("%8s %9s %8s %8s %10s %8s %8s %s\n", "rate", "seconds", "first", "paid", "achieved", "error", "idle", "");
  bool allOk = true;
  for (size_t i = 0; i < rates.size(); ++i) {
    std::string ip = "127.0.6." + std::to_string(200 + i % 50);
    Outcome o = measure(ip.c_str(), rates[i], acks);
    double achieved = o.seconds > 0 ? o.paid / o.seconds : 0;
    std::printf("%8g %9.3f %8ld %8ld %10.3f %7.2f%% %8ld %s\n", rates[i], o.seconds, o.firstBurst, o.paid, achieved,
                rates[i] > 0 ? 100.0 * (achieved - rates[i]) / rates[i] : 0.0, o.idleResends,
                o.ok ? "ok" : "OUT OF RANGE");
    std::fflush(stdout);
    allOk = allOk && o.ok;
  }
  return allOk ? 0 : 1;
}
