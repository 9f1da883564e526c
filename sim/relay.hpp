// Relay mode: the emulated link alone, between clients and an upstream UDP service, so any
// UDP tool can be measured through the same link the simulator's own services use.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <memory>

#include "sim/emulated_socket.hpp"

struct RelayFlow;

struct Relay {
  EventLoop *loop = nullptr;
  const Trace *trace = nullptr;
  LinkConfig link;
  uint32_t idleS = 60;
  sockaddr_in upstream{};
  EmulatedSocket listen;                                 // clients' side: the emulated link applies here, both ways
  Trace quiet;                                           // upstream sockets are not traced: each datagram shows once
  std::map<uint64_t, std::unique_ptr<RelayFlow>> flows;  // by client address and port
  uint64_t housekeepingTimer = 0;
  uint64_t fromUpstream = 0;  // datagrams the upstream sent (the clients': listen.datagramsRead)

  // Out of line, where the flow record is complete.
  Relay();
  ~Relay();
};

// Starts relaying from the bound listen socket `fd`.
void relayStart(Relay *relay, EventLoop *loop, const Trace *trace, const LinkConfig &link, uint32_t idleS,
                const sockaddr_in &upstream, int fd, int64_t nowUs);
void relayStop(Relay *relay);
size_t relayFlowCount(const Relay *relay);
