// The commands against kestil-sim, one scenario each: get and resume across a pass gap with
// progress on the way, each end of a get (the fault options among them), put, ls with each
// flag and lsread of what it saved, the queue through the file manager and report, a relay,
// and get and put through a lossy link; and what the simulator says when it cannot start.
// Every file is checked with MD5. (rm's request, byte for byte: its scripted test.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/sim_process.hpp"

namespace {

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

TEST(SimStartup, BadOptionsPortsInUseAndUnservableRootsAreNamedAndSigintStopsIt) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer squatter;
  ASSERT_TRUE(squatter.bind("127.0.7.61", 3224));
  const std::tuple<std::string, int, std::string> cases[] = {
      {"--loss 10", 2, "kestil-sim: bad value for --loss: '10' (a fraction from 0 to 1, 0.1 = 10%)\nusage: "},
      {"--corrupt 1.5", 2, "kestil-sim: bad value for --corrupt: '1.5' (a fraction from 0 to 1, 0.1 = 10%)\n"},
      {"--fail-get ../x", 2, "kestil-sim: bad value for --fail-get: '../x' (a file's path under the root)\n"},
      {"--change /etc/x", 2, "kestil-sim: bad value for --change: '/etc/x' (a file's path under the root)\n"},
      {"--addr 127.0.7.61", 1, "kestil-sim: cannot bind the file manager to 127.0.7.61:3224: Address already in use\n"},
      {"--root no-such-dir --addr 127.0.7.62", 1, "kestil-sim: cannot serve no-such-dir: No such file or directory\n"},
  };
  for (const auto &[args, status, err] : cases) {
    kt::Result r = kt::run(dir, "kestil-sim", kt::words(args), 5000, KESTIL_SIM_BIN);
    EXPECT_EQ(r.status, status) << args;
    EXPECT_EQ(r.err.substr(0, err.size()), err);
  }
  simt::Sim sim;
  ASSERT_TRUE(sim.start(dir, {"--addr", "127.0.7.63"})) << sim.err;
  EXPECT_EQ(sim.stop(SIGINT), 0);
}

TEST(SimGet, PassGapEndsTheGetAndResumeCompletesItWhileProgressShowsTheRecord) {
  // 64 kbit/s carries about 45 blocks a second: more than the first 2-second pass holds. The
  // 3-second gap is longer than get's -t 1, shorter than resume's -t 10 and the idle limit.
  simt::Served sim("127.0.7.2", {"--rate=64000", "--pass", "2:3", "--idle=20", "-v"});  // both option forms
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string content = kt::patternBytes(20000, 2);  // 142 blocks
  ASSERT_TRUE(kt::writeFile(sim.root + "/data/pass.bin", content));
  kt::Result got = sim.run(sim.dir, "kestil-get", {"-t", "1", "data/pass.bin"});
  EXPECT_EQ(got.status, 13) << got.out;
  EXPECT_TRUE(has(got.out, "File is 20000 bytes!\n")) << got.out;
  EXPECT_TRUE(got.out.ends_with("\nWaiting for satellite to stop spamming...\n")) << got.out;

  kt::Child resume = kt::start(sim.dir, "kestil", {"resume", "-t", "10", "pass.bin"});
  kt::Result progress = kt::run(sim.dir, "kestil-progress", {"pass.bin"}, 10000);
  EXPECT_EQ(progress.status, 0) << progress.out << progress.err;
  EXPECT_TRUE(progress.out.starts_with("State file is .pass.bin.kestil_state\nRemote file: data/pass.bin\n"))
      << progress.out;
  EXPECT_TRUE(has(progress.out, "Remote host: 127.0.7.2:3223\nBlock size: 141\nPercent complete: "));
  kt::Result resumed = kt::finish(resume, 60000);
  EXPECT_EQ(resumed.status, 0) << resumed.out;
  EXPECT_TRUE(has(resumed.out, "client done\nReceived file pass.bin...\nElapsed time: "));
  EXPECT_EQ(kt::md5Hex(kt::readFile(sim.dir + "/pass.bin")), kt::md5Hex(content));
  EXPECT_FALSE(kt::exists(sim.dir + "/.pass.bin.kestil_state"));
  EXPECT_EQ(sim.stop(), 0);
  EXPECT_TRUE(has(sim.trace(), "DROPPED(pass)"));
  EXPECT_TRUE(has(sim.trace(), "transfer of 'data/pass.bin' ends: complete"));
}

