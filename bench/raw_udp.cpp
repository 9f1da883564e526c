// The ceiling for loopback transfers on this machine: one process blasts 146-byte datagrams
// (141 bytes of payload behind a 5-byte header, the largest data datagram) at a receiver for a
// fixed time, and the receiver's delivered payload rate is printed in MB/s.
// With `client-calls` the receiver makes, for every datagram, the system calls that the
// download's receive loop cannot do without: the data file's lock released and taken again,
// the read, the block's positioned write and one write of the trace and bar. That is the
// ceiling for a download on this machine, whatever its own work costs.
// Usage: raw_udp_bench ADDR SECONDS [client-calls]   (ADDR must be a 127.x.y.z address)
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

constexpr int DATAGRAM = 146;
constexpr int PAYLOAD = 141;
constexpr uint64_t FILE_BLOCKS = (64 << 20) / PAYLOAD;  // a 64 MiB download's data file

int64_t nowUs() {
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

int main(int argc, char **argv) {
  const bool clientCalls = argc == 4 && std::string_view(argv[3]) == "client-calls";
  if (argc != 3 && !clientCalls) {
    std::fprintf(stderr, "usage: raw_udp_bench ADDR SECONDS [client-calls]\n");
    return 2;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  if (inet_pton(AF_INET, argv[1], &addr.sin_addr) != 1 || (ntohl(addr.sin_addr.s_addr) >> 24) != 127) {
    std::fprintf(stderr, "raw_udp_bench: %s is not a loopback address\n", argv[1]);
    return 2;
  }
  double seconds = std::atof(argv[2]);
  if (seconds <= 0 || seconds > 60) return 2;
  int rx = socket(AF_INET, SOCK_DGRAM, 0);
  int rcvbuf = 4 << 20;
  setsockopt(rx, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
  if (bind(rx, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
    perror("raw_udp_bench: bind");
    return 1;
  }
  socklen_t len = sizeof addr;
  getsockname(rx, reinterpret_cast<sockaddr *>(&addr), &len);
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return 1;

  pid_t child = fork();
  if (child == 0) {
    // The receiver counts until the sender has been silent for 200 ms.
    uint8_t buf[1500];
    uint64_t count = 0;
    int64_t first = 0, last = 0;
    pollfd p{rx, POLLIN, 0};
    char dataName[] = "/tmp/raw_udp_bench.XXXXXX", traceName[] = "/tmp/raw_udp_bench.XXXXXX";
    int data = clientCalls ? mkstemp(dataName) : -1, trace = clientCalls ? mkstemp(traceName) : -1;
    if (clientCalls) {
      unlink(dataName);
      unlink(traceName);
    }
    const char line[] = "   block 123456, \r[========================================          ]";
    for (;;) {
      // Like the receive loop, the client-calls receiver waits only when nothing is queued.
      if (clientCalls) flock(data, LOCK_UN);
      ssize_t n = clientCalls ? recv(rx, buf, sizeof buf, MSG_DONTWAIT) : -1;
      if (n < 0 && (poll(&p, 1, count == 0 ? 5000 : 200) != 1 || (n = recv(rx, buf, sizeof buf, 0)) < 0)) break;
      if (clientCalls) {
        flock(data, LOCK_EX);
        if (pwrite(data, buf + 5, PAYLOAD, static_cast<off_t>(count % FILE_BLOCKS) * PAYLOAD) != PAYLOAD ||
            write(trace, line, sizeof line - 1) < 0)
          _exit(1);
      }
      if (n == DATAGRAM) {
        last = nowUs();
        if (count++ == 0) first = last;
      }
    }
    double rate = last > first ? static_cast<double>(count) * PAYLOAD / (static_cast<double>(last - first) / 1e6) : 0;
    dprintf(pipeFds[1], "%llu %.3f\n", static_cast<unsigned long long>(count), rate / 1e6);
    _exit(0);
  }
  close(rx);
  int tx = socket(AF_INET, SOCK_DGRAM, 0);
  uint8_t dgram[DATAGRAM] = {6};
  uint64_t sent = 0;
  int64_t end = nowUs() + static_cast<int64_t>(seconds * 1e6);
  while (nowUs() < end) {
    for (int i = 0; i < 256; ++i) {
      if (sendto(tx, dgram, sizeof dgram, 0, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == DATAGRAM) sent++;
    }
  }
  int status = 0;
  waitpid(child, &status, 0);
  char line[128] = {};
  ssize_t n = read(pipeFds[0], line, sizeof line - 1);
  unsigned long long received = 0;
  double mbps = 0;
  if (n <= 0 || std::sscanf(line, "%llu %lf", &received, &mbps) != 2) return 1;
  std::printf("{\"sent\": %llu, \"received\": %llu, \"payload_MBps\": %.3f}\n", static_cast<unsigned long long>(sent),
              received, mbps);
  return 0;
}
