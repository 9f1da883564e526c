// The send session: pacing in bits of wire, loss detection from the order of sends that the
// acknowledgements reveal, and rounds of unacknowledged blocks that fill an idle wire.
#include "sim/send_session.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "common/common.hpp"
#include "listing/listing.hpp"
#include "queue/downlink_queue.hpp"
#include "sim/path_confine.hpp"
#include "sim/transfer_service.hpp"

namespace {

// Shortest gap between two sending bursts of one session; bursts carry the credit earned.
constexpr int64_t MIN_PUMP_GAP_US = 100;
// Longest burst, in datagrams: a receiver on this host takes a few hundred small datagrams
// into its socket buffer, so fast paces are sent as many short bursts, not a few long ones.
constexpr int MAX_BURST_DATAGRAMS = 64;

void schedulePump(SendSession *s, int64_t dueUs);
void armSilence(SendSession *s, int64_t now);

bool acked(const SendSession *s, uint32_t blk) {
  return blkIsInVector(const_cast<BlkRxVector *>(&s->tx.rxVec), blk) != 0;
}

uint32_t windowEnd(const SendSession *s) {
  return static_cast<uint32_t>(
      std::min<uint64_t>(static_cast<uint64_t>(s->tx.rxVec.blkNumBase) + BLK_RX_WINDOW, s->tx.rxVec.lastBlk));
}

const SendStamp &stampOf(const SendSession *s, uint32_t blk) { return s->stamps[blk % BLK_RX_WINDOW]; }

bool everSent(const SendSession *s, uint32_t blk) {
  const SendStamp &st = stampOf(s, blk);
  return st.count != 0 && st.blk == blk;
}

// Rounds over what is sent but unacknowledged fill the wire that would otherwise stand idle
// until the client's next acknowledgement (up to 2 s away): at the end of the file, or while a
// lost block at the base holds the window. They are held to a budget of datagrams sent since
// the newest arrival the client reported, counted from what its acknowledgements say, never
// from the clock. The client acknowledges after taking in this many datagrams, copies
// included: when that many have gone out since the newest arrival it reported, its next
// acknowledgement is on the way whether or not it is behind, and a copy would only lengthen
// its queue.
constexpr uint32_t CLIENT_ACK_DATAGRAMS = 256;
constexpr uint32_t FILL_ALLOWANCE = 2048;
constexpr double HEAVY_LOSS = 0.1;
// And at least this often, whatever it takes in.
constexpr int64_t CLIENT_ACK_CLOCK_US = 2000000;
// The budget covers as many of those acknowledgements as it takes for at least one to cross
// a link that loses as much as the sends do, short of this chance of losing them all (one up
// to 5% loss); a loss beyond that costs a silence of a few acknowledgement gaps, not the
// client's 2 s clock.
constexpr double ACK_MISS_CHANCE = 0.05;
constexpr double MAX_ACKS_AHEAD = 8;
// A silence this many usual gaps long, the first time, says the acknowledgement was lost; a
// client silent this many times over is gone or far behind.
constexpr int64_t SILENCE_GAPS = 3;
constexpr uint32_t MAX_SILENCES = 5;
// The loss estimate weighs about this many recent first sends.
constexpr double LOSS_MEMORY_SENDS = 4096;

double lossShare(const SendSession *s) {
  if (s->sendsSettled <= 0.0) return 0.0;
  return std::min(0.9, s->sendsLost / s->sendsSettled);
}

// The sends it takes for the client to take in what it acknowledges after.
uint64_t ackWorth(const SendSession *s) { return static_cast<uint64_t>(CLIENT_ACK_DATAGRAMS / (1.0 - lossShare(s))); }

uint64_t fillBudget(const SendSession *s) {
  double loss = lossShare(s);
  // Fractional, so that a loss estimate wavering around a link's true loss moves the budget
  // a little, not by a whole acknowledgement's worth.
  double acks = loss > 0.0 ? std::clamp(std::log(ACK_MISS_CHANCE) / std::log(loss), 1.0, MAX_ACKS_AHEAD) : 1.0;
  return static_cast<uint64_t>(acks * CLIENT_ACK_DATAGRAMS / (1.0 - loss));
}

bool fillCandidate(const SendSession *s, uint32_t blk) {
  return everSent(s, blk) && !acked(s, blk) && stampOf(s, blk).resentInRound != s->fillRound;
}

void startFillRound(SendSession *s) {
  s->fillRound++;
  s->fillSentInRound = 0;
  s->fillNext = s->tx.rxVec.blkNumBase;
}

// The fill budget with what the client's silences added to it.
uint64_t fillLimit(const SendSession *s) { return fillBudget(s) + s->fillExtra; }

bool budgetSpent(const SendSession *s) {
  return s->sendCount - s->fillFrom >= fillLimit(s) && s->fillSentSinceAck >= s->fillAllowance;
}

bool pickFill(SendSession *s, uint32_t end, uint32_t *blk) {
  if (budgetSpent(s)) return false;
  for (int attempt = 0; attempt < 2; ++attempt) {
    s->fillNext = std::max(s->fillNext, s->tx.rxVec.blkNumBase);
    for (; s->fillNext < s->nextNew && s->fillNext < end; s->fillNext++) {
      if (!fillCandidate(s, s->fillNext)) continue;
      *blk = s->fillNext++;
      s->fillSentInRound++;
      s->fillSentSinceAck++;
      return true;
    }
    // A round that found nothing at all: nothing to fill with until an acknowledgement.
    if (s->fillSentInRound == 0) return false;
    startFillRound(s);
  }
  return false;
}

enum class Pick : uint8_t { New, Lost, Fill };

// What goes out next, in this order: blocks known lost, the forward pass, the fill round.
// False when nothing is sendable until an acknowledgement.
bool pickNext(SendSession *s, uint32_t *blk, Pick *kind) {
  *kind = Pick::Lost;
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
    *kind = Pick::New;
    return true;
  }
  *kind = Pick::Fill;
  if (s->acksHeard == 0) return false;
  return pickFill(s, end, blk);
}

