// The rm command against a scripted remote file service: the one remove request byte for
// byte, its flags, which names fit under the 200- and 1400-byte limits, and what is said.
#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

namespace {

TEST(RmCommand, PacksTheNamesThatFitIntoOneDatagram) {
  const std::string fits(197, 'a'), over(198, 'b'), longFits(1397, 'c');  // 2 + 197 + 1 = 200 bytes
  // Under -L: a thousand empty names, one byte each, all fit; of twenty 150-byte names nine do.
  const std::vector<std::string> empties(1000, ""), longs(20, std::string(150, 'n'));
  std::string nine;
  for (int i = 0; i < 9; ++i) nine += longs[i] + '\0';
  const struct {
    const char *ip, *flags;
    std::vector<std::string> names;
    char flagByte;
    std::string packed;  // the names the request carries, each ending in NUL; empty: nothing sent
  } cases[] = {
      {"127.0.6.40", "", {"a", "b/c"}, 0, std::string("a\0b/c\0", 6)},
      {"127.0.6.41", "-r -f", {"x"}, 3, std::string("x\0", 2)},
      {"127.0.6.42", "", {fits}, 0, fits + '\0'},
      {"127.0.6.43", "", {"x", over, "y"}, 0, std::string("x\0y\0", 4)},  // later names are still tried
      {"127.0.6.44", "-L", {longFits, "z"}, 0, longFits + '\0'},
      {"127.0.6.47", "-L", empties, 0, std::string(1000, '\0')},
      {"127.0.6.48", "-L", longs, 0, nine},
      {"127.0.6.45", "", {over}, 0, ""},
  };
  for (const auto &c : cases) {
    kt::UdpPeer peer;
    ASSERT_TRUE(peer.bind(c.ip, 3223));
    std::vector<std::string> args = kt::words(std::string("-h ") + c.ip + " " + c.flags);
    args.insert(args.end(), c.names.begin(), c.names.end());
    kt::Result r = kt::run(kt::makeTempDir(), "kestil-rm", args, 10000);
    std::vector<uint8_t> sent = peer.recv(nullptr, 200);  // the client has ended: queued or absent
    EXPECT_EQ(std::string(sent.begin(), sent.end()), c.packed.empty() ? "" : std::string(1, 3) + c.flagByte + c.packed);
    // Each name is packed, or said not to fit when it is not among those the request carries.
    std::string out;
    for (size_t at = 0; const std::string &n : c.names) {
      bool packed = c.packed.compare(at, n.size() + 1, n + '\0') == 0;
      out += "Packing " + n + "\n" + (packed ? "" : "Not packed, too long for the request: " + n + "\n");
      at += packed ? n.size() + 1 : 0;
    }
    out += c.packed.empty() ? "No name fits in the request; nothing sent\n"
                            : "Sent " + std::to_string(2 + c.packed.size()) + " byte rm!\n";
    EXPECT_EQ(r, (kt::Result{0, out, ""})) << c.ip;
  }
  EXPECT_EQ(kt::run(kt::makeTempDir(), "kestil-rm", {"-h", "127.0.6.46"}, 10000),
            (kt::Result{0, "rm [-h host] [-L] <remote file>\n", ""}));
}

}  // namespace
