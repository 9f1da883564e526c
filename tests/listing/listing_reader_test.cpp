// The listing reader on hand-made zlib files: long listings whole and in order, and each kind
// of damage ending the reading after the records before it.
#include <gtest/gtest.h>

#include "station/station.hpp"
#include "tests/listing/listing_records.hpp"

namespace {

std::vector<std::string> logLines;

// The records read from a file of `bytes`; what the debug log said in logLines.
std::vector<std::string> read(const std::string &bytes, int *rc = nullptr) {
  const std::string path = kt::makeTempDir() + "/l";
  kt::writeFile(path, bytes);
  logLines.clear();
  DBG_setHook([](int, const char *line) { logLines.emplace_back(line); });
  std::vector<std::string> records = kt::listingRecords(path, rc);
  DBG_setHook(nullptr);
  return records;
}

TEST(ListingReader, DeliversALongListingWholeAndInOrder) {
  // A 4128-byte record, then 1500 records of up to 2064 bytes with poorly compressible
  // names: the file spans many reads and the decoded buffer is refilled many times.
  std::string plain = kt::rawRecord(std::string(4118, 'n'), 1, 2, 3, 4);
  std::vector<std::string> want{"4/2/3/1/" + std::string(4118, 'n')};
  for (uint32_t i = 0; i < 1500; ++i) {
    std::string name = kt::patternBytes(i * 131 % 2055, i);
    for (char &c : name) c = static_cast<char>('a' + uint8_t(c) % 26);
    plain += kt::rawRecord(name, i * 7919, uint8_t(i), 9, 0x80);
    want.push_back("80/" + std::to_string(i & 0xFF) + "/9/" + std::to_string(i * 7919) + "/" + name);
  }
  int rc = -9;
  EXPECT_EQ(read(kt::zlibOf(plain), &rc), want);
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(logLines.empty());
}

TEST(ListingReader, DamageEndsTheReadingAfterTheRecordsBeforeIt) {
  const std::string a = kt::rawRecord("a", 5, 0, 0, 0);
  const std::vector<std::string> cut{"NOT OK: ", "unknown - -5\n"};
  const struct {
    std::string file;
    size_t records;
    std::vector<std::string> log;
  } cases[] = {
      {"", 0, cut},
      {"plain text, not a listing", 0, {"NOT OK: ", "Invalid or incomplete deflate data\n"}},
      {kt::zlibOf(a + std::string("\x01\x2c", 2) + "rest"), 1, {"Record too long: 300 vs 6\n"}},
      {kt::zlibOf(a + std::string("\x00\x03xyz", 5)), 1, {"Record too short: 3\n"}},
      {kt::zlibOf(a + std::string(12, '\0')), 1, {"Record too short: 0\n"}},
      {kt::zlibOf(a + std::string("\x00\x0c\0\0\0\x06\0\0\0bcz", 12)), 1, {"String not null terminated, error!\n"}},
      {kt::zlibOf(a + "\x01"), 1, {"Stray byte after the last record\n"}},
  };
  for (const auto &c : cases) {
    int rc = -9;
    EXPECT_EQ(read(c.file, &rc), std::vector<std::string>(c.records, "0/0/0/5/a"));
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(logLines, c.log);
  }
  // A cut file delivers a prefix of its records and ends on the missing input.
  std::string many;
  for (int i = 0; i < 400; ++i) many += kt::rawRecord(std::to_string(i), i, 0, 0, 0);
  const std::vector<std::string> got = read(kt::zlibOf(many).substr(0, kt::zlibOf(many).size() / 2));
  ASSERT_GT(got.size(), 0u);
  EXPECT_LT(got.size(), 400u);
  const std::string last = std::to_string(got.size() - 1);
  EXPECT_EQ(got.back(), "0/0/0/" + last + "/" + last);
  EXPECT_EQ(logLines, cut);
}

}  // namespace