double fullBlockBits(const SendSession *s) {
  return (static_cast<double>(s->tx.blkSize) + 5 + LINK_IP_UDP_OVERHEAD) * 8;
}

void earnCredit(SendSession *s, int64_t now) {
  if (s->passExhausted) {
    // Credit is not saved across a wait: the pass starts again with one datagram's worth.
    s->lastCreditUs = now;
    s->credit = std::min(std::max(s->credit, 0.0), fullBlockBits(s));
  }
  double earned = s->paceBits * static_cast<double>(now - s->lastCreditUs) / 1e6;
  s->lastCreditUs = now;
  // A pump that runs late (a busy host) catches up on up to 200 ms of the rate, in bursts.
  double cap = std::max(2.0 * fullBlockBits(s), s->paceBits * 0.2);
  s->credit = std::min(cap, s->credit + earned);
}

// Block `blk` into `buf`: its length, or the negative result of a failed read.
int buildBlock(const SendSession *s, uint32_t blk, uint8_t *buf) {
  if (blk != 0) {
    int len = tx_build(&s->tx, blk, buf);
    // A file rewritten after its digest was taken: the last byte of each block, always data, differs.
    if (s->changedAfterDigest && len > 0) buf[len - 1] ^= 0xFF;
    return len;
  }
  std::memcpy(buf, s->meta, sizeof s->meta);
  return static_cast<int>(sizeof s->meta);
}

void pump(SendSession *s, int64_t now) {
  s->pumpTimer = 0;
  earnCredit(s, now);
  uint8_t buf[KESTIL_MAX_DATAGRAM];
  s->passExhausted = false;
  // Each datagram is charged its own size on the wire, so short ones (the metadata, the last
  // block) leave room for more and the link is filled, not overrun.
  for (int burst = 0; s->credit > 0.0 && burst < MAX_BURST_DATAGRAMS; ++burst) {
    uint32_t blk = 0;
    Pick kind = Pick::New;
    if (!pickNext(s, &blk, &kind)) {
      s->passExhausted = true;
      break;
    }
    int len = buildBlock(s, blk, buf);
    // A block whose read failed is not charged; it goes back among the lost and the burst
    // ends, so it is tried again at the next one.
    if (len < 0) {
      s->lost.insert(blk);
      break;
    }
    serviceSend(s->svc, now, buf, static_cast<size_t>(len), s->peer);
    s->dataSent++;
    uint64_t count = ++s->sendCount;
    s->sentFirst[count % SEND_LOG] = kind == Pick::New ? blk + 1 : 0;
    SendStamp &st = s->stamps[blk % BLK_RX_WINDOW];
    bool copy = kind == Pick::Fill && st.blk == blk && st.count != 0;
    st = SendStamp{blk, count, kind == Pick::New ? 0 : s->fillRound, copy ? st.proof : count};
    s->credit -= static_cast<double>(len + LINK_IP_UDP_OVERHEAD) * 8;
  }
  if (s->passExhausted && s->acksHeard != 0 && budgetSpent(s)) armSilence(s, now);
  if (!s->passExhausted) {
    int64_t gap = static_cast<int64_t>(std::max(0.0, -s->credit) * 1e6 / s->paceBits);
    schedulePump(s, now + std::max(gap, MIN_PUMP_GAP_US));
  }
}

