// The rm command against a scripted remote file service: the one remove request byte for
// byte, its flags, which names fit under the 200- and 1400-byte limits, and what is said.
#include <gtest/gtest.h>

#include <algorithm>

#include "common/wire.hpp"
#include "tests/support/test_support.hpp"

namespace {

std::vector<uint8_t> request(uint8_t flags, const std::string &names) {
  // Sized up front: appending to a two-byte vector trips a false array-bounds warning in g++ 12.
  std::vector<uint8_t> d(2 + names.size());
  d[0] = KESTIL_RM;
  d[1] = flags;
  std::copy(names.begin(), names.end(), d.begin() + 2);
  return d;
}

std::string packing(const std::vector<std::string> &names) {
  std::string out;
  for (const std::string &n : names) out += "Packing " + n + "\n";
  return out;
}

TEST(RmCommand, PacksTheNamesThatFitIntoOneDatagram) {
  const std::string fits(197, 'a'), over(198, 'b'), longFits(1397, 'c');  // 2 + 197 + 1 = 200 bytes
  const std::string left = "Not packed, too long for the request: " + over + "\n";
  // Under -L: a thousand empty names, one byte each, all fit; of twenty 150-byte names nine do.
  std::vector<std::string> empties(1000, ""), longs(20, std::string(150, 'n'));
  std::string longsOut, nine;
  for (size_t i = 0; i < longs.size(); ++i) {
    longsOut += "Packing " + longs[i] + "\n";
    if (i < 9)
      nine += longs[i] + '\0';
    else
      longsOut += "Not packed, too long for the request: " + longs[i] + "\n";
  }
  empties.insert(empties.begin(), "-L"), longs.insert(longs.begin(), "-L");
  const struct {
    const char *ip;
    std::vector<std::string> args;
    std::vector<uint8_t> sent;  // empty: nothing sent
    std::string out;
  } cases[] = {
      {"127.0.6.40",
       {"a", "b/c"},
       {0x03, 0x00, 0x61, 0x00, 0x62, 0x2F, 0x63, 0x00},
       packing({"a", "b/c"}) + "Sent 8 byte rm!\n"},
      {"127.0.6.41", {"-r", "-f", "x"}, {0x03, 0x03, 'x', 0}, packing({"x"}) + "Sent 4 byte rm!\n"},
      {"127.0.6.42", {fits}, request(0, fits + '\0'), packing({fits}) + "Sent 200 byte rm!\n"},
      // A name that does not fit is left out; later ones are still tried.
      {"127.0.6.43",
       {"x", over, "y"},
       request(0, std::string("x\0y\0", 4)),
       packing({"x", over}) + left + "Packing y\nSent 6 byte rm!\n"},
      {"127.0.6.44",
       {"-L", longFits, "z"},
       request(0, longFits + '\0'),
       packing({longFits, "z"}) + "Not packed, too long for the request: z\nSent 1400 byte rm!\n"},
      {"127.0.6.47", empties, request(0, std::string(1000, '\0')),
       packing({empties.begin() + 1, empties.end()}) + "Sent 1002 byte rm!\n"},
      {"127.0.6.48", longs, request(0, nine), longsOut + "Sent 1361 byte rm!\n"},
      {"127.0.6.45", {over}, {}, packing({over}) + left + "No name fits in the request; nothing sent\n"},
      {"127.0.6.46", {}, {}, "rm [-h host] [-L] <remote file>\n"},
  };
  for (const auto &c : cases) {
    kt::UdpPeer peer;
    ASSERT_TRUE(peer.bind(c.ip, KESTIL_PORT));
    std::vector<std::string> args{"-h", c.ip};
    args.insert(args.end(), c.args.begin(), c.args.end());
    kt::Result r = kt::run(kt::makeTempDir(), "kestil-rm", args, 10000);
    EXPECT_EQ(peer.recv(nullptr, 200), c.sent) << c.ip;  // the client has ended: queued or absent
    EXPECT_EQ(kt::shown(r), (kt::Shown{0, c.out, ""})) << c.ip;
  }
}

}  // namespace
