// rm against kestil-sim. rm gets no answer, so each request ends with a marker file: once the
// marker is gone, the names before it have been handled.
#include <gtest/gtest.h>

#include "tests/support/sim_process.hpp"

namespace {

TEST(SimRm, RemovesFilesAndWithRecursionDirectoriesButNothingOutsideNorTheRoot) {
  simt::Served sim("127.0.7.20");
  ASSERT_TRUE(sim.ready) << sim.err;
  const std::string &dir = sim.dir, &root = sim.root;
  ASSERT_TRUE(kt::writeFile(simt::mkdirs(root + "/tree/sub") + "/f", "f") && kt::writeFile(root + "/a", "a") &&
              kt::writeFile(dir + "/outside", "o"));
  int markers = 0;
  auto rm = [&](std::vector<std::string> args) {
    std::string marker = "marker" + std::to_string(markers++);
    kt::writeFile(root + "/" + marker, "m");
    args.push_back(marker);
    return sim.run(dir, "kestil-rm", args, 10000).status == 0 &&
           simt::eventually([&] { return !kt::exists(root + "/" + marker); }, 5000);
  };
  ASSERT_TRUE(rm({"-r", "-f", "../outside", dir + "/outside", "tree/../..", ".", ""}));
  EXPECT_TRUE(kt::exists(dir + "/outside") && kt::exists(root + "/a") && kt::exists(root + "/tree/sub/f"));
  ASSERT_TRUE(rm({"a", "tree"}));  // a directory without -r stays
  EXPECT_FALSE(kt::exists(root + "/a"));
  EXPECT_TRUE(kt::exists(root + "/tree/sub/f"));
  ASSERT_TRUE(rm({"-r", "tree"}));
  EXPECT_EQ(kt::namesStartingWith(root, ""), std::vector<std::string>{".kestil-sim.qdata"});  // its own queue
}

}  // namespace
