// The get command against a scripted file service: clean and lossy downloads, the requests'
// bytes, the closing acknowledgements, and the ends by digest mismatch, error report and silence.
// (An interrupted get: the interrupt checks against kestil-sim.)
#include <gtest/gtest.h>

#include <string>

#include "tests/support/file_server.hpp"

namespace {

const std::string CONTENT = kt::patternBytes(4230, 1);  // 30 blocks of 141 bytes
const std::string MD5 = kt::md5Raw(CONTENT);
const std::vector<uint8_t> META = kt::metadataDatagram(CONTENT.size(), MD5);
// Blocks 0-30 held: the window stops at 24, whose byte has blocks 24-30 (1111 1110).
const std::vector<uint8_t> COMPLETE_ACK = kt::bytes({9, 0, 0, 0, 24, 0xFE});

kt::Result ending(int status, const std::string &verdict) {
  return {status,
          "File is 4230 bytes!\nMD5 time!\nclient done\n" + verdict +
              "\nElapsed time: T A\nWaiting for satellite to stop spamming...\n",
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
  kt::Served seen = run.serve(CONTENT);
  EXPECT_EQ(kt::plainShown(run.finish()), ending(0, "Received file a.bin..."));
  EXPECT_EQ(kt::readFile(run.dir + "/a.bin"), CONTENT);
  EXPECT_FALSE(kt::exists(run.dir + "/.a.bin.kestil_state"));
  EXPECT_TRUE(seen.requests.empty());
  kt::expectClosing(seen.acks, seen.ackMs, COMPLETE_ACK);
}

TEST(GetDownload, LostMetadataAndBlocksAreRecoveredThroughAcknowledgements) {
  std::string content = kt::patternBytes(40 * 141 - 17, 2);
  kt::RemoteRun run("127.0.5.2", "kestil-get", {"-t", "10", "lossy.bin"});
  kt::Served seen = run.serve(content, {.dropPercent = 25, .seed = 3, .dropMetadata = 1, .blocksOnRepeat = false});
  EXPECT_EQ(run.finish().status, 0);
  EXPECT_EQ(kt::readFile(run.dir + "/lossy.bin"), content);
  ASSERT_FALSE(seen.dropped.empty());
  // Without the metadata the request goes out again after a second of silence.
  ASSERT_GE(seen.requests.size(), 2u);
  EXPECT_EQ(seen.requests[1], kt::request(10, 0, "lossy.bin"));
  // Of the blocks before the metadata only block 1 was kept: the first acknowledgement asks for the rest.
  ASSERT_FALSE(seen.acks.empty());
  for (uint32_t b = 0; b <= 40; ++b)
    EXPECT_EQ(kt::ackHas(seen.acks[0].data(), seen.acks[0].size(), b), b <= 1 && seen.dropped.count(b) == 0) << b;
}

// A later metadata datagram with another digest replaces the first; metadata from another
// port or host is refused, and a block from another host is taken all the same.
TEST(GetDownload, ReplacedDigestOrForeignBlockFailsTheChecksum) {
  kt::RemoteRun later("127.0.5.4", "kestil-get", {"d.bin"});
  ASSERT_FALSE(later.recv().empty());
  later.send(META);
  for (uint32_t b = 1; b < 30; ++b) later.send(kt::blockDatagram(CONTENT, b));
  later.send(kt::metadataDatagram(CONTENT.size(), kt::md5Raw("something else")));
  later.send(kt::blockDatagram(CONTENT, 30));
  kt::Served seen = later.serve(CONTENT);
  EXPECT_EQ(kt::plainShown(later.finish()), ending(12, "Checksum failed on d.bin..."));
  EXPECT_FALSE(kt::exists(later.dir + "/d.bin"));
  EXPECT_FALSE(kt::exists(later.dir + "/.d.bin.kestil_state"));
  kt::expectClosing(seen.acks, seen.ackMs, COMPLETE_ACK);

  kt::RemoteRun run("127.0.5.7", "kestil-get", {"f.bin"});
  kt::UdpPeer otherPort, otherHost;
  ASSERT_TRUE(otherPort.bind("127.0.5.7", 3224) && otherHost.bind("127.0.5.17", 3223));
  ASSERT_FALSE(run.recv().empty());
  otherPort.send(kt::metadataDatagram(1, MD5), run.client);
  otherHost.send(kt::metadataDatagram(1, MD5), run.client);
  std::string forged = CONTENT;
  forged[2 * 141] ^= 0x55;
  run.send(META);
  otherHost.send(kt::blockDatagram(forged, 3), run.client);
  for (uint32_t b = 1; b <= 30; ++b)
    if (b != 3) run.send(kt::blockDatagram(CONTENT, b));
  EXPECT_EQ(kt::plainShown(run.finish()), ending(12, "Checksum failed on f.bin..."));
}

TEST(GetDownload, ErrorReportEndsWithStatus14AndKeepsBothFiles) {
  const std::pair<std::vector<uint8_t>, std::string> cases[] = {
      {kt::bytes({15, 0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0, 3}), "Server returned error code: 1, -2, 3\n"},
      {kt::bytes({15, 0, 0, 0, 1}), ""},  // another length: the same end, without the line
  };
  for (const auto &[report, out] : cases) {
    kt::RemoteRun run("127.0.5.5", "kestil-get", {"e.bin"});
    EXPECT_EQ(run.recv(), kt::request(10, 0, "e.bin"));
    run.send(report);
    EXPECT_EQ(run.finish(), (kt::Result{14, out, ""}));
    EXPECT_TRUE(kt::exists(run.dir + "/e.bin"));
    EXPECT_EQ(kt::readFile(run.dir + "/.e.bin.kestil_state").size(), 2248u);
  }
}

TEST(GetDownload, SilenceEndsAtTheIdleLimitWithSevenClosingAcks) {
  // -t 0: the first idle tick ends it. The size is unknown: one vector byte.
  kt::RemoteRun zero("127.0.5.6", "kestil-get", {"-t", "0", "z.bin"});
  kt::Served s0 = zero.serve("", {.answer = false});
  EXPECT_EQ(zero.finish(), (kt::Result{13, "\nWaiting for satellite to stop spamming...\n", ""}));
  EXPECT_EQ(s0.requests.size(), 1u);
  EXPECT_EQ(s0.finals.size(), 7u);
  kt::expectClosing(s0.finals, s0.finalMs, kt::bytes({14, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(kt::exists(zero.dir + "/.z.bin.kestil_state"));

  // -t 3: six idle ticks; the request goes out at the start and after ticks 2 and 4.
  kt::RemoteRun three("127.0.5.8", "kestil-get", {"-t", "3", "-L", "r.bin"});
  kt::Served s3 = three.serve("", {.answer = false});
  EXPECT_EQ(three.finish().status, 13);
  EXPECT_EQ(s3.requests, std::vector(3, kt::request(10, 8, "r.bin")));
  EXPECT_EQ(s3.finals.size(), 7u);
}

}  // namespace
