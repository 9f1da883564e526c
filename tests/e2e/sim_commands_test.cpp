// Every command against kestil-sim, one scenario each: get and resume across a pass gap with
// progress on the way, error reports, put, rm, ls with each flag and lsread of what it saved,
// the queue through the file manager and report, a relay, and get and put through lossy
// links; and what the simulator says when it cannot start. Every file is checked with MD5.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/sim_process.hpp"

namespace {

const std::string HEADER = "flags    group    priority size     filename";

TEST(SimStartup, BadOptionsPortsInUseAndUnservableRootsAreNamed) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer squatter;
  ASSERT_TRUE(squatter.bind("127.0.7.61", 3224));
  const std::tuple<std::string, int, std::string> cases[] = {
      {"--loss 10", 2, "kestil-sim: bad value for --loss: '10' (a fraction from 0 to 1, 0.1 = 10%)\nusage: "},
      {"--addr 127.0.7.61", 1, "kestil-sim: cannot bind the file manager to 127.0.7.61:3224: Address already in use\n"},
      {"--root no-such-dir --addr 127.0.7.62", 1, "kestil-sim: cannot serve no-such-dir: No such file or directory\n"},
  };
  for (const auto &[args, status, err] : cases) {
    kt::Result r = kt::run(dir, "kestil-sim", kt::words(args), 5000, KESTIL_SIM_BIN);
    EXPECT_EQ(r.status, status) << args;
    EXPECT_EQ(r.err.substr(0, err.size()), err);
  }
}

TEST(SimStartup, StopsWithStatusZeroOnSigint) {
  simt::Sim sim;
  ASSERT_TRUE(simt::start(&sim, kt::makeTempDir(), {"--addr", "127.0.7.63"})) << sim.err;
  EXPECT_EQ(sim.stop(SIGINT), 0);
}

TEST(SimGet, PassGapEndsTheGetAndResumeCompletesItWhileProgressShowsTheRecord) {
  // 64 kbit/s carries about 45 blocks a second: more than the first 2-second pass holds. The
  // 3-second gap is longer than get's -t 1, shorter than resume's -t 10 and the idle limit.
  simt::Served sim("127.0.7.2", {"--rate", "64000", "--pass", "2:3", "--idle", "20", "-v"});
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string content = kt::patternBytes(20000, 2);  // 142 blocks
  ASSERT_TRUE(kt::writeFile(simt::mkdirs(sim.root + "/data") + "/pass.bin", content));
  kt::Result got = sim.run(sim.dir, "kestil-get", {"-t", "1", "data/pass.bin"});
  EXPECT_EQ(got.status, 13) << got.out;
  EXPECT_NE(got.out.find("File is 20000 bytes!\n"), std::string::npos) << got.out;
  EXPECT_TRUE(got.out.ends_with("\nWaiting for satellite to stop spamming...\n")) << got.out;

  kt::Child resume = kt::start(sim.dir, "kestil", {"resume", "-t", "10", "pass.bin"});
  kt::Result progress = kt::run(sim.dir, "kestil-progress", {"pass.bin"}, 10000);
  EXPECT_EQ(progress.status, 0) << progress.out << progress.err;
  EXPECT_TRUE(progress.out.starts_with("State file is .pass.bin.kestil_state\nRemote file: data/pass.bin\n"))
      << progress.out;
  EXPECT_NE(progress.out.find("Remote host: 127.0.7.2:3223\nBlock size: 141\nPercent complete: "), std::string::npos);

  kt::Result resumed = kt::finish(resume, 60000);
  EXPECT_EQ(resumed.status, 0) << resumed.out;
  EXPECT_NE(resumed.out.find("client done\nReceived file pass.bin...\nElapsed time: "), std::string::npos);
  EXPECT_EQ(kt::md5Hex(kt::readFile(sim.dir + "/pass.bin")), kt::md5Hex(content));
  EXPECT_FALSE(kt::exists(sim.dir + "/.pass.bin.kestil_state"));
  EXPECT_EQ(sim.stop(), 0);
  EXPECT_NE(sim.trace().find("DROPPED(pass)"), std::string::npos);
  EXPECT_NE(sim.trace().find("transfer of 'data/pass.bin' ends: complete"), std::string::npos);
}

TEST(SimGet, MissingAndRefusedFilesGetErrorReports) {
  simt::Served sim("127.0.7.3");
  ASSERT_TRUE(sim.ready) << sim.err;
  simt::mkdirs(sim.root + "/data");
  ASSERT_TRUE(kt::writeFile(sim.dir + "/outside.bin", "secret"));
  // Reason (1 cannot open, 2 path refused, 4 not a file), errno, and the get's code 10.
  const std::pair<const char *, const char *> cases[] = {{"data/none.bin", "1, 2, 10"},
                                                         {"../outside.bin", "2, 13, 10"},
                                                         {"/etc/hostname", "2, 13, 10"},
                                                         {"data/../../outside.bin", "2, 13, 10"},
                                                         {"data", "4, 21, 10"}};
  for (auto [path, codes] : cases)
    EXPECT_EQ(kt::shown(sim.run(sim.dir, "kestil-get", {"-t", "5", "-o", "x", path})),
              (kt::Shown{14, std::string("Server returned error code: ") + codes + "\n", ""}))
        << path;
}

