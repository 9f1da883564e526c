// The progress command against crafted state records: header lines, block map, elision of
// blocks past the window, and its refusals.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "client/state_file.hpp"
#include "tests/support/test_support.hpp"

namespace {

constexpr int RUN_MS = 10000;

SavedRXState record(uint32_t base, uint32_t lastBlk, uint32_t unique) {
  SavedRXState st;
  std::memset(&st, 0, sizeof st);
  st.fileNum[0] = 1; st.fileNum[1] = 2; st.fileNum[2] = 3; st.fileNum[3] = 4;
  st.src.family = AF_INET;
  st.src.port[0] = 0x0C; st.src.port[1] = 0x97;  // 3223
  st.src.addr[0] = 127; st.src.addr[1] = 0; st.src.addr[2] = 5; st.src.addr[3] = 9;
  st.rxSet.blkNumBase = base;
  st.rxSet.lastBlk = lastBlk;
  st.rxSet.file_size = lastBlk > 0 ? (lastBlk - 1) * 141 : 0;
  st.rxSet.block_size = 141;
  st.rxSet.uniqueBlkCnt = unique;
  std::strcpy(st.filename, "/data/img/a.jpg");
  return st;
}

void save(const std::string &path, const void *data, size_t len) {
  ASSERT_TRUE(kt::writeFile(path, std::string(static_cast<const char *>(data), len)));
}

const std::string HEADER =
    "Remote file: /data/img/a.jpg\nFile number: 16909060\nRemote host: 127.0.5.9:3223\nBlock size: 141\n";
const std::string ALL_MISSING(64, 'O');

}  // namespace

TEST(ProgressCommand, DrawsMapFromBaseWithLinesOf64Blocks) {
  std::string dir = kt::makeTempDir();
  // Window from 64: blocks 66-69 in ring byte 0 (0011 1100), block 130 in byte 8 (0010 0000).
  SavedRXState st = record(64, 200, 69);
  st.rxSet.vector[0] = 0x3C;
  st.rxSet.vector[8] = 0x20;
  save(dir + "/.x.kestil_state", &st, sizeof st);

  std::string map = "Percent complete: 34.5 (69 / 200)\nReceived: 0 - 63\n"
                    "00000064: OO....OOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOO\n"
                    "00000128: OO.OOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOO\n"
                    "00000192: OOOOOOOO\n";
  for (const char *arg : {"x", ".x.kestil_state"}) {
    kt::Result r = kt::run(dir, "kestil-progress", {arg}, RUN_MS);
    EXPECT_EQ(r.status, 0) << arg;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "State file is .x.kestil_state\n" + HEADER + map) << arg;
  }
}

TEST(ProgressCommand, RingHeadAndLineOffsetFollowTheBase) {
  std::string dir = kt::makeTempDir();
  // Base 72 with the ring turned by 5 bytes: lines start at 72, 136; block 72 is ring byte 5.
  SavedRXState st = record(72, 150, 72);
  st.rxSet.head = 5;
  st.rxSet.vector[5] = 0x80;   // block 72
  st.rxSet.vector[13] = 0x01;  // block 72 + 64 + 7 = 143
  save(dir + "/.y.kestil_state", &st, sizeof st);
  kt::Result r = kt::run(dir, "kestil", {"progress", "y"}, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "State file is .y.kestil_state\n" + HEADER +
                       "Percent complete: 48.0 (72 / 150)\nReceived: 0 - 71\n"
                       "00000072: .OOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOO\n"
                       "00000136: OOOOOOO.OOOOOO\n");
}

TEST(ProgressCommand, ElidesBlocksBeyondTheWindowAndDrawsTheLastLine) {
  std::string dir = kt::makeTempDir();
  SavedRXState st = record(0, 2000, 0);
  st.rxSet.vector[0] = 0x80;  // block 0, the metadata
  save(dir + "/.big.kestil_state", &st, sizeof st);
  kt::Result r = kt::run(dir, "kestil-progress", {"big"}, RUN_MS);
  std::string expected = "State file is .big.kestil_state\n" + HEADER + "Percent complete: 0.0 (0 / 2000)\n";
  for (int line = 0; line < 16; ++line) {
    char label[16];
    std::snprintf(label, sizeof label, "%08d: ", line * 64);
    expected += label + (line == 0 ? "." + ALL_MISSING.substr(1) : ALL_MISSING) + "\n";
  }
  expected += "........: " + ALL_MISSING + "\n00001984: " + std::string(16, 'O') + "\n";
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, expected);
}

TEST(ProgressCommand, RecordWithoutMetadataShowsZeroPercentAndEmptyMap) {
  std::string dir = kt::makeTempDir();
  SavedRXState st = record(0, 0, 0);
  save(dir + "/.new.kestil_state", &st, sizeof st);
  kt::Result r = kt::run(dir, "kestil-progress", {"new"}, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "State file is .new.kestil_state\n" + HEADER + "Percent complete: 0.0 (0 / 0)\n\n");
}

TEST(ProgressCommand, RefusesMissingWrongSizedAndCompleteRecords) {
  std::string dir = kt::makeTempDir();
  kt::Result missing = kt::run(dir, "kestil-progress", {"nope"}, RUN_MS);
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "State file is .nope.kestil_state\nFile name: .nope.kestil_state\n");
  EXPECT_EQ(missing.err, "state file doesn't exist: No such file or directory\n");

  SavedRXState st = record(0, 9, 8);
  for (size_t size : {sizeof st - 1, sizeof st + 1}) {
    std::string bytes(reinterpret_cast<const char *>(&st), sizeof st);
    bytes.resize(size, '\0');
    ASSERT_TRUE(kt::writeFile(dir + "/.odd.kestil_state", bytes));
    kt::Result r = kt::run(dir, "kestil-progress", {"odd"}, RUN_MS);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "State file is .odd.kestil_state\nState size mismatch!  Expected 2248 found " +
                         std::to_string(size) + "\n");
  }

  // 1000-byte file: blocks 0 to 8; base 8 with block 8 received is complete.
  st.rxSet.blkNumBase = 8;
  st.rxSet.head = 1;
  st.rxSet.vector[1] = 0x80;
  save(dir + "/.done.kestil_state", &st, sizeof st);
  kt::Result done = kt::run(dir, "kestil-progress", {"done"}, RUN_MS);
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.out, "State file is .done.kestil_state\n" + HEADER + "Download complete!!!\n");

  kt::Result empty = kt::run(dir, "kestil-progress", {""}, RUN_MS);
  EXPECT_EQ(empty.status, 1);
  EXPECT_EQ(empty.out, "Missing file name\n");
  kt::Result usage = kt::run(dir, "kestil-progress", {}, RUN_MS);
  EXPECT_EQ(usage.status, 0);
  EXPECT_EQ(usage.out, "Usage: progress <file>\n");
}

TEST(ProgressCommand, RefusesRecordWhoseRingIndexIsOutOfRange) {
  std::string dir = kt::makeTempDir();
  SavedRXState st = record(0, 50, 3);
  st.rxSet.head = 128;
  save(dir + "/.bad.kestil_state", &st, sizeof st);
  kt::Result r = kt::run(dir, "kestil-progress", {"bad"}, RUN_MS);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("damaged"), std::string::npos) << r.out;
}
