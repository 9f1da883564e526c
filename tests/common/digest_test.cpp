// The digest of a file: whole, from any position, which it restores, and a descriptor it
// cannot read. (The bounded wait: the get, ls and report time-outs, the interrupt soak, and a
// get whose socket is descriptor 0.)
#include <fcntl.h>
#include <gtest/gtest.h>
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
