// A capture file's header and packet block byte for byte: the section and its raw-IPv4
// interface, the IPv4 and UDP headers made up around the datagram (checksum included), the
// padding, and the comment with the link's verdict. (Whole captures: tshark reads them in the
// dissector's install test.)
#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <vector>

#include "sim/pcap_writer.hpp"

namespace {

sockaddr_in endpoint(const char *ip, uint16_t port) {
  sockaddr_in a{AF_INET, htons(port), {}, {}};
  inet_pton(AF_INET, ip, &a.sin_addr);
  return a;
}

TEST(PcapWriter, HeaderIsABigEndianSectionAndARawIPv4Interface) {
  // clang-format off
  const std::vector<uint8_t> expected = {
      0x0A, 0x0D, 0x0D, 0x0A, 0x00, 0x00, 0x00, 0x1C, 0x1A, 0x2B, 0x3C, 0x4D,  // section, 28 bytes
      0x00, 0x01, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,  // 1.0, length not given
      0x00, 0x00, 0x00, 0x1C,
      0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x14, 0x00, 0x65, 0x00, 0x00,  // interface, 20 bytes, raw
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x14};                          // no snap length
  // clang-format on
  std::vector<uint8_t> buf(64, 0xEE);
  ASSERT_EQ(pcapFormatHeader(buf.data(), buf.size()), expected.size());
  EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + expected.size()), expected);
  EXPECT_EQ(pcapFormatHeader(buf.data(), expected.size() - 1), 0u);
}

TEST(PcapWriter, PacketBlockCarriesPaddedPacketAndComment) {
  const uint8_t datagram[] = {0x05, 0x11, 0xAA};
  // clang-format off
  const std::vector<uint8_t> expected = {
      0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x54, 0x00, 0x00, 0x00, 0x00,  // type 6, 84 bytes, interface 0
      0x00, 0x00, 0x00, 0x01, 0x12, 0x34, 0x56, 0x78,                          // microseconds, high then low
      0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00, 0x1F,                          // captured and original 31
      // IPv4 (identification 7, checksum 0x31C3), 127.0.11.3 to 127.0.0.1, UDP 3223 to 40000
      0x45, 0x00, 0x00, 0x1F, 0x00, 0x07, 0x40, 0x00, 0x40, 0x11, 0x31, 0xC3, 0x7F, 0x00, 0x0B, 0x03,
      0x7F, 0x00, 0x00, 0x01, 0x0C, 0x97, 0x9C, 0x40, 0x00, 0x0B, 0x00, 0x00, 0x05, 0x11, 0xAA,
      0x00,                                                                     // padding to 32
      0x00, 0x01, 0x00, 0x09, 'l', 'i', 'n', 'k', ':', ' ', 'd', 'u', 'p', 0x00, 0x00, 0x00,  // comment
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x54};                          // end of options, length
  // clang-format on
  std::vector<uint8_t> buf(128, 0xEE);
  auto format = [&](size_t room) {
    return pcapFormatPacket(buf.data(), room, 0x0000000112345678, endpoint("127.0.11.3", 3223),
                            endpoint("127.0.0.1", 40000), 7, datagram, 3, "link: dup");
  };
  ASSERT_EQ(format(buf.size()), expected.size());
  EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + expected.size()), expected);
  EXPECT_EQ(buf[expected.size()], 0xEE);
  std::fill(buf.begin(), buf.end(), 0xEE);
  EXPECT_EQ(format(expected.size() - 1), 0u);  // no room: nothing written
  EXPECT_EQ(buf[0], 0xEE);
}

}  // namespace
