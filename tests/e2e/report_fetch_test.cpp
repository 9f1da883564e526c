// The report command against a scripted file service: the request with its group limits and
// flag, the report kept and printed, and the ends without a request or by time-out.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/support/file_server.hpp"
#include "tests/support/test_support.hpp"

namespace {
constexpr int RUN_MS = 20000;
const std::regex REPORT_NAME(R"(qreport\.\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d\.[A-Za-z0-9]{6})");
}  // namespace

TEST(ReportFetch, ReportIsRequestedWithLimitsReceivedKeptAndPrinted) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.30", 3223));
  std::string report = kt::listingFile({{"/q/one", 77, 3, 1, 0}, {"/q/two", 5, 3, 2, 0}});
  kt::Child c = kt::start(dir, "kestil-report", {"-h", "127.0.5.30", "-r", "3", "10", "4"});
  kt::Served seen = kt::serveFile(peer, c.pid, report);
  kt::Result r = kt::finish(c, RUN_MS);

  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "trailing end result\n");
  ASSERT_EQ(seen.requests.size(), 1u);
  EXPECT_EQ(seen.requests[0], kt::bytes({11, 1, 0x00, 0x8D, 0, 0, 0, 1, 1,  //
                                         3, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 10}));
  std::vector<std::string> kept = kt::namesStartingWith(dir, "qreport.");
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_TRUE(std::regex_match(kept[0], REPORT_NAME)) << kept[0];
  EXPECT_EQ(kt::readFile(dir + "/" + kept[0]), report);
  EXPECT_TRUE(kt::namesStartingWith(dir, ".q_report.kestil_state.").empty());
  EXPECT_EQ(kt::withoutTimes(kt::withoutRedraws(r.out)),
            "group: 3 size 0 entries 10\nSent 18 byte qreq!\nFile is " + std::to_string(report.size()) +
                " bytes!\nMD5 time!\nReceived file " + kept[0] +
                "...\nElapsed time: T A\n"
                "flags    group    priority size     filename\n"
                "0        3        1        77       /q/one\n"
                "0        3        2        5        /q/two\n");
  // Seven confirmations of the complete vector, 300 ms apart.
  ASSERT_GE(seen.acks.size(), 7u);
  for (size_t i = seen.acks.size() - 7; i < seen.acks.size(); ++i)
    EXPECT_EQ(seen.acks[i], kt::bytes({9, 0, 0, 0, 0, 0xC0}));
  EXPECT_GE(seen.ackTimesMs.back() - seen.ackTimesMs[seen.ackTimesMs.size() - 7], 1700);
}

TEST(ReportFetch, OneStrayArgumentSendsNothing) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.31", 3223));
  kt::Result r = kt::run(dir, "kestil-report", {"-h", "127.0.5.31", "3"}, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "trailing end result\n");
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(kt::namesStartingWith(dir, "qreport.").empty());
  sockaddr_in from{};
  EXPECT_TRUE(peer.recv(&from, 0).empty());
}

TEST(ReportFetch, TwentyLimitsAtMostAndTimeOutEndsWithStatus11) {
  std::string dir = kt::makeTempDir();
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.5.32", 3223));
  std::vector<std::string> args{"-h", "127.0.5.32", "-t", "0"};
  for (int g = 1; g <= 21; ++g) {
    args.push_back(std::to_string(g));
    args.push_back(std::to_string(100 + g));
  }
  kt::ServeOptions o;
  o.answer = false;
  kt::Child c = kt::start(dir, "kestil-report", args);
  kt::Served seen = kt::serveFile(peer, c.pid, "", o);
  kt::Result r = kt::finish(c, RUN_MS);

  EXPECT_EQ(r.status, 11);
  EXPECT_EQ(r.err, "maximum number of queues reached\n");
  ASSERT_EQ(seen.requests.size(), 1u);
  const std::vector<uint8_t> &req = seen.requests[0];
  ASSERT_EQ(req.size(), 189u);
  EXPECT_EQ(req[8], 20);
  EXPECT_EQ(std::vector<uint8_t>(req.begin() + 180, req.end()), kt::bytes({20, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 120}));
  std::vector<std::string> states = kt::namesStartingWith(dir, ".q_report.kestil_state.qreport.");
  ASSERT_EQ(states.size(), 1u);
  std::string name = states[0].substr(std::string(".q_report.kestil_state.").size());
  EXPECT_FALSE(kt::exists(dir + "/" + name));
  std::string out = kt::withoutTimes(kt::withoutRedraws(r.out));
  EXPECT_NE(out.find("group: 20 size 0 entries 120\nSent 189 byte qreq!\nMD5 time!\nReceive file " + name +
                     " timed out...\nElapsed time: T\n"),
            std::string::npos)
      << out;
}
