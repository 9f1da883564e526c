// The simulator's handling of whatever reaches its two services: a run of datagrams from two
// client addresses, each with a time step, handed to the transfer service (requests of every
// kind, acknowledgements, upload blocks, removals) or to the file manager, with the protocol
// trace on. The served root is laid out anew for every input, so removals and uploads of one
// input do not change the next.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "queue/downlink_queue.hpp"
#include "sim/filemgr_service.hpp"
#include "sim/trace.hpp"
#include "sim/transfer_service.hpp"
#include "tests/fuzz/fuzz_input.hpp"

namespace {

std::string workDir, rootDir, queuePath;
int peers[2] = {-1, -1};
sockaddr_in peerAddr[2];
FILE *traceOut = nullptr;

// No datagram may make the simulator write past what a window of the largest blocks holds.
constexpr uintmax_t WRITE_REACH = uintmax_t{1024} * 65536;

void checkSizes() {
  for (const auto &e : std::filesystem::recursive_directory_iterator(rootDir)) {
    if (e.is_regular_file() && e.file_size() > WRITE_REACH)
      fz::fail("%s grew to %ju bytes", e.path().c_str(), static_cast<uintmax_t>(e.file_size()));
  }
}

void writeFile(const char *name, size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 % 251);
  fz::writeFile(name, bytes.data(), size);
}

// The root: two files either side of a block, a larger one and a directory with one file.
void layOutRoot() {
  if (chdir(workDir.c_str()) != 0) std::abort();
  std::filesystem::remove_all(rootDir);
  if (mkdir(rootDir.c_str(), 0755) != 0 || chdir(rootDir.c_str()) != 0 || mkdir("d", 0755) != 0) std::abort();
  writeFile("a", 100);
  writeFile("b", 300);
  writeFile("big", 20000);
  writeFile("d/c", 141);
}

sockaddr_in loopback(uint32_t host) { return sockaddr_in{AF_INET, 0, {htonl(host)}, {}}; }

void drainPeers() {
  uint8_t buf[2048];
  for (int fd : peers)
    while (recv(fd, buf, sizeof buf, MSG_DONTWAIT) >= 0) {}
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  workDir = fz::scratchDir("sim");
  rootDir = workDir + "/root";
  queuePath = workDir + "/queue.dat";
  traceOut = std::fopen("/dev/null", "w");
  // Two clients on loopback that only take what the services send and drop it.
  for (int i = 0; i < 2; ++i) {
    peerAddr[i] = loopback(0x7F000AC9 + static_cast<uint32_t>(i));  // 127.0.10.201, 127.0.10.202
    peers[i] = socket(AF_INET, SOCK_DGRAM, 0);
    socklen_t len = sizeof peerAddr[i];
    if (peers[i] < 0 || bind(peers[i], reinterpret_cast<sockaddr *>(&peerAddr[i]), sizeof peerAddr[i]) != 0 ||
        getsockname(peers[i], reinterpret_cast<sockaddr *>(&peerAddr[i]), &len) != 0)
      std::abort();
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  layOutRoot();
  char real[PATH_MAX];
  if (realpath(".", real) == nullptr) std::abort();
  fz::writeFile(queuePath, "", 0);
  dwnq_close();
  dwnq_init(queuePath.c_str());

  SimOptions opts;
  Trace trace;
  trace.out = traceOut;
  EventLoop loop;
  TransferService svc;
  int64_t now = 1000000000;
  int fd = openUdpSocket(loopback(0x7F000AC8));  // 127.0.10.200
  if (fd < 0) std::abort();
  transferServiceStart(&svc, &opts, real, &loop, &trace, fd, now);

  fz::Input in{data, size};
  in.datagrams<1500>(
      [&](const uint8_t *d, size_t n, uint8_t step) {
        const sockaddr_in &from = peerAddr[step & 1];
        char line[4096];
        formatTraceLine(line, sizeof line, now, TraceDir::In, from,
                        (step & 2) ? TraceProto::FileManager : TraceProto::Transfer, d, static_cast<int>(n),
                        LinkFate::Delivered);
        if (step & 2) {
          uint8_t resp[2];
          filemgrAnswer(real, d, static_cast<int>(n), resp, sizeof resp);
        } else {
          transferHandleDatagram(&svc, d, static_cast<int>(n), from, now);
        }
        // Up to 630 ms in 10 ms steps: pacing, acknowledgement timers and housekeeping run.
        for (int i = 0; i < (step >> 2); ++i) loopRunDue(&loop, now += 10000);
        drainPeers();
        checkSizes();
        return true;
      },
      true);
  transferServiceStop(&svc);
  dwnq_close();
  drainPeers();
  return 0;
}
