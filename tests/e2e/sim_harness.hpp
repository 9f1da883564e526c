// Runs kestil-sim for an end-to-end test: started on the test's own loopback address over a
// temporary root, ready once it has printed its listening line, stopped with SIGTERM.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/test_support.hpp"

#ifndef KESTIL_SIM_BIN
#error "KESTIL_SIM_BIN must name the kestil-sim executable"
#endif

namespace simt {

inline long long nowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

struct Sim {
  pid_t pid = -1;
  int errFd = -1;
  std::string err;        // what it printed on standard error so far
  std::string tracePath;  // its standard output: the trace with -v
  int status = -1;

  Sim() = default;
  Sim(const Sim &) = delete;
  Sim &operator=(const Sim &) = delete;
  ~Sim() { stop(); }

  // Reads standard error until `text` appears, the simulator exits, or the deadline.
  bool waitForErr(const std::string &text, int timeoutMs) {
    long long deadline = nowMs() + timeoutMs;
    while (err.find(text) == std::string::npos) {
      long long left = deadline - nowMs();
      if (left <= 0 || errFd < 0) return false;
      pollfd p{errFd, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
      char buf[512];
      ssize_t n = read(errFd, buf, sizeof buf);
      if (n <= 0) {
        close(errFd);
        errFd = -1;
        return err.find(text) != std::string::npos;
      }
      err.append(buf, static_cast<size_t>(n));
    }
    return true;
  }

  // SIGTERM, then the exit status (-1 if it had to be killed).
  int stop(int timeoutMs = 5000) {
    if (pid < 0) return status;
    kill(pid, SIGTERM);
    long long deadline = nowMs() + timeoutMs;
    int st = 0;
    pid_t done = 0;
    while ((done = waitpid(pid, &st, WNOHANG)) == 0 && nowMs() < deadline) usleep(2000);
    if (done != pid) {
      kill(pid, SIGKILL);
      waitpid(pid, &st, 0);
      st = -1;
    }
    waitForErr("\n\x01", 200);  // collect what is left; the marker never appears
    if (errFd >= 0) close(errFd);
    errFd = -1;
    pid = -1;
    status = st >= 0 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return status;
  }
};

// Starts kestil-sim in `cwd` with `args`; its trace goes to cwd/sim-trace.txt. True once it
// listens; false if it did not within the time-out (or exited: see sim->err).
inline bool start(Sim *sim, const std::string &cwd, const std::vector<std::string> &args, int timeoutMs = 5000) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return false;
  sim->tracePath = cwd + "/sim-trace.txt";
  pid_t pid = fork();
  if (pid == 0) {
    if (chdir(cwd.c_str()) != 0) _exit(127);
    int out = open(sim->tracePath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int in = open("/dev/null", O_RDONLY);
    if (out < 0 || in < 0) _exit(127);
    dup2(in, 0);
    dup2(out, 1);
    dup2(pipeFds[1], 2);
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>("kestil-sim"));
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(KESTIL_SIM_BIN, argv.data());
    _exit(127);
  }
  close(pipeFds[1]);
  sim->pid = pid;
  sim->errFd = pipeFds[0];
  if (!sim->waitForErr("\n", timeoutMs)) return false;
  return sim->err.starts_with("kestil-sim: serving") || sim->err.starts_with("kestil-sim: relaying");
}

// Runs kestil-sim to its end (for option and set-up errors).
inline kt::Result runToEnd(const std::string &cwd, const std::vector<std::string> &args, int timeoutMs) {
  Sim sim;
  kt::Result r;
  start(&sim, cwd, args, timeoutMs);
  long long deadline = nowMs() + timeoutMs;
  int st = 0;
  pid_t done = 0;
  while ((done = waitpid(sim.pid, &st, WNOHANG)) == 0 && nowMs() < deadline) usleep(2000);
  if (done != sim.pid) {
    r.timedOut = true;
    return r;  // the destructor stops it
  }
  sim.pid = -1;
  sim.waitForErr("\n\x01", 200);
  r.err = sim.err;
  r.out = kt::readFile(sim.tracePath);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

// Waits, bounded, until `pred` holds; for effects of datagrams that get no answer.
template <typename Pred>
bool eventually(Pred pred, int timeoutMs) {
  long long deadline = nowMs() + timeoutMs;
  while (!pred()) {
    if (nowMs() > deadline) return false;
    usleep(5000);
  }
  return true;
}

// The names in a directory, sorted, without "." and "..".
inline std::vector<std::string> entries(const std::string &dir) {
  std::vector<std::string> names;
  DIR *d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (dirent *e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

inline std::string mkdirs(const std::string &path) {
  std::string cur;
  for (size_t i = 0; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      if (!cur.empty()) mkdir(cur.c_str(), 0755);
    }
    if (i < path.size()) cur.push_back(path[i]);
  }
  return path;
}

}  // namespace simt