void schedulePump(SendSession *s, int64_t dueUs) {
  if (s->pumpTimer != 0) return;
  s->pumpTimer = loopAddTimer(s->svc->loop, dueUs, [s](int64_t now) { pump(s, now); });
}

void restartPump(SendSession *s, int64_t now) {
  loopCancelTimer(s->svc->loop, s->pumpTimer);
  s->pumpTimer = 0;
  schedulePump(s, now);
}

// The budget is spent, so the client's next acknowledgement should come within about one of
// its usual gaps. Silence for SILENCE_GAPS of them says that it was lost, or the datagrams that
// would have brought it: what has gone out and one more budget may go, and each further
// silence waits twice as long. Not while more than the budget and an acknowledgement's worth
// is unreported: the client has then sent more acknowledgements than the link loses
// together, so it is behind, and a copy would only lengthen its queue.
void armSilence(SendSession *s, int64_t now) {
  if (s->silenceTimer != 0 || s->ackGapUs == 0 || s->silences >= MAX_SILENCES) return;
  if (s->sendCount - s->fillFrom >= fillLimit(s) + s->fillAllowance + ackWorth(s)) return;
  int64_t due = now + (SILENCE_GAPS * s->ackGapUs << s->silences);
  s->silenceTimer = loopAddTimer(s->svc->loop, due, [s](int64_t t) {
    s->silenceTimer = 0;
    s->silences++;
    s->fillExtra = s->sendCount - s->fillFrom;
    if (s->passExhausted) restartPump(s, t);
  });
}

// The first sends an acknowledgement settles and how many of them it shows lost, weighed into
// the loss estimate.
void noteLossShare(SendSession *s, uint64_t settled, uint32_t lostNow) {
  s->sendsSettled += static_cast<double>(settled);
  s->sendsLost += lostNow;
  if (s->sendsSettled > LOSS_MEMORY_SENDS) {
    double keep = LOSS_MEMORY_SENDS / s->sendsSettled;
    s->sendsSettled *= keep;
    s->sendsLost *= keep;
  }
}

// Loss detection after an acknowledgement: a block reported missing although a block sent
// after it is reported received was lost on the way (held-back datagrams make this wrong now
// and then, at the price of one extra copy). A block sent more than once proves only that the
// earliest of its sends not known lost arrived: taking its latest, a fill copy still on the
// way, would call lost everything sent between the two.
// `from` is the window's base before the acknowledgement: the blocks it slid over arrived too.
void detectLosses(SendSession *s, uint32_t from) {
  uint32_t base = s->tx.rxVec.blkNumBase;
  uint32_t end = windowEnd(s);
  const SendStamp *newest = nullptr;
  for (uint32_t b = std::min(from, base); b < end; ++b) {
    const SendStamp &st = stampOf(s, b);
    if (acked(s, b) && everSent(s, b) && (newest == nullptr || st.proof > newest->proof)) newest = &st;
  }
  if (newest == nullptr || newest->proof <= s->newestArrived) return;
  uint64_t settled = newest->proof - s->newestArrived;
  s->newestArrived = newest->proof;
  for (uint32_t b = base; b < end; ++b) {
    if (!acked(s, b) && everSent(s, b) && stampOf(s, b).count < newest->proof) s->lost.insert(b);
  }
  // The first sends of blocks settled: lost when the block is still missing. Copies are left
  // out, since any one of a block's copies arriving acknowledges them all.
  uint64_t first = std::max(newest->proof - settled, newest->proof - std::min<uint64_t>(newest->proof, SEND_LOG));
  uint32_t firstSends = 0, lostSends = 0;
  for (uint64_t c = first + 1; c <= newest->proof; ++c) {
    uint32_t b = s->sentFirst[c % SEND_LOG];
    if (b == 0) continue;
    firstSends++;
    if (!acked(s, b - 1)) lostSends++;
  }
  noteLossShare(s, firstSends, lostSends);
}

