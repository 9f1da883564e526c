// The simulator's handling of whatever reaches its two services: a run of datagrams from two
// client addresses, each with a time step, handed to the transfer service (requests of every
// kind, acknowledgements, upload blocks, removals) or to the file manager, with the protocol
// trace on. The served root is laid out anew for every input, so removals and uploads of one
// input do not change the next.
#include <sys/stat.h>

#include <climits>

#include "queue/downlink_queue.hpp"
#include "sim/filemgr_service.hpp"
#include "sim/trace.hpp"
#include "sim/transfer_service.hpp"
#include "tests/fuzz/fuzz_input.hpp"

namespace {

// No datagram may make the simulator write past what a window of the largest blocks holds.
constexpr uintmax_t WRITE_REACH = uintmax_t{1024} * 65536;

void checkSizes(const std::string &root) {
  for (const auto &e : std::filesystem::recursive_directory_iterator(root)) {
    if (e.is_regular_file() && e.file_size() > WRITE_REACH)
      fz::fail("%s grew to %ju bytes", e.path().c_str(), static_cast<uintmax_t>(e.file_size()));
  }
}

// The root, made the working directory: two files either side of a block, a larger one and a
// directory with one file.
void layOutRoot(const std::string &root) {
  std::filesystem::remove_all(root);
  if (mkdir(root.c_str(), 0755) != 0 || chdir(root.c_str()) != 0 || mkdir("d", 0755) != 0) std::abort();
  const std::pair<const char *, size_t> files[] = {{"a", 100}, {"b", 300}, {"big", 20000}, {"d/c", 141}};
  for (auto [name, size] : files) fz::writePattern(name, size);
}

// Two clients on loopback (127.0.10.201 and .202) that only take what the services send.
struct Peers {
  sockaddr_in addr[2];
  int fd[2] = {fz::peerSocket(0x7F000AC9, &addr[0]), fz::peerSocket(0x7F000ACA, &addr[1])};
  void drain() {
    uint8_t buf[2048];
    for (int f : fd)
      while (recv(f, buf, sizeof buf, MSG_DONTWAIT) >= 0) {}
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const std::string work = fz::scratchDir("sim"), rootDir = work + "/root", queuePath = work + "/queue.dat";
  static FILE *const traceOut = std::fopen("/dev/null", "w");
  static Peers peers;
  layOutRoot(rootDir);
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
  int fd = openUdpSocket(fz::loopback(0x7F000AC8));  // 127.0.10.200
  if (fd < 0) std::abort();
  transferServiceStart(&svc, &opts, real, &loop, &trace, fd, now);

  fz::Input in{data, size};
  in.datagrams<1500>(
      [&](const uint8_t *d, size_t n, uint8_t step) {
        const sockaddr_in &from = peers.addr[step & 1];
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
        peers.drain();
        checkSizes(rootDir);
        return true;
      },
      true);
  transferServiceStop(&svc);
  dwnq_close();
  peers.drain();
  return 0;
}
