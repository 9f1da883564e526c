// The receive session of an upload: what arrives is stored through the incoming processing,
// acknowledged regularly, and checked against the metadata's digest before it takes its name.
#include "sim/receive_session.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/common.hpp"
#include "sim/path_confine.hpp"
#include "sim/transfer_service.hpp"

namespace {

void sendAck(ReceiveSession *r, int64_t now, int abort) {
  uint8_t d[KESTIL_VECACK_MAX_LEN + 1];
  int n = fill_vecack_packet(d, KESTIL_VECACK_MAX_LEN, &r->rx, abort);
  if (n > 0) serviceSend(r->svc, now, d, static_cast<size_t>(n), r->peer);
  r->newSinceAck = 0;
}

void stopAcking(ReceiveSession *r) {
  loopCancelTimer(r->svc->loop, r->ackTimer);
  r->ackTimer = 0;
}

void closeTemporary(ReceiveSession *r) {
  if (r->tmpFd >= 0) close(r->tmpFd);
  r->tmpFd = -1;
  // An upload that did not complete leaves nothing behind.
  if (!r->tmpPath.empty()) unlink(r->tmpPath.c_str());
  r->tmpPath.clear();
}

void refuse(ReceiveSession *r, SimErrorReason reason, int err, int64_t now) {
  encodeFailure(r->refusal, KESTIL_PUT_FAILURE, reason, err, KESTIL_PUT);
  r->state = ReceiveState::Refused;
  stopAcking(r);
  closeTemporary(r);
  serviceSend(r->svc, now, r->refusal, sizeof r->refusal, r->peer);
}

void scheduleAck(ReceiveSession *r, int64_t now) {
  int64_t due = now + static_cast<int64_t>(r->svc->opts->ackIntervalMs) * 1000;
  r->ackTimer = loopAddTimer(r->svc->loop, due, [r](int64_t t) {
    r->ackTimer = 0;
    if (r->state != ReceiveState::Receiving) return;
    sendAck(r, t, 0);
    scheduleAck(r, t);
  });
}

// The upload grows in a hidden file beside its target and is renamed into place only once its
// digest matches, so a reader never sees half a file under the real name. False with errno
// when the file cannot be made.
bool createTemporary(ReceiveSession *r, const std::string &rel) {
  size_t slash = rel.rfind('/');
  std::string dir = slash == std::string::npos ? "." : rel.substr(0, slash);
  std::string base = slash == std::string::npos ? rel : rel.substr(slash + 1);
  std::string templ = dir + "/." + base + ".kestil-sim-part.XXXXXX";
  std::vector<char> buf(templ.begin(), templ.end());
  buf.push_back('\0');
  int fd = mkstemp(buf.data());
  if (fd < 0) return false;
  r->tmpFd = fd;
  r->tmpPath = buf.data();
  r->finalPath = rel;
  return true;
}

void finish(ReceiveSession *r, int64_t now) {
  const Trace &trace = *r->svc->trace;
  uint8_t digest[16];
  md5_fd(r->tmpFd, digest);
  if (std::memcmp(digest, r->rx.md5, sizeof digest) != 0) {
    traceNote(trace, now, "put '%s': digest mismatch", r->finalPath.c_str());
    refuse(r, SimErrorReason::DigestMismatch, 0, now);
    return;
  }
  timespec times[2];
  times[0].tv_sec = r->modTime.tv_sec;
  times[0].tv_nsec = r->modTime.tv_nsec >= 0 && r->modTime.tv_nsec < 1000000000 ? r->modTime.tv_nsec : 0;
  times[1] = times[0];
  bool ok = ftruncate(r->tmpFd, static_cast<off_t>(r->fileSize)) == 0 && fchmod(r->tmpFd, 0644) == 0 &&
            futimens(r->tmpFd, times) == 0 && rename(r->tmpPath.c_str(), r->finalPath.c_str()) == 0;
  if (!ok) {
    int err = errno;
    traceNote(trace, now, "put '%s': cannot store: %s", r->finalPath.c_str(), std::strerror(err));
    refuse(r, SimErrorReason::CannotStore, err, now);
    return;
  }
  r->tmpPath.clear();  // moved into place: nothing to remove any more
  closeTemporary(r);
  stopAcking(r);
  r->state = ReceiveState::Done;
  traceNote(trace, now, "put '%s': stored %u bytes", r->finalPath.c_str(), r->fileSize);
  sendAck(r, now, 0);
}

// Every later datagram of a finished upload is answered with its outcome, so a client that
// lost the completing acknowledgement still hears it. A stored upload answers with the
// closing form (code 14), which ends the client's upload whatever it last sent: a client
// whose only block is the metadata resends it on every idle tick and would take a plain
// acknowledgement for the answer to its request.
void answerFinished(ReceiveSession *r, int64_t now) {
  if (r->state == ReceiveState::Done) {
    sendAck(r, now, 1);
  } else {
    serviceSend(r->svc, now, r->refusal, sizeof r->refusal, r->peer);
  }
}

// Metadata or a data block of the upload.
void store(ReceiveSession *r, const uint8_t *d, int len, const sockaddr_in &from, int64_t now) {
  // Block 0 is the metadata: a data datagram numbered 0 would be stored at the wrapped offset
  // of block 0 - 1, near 4 GiB, and the digest of the upload would then read all of it.
  KestilDataBlock blk{};
  if (decodeDataBlock(d, static_cast<size_t>(len), &blk) && blk.blkNum == 0) return;
  uint32_t before = r->rx.uniqueBlkCnt;
  // Before the metadata the size is unknown: blocks are bounded by the vector alone.
  uint32_t bound = r->rx.lastBlk != 0 ? r->fileSize : UINT32_MAX;
  if (processData(d, len, r->tmpFd, bound, &r->rx, 0) == 0) {
    uint32_t size = 0;
    KestilTimespec mod{};
    if (processMetadata(d, len, &r->peer, &from, &size, KESTIL_REQ_ID, &mod, r->rx.md5) == 0) return;
    r->fileSize = size;
    if (r->rx.lastBlk == 0) {
      setBlkRxVectorFileSize(&r->rx, size);
      addBlkToVector(&r->rx, 0);
      r->rx.modTime = mod;
      r->modTime = mod;
      r->newSinceAck++;
    }
  } else if (r->rx.uniqueBlkCnt != before) {
    r->newSinceAck++;
  }
  if (vectorIsFinished(&r->rx)) {
    finish(r, now);
  } else if (r->newSinceAck >= r->svc->opts->ackBlocks) {
    sendAck(r, now, 0);
  }
}

}  // namespace

