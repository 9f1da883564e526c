// ls with each flag and lsread of a saved listing, against kestil-sim serving a small tree.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tests/e2e/sim_harness.hpp"
#include "tests/support/test_support.hpp"

namespace {

const char *const HEADER = "flags    group    priority size     filename";

// The table rows the client printed, sorted: the directory order of the scan is the file
// system's, not a fixed one.
std::vector<std::string> rows(const std::string &out) {
  std::vector<std::string> lines;
  std::istringstream in(out);
  std::string line;
  bool table = false;
  while (std::getline(in, line)) {
    if (line == HEADER) {
      table = true;
    } else if (table) {
      lines.push_back(line);
    }
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::string savedListing(const std::string &dir) {
  for (const std::string &name : simt::entries(dir)) {
    if (name.starts_with("dirlisting.")) return name;
  }
  return "";
}

class SimListing : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = kt::makeTempDir();
    std::string root = simt::mkdirs(dir_ + "/root/x/d");
    ASSERT_TRUE(kt::writeFile(root + "/../b", "12345"));
    ASSERT_TRUE(kt::writeFile(root + "/../.h", "123"));
    ASSERT_TRUE(kt::writeFile(root + "/c", "1234567"));
    ASSERT_TRUE(kt::writeFile(dir_ + "/outside", "1"));
  }
  void TearDown() override { sim_.stop(); }
  // A fresh working directory per listing, so each holds exactly one saved listing.
  kt::Result ls(const char *addr, const std::vector<std::string> &extra, std::string *work) {
    *work = simt::mkdirs(dir_ + "/work" + std::to_string(runs_++));
    std::vector<std::string> args = {"-h", addr, "-t", "5"};
    args.insert(args.end(), extra.begin(), extra.end());
    return kt::run(*work, "kestil-ls", args, 30000);
  }
  std::string dir_;
  int runs_ = 0;
  simt::Sim sim_;
};

TEST_F(SimListing, EachFlagListsWhatItShould) {
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", "127.0.7.40"})) << sim_.err;
  using Rows = std::vector<std::string>;
  const Rows plain = {"0        0        0        5        x/b", "80       0        0        0        x/d"};
  const Rows hidden = {"0        0        0        3        x/.h", "0        0        0        5        x/b",
                       "80       0        0        0        x/d"};
  const Rows recursive = {"0        0        0        5        x/b", "0        0        0        7        x/d/c"};
  const Rows both = {"0        0        0        3        x/.h", "0        0        0        5        x/b",
                     "0        0        0        7        x/d/c"};
  const std::pair<std::vector<std::string>, Rows> cases[] = {
      {{"x"}, plain}, {{"-o", "a", "x"}, hidden}, {{"-o", "r", "x"}, recursive}, {{"-o", "ar", "x"}, both}};
  for (const auto &[args, expected] : cases) {
    std::string work;
    kt::Result r = ls("127.0.7.40", args, &work);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(rows(r.out), expected) << r.out;
    EXPECT_NE(savedListing(work), "");
  }
}

TEST_F(SimListing, LsreadPrintsTheSavedListingAgain) {
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", "127.0.7.41"})) << sim_.err;
  std::string work;
  kt::Result r = ls("127.0.7.41", {"-o", "r", "x/"}, &work);
  ASSERT_EQ(r.status, 0) << r.out;
  std::string saved = savedListing(work);
  ASSERT_NE(saved, "");
  kt::Result again = kt::run(work, "kestil-lsread", {saved}, 10000);
  EXPECT_EQ(again.status, 0);
  EXPECT_TRUE(again.out.starts_with(std::string(HEADER) + "\n")) << again.out;
  EXPECT_EQ(rows(again.out), rows(r.out));
  EXPECT_EQ(rows(again.out).size(), 2u);
}

TEST_F(SimListing, PathsOutsideTheRootGetAnEmptyListing) {
  ASSERT_TRUE(simt::start(&sim_, dir_, {"--root", "root", "--addr", "127.0.7.42"})) << sim_.err;
  for (const char *path : {"..", "/", "x/../../", "missing"}) {
    std::string work;
    kt::Result r = ls("127.0.7.42", {path}, &work);
    EXPECT_EQ(r.status, 0) << path << r.out;
    EXPECT_EQ(r.out.find(HEADER), std::string::npos) << path << r.out;
    EXPECT_NE(r.out.find("Received file dirlisting."), std::string::npos) << path << r.out;
  }
}

}  // namespace
