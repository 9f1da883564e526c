// kestil-pass against kestil-sim: a queue of mixed files over groups and priorities drained
// across the passes of a schedule through a lossy link, partial files continued, not
// restarted, past windows skipped; and, on a clean link, removal from the queue of what is
// complete, an entry the archive cannot take failing alone, and the keeping of an earlier
// version (or the reuse of its row once it was removed by hand). Every file is checked with
// MD5 and against the ledger.
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <map>

#include "pass/ledger.hpp"
#include "pass/schedule.hpp"
#include "tests/queue/queue_records.hpp"
#include "tests/support/sim_process.hpp"

#ifndef KESTIL_PASS_BIN
#error "KESTIL_PASS_BIN must name the kestil-pass executable"
#endif

namespace {

namespace fs = std::filesystem;

// kestil-sim for one test; its folder goes once it has stopped.
struct Sim : simt::Served {
  using Served::Served;
  ~Sim() {
    stop();
    fs::remove_all(dir);
  }
};

kt::Result pass(const simt::Served &sim, const std::string &line, int ms = 60000) {
  return kt::run(sim.dir, "kestil-pass", kt::words("-h " + sim.addr + " --archive arch " + line), ms, KESTIL_PASS_BIN);
}

TEST(SimPass, AScheduleDrainsTheQueueAcrossLossyPassesContinuingPartialFiles) {
  // 600 kbit/s, 5% loss each way: some 58 kB a second, so the 2 MiB file spans three or four of
  // the seven passes of 12 s, with room for a loaded host.
  const int64_t t0 = time(nullptr) + 2, up = 12, down = 1, passes = 7;
  Sim sim("127.0.40.10", {"--rate", "600000", "--loss", "0.05", "--seed", "3", "--pass", "12:1", "--pass-start",
                          std::to_string(t0), "--idle", "6"});
  ASSERT_TRUE(sim.ready) << sim.err;
  const std::string big = kt::patternBytes(2 << 20, 1);
  simt::serve(sim, {{"big/img.raw", big, 1, 5},
                    {"small/a.txt", kt::patternBytes(5000, 2), 1, 2},
                    {"small/b.txt", kt::patternBytes(20000, 3), 1, 9},
                    {"one.bin", kt::patternBytes(141, 4), 2, 0},
                    {"empty.bin", "", 0, 0},
                    {"../outside.bin", "x", 3, 0}});  // queued, and refused: it leaves the root
  ASSERT_TRUE(sim.restart());
  const std::string past = formatUtc((t0 - 60) * 1000) + " to " + formatUtc((t0 - 30) * 1000);
  std::string schedule = formatUtc((t0 - 60) * 1000) + " " + formatUtc((t0 - 30) * 1000) + "\n";
  for (int64_t k = 0; k < passes; ++k)
    schedule += formatUtc((t0 + k * (up + down)) * 1000) + " " + formatUtc((t0 + k * (up + down) + up) * 1000) + "\n";
  ASSERT_TRUE(kt::writeFile(sim.dir + "/schedule", schedule));

  kt::Child run = kt::start(sim.dir, "kestil-pass", kt::words("-h " + sim.addr + " --archive arch --schedule schedule"),
                            KESTIL_PASS_BIN);
  ASSERT_TRUE(simt::eventually([&] { return !kt::readFile(sim.dir + "/arch/.kestil-pass.lock").empty(); }, 5000));
  kt::Result second = pass(sim, "--for 5");
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.err, "kestil-pass: another kestil-pass (pid " + std::to_string(run.pid) + ") is working on " +
                            fs::canonical(sim.dir + "/arch").string() + "\n");
  kt::Result r = kt::finish(run, 110000);
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("../outside.bin: refused, a \"..\" component would leave the archive\n"), std::string::npos);
  EXPECT_TRUE(r.out.starts_with("window " + past + " is past: skipped\n")) << r.out;

  std::map<std::string, std::string> files = simt::archived(sim.dir + "/arch");
  ASSERT_EQ(files.size(), 5u);
  for (const auto &[name, content] : files)
    EXPECT_EQ(kt::md5Hex(content), kt::md5Hex(kt::readFile(sim.root + "/" + name)));

  Ledger ledger;
  std::string error;
  ASSERT_TRUE(ledgerOpen(sim.dir + "/arch/.kestil-pass.db", false, &ledger, &error)) << error;
  std::map<std::string, int> states;
  int64_t bigId = 0;
  for (const FileRow &f : ledgerFiles(ledger)) {
    states[fileStateName(f.state)]++;
    if (f.remote == "big/img.raw") bigId = f.id;
    if (f.state == FileState::Complete) {
      EXPECT_EQ(kt::md5Hex(files.at(f.local)), f.md5);
    }
  }
  EXPECT_EQ(states, (std::map<std::string, int>{{"complete", 5}, {"refused", 1}}));
  EXPECT_EQ(ledgerPasses(ledger).size(), static_cast<size_t>(passes));
  // The big file came down over several passes, each continuing the last: nowhere near
  // twice the blocks it needs.
  uint64_t passesWithBytes = 0, bytes = 0, datagrams = 0;
  for (const FilePassBytes &b : ledgerFilePassBytes(ledger)) {
    if (b.fileId != bigId) continue;
    passesWithBytes += b.bytes > 0;
    bytes += b.bytes;
    datagrams += b.datagrams;
  }
  EXPECT_GE(passesWithBytes, 2u);
  EXPECT_EQ(bytes, big.size());
  EXPECT_LT(datagrams, 2 * (big.size() / 141 + 1));
  ledgerClose(&ledger);
  EXPECT_EQ(sim.stop(), 0);
}

