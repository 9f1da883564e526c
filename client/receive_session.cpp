// The receive loop: wait, read, dispatch (error report, data block, metadata), tick,
// interrupt, acknowledge, redraw; and the end common to every transfer that reaches the digest.
#include "client/receive_session.hpp"

#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "client/client.hpp"
#include "client/progress.hpp"
#include "client/session_time.hpp"
#include "common/digest.hpp"
#include "common/requests.hpp"
#include "common/rx_process.hpp"
#include "common/select_call.hpp"
#include "station/station.hpp"

const ReceivePolicy DOWNLOAD_POLICY = {
    .lockDataFile = true,
    .stopLength = true,
    .errorReports = true,
    .failedWaitIsIdle = false,
    .repeatUntilDataAndMeta = true,
    .requestRepeatTicks = 2,
    .ackOnlyAfterData = true,
    .ackAfterSeconds = 1,
    .interruptEnds = true,
    .confirmations = 7,
    .printClientDone = true,
    .removeLocalOnTimeout = false,
};

namespace {

// The listing and report fetches: none of the download's own rules (lock, stop length, error
// reports, interrupt), and they differ only in how many acknowledgements confirm a complete
// transfer.
constexpr ReceivePolicy fetchPolicy(int confirmations) {
  ReceivePolicy p{};
  p.failedWaitIsIdle = true;
  p.requestRepeatTicks = 4;
  p.confirmations = confirmations;
  p.removeLocalOnTimeout = true;
  return p;
}

constexpr int ACK_EVERY_BLOCKS = 255;  // an acknowledgement after more than this many blocks
constexpr long ACK_PAUSE_NSEC = 300000000;

timeval now() {
  timeval t{};
  gettimeofday(&t, nullptr);
  return t;
}

void pause300ms() {
  timespec left{0, ACK_PAUSE_NSEC};
  // An interrupt must not shorten the spacing of the closing acknowledgements.
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {}
  errno = 0;
}

// The first metadata of the file. Block 0 and the time are stored before the size, so a
// process killed between the steps never leaves a record that knows its size while block 0
// is unmarked (such a record could never complete); the slide comes last, since marking
// block 0 could not slide a window whose end was still unknown.
void takeFirstMetadata(ReceiveSession &s) {
  BlkRxVector *v = s.rxSet;
  v->modTime = s.modTime;
  addBlkToVector(v, 0);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  setBlkRxVectorFileSize(v, s.file_size);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  slideBlkRxVector(v);
  std::printf("File is %d bytes!\n", static_cast<int>(s.file_size));
  if (s.zeroPad) {
    errno = 0;
    if (ftruncate(s.localFd, s.file_size) != 0) DBG_LOG_ERRNO(4, "%s", "Error padding file");
  }
}

// One idle tick; true when it ends the loop.
bool idleTick(ReceiveSession &s) {
  ++s.timeout;
  if (s.timeout >= s.idleLimitTicks) {
    s.success = false;
    return true;
  }
  bool haveMeta = blkIsInVector(s.rxSet, 0) != 0;
  bool waiting = s.policy->repeatUntilDataAndMeta ? !(s.receivedData && haveMeta) : !haveMeta;
  if (!waiting) return false;
  if (s.timeout >= EARLY_GIVE_UP_TICKS) {
    s.success = false;
    return true;
  }
  if (s.timeout % s.policy->requestRepeatTicks == 0) sendSessionRequest(s);
  return false;
}

// Reads a datagram that is already waiting, without waiting: its length, or -1 when the
// socket is empty. A busy download so skips the wait's system call for every block.
int readWaiting(int fd, uint8_t *buf, size_t size, sockaddr_in *from) {
  int saved = errno;
  socklen_t len = sizeof *from;
  ssize_t n = recvfrom(fd, buf, size, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(from), &len);
  errno = saved;
  return n < 0 ? -1 : static_cast<int>(n);
}

void periodicAck(ReceiveSession &s) {
  if (s.policy->ackOnlyAfterData && !s.receivedData) return;
  timeval t = now();
  if (timeBetween(s.lastAckTime, t).tv_sec > s.policy->ackAfterSeconds || s.dataSinceLastAck > ACK_EVERY_BLOCKS) {
    sendVectorAck(s.fd, s.target, s.rxSet, 0);
    s.dataSinceLastAck = 0;
    s.lastAckTime = t;
  }
}

}  // namespace

const ReceivePolicy LISTING_POLICY = fetchPolicy(1);
const ReceivePolicy REPORT_POLICY = fetchPolicy(7);

void dispatchDatagram(ReceiveSession &s, const uint8_t *pkt, int nread, const sockaddr_in &from) {
  if (s.policy->errorReports && nread >= 1 && pkt[0] == KESTIL_ERROR) {
    if (nread == KESTIL_ERROR_LEN)
      std::printf("Server returned error code: %d, %d, %d\n", static_cast<int32_t>(loadBe32(pkt + 1)),
                  static_cast<int32_t>(loadBe32(pkt + 5)), static_cast<int32_t>(loadBe32(pkt + 9)));
    s.errorOut = true;
    return;
  }
  if (processData(pkt, nread, s.localFd, sizeBound(s), s.rxSet, 0)) {
    ++s.dataSinceLastAck;
    return;
  }
  if (processMetadata(pkt, nread, s.target, &from, &s.file_size, KESTIL_REQ_ID, &s.modTime, s.rxSet->md5) &&
      s.rxSet->lastBlk == 0)
    takeFirstMetadata(s);
}

ReceiveSession newSession(const ReceivePolicy &policy, int fd, const struct sockaddr_in *target, const char *localName,
                          const SessionRequest &request) {
  ReceiveSession s{};
  s.policy = &policy;
  s.fd = fd;
  s.target = target;
  s.localFd = outputFd;
  s.localName = localName;
  s.request = request;
  return s;
}

