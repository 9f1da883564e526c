// The ls command against a scripted file service: the listing request, the listing kept under
// its time-stamped name and printed, and the fetch that times out.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/support/file_server.hpp"

TEST(LsFetch, ListingIsReceivedKeptAndPrinted) {
  std::string listing =
      kt::zlibOf(kt::rawRecord("/data/img/a.jpg", 1234, 0, 0, 0) + kt::rawRecord("/data/img/old", 0, 0, 0, 0x80));
  kt::RemoteRun run("127.0.5.20", "kestil-ls", {"-o", "-a-r", "/data/img"});
  kt::Served seen = run.serve(listing);
  kt::Result r = run.finish();

  ASSERT_EQ(seen.requests.size(), 1u);
  EXPECT_EQ(seen.requests[0], kt::request(2, 3, "/data/img"));
  std::vector<std::string> kept = kt::namesStartingWith(run.dir, "dirlisting.");
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_TRUE(std::regex_match(kept[0], std::regex(R"(dirlisting\.\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d\.\w{6})")));
  EXPECT_EQ(kt::readFile(run.dir + "/" + kept[0]), listing);
  EXPECT_TRUE(kt::namesStartingWith(run.dir, ".dir_listing").empty());
  EXPECT_EQ(kt::plainShown(r),
            (kt::Shown{0,
                       "File is " + std::to_string(listing.size()) + " bytes!\nMD5 time!\nReceived file " + kept[0] +
                           "...\nElapsed time: T A\n"
                           "flags    group    priority size     filename\n"
                           "0        0        0        1234     /data/img/a.jpg\n"
                           "80       0        0        0        /data/img/old\n",
                       ""}));
  // One confirmation of the complete vector, after any periodic ones; never a closing form.
  ASSERT_FALSE(seen.acks.empty());
  EXPECT_EQ(seen.acks.back(), kt::bytes({9, 0, 0, 0, 0, 0xC0}));
  EXPECT_TRUE(seen.finals.empty());
}

TEST(LsFetch, TimedOutFetchRemovesTheListingAndKeepsItsState) {
  kt::RemoteRun run("127.0.5.21", "kestil-ls", {"-t", "1", "-o", "x", "/d"});
  kt::Served seen = run.serve("", {.answer = false});
  kt::Result r = run.finish();

  ASSERT_EQ(seen.requests.size(), 1u);
  EXPECT_EQ(seen.requests[0][1], 0);  // the unknown letter adds no flag
  std::vector<std::string> states = kt::namesStartingWith(run.dir, ".dir_listing.kestil_state.dirlisting.");
  ASSERT_EQ(states.size(), 1u);
  std::string name = states[0].substr(std::string(".dir_listing.kestil_state.").size());
  EXPECT_FALSE(kt::exists(run.dir + "/" + name));
  // No metadata came: the size stays unknown and the statistics line has no average.
  EXPECT_EQ(kt::plainShown(r),
            (kt::Shown{1, "Invalid argument 'x'.\nMD5 time!\nReceive file " + name + " timed out...\nElapsed time: T\n",
                       ""}));
}
