// Trace lines: seconds since start, direction, peer, command code, the block number or
// acknowledged base where the datagram has one, length, and the link's verdict.
#include "sim/trace.hpp"

#include <arpa/inet.h>

#include <cstdarg>

#include "common/wire.hpp"

namespace {

// The block number or base a transfer datagram carries, as text; empty when it has none.
void describeTransfer(char *buf, size_t size, const uint8_t *d, int len) {
  buf[0] = '\0';
  if (len < 1) return;
  uint8_t code = d[0];
  if (code >= KESTIL_DATA1 && code <= KESTIL_DATA4) {
    int width = code - KESTIL_DATA1 + 1;
    if (len >= 1 + width) std::snprintf(buf, size, "block %u", loadBeN(d + 1, width));
  } else if (code == KESTIL_METADATA) {
    std::snprintf(buf, size, "block 0");
  } else if ((code == KESTIL_VECACK || code == KESTIL_VECACK_FINAL) && len >= 5) {
    std::snprintf(buf, size, "base %u", loadBe32(d + 1));
  }
}

}  // namespace

int formatTraceLine(char *buf, size_t size, int64_t sinceStartUs, TraceDir dir, const sockaddr_in &peer,
                    TraceProto proto, const uint8_t *dgram, int len, LinkFate fate) {
  char addr[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &peer.sin_addr, addr, sizeof addr);
  char what[32] = "";
  if (proto == TraceProto::Transfer) describeTransfer(what, sizeof what, dgram, len);
  int code = len >= 1 ? dgram[0] : -1;
  int n = std::snprintf(buf, size, "%10.3f %-3s %s:%u code %d%s%s len %d %s\n", static_cast<double>(sinceStartUs) / 1e6,
                        dir == TraceDir::In ? "in" : "out", addr, ntohs(peer.sin_port), code,
                        what[0] != '\0' ? " " : "", what, len, linkFateName(fate));
  return n < 0 ? 0 : (static_cast<size_t>(n) >= size ? static_cast<int>(size) - 1 : n);
}

void traceDatagram(const Trace &trace, int64_t nowUs, TraceDir dir, const sockaddr_in &peer, TraceProto proto,
                   const uint8_t *dgram, int len, LinkFate fate) {
  if (trace.out == nullptr) return;
  char line[160];
  int n = formatTraceLine(line, sizeof line, nowUs - trace.startUs, dir, peer, proto, dgram, len, fate);
  std::fwrite(line, 1, static_cast<size_t>(n), trace.out);
  std::fflush(trace.out);
}

void traceNote(const Trace &trace, int64_t nowUs, const char *format, ...) {
  if (trace.out == nullptr) return;
  std::fprintf(trace.out, "%10.3f --- ", static_cast<double>(nowUs - trace.startUs) / 1e6);
  va_list ap;
  va_start(ap, format);
  std::vfprintf(trace.out, format, ap);
  va_end(ap);
  std::fputc('\n', trace.out);
  std::fflush(trace.out);
}
