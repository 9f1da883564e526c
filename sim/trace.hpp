// The protocol trace (-v): one line per datagram in and out, with what the emulated link
// did to it, and a few notes on what the services did.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "sim/link_emulator.hpp"

enum class TraceDir : uint8_t { In, Out };
// How byte 0 and the following bytes of a datagram are read for the trace.
enum class TraceProto : uint8_t { Transfer, FileManager, Opaque };

struct PcapWriter;

struct Trace {
  FILE *out = nullptr;  // null: tracing off
  int64_t startUs = 0;
  PcapWriter *pcap = nullptr;  // --pcap: the capture of the same datagrams; null: none
};

// Formats one datagram line (with its newline) into `buf`; returns its length.
int formatTraceLine(char *buf, size_t size, int64_t sinceStartUs, TraceDir dir, const sockaddr_in &peer,
                    TraceProto proto, const uint8_t *dgram, int len, LinkFate fate);
void traceDatagram(const Trace &trace, int64_t nowUs, TraceDir dir, const sockaddr_in &peer, TraceProto proto,
                   const uint8_t *dgram, int len, LinkFate fate);
[[gnu::format(printf, 3, 4)]] void traceNote(const Trace &trace, int64_t nowUs, const char *format, ...);
