// ls and report against a scripted file service (the requests, the listing kept under its
// time-stamped name and printed, the fetches that time out) and lsread of saved listings.
#include <gtest/gtest.h>

#include <regex>

#include "tests/support/file_server.hpp"

namespace {

using Datagrams = std::vector<std::vector<uint8_t>>;
const std::string HEADER = "flags    group    priority size     filename\n";

// The one file in `dir` whose name starts with `prefix` and ends in a time stamp.
std::string keptAs(const std::string &dir, const std::string &prefix) {
  std::vector<std::string> kept = kt::namesStartingWith(dir, prefix);
  EXPECT_EQ(kept.size(), 1u);
  if (kept.empty()) return "none";
  EXPECT_TRUE(std::regex_match(kept[0], std::regex(prefix + R"(\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d\.\w{6})"))) << kept[0];
  return kept[0];
}

TEST(LsFetch, ListingIsReceivedKeptAndPrinted) {
  std::string listing =
      kt::zlibOf(kt::rawRecord("/data/img/a.jpg", 1234, 0, 0, 0) + kt::rawRecord("/data/img/old", 0, 0, 0, 0x80));
  kt::RemoteRun run("127.0.5.20", "kestil-ls", {"-o", "-a-r", "/data/img"});
  kt::Served seen = run.serve(listing);
  kt::Result r = run.finish();

  EXPECT_EQ(seen.requests, Datagrams{kt::request(2, 3, "/data/img")});
  const std::string kept = keptAs(run.dir, "dirlisting.");
  EXPECT_EQ(kt::readFile(run.dir + "/" + kept), listing);
  EXPECT_TRUE(kt::namesStartingWith(run.dir, ".dir_listing").empty());
  EXPECT_EQ(kt::plainShown(r),
            (kt::Shown{0,
                       "File is " + std::to_string(listing.size()) + " bytes!\nMD5 time!\nReceived file " + kept +
                           "...\nElapsed time: T A\n" + HEADER +
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

  EXPECT_EQ(seen.requests, Datagrams{kt::request(2, 0, "/d")});  // the unknown letter adds no flag
  const std::string name =
      keptAs(run.dir, ".dir_listing.kestil_state.dirlisting.").substr(std::string(".dir_listing.kestil_state.").size());
  EXPECT_FALSE(kt::exists(run.dir + "/" + name));
  // No metadata came: the size stays unknown and the statistics line has no average.
  EXPECT_EQ(kt::plainShown(r),
            (kt::Shown{1, "Invalid argument 'x'.\nMD5 time!\nReceive file " + name + " timed out...\nElapsed time: T\n",
                       ""}));
}

TEST(ReportFetch, ReportIsRequestedWithLimitsReceivedKeptAndPrinted) {
  std::string report = kt::zlibOf(kt::rawRecord("/q/one", 77, 3, 1, 0) + kt::rawRecord("/q/two", 5, 3, 2, 0));
  kt::RemoteRun run("127.0.5.30", "kestil-report", {"-r", "3", "10", "4"});
  kt::Served seen = run.serve(report);
  kt::Result r = run.finish();

  EXPECT_EQ(seen.requests,
            Datagrams{kt::bytes({11, 1, 0, 0x8D, 0, 0, 0, 1, 1, 3, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 10})});
  const std::string kept = keptAs(run.dir, "qreport.");
  EXPECT_EQ(kt::readFile(run.dir + "/" + kept), report);
  EXPECT_TRUE(kt::namesStartingWith(run.dir, ".q_report").empty());
  EXPECT_EQ(kt::plainShown(r),
            (kt::Shown{0,
                       "group: 3 size 0 entries 10\nSent 18 byte qreq!\nFile is " + std::to_string(report.size()) +
                           " bytes!\nMD5 time!\nReceived file " + kept + "...\nElapsed time: T A\n" + HEADER +
                           "0        3        1        77       /q/one\n"
                           "0        3        2        5        /q/two\n",
                       "trailing end result\n"}));
  // Seven confirmations of the complete vector.
  kt::expectClosing(seen.acks, seen.ackMs, kt::bytes({9, 0, 0, 0, 0, 0xC0}));
}

TEST(ReportFetch, AtMostTwentyLimitsAndTimeOutEndsWithStatus11) {
  std::string dir = kt::makeTempDir();
  kt::Result stray = kt::run(dir, "kestil-report", {"-h", "127.0.5.31", "3"}, 10000);
  EXPECT_EQ(kt::shown(stray), (kt::Shown{0, "", "trailing end result\n"}));
  EXPECT_TRUE(kt::namesStartingWith(dir, "qreport.").empty());

  std::vector<std::string> args{"-t", "0"};
  for (int g = 1; g <= 21; ++g) args.insert(args.end(), {std::to_string(g), std::to_string(100 + g)});
  kt::RemoteRun run("127.0.5.32", "kestil-report", args);
  kt::Served seen = run.serve("", {.answer = false});
  kt::Result r = run.finish();

  EXPECT_EQ(r.status, 11);
  EXPECT_EQ(r.err, "maximum number of queues reached\n");
  ASSERT_EQ(seen.requests.size(), 1u);
  const std::vector<uint8_t> &req = seen.requests[0];
  ASSERT_EQ(req.size(), 189u);
  EXPECT_EQ(std::vector<uint8_t>(req.begin() + 180, req.end()), kt::bytes({20, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 120}));
  const std::string name =
      keptAs(run.dir, ".q_report.kestil_state.qreport.").substr(std::string(".q_report.kestil_state.").size());
  EXPECT_FALSE(kt::exists(run.dir + "/" + name));
  EXPECT_NE(kt::plainOut(r.out).find("group: 20 size 0 entries 120\nSent 189 byte qreq!\nMD5 time!\nReceive file " +
                                     name + " timed out...\nElapsed time: T\n"),
            std::string::npos);
}

TEST(Lsread, PrintsSavedListingsEvenDamagedOnesAndExits255OnAMissingOne) {
  const std::string dir = kt::makeTempDir();
  kt::writeFile(dir + "/l", kt::zlibOf(kt::rawRecord("/data/img/a.jpg", 1234, 0, 0, 0) +
                                       kt::rawRecord("q", 4000000000u, 3, 250, 0x1f)));
  kt::writeFile(dir + "/empty", kt::zlibOf(""));
  kt::writeFile(dir + "/damaged", kt::zlibOf(kt::rawRecord("good", 2, 0, 0, 0) + "\x01"));
  const std::pair<std::string, kt::Shown> cases[] = {
      {"l",
       {0, HEADER + "0        0        0        1234     /data/img/a.jpg\n1f       3        250      4000000000 q\n",
        ""}},
      {"empty", {0, "", ""}},
      {"damaged", {0, HEADER + "0        0        0        2        good\n", ""}},  // what came before the damage
      {"absent", {255, "", ""}},
      {"-upload m empty", {255, "", ""}},  // only the first argument is read
      {"", {0, "Usage: lsread [-upload <mission>] <input file>\n", ""}},
  };
  for (const auto &[args, shown] : cases)
    EXPECT_EQ(kt::shown(kt::run(dir, "kestil-lsread", kt::words(args), 10000)), shown) << args;
}

}  // namespace
