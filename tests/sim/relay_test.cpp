// Relay mode with a clean link: a client's datagrams reach the upstream service, answers come
// back from the listen address, and an upstream that answers a transfer from a port of its own
// (as a TFTP server does) is reached on that port from then on.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <string>
#include <vector>

#include "sim/relay.hpp"
#include "tests/support/test_support.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

// Serves whatever the relay's sockets have to read, then its due timers.
void serve(EventLoop *loop, int64_t now) {
  for (size_t i = 0; i < loop->watches.size(); ++i) {
    pollfd p{loop->watches[i].fd, POLLIN, 0};
    if (poll(&p, 1, 50) == 1) loop->watches[i].onReadable(now);
  }
  loopRunDue(loop, now);
}

TEST(Relay, FollowsAnUpstreamThatAnswersFromAPortOfItsOwn) {
  kt::UdpPeer client, service, transfer;
  ASSERT_TRUE(client.bind("127.0.8.50", 0) && service.bind("127.0.8.52", 0) && transfer.bind("127.0.8.52", 0));
  sockaddr_in listen{AF_INET, 0, {htonl(0x7F000833)}, {}};  // 127.0.8.51
  int fd = openUdpSocket(listen);
  ASSERT_GE(fd, 0);
  socklen_t len = sizeof listen;
  getsockname(fd, reinterpret_cast<sockaddr *>(&listen), &len);
  EventLoop loop;
  Trace trace;
  Relay relay;
  int64_t now = 1000000;
  relayStart(&relay, &loop, &trace, LinkConfig{}, 60, service.address(), fd, now);

  client.send(kt::bytes({1, 2}), listen);
  serve(&loop, now += 1000);
  sockaddr_in relayed{};
  EXPECT_EQ(service.recv(&relayed, 1000), kt::bytes({1, 2}));

  transfer.send(kt::bytes({3}), relayed);  // the answer comes from another port
  serve(&loop, now += 1000);
  sockaddr_in from{};
  EXPECT_EQ(client.recv(&from, 1000), kt::bytes({3}));
  EXPECT_EQ(from.sin_port, listen.sin_port);  // from the address the client sent to

  client.send(kt::bytes({4}), listen);
  serve(&loop, now += 1000);
  EXPECT_EQ(transfer.recv(nullptr, 1000), kt::bytes({4}));
  EXPECT_TRUE(service.recv(nullptr, 100).empty());
  relayStop(&relay);
}

}  // namespace
