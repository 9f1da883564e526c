// The state files: the record's bytes as first written, their names, and how an existing file
// of each size is taken.
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

TEST(StateRecord, ExistingFileIsContinuedAndShortOneRecreated) {
  std::string name = kt::makeTempDir() + "/.g.kestil_state";
  sockaddr_in src{AF_INET, htons(3223), {htonl(0x7F00054E)}, {}};
  auto open = [&](const char *remote) {
    StateMapping m;
    SavedRXState st{};
    if (openDownloadState(name.c_str(), remote, &src, &m) != StateFailure::None) return st;
    st = *static_cast<SavedRXState *>(m.addr);
    static_cast<SavedRXState *>(m.addr)->rxSet.lastBlk = 42;  // lands in the file
    closeState(&m);
    return st;
  };
  EXPECT_EQ(open("g").rxSet.block_size, 1u);
  SavedRXState again = open("other");  // continued whatever name it is given
  EXPECT_EQ(again.rxSet.lastBlk, 42u);
  EXPECT_STREQ(again.filename, "g");

  ASSERT_EQ(truncate(name.c_str(), 100), 0);  // a creation cut off before its write
  SavedRXState fresh = open("g2");
  EXPECT_EQ(fresh.rxSet.lastBlk, 0u);
  EXPECT_STREQ(fresh.filename, "g2");  // A longer one is refused: the get command's test shows it with its message.
}
