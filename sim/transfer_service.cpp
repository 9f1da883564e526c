// The transfer service. A sending session (get, ls, report) paces metadata and blocks out
// through the transmit scheduler and folds in the client's acknowledgements; a receiving
// session (put) stores blocks through the incoming processing into a temporary file and
// acknowledges regularly; rm is answered by deleting, with no reply.
#include "sim/transfer_service.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "common/common.hpp"
#include "common/wire_codec.hpp"
#include "listing/listing.hpp"
#include "queue/downlink_queue.hpp"
#include "sim/path_confine.hpp"

namespace {

constexpr int64_t HOUSEKEEPING_US = 1000000;
// Shortest gap between two sending bursts of one session; bursts carry the credit earned.
constexpr int64_t MIN_PUMP_GAP_US = 100;
// Longest burst, in datagrams: a receiver on this host takes a few hundred small datagrams
// into its socket buffer, so fast paces are sent as many short bursts, not a few long ones.
constexpr int MAX_BURST_DATAGRAMS = 64;
// The transmit routine's datagram reaches the capture socket at once on loopback; this only
// bounds the wait should the host be very busy.
constexpr int CAPTURE_WAIT_MS = 200;

enum class SendKind : uint8_t { File, Listing, Report };
enum class ReceiveState : uint8_t { Receiving, Done, Refused };

// Blocks above the window's base that a sender may have in flight; the window is 1024 blocks.
constexpr uint32_t KESTIL_WINDOW_BLOCKS = 1024;

struct SendStamp {
  uint32_t blk = 0;
  uint64_t count = 0;          // 0: never sent
  uint32_t resentInRound = 0;  // fill round of its last resend; 0 after a first send
  int64_t sentUs = 0;
};

struct ReportedEntry {
  std::string name;
  uint8_t group;
};

}  // namespace

struct TransferSession {
  sockaddr_in peer{};
  uint8_t requestCode = 0;
  std::string requestName;  // as the client sent it; a repeat must match it
  int64_t lastHeardUs = 0;
  bool sending = false;

  // Sending (get, ls, report).
  SendKind sendKind = SendKind::File;
  KESTIL_TXState tx{};
  bool passExhausted = false;  // nothing sendable until the next acknowledgement
  double credit = 0.0;         // in bits of wire, IP/UDP overhead included
  double paceBits = 1.0;       // bits per second the session is paced at
  int64_t lastCreditUs = 0;
  // Retransmission: every send is stamped with a running count, per block of the window, so
  // an acknowledgement that shows a later send arrived shows which earlier ones were lost.
  uint64_t sendCount = 0;
  SendStamp stamps[KESTIL_WINDOW_BLOCKS]{};
  uint32_t nextNew = 0;     // the forward pass: lowest block never sent
  std::set<uint32_t> lost;  // blocks to send again before anything new
  uint32_t fillNext = 0;    // rounds of unacknowledged blocks that fill an idle wire
  uint32_t fillRound = 1;
  uint32_t fillSentInRound = 0;
  uint32_t fillSentSinceAck = 0;
  bool fillSpent = false;           // nothing more to fill with until an acknowledgement
  bool fillSkippedInRound = false;  // the round passed over blocks too young to resend
  int64_t fillWakeUs = 0;           // when the youngest block passed over may be resent; 0: none
  // How long the newest block an acknowledgement reports arrived had been out when the
  // acknowledgement came: the link's round trip plus the time the client's queue held it.
  // The shortest of the recent ones counts: an acknowledgement the client sends on its 2 s
  // timer reports a block that arrived long before, and at high loss most are such.
  int64_t recentAges[8]{};
  uint32_t agesSeen = 0;
  int64_t ackAgeUs = 0;
  uint64_t newestArrived = 0;  // send count of the newest block known to have arrived
  uint32_t acksHeard = 0;      // the client's acknowledgements applied (not the request's)
  uint64_t pumpTimer = 0;
  bool removeOnConfirm = false;
  std::vector<ReportedEntry> reported;

  // Receiving (put).
  ReceiveState rxState = ReceiveState::Receiving;
  BlkRxVector rx{};
  uint32_t fileSize = 0;
  KestilTimespec modTime{};
  int tmpFd = -1;
  std::string tmpPath;
  std::string finalPath;
  uint32_t newSinceAck = 0;
  uint64_t ackTimer = 0;
  uint8_t refusal[KESTIL_ERROR_LEN]{};
};

