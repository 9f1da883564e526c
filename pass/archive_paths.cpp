// Remote names to archive paths, and the names kestil-pass derives from them.
#include "pass/archive_paths.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <vector>

namespace {

constexpr std::string_view STATE_SUFFIX = ".kestil_state";
constexpr std::string_view OWN_PREFIX = ".kestil-pass";

std::vector<std::string_view> components(std::string_view path) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string_view::npos) slash = path.size();
    parts.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  return parts;
}

}  // namespace

NameVerdict mapRemoteName(std::string_view remote, ArchivePath *out) {
  std::vector<std::string_view> parts = components(remote);
  // The last component names the file: "a/" and "a/." name none.
  if (parts.empty() || parts.back().empty() || parts.back() == "." || parts.back() == "..")
    return parts.back() == ".." ? NameVerdict::DotDot : NameVerdict::NoFileName;
  std::string rel;
  for (std::string_view part : parts) {
    if (part == "..") return NameVerdict::DotDot;
    if (part.empty() || part == ".") continue;
    if (part.ends_with(STATE_SUFFIX)) return NameVerdict::Reserved;
    if (rel.empty() && part.starts_with(OWN_PREFIX)) return NameVerdict::Reserved;
    if (!rel.empty()) rel += '/';
    rel += part;
  }
  size_t slash = rel.rfind('/');
  out->dir = slash == std::string::npos ? "" : rel.substr(0, slash);
  out->base = slash == std::string::npos ? rel : rel.substr(slash + 1);
  out->rel = rel;
  return NameVerdict::Ok;
}

const char *nameVerdictText(NameVerdict verdict) {
  switch (verdict) {
    case NameVerdict::Ok: return "ok";
    case NameVerdict::DotDot: return "a \"..\" component would leave the archive";
    case NameVerdict::NoFileName: return "no file name";
    case NameVerdict::Reserved: return "a name kestil-pass keeps for its own files";
  }
  return "?";
}

std::string stateFileOf(const ArchivePath &path) {
  std::string name = "." + path.base + std::string(STATE_SUFFIX);
  return path.dir.empty() ? name : path.dir + "/" + name;
}

std::string versionName(const std::string &rel, int n) { return rel + ".~" + std::to_string(n) + "~"; }

std::string underArchive(const std::string &archive, const std::string &rel) {
  return rel.empty() ? archive : archive + "/" + rel;
}

bool makeDirs(const std::string &archive, const std::string &dir) {
  for (size_t at = 0; at <= dir.size() && !dir.empty();) {
    size_t slash = dir.find('/', at);
    if (slash == std::string::npos) slash = dir.size();
    std::string prefix = underArchive(archive, dir.substr(0, slash));
    if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
    at = slash + 1;
  }
  struct stat st {};
  if (stat(underArchive(archive, dir).c_str(), &st) != 0) return false;
  if (S_ISDIR(st.st_mode)) return true;
  errno = ENOTDIR;  // a file of the archive stands where the folder belongs
  return false;
}
