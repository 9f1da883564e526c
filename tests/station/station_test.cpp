// The station layer: host resolution and the request/response exchange with an on-board
// service. (An exchange that times out: the queue commands' silent file
// manager.)
#include "station/station.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <thread>

#include "tests/support/test_support.hpp"

namespace {

TEST(SocketResolveHost, DottedLocalhostAndMalformedNames) {
  in_addr a{};
  EXPECT_TRUE(socket_resolve_host("127.0.3.30", &a) != 0 && a.s_addr == htonl(0x7F00031E));
  EXPECT_TRUE(socket_resolve_host("localhost", &a) != 0 && a.s_addr == htonl(0x7F000001));
  // Each of these fails on its shape alone, before any resolver look-up.
  for (const char *bad : {"", "256.1.1.1", "1.2.3.4.5", "no such host", "bad..name", "-lead.example", "x_y"})
    EXPECT_EQ(socket_resolve_host(bad, &a), 0) << bad;
}

// The exchange with a scripted "filemgr" service on ip:3224 that first has a second socket of
// the same host send `impostor`, then answers `answer` itself (nothing when null): what the
// exchange returns, and the answer it took.
std::pair<int, std::string> exchange(const char *ip, int timeoutMs, const char *impostor, const char *answer) {
  kt::UdpPeer service, other;
  EXPECT_TRUE(service.bind(ip, 3224) && other.bind(ip, 0));
  std::thread worker([&] {
    sockaddr_in client{};
    std::vector<uint8_t> got = service.recv(&client, 5000);
    EXPECT_EQ(std::string(got.begin(), got.end()), "req");
    if (impostor != nullptr) other.send(impostor, int(strlen(impostor)), client);
    if (answer != nullptr) service.send(answer, int(strlen(answer)), client);
  });
  char resp[64];
  int n = socket_send_packet_and_read_response(ip, "filemgr", "req", 3, resp, sizeof resp, timeoutMs);
  worker.join();
  return {n, std::string(resp, static_cast<size_t>(std::max(n, 0)))};
}

TEST(SendPacketAndReadResponse, AnswerFromTheServicePortOnlyAndNothingElse) {
  EXPECT_EQ(exchange("127.0.3.32", 5000, "impostor", "answer"), std::make_pair(6, std::string("answer")));
  EXPECT_EQ(exchange("127.0.3.34", 5000, nullptr, "").first, -1);  // an empty answer
  char resp[8];
  EXPECT_EQ(socket_send_packet_and_read_response("127.0.3.35", "nosuch", "q", 1, resp, 8, 100), -1);
}

}  // namespace
