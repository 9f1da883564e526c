// The simulator's command line: defaults, every value form, and the refusals a script
// calling it with a wrong value must get.
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

std::string addrText(in_addr a) {
  char buf[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &a, buf, sizeof buf);
  return buf;
}

TEST(SimOptions, DefaultsServeTheWorkingDirectoryOnTheLoopbackPorts) {
  SimOptions o;
  std::string err;
  ASSERT_EQ(parse({}, &o, &err), ParseOutcome::Run);
  EXPECT_EQ(o.root, ".");
  EXPECT_EQ(addrText(o.addr), "127.0.0.1");
  EXPECT_EQ(o.port, 3223);
  EXPECT_EQ(o.filemgrPort, 3224);
  EXPECT_FALSE(o.relay);
  EXPECT_FALSE(o.verbose);
  EXPECT_EQ(o.link.rateBps, 0u);
  EXPECT_EQ(o.link.passDownS, 0u);
}

TEST(SimOptions, TakesEveryOptionInBothForms) {
  SimOptions o;
  std::string err;
  ASSERT_EQ(parse({"--root", "/srv/x", "--addr=127.0.7.9", "--port", "4000", "--filemgr-port=4001", "--queue",
                   "q.dat", "--rate", "9600", "--delay=250", "--loss", "0.1", "--dup", "0.05", "--reorder", "0.2",
                   "--pass", "30:10", "--seed", "99", "-v", "--idle", "45", "--pace", "300", "--ack-interval", "200",
                   "--ack-blocks", "16"},
                  &o, &err),
            ParseOutcome::Run)
      << err;
  EXPECT_EQ(o.root, "/srv/x");
  EXPECT_EQ(addrText(o.addr), "127.0.7.9");
  EXPECT_EQ(o.port, 4000);
  EXPECT_EQ(o.filemgrPort, 4001);
  EXPECT_EQ(o.queueFile, "q.dat");
  EXPECT_EQ(o.link.rateBps, 9600u);
  EXPECT_EQ(o.link.delayMs, 250u);
  EXPECT_DOUBLE_EQ(o.link.loss, 0.1);
  EXPECT_DOUBLE_EQ(o.link.dup, 0.05);
  EXPECT_DOUBLE_EQ(o.link.reorder, 0.2);
  EXPECT_EQ(o.link.passUpS, 30u);
  EXPECT_EQ(o.link.passDownS, 10u);
  EXPECT_EQ(o.link.seed, 99u);
  EXPECT_TRUE(o.verbose);
  EXPECT_EQ(o.idleS, 45u);
  EXPECT_EQ(o.pace, 300u);
  EXPECT_EQ(o.ackIntervalMs, 200u);
  EXPECT_EQ(o.ackBlocks, 16u);
}

TEST(SimOptions, RelayTakesListenAndUpstreamEndpoints) {
  SimOptions o;
  std::string err;
  ASSERT_EQ(parse({"--relay", "127.0.8.1:5000", "127.0.8.2:3223", "--loss", "0.3"}, &o, &err), ParseOutcome::Run)
      << err;
  EXPECT_TRUE(o.relay);
  EXPECT_EQ(addrText(o.relayListen.sin_addr), "127.0.8.1");
  EXPECT_EQ(ntohs(o.relayListen.sin_port), 5000);
  EXPECT_EQ(addrText(o.relayUpstream.sin_addr), "127.0.8.2");
  EXPECT_EQ(ntohs(o.relayUpstream.sin_port), 3223);
  EXPECT_DOUBLE_EQ(o.link.loss, 0.3);
}

TEST(SimOptions, RefusesBadValuesWithAMessageNamingTheOption) {
  struct Case {
    std::vector<const char *> args;
    const char *mustMention;
  };
  const Case cases[] = {
      {{"--loss", "10"}, "--loss"},           // a percentage where a fraction belongs
      {{"--loss", "-0.1"}, "--loss"},
      {{"--dup", "abc"}, "--dup"},
      {{"--port", "0"}, "--port"},
      {{"--port", "65536"}, "--port"},
      {{"--filemgr-port", "12x"}, "--filemgr-port"},
      {{"--addr", "localhost"}, "--addr"},    // exact addresses only
      {{"--addr", "127.0.0.256"}, "--addr"},
      {{"--pass", "30"}, "--pass"},
      {{"--pass", "0:10"}, "--pass"},
      {{"--rate", "-5"}, "--rate"},
      {{"--relay", "127.0.0.1:5000"}, "--relay"},
      {{"--relay", "127.0.0.1", "127.0.0.1:3223"}, "--relay"},
      {{"--delay"}, "--delay"},               // value missing
      {{"--bogus"}, "--bogus"},
      {{"stray"}, "stray"},
  };
  for (const Case &c : cases) {
    SimOptions o;
    std::string err;
    EXPECT_EQ(parse(c.args, &o, &err), ParseOutcome::Error) << c.args[0];
    EXPECT_NE(err.find(c.mustMention), std::string::npos) << err;
  }
  SimOptions o;
  std::string err;
  EXPECT_EQ(parse({"--help"}, &o, &err), ParseOutcome::Help);
}

TEST(SimOptions, PaceFollowsTheLinkRateUnlessGiven) {
  SimOptions o;
  EXPECT_EQ(effectivePace(o, 141), 2000u);
  o.link.rateBps = 9600;  // (141 + 5 + 28) * 8 = 1392 bits per full block
  EXPECT_EQ(effectivePace(o, 141), 6u);
  o.link.rateBps = 100;   // slower than one block per second still sends
  EXPECT_EQ(effectivePace(o, 141), 1u);
  o.pace = 50;
  EXPECT_EQ(effectivePace(o, 141), 50u);
}

}  // namespace
