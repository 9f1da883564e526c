// Remote paths stay under the served root: lexical normalisation, and links that lead out.
#include "sim/path_confine.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>

#include "tests/support/test_support.hpp"

namespace {

TEST(PathConfine, NormalisesWhatStaysInsideAndRefusesWhatClimbsOut) {
  const std::pair<const char *, const char *> inside[] = {
      {"a/b/c", "a/b/c"}, {"./a//b/", "a/b"}, {"a/b/../../c", "c"}, {"", "."}, {"a/..", "."}};
  std::string rel;
  for (auto [remote, expected] : inside) {
    EXPECT_EQ(normaliseRemotePath(remote, &rel), PathVerdict::Inside) << remote;
    EXPECT_EQ(rel, expected);
  }
  EXPECT_EQ(normaliseRemotePath("/etc/passwd", &rel), PathVerdict::Absolute);
  EXPECT_EQ(normaliseRemotePath("a/../../x", &rel), PathVerdict::Escapes);
  EXPECT_EQ(normaliseRemotePath(std::string(PATH_MAX, 'a').c_str(), &rel), PathVerdict::TooLong);
}

TEST(PathConfine, FollowsLinksAndRefusesThoseLeadingOut) {
  const std::string root = kt::makeTempDir(), outside = kt::makeTempDir();
  const std::filesystem::path saved = std::filesystem::current_path();
  ASSERT_EQ(mkdir((root + "/d").c_str(), 0755), 0);
  ASSERT_EQ(symlink(outside.c_str(), (root + "/out").c_str()), 0);
  ASSERT_EQ(symlink("d", (root + "/in").c_str()), 0);
  std::filesystem::current_path(root);
  const std::string real = std::filesystem::canonical(".");
  std::string rel;
  for (const char *ok : {"d/new.bin", "in/x", "missing/deeper/x", "."})
    EXPECT_EQ(confinePath(real, ok, &rel), PathVerdict::Inside) << ok;
  for (const char *bad : {"out", "out/x", "d/../out/new"})
    EXPECT_EQ(confinePath(real, bad, &rel), PathVerdict::LinkEscapes) << bad;
  std::filesystem::current_path(saved);
  std::filesystem::remove_all(root);
  std::filesystem::remove_all(outside);
}

}  // namespace