TEST(SimPut, StoresTheFileWithItsTimeAndRefusesTargetsItMustNotWrite) {
  simt::Served sim("127.0.7.10");
  ASSERT_TRUE(sim.ready) << sim.err;
  const std::string &dir = sim.dir, up = simt::mkdirs(sim.root + "/up");
  std::string content = kt::patternBytes(25000, 3);
  ASSERT_TRUE(kt::writeFile(dir + "/local.bin", content));
  timespec times[2] = {{1714568865, 0}, {1714568865, 0}};  // 2024-05-01 13:07:45 UTC
  ASSERT_EQ(utimensat(AT_FDCWD, (dir + "/local.bin").c_str(), times, 0), 0);
  kt::Result r = sim.run(dir, "kestil-put", {"-p", "300", "-o", "up/stored.bin", "local.bin"}, 60000);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("Done!\nElapsed time: "), std::string::npos) << r.out;
  EXPECT_EQ(kt::md5Hex(kt::readFile(up + "/stored.bin")), kt::md5Hex(content));
  struct stat st {};
  ASSERT_EQ(stat((up + "/stored.bin").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1714568865);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_EQ(kt::namesStartingWith(up, ""), std::vector<std::string>{"stored.bin"});  // no part file left

  // Out of the root, absolute, the root itself, a directory in the way.
  for (const char *target : {"../escaped.bin", "/tmp/escaped.bin", ".", "up"}) {
    kt::Result refused = sim.run(dir, "kestil-put", {"-o", target, "local.bin"});
    EXPECT_EQ(refused.status, 1) << target;
    EXPECT_TRUE(refused.out.ends_with("PUT failure\n")) << target << ": " << refused.out;
  }
  EXPECT_FALSE(kt::exists(dir + "/escaped.bin"));
}

// Small uploads end however the acknowledgements fall: an empty file at a rate below 1
// resends its only block, the metadata, at every idle tick, and only the closing form of the
// acknowledgement that a finished upload answers with ends it.
TEST(SimPut, SmallUploadsEndAtAnyRateAndAcknowledgementInterval) {
  simt::Served fast("127.0.7.11", {"--ack-interval", "500"}), slow("127.0.7.12", {"--ack-interval", "1500"});
  std::vector<std::pair<std::string, kt::Child>> puts;
  for (simt::Served *sim : {&fast, &slow}) {
    ASSERT_TRUE(sim->ready) << sim->err;
    for (size_t size : {0, 100, 7 * 141}) {
      std::string name = "f" + std::to_string(size);
      ASSERT_TRUE(kt::writeFile(sim->dir + "/" + name, kt::patternBytes(size, 5)));
      for (const char *rate : {"0.5", "6"}) {
        std::vector<std::string> args = {"-h", sim->addr, "-t", "20", "-p", rate, "-o", name + "-" + rate, name};
        puts.emplace_back(sim->root + "/" + name + "-" + rate, kt::start(sim->dir, "kestil-put", args));
      }
    }
  }
  for (auto &[stored, child] : puts) {
    kt::Result r = kt::finish(child, 45000);
    EXPECT_EQ(r.status, 0) << stored << ": " << r.out.substr(r.out.size() > 300 ? r.out.size() - 300 : 0);
    EXPECT_NE(r.out.find("Done!\nElapsed time: "), std::string::npos) << stored;
    EXPECT_TRUE(kt::exists(stored)) << stored;
  }
}

// rm gets no answer, so each request ends with a marker file: once the marker is gone, the
// names before it have been handled.
TEST(SimRm, RemovesFilesAndWithRecursionDirectoriesButNothingOutsideNorTheRoot) {
  simt::Served sim("127.0.7.20");
  ASSERT_TRUE(sim.ready) << sim.err;
  const std::string &dir = sim.dir, &root = sim.root;
  ASSERT_TRUE(kt::writeFile(simt::mkdirs(root + "/tree/sub") + "/f", "f") && kt::writeFile(root + "/a", "a") &&
              kt::writeFile(dir + "/outside", "o"));
  int markers = 0;
  auto rm = [&](std::vector<std::string> args) {
    std::string marker = "marker" + std::to_string(markers++);
    kt::writeFile(root + "/" + marker, "m");
    args.push_back(marker);
    return sim.run(dir, "kestil-rm", args, 10000).status == 0 &&
           simt::eventually([&] { return !kt::exists(root + "/" + marker); }, 5000);
  };
  ASSERT_TRUE(rm({"-r", "-f", "../outside", dir + "/outside", "tree/../..", ".", ""}));
  EXPECT_TRUE(kt::exists(dir + "/outside") && kt::exists(root + "/a") && kt::exists(root + "/tree/sub/f"));
  ASSERT_TRUE(rm({"a", "tree"}));  // a directory without -r stays
  EXPECT_FALSE(kt::exists(root + "/a"));
  EXPECT_TRUE(kt::exists(root + "/tree/sub/f"));
  ASSERT_TRUE(rm({"-r", "tree"}));
  EXPECT_EQ(kt::namesStartingWith(root, ""), std::vector<std::string>{".kestil-sim.qdata"});  // its own queue
}

