// The put command and its upload session: announce the upload, wait for the first answer,
// then send metadata and data blocks on credit earned between acknowledgements, and single
// resends while the remote side is silent.
#include "client/put.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "client/client.hpp"
#include "client/session_time.hpp"
#include "common/common.hpp"
#include "station/station.hpp"

namespace {

const char PUT_USAGE[] = "put [-L] [-h host] [-o <remote file>] <local file>";

// Pacing and statistics read a monotonic clock: a wall-clock step must not hand out a burst
// of credit or a negative elapsed time.
timeval nowTv() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return timeval{ts.tv_sec, ts.tv_nsec / 1000};
}

uint32_t windowEnd(const KESTIL_TXState *tx) { return tx->rxVec.blkNumBase + BLK_RX_WINDOW; }

// True when nextBlkNum names nothing to send in this pass: at or past the end of the file or
// of the window.
bool passExhausted(const KESTIL_TXState *tx, uint32_t vecEnd) {
  return tx->nextBlkNum >= tx->rxVec.lastBlk || tx->nextBlkNum >= vecEnd;
}

// Sends block nextBlkNum and moves past it when the send counts. A data block whose file read
// failed does not count: nothing went out and nextBlkNum stays on it.
bool sendCurrentBlock(PutSession *s) {
  KESTIL_TXState *tx = s->tx;
  uint32_t blk = tx->nextBlkNum;
  int len = tx_func(tx, s->sock, &s->recvFrom);
  bool counted = blk == 0 || len >= 0;
  if (counted) ++tx->nextBlkNum;
  return counted;
}

struct FreeDeleter {
  void operator()(KESTIL_TXState *p) const { std::free(p); }
};

}  // namespace

void putInitTxState(KESTIL_TXState *tx, int fileFd, const struct stat &st) {
  tx->blkSize = static_cast<uint16_t>(KESTIL_BLOCK_SIZE);
  tx->nextBlkNum = 0;
  tx->reqId = htonl(KESTIL_REQ_ID);
  tx->flags = 0;
  tx->fd = fileFd;
  tx->stat = st;
  tx->size = static_cast<uint32_t>(st.st_size);
  initBlkRxVector(&tx->rxVec, KESTIL_BLOCK_SIZE);
  setBlkRxVectorFileSize(&tx->rxVec, tx->size);
}

void putInitSession(PutSession *s, KESTIL_TXState *tx, int sock, const sockaddr_in *target, const char *remoteName,
                    int longName, int timeoutLimitSecs, float rate) {
  *s = PutSession{};
  s->tx = tx;
  s->sock = sock;
  s->target = target;
  s->remoteName = remoteName;
  s->requestFlags = longName ? KESTIL_FLAG_LONG_NAME : 0;
  s->pkts_per_sec = rate > 0.0f ? rate : PUT_FALLBACK_RATE;
  s->pkt_limit = s->pkts_per_sec;
  s->silenceLimit = idleLimitTicks(timeoutLimitSecs);
  s->success = true;
}

void putSendRequest(const PutSession *s) {
  sendRequest(s->sock, s->target, s->remoteName, &s->tx->rxVec, s->requestFlags, KESTIL_PUT);
}

int putBurst(PutSession *s) {
  KESTIL_TXState *tx = s->tx;
  std::puts("send blocks");
  uint32_t vecEnd = windowEnd(tx);
  // A pass that ended without a wrap leaves nextBlkNum at the end. Ask the scheduler first,
  // so that no empty data datagram goes out; when it cannot wrap yet the burst sends nothing.
  if (passExhausted(tx, vecEnd)) {
    vecEnd = tx_advance_nextBlkNum(tx);
    if (passExhausted(tx, vecEnd)) return 0;
  }
  int sent = 0;
  while (s->pkt_limit >= 1.0f) {
    uint32_t blk = tx->nextBlkNum;
    float creditBefore = s->pkt_limit;
    bool counted = sendCurrentBlock(s);
    std::printf("Send block %d / %lf\n", static_cast<int>(blk), static_cast<double>(creditBefore));
    if (counted) {
      s->pkt_limit = static_cast<float>(s->pkt_limit - 1.0);
      ++sent;
    }
    vecEnd = tx_advance_nextBlkNum(tx);
    // A block whose file read failed ends the burst after that one attempt, so unchanged
    // credit cannot spin on it; a later burst or idle tick tries it again.
    if (!counted || passExhausted(tx, vecEnd)) break;
  }
  return sent;
}

PutStep putOnDatagram(PutSession *s, const uint8_t *buf, int len, const sockaddr_in &from, timeval now) {
  KESTIL_TXState *tx = s->tx;
  s->timeout = 0;
  s->recvFrom = from;
  if (len > 4 && (buf[0] == KESTIL_VECACK || buf[0] == KESTIL_VECACK_FINAL)) {
    std::printf("ACK %d\n", static_cast<int>(loadBe32(buf + 1)));
    if (tx->nextBlkNum != 0 && rx_func(tx, buf, len)) {
      std::puts("Done!");
      return PutStep::Done;
    }
    if (buf[0] == KESTIL_VECACK_FINAL) {
      std::puts("Done!");
      return PutStep::Done;
    }
    if (tx->nextBlkNum == 0) {
      // The answer to the request: its vector is not applied and it earns no credit.
      s->lastPktTime = now;
      s->accept = true;
    } else {
      double elapsed = static_cast<double>(now.tv_sec - s->lastPktTime.tv_sec) +
                       static_cast<double>(now.tv_usec - s->lastPktTime.tv_usec) / 1000000.0;
      s->pkt_limit = static_cast<float>(s->pkt_limit + static_cast<double>(s->pkts_per_sec) * elapsed);
      s->lastPktTime = now;
    }
    putBurst(s);
    return PutStep::Continue;
  }
  if (len > 4 && buf[0] == KESTIL_PUT_FAILURE) {
    std::puts("PUT failure");
    return PutStep::Refused;
  }
  return PutStep::Continue;
}

