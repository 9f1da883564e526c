// The transfer service: requests are dispatched by client address and port to a send session
// (get, ls, report) or a receive session (put); rm is answered by deleting, with no reply;
// transfers whose client fell silent are dropped.
#include "sim/transfer_service.hpp"

#include <arpa/inet.h>
#include <ftw.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "common/common.hpp"
#include "sim/path_confine.hpp"
#include "sim/receive_session.hpp"
#include "sim/send_session.hpp"

struct TransferSession {
  sockaddr_in peer{};
  uint8_t requestCode = 0;
  std::string requestName;  // as the client sent it; a repeat must match it
  int64_t lastHeardUs = 0;
  std::unique_ptr<SendSession> sender;       // get, ls, report
  std::unique_ptr<ReceiveSession> receiver;  // put
};

namespace {

constexpr int64_t HOUSEKEEPING_US = 1000000;

uint64_t peerKey(const sockaddr_in &a) {
  return static_cast<uint64_t>(ntohl(a.sin_addr.s_addr)) << 16 | ntohs(a.sin_port);
}

std::string peerText(const sockaddr_in &a) {
  char buf[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf);
  return std::string(buf) + ":" + std::to_string(ntohs(a.sin_port));
}

void endSession(TransferService *svc, TransferSession *s, int64_t now, const char *why) {
  traceNote(*svc->trace, now, "%s: transfer of '%s' ends: %s", peerText(s->peer).c_str(), s->requestName.c_str(), why);
  svc->sessions.erase(peerKey(s->peer));
}

// ---- rm ----

int removeEntry(const char *path, const struct stat *, int, struct FTW *) { return remove(path); }

// Removes one named file or tree; the outcome goes to the trace only, as rm has no reply.
void removeOne(TransferService *svc, const char *name, bool recursive, bool force, int64_t now) {
  std::string rel;
  PathVerdict verdict = confinePath(svc->rootReal, name, &rel);
  // The root itself is never removed, whatever the flags.
  if (verdict != PathVerdict::Inside || rel == ".") {
    traceNote(*svc->trace, now, "rm '%s' refused: %s", name, rel == "." ? "the served root" : pathVerdictText(verdict));
    return;
  }
  struct stat st {};
  if (lstat(rel.c_str(), &st) != 0) {
    if (!force) traceNote(*svc->trace, now, "rm '%s': %s", rel.c_str(), std::strerror(errno));
    return;
  }
  int result = 0;
  if (S_ISDIR(st.st_mode)) {
    if (!recursive) {
      traceNote(*svc->trace, now, "rm '%s': a directory, and not recursive", rel.c_str());
      return;
    }
    // Depth first, never following links: a link inside is removed, not its target.
    result = nftw(rel.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
  } else {
    result = unlink(rel.c_str());
  }
  if (result != 0 && !force) {
    traceNote(*svc->trace, now, "rm '%s': %s", rel.c_str(), std::strerror(errno));
  } else if (result == 0) {
    traceNote(*svc->trace, now, "rm '%s': removed", rel.c_str());
  }
}

void handleRm(TransferService *svc, const uint8_t *d, int len, int64_t now) {
  KESTIL_rm rm{};
  if (!decodeRm(d, static_cast<size_t>(len), &rm)) return;
  bool recursive = (rm.flags & KESTIL_RM_FLAG_RECURSIVE) != 0;
  bool force = (rm.flags & KESTIL_RM_FLAG_FORCE) != 0;
  size_t pos = 0;
  for (const char *name = rmNextName(rm, &pos); name != nullptr; name = rmNextName(rm, &pos)) {
    removeOne(svc, name, recursive, force, now);
  }
}

// ---- dispatch ----

// A request's fields: a queue-report request or one of the named requests (get, ls, put).
struct Request {
  uint8_t code = 0;
  KESTIL_get named{};
  KESTIL_qreport report{};
  const char *name = "";
  const uint8_t *ack = nullptr;  // the acknowledgement a get carries behind its name
  int ackLen = 0;
};

bool decodeRequest(const uint8_t *d, int len, Request *req) {
  req->code = d[0];
  if (req->code == KESTIL_QREPORT) return decodeQReport(d, static_cast<size_t>(len), &req->report);
  if (!decodeGetRequest(d, static_cast<size_t>(len), &req->named)) return false;
  req->name = req->named.name;
  size_t ackOffset = 9 + req->named.nameLen;  // right after the name's NUL
  if (req->code == KESTIL_GET && req->named.hasAck && static_cast<size_t>(len) > ackOffset) {
    req->ack = d + ackOffset;
    req->ackLen = len - static_cast<int>(ackOffset);
  }
  return true;
}

// A repeated request continues its transfer.
void continueSession(TransferSession *s, const Request &req, int64_t now) {
  s->lastHeardUs = now;
  if (s->sender) {
    sendOnRepeat(s->sender.get(), req.ack, req.ackLen, now);
  } else {
    receiveOnRepeat(s->receiver.get(), now);
  }
}

// Each start answers whether the session stays: a get answered with an error report, or a
// listing that could not be made, leaves no transfer behind; a refused put stays, to answer
// its repeats.
bool startSession(TransferService *svc, TransferSession *s, const Request &req, int64_t now) {
  switch (req.code) {
    case KESTIL_GET: s->sender = sendStartGet(svc, s->peer, req.named, req.ack, req.ackLen, now); break;
    case KESTIL_LS: s->sender = sendStartListing(svc, s->peer, req.named, now); break;
    case KESTIL_QREPORT: s->sender = sendStartReport(svc, s->peer, req.report, now); break;
    default: s->receiver = receiveStart(svc, s->peer, req.named, now); break;
  }
  return s->sender || s->receiver;
}

void onRequest(TransferService *svc, const uint8_t *d, int len, const sockaddr_in &from, int64_t now) {
  Request req;
  if (!decodeRequest(d, len, &req)) return;
  uint64_t key = peerKey(from);
  auto it = svc->sessions.find(key);
  if (it != svc->sessions.end()) {
    TransferSession *s = it->second.get();
    if (s->requestCode == req.code && s->requestName == req.name) {
      continueSession(s, req, now);
      return;
    }
    endSession(svc, s, now, "replaced by a new request");
  }
  auto owned = std::make_unique<TransferSession>();
  TransferSession *s = owned.get();
  s->peer = from;
  s->requestCode = req.code;
  s->requestName = req.name;
  s->lastHeardUs = now;
  svc->sessions[key] = std::move(owned);
  if (!startSession(svc, s, req, now)) svc->sessions.erase(key);
}

void onSessionDatagram(TransferService *svc, TransferSession *s, const uint8_t *d, int len, const sockaddr_in &from,
                       int64_t now) {
  s->lastHeardUs = now;
  if (s->receiver) {
    receiveOnDatagram(s->receiver.get(), d, len, from, now);
    return;
  }
  if ((d[0] != KESTIL_VECACK && d[0] != KESTIL_VECACK_FINAL) || len <= 4) return;
  switch (sendOnAck(s->sender.get(), d, len, now)) {
    case SendAck::Going: break;
    case SendAck::Stopped: endSession(svc, s, now, "the client stopped (closing acknowledgement)"); break;
    case SendAck::Complete: endSession(svc, s, now, "complete"); break;
  }
}

void housekeeping(TransferService *svc, int64_t now) {
  int64_t limit = static_cast<int64_t>(svc->opts->idleS) * 1000000;
  std::vector<TransferSession *> idle;
  for (auto &[key, s] : svc->sessions) {
    if (now - s->lastHeardUs > limit) idle.push_back(s.get());
  }
  for (TransferSession *s : idle) endSession(svc, s, now, "idle");
  svc->housekeepingTimer = loopAddTimer(svc->loop, now + HOUSEKEEPING_US, [svc](int64_t t) { housekeeping(svc, t); });
}

}  // namespace

TransferService::TransferService() = default;
TransferService::~TransferService() = default;

void serviceSend(TransferService *svc, int64_t now, const uint8_t *d, size_t len, const sockaddr_in &to) {
  esSend(&svc->sock, now, d, static_cast<int>(len), to);
}

void encodeFailure(uint8_t *dst, uint8_t code, SimErrorReason reason, int err, uint8_t requestCode) {
  KESTIL_error e{static_cast<int32_t>(reason), err, requestCode};
  encodeError(dst, KESTIL_ERROR_LEN, e);
  dst[0] = code;  // a put refusal carries the error report's three numbers
}

void sendErrorReport(TransferService *svc, int64_t now, const sockaddr_in &to, SimErrorReason reason, int err,
                     uint8_t requestCode) {
  uint8_t d[KESTIL_ERROR_LEN];
  encodeFailure(d, KESTIL_ERROR, reason, err, requestCode);
  serviceSend(svc, now, d, sizeof d, to);
}

void transferServiceStart(TransferService *svc, const SimOptions *opts, const std::string &rootReal, EventLoop *loop,
                          const Trace *trace, int fd, int64_t nowUs) {
  svc->opts = opts;
  svc->rootReal = rootReal;
  svc->loop = loop;
  svc->trace = trace;
  esStart(&svc->sock, fd, loop, trace, TraceProto::Transfer, opts->link, 1, nowUs,
          [svc](const uint8_t *d, int n, const sockaddr_in &from, int64_t now) {
            transferHandleDatagram(svc, d, n, from, now);
          });
  svc->housekeepingTimer = loopAddTimer(loop, nowUs + HOUSEKEEPING_US, [svc](int64_t t) { housekeeping(svc, t); });
}

void transferServiceStop(TransferService *svc) {
  svc->sessions.clear();
  loopCancelTimer(svc->loop, svc->housekeepingTimer);
  esClose(&svc->sock);
}

void transferHandleDatagram(TransferService *svc, const uint8_t *d, int len, const sockaddr_in &from, int64_t now) {
  if (len < 1) return;
  switch (d[0]) {
    case KESTIL_GET:
    case KESTIL_LS:
    case KESTIL_PUT:
    case KESTIL_QREPORT: onRequest(svc, d, len, from, now); return;
    case KESTIL_RM: handleRm(svc, d, len, now); return;
    default: break;
  }
  auto it = svc->sessions.find(peerKey(from));
  if (it == svc->sessions.end()) return;  // late datagrams of an ended transfer
  onSessionDatagram(svc, it->second.get(), d, len, from, now);
}

size_t transferSessionCount(const TransferService *svc) { return svc->sessions.size(); }
