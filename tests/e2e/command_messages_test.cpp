// What the commands say when they stop before any remote side could answer: the front end's
// usage list and dispatch by program name or first argument, usage lines, refused local files
// and state records, lsread of saved listings, and progress maps of crafted state records.
// Each leaves its directory as it found it.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "client/state_file.hpp"
#include "tests/support/test_support.hpp"

namespace {

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

// A state record for /data/img/a.jpg from 127.0.5.9:3223 with the vector's base, lastBlk and
// count, and ring bytes set (index, bits).
std::string record(uint32_t base, uint32_t lastBlk, uint32_t unique, std::initializer_list<std::pair<int, int>> ring) {
  SavedRXState st;
  std::memset(&st, 0, sizeof st);
  std::memcpy(st.fileNum, "\x01\x02\x03\x04", 4);
  st.src.family = 2;
  std::memcpy(st.src.port, "\x0C\x97", 2);
  std::memcpy(st.src.addr, "\x7F\x00\x05\x09", 4);
  st.rxSet = {base, lastBlk, 0, 141, unique, {}, 0, {}, {}};
  for (auto [index, bits] : ring) st.rxSet.vector[index] = static_cast<uint8_t>(bits);
  std::strcpy(st.filename, "/data/img/a.jpg");
  return std::string(reinterpret_cast<const char *>(&st), sizeof st);
}

struct Case {
  std::map<std::string, std::string> files;  // the run's directory before and after
  std::string argv0;
  std::vector<std::string> args;
  kt::Result shown;
  std::map<std::string, std::string> made = {};  // and what the run adds to it
};

void expectRuns(const std::vector<Case> &cases) {
  for (const Case &c : cases) {
    const std::string dir = kt::makeTempDir();
    for (const auto &[name, content] : c.files) kt::writeFile(dir + "/" + name, content);
    EXPECT_EQ(kt::run(dir, c.argv0, c.args, 20000), c.shown) << c.argv0 << " " << (c.args.empty() ? "" : c.args[0]);
    std::map<std::string, std::string> after;
    for (const std::string &name : kt::namesStartingWith(dir, "")) after[name] = kt::readFile(dir + "/" + name);
    std::map<std::string, std::string> expected = c.files;
    expected.insert(c.made.begin(), c.made.end());
    EXPECT_EQ(after, expected) << c.argv0;
  }
}

TEST(CommandMessages, FrontEndUsageAndDispatch) {
  const kt::Result noState{1, "State file is .ls.kestil_state\nFile name: .ls.kestil_state\n",
                           "state file doesn't exist: No such file or directory\n"};
  const std::string longName(1586, 'n'), longQueued(1495, 'n');
  expectRuns({
      // First-argument dispatch compares the command word only, exactly.
      {{}, "kestil", {}, {0, USAGE, ""}},
      {{}, "/usr/local/bin/kestil", {}, {0, USAGE, ""}},
      {{}, "kestil", {"kestil-put"}, {0, USAGE, ""}},
      {{}, "kestil", {"Progress"}, {0, USAGE, ""}},
      {{}, "kestil-Progress", {}, {0, USAGE, ""}},
      // The program name beats the first argument, which shifts the arguments: the handler
      // sees the command word as its argv[0].
      {{}, "/some/dir/kestil-progress", {"ls"}, noState},
      {{}, "anything", {"progress", "ls"}, noState},
      {{}, "kestil", {"progress"}, {0, "Usage: progress <file>\n", ""}},
      {{}, "kestil", {"put", "-h", "127.0.6.7"}, {0, "put [-L] [-h host] [-o <remote file>] <local file>\n", ""}},
      {{}, "kestil-put", {"-h", "127.0.6.7", "missing.bin"}, {1, "", "missing.bin: No such file or directory\n"}},
      {{}, "dlq-add", {"-h", "127.0.6.69", longQueued}, {255, "File name " + longQueued + " too long\n", ""}},
      {{},
       "dlq-rm",
       {"-p", "1", "f"},
       {0, "qadd [-h host] [-g <group num>] [-p <priority num>] <file>\n", "dlq-rm: invalid option -- 'p'\n"}},
      {{}, "kestil-report", {"-h", "127.0.5.31", "3"}, {0, "", "trailing end result\n"}},  // no limits: nothing asked
      {{}, "kestil-resume", {"x.bin"}, {1, "", "No partial download state found: No such file or directory\n"}},
      {{{".x.bin.kestil_state", std::string(2247, '\0')}},
       "kestil-resume",
       {"x.bin"},
       {1, "", "Bad resume state read: Success\n"}},
      {{{".o.bin.kestil_state", std::string(2249, '\0')}},
       "kestil-get",
       {"-h", "127.0.5.13", "o.bin"},
       {1, "", "State file .o.bin.kestil_state is 2249 bytes, not the 2248 bytes of a state record\n"},
       {{"o.bin", ""}}},
      {{},
       "kestil-get",
       {"-h", "127.0.5.13", "-o", longName, "r"},
       {1, "", "Local file name too long: 1586 characters, at most 1585\n"}},
  });
}

TEST(CommandMessages, LsreadPrintsSavedListingsAndExits255OnAMissingOne) {
  const std::string header = "flags    group    priority size     filename\n";
  const std::map<std::string, std::string> files = {
      {"l", kt::zlibOf(kt::rawRecord("/data/img/a.jpg", 1234, 0, 0, 0) + kt::rawRecord("q", 4000000000u, 3, 250, 31))},
      {"empty", kt::zlibOf("")},
      {"damaged", kt::zlibOf(kt::rawRecord("good", 2, 0, 0, 0) + "\x01")}};
  auto lsread = [&](std::vector<std::string> args, const kt::Result &shown) {
    return Case{files, "kestil-lsread", args, shown};
  };
  expectRuns({
      lsread(
          {"l"},
          {0, header + "0        0        0        1234     /data/img/a.jpg\n1f       3        250      4000000000 q\n",
           ""}),
      lsread({"empty"}, {0, "", ""}),
      lsread({"damaged"},
             {0, header + "0        0        0        2        good\n", ""}),  // what came before the damage
      lsread({"absent"}, {255, "", ""}),
      lsread({"-upload", "m", "empty"}, {255, "", ""}),  // only the first argument is read
      lsread({}, {0, "Usage: lsread [-upload <mission>] <input file>\n", ""}),
  });
}

TEST(CommandMessages, ProgressMapsLinesOf64BlocksFromTheBaseElidesPastTheWindowAndRefusesBadRecords) {
  const std::string head =
      "State file is .x.kestil_state\nRemote file: /data/img/a.jpg\nFile number: 16909060\n"
      "Remote host: 127.0.5.9:3223\nBlock size: 141\n";
  const std::string missing(64, 'O');
  std::string base = missing;
  base[0] = '.';
  std::string elided = head + "Percent complete: 0.0 (0 / 2000)\n";
  for (int line = 0; line < 16; ++line) {
    char label[16];
    std::snprintf(label, sizeof label, "%08d: ", line * 64);
    elided += label + (line == 0 ? base : missing) + "\n";
  }
  elided += "........: " + missing + "\n00001984: " + std::string(16, 'O') + "\n";
  // Window from 64: blocks 66-69 in ring byte 0 (0011 1100), block 130 in byte 8 (0010 0000).
  const std::string map = record(64, 200, 69, {{0, 0x3C}, {8, 0x20}});
  const kt::Result mapShown{0,
                            head +
                                "Percent complete: 34.5 (69 / 200)\nReceived: 0 - 63\n"
                                "00000064: OO....OOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOO\n"
                                "00000128: OO.OOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOO\n"
                                "00000192: OOOOOOOO\n",
                            ""};
  // A 1000-byte file with block 8 received: complete. Its ring index then put outside the ring.
  std::string complete = record(8, 9, 8, {{0, 0x80}}), damaged = complete;
  damaged[20 + 28] = static_cast<char>(128);
  auto progress = [](const std::string &state, const std::string &arg, const kt::Result &shown) {
    return Case{{{".x.kestil_state", state}}, "kestil-progress", {arg}, shown};
  };
  expectRuns({
      progress(map, "x", mapShown),
      progress(map, ".x.kestil_state", mapShown),  // the state file's own name
      progress(record(0, 2000, 0, {{0, 0x80}}), "x", {0, elided, ""}),
      progress(record(0, 0, 0, {}), "x", {0, head + "Percent complete: 0.0 (0 / 0)\n\n", ""}),  // before the metadata
      progress(complete, "x", {1, head + "Download complete!!!\n", ""}),
      progress(complete + "!", "x",
               {1, "State file is .x.kestil_state\nState size mismatch!  Expected 2248 found 2249\n", ""}),
      progress(damaged, "x", {1, head + "State record is damaged: bitmap index 128, base 8\n", ""}),
      progress(damaged, "", {1, "Missing file name\n", ""}),
  });
}

}  // namespace