// Paths that leave the root get an empty listing.
TEST(SimListing, EachFlagListsWhatItShouldAndLsreadPrintsTheSavedListing) {
  simt::Served sim("127.0.7.40");
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string x = simt::mkdirs(sim.root + "/x/d") + "/..";
  ASSERT_TRUE(kt::writeFile(x + "/b", "12345") && kt::writeFile(x + "/.h", "123") &&
              kt::writeFile(x + "/d/c", "1234567"));
  const std::string b = "0        0        0        5        x/b";
  const std::string h = "0        0        0        3        x/.h";
  const std::string c = "0        0        0        7        x/d/c";
  const std::string d = "80       0        0        0        x/d";
  const std::pair<const char *, std::vector<std::string>> cases[] = {
      {"", {b, d}}, {"a", {h, b, d}}, {"r", {b, c}}, {"ar", {h, b, c}}};
  int run = 0;
  for (const auto &[flags, expected] : cases) {
    std::string work = simt::mkdirs(sim.dir + "/work" + std::to_string(run++));  // one saved listing each
    kt::Result r = sim.run(work, "kestil-ls", {"-t", "5", "-o", flags, "x"});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(simt::tableRows(r.out, true), expected) << flags << ": " << r.out;  // in directory order: sorted
    std::vector<std::string> saved = kt::namesStartingWith(work, "");
    ASSERT_EQ(saved.size(), 1u);
    kt::Result again = kt::run(work, "kestil-lsread", {saved[0]}, 10000);
    EXPECT_EQ(again.status, 0);
    EXPECT_TRUE(again.out.starts_with(HEADER));
    EXPECT_EQ(simt::tableRows(again.out, true), expected);
  }
  for (const char *outside : {"..", "/", "x/../../", "missing"}) {
    kt::Result r = sim.run(sim.dir, "kestil-ls", {"-t", "5", outside});
    EXPECT_EQ(r.status, 0) << outside << r.out;
    EXPECT_EQ(r.out.find(HEADER), std::string::npos) << outside << r.out;
    EXPECT_NE(r.out.find("Received file dirlisting."), std::string::npos) << outside << r.out;
  }
}

// status, qadd and qrm on the file manager, report with group limits and with -r, and the
// queue's data file across a restart.
TEST(SimQueue, FileManagerRequestsAndReportsWithLimitsAndRemoval) {
  simt::Served sim("127.0.7.50", {"--queue", "queue.dat"});
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string q = simt::mkdirs(sim.root + "/q");
  ASSERT_TRUE(kt::writeFile(q + "/one", std::string(10, 'a')) && kt::writeFile(q + "/two", std::string(20, 'b')) &&
              kt::writeFile(q + "/three", std::string(30, 'c')));
  auto cmd = [&](const std::string &line) {
    std::vector<std::string> args = kt::words(line);
    return sim.run(sim.dir, args[0], std::vector<std::string>(args.begin() + 1, args.end()));
  };
  EXPECT_EQ(kt::run(sim.dir, "filemgr-status", {sim.addr}, 10000).status, 0);
  for (const char *add : {"dlq-add -g 3 -p 2 q/two", "dlq-add -g 3 -p 1 q/one", "dlq-add -g 5 -p 0 q/three"})
    EXPECT_EQ(kt::shown(cmd(add)), (kt::Shown{0, "", ""})) << add;
  // No such file (-2), out of the root (-1), not queued in that group (-2).
  for (auto [line, code] :
       {std::pair{"dlq-add q/none", "-2"}, {"dlq-add ../root/q/one", "-1"}, {"dlq-rm -g 4 q/one", "-2"}})
    EXPECT_EQ(kt::shown(cmd(line)),
              (kt::Shown{6, std::string("bad result code ") + code + " from add operation\n", ""}));

  const std::string one = "0        3        1        10       q/one";
  const std::string two = "0        3        2        20       q/two";
  const std::string three = "0        5        0        30       q/three";
  kt::Result all = cmd("kestil-report -t 5");
  EXPECT_EQ(all.status, 0) << all.out;
  EXPECT_EQ(simt::tableRows(all.out), (std::vector<std::string>{one, two, three}));
  kt::Result limited = cmd("kestil-report -t 5 3 1");  // one entry of group 3 only
  EXPECT_TRUE(limited.out.starts_with("group: 3 size 0 entries 1\n"));
  EXPECT_EQ(simt::tableRows(limited.out), std::vector<std::string>{one});
  EXPECT_EQ(simt::tableRows(cmd("kestil-report -r -t 5 3 1").out), std::vector<std::string>{one});  // it leaves
  EXPECT_EQ(cmd("dlq-rm -g 5 q/three").status, 0);

  // What is left survives a restart through the data file.
  ASSERT_TRUE(sim.restart()) << sim.err;
  EXPECT_EQ(simt::tableRows(cmd("kestil-report -t 5").out), std::vector<std::string>{two});
}

