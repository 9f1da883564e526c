// The report command against a scripted file service: the request with its group limits and
// flag, the report kept and printed, and the ends without a request or by time-out.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/support/file_server.hpp"

TEST(ReportFetch, ReportIsRequestedWithLimitsReceivedKeptAndPrinted) {
  std::string report = kt::zlibOf(kt::rawRecord("/q/one", 77, 3, 1, 0) + kt::rawRecord("/q/two", 5, 3, 2, 0));
  kt::RemoteRun run("127.0.5.30", "kestil-report", {"-r", "3", "10", "4"});
  kt::Served seen = run.serve(report);
  kt::Result r = run.finish();

  ASSERT_EQ(seen.requests.size(), 1u);
  EXPECT_EQ(seen.requests[0], kt::bytes({11, 1, 0x00, 0x8D, 0, 0, 0, 1, 1, 3, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 10}));
  std::vector<std::string> kept = kt::namesStartingWith(run.dir, "qreport.");
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_TRUE(std::regex_match(kept[0], std::regex(R"(qreport\.\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d\.\w{6})")));
  EXPECT_EQ(kt::readFile(run.dir + "/" + kept[0]), report);
  EXPECT_TRUE(kt::namesStartingWith(run.dir, ".q_report").empty());
  EXPECT_EQ(kt::plainShown(r),
            (kt::Shown{0,
                       "group: 3 size 0 entries 10\nSent 18 byte qreq!\nFile is " + std::to_string(report.size()) +
                           " bytes!\nMD5 time!\nReceived file " + kept[0] +
                           "...\nElapsed time: T A\n"
                           "flags    group    priority size     filename\n"
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
  std::vector<std::string> states = kt::namesStartingWith(run.dir, ".q_report.kestil_state.qreport.");
  ASSERT_EQ(states.size(), 1u);
  std::string name = states[0].substr(std::string(".q_report.kestil_state.").size());
  EXPECT_FALSE(kt::exists(run.dir + "/" + name));
  EXPECT_NE(kt::plainOut(r.out).find("group: 20 size 0 entries 120\nSent 189 byte qreq!\nMD5 time!\nReceive file " +
                                     name + " timed out...\nElapsed time: T\n"),
            std::string::npos);
}