PutStep putOnIdleTick(PutSession *s) {
  ++s->timeout;
  if (s->timeout >= s->silenceLimit) {
    s->success = false;
    return PutStep::GaveUp;
  }
  if (!s->accept) {
    if (s->timeout >= EARLY_GIVE_UP_TICKS) {
      s->success = false;
      return PutStep::GaveUp;
    }
    if (s->timeout % PUT_REQUEST_REPEAT_TICKS == 0) {
      putSendRequest(s);
      std::puts("resend request");
    }
    return PutStep::Continue;
  }

  KESTIL_TXState *tx = s->tx;
  uint32_t vecEnd = windowEnd(tx);
  // As in a burst, a tick that finds the pass exhausted asks the scheduler first; when it
  // cannot wrap, the walk starts again from the window's base.
  if (passExhausted(tx, vecEnd)) {
    vecEnd = tx_advance_nextBlkNum(tx);
    if (passExhausted(tx, vecEnd)) tx->nextBlkNum = tx->rxVec.blkNumBase;
  }
  std::printf("resend block %d\n", static_cast<int>(tx->nextBlkNum));
  (void)sendCurrentBlock(s);  // not charged: silence resends use no credit
  vecEnd = tx_advance_nextBlkNum(tx);
  if (passExhausted(tx, vecEnd)) tx->nextBlkNum = tx->rxVec.blkNumBase;
  return PutStep::Continue;
}

namespace {

// The receive loop: wait, read, dispatch; silence is an idle tick. Runs until a step ends the
// session or an interrupt arrives.
PutStep putReceiveLoop(PutSession *s) {
  PutStep step = PutStep::Continue;
  while (step == PutStep::Continue && !rx_sigint) {
    if (select_call(s->sock, 0, IDLE_TICK_USEC) != 1) {
      step = putOnIdleTick(s);
      continue;
    }
    uint8_t buf[KESTIL_MAX_DATAGRAM];
    sockaddr_in from = s->recvFrom;
    int n = socket_read(s->sock, buf, sizeof buf, &from);
    step = putOnDatagram(s, buf, n < 0 ? 0 : n, from, nowTv());
  }
  return step;
}

}  // namespace

void filePut(int fd, struct sockaddr_in *target, socklen_t *, const char *local_filename, const char *remote_filename,
             int timeout_limit_secs, int longName, float pkts_per_sec) {
  outputFd = open(local_filename, O_RDWR, 0644);
  if (outputFd < 0) {
    std::perror(local_filename);
    cleanup();
    std::exit(1);
  }
  const timeval startTime = nowTv();

  std::unique_ptr<KESTIL_TXState, FreeDeleter> tx(
      static_cast<KESTIL_TXState *>(std::calloc(1, sizeof(KESTIL_TXState))));
  if (!tx) {
    std::fputs("TXState allocation failure", stderr);
    cleanup();
    std::exit(1);
  }
  struct stat st {};
  errno = 0;
  int statResult = fstat(outputFd, &st);
  DBG_LOG_ERRNO(4, "couldn't stat fd");
  if (statResult != 0) {
    std::puts("Stat failed!");
    return;
  }
  putInitTxState(tx.get(), outputFd, st);

  PutSession s;
  putInitSession(&s, tx.get(), fd, target, remote_filename, longName, timeout_limit_secs, pkts_per_sec);
  s.lastPktTime = startTime;
  putSendRequest(&s);

  if (putReceiveLoop(&s) == PutStep::Refused) {
    tx.reset();
    cleanup();
    std::exit(1);
  }

  close(outputFd);
  outputFd = -1;
  const timeval elapsed = timeBetween(startTime, nowTv());
  if (!s.success) std::printf("Put file %s timed out.\n", local_filename);
  printStatistics(elapsed, tx->size);
  if (!s.success) {
    tx.reset();
    std::exit(1);
  }
}

int put_cmd(int argc, char **argv) {
  const char *host = DEFAULT_HOST;
  const char *remoteName = nullptr;
  int timeoutSecs = DEFAULT_TIMEOUT_SECONDS;
  float rate = PUT_DEFAULT_RATE;
  uint16_t port = KESTIL_PORT;
  int longName = 0;

  optind = 0;
  int c;
  while ((c = getopt(argc, argv, "h:o:t:p:P:L")) != -1) {
    switch (c) {
      case 'h': host = optarg; break;
      case 'o': remoteName = optarg; break;
      case 't': timeoutSecs = static_cast<int>(std::atol(optarg)); break;
      case 'p': rate = static_cast<float>(std::atof(optarg)); break;
      case 'P': port = static_cast<uint16_t>(std::atoi(optarg)); break;
      case 'L': longName = 1; break;
      default: return printSynopsis(PUT_USAGE);
    }
  }
  if (optind >= argc) return printSynopsis(PUT_USAGE);
  const char *localName = argv[optind];
  if (remoteName == nullptr) remoteName = baseName(localName);

  sockaddr_in target;
  openTransferSocket(host, port, &target);
  socklen_t targetLen = sizeof target;
  filePut(fd, &target, &targetLen, localName, remoteName, timeoutSecs, longName, rate);
  return 0;
}