ReceiveSession::~ReceiveSession() {
  if (svc != nullptr) stopAcking(this);
  closeTemporary(this);
}

std::unique_ptr<ReceiveSession> receiveStart(TransferService *svc, const sockaddr_in &peer, const KESTIL_get &req,
                                             int64_t now) {
  auto r = std::make_unique<ReceiveSession>();
  r->svc = svc;
  r->peer = peer;
  initBlkRxVector(&r->rx, req.blocksize);
  std::string rel;
  PathVerdict verdict = confinePath(svc->rootReal, req.name, &rel);
  struct stat st {};
  if (verdict != PathVerdict::Inside || rel == ".") {
    traceNote(*svc->trace, now, "put '%s' refused: %s", req.name, pathVerdictText(verdict));
    refuse(r.get(), SimErrorReason::PathRefused, EACCES, now);
  } else if (req.blocksize == 0) {
    refuse(r.get(), SimErrorReason::BadRequest, EINVAL, now);
  } else if (stat(rel.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    refuse(r.get(), SimErrorReason::NotAFile, S_ISDIR(st.st_mode) ? EISDIR : EINVAL, now);
  } else if (!createTemporary(r.get(), rel)) {
    int err = errno;
    traceNote(*svc->trace, now, "put '%s': cannot create: %s", rel.c_str(), std::strerror(err));
    refuse(r.get(), SimErrorReason::CannotStore, err, now);
  } else {
    traceNote(*svc->trace, now, "put '%s': receiving in blocks of %u", rel.c_str(), req.blocksize);
    sendAck(r.get(), now, 0);
    scheduleAck(r.get(), now);
  }
  return r;
}

void receiveOnRepeat(ReceiveSession *r, int64_t now) {
  if (r->state == ReceiveState::Receiving) {
    sendAck(r, now, 0);
  } else {
    answerFinished(r, now);
  }
}

void receiveOnDatagram(ReceiveSession *r, const uint8_t *d, int len, const sockaddr_in &from, int64_t now) {
  if (r->state != ReceiveState::Receiving) {
    answerFinished(r, now);
  } else if (d[0] >= KESTIL_METADATA && d[0] <= KESTIL_DATA4) {
    store(r, d, len, from, now);
  }
}
