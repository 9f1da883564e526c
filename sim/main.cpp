// kestil-sim: the remote file service on loopback, behind an emulated link. It runs in the
// foreground until SIGINT or SIGTERM and then exits 0.
#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "queue/downlink_queue.hpp"
#include "sim/event_loop.hpp"
#include "sim/filemgr_service.hpp"
#include "sim/options.hpp"
#include "sim/pcap_writer.hpp"
#include "sim/relay.hpp"
#include "sim/transfer_service.hpp"
#include "station/station.hpp"

namespace {

volatile sig_atomic_t stopRequested = 0;

void onStopSignal(int) { stopRequested = 1; }

// The queue's data file, hidden in the served root unless --queue names another.
constexpr const char *DEFAULT_QUEUE_FILE = ".kestil-sim.qdata";

std::string endpointText(in_addr addr, uint16_t port) {
  char buf[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &addr, buf, sizeof buf);
  return std::string(buf) + ":" + std::to_string(port);
}

// A socket bound to the exact address and port, or a message and -1.
int bindOrSay(in_addr addr, uint16_t port, const char *what) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr = addr;
  local.sin_port = htons(port);
  int fd = openUdpSocket(local);
  if (fd < 0) {
    std::fprintf(stderr, "kestil-sim: cannot bind the %s to %s: %s\n", what, endpointText(addr, port).c_str(),
                 std::strerror(errno));
  }
  return fd;
}

// The trace goes to the original standard output. The protocol core prints its per-block
// trace for the client's progress line there too; in the simulator that text has no reader,
// so the descriptor it writes to is pointed at /dev/null.
FILE *takeStandardOutputForTrace(bool verbose) {
  std::fflush(stdout);
  FILE *trace = nullptr;
  if (verbose) {
    int copy = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (copy >= 0) trace = fdopen(copy, "w");
  }
  int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null >= 0) {
    dup2(null, STDOUT_FILENO);
    close(null);
  }
  return trace;
}

void installSignals() {
  struct sigaction sa {};
  sa.sa_handler = onStopSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;  // no SA_RESTART: the wait must end
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

int runRelay(const SimOptions &opts, Trace *trace) {
  int fd = bindOrSay(opts.relayListen.sin_addr, ntohs(opts.relayListen.sin_port), "relay");
  if (fd < 0) return 1;
  EventLoop loop;
  Relay relay;
  int64_t now = monotonicUs();
  trace->startUs = now;
  relayStart(&relay, &loop, trace, opts.link, opts.idleS, opts.relayUpstream, fd, now);
  std::fprintf(stderr, "kestil-sim: relaying %s to %s\n",
               endpointText(opts.relayListen.sin_addr, ntohs(opts.relayListen.sin_port)).c_str(),
               endpointText(opts.relayUpstream.sin_addr, ntohs(opts.relayUpstream.sin_port)).c_str());
  int result = loopRun(&loop, &stopRequested);
  relayStop(&relay);
  std::fprintf(stderr, "kestil-sim: relayed %llu datagrams from clients, %llu from upstream\n",
               static_cast<unsigned long long>(relay.listen.datagramsRead),
               static_cast<unsigned long long>(relay.fromUpstream));
  return result == 0 ? 0 : 1;
}

int runServices(const SimOptions &opts, Trace *trace) {
  char rootReal[PATH_MAX];
  if (realpath(opts.root.c_str(), rootReal) == nullptr || access(rootReal, R_OK | X_OK) != 0 || chdir(rootReal) != 0) {
    std::fprintf(stderr, "kestil-sim: cannot serve %s: %s\n", opts.root.c_str(), std::strerror(errno));
    return 1;
  }
  std::string queueFile = opts.queueFile.empty() ? std::string(DEFAULT_QUEUE_FILE) : opts.queueFile;
  dwnq_init(queueFile.c_str());
  if (datafd < 0) {
    std::fprintf(stderr, "kestil-sim: cannot open the queue data file %s: %s\n", queueFile.c_str(),
                 std::strerror(errno));
    return 1;
  }
  int transferFd = bindOrSay(opts.addr, opts.port, "transfer service");
  if (transferFd < 0) return 1;
  int filemgrFd = bindOrSay(opts.addr, opts.filemgrPort, "file manager");
  if (filemgrFd < 0) {
    close(transferFd);
    return 1;
  }
  EventLoop loop;
  TransferService transfers;
  FileManagerService filemgr;
  int64_t now = monotonicUs();
  trace->startUs = now;
  transferServiceStart(&transfers, &opts, rootReal, &loop, trace, transferFd, now);
  filemgrServiceStart(&filemgr, rootReal, &loop, trace, opts.link, filemgrFd, now);
  std::fprintf(stderr, "kestil-sim: serving %s on %s, file manager on %s\n", rootReal,
               endpointText(opts.addr, opts.port).c_str(), endpointText(opts.addr, opts.filemgrPort).c_str());
  int result = loopRun(&loop, &stopRequested);
  transferServiceStop(&transfers);
  if (transfers.blocksServed != 0)
    std::fprintf(stderr, "kestil-sim: sent %llu datagrams for %llu blocks\n",
                 static_cast<unsigned long long>(transfers.datagramsSent),
                 static_cast<unsigned long long>(transfers.blocksServed));
  filemgrServiceStop(&filemgr);
  dwnq_cleanup();
  return result == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  SimOptions opts;
  std::string error;
  switch (parseSimOptions(argc, argv, &opts, &error)) {
    case ParseOutcome::Help: std::fputs(simUsage(), stdout); return 0;
    case ParseOutcome::Version: std::printf("kestil-sim %s\n", KESTIL_VERSION); return 0;
    case ParseOutcome::Error: std::fprintf(stderr, "kestil-sim: %s\n%s", error.c_str(), simUsage()); return 2;
    case ParseOutcome::Run: break;
  }
  // The queue file is named relative to where the simulator was started, not to the root.
  if (!opts.queueFile.empty() && opts.queueFile[0] != '/') {
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) != nullptr) opts.queueFile = std::string(cwd) + "/" + opts.queueFile;
  }
  // The first pass is given in wall-clock time; the link keeps time on the monotonic clock.
  if (opts.passStartUnixS != 0) {
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    int64_t wallUs = static_cast<int64_t>(wall.tv_sec) * 1000000 + wall.tv_nsec / 1000;
    opts.link.passStartUs = monotonicUs() + (opts.passStartUnixS * 1000000 - wallUs);
  }
  DBG_init("kestil-sim");
  DBG_setLevel(4);
  installSignals();
  // The capture is named relative to where the simulator was started, like the queue file;
  // it is opened before the services move into the root.
  PcapWriter pcap;
  if (!opts.pcapPath.empty()) {
    if (!pcapOpen(&pcap, opts.pcapPath.c_str(), monotonicUs())) {
      std::fprintf(stderr, "kestil-sim: cannot write the capture %s: %s\n", opts.pcapPath.c_str(),
                   std::strerror(errno));
      return 1;
    }
  }
  Trace trace;
  trace.out = takeStandardOutputForTrace(opts.verbose);
  trace.pcap = &pcap;
  int status = opts.relay ? runRelay(opts, &trace) : runServices(opts, &trace);
  if (status == 0) std::fprintf(stderr, "kestil-sim: stopped\n");
  if (trace.out != nullptr) std::fclose(trace.out);
  pcapClose(&pcap);
  return status;
}