// What an acknowledgement says the client took in moves the fill budget's start on, never
// past what has been sent: up to the newest send proven to have arrived, and by the sends
// since the last acknowledgement heard (at least what it takes for the client to take in 256,
// at most the budget: acknowledgements lost between them were each sent after 256 more) when
// this one came sooner than its 2 s clock would send one (at a loss that holds the window,
// what the client takes in is mostly copies, whose sends prove nothing). One that comes 2 s or more after the last is the
// client's clock (or the last of several lost on the way): it took in fewer than 256 since
// its last, so it is not behind, and the budget starts again from what has been sent. A copy
// of the last acknowledgement that the link made, with nothing sent in between, changes
// nothing (an identical one on the client's clock is the client's: it heard nothing new).
void moveFillBudget(SendSession *s, const uint8_t *ack, int len, int64_t now, uint32_t baseBefore,
                    uint64_t arrivedBefore) {
  // On a link that loses one send in ten or more, an acknowledgement whose base moved by fewer blocks
  // than the sends it proves arrived shows blocks lost or copies taken in, not a queue of first
  // sends the client is behind on (those it reports in order, and its base moves by all of
  // them): the wire may then carry this many beyond the budget until the next one, so that
  // acknowledgements come even when half of each way is lost.
  s->fillSentSinceAck = 0;
  bool held = s->tx.rxVec.blkNumBase - baseBefore < s->newestArrived - arrivedBefore;
  s->fillAllowance = held && lossShare(s) >= HEAVY_LOSS ? FILL_ALLOWANCE : 0;
  bool onClock = now - s->lastAckUs >= CLIENT_ACK_CLOCK_US;
  bool copy = !onClock && s->sendCount == s->sentAtLastAck && s->lastAck.size() == static_cast<size_t>(len) &&
              std::equal(ack, ack + len, s->lastAck.begin());
  if (copy) return;
  if (!onClock && s->acksHeard != 0)
    s->ackGapUs = s->ackGapUs == 0 ? now - s->lastAckUs : (7 * s->ackGapUs + now - s->lastAckUs) / 8;
  loopCancelTimer(s->svc->loop, s->silenceTimer);
  s->silenceTimer = 0;
  s->silences = 0;
  s->fillExtra = 0;
  if (onClock) {
    s->fillFrom = s->sendCount;
  } else {
    uint64_t credit = std::clamp(s->sendCount - s->sentAtLastAck, ackWorth(s), fillBudget(s));
    s->fillFrom = std::max(s->newestArrived, std::min(s->sendCount, s->fillFrom + credit));
  }
  s->sentAtLastAck = s->sendCount;
  s->lastAckUs = now;
  s->lastAck.assign(ack, ack + len);
}

// After an acknowledgement `ack` of `len` bytes: losses it reveals go out first, the window
// may have moved on, and the wire may be filled with one more round of unacknowledged blocks.
void resumeAfterAck(SendSession *s, int64_t now, uint32_t baseBefore, const uint8_t *ack, int len) {
  uint64_t arrivedBefore = s->newestArrived;
  detectLosses(s, baseBefore);
  moveFillBudget(s, ack, len, now, baseBefore, arrivedBefore);
  s->acksHeard++;
  startFillRound(s);
  // A pass waiting for an acknowledgement goes on at once.
  if (s->passExhausted) restartPump(s, now);
}

