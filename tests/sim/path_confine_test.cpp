// Remote paths stay under the served root: lexical normalisation, and links that lead out.
#include "sim/path_confine.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "tests/support/test_support.hpp"

namespace {

TEST(PathConfine, NormalisesWhatStaysInsideAndRefusesWhatClimbsOut) {
  const std::pair<const char *, const char *> inside[] = {
      {"a/b/c", "a/b/c"}, {"./a//b/", "a/b"}, {"a/b/../../c", "c"}, {"", "."}, {"a/..", "."}};
  for (auto [remote, expected] : inside) {
    std::string rel;
    EXPECT_EQ(normaliseRemotePath(remote, &rel), PathVerdict::Inside) << remote;
    EXPECT_EQ(rel, expected);
  }
  std::string rel;
  EXPECT_EQ(normaliseRemotePath("/etc/passwd", &rel), PathVerdict::Absolute);
  EXPECT_EQ(normaliseRemotePath("..", &rel), PathVerdict::Escapes);
  EXPECT_EQ(normaliseRemotePath("a/../../x", &rel), PathVerdict::Escapes);
  EXPECT_EQ(normaliseRemotePath(std::string(PATH_MAX, 'a').c_str(), &rel), PathVerdict::TooLong);
}

TEST(PathConfine, FollowsLinksAndRefusesThoseLeadingOut) {
  std::string root = kt::makeTempDir();
  std::string outside = kt::makeTempDir();
  char saved[PATH_MAX];
  ASSERT_TRUE(getcwd(saved, sizeof saved) != nullptr);
  ASSERT_EQ(mkdir((root + "/d").c_str(), 0755), 0);
  ASSERT_EQ(symlink(outside.c_str(), (root + "/out").c_str()), 0);
  ASSERT_EQ(symlink("d", (root + "/in").c_str()), 0);
  ASSERT_EQ(chdir(root.c_str()), 0);
  char real[PATH_MAX];
  ASSERT_TRUE(realpath(".", real) != nullptr);
  std::string rel;
  for (const char *ok : {"d/new.bin", "in/x", "missing/deeper/x", "."}) {
    EXPECT_EQ(confinePath(real, ok, &rel), PathVerdict::Inside) << ok;
  }
  for (const char *bad : {"out", "out/x", "d/../out/new"}) {
    EXPECT_EQ(confinePath(real, bad, &rel), PathVerdict::LinkEscapes) << bad;
  }
  ASSERT_EQ(chdir(saved), 0);
  ASSERT_EQ(std::system(("rm -rf '" + root + "' '" + outside + "'").c_str()), 0);
}

}  // namespace
