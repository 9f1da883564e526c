// ls with each flag, and lsread of a saved listing, against kestil-sim serving a small tree;
// paths that leave the root get an empty listing.
#include <gtest/gtest.h>

#include "tests/support/sim_process.hpp"

namespace {

const std::string HEADER = "flags    group    priority size     filename";

// The table rows, sorted: the scan follows the file system's directory order.
std::vector<std::string> rows(const std::string &out) { return simt::tableRows(out, true); }

TEST(SimListing, EachFlagListsWhatItShouldAndLsreadPrintsTheSavedListing) {
  simt::Served sim("127.0.7.40");
  ASSERT_TRUE(sim.ready) << sim.err;
  std::string x = simt::mkdirs(sim.root + "/x/d") + "/..";
  ASSERT_TRUE(kt::writeFile(x + "/b", "12345") && kt::writeFile(x + "/.h", "123") &&
              kt::writeFile(x + "/d/c", "1234567"));
  const std::string b = "0        0        0        5        x/b";
  const std::string h = "0        0        0        3        x/.h";
  const std::string c = "0        0        0        7        x/d/c";
  const std::string d = "80       0        0        0        x/d";
  const std::pair<const char *, std::vector<std::string>> cases[] = {
      {"", {b, d}}, {"a", {h, b, d}}, {"r", {b, c}}, {"ar", {h, b, c}}};
  int run = 0;
  for (const auto &[flags, expected] : cases) {
    std::string work = simt::mkdirs(sim.dir + "/work" + std::to_string(run++));  // one saved listing each
    kt::Result r = sim.run(work, "kestil-ls", {"-t", "5", "-o", flags, "x"});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(rows(r.out), expected) << flags << ": " << r.out;
    std::vector<std::string> saved = kt::namesStartingWith(work, "");
    ASSERT_EQ(saved.size(), 1u);
    kt::Result again = kt::run(work, "kestil-lsread", {saved[0]}, 10000);
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out.substr(0, HEADER.size()), HEADER);
    EXPECT_EQ(rows(again.out), expected);
  }
  for (const char *outside : {"..", "/", "x/../../", "missing"}) {
    kt::Result r = sim.run(sim.dir, "kestil-ls", {"-t", "5", outside});
    EXPECT_EQ(r.status, 0) << outside << r.out;
    EXPECT_EQ(r.out.find(HEADER), std::string::npos) << outside << r.out;
    EXPECT_NE(r.out.find("Received file dirlisting."), std::string::npos) << outside << r.out;
  }
}

}  // namespace
