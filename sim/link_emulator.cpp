// One direction of the emulated link: a serialising wire at the configured rate, a fixed
// one-way delay, seeded independent loss, duplication, corruption and hold-back, and the pass
// schedule.
#include "sim/link_emulator.hpp"

#include <algorithm>
#include <cstring>

namespace {

// splitmix64: small, fast, and the same sequence on every host for a given seed.
uint64_t nextRandom(uint64_t *state) {
  uint64_t z = (*state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// Uniform in [0, 1).
double nextUniform(uint64_t *state) { return static_cast<double>(nextRandom(state) >> 11) * 0x1.0p-53; }

bool laterThan(const LinkDatagram &a, const LinkDatagram &b) {
  return a.dueUs != b.dueUs ? a.dueUs > b.dueUs : a.seq > b.seq;
}

void enqueue(LinkDirection *dir, int64_t dueUs, const uint8_t *bytes, int len, const sockaddr_in &peer) {
  LinkDatagram d;
  d.dueUs = dueUs;
  d.seq = dir->seq++;
  d.peer = peer;
  d.bytes.assign(bytes, bytes + len);
  dir->queue.push_back(std::move(d));
  std::push_heap(dir->queue.begin(), dir->queue.end(), laterThan);
}

}  // namespace

void linkInit(LinkDirection *dir, const LinkConfig &cfg, uint64_t salt, int64_t startUs) {
  dir->cfg = cfg;
  dir->rng = cfg.seed ^ (salt * 0xD6E8FEB86659FD93ull);
  dir->corruptRng = ~cfg.seed ^ (salt * 0xA0761D6478BD642Full);
  dir->startUs = cfg.passStartUs != 0 ? cfg.passStartUs : startUs;
  dir->wireFreeUs = startUs;
  dir->seq = 0;
  dir->queue.clear();
}

bool linkIsUp(const LinkConfig &cfg, int64_t startUs, int64_t nowUs) {
  if (cfg.passDownS == 0) return true;
  // Before its first pass the spacecraft has not risen yet.
  if (nowUs < startUs) return false;
  int64_t period = (static_cast<int64_t>(cfg.passUpS) + cfg.passDownS) * 1000000;
  int64_t phase = (nowUs - startUs) % period;
  return phase < static_cast<int64_t>(cfg.passUpS) * 1000000;
}

LinkFate linkSubmit(LinkDirection *dir, int64_t nowUs, const uint8_t *bytes, int len, const sockaddr_in &peer) {
  // Every datagram draws the same three numbers whatever its fate, so one datagram's fate
  // does not shift the draws of the ones after it.
  double lossDraw = nextUniform(&dir->rng);
  double dupDraw = nextUniform(&dir->rng);
  double reorderDraw = nextUniform(&dir->rng);
  double corruptDraw = nextUniform(&dir->corruptRng);
  uint64_t bitDraw = nextRandom(&dir->corruptRng);

  const LinkConfig &cfg = dir->cfg;
  int64_t wireStart = std::max(nowUs, dir->wireFreeUs);
  int64_t wireTime = 0;
  if (cfg.rateBps > 0) {
    int64_t bits = static_cast<int64_t>(len + LINK_IP_UDP_OVERHEAD) * 8;
    wireTime = (bits * 1000000 + static_cast<int64_t>(cfg.rateBps) - 1) / static_cast<int64_t>(cfg.rateBps);
    if (wireStart - nowUs > static_cast<int64_t>(cfg.queueLimitMs) * 1000) return LinkFate::LostQueue;
  }
  // Out of view the radio sends nothing, so the wire is not occupied either.
  if (!linkIsUp(cfg, dir->startUs, wireStart)) return LinkFate::LostPass;
  dir->wireFreeUs = wireStart + wireTime;
  // A lost datagram has still used its share of the wire.
  if (lossDraw < cfg.loss) return LinkFate::LostRandom;

  int64_t arrival = wireStart + wireTime + static_cast<int64_t>(cfg.delayMs) * 1000;
  LinkFate fate = LinkFate::Delivered;
  if (reorderDraw < cfg.reorder) {
    arrival += static_cast<int64_t>(cfg.delayMs) * 1000 + LINK_REORDER_HOLD_US;
    fate = LinkFate::HeldBack;
  }
  // One bit of the datagram flipped, the same in both copies of a duplicate.
  std::vector<uint8_t> flipped;
  if (corruptDraw < cfg.corrupt && len > 0) {
    uint64_t bit = bitDraw % (static_cast<uint64_t>(len) * 8);
    flipped.assign(bytes, bytes + len);
    flipped[bit / 8] ^= static_cast<uint8_t>(0x80 >> (bit % 8));
    bytes = flipped.data();
  }
  enqueue(dir, arrival, bytes, len, peer);
  if (dupDraw < cfg.dup) {
    enqueue(dir, arrival + LINK_DUP_GAP_US, bytes, len, peer);
    fate = LinkFate::Duplicated;
  }
  return flipped.empty() ? fate : LinkFate::Corrupted;
}

int64_t linkNextDue(const LinkDirection *dir) { return dir->queue.empty() ? -1 : dir->queue.front().dueUs; }

bool linkPopDue(LinkDirection *dir, int64_t nowUs, LinkDatagram *out) {
  if (dir->queue.empty() || dir->queue.front().dueUs > nowUs) return false;
  std::pop_heap(dir->queue.begin(), dir->queue.end(), laterThan);
  *out = std::move(dir->queue.back());
  dir->queue.pop_back();
  return true;
}

bool linkIsLoss(LinkFate fate) {
  return fate == LinkFate::LostRandom || fate == LinkFate::LostPass || fate == LinkFate::LostQueue;
}

const char *linkFateName(LinkFate fate) {
  switch (fate) {
    case LinkFate::Delivered: return "ok";
    case LinkFate::Duplicated: return "dup";
    case LinkFate::HeldBack: return "late";
    case LinkFate::Corrupted: return "corrupt";
    case LinkFate::LostRandom: return "DROPPED(loss)";
    case LinkFate::LostPass: return "DROPPED(pass)";
    case LinkFate::LostQueue: return "DROPPED(queue)";
  }
  return "?";
}
