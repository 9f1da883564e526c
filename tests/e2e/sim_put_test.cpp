// put against kestil-sim: the upload is stored under the root with its modification time, and
// refused targets reach the client as put failures.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/sim_process.hpp"

namespace {

TEST(SimPut, StoresTheFileWithItsTimeAndRefusesTargetsItMustNotWrite) {
  simt::Served sim("127.0.7.10");
  ASSERT_TRUE(sim.ready) << sim.err;
  const std::string &dir = sim.dir, up = simt::mkdirs(sim.root + "/up");
  std::string content = kt::patternBytes(25000, 3);
  ASSERT_TRUE(kt::writeFile(dir + "/local.bin", content));
  timespec times[2] = {{1714568865, 0}, {1714568865, 0}};  // 2024-05-01 13:07:45 UTC
  ASSERT_EQ(utimensat(AT_FDCWD, (dir + "/local.bin").c_str(), times, 0), 0);
  kt::Result r = sim.run(dir, "kestil-put", {"-p", "300", "-o", "up/stored.bin", "local.bin"}, 60000);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("Done!\nElapsed time: "), std::string::npos) << r.out;
  EXPECT_EQ(kt::md5Hex(kt::readFile(up + "/stored.bin")), kt::md5Hex(content));
  struct stat st {};
  ASSERT_EQ(stat((up + "/stored.bin").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1714568865);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_EQ(kt::namesStartingWith(up, ""), std::vector<std::string>{"stored.bin"});  // no part file left

  // Out of the root, absolute, the root itself, a directory in the way.
  for (const char *target : {"../escaped.bin", "/tmp/escaped.bin", ".", "up"}) {
    kt::Result refused = sim.run(dir, "kestil-put", {"-o", target, "local.bin"});
    EXPECT_EQ(refused.status, 1) << target;
    EXPECT_TRUE(refused.out.ends_with("PUT failure\n")) << target << ": " << refused.out;
  }
  EXPECT_FALSE(kt::exists(dir + "/escaped.bin"));
}

}  // namespace
