// The bounded wait ended by a signal or a bad descriptor, and the digest of a file. (Waits
// that run to their deadline or end early on a datagram: the get, ls and report time-outs and
// repeated requests against a scripted peer.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

#include "common/common.hpp"
#include "tests/support/test_support.hpp"

namespace {

std::string md5OfFd(int fd, int *result) {
  uint8_t d[16];
  *result = md5_fd(fd, d);
  return std::string(reinterpret_cast<char *>(d), 16);
}

void onAlarm(int) {}

TEST(SelectCall, ASignalOrABadDescriptorEndsTheWait) {
  kt::UdpPeer quiet;
  ASSERT_TRUE(quiet.bind("127.0.3.21", 0));
  struct sigaction sa {
  }, old{};
  sa.sa_handler = onAlarm;  // no SA_RESTART: the wait must come back
  sigaction(SIGALRM, &sa, &old);
  // Every 100 ms, so that one spent before the wait begins on a loaded machine is not the last.
  itimerval timer{{0, 100000}, {0, 100000}}, off{};
  setitimer(ITIMER_REAL, &timer, nullptr);
  EXPECT_EQ(select_call(quiet.fd(), 10, 0), -1);
  setitimer(ITIMER_REAL, &off, nullptr);
  sigaction(SIGALRM, &old, nullptr);
  EXPECT_EQ(select_call(-1, 0, 1000), -1);
}

TEST(Md5Fd, DigestsTheWholeFileAndRestoresThePosition) {
  const std::string dir = kt::makeTempDir(), content = kt::patternBytes(3000, 11);  // several 1024-byte reads
  for (const std::string &c : {std::string(), content}) {
    ASSERT_TRUE(kt::writeFile(dir + "/f", c));
    int f = open((dir + "/f").c_str(), O_RDONLY);
    lseek(f, 50, SEEK_SET);
    int result = -1;
    EXPECT_EQ(md5OfFd(f, &result), kt::md5Raw(c));
    EXPECT_EQ(std::pair(result, lseek(f, 0, SEEK_CUR)), std::pair(1, off_t{50}));
    close(f);
  }
  int writeOnly = open((dir + "/f").c_str(), O_WRONLY), result = -1;
  testing::internal::CaptureStderr();
  EXPECT_EQ(md5OfFd(writeOnly, &result), kt::md5Raw(""));  // nothing was read
  EXPECT_EQ(result, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "MD5 read error: Bad file descriptor\n");
  close(writeOnly);
}

}  // namespace
