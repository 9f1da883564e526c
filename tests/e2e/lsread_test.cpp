// lsread as the real executable: the printed table, damaged and missing listings, and the
// exit statuses.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/listing/listing_records.hpp"
#include "tests/support/test_support.hpp"

namespace {

struct Lsread : ::testing::Test {
  void TearDown() override { std::filesystem::remove_all(dir); }
  void expect(const std::string &argv0, const std::vector<std::string> &args, int status, const std::string &out) {
    EXPECT_EQ(kt::shown(kt::run(dir, argv0, args, 10000)), (kt::Shown{status, out, ""}));
  }
  std::string dir = kt::makeTempDir();
};

const std::string HEADER = "flags    group    priority size     filename\n";

TEST_F(Lsread, PrintsSavedListingsEvenDamagedOnes) {
  kt::writeFile(dir + "/l", kt::zlibOf(kt::rawRecord("/data/img/a.jpg", 1234, 0, 0, 0) +
                                       kt::rawRecord("/data/img/old", 0, 0, 0, 0x80) +
                                       kt::rawRecord("q", 4000000000u, 3, 250, 0x1f)));
  const std::string table = HEADER +
                            "0        0        0        1234     /data/img/a.jpg\n"
                            "80       0        0        0        /data/img/old\n"
                            "1f       3        250      4000000000 q\n";
  expect("kestil-lsread", {"l"}, 0, table);
  expect("kestil", {"lsread", "l"}, 0, table);
  kt::writeFile(dir + "/empty", kt::zlibOf(""));
  expect("kestil-lsread", {"empty"}, 0, "");
  // A damaged listing: what came before the damage, and status 0.
  kt::writeFile(dir + "/damaged", kt::zlibOf(kt::rawRecord("good", 2, 0, 0, 0) + "\x01"));
  expect("kestil-lsread", {"damaged"}, 0, HEADER + "0        0        0        2        good\n");
}

TEST_F(Lsread, MissingFileExits255AndNoArgumentShowsUsage) {
  expect("kestil-lsread", {"absent"}, 255, "");
  kt::writeFile(dir + "/f", kt::zlibOf(""));
  expect("kestil-lsread", {"-upload", "m", "f"}, 255, "");  // only the first argument is read
  expect("kestil-lsread", {}, 0, "Usage: lsread [-upload <mission>] <input file>\n");
}

}  // namespace
