// The simulator's capture (--pcap FILE): every datagram its sockets read or hand to the
// emulated link, as a pcapng file that Wireshark and tshark open, with the link's verdict
// attached as a packet comment wherever it did more than deliver the datagram.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "sim/link_emulator.hpp"

struct PcapWriter {
  FILE *out = nullptr;
  int64_t wallMinusMonoUs = 0;  // turns the event loop's monotonic time into capture time
  uint16_t ipId = 0;            // identification field of the made-up IPv4 headers
};

// Largest record pcapFormatPacket writes: block framing, IPv4 and UDP headers, a datagram
// of the most the simulator reads, and a comment.
constexpr size_t PCAP_MAX_RECORD = 2048;

// Creates (truncating) `path` and writes the section header and the one interface, a raw
// IPv4 link. False with errno set when the file cannot be written.
[[nodiscard]] bool pcapOpen(PcapWriter *w, const char *path, int64_t nowUs);
// Appends one datagram from `src` to `dst`; the link's verdict becomes the packet comment
// unless it simply delivered it. Does nothing for a null or closed writer.
void pcapRecord(PcapWriter *w, int64_t nowUs, const sockaddr_in &src, const sockaddr_in &dst, const uint8_t *dgram,
                int len, LinkFate fate);
void pcapClose(PcapWriter *w);

// The file's opening bytes (section header and interface description); returns their length.
size_t pcapFormatHeader(uint8_t *buf, size_t size);
// One enhanced packet block carrying an IPv4/UDP packet around `dgram`, time-stamped in
// microseconds since 1970; `comment` may be null. Returns its length, 0 when it does not fit.
size_t pcapFormatPacket(uint8_t *buf, size_t size, uint64_t wallUs, const sockaddr_in &src, const sockaddr_in &dst,
                        uint16_t ipId, const uint8_t *dgram, int len, const char *comment);
