// The station layer: the transfer socket's receive buffer, host resolution, the
// request/response exchange with an on-board service, and the debug log.
#include "station/station.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <thread>

#include "tests/support/test_support.hpp"

namespace {

// Large enough that a burst of blocks arriving while the receive loop is not scheduled waits
// in the kernel instead of being dropped.
TEST(SocketInit, AsksForAReceiveBufferOfThousandsOfDatagramsWithinTheKernelLimit) {
  long limit = 0;
  std::ifstream("/proc/sys/net/core/rmem_max") >> limit;
  int fd = socket_init(0), granted = 0;
  socklen_t len = sizeof granted;
  ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &len), 0);
  close(fd);
  ASSERT_GT(limit, 0);
  // The kernel reports twice what it grants (its own bookkeeping included).
  EXPECT_GE(granted, 2 * std::min<long>(SOCKET_RCVBUF_BYTES, limit));
}

TEST(SocketResolveHost, DottedLocalhostAndMalformedNames) {
  in_addr a{};
  EXPECT_NE(socket_resolve_host("127.0.3.30", &a), 0);
  EXPECT_STREQ(inet_ntoa(a), "127.0.3.30");
  EXPECT_NE(socket_resolve_host("localhost", &a), 0);
  EXPECT_STREQ(inet_ntoa(a), "127.0.0.1");
  // Each of these fails on its shape alone, before any resolver look-up.
  for (const char *bad : {"", "256.1.1.1", "1.2.3.4.5", "no such host", "bad..name", "-lead.example", "x_y"})
    EXPECT_EQ(socket_resolve_host(bad, &a), 0) << bad;
}

// Asks a scripted "filemgr" service on ip:3224 that handles the request with `script`
// (given the service, a second socket of the same host and the client's address).
template <typename Script>
std::string exchange(const char *ip, int timeoutMs, int *n, Script script) {
  kt::UdpPeer service, other;
  EXPECT_TRUE(service.bind(ip, STATION_FILEMGR_PORT));
  EXPECT_TRUE(other.bind(ip, 0));
  std::thread worker([&] {
    sockaddr_in client{};
    std::vector<uint8_t> got = service.recv(&client, 5000);
    EXPECT_EQ(std::string(got.begin(), got.end()), "req");
    if (!got.empty()) script(service, other, client);
  });
  char resp[64];
  *n = socket_send_packet_and_read_response(ip, "filemgr", "req", 3, resp, sizeof resp, timeoutMs);
  worker.join();
  return *n > 0 ? std::string(resp, static_cast<size_t>(*n)) : std::string();
}

TEST(SendPacketAndReadResponse, AnswerFromTheServicePortOnlyAndNothingElse) {
  int n = 0;
  EXPECT_EQ(exchange("127.0.3.32", 5000, &n,
                     [](kt::UdpPeer &service, kt::UdpPeer &other, const sockaddr_in &c) {
                       other.send("impostor", 8, c);  // ignored: waiting continues
                       service.send("answer", 6, c);
                     }),
            "answer");
  EXPECT_EQ(n, 6);
  exchange("127.0.3.33", 200, &n, [](kt::UdpPeer &, kt::UdpPeer &, const sockaddr_in &) {});
  EXPECT_EQ(n, -1);  // silence
  exchange("127.0.3.34", 5000, &n, [](kt::UdpPeer &s, kt::UdpPeer &, const sockaddr_in &c) { s.send("", 0, c); });
  EXPECT_EQ(n, -1);  // an empty answer
  char resp[8];
  EXPECT_EQ(socket_send_packet_and_read_response("127.0.3.35", "nosuch", "q", 1, resp, 8, 100), -1);
}

std::vector<std::pair<int, std::string>> lines;
void capture(int level, const char *line) { lines.emplace_back(level, line); }

TEST(DebugLog, HookLevelFilterAndTheErrnoPattern) {
  DBG_init("/path/to/kestil-test");
  DBG_setHook(capture);
  DBG_setLevel(3);
  DBG_print(4, "dropped");
  DBG_print(3, "kept %d", 3);
  DBG_setLevel(7);
  errno = ENOENT;
  DBG_syserr(12, "fn", "file.cpp", 4, "open %s", "x");
  EXPECT_EQ(errno, ENOENT);  // left for the caller
  errno = 0;
  DBG_LOG_ERRNO(4, "not logged");
  errno = EBADF;
  DBG_LOG_ERRNO(4, "read %s", "failed");
  EXPECT_EQ(errno, 0);
  DBG_setHook(nullptr);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], std::make_pair(3, std::string("kept 3")));
  EXPECT_NE(lines[1].second.find("open x: No such file or directory"), std::string::npos) << lines[1].second;
  EXPECT_NE(lines[2].second.find("read failed: Bad file descriptor"), std::string::npos) << lines[2].second;
}

}  // namespace
