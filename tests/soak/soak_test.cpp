// Soak runs against kestil-sim. Downloads and kestil-pass drains killed with SIGKILL at seeded
// random instants: every kill must leave a partial download whose marked blocks hold the right
// bytes and a ledger that agrees with the archive, and the next runs must finish the work.
// And SIGINT in the middle of get, put, ls and report. KESTIL_SOAK_KILLS sets the kills of
// each kill soak: three in `make check`, a hundred in `make soak`.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>

#include <cstring>
#include <random>
#include <regex>
#include <set>

#include "client/state_file.hpp"
#include "common/common.hpp"
#include "pass/ledger.hpp"
#include "tests/support/sim_process.hpp"

#ifndef KESTIL_PASS_BIN
#error "KESTIL_PASS_BIN must name the kestil-pass executable"
#endif

namespace {

int killsWanted() {
  const char *kills = std::getenv("KESTIL_SOAK_KILLS");
  return kills != nullptr ? std::atoi(kills) : 3;
}

// Reads the state record of the partial download `local` into *st when its file holds exactly
// one; returns the file's size.
size_t readStateRecord(const std::string &dir, const std::string &local, SavedRXState *st) {
  const std::string rec = kt::readFile(dir + "/." + local + ".kestil_state");
  if (rec.size() == sizeof *st) std::memcpy(st, rec.data(), sizeof *st);
  return rec.size();
}

// What a kill left wrong in the partial download of `source` as `local`, or "".
std::string partialFault(const std::string &dir, const std::string &local, const std::string &source) {
  SavedRXState st;
  const size_t size = readStateRecord(dir, local, &st);
  if (size > sizeof st) return "a state record of " + std::to_string(size) + " bytes";
  if (size < sizeof st) return "";  // none yet, or cut while it was made: made anew
  const BlkRxVector &v = st.rxSet;
  if (!blkRxVectorIsUsable(&v)) return "a ring index or base out of place";
  if (v.lastBlk == 0) return "";  // no metadata yet: nothing marked counts
  if (v.file_size != source.size() || v.block_size != KESTIL_BLOCK_SIZE ||
      std::string(reinterpret_cast<const char *>(v.md5), 16) != kt::md5Raw(source))
    return "a record of another size, block size or digest";
  const std::string data = kt::readFile(dir + "/" + local);
  for (uint32_t b = 1; b < v.lastBlk; ++b) {
    const size_t at = blockOffset(b, KESTIL_BLOCK_SIZE);
    if (blkIsInVector(&v, b) &&
        (at > data.size() || data.compare(at, KESTIL_BLOCK_SIZE, source, at, KESTIL_BLOCK_SIZE)))
      return "block " + std::to_string(b) + " is marked received but the data file holds other bytes";
  }
  return "";
}

TEST(KillSoak, KilledGetsLeaveADownloadThatContinues) {
  simt::Served sim("127.0.9.21", kt::words("--loss 0.03 --dup 0.01 --seed 1 --pace 8000 --idle 5"));
  ASSERT_TRUE(sim.ready) << sim.err;
  const std::string source = kt::patternBytes(500000, 1), work = simt::mkdirs(sim.dir + "/client");
  ASSERT_TRUE(kt::writeFile(sim.root + "/payload.bin", source));
  auto get = [&](const std::string &local, bool resume, int killMs) {
    const std::vector<std::string> args =
        resume ? std::vector<std::string>{"resume", local}
               : std::vector<std::string>{"get", "-h", sim.addr, "-o", local, "payload.bin"};
    kt::Child run = kt::start(work, "kestil", args);
    return kt::finish(run, killMs).status;  // -1 once killed
  };
  const long long start = kt::nowMs();
  ASSERT_EQ(get("whole.bin", false, 120000), 0);
  const int span = static_cast<int>(kt::nowMs() - start);  // the kill instants fall within one whole get
  std::mt19937 rng(1);
  for (int round = 0, kills = 0; kills < killsWanted(); ++round) {
    const std::string local = "copy" + std::to_string(round) + ".bin";
    // A few runs killed at random instants; after the first, a resume as likely as a get.
    for (int attempt = 0, attempts = 1 + static_cast<int>(rng() % 4); attempt < attempts; ++attempt) {
      const bool resume = attempt > 0 && rng() % 2 == 0;
      const int at = static_cast<int>(rng() % static_cast<unsigned>(span));
      const int status = get(local, resume, at);
      if (status != -1) {  // ended before its kill: verified, or a resume that found no record
        ASSERT_TRUE(status == 0 || (resume && status == 1)) << local << " ended with " << status;
        break;
      }
      ++kills;
      ASSERT_EQ(partialFault(work, local, source), "") << local << ", killed after " << at << " ms";
    }
    ASSERT_EQ(get(local, false, 120000), 0) << local;  // one more get finishes it
    EXPECT_TRUE(kt::readFile(work + "/" + local) == source) << local;
    EXPECT_FALSE(kt::exists(work + "/." + local + ".kestil_state")) << local;
  }
}

// What is wrong with the ledger of `archive` against the archive and the digests of the
// queued files, or "". Once drained, each of them must be there complete.
std::string ledgerFault(const std::string &archive, const std::map<std::string, std::string> &md5s, bool drained) {
  if (!kt::exists(archive + "/.kestil-pass.db")) return drained ? "no ledger" : "";
  Ledger ledger;
  std::string error, integrity;
  if (!ledgerOpen(archive + "/.kestil-pass.db", false, &ledger, &error)) return "the ledger does not open: " + error;
  sqlite3_exec(
      ledger.db, "PRAGMA integrity_check",
      [](void *out, int, char **row, char **) { return static_cast<std::string *>(out)->append(row[0]), 0; },
      &integrity, nullptr);
  const std::vector<FileRow> files = ledgerFiles(ledger);
  ledgerClose(&ledger);
  if (integrity != "ok") return "the ledger's integrity check says " + integrity;
  std::set<std::string> complete;
  for (const FileRow &f : files) {
    if (f.state != FileState::Complete) continue;
    complete.insert(f.remote);
    const std::string path = archive + "/" + f.local;
    if (f.md5 != md5s.at(f.remote) || !kt::exists(path) || kt::md5Hex(kt::readFile(path)) != f.md5)
      return f.remote + " is complete in the ledger, not in the archive";
  }
  std::set<std::string> queued, held;
  for (const auto &[name, md5] : md5s) queued.insert(name);
  for (const auto &[name, content] : simt::archived(archive)) held.insert(name);
  if (drained && (complete != queued || held != queued)) return "drained, but not every file is complete and held";
  return "";
}

TEST(KillSoak, KilledDrainsKeepTheLedgerTrueAndTheNextRunDrains) {
  simt::Served sim("127.0.41.1", kt::words("--rate 800000 --loss 0.05 --seed 1"));
  ASSERT_TRUE(sim.ready) << sim.err;
  std::mt19937 rng(1);
  std::vector<simt::Queued> queue;
  std::map<std::string, std::string> md5s;
  for (uint8_t i = 0; i < 8; ++i) {
    const std::string name = "g" + std::to_string(i % 3) + "/file" + std::to_string(i) + ".bin";
    queue.push_back({name, kt::patternBytes(i == 0 ? 0 : 1 + rng() % 150000, i), uint8_t(i % 3), uint8_t(rng() % 5)});
    md5s[name] = kt::md5Hex(queue.back().content);
  }
  simt::serve(sim, queue);
  ASSERT_TRUE(sim.restart());
  // Each run in a process group of its own (setsid), so that the sessions a killed run leaves
  // behind can be waited for, and killed at the end.
  std::vector<pid_t> groups;
  struct Reaper {
    std::vector<pid_t> &groups;
    ~Reaper() {
      for (pid_t g : groups) kill(-g, SIGKILL);
    }
  } reaper{groups};
  auto drain = [&](const std::string &archive, int killMs) {
    kt::Child run =
        kt::start(sim.dir, "setsid", {KESTIL_PASS_BIN, "-h", sim.addr, "--archive", archive, "-q"}, "/usr/bin/setsid");
    groups.push_back(run.pid);
    return kt::finish(run, killMs).status;
  };
  const long long start = kt::nowMs();
  ASSERT_EQ(drain("whole", 120000), 0);
  const int span = static_cast<int>(kt::nowMs() - start);
  for (int round = 0, kills = 0; kills < killsWanted(); ++round) {
    const std::string archive = "archive" + std::to_string(round);
    int status = -1;
    while ((status = drain(archive, static_cast<int>(rng() % static_cast<unsigned>(span)))) == -1) {
      ++kills;
      ASSERT_EQ(ledgerFault(sim.dir + "/" + archive, md5s, false), "") << archive << ", kill " << kills;
    }
    ASSERT_EQ(status, 0) << archive;
    EXPECT_TRUE(simt::eventually(
        [&] { return std::all_of(groups.begin(), groups.end(), [](pid_t g) { return kill(-g, 0) != 0; }); }, 10000));
    ASSERT_EQ(ledgerFault(sim.dir + "/" + archive, md5s, true), "") << archive;
  }
}

// The times of the datagrams with `codes` (a pattern) that the simulator's trace shows in.
std::vector<double> arrivals(const std::string &trace, const std::string &codes) {
  const std::regex in(" *([0-9.]+) in +\\S+ code " + codes + " .*");
  std::vector<double> times;
  std::istringstream lines(trace);
  std::smatch m;
  for (std::string line; std::getline(lines, line);)
    if (std::regex_match(line, m, in)) times.push_back(std::stod(m[1]));
  return times;
}

TEST(InterruptSoak, GetEndsWithItsClosingRoundPutAtOnceAndLsAndReportCarryOn) {
  simt::Served sim("127.0.10.1", kt::words("--delay 150 --loss 0.02 --seed 3 --pace 1000 -v"));
  ASSERT_TRUE(sim.ready) << sim.err;
  const std::string work = simt::mkdirs(sim.dir + "/client"), big = kt::patternBytes(1500000, 7),
                    up = kt::patternBytes(400000, 8), state = work + "/.big.bin.kestil_state";
  ASSERT_TRUE(kt::writeFile(sim.root + "/big.bin", big) && kt::writeFile(sim.root + "/a.txt", "alpha\n") &&
              kt::writeFile(sim.root + "/sub/b.txt", std::string(250, 'b')) && kt::writeFile(work + "/up.bin", up));

  kt::Child get = kt::start(work, "kestil", {"get", "-h", sim.addr, "big.bin"});
  SavedRXState st;
  ASSERT_TRUE(simt::eventually(
      [&] { return readStateRecord(work, "big.bin", &st) == sizeof st && st.rxSet.uniqueBlkCnt > 100; }, 30000));
  kill(get.pid, SIGINT);
  kt::Result r = kt::finish(get, 60000);
  EXPECT_EQ(r.status, 13);
  EXPECT_TRUE(r.out.ends_with("\nWaiting for satellite to stop spamming...\n")) << r.out;
  const std::vector<double> closing = arrivals(sim.trace(), "14");
  ASSERT_EQ(closing.size(), 7u);  // 300 ms apart, with room for a loaded machine
  EXPECT_TRUE(closing.back() - closing.front() >= 0.8 && closing.back() - closing.front() <= 5.4);
  EXPECT_TRUE(kt::exists(work + "/big.bin") && kt::exists(state));
  EXPECT_EQ(kt::run(work, "kestil", {"resume", "big.bin"}, 120000).status, 0);
  EXPECT_TRUE(kt::readFile(work + "/big.bin") == big);
  EXPECT_FALSE(kt::exists(state));

  const size_t sent = arrivals(sim.trace(), "[5-8]").size();
  kt::Child put = kt::start(work, "kestil", {"put", "-h", sim.addr, "-p", "200", "-o", "up.bin", "up.bin"});
  ASSERT_TRUE(simt::eventually([&] { return arrivals(sim.trace(), "[5-8]").size() > sent + 50; }, 30000));
  kill(put.pid, SIGINT);
  r = kt::finish(put, 60000);
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(std::regex_search(
                  r.out, std::regex("Elapsed time: \\d\\d:\\d\\d:\\d\\d\\.\\d{6}(      Avg Bps: \\d+\\.\\d\\d)?\n$")) &&
              r.out.find("Done!") == std::string::npos)
      << r.out;
  EXPECT_FALSE(kt::exists(sim.root + "/up.bin"));

  ASSERT_EQ(kt::run(work, "kestil", {"qadd", "-h", sim.addr, "-g", "2", "a.txt"}, 30000).status, 0);
  for (const std::vector<std::string> &args :
       {std::vector<std::string>{"ls", "-h", sim.addr, "-o", "r", "."}, {"report", "-h", sim.addr}}) {
    const kt::Result quiet = kt::run(work, "kestil", args, 60000);
    const size_t seen = arrivals(sim.trace(), "\\d+").size();
    kt::Child noisy = kt::start(work, "kestil", args);
    ASSERT_TRUE(simt::eventually([&] { return arrivals(sim.trace(), "\\d+").size() > seen; }, 10000));
    for (int i = 0; i < 3 && !kt::childEnded(noisy.pid); ++i) {
      kill(noisy.pid, SIGINT);
      usleep(200000);  // spread over the fetch, not a readiness wait
    }
    r = kt::finish(noisy, 60000);
    EXPECT_EQ(std::pair(quiet.status, r.status), std::pair(0, 0)) << args[0];
    EXPECT_FALSE(simt::tableRows(quiet.out).empty()) << args[0];
    EXPECT_EQ(simt::tableRows(r.out), simt::tableRows(quiet.out)) << args[0];
  }
}

}  // namespace