// A client reaches the transfer service through a relay that adds the emulated link, and hears
// every answer from the address it sent to.
TEST(SimRelay, GetThroughALossyRelay) {
  simt::Served service("127.0.8.1");
  ASSERT_TRUE(service.ready) << service.err;
  std::string work = simt::mkdirs(service.dir + "/work"), down = kt::patternBytes(15000, 21);
  ASSERT_TRUE(kt::writeFile(service.root + "/down.bin", down));
  simt::Sim relay;
  ASSERT_TRUE(simt::start(&relay, simt::mkdirs(service.dir + "/relay"),
                          kt::words("--relay 127.0.8.2:3223 127.0.8.1:3223 --loss 0.1 --seed 3 -v")))
      << relay.err;
  EXPECT_EQ(relay.err, "kestil-sim: relaying 127.0.8.2:3223 to 127.0.8.1:3223\n");
  kt::Result got = kt::run(work, "kestil-get", {"-h", "127.0.8.2", "-t", "10", "down.bin"}, 60000);
  EXPECT_EQ(got.status, 0) << got.out;
  EXPECT_EQ(kt::md5Hex(kt::readFile(work + "/down.bin")), kt::md5Hex(down));
  EXPECT_NE(relay.trace().find("DROPPED(loss)"), std::string::npos);
  EXPECT_EQ(relay.stop(), 0);
}

// get and put through a lossy link: independent loss at 10% and 30% in both directions, with
// duplication, hold-back and delay, all seeded.
struct LossCase {
  const char *name, *loss, *getAddr, *putAddr;
};

class SimLoss : public ::testing::TestWithParam<LossCase> {
 protected:
  std::vector<std::string> link() const {
    return kt::words(std::string("--dup 0.05 --reorder 0.1 --delay 20 --seed 7 -v --loss ") + GetParam().loss);
  }
  // The trace shows the link at work: losses, duplicates and held-back datagrams.
  static void expectLinkEffects(const simt::Sim &sim) {
    for (const char *effect : {"DROPPED(loss)", " dup\n", " late\n"})
      EXPECT_NE(sim.trace().find(effect), std::string::npos) << effect;
  }
};

TEST_P(SimLoss, GetCompletesWithTheRightDigest) {
  simt::Served sim(GetParam().getAddr, link());
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string content = kt::patternBytes(20000, 11), work = simt::mkdirs(sim.dir + "/work");
  ASSERT_TRUE(kt::writeFile(sim.root + "/lossy.bin", content));
  kt::Result r = sim.run(work, "kestil-get", {"-t", "10", "lossy.bin"}, 90000);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("Received file lossy.bin...\n"), std::string::npos);
  EXPECT_EQ(kt::md5Hex(kt::readFile(work + "/lossy.bin")), kt::md5Hex(content));
  expectLinkEffects(sim);
}

TEST_P(SimLoss, PutCompletesWithTheRightDigest) {
  simt::Served sim(GetParam().putAddr, link());
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string content = kt::patternBytes(20000, 12);
  ASSERT_TRUE(kt::writeFile(sim.dir + "/lossy.bin", content));
  kt::Result r = sim.run(sim.dir, "kestil-put", {"-t", "10", "-p", "200", "lossy.bin"}, 90000);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("Done!\n"), std::string::npos);
  EXPECT_EQ(kt::md5Hex(kt::readFile(sim.root + "/lossy.bin")), kt::md5Hex(content));
  expectLinkEffects(sim);
}

INSTANTIATE_TEST_SUITE_P(Link, SimLoss,
                         ::testing::Values(LossCase{"TenPercent", "0.1", "127.0.7.70", "127.0.7.71"},
                                           LossCase{"ThirtyPercent", "0.3", "127.0.7.72", "127.0.7.73"}),
                         [](const ::testing::TestParamInfo<LossCase> &info) { return std::string(info.param.name); });

}  // namespace
