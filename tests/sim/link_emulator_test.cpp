// The emulated link: rate, delay, loss, duplication, hold-back, pass schedule and queue
// limit, checked on the due times and fates they produce; and determinism under a seed.
#include "sim/link_emulator.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

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
std::vector<std::pair<int64_t, int>> drain(LinkDirection *dir) {
  std::vector<std::pair<int64_t, int>> out;
  LinkDatagram d;
  while (linkPopDue(dir, INT64_MAX, &d)) out.emplace_back(d.dueUs, d.bytes[0]);
  return out;
}

LinkDirection make(const LinkConfig &cfg, uint64_t salt = 1) {
  LinkDirection dir;
  linkInit(&dir, cfg, salt, 0);
  return dir;
}

TEST(LinkEmulator, UnlimitedLinkDeliversAtOnceInOrder) {
  LinkDirection dir = make(LinkConfig{});
  submit(&dir, {5, 5, 5}, 100);
  LinkDatagram d;
  EXPECT_FALSE(linkPopDue(&dir, 4, &d));
  EXPECT_EQ(drain(&dir), (std::vector<std::pair<int64_t, int>>{{5, 0}, {5, 1}, {5, 2}}));
}

TEST(LinkEmulator, RateCountsIpUdpOverheadSerialisesAndDropsBeyondTheQueueLimit) {
  LinkConfig cfg;
  cfg.rateBps = 8000;  // 72 + 28 bytes = 800 bits = 100 ms on the wire each
  cfg.delayMs = 20;
  cfg.queueLimitMs = 250;
  LinkDirection dir = make(cfg);
  // Wire starts 0, 100, 200 ms; the fourth would wait 300 ms for the wire.
  auto fates = submit(&dir, {0, 0, 0, 0}, 72);
  EXPECT_EQ(fates[3], LinkFate::LostQueue);
  EXPECT_EQ(drain(&dir), (std::vector<std::pair<int64_t, int>>{{120000, 0}, {220000, 1}, {320000, 2}}));
  // An idle wire starts a datagram when it is handed over.
  submit(&dir, {1000000}, 72);
  EXPECT_EQ(drain(&dir)[0].first, 1120000);
}

TEST(LinkEmulator, LossMatchesItsRateAndRepeatsUnderTheSameSeed) {
  LinkConfig cfg;
  cfg.loss = 0.3;
  cfg.seed = 42;
  std::vector<int64_t> times(10000, 0);
  LinkDirection a = make(cfg);
  LinkDirection b = make(cfg);
  auto fates = submit(&a, times, 10);
  EXPECT_EQ(submit(&b, times, 10), fates);
  EXPECT_NEAR(std::count(fates.begin(), fates.end(), LinkFate::LostRandom), 3000, 200);
  // The other direction of the link, or another seed, draws differently.
  LinkDirection other = make(cfg, 2);
  EXPECT_NE(submit(&other, times, 10), fates);
  cfg.seed = 43;
  LinkDirection reseeded = make(cfg);
  EXPECT_NE(submit(&reseeded, times, 10), fates);
}

TEST(LinkEmulator, DuplicatesArriveTwiceAndHeldBackOnesBehindLaterDatagrams) {
  LinkConfig cfg;
  cfg.dup = 1.0;
  cfg.delayMs = 5;
  LinkDirection dup = make(cfg);
  EXPECT_EQ(submit(&dup, {0}, 10)[0], LinkFate::Duplicated);
  EXPECT_EQ(drain(&dup), (std::vector<std::pair<int64_t, int>>{{5000, 0}, {5000 + LINK_DUP_GAP_US, 0}}));

  cfg.dup = 0.0;
  cfg.reorder = 0.5;
  LinkDirection held = make(cfg);
  auto fates = submit(&held, {0, 1000, 2000, 3000, 4000, 5000, 6000, 7000}, 10);
  for (auto [due, tag] : drain(&held)) {
    int64_t expected = tag * 1000 + 5000;
    if (fates[static_cast<size_t>(tag)] == LinkFate::HeldBack) expected += 5000 + LINK_REORDER_HOLD_US;
    EXPECT_EQ(due, expected) << tag;
  }
  EXPECT_GT(std::count(fates.begin(), fates.end(), LinkFate::HeldBack), 0);
  EXPECT_GT(std::count(fates.begin(), fates.end(), LinkFate::Delivered), 0);
}

TEST(LinkEmulator, PassScheduleDropsWhileDownIncludingWhatWaitsForTheWire) {
  LinkConfig cfg;
  cfg.passUpS = 2;
  cfg.passDownS = 3;
  const int64_t s = 1000000;  // the schedule starts with the link
  EXPECT_TRUE(linkIsUp(cfg, s, s + 1999999));
  EXPECT_FALSE(linkIsUp(cfg, s, s + 2000000));
  EXPECT_FALSE(linkIsUp(cfg, s, s + 4999999));
  EXPECT_TRUE(linkIsUp(cfg, s, s + 5000000));
  EXPECT_FALSE(linkIsUp(cfg, s, s + 7500000));

  cfg.passUpS = 1;
  cfg.passDownS = 1;
  cfg.rateBps = 8000;  // 100 ms per datagram: the eleventh would start at 1 s, out of view
  cfg.queueLimitMs = 5000;
  LinkDirection dir = make(cfg);
  auto fates = submit(&dir, std::vector<int64_t>(11, 0), 72);
  EXPECT_EQ(fates[9], LinkFate::Delivered);
  EXPECT_EQ(fates[10], LinkFate::LostPass);
  EXPECT_EQ(submit(&dir, {2000000}, 72)[0], LinkFate::Delivered);  // the next pass
}

}  // namespace
