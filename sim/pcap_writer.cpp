// pcapng blocks written big-endian with the same helpers as the wire codecs: the byte-order
// magic tells readers the order, so the file is the same on every host.
#include "sim/pcap_writer.hpp"

#include <sys/time.h>

#include <cerrno>
#include <cstring>

#include "common/wire.hpp"

namespace {

constexpr uint32_t BLOCK_SECTION_HEADER = 0x0A0D0D0A;
constexpr uint32_t BLOCK_INTERFACE = 1;
constexpr uint32_t BLOCK_ENHANCED_PACKET = 6;
constexpr uint32_t BYTE_ORDER_MAGIC = 0x1A2B3C4D;
constexpr uint16_t LINKTYPE_RAW = 101;  // packets begin with their IP header
constexpr uint16_t OPT_END = 0;
constexpr uint16_t OPT_COMMENT = 1;
constexpr int IP_HEADER_LEN = 20;
constexpr int UDP_HEADER_LEN = 8;

size_t pad4(size_t n) { return (n + 3) & ~static_cast<size_t>(3); }

uint16_t ipChecksum(const uint8_t *p, int len) {
  uint32_t sum = 0;
  for (int i = 0; i + 1 < len; i += 2) sum += loadBe16(p + i);
  while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

// IPv4 header without options and a UDP header; the UDP checksum is left 0 ("none"), which
// IPv4 allows and readers do not flag.
void writeIpUdp(uint8_t *p, const sockaddr_in &src, const sockaddr_in &dst, uint16_t ipId, int payloadLen) {
  int total = IP_HEADER_LEN + UDP_HEADER_LEN + payloadLen;
  std::memset(p, 0, IP_HEADER_LEN + UDP_HEADER_LEN);
  p[0] = 0x45;
  storeBe16(p + 2, static_cast<uint16_t>(total));
  storeBe16(p + 4, ipId);
  storeBe16(p + 6, 0x4000);  // don't fragment
  p[8] = 64;
  p[9] = 17;  // UDP
  std::memcpy(p + 12, &src.sin_addr, 4);
  std::memcpy(p + 16, &dst.sin_addr, 4);
  storeBe16(p + 10, ipChecksum(p, IP_HEADER_LEN));
  uint8_t *udp = p + IP_HEADER_LEN;
  std::memcpy(udp, &src.sin_port, 2);
  std::memcpy(udp + 2, &dst.sin_port, 2);
  storeBe16(udp + 4, static_cast<uint16_t>(UDP_HEADER_LEN + payloadLen));
}

uint64_t wallClockUs() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return static_cast<uint64_t>(tv.tv_sec) * 1000000 + static_cast<uint64_t>(tv.tv_usec);
}

}  // namespace

size_t pcapFormatHeader(uint8_t *buf, size_t size) {
  constexpr size_t SHB_LEN = 28;
  constexpr size_t IDB_LEN = 20;
  if (size < SHB_LEN + IDB_LEN) return 0;
  std::memset(buf, 0, SHB_LEN + IDB_LEN);
  storeBe32(buf, BLOCK_SECTION_HEADER);
  storeBe32(buf + 4, SHB_LEN);
  storeBe32(buf + 8, BYTE_ORDER_MAGIC);
  storeBe16(buf + 12, 1);           // version 1.0
  storeBe32(buf + 16, 0xFFFFFFFF);  // section length not given
  storeBe32(buf + 20, 0xFFFFFFFF);
  storeBe32(buf + 24, SHB_LEN);
  uint8_t *idb = buf + SHB_LEN;
  storeBe32(idb, BLOCK_INTERFACE);
  storeBe32(idb + 4, IDB_LEN);
  storeBe16(idb + 8, LINKTYPE_RAW);
  storeBe32(idb + 12, 0);  // no snap length: every datagram is kept whole
  storeBe32(idb + 16, IDB_LEN);
  return SHB_LEN + IDB_LEN;
}

size_t pcapFormatPacket(uint8_t *buf, size_t size, uint64_t wallUs, const sockaddr_in &src, const sockaddr_in &dst,
                        uint16_t ipId, const uint8_t *dgram, int len, const char *comment) {
  if (len < 0) return 0;
  size_t packetLen = IP_HEADER_LEN + UDP_HEADER_LEN + static_cast<size_t>(len);
  size_t commentLen = comment != nullptr ? std::strlen(comment) : 0;
  size_t optionsLen = commentLen > 0 ? 4 + pad4(commentLen) + 4 : 0;
  size_t total = 28 + pad4(packetLen) + optionsLen + 4;
  if (total > size || commentLen > 0xFFFF) return 0;
  std::memset(buf, 0, total);
  storeBe32(buf, BLOCK_ENHANCED_PACKET);
  storeBe32(buf + 4, static_cast<uint32_t>(total));
  storeBe32(buf + 8, 0);  // the one interface
  // Time stamps count microseconds, the interface's default resolution.
  storeBe32(buf + 12, static_cast<uint32_t>(wallUs >> 32));
  storeBe32(buf + 16, static_cast<uint32_t>(wallUs));
  storeBe32(buf + 20, static_cast<uint32_t>(packetLen));
  storeBe32(buf + 24, static_cast<uint32_t>(packetLen));
  writeIpUdp(buf + 28, src, dst, ipId, len);
  if (len > 0) std::memcpy(buf + 28 + IP_HEADER_LEN + UDP_HEADER_LEN, dgram, static_cast<size_t>(len));
  uint8_t *opt = buf + 28 + pad4(packetLen);
  if (commentLen > 0) {
    storeBe16(opt, OPT_COMMENT);
    storeBe16(opt + 2, static_cast<uint16_t>(commentLen));
    // The option's length says where the text ends; the zero padding is not part of it.
    std::memcpy(opt + 4, comment, commentLen);  // NOLINT(bugprone-not-null-terminated-result)
    opt += 4 + pad4(commentLen);
    storeBe16(opt, OPT_END);
  }
  storeBe32(buf + total - 4, static_cast<uint32_t>(total));
  return total;
}

bool pcapOpen(PcapWriter *w, const char *path, int64_t nowUs) {
  w->out = std::fopen(path, "wbe");
  if (w->out == nullptr) return false;
  w->wallMinusMonoUs = static_cast<int64_t>(wallClockUs()) - nowUs;
  uint8_t header[64];
  size_t n = pcapFormatHeader(header, sizeof header);
  if (std::fwrite(header, 1, n, w->out) != n || std::fflush(w->out) != 0) {
    int saved = errno;
    pcapClose(w);
    errno = saved;
    return false;
  }
  return true;
}

void pcapRecord(PcapWriter *w, int64_t nowUs, const sockaddr_in &src, const sockaddr_in &dst, const uint8_t *dgram,
                int len, LinkFate fate) {
  if (w == nullptr || w->out == nullptr) return;
  // The comment is the trace's own word for the fate, so a capture and a -v trace of the
  // same run read alike.
  char comment[48] = "";
  if (fate != LinkFate::Delivered) std::snprintf(comment, sizeof comment, "link: %s", linkFateName(fate));
  uint8_t record[PCAP_MAX_RECORD];
  size_t n = pcapFormatPacket(record, sizeof record, static_cast<uint64_t>(nowUs + w->wallMinusMonoUs), src, dst,
                              w->ipId++, dgram, len, comment);
  if (n == 0) return;
  // Flushed per record so that a capture can be followed while the simulator runs.
  std::fwrite(record, 1, n, w->out);
  std::fflush(w->out);
}

void pcapClose(PcapWriter *w) {
  if (w->out != nullptr) std::fclose(w->out);
  w->out = nullptr;
}
