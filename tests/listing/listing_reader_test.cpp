// The listing reader on hand-made zlib files: each kind of damage ends the reading after the
// records before it. (Whole listings in order: the listing reader's fuzz target and the ls
// scenarios.)
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
