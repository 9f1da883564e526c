// The simulator's command line: each option lands in its own field, and a wrong value is
// refused with a message naming the option.
#include "sim/options.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

namespace {

ParseOutcome parse(const std::string &line, SimOptions *opts, std::string *error) {
  const std::vector<std::string> args = kt::words("kestil-sim " + line);
  std::vector<const char *> argv;
  for (const std::string &a : args) argv.push_back(a.c_str());
  return parseSimOptions(static_cast<int>(argv.size()), argv.data(), opts, error);
}

TEST(SimOptions, EveryOptionLandsInItsOwnField) {
  SimOptions o, r;
  std::string err;
  ASSERT_EQ(parse("--root /srv/x --addr=127.0.7.9 --port 4000 --filemgr-port=4001 --queue q --rate 9600 --delay=250 "
                  "--loss 0.1 --dup 0.05 --reorder 0.2 --pass 30:10 --seed 99 -v --idle 45 --pace 300 "
                  "--ack-interval 200 --ack-blocks 16",
                  &o, &err),
            ParseOutcome::Run)
      << err;
  EXPECT_EQ(ntohl(o.addr.s_addr), 0x7F000709u);
  EXPECT_EQ(o.root + o.queueFile, "/srv/xq");
  EXPECT_EQ(std::vector<uint64_t>({o.port, o.filemgrPort, o.link.rateBps, o.link.delayMs, o.link.passUpS,
                                   o.link.passDownS, o.link.seed, o.idleS, o.pace, o.ackIntervalMs, o.ackBlocks}),
            std::vector<uint64_t>({4000, 4001, 9600, 250, 30, 10, 99, 45, 300, 200, 16}));
  EXPECT_EQ(std::vector<double>({o.link.loss, o.link.dup, o.link.reorder}), std::vector<double>({0.1, 0.05, 0.2}));
  EXPECT_TRUE(o.verbose && !o.relay);

  ASSERT_EQ(parse("--relay 127.0.8.1:5000 127.0.8.2:3223", &r, &err), ParseOutcome::Run) << err;
  EXPECT_TRUE(r.relay);
  EXPECT_EQ(ntohs(r.relayListen.sin_port), 5000);
  EXPECT_EQ(ntohl(r.relayUpstream.sin_addr.s_addr), 0x7F000802u);
}

TEST(SimOptions, RefusesBadValuesWithAMessageNamingTheOption) {
  // A percentage where a fraction belongs, names where exact addresses belong, ranges,
  // shapes, a missing value, an unknown option and a stray word.
  for (const char *line : {"--loss 10", "--dup -0.1", "--reorder x", "--port 0", "--filemgr-port 65536",
                           "--addr localhost", "--pass 30", "--pass 0:10", "--rate -5", "--relay 127.0.0.1:5000",
                           "--relay 127.0.0.1 127.0.0.1:3223", "--delay", "--bogus", "stray"}) {
    SimOptions o;
    std::string err;
    EXPECT_EQ(parse(line, &o, &err), ParseOutcome::Error) << line;
    EXPECT_NE(err.find(kt::words(line)[0]), std::string::npos) << err;
  }
}

}  // namespace
