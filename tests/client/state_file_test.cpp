// The state files: the record's byte layout as first written, the names, and how an existing
// file of each size is taken.
#include "client/state_file.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "tests/support/test_support.hpp"

namespace {

sockaddr_in endpoint(const char *ip) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(3223);
  inet_aton(ip, &a.sin_addr);
  return a;
}

struct InDir {
  std::string dir = kt::makeTempDir();
  std::string old;
  InDir() {
    char buf[4096];
    old = getcwd(buf, sizeof buf);
    EXPECT_EQ(chdir(dir.c_str()), 0);
  }
  ~InDir() { EXPECT_EQ(chdir(old.c_str()), 0); }
};

}  // namespace

TEST(StateRecord, FirstWrittenRecordHasTheFileLayout) {
  InDir in;
  sockaddr_in src = endpoint("127.0.5.77");
  StateMapping m;
  ASSERT_EQ(openDownloadState(".f.kestil_state", "/rem/f", &src, &m), StateFailure::None);
  closeState(&m);
  std::string b = kt::readFile(".f.kestil_state");
  ASSERT_EQ(b.size(), 2248u);
  auto at = [&](size_t off) { return static_cast<uint8_t>(b[off]); };
  // sin_family little-endian, port big-endian, address in network order.
  EXPECT_EQ(at(4), 2); EXPECT_EQ(at(5), 0);
  EXPECT_EQ(at(6), 0x0C); EXPECT_EQ(at(7), 0x97);
  EXPECT_EQ(at(8), 127); EXPECT_EQ(at(9), 0); EXPECT_EQ(at(10), 5); EXPECT_EQ(at(11), 77);
  for (size_t off = 12; off < 20; ++off) EXPECT_EQ(at(off), 0) << off;
  // Vector at 20: base, lastBlk, size 0; block size 1 (little-endian); count and head 0.
  for (size_t off = 20; off < 32; ++off) EXPECT_EQ(at(off), 0) << off;
  EXPECT_EQ(at(32), 1); EXPECT_EQ(at(33), 0);
  for (size_t off = 36; off < 40; ++off) EXPECT_EQ(at(off), 0) << off;
  for (size_t off = 48; off < 52; ++off) EXPECT_EQ(at(off), 0) << off;
  for (size_t off = 68; off < 196; ++off) ASSERT_EQ(at(off), 0) << off;
  EXPECT_EQ(b.substr(196, 7), std::string("/rem/f\0", 7));
  for (size_t off = 203; off < 2245; ++off) ASSERT_EQ(at(off), 0) << off;
}

TEST(StateRecord, RemoteNameIsCutAt2048CharactersAndStaysTerminated) {
  SavedRXState st;
  sockaddr_in src = endpoint("127.0.5.78");
  std::string name(3000, 'n');
  initSavedRXState(&st, name.c_str(), &src);
  EXPECT_EQ(std::strlen(st.filename), 2048u);
}

TEST(StateRecord, ExistingFileIsContinuedShortOneRecreatedLongOneRefused) {
  InDir in;
  sockaddr_in src = endpoint("127.0.5.79");
  StateMapping m;
  ASSERT_EQ(openDownloadState(".g.kestil_state", "g", &src, &m), StateFailure::None);
  static_cast<SavedRXState *>(m.addr)->rxSet.lastBlk = 42;  // lands in the file through the mapping
  closeState(&m);

  ASSERT_EQ(openDownloadState(".g.kestil_state", "other", &src, &m), StateFailure::None);
  EXPECT_EQ(static_cast<SavedRXState *>(m.addr)->rxSet.lastBlk, 42u);
  EXPECT_STREQ(static_cast<SavedRXState *>(m.addr)->filename, "g");
  closeState(&m);

  // A creation cut off before its write leaves a short file: it starts afresh.
  ASSERT_EQ(truncate(".g.kestil_state", 100), 0);
  ASSERT_EQ(openDownloadState(".g.kestil_state", "g2", &src, &m), StateFailure::None);
  EXPECT_EQ(static_cast<SavedRXState *>(m.addr)->rxSet.lastBlk, 0u);
  EXPECT_STREQ(static_cast<SavedRXState *>(m.addr)->filename, "g2");
  closeState(&m);

  ASSERT_EQ(truncate(".g.kestil_state", 2249), 0);
  EXPECT_EQ(openDownloadState(".g.kestil_state", "g", &src, &m), StateFailure::Fatal);
  EXPECT_EQ(m.addr, nullptr);
  EXPECT_EQ(kt::readFile(".g.kestil_state").size(), 2249u);  // left as it was
}

TEST(StateRecord, VectorRecordIs176BytesWithBlockSizeOne) {
  InDir in;
  StateMapping m;
  ASSERT_EQ(openVectorState(".dir_listing.kestil_state.t", &m), StateFailure::None);
  const auto *v = static_cast<const BlkRxVector *>(m.addr);
  EXPECT_EQ(v->block_size, 1u);
  EXPECT_EQ(v->lastBlk, 0u);
  closeState(&m);
  EXPECT_EQ(kt::readFile(".dir_listing.kestil_state.t").size(), 176u);
}

TEST(StateFileName, DotGoesBeforeTheWholeLocalName) {
  char out[STATE_NAME_MAX];
  ASSERT_TRUE(downloadStateName("sub/x", out));
  EXPECT_STREQ(out, ".sub/x.kestil_state");
  ASSERT_TRUE(downloadStateName("/tmp/x", out));
  EXPECT_STREQ(out, "./tmp/x.kestil_state");

  std::string longest(LOCAL_NAME_MAX, 'a');
  ASSERT_TRUE(downloadStateName(longest.c_str(), out));
  EXPECT_EQ(std::strlen(out), STATE_NAME_MAX - 1);
  EXPECT_FALSE(downloadStateName((longest + "a").c_str(), out));
}

TEST(StateFileName, ProgressArgumentIsAStateNameFrom15Characters) {
  EXPECT_TRUE(isStateFileName(".x.kestil_state"));
  EXPECT_FALSE(isStateFileName("..kestil_state"));  // 14 characters: a local name
  EXPECT_FALSE(isStateFileName("x.kestil_state"));
  EXPECT_FALSE(isStateFileName(".x.kestil_stat"));
  EXPECT_FALSE(isStateFileName("x"));
}
