// Remote paths stay under the served root: links that lead out, and names too long. (Paths
// that climb out or are absolute, and normalised names: get, put, rm, ls and the file manager
// against kestil-sim.)
#include "sim/path_confine.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>

#include "tests/support/test_support.hpp"

namespace {

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
  EXPECT_EQ(normaliseRemotePath(std::string(PATH_MAX, 'a').c_str(), &rel), PathVerdict::TooLong);
  std::filesystem::current_path(saved);
  std::filesystem::remove_all(root);
  std::filesystem::remove_all(outside);
}

}  // namespace
