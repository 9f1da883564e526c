// The state files: the record's bytes as first written, and their names.
#include "client/state_file.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/support/test_support.hpp"

TEST(StateRecord, FirstWrittenRecordHasTheFileLayoutAndName) {
  std::string name = kt::makeTempDir() + "/.f.kestil_state";
  sockaddr_in src{AF_INET, htons(3223), {htonl(0x7F00054D)}, {}};  // 127.0.5.77
  StateMapping m;
  ASSERT_EQ(openDownloadState(name.c_str(), "/rem/f", &src, &m), StateFailure::None);
  closeState(&m);
  std::string b = kt::readFile(name);
  ASSERT_EQ(b.size(), 2248u);
  // fileNum 0; family 2 (little-endian), port 3223 and address big-endian, 8 zero bytes;
  // vector: base, lastBlk, size 0, block size 1, count 0, time 0, head 0.
  std::string head(
      "\0\0\0\0\x02\0\x0C\x97\x7F\0\x05\x4D\0\0\0\0\0\0\0\0"
      "\0\0\0\0\0\0\0\0\0\0\0\0\x01\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0",
      52);
  EXPECT_EQ(b.substr(0, 52), head);
  EXPECT_EQ(b.substr(68, 128), std::string(128, '\0'));  // bitmap
  EXPECT_EQ(b.substr(196), "/rem/f" + std::string(2049 - 6 + 3, '\0'));
  // The dot goes before the whole local name. (Names too long for the buffer: the get command's test.)
  char out[STATE_NAME_MAX];
  ASSERT_TRUE(downloadStateName("sub/x", out));
  EXPECT_STREQ(out, ".sub/x.kestil_state");
}
