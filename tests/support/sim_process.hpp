// Runs kestil-sim for an end-to-end test: started on the test's own loopback address, ready
// once it has printed its listening line, stopped with SIGTERM; every wait bounded.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/queue/queue_records.hpp"
#include "tests/support/test_support.hpp"

#ifndef KESTIL_SIM_BIN
#error "KESTIL_SIM_BIN must name the kestil-sim executable"
#endif

namespace simt {

// Waits, bounded, until `pred` holds.
template <typename Pred>
bool eventually(Pred pred, int timeoutMs) {
  for (long long deadline = kt::nowMs() + timeoutMs; !pred(); usleep(5000))
    if (kt::nowMs() > deadline) return false;
  return true;
}

inline std::string mkdirs(const std::string &path) {
  std::filesystem::create_directories(path);
  return path;
}

// The rows of the listing table in `out` (after its header line), in order or sorted.
inline std::vector<std::string> tableRows(const std::string &out, bool sorted = false) {
  std::vector<std::string> rows;
  std::istringstream in(out);
  bool on = false;
  for (std::string line; std::getline(in, line); on = on || line == "flags    group    priority size     filename")
    if (on) rows.push_back(line);
  if (sorted) std::sort(rows.begin(), rows.end());
  return rows;
}

// A running kestil-sim: `err` is its standard error, its standard output is the trace (-v).
struct Sim {
  kt::Child child;
  kt::Result end;  // once stopped
  std::string err;
  Sim() = default;
  Sim(const Sim &) = delete;
  Sim &operator=(const Sim &) = delete;
  ~Sim() { stop(); }
  std::string trace() const { return child.pid >= 0 ? kt::readFile(child.outPath) : end.out; }
  // Sends `sig` and waits for the exit: its status, or -1 if it had to be killed.
  int stop(int sig = SIGTERM) {
    if (child.pid < 0) return -1;
    kill(child.pid, sig);
    end = kt::finish(child, 5000);
    err = end.err;
    return end.status;
  }
  // Starts kestil-sim in `cwd`; true once it says it serves or relays.
  bool start(const std::string &cwd, const std::vector<std::string> &args) {
    child = kt::start(cwd, "kestil-sim", args, KESTIL_SIM_BIN);
    eventually([&] { return (err = kt::readFile(child.errPath)).find('\n') != err.npos || kt::childEnded(child.pid); },
               5000);
    return err.starts_with("kestil-sim: serving") || err.starts_with("kestil-sim: relaying");
  }
};

// kestil-sim serving dir/root on `addr` (port 3223, file manager 3224) with `extra` options;
// `ready` once it listens. `run` runs a command against it in `cwd`.
struct Served : Sim {
  std::string dir = kt::makeTempDir(), root = mkdirs(dir + "/root");
  std::string addr;
  std::vector<std::string> args;
  bool ready = false;
  Served(const char *ip, std::vector<std::string> extra = {}) : addr(ip), args(std::move(extra)) {
    args.insert(args.begin(), {"--root", "root", "--addr", addr});
    ready = start(dir, args);
  }
  bool restart() { return stop() == 0 && start(dir, args); }
  kt::Result run(const std::string &cwd, const std::string &command, std::vector<std::string> a, int ms = 30000) const {
    a.insert(a.begin(), {"-h", addr});
    return kt::run(cwd, command, a, ms);
  }
};

// A file kestil-sim serves and queues.
struct Queued {
  std::string name;
  std::string content;  // written under the root unless the name leaves it
  uint8_t group, priority;
};

// Writes the files of `queue` under the root and the queue's data file; kestil-sim reads it
// when it starts.
inline void serve(const Served &sim, const std::vector<Queued> &queue) {
  std::string qdata;
  for (const Queued &q : queue) {
    std::filesystem::create_directories(std::filesystem::path(sim.root + "/" + q.name).parent_path());
    ASSERT_TRUE(kt::writeFile(sim.root + "/" + q.name, q.content));
    qdata += kt::queueRecord(q.name, q.group, q.priority);
  }
  ASSERT_TRUE(kt::writeFile(sim.root + "/.kestil-sim.qdata", qdata));
}

// A kestil-pass archive's files, its own left out: relative name to content.
inline std::map<std::string, std::string> archived(const std::string &archive) {
  namespace fs = std::filesystem;
  std::map<std::string, std::string> files;
  std::error_code ec;
  for (const auto &e : fs::recursive_directory_iterator(archive, ec))
    if (std::string rel = fs::relative(e.path(), archive); e.is_regular_file() && !rel.starts_with(".kestil-pass"))
      files[rel] = kt::readFile(e.path());
  return files;
}

}  // namespace simt
