// The get and resume commands and the download session: one remote file into one local file,
// continued from its state record when an earlier run left one.
#include "client/download.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/client.hpp"
#include "client/receive_session.hpp"
#include "client/session_time.hpp"
#include "common/file_handles.hpp"
#include "common/select_call.hpp"
#include "station/station.hpp"

namespace {

constexpr int DRAIN_USEC = 250000;
constexpr int CLOSING_ACKS = 7;

const char GET_USAGE[] = "get [-h host] [-o <local file>] [-z] [-c] [-L] <remote file>";
const char RESUME_USAGE[] = "resume [-z] [-l <size limit>] [-L] <partial file>";

// The options get and resume share.
struct DownloadOptions {
  int zeroPad = 0;
  uint32_t lenLimit = 0;
  long timeoutSec = DEFAULT_TIMEOUT_SECONDS;
  uint8_t flags = 0;
};

// Takes one of the shared options; false for any other.
bool takeDownloadOption(int c, DownloadOptions *o) {
  switch (c) {
    case 'z': o->zeroPad = 1; return true;
    case 'l': o->lenLimit = static_cast<uint32_t>(std::atol(optarg)); return true;
    case 't': o->timeoutSec = std::atol(optarg); return true;
    case 'c': o->flags |= KESTIL_FLAG_C; return true;
    case 'L': o->flags |= KESTIL_FLAG_LONG_NAME; return true;
    default: return false;
  }
}

// The state file's name for a local file; a name too long for its buffer ends the process
// before anything is opened.
void stateNameOrExit(const char *localName, char (&stateName)[STATE_NAME_MAX]) {
  if (downloadStateName(localName, stateName)) return;
  std::fprintf(stderr, "Local file name too long: %zu characters, at most %zu\n", std::strlen(localName),
               LOCAL_NAME_MAX);
  std::exit(1);
}

}  // namespace

void drain_satellite_spam(int fd) {
  std::puts("Waiting for satellite to stop spamming...");
  uint8_t buf[KESTIL_MAX_DATAGRAM];
  for (;;) {
    if (select_call(fd, 0, DRAIN_USEC) != 1) return;
    sockaddr_in from{};
    errno = 0;
    int n = socket_read(fd, buf, sizeof buf, &from);
    if (n > 0 || errno == EAGAIN || errno == EINTR) continue;
    std::perror("socket read");
    return;
  }
}

void fileGet(int fd, const struct sockaddr_in *target, int, const char *local_filename, const char *remote_filename,
             int zeroPad, uint32_t lenLimit, int timeout_limit_sec, uint8_t flags, const char *) {
  char stateName[STATE_NAME_MAX];
  stateNameOrExit(local_filename, stateName);

  outputFd = open(local_filename, O_RDWR | O_CREAT, 0644);
  if (outputFd < 0) {
    std::perror(local_filename);
    cleanup();
    std::exit(1);
  }

  ReceiveSession s =
      newSession(DOWNLOAD_POLICY, fd, target, local_filename, {KESTIL_GET, flags, remote_filename, nullptr, 0});
  s.stateName = stateName;
  s.lenLimit = lenLimit;
  s.zeroPad = zeroPad;

  lockLocalFile(s);
  if (openDownloadState(stateName, remote_filename, target, &s.state) != StateFailure::None) {
    releaseLocalFile(s);
    cleanup();
    std::exit(1);
  }
  s.rxSet = &static_cast<SavedRXState *>(s.state.addr)->rxSet;
  beginSession(s);

  releaseLocalFile(s);
  gettimeofday(&s.startTime, nullptr);
  s.lastAckTime = s.startTime;
  sendSessionRequest(s);

  lockLocalFile(s);
  s.idleLimitTicks = idleLimitTicks(timeout_limit_sec);
  receiveLoop(s);

  // An error report leaves both files for a resume; the lock ends with the process.
  if (s.errorOut) std::exit(14);

  if (!vectorIsFinished(s.rxSet)) {
    sendAcks(s, CLOSING_ACKS, 1);
    releaseLocalFile(s);
    std::printf("\n");
    drain_satellite_spam(fd);
    std::exit(13);
  }

  finishTransfer(s);
  drain_satellite_spam(fd);
  close(fd);
  ::fd = -1;
  if (!s.success) std::exit(11);
  if (!s.md5Valid) std::exit(12);
}

int get_cmd(int argc, char **argv) {
  const char *host = DEFAULT_HOST;
  const char *localName = nullptr;
  DownloadOptions o;

  optind = 0;
  int c;
  while ((c = getopt(argc, argv, "h:o:zl:t:cL")) != -1) {
    if (c == 'h')
      host = optarg;
    else if (c == 'o')
      localName = optarg;
    else if (!takeDownloadOption(c, &o))
      return printSynopsis(GET_USAGE);
  }
  if (optind >= argc) return printSynopsis(GET_USAGE);
  const char *remoteName = argv[optind];
  if (localName == nullptr) localName = baseName(remoteName);

  sockaddr_in target;
  openTransferSocket(host, KESTIL_PORT, &target);
  fileGet(fd, &target, sizeof target, localName, remoteName, o.zeroPad, o.lenLimit, clampSeconds(o.timeoutSec), o.flags,
          host);
  return 0;
}

int resume_cmd(int argc, char **argv) {
  DownloadOptions o;

  optind = 0;
  int c;
  while ((c = getopt(argc, argv, "Lzl:t:")) != -1)
    if (!takeDownloadOption(c, &o)) return printSynopsis(RESUME_USAGE);
  if (optind >= argc) return printSynopsis(RESUME_USAGE);
  const char *partial = argv[optind];
  char stateName[STATE_NAME_MAX];
  stateNameOrExit(partial, stateName);

  UniqueFd sfd(open(stateName, O_RDONLY));
  if (!sfd.valid()) {
    std::perror("No partial download state found");
    std::exit(1);
  }
  static SavedRXState tmpVec;
  errno = 0;
  if (read(sfd.get(), &tmpVec, sizeof tmpVec) != static_cast<ssize_t>(sizeof tmpVec)) {
    std::perror("Bad resume state read");
    std::exit(1);
  }
  sfd.reset();
  tmpVec.filename[STATE_REMOTE_NAME_MAX] = '\0';  // the name comes from a file

  sockaddr_in target;
  openTransferSocket(nullptr, KESTIL_PORT, &target);
  std::memcpy(&target.sin_addr.s_addr, tmpVec.src.addr, 4);
  fileGet(fd, &target, sizeof target, partial, tmpVec.filename, o.zeroPad, o.lenLimit, clampSeconds(o.timeoutSec),
          o.flags, nullptr);
  return 0;
}
