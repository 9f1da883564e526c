// The front end as the operator meets it: the real executable started under different names
// and first arguments.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/test_support.hpp"

namespace {

constexpr int RUN_MS = 20000;

const char USAGE[] =
    "kestil multicall binary:\n"
    "    kestil-get       [-h <rem host>] [-o <output file>] [-z] [-t <timeout secs>] [-l <stop length>] [-c] "
    "[-L] <rem file>: Download a remote file.  -z option zero pads undownloaded data.\n"
    "    kestil-resume    [-z] [-l <stop length>] [-t <timeout secs>] [-L] <local file>: Download a remote "
    "file.  -z option zero pads undownloaded data.\n"
    "    kestil-put       [-h <rem host>] [-o <rem file>] [-t <timeout secs>] [-p <packets per second (6.0)] "
    "[-L] <lcl file>: Upload a remote file\n"
    "    kestil-ls        [-h <rem host>] [-t <timeout secs>] [-o <[a][r]>] <path>: List the contents of a "
    "remote directory\n"
    "    kestil-rm        [-h <rem host>] [-L] <rem file>: Delete a remote file\n"
    "    kestil-report    [-h <rem host>] [-t <timeout secs>] [-r]: Display the contents of the remote "
    "download queue.  -r option automatically removes the transfered file names once the transfer is "
    "confirmed as successful.\n"
    "    kestil-lsread    <inp file>: Read and display the contents of the named directory listing\n"
    "    kestil-progress  <file>: Displays the progress of a partially downloaded file\n"
    "    dlq-add          [-h host] [-g <group num>] [-p <priority num>] <file>: Add an entry to the download "
    "queue\n"
    "    dlq-rm           [-h host] [-g <group num>] <file>: Remove an entry from the download queue\n"
    "    filemgr-status   [rem host]: Display the current status of the file manager\n";

void expectUsage(const kt::Result &r) {
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, USAGE);
  EXPECT_EQ(r.err, "");
}

TEST(Multicall, UsageListWhenNoCommandIsSelected) {
  const std::string dir = kt::makeTempDir();
  expectUsage(kt::run(dir, "kestil", {}, RUN_MS));
  expectUsage(kt::run(dir, "/usr/local/bin/kestil", {}, RUN_MS));
  // First-argument dispatch compares the command word only, exactly.
  expectUsage(kt::run(dir, "kestil", {"kestil-put"}, RUN_MS));
  expectUsage(kt::run(dir, "kestil", {"Progress"}, RUN_MS));
  expectUsage(kt::run(dir, "kestil-Progress", {}, RUN_MS));
}

TEST(Multicall, ProgramNameBeatsTheFirstArgument) {
  const std::string dir = kt::makeTempDir();
  // Under the name kestil-progress, "ls" is the file whose progress is asked for.
  kt::Result r = kt::run(dir, "/some/dir/kestil-progress", {"ls"}, RUN_MS);
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "State file is .ls.kestil_state\nFile name: .ls.kestil_state\n");
  EXPECT_EQ(r.err, "state file doesn't exist: No such file or directory\n");
}

TEST(Multicall, FirstArgumentShiftsTheArguments) {
  const std::string dir = kt::makeTempDir();
  // The handler sees the command word as its argv[0]: no file argument follows.
  kt::Result byWord = kt::run(dir, "kestil", {"progress"}, RUN_MS);
  EXPECT_EQ(byWord.status, 0);
  EXPECT_EQ(byWord.out, "Usage: progress <file>\n");
  kt::Result byName = kt::run(dir, "kestil-progress", {}, RUN_MS);
  EXPECT_EQ(byName.status, 0);
  EXPECT_EQ(byName.out, byWord.out);
  kt::Result withFile = kt::run(dir, "anything", {"progress", "ls"}, RUN_MS);
  EXPECT_EQ(withFile.status, 1);
  EXPECT_EQ(withFile.out, "State file is .ls.kestil_state\nFile name: .ls.kestil_state\n");
}

}  // namespace
