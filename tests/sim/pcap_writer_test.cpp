// The capture file's bytes: section header and interface, a packet block with its comment,
// and the capture of datagrams through pcapRecord.
#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "sim/pcap_writer.hpp"
#include "tests/support/test_support.hpp"

namespace {

constexpr uint8_t SENTINEL = 0xEE;

sockaddr_in endpoint(const char *ip, uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  inet_pton(AF_INET, ip, &a.sin_addr);
  return a;
}

// Golden bytes keep their layout.
// clang-format off
// IPv4 (checksum 0x31C3) and UDP headers of a 3-byte datagram, 127.0.11.3:3223 to
// 127.0.0.1:40000, identification 7, and the datagram itself.
const std::vector<uint8_t> PACKET = {
    0x45, 0x00, 0x00, 0x1F, 0x00, 0x07, 0x40, 0x00, 0x40, 0x11, 0x31, 0xC3, 0x7F, 0x00, 0x0B, 0x03,
    0x7F, 0x00, 0x00, 0x01, 0x0C, 0x97, 0x9C, 0x40, 0x00, 0x0B, 0x00, 0x00, 0x05, 0x11, 0xAA};
// clang-format on
const uint8_t DATAGRAM[] = {0x05, 0x11, 0xAA};
constexpr uint64_t WALL_US = 0x0000000112345678;

std::vector<uint8_t> concat(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> out;
  for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

}  // namespace

TEST(PcapWriter, HeaderIsSectionAndOneRawIpInterface) {
  uint8_t buf[64];
  std::fill(std::begin(buf), std::end(buf), SENTINEL);
  ASSERT_EQ(pcapFormatHeader(buf, sizeof buf), 48u);
  // clang-format off
  const std::vector<uint8_t> expected = {
      0x0A, 0x0D, 0x0D, 0x0A, 0x00, 0x00, 0x00, 0x1C, 0x1A, 0x2B, 0x3C, 0x4D, 0x00, 0x01, 0x00, 0x00,
      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x1C,  // section header
      0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x14, 0x00, 0x65, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      0x00, 0x00, 0x00, 0x14};  // interface: link type 101, no snap length
  // clang-format on
  EXPECT_EQ(std::vector<uint8_t>(buf, buf + 48), expected);
  EXPECT_EQ(buf[48], SENTINEL);
  EXPECT_EQ(pcapFormatHeader(buf, 47), 0u);
}

TEST(PcapWriter, PacketBlockCarriesPaddedPacketAndComment) {
  uint8_t buf[128];
  std::fill(std::begin(buf), std::end(buf), SENTINEL);
  size_t n = pcapFormatPacket(buf, sizeof buf, WALL_US, endpoint("127.0.11.3", 3223), endpoint("127.0.0.1", 40000), 7,
                              DATAGRAM, 3, "link: dup");
  // clang-format off
  const std::vector<uint8_t> expected = concat({
      {0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x54, 0x00, 0x00, 0x00, 0x00,  // type 6, 84 bytes, interface 0
       0x00, 0x00, 0x00, 0x01, 0x12, 0x34, 0x56, 0x78,                          // microseconds, high then low
       0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00, 0x1F},                         // captured and original 31
      PACKET,
      {0x00},                                                                   // padding to 32
      {0x00, 0x01, 0x00, 0x09, 'l', 'i', 'n', 'k', ':', ' ', 'd', 'u', 'p', 0x00, 0x00, 0x00},  // comment
      {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x54},                         // end of options, length
  });
  // clang-format on
  ASSERT_EQ(n, expected.size());
  EXPECT_EQ(std::vector<uint8_t>(buf, buf + n), expected);
  EXPECT_EQ(buf[n], SENTINEL);

  std::fill(std::begin(buf), std::end(buf), SENTINEL);
  EXPECT_EQ(pcapFormatPacket(buf, n - 1, WALL_US, endpoint("127.0.11.3", 3223), endpoint("127.0.0.1", 40000), 7,
                             DATAGRAM, 3, "link: dup"),
            0u);
  EXPECT_EQ(buf[0], SENTINEL);
}

// The first record, delivered, has no options (28 + 32 + 4 bytes); the lost one has its comment.
TEST(PcapWriter, RecordsEachDatagramInOrderWithLinkVerdictOnlyWhenNotDelivered) {
  std::string path = kt::makeTempDir() + "/cap.pcapng";
  PcapWriter w;
  ASSERT_TRUE(pcapOpen(&w, path.c_str(), 1000));
  sockaddr_in sim = endpoint("127.0.11.3", 3223);
  sockaddr_in client = endpoint("127.0.0.1", 40000);
  pcapRecord(&w, 2000, sim, client, DATAGRAM, 3, LinkFate::Delivered);
  pcapRecord(&w, 3000, client, sim, DATAGRAM, 3, LinkFate::LostRandom);
  pcapClose(&w);
  pcapRecord(&w, 4000, sim, client, DATAGRAM, 3, LinkFate::Delivered);  // closed: ignored

  std::string file = kt::readFile(path);
  ASSERT_EQ(file.size(), 48u + 64u + 92u);
  auto at = [&](size_t i) { return static_cast<uint8_t>(file[i]); };
  EXPECT_EQ(at(48 + 3), 6);
  EXPECT_EQ(at(48 + 28 + 5), 0);  // identification 0, then 1
  EXPECT_EQ(at(112 + 28 + 5), 1);
  EXPECT_EQ(std::vector<uint8_t>(file.begin() + 112 + 28 + 12, file.begin() + 112 + 28 + 20),
            std::vector<uint8_t>({0x7F, 0x00, 0x00, 0x01, 0x7F, 0x00, 0x0B, 0x03}));  // client to simulator
  EXPECT_EQ(file.substr(112 + 60 + 4, 19), "link: DROPPED(loss)");
  // Time stamps keep the monotonic clock's spacing.
  auto stamp = [&](size_t block) {
    uint64_t v = 0;
    for (size_t i = 0; i < 8; ++i) v = v << 8 | at(block + 12 + i);
    return v;
  };
  EXPECT_EQ(stamp(112) - stamp(48), 1000u);
}

TEST(PcapWriter, OpenFailsWhereNoFileCanBeMade) {
  PcapWriter w;
  EXPECT_FALSE(pcapOpen(&w, "/nonexistent-dir/cap.pcapng", 0));
  EXPECT_EQ(w.out, nullptr);
}
