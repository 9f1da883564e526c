// The put command against a scripted remote file service: the request and the first burst
// byte for byte, the remote side's closing and refusing answers and the silence time-out.
// (Lossy uploads to completion: the suite against kestil-sim; interrupted ones: the interrupt
// soak.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "tests/support/file_server.hpp"

namespace {

// A put of `content` from a file named `local` in the run's directory.
struct Upload : kt::RemoteRun {
  std::string content;
  Upload(const char *ip, const std::string &data, std::vector<std::string> args, const std::string &local = "f.bin")
      : RemoteRun(ip, "kestil-put", (args.push_back(local), args), {{local, data}}), content(data) {}
};

TEST(PutUpload, RequestCarriesEmptyAckAndFirstBurstIsMetadataAndFiveBlocks) {
  Upload up("127.0.6.1", kt::patternBytes(1000, 1), {}, "sub/f.bin");  // 8 data blocks
  // Request for the last path component with an empty acknowledgement of blocks 0 to 15.
  EXPECT_EQ(up.recv(3000), kt::bytes({1, 0, 0, 0x8D, 0, 0, 0, 1, 'f', '.', 'b', 'i', 'n', 0, 9, 0, 0, 0, 0, 0, 0}));
  up.send(kt::bytes({0x09, 0, 0, 0, 0, 0xFF}));  // the answer's vector is not applied: block 0 comes first
  struct stat st {};
  stat((up.dir + "/sub/f.bin").c_str(), &st);
  EXPECT_EQ(up.recv(3000), kt::metadataDatagram(1000, kt::md5Raw(up.content), 1, uint32_t(st.st_mtime)));
  for (uint32_t blk = 1; blk <= 5; ++blk) EXPECT_EQ(up.recv(3000), kt::blockDatagram(up.content, blk)) << blk;
  up.send(kt::bytes({0x0E, 0, 0, 0, 0}));
  kt::Result r = up.finish();
  EXPECT_TRUE(up.recv(200).empty());  // nothing but the burst
  EXPECT_EQ(
      kt::plainShown(r),
      (kt::Result{0,
                  "ACK 0\nsend blocks\nSend block 0 / 6.000000\nSend block 1 / 5.000000\nSend block 2 / 4.000000\n"
                  "Send block 3 / 3.000000\nSend block 4 / 2.000000\nSend block 5 / 1.000000\nACK 0\nDone!\n"
                  "Elapsed time: T A\n",
                  ""}));
}

TEST(PutUpload, RemoteSideClosesOrRefuses) {
  Upload closing("127.0.6.3", "short", {});
  ASSERT_EQ(closing.recv(3000).at(0), 1);
  closing.send(kt::bytes({0x0E, 0, 0, 0, 0}));  // closing acknowledgement as the very first answer
  EXPECT_EQ(kt::plainShown(closing.finish()), (kt::Result{0, "ACK 0\nDone!\nElapsed time: T A\n", ""}));

  Upload refused("127.0.6.4", "short", {});
  ASSERT_EQ(refused.recv(3000).at(0), 1);
  for (auto d : {kt::bytes({0x0D, 0, 0, 0}), kt::bytes({0x09, 0, 0, 0}), kt::bytes({0x0D, 1, 2, 3, 4})})
    refused.send(d);  // 4 bytes or fewer are ignored, whatever the code
  EXPECT_EQ(refused.finish(), (kt::Result{1, "PUT failure\n", ""}));
}

TEST(PutUpload, NoAnswerRepeatsRequestEveryTwoSecondsAndGivesUpAtTwenty) {
  Upload up("127.0.6.6", "", {"-o", "remote/name"});
  // Counted until the client gives up, not timed: a loaded machine may delay any of them.
  std::vector<std::vector<uint8_t>> requests;
  for (long long end = kt::nowMs() + 40000; kt::nowMs() < end && !kt::childEnded(up.child.pid);)
    if (std::vector<uint8_t> d = up.recv(100); !d.empty()) requests.push_back(d);
  kt::Result r = up.finish();
  for (std::vector<uint8_t> d; !(d = up.recv(0)).empty();) requests.push_back(d);
  ASSERT_EQ(requests.size(), 10u);
  EXPECT_EQ(requests, std::vector(10, requests[0]));
  std::string resends;
  for (int i = 0; i < 9; ++i) resends += "resend request\n";
  EXPECT_EQ(kt::plainShown(r), (kt::Result{1, resends + "Put file f.bin timed out.\nElapsed time: T\n", ""}));
  EXPECT_NE(r.out.find("Elapsed time: 00:00:2"), std::string::npos) << r.out;
}

}  // namespace
