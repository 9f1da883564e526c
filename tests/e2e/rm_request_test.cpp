// The rm command against a scripted remote file service: the one remove request byte for
// byte, its flags, and which names fit under the 200- and 1400-byte limits.
#include <gtest/gtest.h>

#include <string>

#include "common/wire.hpp"
#include "tests/support/test_support.hpp"

namespace {

constexpr int RUN_MS = 10000;

struct RmRun {
  kt::Result result;
  std::vector<uint8_t> sent;  // empty when nothing arrived
};

RmRun runRm(const char *ip, const std::vector<std::string> &args) {
  kt::UdpPeer peer;
  EXPECT_TRUE(peer.bind(ip, KESTIL_PORT));
  std::vector<std::string> argv = {"-h", ip};
  argv.insert(argv.end(), args.begin(), args.end());
  RmRun run;
  run.result = kt::run(kt::makeTempDir(), "kestil-rm", argv, RUN_MS);
  sockaddr_in from{};
  run.sent = peer.recv(&from, 200);  // the client has ended: its datagram is queued or absent
  return run;
}

std::vector<uint8_t> request(uint8_t flags, const std::string &names) {
  std::string d = std::string{static_cast<char>(KESTIL_RM), static_cast<char>(flags)} + names;
  return std::vector<uint8_t>(d.begin(), d.end());
}

}  // namespace

TEST(RmCommand, PacksNamesBackToBackInOneDatagram) {
  RmRun run = runRm("127.0.6.40", {"a", "b/c"});
  EXPECT_EQ(run.sent, kt::bytes({0x03, 0x00, 0x61, 0x00, 0x62, 0x2F, 0x63, 0x00}));
  EXPECT_EQ(kt::shown(run.result), (kt::Shown{0, "Packing a\nPacking b/c\nSent 8 byte rm!\n", ""}));

  run = runRm("127.0.6.41", {"-r", "-f", "x"});
  EXPECT_EQ(run.sent, kt::bytes({0x03, 0x03, 'x', 0}));
}

TEST(RmCommand, NamesThatDoNotFitAreLeftOutAndLaterOnesStillTried) {
  const std::string fits(197, 'a'), over(198, 'b');  // 2 + 197 + 1 = 200 bytes exactly
  RmRun run = runRm("127.0.6.42", {fits});
  EXPECT_EQ(run.sent, request(0, fits + '\0'));

  run = runRm("127.0.6.43", {"x", over, "y"});
  EXPECT_EQ(run.sent, request(0, std::string("x\0y\0", 4)));
  EXPECT_EQ(run.result.out, "Packing x\nPacking " + over + "\nNot packed, too long for the request: " + over +
                                "\nPacking y\nSent 6 byte rm!\n");

  const std::string longFits(1397, 'c');
  run = runRm("127.0.6.44", {"-L", longFits, "z"});
  EXPECT_EQ(run.sent, request(0, longFits + '\0'));
}

TEST(RmCommand, NothingIsSentWithoutAPackedName) {
  RmRun run = runRm("127.0.6.45", {std::string(198, 'd')});
  EXPECT_TRUE(run.sent.empty());
  EXPECT_EQ(kt::shown(run.result), (kt::Shown{0,
                                              "Packing " + std::string(198, 'd') +
                                                  "\nNot packed, too long for the request: " + std::string(198, 'd') +
                                                  "\nNo name fits in the request; nothing sent\n",
                                              ""}));

  run = runRm("127.0.6.46", {});
  EXPECT_TRUE(run.sent.empty());
  EXPECT_EQ(kt::shown(run.result), (kt::Shown{0, "rm [-h host] [-L] <remote file>\n", ""}));
}
