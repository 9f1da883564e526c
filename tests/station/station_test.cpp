// The station layer: host resolution, datagram I/O, the request/response exchange with an
// on-board service, and the debug log.
#include "station/station.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_support.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int RECV_MS = 5000;

std::string dotted(in_addr a) { return inet_ntoa(a); }

TEST(SocketResolveHost, DottedLocalhostAndMalformedNames) {
  in_addr a{};
  EXPECT_NE(socket_resolve_host("127.0.3.30", &a), 0);
  EXPECT_EQ(dotted(a), "127.0.3.30");
  EXPECT_NE(socket_resolve_host("localhost", &a), 0);
  EXPECT_EQ(dotted(a), "127.0.0.1");
  // None of these reaches the resolver: each fails on its shape alone.
  for (const char *bad : {"", "256.1.1.1", "1.2.3.4.5", "no such host", "bad..name", "-lead.example",
                          "x_y.example", "tail$", ".start"}) {
    EXPECT_EQ(socket_resolve_host(bad, &a), 0) << bad;
  }
  EXPECT_EQ(socket_resolve_host(nullptr, &a), 0);
}

TEST(SocketIo, DatagramRoundTripWithTheSendersAddress) {
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.3.31", 0));
  int s = socket_init(0);
  ASSERT_GE(s, 0);
  EXPECT_EQ(socket_write(s, "ping", 4, &peer.address()), 4);
  sockaddr_in client{};
  EXPECT_EQ(peer.recv(&client, RECV_MS), (Bytes{'p', 'i', 'n', 'g'}));
  ASSERT_EQ(peer.send("pong!", 5, client), 5);
  char buf[16];
  sockaddr_in from{};
  EXPECT_EQ(socket_read(s, buf, sizeof buf, &from), 5);
  EXPECT_EQ(std::string(buf, 5), "pong!");
  EXPECT_EQ(from.sin_addr.s_addr, peer.address().sin_addr.s_addr);
  EXPECT_EQ(from.sin_port, peer.address().sin_port);
  close(s);
}

// A scripted on-board service on ip:3224: for each request it runs `answer` on its peer.
struct Responder {
  kt::UdpPeer service;
  kt::UdpPeer other;  // same host, another port
  Bytes request;
  std::thread worker;

  template <typename Answer>
  Responder(const char *ip, Answer answer) {
    EXPECT_TRUE(service.bind(ip, STATION_FILEMGR_PORT));
    EXPECT_TRUE(other.bind(ip, 0));
    worker = std::thread([this, answer] {
      sockaddr_in client{};
      request = service.recv(&client, RECV_MS);
      if (!request.empty()) answer(*this, client);
    });
  }
  ~Responder() {
    if (worker.joinable()) worker.join();
  }
};

int exchange(const char *host, const char *req, char *resp, int size, int timeoutMs) {
  return socket_send_packet_and_read_response(host, "filemgr", req, static_cast<int>(std::strlen(req)), resp,
                                              size, timeoutMs);
}

TEST(SendPacketAndReadResponse, AnswerIsStored) {
  char resp[64];
  int n;
  {
    Responder r("127.0.3.32", [](Responder &self, const sockaddr_in &c) { self.service.send("answer", 6, c); });
    n = exchange("127.0.3.32", "status?", resp, sizeof resp, RECV_MS);
  }
  ASSERT_EQ(n, 6);
  EXPECT_EQ(std::string(resp, 6), "answer");
}

TEST(SendPacketAndReadResponse, ForeignPortIsIgnoredAndWaitingContinues) {
  char resp[64];
  int n;
  Bytes seen;
  {
    Responder r("127.0.3.33", [](Responder &self, const sockaddr_in &c) {
      self.other.send("impostor", 8, c);
      // Once the impostor is on its way, the real answer follows from the service port.
      self.service.send("real", 4, c);
    });
    n = exchange("127.0.3.33", "q", resp, sizeof resp, RECV_MS);
    r.worker.join();
    seen = r.request;
  }
  EXPECT_EQ(seen, (Bytes{'q'}));
  ASSERT_EQ(n, 4);
  EXPECT_EQ(std::string(resp, 4), "real");
}

TEST(SendPacketAndReadResponse, SilenceAndEmptyAnswersFail) {
  char resp[64];
  auto start = std::chrono::steady_clock::now();
  {
    Responder r("127.0.3.34", [](Responder &, const sockaddr_in &) {});
    EXPECT_EQ(exchange("127.0.3.34", "q", resp, sizeof resp, 200), -1);
  }
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  EXPECT_LT(ms.count(), 4000);
  {
    Responder r("127.0.3.35", [](Responder &self, const sockaddr_in &c) { self.service.send("", 0, c); });
    EXPECT_EQ(exchange("127.0.3.35", "q", resp, sizeof resp, RECV_MS), -1);
  }
  EXPECT_EQ(socket_send_packet_and_read_response("127.0.3.36", "nosuch", "q", 1, resp, sizeof resp, 100), -1);
  EXPECT_EQ(exchange("no such host", "q", resp, sizeof resp, 100), -1);
}

std::vector<std::pair<int, std::string>> lines;
void capture(int level, const char *line) { lines.emplace_back(level, line); }

TEST(DebugLog, HookSeesLinesThatPassTheLevel) {
  lines.clear();
  DBG_init("/path/to/kestil-test");
  DBG_setHook(capture);
  DBG_setLevel(7);
  DBG_print(4, "seek %s %d", "error", 42);
  DBG_setLevel(3);
  DBG_print(4, "dropped");
  DBG_print(3, "kept");
  DBG_setLevel(7);
  errno = ENOENT;
  DBG_syserr(12, "fn", "file.cpp", 4, "open %s", "x");
  EXPECT_EQ(errno, ENOENT);  // the log leaves the error for the caller
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], std::make_pair(4, std::string("seek error 42")));
  EXPECT_EQ(lines[1], std::make_pair(3, std::string("kept")));
  EXPECT_NE(lines[2].second.find("open x: No such file or directory"), std::string::npos) << lines[2].second;

  // The logging pattern: nothing while errno is clear; one line, then a clear errno.
  lines.clear();
  errno = 0;
  DBG_LOG_ERRNO(4, "read failed");
  EXPECT_TRUE(lines.empty());
  errno = EBADF;
  DBG_LOG_ERRNO(4, "read %s", "failed");
  EXPECT_EQ(errno, 0);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].second.find("read failed: Bad file descriptor"), std::string::npos);
  DBG_setHook(nullptr);
}

}  // namespace
