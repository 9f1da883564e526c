// ls and report against a scripted file service (the requests, the listing kept under its
// time-stamped name and printed, the fetches that time out) and lsread of saved listings.
#include <gtest/gtest.h>

#include <regex>

#include "tests/support/file_server.hpp"

namespace {

using Datagrams = std::vector<std::vector<uint8_t>>;
const std::string HEADER = "flags    group    priority size     filename\n";

// The one file in `dir` whose name starts with `prefix` and ends in a time stamp, less `cut`.
std::string keptAs(const std::string &dir, const std::string &prefix, const std::string &cut = "") {
  std::vector<std::string> kept = kt::namesStartingWith(dir, prefix);
  EXPECT_EQ(kept.size(), 1u);
  kept.resize(1, "none");
  EXPECT_TRUE(std::regex_match(kept[0], std::regex(prefix + R"(\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d\.\w{6})"))) << kept[0];
  return kept[0].substr(cut.size());
}

// ls and report: the request, the listing kept as it came and printed, the acknowledgements.
TEST(ListingFetch, ListingAndReportAreRequestedReceivedKeptAndPrinted) {
  std::string listing =
      kt::zlibOf(kt::rawRecord("/data/img/a.jpg", 1234, 0, 0, 0) + kt::rawRecord("/data/img/old", 0, 0, 0, 0x80));
  kt::RemoteRun ls("127.0.5.20", "kestil-ls", {"-o", "-a-r", "/data/img"});
  EXPECT_EQ(ls.recv(), kt::request(2, 3, "/data/img"));
  ls.sendFile(listing);
  kt::Heard seen = ls.listen();
  kt::Result r = ls.finish();
  std::string kept = keptAs(ls.dir, "dirlisting.");
  EXPECT_EQ(kt::readFile(ls.dir + "/" + kept), listing);
  EXPECT_TRUE(kt::namesStartingWith(ls.dir, ".dir_listing").empty());
  EXPECT_EQ(kt::plainShown(r), (kt::Result{0,
                                           "File is " + std::to_string(listing.size()) + " bytes!\nMD5 time!\n" +
                                               "Received file " + kept + "...\nElapsed time: T A\n" + HEADER +
                                               "0        0        0        1234     /data/img/a.jpg\n"
                                               "80       0        0        0        /data/img/old\n",
                                           ""}));
  // One confirmation of the complete vector, after any periodic ones; never a closing form.
  ASSERT_FALSE(seen.acks.empty());
  EXPECT_EQ(seen.acks.back(), kt::bytes({9, 0, 0, 0, 0, 0xC0}));
  EXPECT_TRUE(seen.finals.empty() && seen.requests.empty());

  std::string report = kt::zlibOf(kt::rawRecord("/q/one", 77, 3, 1, 0) + kt::rawRecord("/q/two", 5, 3, 2, 0));
  kt::RemoteRun rep("127.0.5.30", "kestil-report", {"-r", "3", "10", "4"});
  EXPECT_EQ(rep.recv(), kt::bytes({11, 1, 0, 0x8D, 0, 0, 0, 1, 1, 3, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 10}));
  rep.sendFile(report);
  seen = rep.listen();
  r = rep.finish();
  kept = keptAs(rep.dir, "qreport.");
  EXPECT_EQ(kt::readFile(rep.dir + "/" + kept), report);
  EXPECT_TRUE(kt::namesStartingWith(rep.dir, ".q_report").empty());
  EXPECT_EQ(kt::plainShown(r),
            (kt::Result{0,
                        "group: 3 size 0 entries 10\nSent 18 byte qreq!\nFile is " + std::to_string(report.size()) +
                            " bytes!\nMD5 time!\nReceived file " + kept + "...\nElapsed time: T A\n" + HEADER +
                            "0        3        1        77       /q/one\n"
                            "0        3        2        5        /q/two\n",
                        "trailing end result\n"}));
  // Seven confirmations of the complete vector.
  kt::expectClosing(seen.acks, seen.ackMs, kt::bytes({9, 0, 0, 0, 0, 0xC0}));
}

// A fetch that times out removes the listing and keeps its state; no metadata came, so the
// statistics line has no average. A report takes at most twenty limits.
TEST(ListingFetch, TimedOutFetchesRemoveTheListingAndKeepTheirState) {
  kt::RemoteRun ls("127.0.5.21", "kestil-ls", {"-t", "1", "-o", "x", "/d"});
  kt::Heard seen = ls.listen();
  kt::Result r = ls.finish();
  EXPECT_EQ(seen.requests, Datagrams{kt::request(2, 0, "/d")});  // the unknown letter adds no flag
  std::string name = keptAs(ls.dir, ".dir_listing.kestil_state.dirlisting.", ".dir_listing.kestil_state.");
  EXPECT_FALSE(kt::exists(ls.dir + "/" + name));
  EXPECT_EQ(kt::plainShown(r),
            (kt::Result{
                1, "Invalid argument 'x'.\nMD5 time!\nReceive file " + name + " timed out...\nElapsed time: T\n", ""}));

  std::vector<std::string> args{"-t", "0"};
  for (int g = 1; g <= 21; ++g) args.insert(args.end(), {std::to_string(g), std::to_string(100 + g)});
  kt::RemoteRun rep("127.0.5.32", "kestil-report", args);
  seen = rep.listen();
  r = rep.finish();
  ASSERT_EQ(seen.requests.size(), 1u);
  ASSERT_EQ(seen.requests[0].size(), 189u);
  EXPECT_EQ(std::vector<uint8_t>(seen.requests[0].begin() + 180, seen.requests[0].end()),
            kt::bytes({20, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 120}));
  name = keptAs(rep.dir, ".q_report.kestil_state.qreport.", ".q_report.kestil_state.");
  EXPECT_FALSE(kt::exists(rep.dir + "/" + name));
  EXPECT_EQ(r.status, 11);
  EXPECT_EQ(r.err, "maximum number of queues reached\n");
  EXPECT_TRUE(
      kt::plainShown(r).out.ends_with("group: 20 size 0 entries 120\nSent 189 byte qreq!\nMD5 time!\n"
                                      "Receive file " +
                                      name + " timed out...\nElapsed time: T\n"));
}

}  // namespace
