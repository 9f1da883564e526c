// Relay mode: a client reaches the simulator's transfer service through a relay that adds
// the emulated link, and hears every answer from the address it sent to.
#include <gtest/gtest.h>

#include "tests/support/sim_process.hpp"
#include "tests/support/test_support.hpp"

namespace {

TEST(SimRelay, GetAndPutThroughALossyRelay) {
  simt::Served service("127.0.8.1");
  ASSERT_TRUE(service.ready) << service.err;
  std::string work = simt::mkdirs(service.dir + "/work");
  std::string down = kt::patternBytes(15000, 21), up = kt::patternBytes(9000, 22);
  ASSERT_TRUE(kt::writeFile(service.root + "/down.bin", down) && kt::writeFile(work + "/up.bin", up));
  simt::Sim relay;
  ASSERT_TRUE(simt::start(&relay, simt::mkdirs(service.dir + "/relay"),
                          {"--relay", "127.0.8.2:3223", "127.0.8.1:3223", "--loss", "0.1", "--seed", "3", "-v"}))
      << relay.err;
  EXPECT_EQ(relay.err, "kestil-sim: relaying 127.0.8.2:3223 to 127.0.8.1:3223\n");

  kt::Result got = kt::run(work, "kestil-get", {"-h", "127.0.8.2", "-t", "10", "down.bin"}, 60000);
  EXPECT_EQ(got.status, 0) << got.out;
  EXPECT_EQ(kt::md5Hex(kt::readFile(work + "/down.bin")), kt::md5Hex(down));
  kt::Result put = kt::run(work, "kestil-put", {"-h", "127.0.8.2", "-t", "10", "-p", "200", "up.bin"}, 60000);
  EXPECT_EQ(put.status, 0) << put.out;
  EXPECT_EQ(kt::md5Hex(kt::readFile(service.root + "/up.bin")), kt::md5Hex(up));
  EXPECT_NE(relay.trace().find("DROPPED(loss)"), std::string::npos);
  EXPECT_EQ(relay.stop(), 0);
  EXPECT_EQ(service.stop(), 0);
}

}  // namespace