// Starts sending the open file `fd` (owned from here on) to `peer`.
std::unique_ptr<SendSession> startSending(TransferService *svc, const sockaddr_in &peer, int fd, uint16_t blockSize,
                                          int64_t now) {
  auto s = std::make_unique<SendSession>();
  s->svc = svc;
  s->peer = peer;
  KESTIL_TXState &tx = s->tx;
  tx.blkSize = blockSize;
  tx.reqId = htonl(KESTIL_REQ_ID);
  tx.fd = fd;
  fstat(fd, &tx.stat);
  tx.size = static_cast<uint32_t>(tx.stat.st_size);
  initBlkRxVector(&tx.rxVec, blockSize);
  setBlkRxVectorFileSize(&tx.rxVec, tx.size);
  cacheFile(&tx);
  tx_build(&tx, 0, s->meta);
  s->paceBits = effectivePaceBits(*svc->opts, blockSize);
  s->credit = fullBlockBits(s.get());  // the metadata goes out at once
  s->lastCreditUs = now;
  s->lastAckUs = now;
  schedulePump(s.get(), now);
  return s;
}

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

// The file a get names, open; -1 after an error report that says why not.
int openRequestedFile(TransferService *svc, const sockaddr_in &peer, const KESTIL_get &req, int64_t now,
                      std::string *rel) {
  PathVerdict verdict = confinePath(svc->rootReal, req.name, rel);
  if (verdict != PathVerdict::Inside) {
    traceNote(*svc->trace, now, "get '%s' refused: %s", req.name, pathVerdictText(verdict));
    sendErrorReport(svc, now, peer, SimErrorReason::PathRefused, EACCES, KESTIL_GET);
    return -1;
  }
  if (req.blocksize == 0) {
    sendErrorReport(svc, now, peer, SimErrorReason::BadRequest, EINVAL, KESTIL_GET);
    return -1;
  }
  int fd = open(rel->c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    int err = errno;
    traceNote(*svc->trace, now, "get '%s': %s", rel->c_str(), std::strerror(err));
    sendErrorReport(svc, now, peer, SimErrorReason::CannotOpen, err, KESTIL_GET);
    return -1;
  }
  struct stat st {};
  fstat(fd, &st);
  if (!S_ISREG(st.st_mode) || st.st_size > static_cast<off_t>(UINT32_MAX)) {
    close(fd);
    bool dir = S_ISDIR(st.st_mode);
    sendErrorReport(svc, now, peer, S_ISREG(st.st_mode) ? SimErrorReason::TooLarge : SimErrorReason::NotAFile,
                    dir ? EISDIR : (S_ISREG(st.st_mode) ? EFBIG : EINVAL), KESTIL_GET);
    return -1;
  }
  return fd;
}

// --fail-get: the get of `rel` is answered with an error report, as a file that cannot be
// read would be; true when it is.
bool failedOnRequest(TransferService *svc, const sockaddr_in &peer, const std::string &rel, int64_t now) {
  if (svc->opts->failGet.count(rel) == 0) return false;
  traceNote(*svc->trace, now, "get '%s': answered with an error report (--fail-get)", rel.c_str());
  sendErrorReport(svc, now, peer, SimErrorReason::CannotOpen, EIO, KESTIL_GET);
  return true;
}

// --bad-digest: the metadata carries a wrong digest; --change: the blocks differ from the
// bytes the metadata digested.
void spoilTransfer(SendSession *s, const std::string &rel, int64_t now) {
  const SimOptions &o = *s->svc->opts;
  if (o.badDigest.count(rel) != 0) {
    for (int i = KESTIL_METADATA_LEN - 16; i < KESTIL_METADATA_LEN; ++i) s->meta[i] ^= 0xFF;
    traceNote(*s->svc->trace, now, "get '%s': metadata with a wrong digest (--bad-digest)", rel.c_str());
  }
  s->changedAfterDigest = o.changing.count(rel) != 0;
  if (s->changedAfterDigest)
    traceNote(*s->svc->trace, now, "get '%s': blocks differ from the digest (--change)", rel.c_str());
}

void collectReported(void *param, uint8_t, uint8_t group, uint8_t, uint32_t, const char *filename) {
  static_cast<std::vector<ReportedEntry> *>(param)->push_back({filename, group});
}

}  // namespace

SendSession::~SendSession() {
  if (svc != nullptr) {
    loopCancelTimer(svc->loop, pumpTimer);
    loopCancelTimer(svc->loop, silenceTimer);
    svc->datagramsSent += dataSent;
    svc->blocksServed += tx.rxVec.lastBlk;
  }
  releaseFileCache(&tx);
  if (tx.fd >= 0) close(tx.fd);
}

