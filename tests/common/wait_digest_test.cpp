// The bounded wait and the digests of a file and a buffer.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "common/common.hpp"
#include "tests/support/test_support.hpp"

namespace {

using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

std::string hex(const uint8_t d[16]) {
  char out[33];
  for (int i = 0; i < 16; ++i) std::snprintf(out + 2 * i, 3, "%02x", d[i]);
  return out;
}

TEST(SelectCall, QueuedDatagramAndZeroTimeout) {
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.3.20", 0));
  // Nothing queued, zero time-out: the deadline has already passed.
  EXPECT_EQ(select_call(peer.fd(), 0, 0), 0);
  const char one = 1;
  ASSERT_EQ(peer.send(&one, 1, peer.address()), 1);
  // Queued but a zero time-out: still no poll at all.
  EXPECT_EQ(select_call(peer.fd(), 0, 0), 0);
  Clock::time_point start = Clock::now();
  EXPECT_EQ(select_call(peer.fd(), 5, 0), 1);
  EXPECT_LT(msSince(start), 2500);  // at once, not at the deadline
}

TEST(SelectCall, WaitsOutItsDeadline) {
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.3.21", 0));
  Clock::time_point start = Clock::now();
  EXPECT_EQ(select_call(peer.fd(), 0, 300000), 0);
  long long elapsed = msSince(start);
  EXPECT_GE(elapsed, 299);
  EXPECT_LT(elapsed, 3000);
  // Microseconds that carry into the next second.
  start = Clock::now();
  EXPECT_EQ(select_call(peer.fd(), 0, 999999), 0);
  EXPECT_GE(msSince(start), 999);
}

void onAlarm(int) {}

TEST(SelectCall, InterruptAndBadDescriptorFail) {
  kt::UdpPeer peer;
  ASSERT_TRUE(peer.bind("127.0.3.22", 0));
  struct sigaction sa{};
  sa.sa_handler = onAlarm;  // no SA_RESTART: the wait must come back
  struct sigaction old{};
  ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
  itimerval timer{};
  timer.it_value.tv_usec = 100000;
  setitimer(ITIMER_REAL, &timer, nullptr);
  Clock::time_point start = Clock::now();
  EXPECT_EQ(select_call(peer.fd(), 10, 0), -1);
  EXPECT_LT(msSince(start), 8000);
  sigaction(SIGALRM, &old, nullptr);

  EXPECT_EQ(select_call(-1, 0, 1000), -1);
  int closed = dup(peer.fd());
  close(closed);
  EXPECT_EQ(select_call(closed, 0, 1000), -1);
}

TEST(Md5Fd, EmptyFileRestoresThePosition) {
  std::string path = kt::makeTempDir() + "/empty";
  ASSERT_TRUE(kt::writeFile(path, ""));
  int fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(lseek(fd, 50, SEEK_SET), 50);
  uint8_t d[16];
  EXPECT_EQ(md5_fd(fd, d), 1);
  EXPECT_EQ(hex(d), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 50);
  close(fd);
}

TEST(Md5Fd, WholeFileFromAnyPosition) {
  const std::string content = kt::patternBytes(3000, 11);  // several 1024-byte reads
  std::string path = kt::makeTempDir() + "/f";
  ASSERT_TRUE(kt::writeFile(path, content));
  int fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(lseek(fd, 2048, SEEK_SET), 2048);
  uint8_t d[16];
  EXPECT_EQ(md5_fd(fd, d), 1);
  EXPECT_EQ(hex(d), kt::md5Hex(content));
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 2048);
  close(fd);
}

TEST(Md5Fd, ReadErrorIsReportedAndAnswersZero) {
  std::string path = kt::makeTempDir() + "/w";
  ASSERT_TRUE(kt::writeFile(path, "data"));
  int fd = open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  uint8_t d[16];
  testing::internal::CaptureStderr();
  EXPECT_EQ(md5_fd(fd, d), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "MD5 read error: Bad file descriptor\n");
  EXPECT_EQ(hex(d), "d41d8cd98f00b204e9800998ecf8427e");  // the digest of what was read: nothing
  close(fd);
}

TEST(Md5Buff, KnownDigests) {
  uint8_t d[16];
  EXPECT_EQ(md5_buff("abc", 3, d), 1);
  EXPECT_EQ(hex(d), "900150983cd24fb0d6963f7d28e17f72");
  const std::string content = kt::patternBytes(5000, 2);
  md5_buff(content.data(), content.size(), d);
  EXPECT_EQ(hex(d), kt::md5Hex(content));
}

}  // namespace
