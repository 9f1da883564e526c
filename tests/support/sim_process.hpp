// Runs kestil-sim for an end-to-end test: started on the test's own loopback address,
// ready once it has printed its listening line, stopped with SIGTERM; every wait bounded.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/test_support.hpp"

#ifndef KESTIL_SIM_BIN
#error "KESTIL_SIM_BIN must name the kestil-sim executable"
#endif

namespace simt {

using kt::nowMs;

// Waits, bounded, until `pred` holds.
template <typename Pred>
bool eventually(Pred pred, int timeoutMs, int stepUs = 5000) {
  for (long long deadline = nowMs() + timeoutMs; !pred();) {
    if (nowMs() > deadline) return false;
    usleep(static_cast<useconds_t>(stepUs));
  }
  return true;
}

struct Sim {
  pid_t pid = -1;
  int errFd = -1;
  std::string err;        // its standard error so far
  std::string tracePath;  // its standard output: the trace with -v

  Sim() = default;
  Sim(const Sim &) = delete;
  Sim &operator=(const Sim &) = delete;
  ~Sim() { stop(); }

  // Reads standard error until it holds a whole line (or, with `toEnd`, until it closes), or
  // until the deadline.
  void readErr(int timeoutMs, bool toEnd = false) {
    for (long long deadline = nowMs() + timeoutMs; errFd >= 0 && (toEnd || err.find('\n') == std::string::npos);) {
      long long left = deadline - nowMs();
      pollfd p{errFd, POLLIN, 0};
      if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) return;
      char buf[512];
      ssize_t n = read(errFd, buf, sizeof buf);
      if (n <= 0) {
        close(errFd);
        errFd = -1;
      } else {
        err.append(buf, static_cast<size_t>(n));
      }
    }
  }
  // Waits for the exit (after `sig`, unless 0); the exit status, or -1 if it had to be killed.
  int wait(int sig, int timeoutMs = 5000) {
    if (pid < 0) return -1;
    if (sig != 0) kill(pid, sig);
    int st = 0;
    if (!eventually([&] { return waitpid(pid, &st, WNOHANG) == pid; }, timeoutMs, 2000)) {
      kill(pid, SIGKILL);
      waitpid(pid, &st, 0);
      st = -1;
    }
    pid = -1;
    readErr(200, true);
    if (errFd >= 0) close(errFd);
    errFd = -1;
    return st >= 0 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  }
  int stop() { return wait(SIGTERM); }
};

// Starts kestil-sim in `cwd`; its trace goes to cwd/sim-trace.txt. True once it listens.
inline bool start(Sim *sim, const std::string &cwd, const std::vector<std::string> &args, int timeoutMs = 5000) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return false;
  sim->tracePath = cwd + "/sim-trace.txt";
  sim->err.clear();
  sim->pid = fork();
  if (sim->pid == 0) {
    int out = open(sim->tracePath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (chdir(cwd.c_str()) != 0 || out < 0) _exit(127);
    dup2(out, 1);
    dup2(pipeFds[1], 2);
    std::vector<char *> argv = {const_cast<char *>("kestil-sim")};
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(KESTIL_SIM_BIN, argv.data());
    _exit(127);
  }
  close(pipeFds[1]);
  sim->errFd = pipeFds[0];
  sim->readErr(timeoutMs);
  return sim->err.starts_with("kestil-sim: serving") || sim->err.starts_with("kestil-sim: relaying");
}

// Runs kestil-sim to its own end (option and set-up errors).
inline kt::Result runToEnd(const std::string &cwd, const std::vector<std::string> &args, int timeoutMs) {
  Sim sim;
  start(&sim, cwd, args, timeoutMs);
  kt::Result r;
  r.status = sim.wait(0, timeoutMs);
  r.err = sim.err;
  return r;
}

// The names in a directory, sorted, without "." and "..".
inline std::vector<std::string> entries(const std::string &dir) {
  std::vector<std::string> names;
  if (DIR *d = opendir(dir.c_str())) {
    while (dirent *e = readdir(d)) {
      if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

inline std::string mkdirs(const std::string &path) {
  for (size_t i = 1; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
  }
  return path;
}

}  // namespace simt
