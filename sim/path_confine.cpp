// Remote path confinement under --root.
#include "sim/path_confine.hpp"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

bool isUnder(const std::string &rootReal, const char *real) {
  size_t n = rootReal.size();
  if (std::strncmp(real, rootReal.c_str(), n) != 0) return false;
  // "/srv/root" holds "/srv/root/x" but not "/srv/rootless"; a root of "/" holds everything.
  return real[n] == '\0' || real[n] == '/' || (n > 0 && rootReal[n - 1] == '/');
}

}  // namespace

PathVerdict normaliseRemotePath(const char *remote, std::string *relative) {
  if (remote == nullptr) remote = "";
  size_t len = std::strlen(remote);
  if (len >= PATH_MAX) return PathVerdict::TooLong;
  if (remote[0] == '/') return PathVerdict::Absolute;
  std::vector<std::string> parts;
  const char *p = remote;
  while (*p != '\0') {
    const char *slash = std::strchr(p, '/');
    size_t n = slash != nullptr ? static_cast<size_t>(slash - p) : std::strlen(p);
    std::string part(p, n);
    if (part == "..") {
      if (parts.empty()) return PathVerdict::Escapes;
      parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(std::move(part));
    }
    p += n;
    if (*p == '/') ++p;
  }
  relative->clear();
  for (const std::string &part : parts) {
    if (!relative->empty()) relative->push_back('/');
    relative->append(part);
  }
  if (relative->empty()) relative->push_back('.');
  return PathVerdict::Inside;
}

PathVerdict confinePath(const std::string &rootReal, const char *remote, std::string *relative) {
  PathVerdict lexical = normaliseRemotePath(remote, relative);
  if (lexical != PathVerdict::Inside) return lexical;
  std::string probe = *relative;
  for (;;) {
    char real[PATH_MAX];
    if (realpath(probe.c_str(), real) != nullptr) {
      return isUnder(rootReal, real) ? PathVerdict::Inside : PathVerdict::LinkEscapes;
    }
    // Not there (yet): what exists of its parents decides.
    size_t slash = probe.rfind('/');
    if (probe == ".") return PathVerdict::Inside;
    probe = slash == std::string::npos ? std::string(".") : probe.substr(0, slash);
  }
}

const char *pathVerdictText(PathVerdict verdict) {
  switch (verdict) {
    case PathVerdict::Inside: return "inside the root";
    case PathVerdict::Absolute: return "absolute path refused";
    case PathVerdict::Escapes: return "path leaves the root";
    case PathVerdict::LinkEscapes: return "link leads out of the root";
    case PathVerdict::TooLong: return "path too long";
  }
  return "?";
}