uint32_t sizeBound(const ReceiveSession &s) {
  // Size 0 before the metadata: only block 1 (offset 0) is taken, the sender repeats the rest.
  return s.rxSet->lastBlk != 0 ? s.file_size : 0;
}

void lockLocalFile(const ReceiveSession &s) {
  if (!s.policy->lockDataFile) return;
  for (;;) {
    errno = 0;
    if (flock(s.localFd, LOCK_EX) == 0) return;
    // An interrupt while blocked on the lock is not a lock failure: the loop sees rx_sigint.
    if (errno == EINTR) continue;
    DBG_LOG_ERRNO(4, "%s", "Error locking file");
    std::exit(1);
  }
}

void releaseLocalFile(const ReceiveSession &s) {
  if (s.policy->lockDataFile) flock(s.localFd, LOCK_UN);
}

void beginSession(ReceiveSession &s) {
  s.success = true;
  s.timeout = 0;
  s.dataSinceLastAck = 0;
  s.receivedData = false;
  s.errorOut = false;
  s.md5Valid = false;
  s.file_size = 0;
  s.modTime = {};
  if (s.rxSet->lastBlk != 0) {
    s.file_size = s.rxSet->file_size;
    s.modTime = s.rxSet->modTime;
    // A run killed between the size and the slide of the first metadata left the window unslid.
    slideBlkRxVector(s.rxSet);
  } else {
    s.rxSet->block_size = KESTIL_BLOCK_SIZE;
  }
}

void sendSessionRequest(const ReceiveSession &s) {
  const SessionRequest &r = s.request;
  if (r.cmd == KESTIL_QREPORT)
    sendQReq(s.fd, s.target, s.rxSet, r.numLimits, r.limits, r.flags);
  else
    sendRequest(s.fd, s.target, r.name, s.rxSet, r.flags, r.cmd);
}

void receiveLoop(ReceiveSession &s) {
  const ReceivePolicy &p = *s.policy;
  uint8_t pktBuff[KESTIL_MAX_DATAGRAM] = {};
  while (!vectorIsFinished(s.rxSet)) {
    releaseLocalFile(s);
    if (p.stopLength && s.lenLimit != 0 && s.rxSet->block_size * s.rxSet->uniqueBlkCnt >= s.lenLimit) return;

    sockaddr_in recvFrom{};
    int nread = readWaiting(s.fd, pktBuff, sizeof pktBuff, &recvFrom);
    int ready = nread >= 0 ? 1 : select_call(s.fd, 0, IDLE_TICK_USEC);
    lockLocalFile(s);

    if (ready == 1) {
      s.timeout = 0;
      if (nread < 0) nread = socket_read(s.fd, pktBuff, sizeof pktBuff, &recvFrom);
      if (nread > 0) s.receivedData = true;
      dispatchDatagram(s, pktBuff, nread, recvFrom);
      if (s.errorOut) return;
    } else if (ready == 0 || p.failedWaitIsIdle) {
      if (idleTick(s)) return;
    }

    if (p.interruptEnds && rx_sigint) return;
    periodicAck(s);
    update_progress(s.rxSet);
  }
}

void sendAcks(const ReceiveSession &s, int count, int abort) {
  for (int i = 0; i < count; ++i) {
    if (i > 0) pause300ms();
    sendVectorAck(s.fd, s.target, s.rxSet, abort);
  }
}

void finishTransfer(ReceiveSession &s) {
  std::puts("MD5 time!");
  uint8_t digest[16];
  md5_fd(s.localFd, digest);
  s.md5Valid = std::memcmp(digest, s.rxSet->md5, sizeof digest) == 0;
  releaseLocalFile(s);
  close(s.localFd);
  s.localFd = -1;
  outputFd = -1;

  if (s.success) {
    sendAcks(s, s.policy->confirmations, 0);
    if (s.policy->printClientDone) std::puts("client done");
  }

  timeval elapsed = timeBetween(s.startTime, now());
  closeState(&s.state);
  s.rxSet = nullptr;

  if (!s.success) {
    std::printf("Receive file %s timed out...\n", s.localName);
    if (s.policy->removeLocalOnTimeout) remove(s.localName);
  } else if (!s.md5Valid) {
    std::printf("Checksum failed on %s...\n", s.localName);
    remove(s.localName);
    remove(s.stateName);
  } else {
    std::printf("Received file %s...\n", s.localName);
    remove(s.stateName);
  }

  printStatistics(elapsed, s.file_size);
}

char *timeStampedName(const char *prefix) {
  time_t t = time(nullptr);
  struct tm utc {};
  gmtime_r(&t, &utc);
  char buf[96];
  std::snprintf(buf, sizeof buf, "%s.%04d-%02d-%02d_%02d:%02d:%02d.XXXXXX", prefix, utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return strdup(buf);
}

bool runFetch(ReceiveSession &s, const char *statePrefix, char *stateName, size_t stateNameSize, int timeoutSeconds) {
  std::snprintf(stateName, stateNameSize, "%s%s", statePrefix, s.localName);
  s.stateName = stateName;
  if (openVectorState(stateName, &s.state) != StateFailure::None) {
    cleanup();
    return false;
  }
  s.rxSet = static_cast<BlkRxVector *>(s.state.addr);
  beginSession(s);
  gettimeofday(&s.startTime, nullptr);
  s.lastAckTime = s.startTime;
  sendSessionRequest(s);
  s.idleLimitTicks = idleLimitTicks(timeoutSeconds);
  receiveLoop(s);
  finishTransfer(s);
  return true;
}
