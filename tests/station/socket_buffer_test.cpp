// The transfer socket's receive buffer: large enough that a burst of blocks arriving while the
// receive loop is not scheduled waits in the kernel instead of being dropped.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "station/station.hpp"

namespace {

TEST(SocketInit, AsksForAReceiveBufferOfThousandsOfDatagramsWithinTheKernelLimit) {
  long limit = 0;
  std::ifstream("/proc/sys/net/core/rmem_max") >> limit;
  ASSERT_GT(limit, 0);
  int fd = socket_init(0);
  ASSERT_GE(fd, 0);
  int granted = 0;
  socklen_t len = sizeof granted;
  ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &len), 0);
  close(fd);
  // The kernel reports twice what it grants (its own bookkeeping included).
  EXPECT_GE(granted, 2 * std::min<long>(SOCKET_RCVBUF_BYTES, limit));
}

}  // namespace
