// Forked sessions: the child takes the pipe as standard output, drops every other descriptor
// of the parent, handles SIGINT as the commands do, and gets SIGINT should the parent die, so
// a download left alone still ends resumable.
#include "pass/worker.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "client/client.hpp"
#include "client/download.hpp"
#include "client/receive_session.hpp"
#include "station/station.hpp"

namespace {

constexpr size_t SEGMENT_MAX = 8192;
constexpr const char REPORT_STATE_PREFIX[] = ".q_report.kestil_state.";

void becomeChild(int outWrite, pid_t parent) {
  dup2(outWrite, STDOUT_FILENO);
  // The log's socket is the parent's: closed here, it is opened anew on first use.
  closelog();
  close_range(3, UINT_MAX, 0);
  struct sigaction sa {};
  sa.sa_handler = sigint_handler;  // no SA_RESTART: the wait must end
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
  prctl(PR_SET_PDEATHSIG, SIGINT);
  if (getppid() != parent) rx_sigint = 1;  // the parent died before the request above
  // A line at a time, so the parent sees "MD5 time!" when it is printed.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  DBG_init("kestil-pass");
  DBG_setLevel(7);
}

template <typename Body>
bool spawn(Worker *w, int64_t nowMs, Body body) {
  int p[2];
  if (pipe2(p, O_CLOEXEC) != 0) return false;
  std::fflush(stdout);
  std::fflush(stderr);
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) {
    becomeChild(p[1], parent);
    body();
    std::exit(0);
  }
  close(p[1]);
  if (pid < 0) {
    close(p[0]);
    return false;
  }
  fcntl(p[0], F_SETFL, O_NONBLOCK);
  w->pid = pid;
  w->outFd = p[0];
  w->startedMs = nowMs;
  return true;
}

// Opens the process-wide transfer socket `fd`; the session is aimed at the pass's target as is.
void openSocket() {
  sockaddr_in unused{};
  openTransferSocket(nullptr, KESTIL_PORT, &unused);
}

void chdirOrExit(const std::string &dir) {
  if (chdir(dir.c_str()) == 0) return;
  std::perror(dir.c_str());
  std::exit(1);
}

// One piece of output between two line ends or redraws.
void endSegment(Worker *w, int64_t nowMs) {
  const std::string &s = w->segment;
  if (!w->complete) {
    for (size_t at = s.find("   block "); at != std::string::npos; at = s.find("   block ", at + 1)) ++w->datagrams;
  }
  if (!w->complete && s.find("MD5 time!") != std::string::npos) {
    w->complete = true;
    w->completeMs = nowMs;
  }
  if (s.starts_with("Server returned error code: ")) w->errorLine = s;
  w->segment.clear();
}

}  // namespace

bool spawnDownload(Worker *w, const std::string &dir, const std::string &base, const std::string &remote,
                   const sockaddr_in &target, int timeoutS, int64_t nowMs) {
  w->kind = WorkerKind::Download;
  return spawn(w, nowMs, [&] {
    chdirOrExit(dir);
    openSocket();
    sockaddr_in t = target;
    // -z: the local file takes the remote size at the metadata, so nothing stale survives.
    fileGet(fd, &t, sizeof t, base.c_str(), remote.c_str(), 1, 0, timeoutS, 0, nullptr);
  });
}

bool spawnReport(Worker *w, const std::string &workDir, const sockaddr_in &target,
                 const std::vector<GroupLimit> &limits, int timeoutS, int64_t nowMs) {
  w->kind = WorkerKind::Report;
  return spawn(w, nowMs, [&] {
    chdirOrExit(workDir);
    openSocket();
    sockaddr_in t = target;
    outputFd = open(w->reportName.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (outputFd < 0) {
      std::perror(w->reportName.c_str());
      std::exit(1);
    }
    // Never the remove flag: entries not fetched yet must stay queued.
    SessionRequest request{KESTIL_QREPORT, 0, nullptr, limits.data(), static_cast<uint8_t>(limits.size())};
    ReceiveSession s = newSession(REPORT_POLICY, fd, &t, w->reportName.c_str(), request);
    char stateName[STATE_NAME_MAX];
    if (!runFetch(s, REPORT_STATE_PREFIX, stateName, sizeof stateName, timeoutS)) std::exit(1);
    std::exit(!s.success ? 11 : !s.md5Valid ? 12 : 0);
  });
}

bool spawnDequeue(Worker *w, const std::string &host, uint8_t group, const std::string &name, int64_t nowMs) {
  w->kind = WorkerKind::Dequeue;
  return spawn(w, nowMs, [&] {
    std::string g = std::to_string(group);
    char *argv[] = {const_cast<char *>("qrm"),
                    const_cast<char *>("-h"),
                    const_cast<char *>(host.c_str()),
                    const_cast<char *>("-g"),
                    g.data(),
                    const_cast<char *>(name.c_str()),
                    nullptr};
    std::exit(qrm_cmd(6, argv));
  });
}

std::string reportStateName(const std::string &reportName) { return REPORT_STATE_PREFIX + reportName; }

bool readWorkerOutput(Worker *w, int64_t nowMs) {
  char buf[4096];
  while (w->outFd >= 0) {
    ssize_t n = read(w->outFd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return true;
    if (n <= 0) {
      endSegment(w, nowMs);
      close(w->outFd);
      w->outFd = -1;
      break;
    }
    for (ssize_t i = 0; i < n; ++i) {
      if (buf[i] == '\r' || buf[i] == '\n' || w->segment.size() >= SEGMENT_MAX) endSegment(w, nowMs);
      if (buf[i] != '\r' && buf[i] != '\n') w->segment += buf[i];
    }
  }
  return false;
}

void reapWorker(Worker *w) {
  if (w->reaped) return;
  if (w->outFd >= 0) close(w->outFd);
  w->outFd = -1;
  int st = 0;
  while (waitpid(w->pid, &st, 0) < 0 && errno == EINTR) {}
  w->status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  w->reaped = true;
}

void signalWorker(Worker *w, int sig) {
  if (w->reaped) return;
  if (sig == SIGINT) w->interrupted = true;
  kill(w->pid, sig);
}