TEST(SimPass, ConfirmRemovesWhatIsCompleteAndANewVersionKeepsTheEarlierOne) {
  Sim sim("127.0.40.11");
  ASSERT_TRUE(sim.ready) << sim.err;
  simt::serve(sim, {{"d/a.txt", kt::patternBytes(1000, 5), 0, 0},
                    {"b.txt", kt::patternBytes(3000, 6), 4, 1},
                    {"../outside.bin", "x", 3, 0},
                    {"e/c.txt", "c", 2, 0}});
  ASSERT_TRUE(sim.restart());
  ASSERT_TRUE(kt::writeFile(sim.dir + "/arch/e", "a file where a folder must go"));
  kt::Result first = pass(sim, "--confirm --for 30");
  ASSERT_EQ(first.status, 0) << first.out << first.err;
  EXPECT_NE(first.out.find("e/c.txt: failed: "), std::string::npos) << first.out;
  EXPECT_EQ(kt::queueRecords(kt::readFile(sim.root + "/.kestil-sim.qdata")),
            (std::vector<std::string>{"e/c.txt/2/0/0", "../outside.bin/3/0/0"}));

  // A new version, queued again: the archived one stays beside it under a suffixed name.
  ASSERT_TRUE(kt::writeFile(sim.root + "/d/a.txt", kt::patternBytes(1500, 7)));
  ASSERT_EQ(sim.run(sim.dir, "dlq-add", {"d/a.txt"}).status, 0);
  kt::Result second = pass(sim, "--for 30 -q");
  ASSERT_EQ(second.status, 0) << second.out << second.err;
  EXPECT_TRUE(second.out.starts_with("pass 2 ended (drained) after ")) << second.out;
  EXPECT_NE(second.out.find(": 1 complete, 0 partial, 1 failed, 1 refused, 0 held before; 1500 bytes"),
            std::string::npos)
      << second.out;
  std::map<std::string, std::string> files = simt::archived(sim.dir + "/arch");
  EXPECT_EQ(files["d/a.txt"], kt::patternBytes(1500, 7));
  EXPECT_EQ(files["d/a.txt.~1~"], kt::patternBytes(1000, 5));
  kt::Result status = kt::run(sim.dir, "kestil-pass", {"--status", "--archive", "arch"}, 5000, KESTIL_PASS_BIN);
  EXPECT_TRUE(status.out.starts_with("files: 2 complete, 0 partial, 1 failed, 1 refused, 1 earlier versions\n"))
      << status.out;

  // Removed from the archive by hand, then queued in a new version: its ledger row is taken
  // again, and there is no earlier version to keep. A pass with no window runs until drained.
  fs::remove(sim.dir + "/arch/d/a.txt");
  ASSERT_TRUE(kt::writeFile(sim.root + "/d/a.txt", kt::patternBytes(2000, 8)));
  ASSERT_EQ(sim.run(sim.dir, "dlq-rm", {"d/a.txt"}).status, 0);  // queued again at its new size
  ASSERT_EQ(sim.run(sim.dir, "dlq-add", {"d/a.txt"}).status, 0);
  kt::Result third = pass(sim, "-q");
  ASSERT_EQ(third.status, 0) << third.out << third.err;
  EXPECT_TRUE(kt::readFile(sim.dir + "/arch/d/a.txt") == kt::patternBytes(2000, 8));
  status = kt::run(sim.dir, "kestil-pass", {"--status", "--archive", "arch"}, 5000, KESTIL_PASS_BIN);
  EXPECT_TRUE(status.out.starts_with("files: 2 complete, 0 partial, 1 failed, 1 refused, 1 earlier versions\n"))
      << status.out;
}

}  // namespace
