// The emulated link: rate, delay, loss, duplication, hold-back, pass schedule and queue
// limit, checked on the due times and fates they produce; and determinism under a seed.
#include "sim/link_emulator.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using Due = std::vector<std::pair<int64_t, int>>;

// Submits one datagram of `len` bytes per time, tagged with its index; returns the fates.
std::vector<LinkFate> submit(LinkDirection *dir, const std::vector<int64_t> &times, int len) {
  std::vector<LinkFate> fates;
  std::vector<uint8_t> buf(static_cast<size_t>(len), 0);
  for (size_t i = 0; i < times.size(); ++i) {
    buf[0] = static_cast<uint8_t>(i);
    fates.push_back(linkSubmit(dir, times[i], buf.data(), len, sockaddr_in{}));
  }
  return fates;
}

// (due time, tag) of every queued datagram, in delivery order.
Due drain(LinkDirection *dir) {
  Due out;
  LinkDatagram d;
  while (linkPopDue(dir, INT64_MAX, &d)) out.emplace_back(d.dueUs, d.bytes[0]);
  return out;
}

LinkDirection make(const LinkConfig &cfg, uint64_t salt = 1) {
  LinkDirection dir;
  linkInit(&dir, cfg, salt, 0);
  return dir;
}

TEST(LinkEmulator, RateCountsIpUdpOverheadSerialisesAndDropsBeyondTheQueueLimit) {
  LinkDirection open = make({});  // unlimited: at once, in order
  submit(&open, {5, 5}, 100);
  LinkDatagram d;
  EXPECT_FALSE(linkPopDue(&open, 4, &d));
  EXPECT_EQ(drain(&open), (Due{{5, 0}, {5, 1}}));

  // 72 + 28 bytes = 800 bits = 100 ms on the wire each: wire starts 0, 100, 200 ms; the
  // fourth would wait 300 ms for the wire.
  LinkDirection dir = make({.rateBps = 8000, .delayMs = 20, .queueLimitMs = 250});
  EXPECT_EQ(submit(&dir, {0, 0, 0, 0}, 72)[3], LinkFate::LostQueue);
  EXPECT_EQ(drain(&dir), (Due{{120000, 0}, {220000, 1}, {320000, 2}}));
  submit(&dir, {1000000}, 72);  // an idle wire starts a datagram when it is handed over
  EXPECT_EQ(drain(&dir)[0].first, 1120000);
}

TEST(LinkEmulator, LossMatchesItsRateAndRepeatsUnderTheSameSeed) {
  const LinkConfig cfg{.loss = 0.3, .seed = 42};
  std::vector<int64_t> times(10000, 0);
  LinkDirection a = make(cfg), b = make(cfg), other = make(cfg, 2), reseeded = make({.loss = 0.3, .seed = 43});
  auto fates = submit(&a, times, 10);
  EXPECT_EQ(submit(&b, times, 10), fates);
  EXPECT_NEAR(std::count(fates.begin(), fates.end(), LinkFate::LostRandom), 3000, 200);
  // The other direction of the link, or another seed, draws differently.
  EXPECT_NE(submit(&other, times, 10), fates);
  EXPECT_NE(submit(&reseeded, times, 10), fates);
}

TEST(LinkEmulator, DuplicatesArriveTwiceAndHeldBackOnesBehindLaterDatagrams) {
  LinkDirection dup = make({.delayMs = 5, .dup = 1.0});
  EXPECT_EQ(submit(&dup, {0}, 10)[0], LinkFate::Duplicated);
  EXPECT_EQ(drain(&dup), (Due{{5000, 0}, {5000 + LINK_DUP_GAP_US, 0}}));

  // Held back by the delay and the hold once more: whatever follows within that time overtakes it.
  LinkDirection held = make({.delayMs = 5, .reorder = 1.0});
  EXPECT_EQ(submit(&held, {0}, 10)[0], LinkFate::HeldBack);
  EXPECT_EQ(drain(&held), (Due{{10000 + LINK_REORDER_HOLD_US, 0}}));
}

TEST(LinkEmulator, PassScheduleDropsWhileDownIncludingWhatWaitsForTheWire) {
  const LinkConfig pass{.passUpS = 2, .passDownS = 3};
  const int64_t s = 1000000;  // the schedule starts with the link
  for (int64_t at : {0, 1999999, 5000000}) EXPECT_TRUE(linkIsUp(pass, s, s + at)) << at;
  // Down before the first pass (-1) and between passes.
  for (int64_t at : {-1, 2000000, 4999999, 7500000}) EXPECT_FALSE(linkIsUp(pass, s, s + at)) << at;

  // 100 ms per datagram: the eleventh would start at 1 s, out of view.
  LinkDirection dir = make({.rateBps = 8000, .passUpS = 1, .passDownS = 1, .queueLimitMs = 5000});
  auto fates = submit(&dir, std::vector<int64_t>(11, 0), 72);
  EXPECT_EQ(fates[9], LinkFate::Delivered);
  EXPECT_EQ(fates[10], LinkFate::LostPass);
  EXPECT_EQ(submit(&dir, {2000000}, 72)[0], LinkFate::Delivered);  // the next pass

  // A first pass set for later (--pass-start) holds the link down until then.
  LinkDirection later = make({.passUpS = 1, .passDownS = 1, .passStartUs = 3000000});
  EXPECT_EQ(submit(&later, {2999999, 3000000}, 72), (std::vector{LinkFate::LostPass, LinkFate::Delivered}));
}

}  // namespace
