// Trace lines: the fields an operator reads, for each kind of datagram.
#include "sim/trace.hpp"

#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

namespace {

std::string line(TraceDir dir, TraceProto proto, std::vector<uint8_t> d, LinkFate fate) {
  sockaddr_in peer{};
  peer.sin_port = htons(40001);
  peer.sin_addr.s_addr = htonl(0x7F000703);  // 127.0.7.3
  char buf[160];
  int n = formatTraceLine(buf, sizeof buf, 1234567, dir, peer, proto, d.data(), static_cast<int>(d.size()), fate);
  return std::string(buf, static_cast<size_t>(n));
}

TEST(Trace, LinesCarryTimeDirectionPeerCodeBlockOrBaseLengthAndFate) {
  EXPECT_EQ(line(TraceDir::Out, TraceProto::Transfer, kt::bytes({6, 0x01, 0x2C, 0xAA}), LinkFate::Delivered),
            "     1.235 out 127.0.7.3:40001 code 6 block 300 len 4 ok\n");
  EXPECT_EQ(line(TraceDir::In, TraceProto::Transfer, kt::bytes({9, 0, 0, 1, 0, 0xFF}), LinkFate::LostRandom),
            "     1.235 in  127.0.7.3:40001 code 9 base 256 len 6 DROPPED(loss)\n");
  // A truncated block shows no number; file-manager codes are not blocks.
  EXPECT_EQ(line(TraceDir::In, TraceProto::Transfer, kt::bytes({7, 1}), LinkFate::HeldBack),
            "     1.235 in  127.0.7.3:40001 code 7 len 2 late\n");
  EXPECT_EQ(line(TraceDir::Out, TraceProto::FileManager, kt::bytes({5, 0}), LinkFate::LostPass),
            "     1.235 out 127.0.7.3:40001 code 5 len 2 DROPPED(pass)\n");
  EXPECT_EQ(line(TraceDir::In, TraceProto::Opaque, {}, LinkFate::Duplicated),
            "     1.235 in  127.0.7.3:40001 code -1 len 0 dup\n");
}

}  // namespace
