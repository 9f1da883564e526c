// qadd, qrm and status against a scripted file manager on its own port: the request bytes,
// each kind of answer with its message and exit status, and a file manager that stays silent.
#include <gtest/gtest.h>

#include <algorithm>

#include "station/station.hpp"
#include "tests/support/test_support.hpp"

namespace {

std::vector<uint8_t> queueOp(uint8_t cmd, uint8_t group, uint8_t priority, const std::string &name) {
  // Sized up front: appending to a four-byte vector trips a false array-bounds warning in g++ 12.
  std::vector<uint8_t> d(4 + name.size() + 1, 0);
  d[0] = cmd;
  d[1] = group;
  d[2] = priority;
  std::copy(name.begin(), name.end(), d.begin() + 4);
  return d;
}

TEST(FilemgrQueue, RequestsAndEachKindOfAnswer) {
  const std::string longest(1494, 'n');  // a 1499-byte request
  const struct {
    const char *ip;
    std::string args;  // "-h ip" follows the command word, except for status which takes the host last
    std::vector<uint8_t> answer, request;  // no answer: a file manager that stays silent
    kt::Shown shown;
  } cases[] = {
      // 300 keeps its low 8 bits: group 44.
      {"127.0.6.60", "qadd -g 300 -p 7 /data/img/a.jp", {0x11, 0}, queueOp(0x10, 44, 7, "/data/img/a.jp"), {0, "", ""}},
      {"127.0.6.61",
       "qadd f",
       {0x11, 0xFE},
       queueOp(0x10, 0, 0, "f"),
       {6, "bad result code -2 from add operation\n", ""}},
      {"127.0.6.62",
       "qadd f",
       {0x13, 0},
       queueOp(0x10, 0, 0, "f"),
       {5, "response code incorrect.  Got 0x13 expected 0x11\n", ""}},
      {"127.0.6.63", "qrm -g 3 f", {0x13, 0}, queueOp(0x12, 3, 0, "f"), {0, "", ""}},
      {"127.0.6.65", "status", {0xF1}, {0x01}, {0, "", ""}},
      {"127.0.6.66", "status", {0x00}, {0x01}, {5, "response code incorrect.  Got 0x00 expected 0xF1\n", ""}},
      {"127.0.6.67", "qadd " + longest, {0x11, 0}, queueOp(0x10, 0, 0, longest), {0, "", ""}},
      {"127.0.6.68", "qadd f", {}, queueOp(0x10, 0, 0, "f"), {255, "", ""}},  // the exchange's -1 after 5 s
  };
  for (const auto &c : cases) {
    std::vector<std::string> args = kt::words(c.args);
    if (args[0] == "status")
      args.push_back(c.ip);
    else
      args.insert(args.begin() + 1, {"-h", c.ip});
    kt::UdpPeer filemgr;
    ASSERT_TRUE(filemgr.bind(c.ip, STATION_FILEMGR_PORT));
    kt::Child child = kt::start(kt::makeTempDir(), "kestil", args);
    sockaddr_in from{};
    EXPECT_EQ(filemgr.recv(&from, 3000), c.request) << c.ip;
    if (!c.answer.empty()) filemgr.send(c.answer, from);
    EXPECT_EQ(kt::shown(kt::finish(child, 15000)), c.shown) << c.ip;
  }
}

TEST(FilemgrQueue, NameTooLongAndUsage) {
  const std::string over(1495, 'n');
  EXPECT_EQ(kt::shown(kt::run(kt::makeTempDir(), "dlq-add", {"-h", "127.0.6.67", over}, 15000)),
            (kt::Shown{255, "File name " + over + " too long\n", ""}));
  EXPECT_EQ(kt::shown(kt::run(kt::makeTempDir(), "dlq-rm", {"-p", "1", "f"}, 15000)),
            (kt::Shown{0, "qadd [-h host] [-g <group num>] [-p <priority num>] <file>\n",
                       "dlq-rm: invalid option -- 'p'\n"}));
}

}  // namespace
