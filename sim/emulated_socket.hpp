// A UDP socket bound to one exact address whose traffic, both ways, passes through the
// emulated link and the trace. The services send and receive only through it.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>

#include "sim/event_loop.hpp"
#include "sim/link_emulator.hpp"
#include "sim/trace.hpp"

using DatagramHandler = std::function<void(const uint8_t *dgram, int len, const sockaddr_in &from, int64_t nowUs)>;

// Lives at a fixed address once started: the loop's handlers point at it.
struct EmulatedSocket {
  int fd = -1;
  sockaddr_in local{};
  LinkDirection inbound;
  LinkDirection outbound;
  EventLoop *loop = nullptr;
  const Trace *trace = nullptr;
  TraceProto proto = TraceProto::Transfer;
  DatagramHandler onDatagram;
  uint64_t flushTimer = 0;
  int64_t flushDue = -1;
  uint64_t datagramsRead = 0;  // before the inbound link's losses
};

// Creates and binds the socket to `local` (port 0: any free port). -1 with errno on failure.
int openUdpSocket(const sockaddr_in &local);
// Takes ownership of the bound socket `fd` and starts watching it.
void esStart(EmulatedSocket *s, int fd, EventLoop *loop, const Trace *trace, TraceProto proto, const LinkConfig &link,
             uint64_t salt, int64_t nowUs, DatagramHandler onDatagram);
// Hands one datagram to the outbound link; it leaves the socket when the link delivers it.
void esSend(EmulatedSocket *s, int64_t nowUs, const uint8_t *dgram, int len, const sockaddr_in &to);
// Stops watching, drops what the link still holds and closes the socket.
void esClose(EmulatedSocket *s);
