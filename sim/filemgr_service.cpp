// File-manager requests against the download queue. Queue entries are named by their path
// under the served root, which is also the working directory the queue looks them up in.
#include "sim/filemgr_service.hpp"

#include <sys/stat.h>

#include <cstring>

#include "queue/downlink_queue.hpp"
#include "sim/path_confine.hpp"

namespace {

struct FindArg {
  const char *name;
  bool found;
};

int findEntry(const char *name, uint8_t, uint8_t, void *arg) {
  auto *f = static_cast<FindArg *>(arg);
  f->found = std::strcmp(name, f->name) == 0;
  return f->found ? 1 : 0;
}

FilemgrResult addOrRemove(const std::string &rootReal, uint8_t cmd, const uint8_t *req, int len) {
  if (len < static_cast<int>(QOP_NAME) + 1 ||
      std::memchr(req + QOP_NAME, '\0', static_cast<size_t>(len) - QOP_NAME) == nullptr)
    return FilemgrResult::Malformed;
  const char *name = reinterpret_cast<const char *>(req + QOP_NAME);
  uint8_t group = req[QOP_GROUP];
  std::string rel;
  if (confinePath(rootReal, name, &rel) != PathVerdict::Inside || rel == ".") return FilemgrResult::PathRefused;
  if (cmd == FILEMGR_RM) {
    FindArg f{rel.c_str(), false};
    iterate_listing_group(group, findEntry, &f);
    if (!f.found) return FilemgrResult::NoSuchEntry;
    dwnq_remove(rel.c_str(), group);
    return FilemgrResult::Ok;
  }
  struct stat st {};
  if (stat(rel.c_str(), &st) != 0) return FilemgrResult::NoSuchEntry;
  if (!S_ISREG(st.st_mode)) return FilemgrResult::NotAFile;
  dwnq_insert(rel.c_str(), group, req[QOP_PRIORITY], req[QOP_FLAGS]);
  return FilemgrResult::Ok;
}

}  // namespace

int filemgrAnswer(const std::string &rootReal, const uint8_t *req, int len, uint8_t *resp, int cap) {
  if (len < 1 || cap < 2) return 0;
  switch (req[0]) {
    case FILEMGR_STATUS: resp[0] = FILEMGR_STATUS_RESP; return 1;
    case FILEMGR_ADD:
    case FILEMGR_RM:
      resp[0] = req[0] == FILEMGR_ADD ? FILEMGR_ADD_RESP : FILEMGR_RM_RESP;
      resp[1] = static_cast<uint8_t>(addOrRemove(rootReal, req[0], req, len));
      return 2;
    default: return 0;
  }
}

void filemgrServiceStart(FileManagerService *svc, const std::string &rootReal, EventLoop *loop, const Trace *trace,
                         const LinkConfig &link, int fd, int64_t nowUs) {
  svc->rootReal = rootReal;
  esStart(&svc->sock, fd, loop, trace, TraceProto::FileManager, link, 2, nowUs,
          [svc](const uint8_t *d, int n, const sockaddr_in &from, int64_t now) {
            uint8_t resp[2];
            int len = filemgrAnswer(svc->rootReal, d, n, resp, sizeof resp);
            if (len > 0) esSend(&svc->sock, now, resp, len, from);
          });
}

void filemgrServiceStop(FileManagerService *svc) { esClose(&svc->sock); }