// Each way a get ends, as the operator sees it: a plain download; the faults an operator can
// ask for (files named as a get names them, and a link that flips bits), which the digest of
// the whole file must catch; and error reports, with the local file and its record kept.
TEST(SimGet, EachEndHasItsStatusMessageAndFilesLeft) {
  simt::Served sim("127.0.7.3", kt::words("--fail-get d/fail --bad-digest ./d/bad --change d/x/../changing"));
  simt::Served noisy("127.0.7.4", kt::words("--corrupt 0.05 --seed 3 -v"));  // block 23 of the first pass
  ASSERT_TRUE(sim.ready && noisy.ready) << sim.err << noisy.err;
  const std::string content = kt::patternBytes(4230, 4);  // 30 blocks
  for (const std::string &root : {sim.root, noisy.root})
    for (const char *name : {"a", "fail", "bad", "changing"}) ASSERT_TRUE(kt::writeFile(root + "/d/" + name, content));
  ASSERT_TRUE(kt::writeFile(sim.dir + "/outside.bin", "secret"));
  auto ending = [](const char *verdict) {
    return std::string("File is 4230 bytes!\nMD5 time!\nclient done\n") + verdict +
           "\nElapsed time: T A\nWaiting for satellite to stop spamming...\n";
  };
  const std::vector<std::string> nothing, kept{".x.kestil_state", "x"};
  const struct {
    const simt::Served *sim;
    const char *path;
    int status;
    std::string out;
    std::vector<std::string> left;
  } cases[] = {
      {&sim, "d/a", 0, ending("Received file x..."), {"x"}},
      {&sim, "d/bad", 12, ending("Checksum failed on x..."), nothing},
      {&sim, "d/changing", 12, ending("Checksum failed on x..."), nothing},
      {&noisy, "d/a", 12, ending("Checksum failed on x..."), nothing},
      // Reason (1 cannot open, 2 path refused, 4 not a file), errno, and the get's code 10.
      {&sim, "d/fail", 14, "Server returned error code: 1, 5, 10\n", kept},
      {&sim, "d/none", 14, "Server returned error code: 1, 2, 10\n", kept},
      {&sim, "../outside.bin", 14, "Server returned error code: 2, 13, 10\n", kept},
      {&sim, "/etc/hostname", 14, "Server returned error code: 2, 13, 10\n", kept},
      {&sim, "d/../../outside.bin", 14, "Server returned error code: 2, 13, 10\n", kept},
      {&sim, "d", 14, "Server returned error code: 4, 21, 10\n", kept},
  };
  for (const auto &c : cases) {
    const std::string work = kt::makeTempDir();
    EXPECT_EQ(kt::plainShown(c.sim->run(work, "kestil-get", {"-t", "5", "-o", "x", c.path})),
              (kt::Result{c.status, c.out, ""}))
        << c.path;
    EXPECT_EQ(kt::namesStartingWith(work, ""), c.left) << c.path;
    EXPECT_EQ(kt::readFile(work + "/x"), c.status == 0 ? content : "") << c.path;
    EXPECT_EQ(kt::readFile(work + "/.x.kestil_state").size(), c.status == 14 ? 2248u : 0u) << c.path;
  }
  EXPECT_TRUE(has(noisy.trace(), " corrupt\n"));
}

