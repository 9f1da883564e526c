// Reading, link submission and timed delivery for one emulated socket.
#include "sim/emulated_socket.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "common/wire.hpp"
#include "sim/pcap_writer.hpp"

namespace {

// Datagrams read per wake-up, so one busy socket cannot starve the others.
constexpr int READ_BURST = 64;
// Receive buffer asked for: a relay between a paced sender and its link takes bursts of a few
// thousand small datagrams whenever the host keeps it from running for a few milliseconds,
// and the default buffer (about 300 of them) would lose some, to the cost of whichever tool
// is measured through it.
constexpr int RECEIVE_BUFFER_BYTES = 2 << 20;

void flush(EmulatedSocket *s, int64_t nowUs);

void arm(EmulatedSocket *s) {
  int64_t in = linkNextDue(&s->inbound);
  int64_t out = linkNextDue(&s->outbound);
  int64_t due = in < 0 ? out : (out < 0 ? in : std::min(in, out));
  if (due == s->flushDue && s->flushTimer != 0) return;
  loopCancelTimer(s->loop, s->flushTimer);
  s->flushTimer = 0;
  s->flushDue = due;
  if (due < 0) return;
  s->flushTimer = loopAddTimer(s->loop, due, [s](int64_t now) {
    s->flushTimer = 0;
    s->flushDue = -1;
    flush(s, now);
  });
}

void flushOutbound(EmulatedSocket *s, int64_t nowUs) {
  LinkDatagram d;
  while (linkPopDue(&s->outbound, nowUs, &d)) {
    // A full socket buffer loses the datagram, as a real radio queue would.
    (void)sendto(s->fd, d.bytes.data(), d.bytes.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&d.peer),
                 sizeof d.peer);
  }
}

void flush(EmulatedSocket *s, int64_t nowUs) {
  flushOutbound(s, nowUs);
  LinkDatagram d;
  while (linkPopDue(&s->inbound, nowUs, &d)) {
    s->onDatagram(d.bytes.data(), static_cast<int>(d.bytes.size()), d.peer, nowUs);
    if (s->fd < 0) return;  // the handler closed the socket
  }
  arm(s);
}

void onReadable(EmulatedSocket *s, int64_t nowUs) {
  uint8_t buf[KESTIL_MAX_DATAGRAM];
  for (int i = 0; i < READ_BURST; ++i) {
    sockaddr_in from{};
    socklen_t fromLen = sizeof from;
    ssize_t n = recvfrom(s->fd, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &fromLen);
    if (n < 0) break;  // drained (or a transient error: the next wake-up tries again)
    s->datagramsRead++;
    LinkFate fate = linkSubmit(&s->inbound, nowUs, buf, static_cast<int>(n), from);
    traceDatagram(*s->trace, nowUs, TraceDir::In, from, s->proto, buf, static_cast<int>(n), fate);
    pcapRecord(s->trace->pcap, nowUs, from, s->local, buf, static_cast<int>(n), fate);
  }
  flush(s, nowUs);
}

}  // namespace

int openUdpSocket(const sockaddr_in &local) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int rcvbuf = RECEIVE_BUFFER_BYTES;
  (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);  // the default is kept if refused
  if (bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  return fd;
}

void esStart(EmulatedSocket *s, int fd, EventLoop *loop, const Trace *trace, TraceProto proto, const LinkConfig &link,
             uint64_t salt, int64_t nowUs, DatagramHandler onDatagram) {
  s->fd = fd;
  socklen_t len = sizeof s->local;
  getsockname(fd, reinterpret_cast<sockaddr *>(&s->local), &len);
  s->loop = loop;
  s->trace = trace;
  s->proto = proto;
  s->onDatagram = std::move(onDatagram);
  linkInit(&s->inbound, link, salt * 2 + 1, nowUs);
  linkInit(&s->outbound, link, salt * 2 + 2, nowUs);
  loopWatch(loop, fd, [s](int64_t now) { onReadable(s, now); });
}

void esSend(EmulatedSocket *s, int64_t nowUs, const uint8_t *dgram, int len, const sockaddr_in &to) {
  if (s->fd < 0 || len <= 0) return;
  LinkFate fate = linkSubmit(&s->outbound, nowUs, dgram, len, to);
  traceDatagram(*s->trace, nowUs, TraceDir::Out, to, s->proto, dgram, len, fate);
  pcapRecord(s->trace->pcap, nowUs, s->local, to, dgram, len, fate);
  flushOutbound(s, nowUs);
  arm(s);
}

void esClose(EmulatedSocket *s) {
  if (s->fd < 0) return;
  loopUnwatch(s->loop, s->fd);
  loopCancelTimer(s->loop, s->flushTimer);
  s->flushTimer = 0;
  close(s->fd);
  s->fd = -1;
  s->inbound.queue.clear();
  s->outbound.queue.clear();
}
