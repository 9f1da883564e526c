// The ls command against a scripted file service: the listing request, the listing file kept
// under its time-stamped name and printed, and the fetch that times out.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <string>

#include "tests/support/file_server.hpp"
#include "tests/support/test_support.hpp"

namespace {
constexpr int RUN_MS = 20000;
const std::regex LISTING_NAME(R"(dirlisting\.\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d\.[A-Za-z0-9]{6})");
}  // namespace

TEST(LsFetch, ListingIsReceivedKeptAndPrinted) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.20", 3223));
  std::string listing = kt::listingFile({{"/data/img/a.jpg", 1234, 0, 0, 0}, {"/data/img/old", 0, 0, 0, 0x80}});
  kt::Child c = kt::start(dir, "kestil-ls", {"-h", "127.0.5.20", "-o", "-a-r", "/data/img"});
  kt::Served seen = kt::serveFile(peer, c.pid, listing);
  kt::Result r = kt::finish(c, RUN_MS);

  EXPECT_EQ(r.status, 0);
  ASSERT_EQ(seen.requests.size(), 1u);
  EXPECT_EQ(seen.requests[0], kt::bytes({2, 3, 0x00, 0x8D, 0, 0, 0, 1, '/', 'd', 'a', 't', 'a', '/', 'i', 'm', 'g', 0}));
  std::vector<std::string> kept = kt::namesStartingWith(dir, "dirlisting.");
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_TRUE(std::regex_match(kept[0], LISTING_NAME)) << kept[0];
  EXPECT_EQ(kt::readFile(dir + "/" + kept[0]), listing);
  EXPECT_TRUE(kt::namesStartingWith(dir, ".dir_listing.kestil_state.").empty());
  EXPECT_EQ(kt::withoutTimes(kt::withoutRedraws(r.out)),
            "File is " + std::to_string(listing.size()) + " bytes!\nMD5 time!\nReceived file " + kept[0] +
                "...\nElapsed time: T A\n"
                "flags    group    priority size     filename\n"
                "0        0        0        1234     /data/img/a.jpg\n"
                "80       0        0        0        /data/img/old\n");
  // One confirmation of the complete vector, after any periodic ones.
  ASSERT_FALSE(seen.acks.empty());
  EXPECT_EQ(seen.acks.back(), kt::bytes({9, 0, 0, 0, 0, 0xC0}));
  EXPECT_TRUE(seen.finals.empty());
}

TEST(LsFetch, TimedOutFetchRemovesTheListingAndKeepsItsState) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.21", 3223));
  kt::ServeOptions o;
  o.answer = false;
  kt::Child c = kt::start(dir, "kestil-ls", {"-h", "127.0.5.21", "-t", "1", "-o", "x", "/d"});
  kt::Served seen = kt::serveFile(peer, c.pid, "", o);
  kt::Result r = kt::finish(c, RUN_MS);

  EXPECT_EQ(r.status, 1);
  ASSERT_EQ(seen.requests.size(), 1u);
  EXPECT_EQ(seen.requests[0][1], 0);  // the unknown letter adds no flag
  std::vector<std::string> states = kt::namesStartingWith(dir, ".dir_listing.kestil_state.dirlisting.");
  ASSERT_EQ(states.size(), 1u);
  std::string name = states[0].substr(std::string(".dir_listing.kestil_state.").size());
  EXPECT_FALSE(kt::exists(dir + "/" + name));
  // No metadata: the size stays unknown and the statistics line has no average.
  EXPECT_EQ(kt::withoutTimes(kt::withoutRedraws(r.out)),
            "Invalid argument 'x'.\nMD5 time!\nReceive file " + name + " timed out...\nElapsed time: T\n");
}

TEST(LsFetch, SynopsisWithoutPath) {
  std::string dir = kt::makeTempDir();
  kt::Result r = kt::run(dir, "kestil", {"ls", "-t", "1"}, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "ls [-h host] [-o <[a][r]>] <remote path>\n");
}

TEST(LsFetch, InterruptDoesNotStopTheFetch) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.22", 3223));
  std::string listing = kt::listingFile({{"/x", 1, 0, 0, 0}});
  kt::Child c = kt::start(dir, "kestil-ls", {"-h", "127.0.5.22", "/"});
  sockaddr_in client{};
  ASSERT_FALSE(peer.recv(&client, 5000).empty());
  kill(c.pid, SIGINT);
  peer.send(kt::metadataDatagram(static_cast<uint32_t>(listing.size()), kt::md5Raw(listing)), client);
  peer.send(kt::blockDatagram(listing, 1), client);
  kt::Result r = kt::finish(c, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("0        0        0        1        /x\n"), std::string::npos) << r.out;
}
