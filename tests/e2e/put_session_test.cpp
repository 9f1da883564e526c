// The put command against a scripted remote file service: the request and the first burst
// byte for byte, the remote side's closing and refusing answers and the silence time-out.
// (Lossy uploads to completion: the suite against kestil-sim; interrupted ones: the interrupt
// checks.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "common/common.hpp"
#include "tests/support/file_server.hpp"

namespace {

// A put of a file of `size` pattern bytes named `local` in the run's directory.
struct Upload : kt::RemoteRun {
  std::string content;
  Upload(const char *ip, size_t size, std::vector<std::string> args, const std::string &local = "f.bin")
      : RemoteRun(ip, "kestil-put", (args.push_back(local), args), {{local, kt::patternBytes(size, uint32_t(size))}}),
        content(kt::patternBytes(size, uint32_t(size))) {}
};

}  // namespace

TEST(PutUpload, RequestCarriesEmptyAckAndFirstBurstIsMetadataAndFiveBlocks) {
  Upload up("127.0.6.1", 1000, {}, "sub/f.bin");  // 8 data blocks
  // Request for the last path component with an empty acknowledgement of blocks 0 to 15.
  EXPECT_EQ(up.recv(3000), kt::bytes({1, 0, 0, 0x8D, 0, 0, 0, 1, 'f', '.', 'b', 'i', 'n', 0, 9, 0, 0, 0, 0, 0, 0}));
  up.send(kt::bytes({0x09, 0, 0, 0, 0, 0xFF}));  // the answer's vector is not applied: block 0 comes first

  struct stat st {};
  stat((up.dir + "/sub/f.bin").c_str(), &st);
  std::vector<uint8_t> meta = kt::metadataDatagram(1000, kt::md5Raw(up.content));
  for (int i = 0; i < 4; ++i) meta[9 + i] = static_cast<uint8_t>(static_cast<uint32_t>(st.st_mtime) >> (24 - 8 * i));
  EXPECT_EQ(up.recv(3000), meta);
  for (uint32_t blk = 1; blk <= 5; ++blk) EXPECT_EQ(up.recv(3000), kt::blockDatagram(up.content, blk)) << blk;
  up.send(kt::bytes({0x0E, 0, 0, 0, 0}));
  kt::Result r = up.finish();
  EXPECT_TRUE(up.recv(200).empty());  // nothing but the burst
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(kt::plainOut(r.out),
            "ACK 0\nsend blocks\nSend block 0 / 6.000000\nSend block 1 / 5.000000\nSend block 2 / 4.000000\n"
            "Send block 3 / 3.000000\nSend block 4 / 2.000000\nSend block 5 / 1.000000\nACK 0\nDone!\n"
            "Elapsed time: T A\n");
}

TEST(PutUpload, RemoteSideClosesOrRefuses) {
  Upload closing("127.0.6.3", 500, {});
  ASSERT_EQ(closing.recv(3000).at(0), KESTIL_PUT);
  closing.send(kt::bytes({0x0E, 0, 0, 0, 0}));  // closing acknowledgement as the very first answer
  kt::Result r = closing.finish();
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(kt::plainOut(r.out), "ACK 0\nDone!\nElapsed time: T A\n");

  Upload refused("127.0.6.4", 500, {});
  ASSERT_EQ(refused.recv(3000).at(0), KESTIL_PUT);
  for (auto d : {kt::bytes({0x0D, 0, 0, 0}), kt::bytes({0x09, 0, 0, 0}), kt::bytes({0x0D, 1, 2, 3, 4})})
    refused.send(d);  // 4 bytes or fewer are ignored, whatever the code
  EXPECT_EQ(kt::shown(refused.finish()), (kt::Shown{1, "PUT failure\n", ""}));
}

TEST(PutUpload, NoAnswerRepeatsRequestEveryTwoSecondsAndGivesUpAtTwenty) {
  Upload up("127.0.6.6", 0, {"-o", "remote/name"});
  // Counted until the client gives up, not timed: a loaded machine may delay any of them.
  std::vector<std::vector<uint8_t>> requests;
  for (long long end = kt::nowMs() + 40000; kt::nowMs() < end && !kt::childEnded(up.child.pid);)
    if (std::vector<uint8_t> d = up.recv(100); !d.empty()) requests.push_back(d);
  kt::Result r = up.finish();
  for (std::vector<uint8_t> d; !(d = up.recv(0)).empty();) requests.push_back(d);
  ASSERT_EQ(requests.size(), 10u);
  for (const std::vector<uint8_t> &d : requests) EXPECT_EQ(d, requests[0]);
  EXPECT_EQ(r.status, 1);
  std::string resends;
  for (int i = 0; i < 9; ++i) resends += "resend request\n";
  EXPECT_EQ(kt::plainOut(r.out), resends + "Put file f.bin timed out.\nElapsed time: T\n");
  EXPECT_NE(r.out.find("Elapsed time: 00:00:2"), std::string::npos);  // no rate for an empty file
}

TEST(PutCommand, UsageAndUnreadableLocalFile) {
  std::string dir = kt::makeTempDir();
  EXPECT_EQ(kt::shown(kt::run(dir, "kestil", {"put", "-h", "127.0.6.7"}, 10000)),
            (kt::Shown{0, "put [-L] [-h host] [-o <remote file>] <local file>\n", ""}));
  EXPECT_EQ(kt::shown(kt::run(dir, "kestil-put", {"-h", "127.0.6.7", "missing.bin"}, 10000)),
            (kt::Shown{1, "", "missing.bin: No such file or directory\n"}));
}
