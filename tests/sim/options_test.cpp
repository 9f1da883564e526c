// The simulator's command line: each option lands in its own field, and a wrong value is
// refused with a message naming the option.
#include "sim/options.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

ParseOutcome parse(std::vector<const char *> args, SimOptions *opts, std::string *error) {
  args.insert(args.begin(), "kestil-sim");
  return parseSimOptions(static_cast<int>(args.size()), args.data(), opts, error);
}

TEST(SimOptions, EveryOptionLandsInItsOwnField) {
  SimOptions o;
  std::string err;
  ASSERT_EQ(parse({"--root",
                   "/srv/x",
                   "--addr=127.0.7.9",
                   "--port",
                   "4000",
                   "--filemgr-port=4001",
                   "--queue",
                   "q",
                   "--rate",
                   "9600",
                   "--delay=250",
                   "--loss",
                   "0.1",
                   "--dup",
                   "0.05",
                   "--reorder",
                   "0.2",
                   "--pass",
                   "30:10",
                   "--seed",
                   "99",
                   "-v",
                   "--idle",
                   "45",
                   "--pace",
                   "300",
                   "--ack-interval",
                   "200",
                   "--ack-blocks",
                   "16"},
                  &o, &err),
            ParseOutcome::Run)
      << err;
  char addr[INET_ADDRSTRLEN];
  EXPECT_STREQ(inet_ntop(AF_INET, &o.addr, addr, sizeof addr), "127.0.7.9");
  EXPECT_EQ(o.root + o.queueFile, "/srv/xq");
  EXPECT_EQ(std::vector<uint64_t>({o.port, o.filemgrPort, o.link.rateBps, o.link.delayMs, o.link.passUpS,
                                   o.link.passDownS, o.link.seed, o.idleS, o.pace, o.ackIntervalMs, o.ackBlocks}),
            std::vector<uint64_t>({4000, 4001, 9600, 250, 30, 10, 99, 45, 300, 200, 16}));
  EXPECT_EQ(std::vector<double>({o.link.loss, o.link.dup, o.link.reorder}), std::vector<double>({0.1, 0.05, 0.2}));
  EXPECT_TRUE(o.verbose);
  EXPECT_FALSE(o.relay);

  SimOptions r;
  ASSERT_EQ(parse({"--relay", "127.0.8.1:5000", "127.0.8.2:3223"}, &r, &err), ParseOutcome::Run) << err;
  EXPECT_TRUE(r.relay);
  EXPECT_EQ(ntohs(r.relayListen.sin_port), 5000);
  EXPECT_EQ(ntohl(r.relayUpstream.sin_addr.s_addr), 0x7F000802u);
}

TEST(SimOptions, RefusesBadValuesWithAMessageNamingTheOption) {
  const std::vector<std::vector<const char *>> cases = {
      {"--loss", "10"},  // a percentage where a fraction belongs
      {"--dup", "-0.1"},
      {"--reorder", "x"},
      {"--port", "0"},
      {"--filemgr-port", "65536"},
      {"--addr", "localhost"},  // exact addresses only
      {"--pass", "30"},
      {"--pass", "0:10"},
      {"--rate", "-5"},
      {"--relay", "127.0.0.1:5000"},
      {"--relay", "127.0.0.1", "127.0.0.1:3223"},
      {"--delay"},
      {"--bogus"},
      {"stray"},
  };
  for (const auto &args : cases) {
    SimOptions o;
    std::string err;
    EXPECT_EQ(parse(args, &o, &err), ParseOutcome::Error) << args[0];
    EXPECT_NE(err.find(args[0]), std::string::npos) << err;
  }
}

TEST(SimOptions, PaceFollowsTheLinkRateUnlessGiven) {
  SimOptions o;
  EXPECT_EQ(effectivePace(o, 141), 2000u);
  o.link.rateBps = 9600;  // (141 + 5 + 28) * 8 = 1392 bits per full block
  EXPECT_EQ(effectivePace(o, 141), 6u);
  o.link.rateBps = 100;  // slower than a block a second still sends
  EXPECT_EQ(effectivePace(o, 141), 1u);
  o.pace = 50;
  EXPECT_EQ(effectivePace(o, 141), 50u);
}

}  // namespace
