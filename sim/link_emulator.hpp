// The emulated link: every datagram the simulator sends or receives passes through one
// direction of it, which may pace it to a bit rate, delay, drop, duplicate, corrupt or hold it
// back, and drops everything while the pass schedule has the spacecraft out of view.
// Deterministic under its seed; time is passed in, never read here.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

struct LinkConfig {
  uint64_t rateBps = 0;    // 0: unlimited
  uint32_t delayMs = 0;    // one-way delay
  double loss = 0.0;       // independent loss probability
  double dup = 0.0;        // duplication probability
  double reorder = 0.0;    // probability that a datagram is held back behind later ones
  double corrupt = 0.0;    // probability that a datagram arrives with one bit flipped
  uint32_t passUpS = 0;    // pass schedule: up this long, then down passDownS, repeating
  uint32_t passDownS = 0;  // 0: always up
  uint64_t seed = 1;
  uint32_t queueLimitMs = 1000;  // a datagram that would wait longer for the wire is dropped
  int64_t passStartUs = 0;       // the first pass's start on the link's clock; 0: when the link starts
};

// Bytes of IP and UDP header counted against the rate for every datagram.
constexpr int LINK_IP_UDP_OVERHEAD = 28;
// How much later than its turn a held-back datagram arrives, beyond the one-way delay.
constexpr int64_t LINK_REORDER_HOLD_US = 10000;
// The second copy of a duplicated datagram follows the first this much later.
constexpr int64_t LINK_DUP_GAP_US = 100;

enum class LinkFate : uint8_t {
  Delivered,
  Duplicated,  // delivered twice
  HeldBack,    // delivered late, behind datagrams sent after it
  Corrupted,   // delivered with one bit flipped (duplicated or held back as well, maybe)
  LostRandom,  // independent loss
  LostPass,    // sent while the link was down
  LostQueue,   // the rate-limited queue was full
};

struct LinkDatagram {
  int64_t dueUs = 0;
  uint64_t seq = 0;  // submission order, breaks ties of equal due times
  sockaddr_in peer{};
  std::vector<uint8_t> bytes;
};

// One direction of the link.
struct LinkDirection {
  LinkConfig cfg;
  uint64_t rng = 0;
  uint64_t corruptRng = 0;  // a draw of its own, so corruption leaves the other draws as they were
  int64_t startUs = 0;      // origin of the pass schedule
  int64_t wireFreeUs = 0;   // when the wire finishes the datagram in transmission
  uint64_t seq = 0;
  std::vector<LinkDatagram> queue;  // a min-heap on (dueUs, seq)
};

// `salt` keeps the two directions of one link (and several links) on different draws.
void linkInit(LinkDirection *dir, const LinkConfig &cfg, uint64_t salt, int64_t startUs);
bool linkIsUp(const LinkConfig &cfg, int64_t startUs, int64_t nowUs);
// Hands one datagram to the link at `nowUs`; the datagram is queued unless its fate is a loss.
LinkFate linkSubmit(LinkDirection *dir, int64_t nowUs, const uint8_t *bytes, int len, const sockaddr_in &peer);
// Due time of the earliest queued datagram, or -1 when the queue is empty.
int64_t linkNextDue(const LinkDirection *dir);
// Takes the earliest datagram due at `nowUs`; false when none is due.
bool linkPopDue(LinkDirection *dir, int64_t nowUs, LinkDatagram *out);
bool linkIsLoss(LinkFate fate);
const char *linkFateName(LinkFate fate);