namespace {

uint64_t peerKey(const sockaddr_in &a) {
  return static_cast<uint64_t>(ntohl(a.sin_addr.s_addr)) << 16 | ntohs(a.sin_port);
}

std::string peerText(const sockaddr_in &a) {
  char buf[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf);
  return std::string(buf) + ":" + std::to_string(ntohs(a.sin_port));
}

void send(TransferService *svc, int64_t now, const uint8_t *d, size_t len, const sockaddr_in &to) {
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
  send(svc, now, d, sizeof d, to);
}

// The transmit routine writes its datagram to a socket; the simulator hands it a private
// loopback socket that it reads straight back, so every datagram still passes the link.
int captureTx(TransferService *svc, KESTIL_TXState *tx, uint8_t *out, int *outLen) {
  // After a wait that ran out, a late datagram may still come in: it belongs to nobody now.
  if (svc->captureStale) {
    while (recv(svc->captureFd, out, KESTIL_MAX_DATAGRAM, MSG_DONTWAIT) >= 0) {}
    svc->captureStale = false;
  }
  int result = tx_func(tx, svc->captureFd, &svc->captureAddr);
  *outLen = 0;
  if (result < 0) return result;
  pollfd p{svc->captureFd, POLLIN, 0};
  ssize_t n = poll(&p, 1, CAPTURE_WAIT_MS) == 1 ? recv(svc->captureFd, out, KESTIL_MAX_DATAGRAM, MSG_DONTWAIT) : -1;
  if (n > 0) {
    *outLen = static_cast<int>(n);
  } else {
    svc->captureStale = true;
  }
  return result;
}

// A data block is built here, its bytes read straight in behind its header, instead of going
// through the transmit routine's socket write and the capture read-back: three system calls
// fewer per block, most of the simulator's cost on loopback. The datagram is the same; the
// metadata (block 0) still comes from the transmit routine.
int buildDataBlock(const KESTIL_TXState &tx, uint32_t blk, uint8_t *out, int *outLen) {
  *outLen = 0;
  int header = encodeDataBlockHeader(out, KESTIL_MAX_DATAGRAM, blk);
  uint64_t offset = static_cast<uint64_t>(tx.blkSize) * (blk - 1);
  uint64_t room = static_cast<uint64_t>(KESTIL_MAX_DATAGRAM - header);
  size_t want = offset >= tx.size
                    ? 0
                    : static_cast<size_t>(std::min({static_cast<uint64_t>(tx.blkSize), tx.size - offset, room}));
  ssize_t n = 0;
  if (want > 0 && tx.fileContents != nullptr) {
    std::memcpy(out + header, tx.fileContents + offset, want);
    n = static_cast<ssize_t>(want);
  } else if (want > 0) {
    n = pread(tx.fd, out + header, want, static_cast<off_t>(offset));
    if (n < 0) return -1;
  }
  *outLen = header + static_cast<int>(n);
  return *outLen;
}

void endSession(TransferService *svc, TransferSession *s, int64_t now, const char *why);

void schedulePump(TransferService *svc, TransferSession *s, int64_t dueUs);

bool acked(const TransferSession *s, uint32_t blk) {
  return blkIsInVector(const_cast<BlkRxVector *>(&s->tx.rxVec), blk) != 0;
}

uint32_t windowEnd(const TransferSession *s) {
  return static_cast<uint32_t>(
      std::min<uint64_t>(static_cast<uint64_t>(s->tx.rxVec.blkNumBase) + KESTIL_WINDOW_BLOCKS, s->tx.rxVec.lastBlk));
}

bool everSent(const TransferSession *s, uint32_t blk) {
  const SendStamp &st = s->stamps[blk % KESTIL_WINDOW_BLOCKS];
  return st.count != 0 && st.blk == blk;
}

// Rounds over what is sent but unacknowledged fill the wire that would otherwise stand idle
// until the client's next acknowledgement (up to 2 s away): at the end of the file, or while a
// lost block at the base holds the window. The client acknowledges after 256 blocks taken in,
// duplicates included, so this many fill datagrams bring several acknowledgements even when
// half the datagrams each way are lost, where waiting would take the client's 2 s timer; then
// the session waits. On a slow link the client's timer answers long before the budget is
// spent. Filling starts once the client has acknowledged anything; a round skips what was
// resent during it.
constexpr uint32_t FILL_PER_ACK = 2048;
// A block is only sent again to fill once it has been out half as long again as the
// acknowledgements' age: a client on a fast link that is simply behind still holds it in its
// socket buffer, and a copy would only lengthen that queue (most of the loopback throughput
// went to such copies). The floor covers the first acknowledgements and jitter.
constexpr int64_t FILL_AGE_FLOOR_US = 5000;

int64_t fillDueUs(const TransferSession *s, uint32_t blk) {
  return s->stamps[blk % KESTIL_WINDOW_BLOCKS].sentUs + s->ackAgeUs + s->ackAgeUs / 2 + FILL_AGE_FLOOR_US;
}

bool fillCandidate(const TransferSession *s, uint32_t blk) {
  const SendStamp &st = s->stamps[blk % KESTIL_WINDOW_BLOCKS];
  return everSent(s, blk) && !acked(s, blk) && st.resentInRound != s->fillRound;
}

// False with `fillWakeUs` set when only blocks too young to resend are left for now.
bool pickFill(TransferSession *s, uint32_t end, int64_t now, uint32_t *blk) {
  s->fillWakeUs = 0;
  for (int attempt = 0; attempt < 2 && s->fillSentSinceAck < FILL_PER_ACK; ++attempt) {
    s->fillNext = std::max(s->fillNext, s->tx.rxVec.blkNumBase);
    for (; s->fillNext < s->nextNew && s->fillNext < end; s->fillNext++) {
      if (!fillCandidate(s, s->fillNext)) continue;
      int64_t due = fillDueUs(s, s->fillNext);
      if (due > now) {
        // Passed over for this round; the next round, due when it has aged, takes it.
        s->fillSkippedInRound = true;
        if (s->fillWakeUs == 0 || due < s->fillWakeUs) s->fillWakeUs = due;
        continue;
      }
      *blk = s->fillNext++;
      s->fillSentInRound++;
      s->fillSentSinceAck++;
      return true;
    }
    // A round that found nothing at all: nothing to fill with.
    if (s->fillSentInRound == 0 && !s->fillSkippedInRound) break;
    s->fillRound++;
    s->fillSentInRound = 0;
    s->fillSkippedInRound = false;
    s->fillNext = s->tx.rxVec.blkNumBase;
    if (s->fillWakeUs != 0) return false;  // the new round starts when its first block is due
  }
  if (s->fillWakeUs == 0) s->fillSpent = true;
  return false;
}

// What goes out next, in this order: blocks known lost, the forward pass, the fill round.
// False when nothing is sendable until an acknowledgement or, with `fillWakeUs` set, until then.
bool pickNext(TransferSession *s, int64_t now, uint32_t *blk, bool *resend) {
  s->fillWakeUs = 0;
  *resend = true;
  while (!s->lost.empty()) {
    uint32_t b = *s->lost.begin();
    s->lost.erase(s->lost.begin());
    if (!acked(s, b) && b < windowEnd(s)) {
      *blk = b;
      s->fillSentInRound++;  // part of the round: the rounds go on with it
      return true;
    }
  }
  uint32_t end = windowEnd(s);
  // The metadata always opens the pass: it is what answers the request, a resume's too.
  while (s->nextNew != 0 && s->nextNew < end && acked(s, s->nextNew)) s->nextNew++;
  if (s->nextNew < end) {
    *blk = s->nextNew++;
    *resend = false;
    return true;
  }
  if (s->fillSpent || s->acksHeard == 0) return false;
  return pickFill(s, end, now, blk);
}

void pump(TransferService *svc, TransferSession *s, int64_t now) {
  s->pumpTimer = 0;
  double fullBits = (static_cast<double>(s->tx.blkSize) + 5 + LINK_IP_UDP_OVERHEAD) * 8;
  if (s->passExhausted) {
    // Credit is not saved across a wait: the pass starts again with one datagram's worth.
    s->lastCreditUs = now;
    s->credit = std::min(std::max(s->credit, 0.0), fullBits);
  }
  double earned = s->paceBits * static_cast<double>(now - s->lastCreditUs) / 1e6;
  s->lastCreditUs = now;
  // A pump that runs late (a busy host) catches up on up to 200 ms of the rate, in bursts.
  double cap = std::max(2.0 * fullBits, s->paceBits * 0.2);
  s->credit = std::min(cap, s->credit + earned);
  uint8_t buf[KESTIL_MAX_DATAGRAM];
  s->passExhausted = false;
  // Each datagram is charged its own size on the wire, so short ones (the metadata, the last
  // block) leave room for more and the link is filled, not overrun.
  for (int burst = 0; s->credit > 0.0 && burst < MAX_BURST_DATAGRAMS; ++burst) {
    uint32_t blk = 0;
    bool resend = false;
    if (!pickNext(s, now, &blk, &resend)) {
      s->passExhausted = true;
      if (s->fillWakeUs != 0) schedulePump(svc, s, s->fillWakeUs);
      break;
    }
    int len = 0;
    s->tx.nextBlkNum = blk;
    int result = blk == 0 ? captureTx(svc, &s->tx, buf, &len) : buildDataBlock(s->tx, blk, buf, &len);
    // A block whose read failed is not charged; it goes back among the lost and the burst
    // ends, so it is tried again at the next one.
    if (result < 0 && blk != 0) {
      s->lost.insert(blk);
      break;
    }
    if (len > 0) send(svc, now, buf, static_cast<size_t>(len), s->peer);
    s->stamps[blk % KESTIL_WINDOW_BLOCKS] = SendStamp{blk, ++s->sendCount, resend ? s->fillRound : 0, now};
    s->credit -= static_cast<double>(std::max(len, 1) + LINK_IP_UDP_OVERHEAD) * 8;
  }
  if (!s->passExhausted) {
    int64_t gap = static_cast<int64_t>(std::max(0.0, -s->credit) * 1e6 / s->paceBits);
    schedulePump(svc, s, now + std::max(gap, MIN_PUMP_GAP_US));
  }
}

void schedulePump(TransferService *svc, TransferSession *s, int64_t dueUs) {
  if (s->pumpTimer != 0) return;
  s->pumpTimer = loopAddTimer(svc->loop, dueUs, [svc, s](int64_t now) { pump(svc, s, now); });
}

void restartPump(TransferService *svc, TransferSession *s, int64_t now) {
  loopCancelTimer(svc->loop, s->pumpTimer);
  s->pumpTimer = 0;
  schedulePump(svc, s, now);
}

// Loss detection after an acknowledgement: a block reported missing although a block sent
// after it is reported received was lost on the way (held-back datagrams make this wrong now
// and then, at the price of one extra copy).
// `from` is the window's base before the acknowledgement: the blocks it slid over arrived too.
void detectLosses(TransferSession *s, uint32_t from, int64_t now) {
  uint32_t base = s->tx.rxVec.blkNumBase;
  uint32_t end = windowEnd(s);
  const SendStamp *newest = nullptr;
  for (uint32_t b = std::min(from, base); b < end; ++b) {
    const SendStamp &st = s->stamps[b % KESTIL_WINDOW_BLOCKS];
    if (acked(s, b) && everSent(s, b) && (newest == nullptr || st.count > newest->count)) newest = &st;
  }
  if (newest == nullptr) return;
  // Only an acknowledgement that reports a newer arrival says how long blocks take to be seen.
  if (newest->count > s->newestArrived) {
    s->newestArrived = newest->count;
    int64_t age = std::max<int64_t>(0, now - newest->sentUs);
    s->recentAges[s->agesSeen++ % std::size(s->recentAges)] = age;
    size_t n = std::min<size_t>(s->agesSeen, std::size(s->recentAges));
    s->ackAgeUs = *std::min_element(s->recentAges, s->recentAges + n);
  }
  for (uint32_t b = base; b < end; ++b) {
    if (!acked(s, b) && everSent(s, b) && s->stamps[b % KESTIL_WINDOW_BLOCKS].count < newest->count) s->lost.insert(b);
  }
}

// After an acknowledgement: losses it reveals go out first, the window may have moved on,
// and the wire may be filled with one more round of unacknowledged blocks.
void resumeAfterAck(TransferService *svc, TransferSession *s, int64_t now, uint32_t baseBefore) {
  detectLosses(s, baseBefore, now);
  s->acksHeard++;
  s->fillSpent = false;
  s->fillRound++;
  s->fillSentInRound = 0;
  s->fillSkippedInRound = false;
  s->fillSentSinceAck = 0;
  s->fillNext = s->tx.rxVec.blkNumBase;
  // A pass waiting for an acknowledgement, or for a block to age, goes on at once.
  if (s->passExhausted) restartPump(svc, s, now);
}

// A request carries its acknowledgement right after the name's NUL.
void applyPiggyBack(TransferSession *s, const uint8_t *d, int len, size_t ackOffset) {
  if (static_cast<size_t>(len) <= ackOffset) return;
  rx_func(&s->tx, d + ackOffset, len - static_cast<int>(ackOffset));
}

std::unique_ptr<TransferSession> newSession(const sockaddr_in &peer, uint8_t code, const char *name, int64_t now) {
  auto s = std::make_unique<TransferSession>();
  s->peer = peer;
  s->requestCode = code;
  s->requestName = name;
  s->lastHeardUs = now;
  return s;
}

// Starts sending the open file `fd` (owned from here on) to the session's client.
void startSending(TransferService *svc, TransferSession *s, int fd, uint16_t blockSize, int64_t now) {
  s->sending = true;
  KESTIL_TXState &tx = s->tx;
  tx.blkSize = blockSize;
  tx.reqId = htonl(KESTIL_REQ_ID);
  tx.fd = fd;
  fstat(fd, &tx.stat);
  tx.size = static_cast<uint32_t>(tx.stat.st_size);
  initBlkRxVector(&tx.rxVec, blockSize);
  setBlkRxVectorFileSize(&tx.rxVec, tx.size);
  cacheFile(&tx);
  s->paceBits = effectivePaceBits(*svc->opts, blockSize);
  s->credit = (static_cast<double>(blockSize) + 5 + LINK_IP_UDP_OVERHEAD) * 8;  // the metadata goes out at once
  s->lastCreditUs = now;
  schedulePump(svc, s, now);
}

void closeSending(TransferService *svc, TransferSession *s) {
  loopCancelTimer(svc->loop, s->pumpTimer);
  s->pumpTimer = 0;
  std::free(s->tx.fileContents);
  s->tx.fileContents = nullptr;
  if (s->tx.fd >= 0) close(s->tx.fd);
  s->tx.fd = -1;
}

void closeReceiving(TransferService *svc, TransferSession *s) {
  loopCancelTimer(svc->loop, s->ackTimer);
  s->ackTimer = 0;
  if (s->tmpFd >= 0) close(s->tmpFd);
  s->tmpFd = -1;
  // An upload that did not complete leaves nothing behind.
  if (!s->tmpPath.empty()) unlink(s->tmpPath.c_str());
  s->tmpPath.clear();
}

void endSession(TransferService *svc, TransferSession *s, int64_t now, const char *why) {
  traceNote(*svc->trace, now, "%s: transfer of '%s' ends: %s", peerText(s->peer).c_str(), s->requestName.c_str(), why);
  if (s->sending) {
    closeSending(svc, s);
  } else {
    closeReceiving(svc, s);
  }
  svc->sessions.erase(peerKey(s->peer));
}

// ---- get, ls, report ----

// A finished listing file is served from an open descriptor; its name is removed at once,
// so nothing is left in the temporary directory whatever becomes of the transfer.
int openAndRemoveListing(FileListing *listing) {
  if (listing == nullptr) return -1;
  const char *name = listing_file_name(listing);
  int fd = open(name, O_RDONLY | O_CLOEXEC);
  unlink(name);
  listing_destroy(listing);
  return fd;
}

// Each start answers whether the session stays: a get answered with an error report, or a
// listing that could not be made, leaves no transfer behind.
bool startGet(TransferService *svc, TransferSession *s, const KESTIL_get &req, const uint8_t *d, int len, int64_t now) {
  std::string rel;
  PathVerdict verdict = confinePath(svc->rootReal, req.name, &rel);
  if (verdict != PathVerdict::Inside) {
    traceNote(*svc->trace, now, "get '%s' refused: %s", req.name, pathVerdictText(verdict));
    sendErrorReport(svc, now, s->peer, SimErrorReason::PathRefused, EACCES, KESTIL_GET);
    return false;
  }
  if (req.blocksize == 0) {
    sendErrorReport(svc, now, s->peer, SimErrorReason::BadRequest, EINVAL, KESTIL_GET);
    return false;
  }
  int fd = open(rel.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    int err = errno;
    traceNote(*svc->trace, now, "get '%s': %s", rel.c_str(), std::strerror(err));
    sendErrorReport(svc, now, s->peer, SimErrorReason::CannotOpen, err, KESTIL_GET);
    return false;
  }
  struct stat st {};
  fstat(fd, &st);
  if (!S_ISREG(st.st_mode) || st.st_size > static_cast<off_t>(UINT32_MAX)) {
    close(fd);
    bool dir = S_ISDIR(st.st_mode);
    sendErrorReport(svc, now, s->peer, S_ISREG(st.st_mode) ? SimErrorReason::TooLarge : SimErrorReason::NotAFile,
                    dir ? EISDIR : (S_ISREG(st.st_mode) ? EFBIG : EINVAL), KESTIL_GET);
    return false;
  }
  startSending(svc, s, fd, req.blocksize, now);
  if (req.hasAck) {
    applyPiggyBack(s, d, len, 9 + req.nameLen);
    // What the request reports is where the first pass starts from, not news that would
    // justify sending the pass again at its end.
    s->tx.lastWrapAckCnt = s->tx.ackCnt;
  }
  traceNote(*svc->trace, now, "get '%s': %u bytes in blocks of %u", rel.c_str(), s->tx.size, req.blocksize);
  return true;
}

bool startListing(TransferService *svc, TransferSession *s, const KESTIL_get &req, int64_t now) {
  std::string rel;
  PathVerdict verdict = confinePath(svc->rootReal, req.name, &rel);
  FileListing *listing = nullptr;
  if (verdict == PathVerdict::Inside) {
    listing = listing_from_path(rel.c_str(), (req.flags & KESTIL_LS_FLAG_R) != 0, (req.flags & KESTIL_LS_FLAG_A) != 0);
  } else {
    traceNote(*svc->trace, now, "ls '%s' refused: %s", req.name, pathVerdictText(verdict));
  }
  // A refused or missing path gets an empty listing: the client ends at once, with nothing to print.
  if (listing == nullptr) {
    listing = listing_init(0);
    listing_done_adding(listing);
  }
  int fd = openAndRemoveListing(listing);
  if (fd < 0) return false;  // nothing to serve: the client gives up on its own
  startSending(svc, s, fd, req.blocksize == 0 ? KESTIL_BLOCK_SIZE : req.blocksize, now);
  traceNote(*svc->trace, now, "ls '%s' (flags %u): listing of %u bytes", rel.c_str(), req.flags, s->tx.size);
  return true;
}

void collectReported(void *param, uint8_t, uint8_t group, uint8_t, uint32_t, const char *filename) {
  static_cast<std::vector<ReportedEntry> *>(param)->push_back({filename, group});
}

bool startReport(TransferService *svc, TransferSession *s, const KESTIL_qreport &req, int64_t now) {
  // The request's limits arrive decoded to plain numbers, as the report builder reads them.
  GroupLimit limits[KESTIL_MAX_GROUP_LIMITS];
  std::copy(req.limits, req.limits + req.num_grps, limits);
  FileListing *listing = dwnq_report(req.num_grps > 0 ? limits : nullptr, req.num_grps);
  if (listing == nullptr) return false;
  s->removeOnConfirm = (req.flags & KESTIL_LS_FLAG_R) != 0;
  if (s->removeOnConfirm) iterate_dirlisting(listing_file_name(listing), collectReported, &s->reported);
  int fd = openAndRemoveListing(listing);
  if (fd < 0) return false;
  startSending(svc, s, fd, req.blocksize == 0 ? KESTIL_BLOCK_SIZE : req.blocksize, now);
  traceNote(*svc->trace, now, "report (%u limits%s): %u bytes", req.num_grps,
            s->removeOnConfirm ? ", remove on confirmation" : "", s->tx.size);
  return true;
}

void onSenderAck(TransferService *svc, TransferSession *s, const uint8_t *d, int len, int64_t now) {
  if (d[0] == KESTIL_VECACK_FINAL) {
    endSession(svc, s, now, "the client stopped (closing acknowledgement)");
    return;
  }
  uint32_t baseBefore = s->tx.rxVec.blkNumBase;
  if (rx_func(&s->tx, d, len) == 1) {
    // The first complete acknowledgement is the client's confirmation.
    if (s->removeOnConfirm) {
      for (const ReportedEntry &e : s->reported) dwnq_remove(e.name.c_str(), e.group);
      traceNote(*svc->trace, now, "report confirmed: %zu entries leave the queue", s->reported.size());
    }
    endSession(svc, s, now, "complete");
    return;
  }
  resumeAfterAck(svc, s, now, baseBefore);
}

// ---- put ----

void sendReceiverAck(TransferService *svc, TransferSession *s, int64_t now) {
  uint8_t d[KESTIL_VECACK_MAX_LEN + 1];
  int n = fill_vecack_packet(d, KESTIL_VECACK_MAX_LEN, &s->rx, 0);
  if (n > 0) send(svc, now, d, static_cast<size_t>(n), s->peer);
  s->newSinceAck = 0;
}

void refusePut(TransferService *svc, TransferSession *s, SimErrorReason reason, int err, int64_t now) {
  encodeFailure(s->refusal, KESTIL_PUT_FAILURE, reason, err, KESTIL_PUT);
  s->rxState = ReceiveState::Refused;
  closeReceiving(svc, s);
  send(svc, now, s->refusal, sizeof s->refusal, s->peer);
}

void scheduleAck(TransferService *svc, TransferSession *s, int64_t now) {
  int64_t due = now + static_cast<int64_t>(svc->opts->ackIntervalMs) * 1000;
  s->ackTimer = loopAddTimer(svc->loop, due, [svc, s](int64_t t) {
    s->ackTimer = 0;
    if (s->rxState != ReceiveState::Receiving) return;
    sendReceiverAck(svc, s, t);
    scheduleAck(svc, s, t);
  });
}

void startPut(TransferService *svc, TransferSession *s, const KESTIL_get &req, int64_t now) {
  s->sending = false;
  initBlkRxVector(&s->rx, req.blocksize);
  std::string rel;
  PathVerdict verdict = confinePath(svc->rootReal, req.name, &rel);
  if (verdict != PathVerdict::Inside || rel == ".") {
    traceNote(*svc->trace, now, "put '%s' refused: %s", req.name, pathVerdictText(verdict));
    refusePut(svc, s, SimErrorReason::PathRefused, EACCES, now);
    return;
  }
  if (req.blocksize == 0) {
    refusePut(svc, s, SimErrorReason::BadRequest, EINVAL, now);
    return;
  }
  struct stat st {};
  if (stat(rel.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    refusePut(svc, s, SimErrorReason::NotAFile, S_ISDIR(st.st_mode) ? EISDIR : EINVAL, now);
    return;
  }
  // The upload grows in a hidden file beside its target and is renamed into place only once
  // its digest matches, so a reader never sees half a file under the real name.
  size_t slash = rel.rfind('/');
  std::string dir = slash == std::string::npos ? "." : rel.substr(0, slash);
  std::string base = slash == std::string::npos ? rel : rel.substr(slash + 1);
  std::string templ = dir + "/." + base + ".kestil-sim-part.XXXXXX";
  std::vector<char> buf(templ.begin(), templ.end());
  buf.push_back('\0');
  int fd = mkstemp(buf.data());
  if (fd < 0) {
    int err = errno;
    traceNote(*svc->trace, now, "put '%s': cannot create: %s", rel.c_str(), std::strerror(err));
    refusePut(svc, s, SimErrorReason::CannotStore, err, now);
    return;
  }
  s->tmpFd = fd;
  s->tmpPath = buf.data();
  s->finalPath = rel;
  traceNote(*svc->trace, now, "put '%s': receiving in blocks of %u", rel.c_str(), req.blocksize);
  sendReceiverAck(svc, s, now);
  scheduleAck(svc, s, now);
}

void finishPut(TransferService *svc, TransferSession *s, int64_t now) {
  uint8_t digest[16];
  md5_fd(s->tmpFd, digest);
  if (std::memcmp(digest, s->rx.md5, sizeof digest) != 0) {
    traceNote(*svc->trace, now, "put '%s': digest mismatch", s->finalPath.c_str());
    refusePut(svc, s, SimErrorReason::DigestMismatch, 0, now);
    return;
  }
  timespec times[2];
  times[0].tv_sec = s->modTime.tv_sec;
  times[0].tv_nsec = s->modTime.tv_nsec >= 0 && s->modTime.tv_nsec < 1000000000 ? s->modTime.tv_nsec : 0;
  times[1] = times[0];
  bool ok = ftruncate(s->tmpFd, static_cast<off_t>(s->fileSize)) == 0 && fchmod(s->tmpFd, 0644) == 0 &&
            futimens(s->tmpFd, times) == 0 && rename(s->tmpPath.c_str(), s->finalPath.c_str()) == 0;
  if (!ok) {
    int err = errno;
    traceNote(*svc->trace, now, "put '%s': cannot store: %s", s->finalPath.c_str(), std::strerror(err));
    refusePut(svc, s, SimErrorReason::CannotStore, err, now);
    return;
  }
  s->tmpPath.clear();  // moved into place: nothing to remove any more
  close(s->tmpFd);
  s->tmpFd = -1;
  loopCancelTimer(svc->loop, s->ackTimer);
  s->ackTimer = 0;
  s->rxState = ReceiveState::Done;
  traceNote(*svc->trace, now, "put '%s': stored %u bytes", s->finalPath.c_str(), s->fileSize);
  sendReceiverAck(svc, s, now);
}

// Every datagram of a finished upload is answered with its outcome, so a client that lost
// the completing acknowledgement still hears it.
void answerFinishedPut(TransferService *svc, TransferSession *s, int64_t now) {
  if (s->rxState == ReceiveState::Done) {
    sendReceiverAck(svc, s, now);
  } else {
    send(svc, now, s->refusal, sizeof s->refusal, s->peer);
  }
}

void onPutDatagram(TransferService *svc, TransferSession *s, const uint8_t *d, int len, const sockaddr_in &from,
                   int64_t now) {
  if (s->rxState != ReceiveState::Receiving) {
    answerFinishedPut(svc, s, now);
    return;
  }
  // Block 0 is the metadata: a data datagram numbered 0 would be stored at the wrapped offset
  // of block 0 - 1, near 4 GiB, and the digest of the upload would then read all of it.
  KestilDataBlock blk{};
  if (decodeDataBlock(d, static_cast<size_t>(len), &blk) && blk.blkNum == 0) return;
  uint32_t before = s->rx.uniqueBlkCnt;
  // Before the metadata the size is unknown: blocks are bounded by the vector alone.
  uint32_t bound = s->rx.lastBlk != 0 ? s->fileSize : UINT32_MAX;
  if (processData(d, len, s->tmpFd, bound, &s->rx, 0) == 0) {
    uint32_t size = 0;
    KestilTimespec mod{};
    if (processMetadata(d, len, &s->peer, &from, &size, KESTIL_REQ_ID, &mod, s->rx.md5) == 0) return;
    s->fileSize = size;
    if (s->rx.lastBlk == 0) {
      setBlkRxVectorFileSize(&s->rx, size);
      addBlkToVector(&s->rx, 0);
      s->rx.modTime = mod;
      s->modTime = mod;
      s->newSinceAck++;
    }
  } else if (s->rx.uniqueBlkCnt != before) {
    s->newSinceAck++;
  }
  if (vectorIsFinished(&s->rx)) {
    finishPut(svc, s, now);
  } else if (s->newSinceAck >= svc->opts->ackBlocks) {
    sendReceiverAck(svc, s, now);
  }
}

// ---- rm ----

int removeEntry(const char *path, const struct stat *, int, struct FTW *) { return remove(path); }

void handleRm(TransferService *svc, const uint8_t *d, int len, int64_t now) {
  KESTIL_rm rm{};
  if (!decodeRm(d, static_cast<size_t>(len), &rm)) return;
  bool recursive = (rm.flags & KESTIL_RM_FLAG_RECURSIVE) != 0;
  bool force = (rm.flags & KESTIL_RM_FLAG_FORCE) != 0;
  size_t pos = 0;
  for (const char *name = rmNextName(rm, &pos); name != nullptr; name = rmNextName(rm, &pos)) {
    std::string rel;
    PathVerdict verdict = confinePath(svc->rootReal, name, &rel);
    // The root itself is never removed, whatever the flags.
    if (verdict != PathVerdict::Inside || rel == ".") {
      traceNote(*svc->trace, now, "rm '%s' refused: %s", name,
                rel == "." ? "the served root" : pathVerdictText(verdict));
      continue;
    }
    struct stat st {};
    if (lstat(rel.c_str(), &st) != 0) {
      if (!force) traceNote(*svc->trace, now, "rm '%s': %s", rel.c_str(), std::strerror(errno));
      continue;
    }
    int result = 0;
    if (S_ISDIR(st.st_mode)) {
      if (!recursive) {
        traceNote(*svc->trace, now, "rm '%s': a directory, and not recursive", rel.c_str());
        continue;
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
}

// ---- dispatch ----

void onRequest(TransferService *svc, const uint8_t *d, int len, const sockaddr_in &from, int64_t now) {
  uint8_t code = d[0];
  KESTIL_get req{};
  KESTIL_qreport qreq{};
  const char *name = "";
  if (code == KESTIL_QREPORT) {
    if (!decodeQReport(d, static_cast<size_t>(len), &qreq)) return;
  } else {
    if (!decodeGetRequest(d, static_cast<size_t>(len), &req)) return;
    name = req.name;
  }
  uint64_t key = peerKey(from);
  auto it = svc->sessions.find(key);
  if (it != svc->sessions.end()) {
    TransferSession *s = it->second.get();
    if (s->requestCode == code && s->requestName == name) {
      // A repeated request continues its transfer.
      s->lastHeardUs = now;
      if (!s->sending) {
        if (s->rxState == ReceiveState::Receiving) {
          sendReceiverAck(svc, s, now);
        } else {
          answerFinishedPut(svc, s, now);
        }
        return;
      }
      uint32_t baseBefore = s->tx.rxVec.blkNumBase;
      if (code == KESTIL_GET && req.hasAck) applyPiggyBack(s, d, len, 9 + req.nameLen);
      // The client repeats its request while it lacks the metadata: start the pass over.
      if (!blkIsInVector(&s->tx.rxVec, 0)) {
        s->nextNew = 0;
        s->lost.clear();
        std::fill(std::begin(s->stamps), std::end(s->stamps), SendStamp{});
        s->fillSpent = false;
        s->newestArrived = 0;
        restartPump(svc, s, now);
      } else {
        resumeAfterAck(svc, s, now, baseBefore);
      }
      return;
    }
    endSession(svc, s, now, "replaced by a new request");
  }
  auto owned = newSession(from, code, name, now);
  TransferSession *s = owned.get();
  svc->sessions[key] = std::move(owned);
  bool keep = true;  // a refused put stays, to answer its repeats
  switch (code) {
    case KESTIL_GET: keep = startGet(svc, s, req, d, len, now); break;
    case KESTIL_LS: keep = startListing(svc, s, req, now); break;
    case KESTIL_QREPORT: keep = startReport(svc, s, qreq, now); break;
    default: startPut(svc, s, req, now); break;
  }
  if (!keep) svc->sessions.erase(key);
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

bool transferServiceStart(TransferService *svc, const SimOptions *opts, const std::string &rootReal, EventLoop *loop,
                          const Trace *trace, int fd, int64_t nowUs) {
  svc->opts = opts;
  svc->rootReal = rootReal;
  svc->loop = loop;
  svc->trace = trace;
  sockaddr_in capture{};
  capture.sin_family = AF_INET;
  capture.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  svc->captureFd = openUdpSocket(capture);
  if (svc->captureFd < 0) return false;
  socklen_t len = sizeof svc->captureAddr;
  getsockname(svc->captureFd, reinterpret_cast<sockaddr *>(&svc->captureAddr), &len);
  esStart(&svc->sock, fd, loop, trace, TraceProto::Transfer, opts->link, 1, nowUs,
          [svc](const uint8_t *d, int n, const sockaddr_in &from, int64_t now) {
            transferHandleDatagram(svc, d, n, from, now);
          });
  svc->housekeepingTimer = loopAddTimer(loop, nowUs + HOUSEKEEPING_US, [svc](int64_t t) { housekeeping(svc, t); });
  return true;
}

void transferServiceStop(TransferService *svc) {
  while (!svc->sessions.empty()) {
    TransferSession *s = svc->sessions.begin()->second.get();
    if (s->sending) {
      closeSending(svc, s);
    } else {
      closeReceiving(svc, s);
    }
    svc->sessions.erase(svc->sessions.begin());
  }
  loopCancelTimer(svc->loop, svc->housekeepingTimer);
  esClose(&svc->sock);
  if (svc->captureFd >= 0) close(svc->captureFd);
  svc->captureFd = -1;
}

void transferHandleDatagram(TransferService *svc, const uint8_t *d, int len, const sockaddr_in &from, int64_t now) {
  if (len < 1) return;
  uint8_t code = d[0];
  switch (code) {
    case KESTIL_GET:
    case KESTIL_LS:
    case KESTIL_PUT:
    case KESTIL_QREPORT: onRequest(svc, d, len, from, now); return;
    case KESTIL_RM: handleRm(svc, d, len, now); return;
    default: break;
  }
  auto it = svc->sessions.find(peerKey(from));
  if (it == svc->sessions.end()) return;  // late datagrams of an ended transfer
  TransferSession *s = it->second.get();
  s->lastHeardUs = now;
  if (s->sending) {
    if ((code == KESTIL_VECACK || code == KESTIL_VECACK_FINAL) && len > 4) onSenderAck(svc, s, d, len, now);
  } else if (code >= KESTIL_METADATA && code <= KESTIL_DATA4) {
    onPutDatagram(svc, s, d, len, from, now);
  } else if (s->rxState != ReceiveState::Receiving) {
    answerFinishedPut(svc, s, now);
  }
}

size_t transferSessionCount(const TransferService *svc) { return svc->sessions.size(); }
