// The progress command against crafted state records: header lines, block map, elision of
// blocks past the window, and its refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "client/state_file.hpp"
#include "tests/support/test_support.hpp"

namespace {

std::string record(uint32_t base, uint32_t lastBlk, uint32_t unique, std::initializer_list<std::pair<int, int>> ring) {
  SavedRXState st;
  std::memset(&st, 0, sizeof st);
  std::memcpy(st.fileNum, "\x01\x02\x03\x04", 4);
  st.src.family = 2;
  std::memcpy(st.src.port, "\x0C\x97", 2);  // 3223
  std::memcpy(st.src.addr, "\x7F\x00\x05\x09", 4);
  st.rxSet = {base, lastBlk, 0, 141, unique, {}, 0, {}, {}};
  for (auto [index, bits] : ring) st.rxSet.vector[index] = static_cast<uint8_t>(bits);
  std::strcpy(st.filename, "/data/img/a.jpg");
  return std::string(reinterpret_cast<const char *>(&st), sizeof st);
}

const std::string HEAD =
    "State file is .x.kestil_state\nRemote file: /data/img/a.jpg\nFile number: 16909060\n"
    "Remote host: 127.0.5.9:3223\nBlock size: 141\n";
const std::string MISSING(64, 'O');

}  // namespace

TEST(ProgressCommand, MapsLinesOf64BlocksFromTheBaseElidesPastTheWindowAndRefusesBadRecords) {
  std::string elided = HEAD + "Percent complete: 0.0 (0 / 2000)\n";
  for (int line = 0; line < 16; ++line) {
    char label[16];
    std::snprintf(label, sizeof label, "%08d: ", line * 64);
    elided += label + (line == 0 ? "." + MISSING.substr(1) : MISSING) + "\n";
  }
  elided += "........: " + MISSING + "\n00001984: " + std::string(16, 'O') + "\n";
  // Window from 64: blocks 66-69 in ring byte 0 (0011 1100), block 130 in byte 8 (0010 0000).
  const std::string map = record(64, 200, 69, {{0, 0x3C}, {8, 0x20}});
  const kt::Shown mapShown{0,
                           HEAD +
                               "Percent complete: 34.5 (69 / 200)\nReceived: 0 - 63\n"
                               "00000064: OO....OOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOO\n"
                               "00000128: OO.OOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOOO\n"
                               "00000192: OOOOOOOO\n",
                           ""};
  // A 1000-byte file with block 8 received: complete. Its ring index then put outside the ring.
  std::string complete = record(8, 9, 8, {{0, 0x80}}), damaged = complete;
  damaged[20 + 28] = static_cast<char>(128);
  const struct {
    std::string record, arg;
    kt::Shown shown;
  } cases[] = {
      {map, "x", mapShown},
      {map, ".x.kestil_state", mapShown},  // the state file's own name
      {record(0, 2000, 0, {{0, 0x80}}), "x", {0, elided, ""}},
      {record(0, 0, 0, {}), "x", {0, HEAD + "Percent complete: 0.0 (0 / 0)\n\n", ""}},  // before the metadata
      {complete, "x", {1, HEAD + "Download complete!!!\n", ""}},
      {complete + "!", "x", {1, "State file is .x.kestil_state\nState size mismatch!  Expected 2248 found 2249\n", ""}},
      {damaged, "x", {1, HEAD + "State record is damaged: bitmap index 128, base 8\n", ""}},
      {damaged, "", {1, "Missing file name\n", ""}},
  };
  // A missing record and the usage line: see the front end's tests.
  const std::string dir = kt::makeTempDir();
  for (const auto &c : cases) {
    kt::writeFile(dir + "/.x.kestil_state", c.record);
    EXPECT_EQ(kt::shown(kt::run(dir, "kestil-progress", {c.arg}, 10000)), c.shown) << c.arg;
  }
}
