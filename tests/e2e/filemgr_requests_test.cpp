// qadd, qrm and status against a scripted file manager on its own port: the request bytes,
// each kind of answer with its message and exit status, and a file manager that stays silent.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/test_support.hpp"

namespace {

// A queue request: code, group, priority, a zero byte, the name and its NUL.
std::vector<uint8_t> queueOp(uint8_t cmd, uint8_t group, uint8_t priority, const std::string &name) {
  // Sized once and filled: g++ 12 at -O2 takes an insert into a 4-byte vector for an overrun.
  std::vector<uint8_t> d(4 + name.size() + 1, 0);
  d[0] = cmd;
  d[1] = group;
  d[2] = priority;
  std::copy(name.begin(), name.end(), d.begin() + 4);
  return d;
}

TEST(FilemgrQueue, RequestsAndEachKindOfAnswer) {
  const std::string longest(1494, 'n');  // a 1499-byte request
  const std::vector<uint8_t> addF = queueOp(0x10, 0, 0, "f");
  const struct {
    const char *ip;
    std::string args;                      // @ stands for the address
    std::vector<uint8_t> answer, request;  // no answer: a file manager that stays silent
    kt::Result shown;
  } cases[] = {
      // 300 keeps its low 8 bits: group 44.
      {"127.0.6.60",
       "qadd -h @ -g 300 -p 7 /data/img/a.jp",
       {0x11, 0},
       queueOp(0x10, 44, 7, "/data/img/a.jp"),
       {0, "", ""}},
      {"127.0.6.61", "qadd -h @ f", {0x11, 0xFE}, addF, {6, "bad result code -2 from add operation\n", ""}},
      {"127.0.6.62", "qadd -h @ f", {0x13, 0}, addF, {5, "response code incorrect.  Got 0x13 expected 0x11\n", ""}},
      {"127.0.6.63", "qrm -h @ -g 3 f", {0x13, 0}, queueOp(0x12, 3, 0, "f"), {0, "", ""}},
      {"127.0.6.65", "status @", {0xF1}, {0x01}, {0, "", ""}},
      {"127.0.6.66", "status @", {0x00}, {0x01}, {5, "response code incorrect.  Got 0x00 expected 0xF1\n", ""}},
      {"127.0.6.67", "qadd -h @ " + longest, {0x11, 0}, queueOp(0x10, 0, 0, longest), {0, "", ""}},
      {"127.0.6.68", "qadd -h @ f", {}, addF, {255, "", ""}},  // the exchange's -1 after 5 s
  };
  for (const auto &c : cases) {
    std::vector<std::string> args = kt::words(c.args);
    std::replace(args.begin(), args.end(), std::string("@"), std::string(c.ip));
    kt::UdpPeer filemgr;
    ASSERT_TRUE(filemgr.bind(c.ip, 3224));
    kt::Child child = kt::start(kt::makeTempDir(), "kestil", args);
    sockaddr_in from{};
    EXPECT_EQ(filemgr.recv(&from, 3000), c.request) << c.ip;
    if (!c.answer.empty()) filemgr.send(c.answer, from);
    EXPECT_EQ(kt::finish(child, 15000), c.shown) << c.ip;
  }
}

}  // namespace