std::unique_ptr<SendSession> sendStartGet(TransferService *svc, const sockaddr_in &peer, const KESTIL_get &req,
                                          const uint8_t *ack, int ackLen, int64_t now) {
  std::string rel;
  int fd = openRequestedFile(svc, peer, req, now, &rel);
  if (fd < 0) return nullptr;
  if (failedOnRequest(svc, peer, rel, now)) {
    close(fd);
    return nullptr;
  }
  auto s = startSending(svc, peer, fd, req.blocksize, now);
  spoilTransfer(s.get(), rel, now);
  if (ack != nullptr) {
    rx_func(&s->tx, ack, ackLen);
    // What the request reports is where the first pass starts from, not news that would
    // justify sending the pass again at its end.
    s->tx.lastWrapAckCnt = s->tx.ackCnt;
  }
  traceNote(*svc->trace, now, "get '%s': %u bytes in blocks of %u", rel.c_str(), s->tx.size, req.blocksize);
  return s;
}

std::unique_ptr<SendSession> sendStartListing(TransferService *svc, const sockaddr_in &peer, const KESTIL_get &req,
                                              int64_t now) {
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
  if (fd < 0) return nullptr;  // nothing to serve: the client gives up on its own
  auto s = startSending(svc, peer, fd, req.blocksize == 0 ? KESTIL_BLOCK_SIZE : req.blocksize, now);
  traceNote(*svc->trace, now, "ls '%s' (flags %u): listing of %u bytes", rel.c_str(), req.flags, s->tx.size);
  return s;
}

std::unique_ptr<SendSession> sendStartReport(TransferService *svc, const sockaddr_in &peer, const KESTIL_qreport &req,
                                             int64_t now) {
  // The request's limits arrive decoded to plain numbers, as the report builder reads them.
  GroupLimit limits[KESTIL_MAX_GROUP_LIMITS];
  std::copy(req.limits, req.limits + req.num_grps, limits);
  FileListing *listing = dwnq_report(req.num_grps > 0 ? limits : nullptr, req.num_grps);
  if (listing == nullptr) return nullptr;
  bool removeOnConfirm = (req.flags & KESTIL_LS_FLAG_R) != 0;
  std::vector<ReportedEntry> reported;
  if (removeOnConfirm) iterate_dirlisting(listing_file_name(listing), collectReported, &reported);
  int fd = openAndRemoveListing(listing);
  if (fd < 0) return nullptr;
  auto s = startSending(svc, peer, fd, req.blocksize == 0 ? KESTIL_BLOCK_SIZE : req.blocksize, now);
  s->removeOnConfirm = removeOnConfirm;
  s->reported = std::move(reported);
  traceNote(*svc->trace, now, "report (%u limits%s): %u bytes", req.num_grps,
            removeOnConfirm ? ", remove on confirmation" : "", s->tx.size);
  return s;
}

void sendOnRepeat(SendSession *s, const uint8_t *ack, int ackLen, int64_t now) {
  uint32_t baseBefore = s->tx.rxVec.blkNumBase;
  if (ack != nullptr) rx_func(&s->tx, ack, ackLen);
  if (blkIsInVector(&s->tx.rxVec, 0)) {
    resumeAfterAck(s, now, baseBefore, ack, ack != nullptr ? ackLen : 0);
    return;
  }
  // The client repeats its request while it lacks the metadata: start the pass over.
  s->nextNew = 0;
  s->lost.clear();
  std::fill(std::begin(s->stamps), std::end(s->stamps), SendStamp{});
  s->newestArrived = 0;
  s->fillFrom = s->sendCount;
  restartPump(s, now);
}

SendAck sendOnAck(SendSession *s, const uint8_t *d, int len, int64_t now) {
  if (d[0] == KESTIL_VECACK_FINAL) return SendAck::Stopped;
  uint32_t baseBefore = s->tx.rxVec.blkNumBase;
  if (rx_func(&s->tx, d, len) == 1) {
    // The first complete acknowledgement is the client's confirmation.
    if (s->removeOnConfirm) {
      for (const ReportedEntry &e : s->reported) dwnq_remove(e.name.c_str(), e.group);
      traceNote(*s->svc->trace, now, "report confirmed: %zu entries leave the queue", s->reported.size());
    }
    return SendAck::Complete;
  }
  resumeAfterAck(s, now, baseBefore, d, len);
  return SendAck::Going;
}
