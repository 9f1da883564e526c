// The local directory scan: one listing record per file (and per directory not descended
// into), appended as the entries are found.
#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "queue/downlink_queue.hpp"
#include "station/station.hpp"

namespace {

constexpr size_t PATH_BUF = 4097;        // at most 4096 characters and the zero byte
constexpr uint32_t UNKNOWN_SIZE = 1024;  // size listed for an entry that stat rejects

bool isHiddenOrSelf(const char *name, int includeHidden) {
  if (name[0] == '\0' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) return true;
  return name[0] == '.' && includeHidden == 0;
}

void addRecord(FileListing *listing, char *path, uint32_t size, uint8_t flags) {
  File entry{};
  entry.name = path;
  entry.size = size;
  entry.flags = flags;
  listing_add_file(listing, &entry);
}

uint32_t sizeOf(const char *path) {
  errno = 0;
  struct stat st {};
  const int rc = stat(path, &st);
  DBG_LOG_ERRNO(4, "stat failed");
  if (rc != 0) return UNKNOWN_SIZE;
  // The record's size field is 32 bits: a file of 4 GiB or more is listed with the largest
  // size it can hold rather than a wrapped one.
  if (static_cast<unsigned long long>(st.st_size) > UINT32_MAX) return UINT32_MAX;
  return static_cast<uint32_t>(st.st_size);
}

// Adds the records of one directory and, when `recurse` is non-zero, of its subdirectories.
void recursive_add_files(FileListing *listing, const char *path, int recurse, int includeHidden) {
  if (listing == nullptr) return;
  errno = 0;
  DIR *dir = opendir(path);
  DBG_LOG_ERRNO(4, "Failed to open dir");
  if (dir == nullptr) return;

  const size_t pathLen = strlen(path);
  const char *format = pathLen > 0 && path[pathLen - 1] == '/' ? "%s%s" : "%s/%s";
  char joined[PATH_BUF];
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(dir);
    DBG_LOG_ERRNO(4, "readdir");
    if (entry == nullptr) break;
    if (isHiddenOrSelf(entry->d_name, includeHidden)) continue;

    const int want = snprintf(joined, sizeof joined, format, path, entry->d_name);
    const bool cut = want < 0 || static_cast<size_t>(want) >= sizeof joined;
    switch (entry->d_type) {
      case DT_REG:
      case DT_LNK: addRecord(listing, joined, sizeOf(joined), 0); break;
      case DT_DIR:
        if (recurse == 0) {
          addRecord(listing, joined, 0, LISTING_FLAG_DIR);
        } else if (cut) {
          // A cut path names some other directory, possibly this one again: descending into
          // it could list the wrong entries or never end.
          DBG_print(4, "path too long to descend: %s\n", joined);
        } else {
          recursive_add_files(listing, joined, recurse, includeHidden);
        }
        break;
      default: break;  // other kinds, and entries whose kind the directory read does not report
    }
  }
  errno = 0;
  closedir(dir);
  DBG_LOG_ERRNO(4, "closedir");
}

}  // namespace

FileListing *listing_from_path(const char *path, int recurse, int includeHidden) {
  errno = 0;
  struct stat st {};
  const int rc = stat(path, &st);
  DBG_LOG_ERRNO(4, "stat failed on initial path");
  if (rc != 0) {
    printf("stat failed on path %s\n", path);
    return nullptr;
  }
  FileListing *listing = listing_init(0);
  if (listing == nullptr) return nullptr;
  recursive_add_files(listing, path, recurse, includeHidden);
  listing_done_adding(listing);
  return listing;
}
