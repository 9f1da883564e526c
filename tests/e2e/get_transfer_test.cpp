// get and resume against a scripted file service, for what only a peer that scripts every
// byte sees: the requests' bytes, the closing acknowledgements, malformed and foreign
// datagrams, a replaced digest, error reports of either length, silence, and the state record
// shared by two gets or resumed. (Plain, lossy, faulty and resumed downloads end to end, and
// the files each end leaves: against kestil-sim; an interrupted get: the interrupt soak.)
#include <gtest/gtest.h>

#include <string>

#include "tests/support/file_server.hpp"

namespace {

const std::string CONTENT = kt::patternBytes(4230, 1);  // 30 blocks of 141 bytes
const std::string MD5 = kt::md5Raw(CONTENT);
const std::vector<uint8_t> META = kt::metadataDatagram(CONTENT.size(), MD5);
// Blocks 0-30 held: the window stops at 24, whose byte has blocks 24-30 (1111 1110).
const std::vector<uint8_t> COMPLETE_ACK = kt::bytes({9, 0, 0, 0, 24, 0xFE});

// What a get shows from its metadata on (a resume: from its digest on).
kt::Result ending(int status, const std::string &verdict, const std::string &head = "File is 4230 bytes!\n") {
  return {
      status,
      head + "MD5 time!\nclient done\n" + verdict + "\nElapsed time: T A\nWaiting for satellite to stop spamming...\n",
      ""};
}

TEST(GetDownload, CleanDownloadIgnoresMalformedAndRepeatedDatagrams) {
  kt::RemoteRun run("127.0.5.1", "kestil-get", {"-c", "/data/a.bin"});
  EXPECT_EQ(run.recv(), kt::request(10, 4, "/data/a.bin"));
  std::vector<uint8_t> overlong = kt::blockDatagram(std::string(5000, 'X'), 2);
  overlong.resize(146, 'X');  // one byte too long for a 141-byte block: must not overwrite block 2
  // Metadata that says 1 byte: a byte short, a byte long, for another request; a code-5 block
  // without its number, an unknown code; a stray block past the file's end before its metadata.
  std::vector<uint8_t> tiny = kt::metadataDatagram(1, MD5), shortMeta(tiny.begin(), tiny.end() - 1), longMeta = tiny;
  longMeta.push_back(0);
  for (auto junk : {shortMeta, longMeta, kt::metadataDatagram(1, MD5, 2), kt::bytes({5}), kt::bytes({12, 1, 2, 3}),
                    kt::blockDatagram(kt::patternBytes(40 * 141, 9), 40), META})
    run.send(junk);
  for (uint32_t b = 1; b <= 30; ++b) {
    run.send(kt::blockDatagram(CONTENT, b));
    if (b == 2) run.send(overlong), run.send(kt::blockDatagram(CONTENT, 2)), run.send(META);
  }
  kt::Heard seen = run.listen();
  EXPECT_EQ(kt::plainShown(run.finish()), ending(0, "Received file a.bin..."));
  EXPECT_EQ(kt::readFile(run.dir + "/a.bin"), CONTENT);
  EXPECT_FALSE(kt::exists(run.dir + "/.a.bin.kestil_state"));
  EXPECT_TRUE(seen.requests.empty());
  kt::expectClosing(seen.acks, seen.ackMs, COMPLETE_ACK);
}

// A block from another host is taken all the same, a later metadata datagram with another
// digest (here what the foreign block made of the file) replaces the first, and metadata from
// another port or host, last of all, is refused. (The digest mismatch: against kestil-sim.)
TEST(GetDownload, ForeignBlockTakenLaterDigestWinsForeignMetadataRefused) {
  kt::RemoteRun run("127.0.5.7", "kestil-get", {"f.bin"});
  kt::UdpPeer otherPort, otherHost;
  ASSERT_TRUE(otherPort.bind("127.0.5.7", 3224) && otherHost.bind("127.0.5.17", 3223));
  ASSERT_FALSE(run.recv().empty());
  std::string forged = CONTENT;
  forged[2 * 141] ^= 0x55;
  run.send(META);
  otherHost.send(kt::blockDatagram(forged, 3), run.client);
  for (uint32_t b = 1; b < 30; ++b)
    if (b != 3) run.send(kt::blockDatagram(CONTENT, b));
  run.send(kt::metadataDatagram(CONTENT.size(), kt::md5Raw(forged)));
  otherPort.send(kt::metadataDatagram(1, MD5), run.client);
  otherHost.send(kt::metadataDatagram(1, MD5), run.client);
  run.send(kt::blockDatagram(CONTENT, 30));
  kt::Heard seen = run.listen();
  EXPECT_EQ(kt::plainShown(run.finish()), ending(0, "Received file f.bin..."));
  EXPECT_EQ(kt::readFile(run.dir + "/f.bin"), forged);
  kt::expectClosing(seen.acks, seen.ackMs, COMPLETE_ACK);
}

// An error report of either length, or silence until the idle limit, ends the get; the
// state record stays for a resume.
TEST(GetDownload, ErrorReportOrSilenceEndsItAndKeepsTheRecord) {
  const struct {
    const char *ip, *args;
    std::vector<uint8_t> report;  // none: the remote stays silent
    kt::Result shown;
    size_t requests;
    uint8_t flags;
  } cases[] = {
      {"127.0.5.5",
       "e.bin",
       kt::bytes({15, 0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0, 3}),
       {14, "Server returned error code: 1, -2, 3\n", ""},
       1,
       0},
      {"127.0.5.9", "e.bin", kt::bytes({15, 0, 0, 0, 1}), {14, "", ""}, 1, 0},  // without the line
      // -t 0: the first idle tick ends it. The size is unknown: one vector byte.
      {"127.0.5.6", "-t 0 e.bin", {}, {13, "\nWaiting for satellite to stop spamming...\n", ""}, 1, 0},
      // -t 3: six idle ticks; the request goes out at the start and after ticks 2 and 4.
      {"127.0.5.8", "-t 3 -L e.bin", {}, {13, "\nWaiting for satellite to stop spamming...\n", ""}, 3, 8},
  };
  for (const auto &c : cases) {
    kt::RemoteRun run(c.ip, "kestil-get", kt::words(c.args));
    std::vector<uint8_t> first = run.recv();
    if (!c.report.empty()) run.send(c.report);
    kt::Heard heard = run.listen();
    EXPECT_EQ(kt::plainShown(run.finish()), c.shown) << c.args;
    heard.requests.insert(heard.requests.begin(), first);
    EXPECT_EQ(heard.requests, std::vector(c.requests, kt::request(10, c.flags, "e.bin"))) << c.args;
    if (c.report.empty()) kt::expectClosing(heard.finals, heard.finalMs, kt::bytes({14, 0, 0, 0, 0, 0}));
    EXPECT_EQ(heard.finals.size(), c.report.empty() ? 7u : 0u) << c.args;
    EXPECT_EQ(kt::readFile(run.dir + "/.e.bin.kestil_state").size(), 2248u) << c.args;
  }
  // Started with its standard input closed, the get has its socket at descriptor 0: the wait
  // must take it like any other, or the loop spins and never counts the idle tick. Nothing
  // listens at this address.
  const std::string dir = kt::makeTempDir();
  const kt::Result closedInput =
      kt::run(dir, "sh", {"-c", "exec \"$0\" get -h 127.0.5.14 -t 0 e.bin <&-", KESTIL_BIN}, 20000, "/bin/sh");
  EXPECT_EQ(kt::plainShown(closedInput), (kt::Result{13, "\nWaiting for satellite to stop spamming...\n", ""}));
}

TEST(GetState, TwoGetsOfOneLocalFileShareTheRecordAndBothFinish) {
  std::string content = kt::patternBytes(60 * 141 + 5, 12);
  // Each run is sent half of the blocks and nothing is resent: only a shared record completes.
  kt::RemoteRun a("127.0.5.12", "kestil-get", {"-t", "3", "s.bin"});
  kt::Child b;
  for (uint32_t parity : {1u, 0u}) {
    if (parity == 0) b = kt::start(a.dir, "kestil-get", {"-h", "127.0.5.12", "-t", "3", "s.bin"});
    ASSERT_FALSE(a.recv().empty());
    a.send(kt::metadataDatagram(content.size(), kt::md5Raw(content)));
    for (uint32_t n = 1; n <= 61; ++n)
      if (n % 2 == parity) a.send(kt::blockDatagram(content, n));
  }
  EXPECT_EQ(a.finish().status, 0);
  EXPECT_EQ(kt::finish(b, 30000).status, 0);
  EXPECT_EQ(kt::readFile(a.dir + "/s.bin"), content);
  EXPECT_FALSE(kt::exists(a.dir + "/.s.bin.kestil_state"));
}

// A download stopped by its stop length is continued by resume from its record, with the
// record's remote name and a request that says what is held.
TEST(GetState, StopLengthEndsIncompleteAndResumeCompletes) {
  // Ten blocks of 141 bytes reach the stop length of 1410; -z pads the file to the remote size.
  kt::RemoteRun first("127.0.5.3", "kestil-get", {"-z", "-l", "1410", "-t", "5", "/d/a.bin"});
  ASSERT_FALSE(first.recv().empty());
  first.sendFile(CONTENT);
  kt::Heard s1 = first.listen();
  EXPECT_EQ(kt::plainShown(first.finish()),
            (kt::Result{13, "File is 4230 bytes!\n\nWaiting for satellite to stop spamming...\n", ""}));
  // Blocks 0-10 held: base 8, then 1110 0000 and the two bytes up to block 24's.
  std::vector<uint8_t> held = kt::bytes({0, 0, 0, 8, 0xE0, 0, 0}), request = kt::request(10, 0, "/d/a.bin");
  EXPECT_EQ(s1.finals, std::vector(7, kt::withTail({14}, held, false)));
  EXPECT_EQ(kt::readFile(first.dir + "/a.bin").size(), CONTENT.size());

  kt::Child second = kt::start(first.dir, "kestil-resume", {"-t", "5", "a.bin"});
  EXPECT_EQ(first.recv(), kt::withTail(kt::withTail(request, kt::bytes({9}), false), held, false));
  first.sendFile(CONTENT);
  EXPECT_EQ(kt::plainShown(kt::finish(second, 30000)), ending(0, "Received file a.bin...", ""));
  EXPECT_EQ(kt::readFile(first.dir + "/a.bin"), CONTENT);
  EXPECT_FALSE(kt::exists(first.dir + "/.a.bin.kestil_state"));
}

}  // namespace
