// qadd, qrm and status against a scripted file manager on its own port: the request bytes,
// each kind of answer with its message and exit status, and a file manager that stays silent.
#include <gtest/gtest.h>

#include <string>

#include "station/station.hpp"
#include "tests/support/test_support.hpp"

namespace {

constexpr int RUN_MS = 15000;

struct Exchange {
  std::vector<uint8_t> request;
  kt::Result result;
};

// Runs `args` (after the command word), answers its one request with `answer` (none when
// empty) and collects what was asked.
Exchange ask(const char *ip, const std::vector<std::string> &args, const std::vector<uint8_t> &answer) {
  kt::UdpPeer filemgr;
  EXPECT_TRUE(filemgr.bind(ip, STATION_FILEMGR_PORT));
  kt::Child child = kt::start(kt::makeTempDir(), "kestil", args);
  Exchange x;
  sockaddr_in from{};
  x.request = filemgr.recv(&from, 3000);
  if (!x.request.empty() && !answer.empty()) filemgr.send(answer, from);
  x.result = kt::finish(child, RUN_MS);
  return x;
}

std::vector<uint8_t> queueOp(uint8_t cmd, uint8_t group, uint8_t priority, const std::string &name) {
  std::string d =
      std::string{static_cast<char>(cmd), static_cast<char>(group), static_cast<char>(priority), '\0'} + name + '\0';
  return std::vector<uint8_t>(d.begin(), d.end());
}

const std::string USAGE = "qadd [-h host] [-g <group num>] [-p <priority num>] <file>\n";

}  // namespace

TEST(FilemgrQueue, RequestsAndEachKindOfAnswer) {
  const struct {
    const char *ip;
    std::vector<std::string> args;  // -h ip follows the command word, except for status
    std::vector<uint8_t> answer, request;
    std::string out;
    int status;
  } cases[] = {
      // 300 keeps its low 8 bits: group 44. 19 bytes.
      {"127.0.6.60",
       {"qadd", "-g", "300", "-p", "7", "/data/img/a.jp"},
       {0x11, 0x00},
       queueOp(0x10, 44, 7, "/data/img/a.jp"),
       "",
       0},
      {"127.0.6.61",
       {"qadd", "f"},
       {0x11, 0xFE},
       queueOp(0x10, 0, 0, "f"),
       "bad result code -2 from add operation\n",
       6},
      {"127.0.6.62",
       {"qadd", "f"},
       {0x13, 0x00},
       queueOp(0x10, 0, 0, "f"),
       "response code incorrect.  Got 0x13 expected 0x11\n",
       5},
      {"127.0.6.63", {"qrm", "-g", "3", "f"}, {0x13, 0x00}, queueOp(0x12, 3, 0, "f"), "", 0},
      {"127.0.6.65", {"status"}, {0xF1}, {0x01}, "", 0},
      {"127.0.6.66", {"status"}, {0x00}, {0x01}, "response code incorrect.  Got 0x00 expected 0xF1\n", 5},
  };
  for (const auto &c : cases) {
    std::vector<std::string> args = c.args;
    if (args[0] == "status")
      args.push_back(c.ip);
    else
      args.insert(args.begin() + 1, {"-h", c.ip});
    Exchange x = ask(c.ip, args, c.answer);
    EXPECT_EQ(x.request, c.request) << c.ip;
    EXPECT_EQ(kt::shown(x.result), (kt::Shown{c.status, c.out, ""})) << c.ip;
  }
}

TEST(FilemgrQueue, NameLengthLimitAndUsage) {
  const std::string longest(1494, 'n');  // 1499-byte request
  Exchange x = ask("127.0.6.67", {"qadd", "-h", "127.0.6.67", longest}, {0x11, 0x00});
  EXPECT_EQ(x.request.size(), 1499u);
  EXPECT_EQ(x.result.status, 0);

  const std::string over(1495, 'n');
  EXPECT_EQ(kt::shown(kt::run(kt::makeTempDir(), "dlq-add", {"-h", "127.0.6.67", over}, RUN_MS)),
            (kt::Shown{255, "File name " + over + " too long\n", ""}));
  EXPECT_EQ(kt::shown(kt::run(kt::makeTempDir(), "dlq-rm", {"-p", "1", "f"}, RUN_MS)),
            (kt::Shown{0, USAGE, "dlq-rm: invalid option -- 'p'\n"}));
}

TEST(FilemgrQueue, SilentFileManagerEndsWithTheExchangeResult) {
  Exchange x = ask("127.0.6.68", {"qadd", "-h", "127.0.6.68", "f"}, {});
  EXPECT_EQ(x.request, queueOp(0x10, 0, 0, "f"));
  EXPECT_EQ(kt::shown(x.result), (kt::Shown{255, "", ""}));  // the exchange's -1 after its 5 s wait
}
