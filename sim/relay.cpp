// Each client address and port gets its own upstream socket, so the upstream service sees
// one peer per client and its answers find their way back; every answer leaves from the
// listen address and port the client sent to.
#include "sim/relay.hpp"

#include <arpa/inet.h>

#include <vector>

struct RelayFlow {
  sockaddr_in client{};
  EmulatedSocket upstreamSock;
  int64_t lastHeardUs = 0;
  // Where the upstream last answered from. A service that answers each transfer from a port
  // of its own (TFTP does) is then reached there, as its client would reach it directly.
  sockaddr_in upstreamPeer{};
};

namespace {

constexpr int64_t HOUSEKEEPING_US = 1000000;

uint64_t peerKey(const sockaddr_in &a) {
  return static_cast<uint64_t>(ntohl(a.sin_addr.s_addr)) << 16 | ntohs(a.sin_port);
}

RelayFlow *flowFor(Relay *relay, const sockaddr_in &client, int64_t now) {
  uint64_t key = peerKey(client);
  auto it = relay->flows.find(key);
  if (it != relay->flows.end()) return it->second.get();
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr = relay->listen.local.sin_addr;
  int fd = openUdpSocket(local);
  if (fd < 0) return nullptr;
  auto flow = std::make_unique<RelayFlow>();
  flow->client = client;
  flow->upstreamPeer = relay->upstream;
  RelayFlow *f = flow.get();
  // The link is emulated once, on the clients' side; the upstream leg is plain.
  esStart(&f->upstreamSock, fd, relay->loop, &relay->quiet, TraceProto::Opaque, LinkConfig{}, 0, now,
          [relay, f](const uint8_t *d, int n, const sockaddr_in &from, int64_t t) {
            f->lastHeardUs = t;
            f->upstreamPeer = from;
            relay->fromUpstream++;
            esSend(&relay->listen, t, d, n, f->client);
          });
  relay->flows.emplace(key, std::move(flow));
  return f;
}

void housekeeping(Relay *relay, int64_t now) {
  int64_t limit = static_cast<int64_t>(relay->idleS) * 1000000;
  std::vector<uint64_t> idle;
  for (auto &[key, f] : relay->flows) {
    if (now - f->lastHeardUs > limit) idle.push_back(key);
  }
  for (uint64_t key : idle) {
    esClose(&relay->flows[key]->upstreamSock);
    relay->flows.erase(key);
  }
  relay->housekeepingTimer =
      loopAddTimer(relay->loop, now + HOUSEKEEPING_US, [relay](int64_t t) { housekeeping(relay, t); });
}

}  // namespace

Relay::Relay() = default;
Relay::~Relay() = default;

void relayStart(Relay *relay, EventLoop *loop, const Trace *trace, const LinkConfig &link, uint32_t idleS,
                const sockaddr_in &upstream, int fd, int64_t nowUs) {
  relay->loop = loop;
  relay->trace = trace;
  relay->link = link;
  relay->idleS = idleS;
  relay->upstream = upstream;
  esStart(&relay->listen, fd, loop, trace, TraceProto::Transfer, link, 3, nowUs,
          [relay](const uint8_t *d, int n, const sockaddr_in &from, int64_t t) {
            RelayFlow *f = flowFor(relay, from, t);
            if (f == nullptr) return;
            f->lastHeardUs = t;
            esSend(&f->upstreamSock, t, d, n, f->upstreamPeer);
          });
  relay->housekeepingTimer =
      loopAddTimer(loop, nowUs + HOUSEKEEPING_US, [relay](int64_t t) { housekeeping(relay, t); });
}

void relayStop(Relay *relay) {
  for (auto &[key, f] : relay->flows) esClose(&f->upstreamSock);
  relay->flows.clear();
  loopCancelTimer(relay->loop, relay->housekeepingTimer);
  esClose(&relay->listen);
}

size_t relayFlowCount(const Relay *relay) { return relay->flows.size(); }
