// The front end as the operator meets it: the real executable started under different names
// and first arguments.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

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

TEST(Multicall, UsageListWhenNoCommandIsSelected) {
  const std::string dir = kt::makeTempDir();
  // First-argument dispatch compares the command word only, exactly.
  for (const auto &[argv0, args] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"kestil", {}}, {"/usr/local/bin/kestil", {}}, {"kestil", {"kestil-put"}}, {"kestil", {"Progress"}},
           {"kestil-Progress", {}}}) {
    const kt::Result r = kt::run(dir, argv0, args, RUN_MS);
    EXPECT_EQ(r.status, 0) << argv0;
    EXPECT_EQ(r.out, USAGE) << argv0;
    EXPECT_EQ(r.err, "") << argv0;
  }
}

TEST(Multicall, ProgramNameBeatsTheFirstArgumentWhichShiftsTheArguments) {
  const std::string dir = kt::makeTempDir();
  const std::string noState = "State file is .ls.kestil_state\nFile name: .ls.kestil_state\n";
  // Under the name kestil-progress, "ls" is the file whose progress is asked for.
  kt::Result r = kt::run(dir, "/some/dir/kestil-progress", {"ls"}, RUN_MS);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, noState);
  EXPECT_EQ(r.err, "state file doesn't exist: No such file or directory\n");
  // By first argument the handler sees the command word as its argv[0].
  EXPECT_EQ(kt::run(dir, "anything", {"progress", "ls"}, RUN_MS).out, noState);
  r = kt::run(dir, "kestil", {"progress"}, RUN_MS);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "Usage: progress <file>\n");
}

}  // namespace
