// Confinement of remote paths to the served directory: the simulator works from its root,
// takes every remote path relative to it, and refuses what would lead out of it.
#pragma once

#include <cstdint>
#include <string>

enum class PathVerdict : uint8_t {
  Inside,       // `relative` names a place under the root ("." for the root itself)
  Absolute,     // begins with '/'
  Escapes,      // a ".." component climbs above the root
  LinkEscapes,  // an existing part of the path is a link that leads out of the root
  TooLong,
};

// Lexical check only: normalises "a/./b//c/../d" to "a/b/d"; no file system access.
[[nodiscard]] PathVerdict normaliseRemotePath(const char *remote, std::string *relative);
// The lexical check, then the longest existing prefix of the path, with links resolved
// (relative to the working directory, which is the root), must stay under `rootReal`.
[[nodiscard]] PathVerdict confinePath(const std::string &rootReal, const char *remote, std::string *relative);
const char *pathVerdictText(PathVerdict verdict);
