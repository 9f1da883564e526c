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
  for (const auto &[argv0, args] :
       std::vector<std::pair<std::string, std::vector<std::string>>>{{"kestil", {}},
                                                                     {"/usr/local/bin/kestil", {}},
                                                                     {"kestil", {"kestil-put"}},
                                                                     {"kestil", {"Progress"}},
                                                                     {"kestil-Progress", {}}}) {
    EXPECT_EQ(kt::shown(kt::run(dir, argv0, args, RUN_MS)), (kt::Shown{0, USAGE, ""})) << argv0;
  }
}

TEST(Multicall, ProgramNameBeatsTheFirstArgumentWhichShiftsTheArguments) {
  const std::string dir = kt::makeTempDir();
  const kt::Shown noState{1, "State file is .ls.kestil_state\nFile name: .ls.kestil_state\n",
                          "state file doesn't exist: No such file or directory\n"};
  // Under the name kestil-progress, "ls" is the file whose progress is asked for.
  EXPECT_EQ(kt::shown(kt::run(dir, "/some/dir/kestil-progress", {"ls"}, RUN_MS)), noState);
  // By first argument the handler sees the command word as its argv[0].
  EXPECT_EQ(kt::shown(kt::run(dir, "anything", {"progress", "ls"}, RUN_MS)), noState);
  EXPECT_EQ(kt::shown(kt::run(dir, "kestil", {"progress"}, RUN_MS)), (kt::Shown{0, "Usage: progress <file>\n", ""}));
}

}  // namespace
