// Remote paths stay under the served root: lexical normalisation, and links that lead out.
#include "sim/path_confine.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "tests/support/test_support.hpp"

namespace {

TEST(PathConfine, NormalisesPathsThatStayInside) {
  const std::pair<const char *, const char *> cases[] = {
      {"a", "a"},          {"a/b/c", "a/b/c"}, {"./a//b/", "a/b"}, {"a/../b", "b"},
      {"a/b/../../c", "c"}, {"", "."},          {".", "."},         {"a/..", "."},
  };
  for (auto [remote, expected] : cases) {
    std::string rel;
    EXPECT_EQ(normaliseRemotePath(remote, &rel), PathVerdict::Inside) << remote;
    EXPECT_EQ(rel, expected) << remote;
  }
}

TEST(PathConfine, RefusesAbsolutePathsAndClimbsAboveTheRoot) {
  std::string rel;
  EXPECT_EQ(normaliseRemotePath("/etc/passwd", &rel), PathVerdict::Absolute);
  EXPECT_EQ(normaliseRemotePath("..", &rel), PathVerdict::Escapes);
  EXPECT_EQ(normaliseRemotePath("../x", &rel), PathVerdict::Escapes);
  EXPECT_EQ(normaliseRemotePath("a/../../x", &rel), PathVerdict::Escapes);
  EXPECT_EQ(normaliseRemotePath(std::string(PATH_MAX, 'a').c_str(), &rel), PathVerdict::TooLong);
}

class PathConfineOnDisk : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = kt::makeTempDir();
    outside_ = kt::makeTempDir();
    ASSERT_FALSE(root_.empty());
    ASSERT_TRUE(getcwd(saved_, sizeof saved_) != nullptr);
    ASSERT_EQ(mkdir((root_ + "/d").c_str(), 0755), 0);
    ASSERT_EQ(symlink(outside_.c_str(), (root_ + "/out").c_str()), 0);
    ASSERT_EQ(symlink("d", (root_ + "/in").c_str()), 0);
    ASSERT_EQ(chdir(root_.c_str()), 0);
    char real[PATH_MAX];
    ASSERT_TRUE(realpath(".", real) != nullptr);
    rootReal_ = real;
  }
  void TearDown() override {
    ASSERT_EQ(chdir(saved_), 0);
    std::string cmd = "rm -rf '" + root_ + "' '" + outside_ + "'";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
  }
  std::string root_;
  std::string outside_;
  std::string rootReal_;
  char saved_[PATH_MAX]{};
};

TEST_F(PathConfineOnDisk, FollowsLinksAndRefusesThoseLeadingOut) {
  std::string rel;
  EXPECT_EQ(confinePath(rootReal_, "d/new.bin", &rel), PathVerdict::Inside);
  EXPECT_EQ(rel, "d/new.bin");
  EXPECT_EQ(confinePath(rootReal_, "in/x", &rel), PathVerdict::Inside);
  EXPECT_EQ(confinePath(rootReal_, "missing/deeper/x", &rel), PathVerdict::Inside);
  EXPECT_EQ(confinePath(rootReal_, ".", &rel), PathVerdict::Inside);
  EXPECT_EQ(confinePath(rootReal_, "out", &rel), PathVerdict::LinkEscapes);
  EXPECT_EQ(confinePath(rootReal_, "out/x", &rel), PathVerdict::LinkEscapes);
  EXPECT_EQ(confinePath(rootReal_, "d/../out/new", &rel), PathVerdict::LinkEscapes);
}

}  // namespace
