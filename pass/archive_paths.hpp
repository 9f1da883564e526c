// Where a queue entry lands in the archive: its remote path made relative (a leading "/"
// dropped, "." and empty components skipped), with names that would leave the archive or
// collide with kestil-pass's own files refused.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct ArchivePath {
  std::string dir;   // relative to the archive; "" for the top
  std::string base;  // the file's own name
  std::string rel;   // dir/base, or base at the top
};

enum class NameVerdict : uint8_t {
  Ok,
  DotDot,      // a ".." component would leave the archive
  NoFileName,  // empty, or ends in "/" or "."
  Reserved,    // a state record's name, or kestil-pass's own files at the top
};

[[nodiscard]] NameVerdict mapRemoteName(std::string_view remote, ArchivePath *out);
const char *nameVerdictText(NameVerdict verdict);

// The download's state record beside the file, relative to the archive: "dir/.base.kestil_state".
std::string stateFileOf(const ArchivePath &path);
// The name an earlier version of `rel` is kept under: "rel.~n~".
std::string versionName(const std::string &rel, int n);
// Creates `dir` and its parents under `archive`; false with errno set.
bool makeDirs(const std::string &archive, const std::string &dir);
// `archive` + "/" + `rel`, or `archive` alone for an empty `rel`.
std::string underArchive(const std::string &archive, const std::string &rel);

// kestil-pass's own files at the top of the archive.
constexpr const char *LEDGER_FILE = ".kestil-pass.db";
constexpr const char *LOCK_FILE = ".kestil-pass.lock";
constexpr const char *WORK_DIR = ".kestil-pass.d";