TEST(SimPut, StoresTheFileWithItsTimeAndRefusesTargetsItMustNotWrite) {
  simt::Served sim("127.0.7.10");
  ASSERT_TRUE(sim.ready) << sim.err;
  const std::string &dir = sim.dir, up = simt::mkdirs(sim.root + "/up"), content = kt::patternBytes(25000, 3);
  ASSERT_TRUE(kt::writeFile(dir + "/local.bin", content));
  timespec times[2] = {{1714568865, 0}, {1714568865, 0}};  // 2024-05-01 13:07:45 UTC
  ASSERT_EQ(utimensat(AT_FDCWD, (dir + "/local.bin").c_str(), times, 0), 0);
  kt::Result r = sim.run(dir, "kestil-put", {"-p", "300", "-o", "up/stored.bin", "local.bin"}, 60000);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(has(r.out, "Done!\nElapsed time: ")) << r.out;
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
TEST(SimPut, SmallUploadsEndAtAnyRate) {
  simt::Served sim("127.0.7.12", {"--ack-interval", "1500"});
  ASSERT_TRUE(sim.ready) << sim.err;
  std::vector<std::pair<std::string, kt::Child>> puts;
  for (std::string size : {"0", "100", "987"}) {
    ASSERT_TRUE(kt::writeFile(sim.dir + "/f" + size, kt::patternBytes(std::stoul(size), 5)));
    for (std::string rate : {"0.5", "6"})
      puts.emplace_back(size + "-" + rate,
                        kt::start(sim.dir, "kestil-put",
                                  {"-h", sim.addr, "-t", "20", "-p", rate, "-o", size + "-" + rate, "f" + size}));
  }
  for (auto &[stored, child] : puts) {
    kt::Result r = kt::finish(child, 45000);
    EXPECT_EQ(r.status, 0) << stored << ": " << r.out.substr(r.out.size() > 300 ? r.out.size() - 300 : 0);
    EXPECT_TRUE(has(r.out, "Done!\nElapsed time: ") && kt::exists(sim.root + "/" + stored)) << stored;
  }
}

// Each flag lists what it should, in directory order (so sorted here), and the listing is
// kept; paths that leave the root get an empty listing.
TEST(SimListing, EachFlagListsWhatItShouldAndOutsideTheRootNothing) {
  simt::Served sim("127.0.7.40");
  ASSERT_TRUE(sim.ready) << sim.err;
  ASSERT_TRUE(kt::writeFile(sim.root + "/x/b", "12345") && kt::writeFile(sim.root + "/x/.h", "123") &&
              kt::writeFile(sim.root + "/x/d/c", "1234567"));
  const std::string b = "0        0        0        5        x/b", h = "0        0        0        3        x/.h",
                    c = "0        0        0        7        x/d/c", d = "80       0        0        0        x/d";
  const std::pair<const char *, std::vector<std::string>> cases[] = {
      {"", {b, d}}, {"a", {h, b, d}}, {"r", {b, c}}, {"ar", {h, b, c}}};
  for (const auto &[flags, expected] : cases) {
    std::string work = simt::mkdirs(sim.dir + "/work" + flags);  // one saved listing each
    kt::Result r = sim.run(work, "kestil-ls", {"-t", "5", "-o", flags, "x"});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(simt::tableRows(r.out, true), expected) << flags << ": " << r.out;
    EXPECT_EQ(kt::namesStartingWith(work, "dirlisting.").size(), 1u);
  }
  for (const char *outside : {"..", "/", "x/../../", "missing"}) {
    kt::Result r = sim.run(sim.dir, "kestil-ls", {"-t", "5", outside});
    EXPECT_EQ(r.status, 0) << outside << r.out;
    EXPECT_FALSE(has(r.out, "filename")) << outside << r.out;
    EXPECT_TRUE(has(r.out, "Received file dirlisting.")) << outside << r.out;
  }
}

// status, qadd and qrm on the file manager and report with group limits. (Removal on
// confirmation and the data file across restarts: kestil-pass against kestil-sim.)
TEST(SimQueue, FileManagerRequestsAndReportsWithLimits) {
  simt::Served sim("127.0.7.50", {"--queue", "queue.dat"});
  ASSERT_TRUE(sim.ready) << sim.err;
  ASSERT_TRUE(kt::writeFile(sim.root + "/q/one", std::string(10, 'a')) &&
              kt::writeFile(sim.root + "/q/two", std::string(20, 'b')) &&
              kt::writeFile(sim.root + "/q/three", std::string(30, 'c')));
  auto cmd = [&](const std::string &line) {
    std::vector<std::string> args = kt::words(line);
    return sim.run(sim.dir, args[0], std::vector<std::string>(args.begin() + 1, args.end()));
  };
  EXPECT_EQ(kt::run(sim.dir, "filemgr-status", {sim.addr}, 10000).status, 0);
  for (const char *add : {"dlq-add -g 3 -p 2 q/two", "dlq-add -g 3 -p 1 q/one", "dlq-add -g 5 -p 0 q/three",
                          "dlq-add -g 5 -p 0 q/two", "dlq-rm -g 5 q/two"})
    EXPECT_EQ(cmd(add), (kt::Result{0, "", ""})) << add;
  // No such file (-2), out of the root (-1), not queued in that group (-2).
  for (auto [line, code] :
       {std::pair{"dlq-add q/none", "-2"}, {"dlq-add ../root/q/one", "-1"}, {"dlq-rm -g 4 q/one", "-2"}})
    EXPECT_EQ(cmd(line), (kt::Result{6, std::string("bad result code ") + code + " from add operation\n", ""}));
  const std::string one = "0        3        1        10       q/one";
  kt::Result all = cmd("kestil-report -t 5"), limited = cmd("kestil-report -t 5 3 1");  // one entry of group 3 only
  EXPECT_EQ(simt::tableRows(all.out), (std::vector<std::string>{one, "0        3        2        20       q/two",
                                                                "0        5        0        30       q/three"}))
      << all.out;
  EXPECT_TRUE(limited.out.starts_with("group: 3 size 0 entries 1\n"));
  EXPECT_EQ(simt::tableRows(limited.out), std::vector<std::string>{one});
}

// A get through a relay, which adds the link and answers from the address the client sent
// to, and a put at once, through links that lose 10% and 30% in both directions, duplicate,
// hold back and delay, all seeded; the traces show each effect.
TEST(SimLoss, GetThroughALossyRelayAndPutCompleteWithTheRightDigests) {
  simt::Served sim("127.0.8.1", kt::words("--dup 0.05 --reorder 0.1 --delay 20 --seed 7 -v --loss 0.3"));
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string down = kt::patternBytes(20000, 11), up = kt::patternBytes(20000, 12);
  std::string work = simt::mkdirs(sim.dir + "/work");
  ASSERT_TRUE(kt::writeFile(sim.root + "/down.bin", down) && kt::writeFile(sim.dir + "/up.bin", up));
  simt::Sim relay;
  ASSERT_TRUE(relay.start(simt::mkdirs(sim.dir + "/relay"),
                          kt::words("--relay 127.0.8.2:3223 127.0.8.1:3223 --loss 0.1 --seed 3 -v")))
      << relay.err;
  EXPECT_EQ(relay.err, "kestil-sim: relaying 127.0.8.2:3223 to 127.0.8.1:3223\n");
  kt::Child get = kt::start(work, "kestil-get", {"-h", "127.0.8.2", "-t", "10", "down.bin"});
  kt::Result put = sim.run(sim.dir, "kestil-put", {"-t", "10", "-p", "200", "up.bin"}, 90000);
  kt::Result got = kt::finish(get, 90000);
  EXPECT_EQ(got.status, 0) << got.out;
  EXPECT_TRUE(has(got.out, "Received file down.bin...\n"));
  EXPECT_EQ(kt::md5Hex(kt::readFile(work + "/down.bin")), kt::md5Hex(down));
  EXPECT_EQ(put.status, 0) << put.out;
  EXPECT_TRUE(has(put.out, "Done!\n"));
  EXPECT_EQ(kt::md5Hex(kt::readFile(sim.root + "/up.bin")), kt::md5Hex(up));
  for (const char *effect : {"DROPPED(loss)", " dup\n", " late\n"}) EXPECT_TRUE(has(sim.trace(), effect)) << effect;
  EXPECT_TRUE(has(relay.trace(), "DROPPED(loss)"));
  EXPECT_EQ(relay.stop(), 0);
}

}  // namespace
