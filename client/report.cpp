// The report command: the remote download queue, optionally limited per group, fetched as a
// listing file, kept in the working directory and printed.
#include "client/report.hpp"

#include <arpa/inet.h>
#include <getopt.h>
#include <stdlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client/client.hpp"
#include "client/receive_session.hpp"
#include "client/session_time.hpp"
#include "listing/listing.hpp"
#include "station/station.hpp"

void qRep(int fd, const struct sockaddr_in *target, char **q_args, int argc, uint8_t flags, int timeout_limit_secs) {
  errno = 0;
  char *reportName = timeStampedName("qreport");
  if (reportName == nullptr) {
    DBG_LOG_ERRNO(4, "%s", "malloc failed");
    std::exit(1);
  }

  // Group limits, two arguments each: group, entry count. The size limit is left open.
  GroupLimit limits[KESTIL_MAX_GROUP_LIMITS] = {};
  uint8_t numLimits = 0;
  for (int i = 0; i < argc; i += 2) {
    if (argc - i == 1) {
      std::fputs("trailing end result\n", stderr);
      if (numLimits == 0) {
        free(reportName);
        return;
      }
      break;
    }
    GroupLimit &lim = limits[numLimits];
    lim.group = static_cast<uint8_t>(std::atoi(q_args[i]));
    lim.sizeTarget = 0;
    lim.numEntriesTarget = static_cast<uint32_t>(std::atoi(q_args[i + 1]));
    std::printf("group: %d size %d entries %d\n", lim.group, static_cast<int>(lim.sizeTarget),
                static_cast<int>(lim.numEntriesTarget));
    if (lim.sizeTarget == 0) lim.sizeTarget = 0xFFFFFFFF;
    if (++numLimits == KESTIL_MAX_GROUP_LIMITS) {
      std::fputs("maximum number of queues reached\n", stderr);
      break;
    }
  }

  errno = 0;
  outputFd = mkstemp(reportName);
  int savedErrno = errno;
  DBG_LOG_ERRNO(4, "%s", "failed to make output file");
  if (outputFd < 0) {
    errno = savedErrno;
    std::perror(reportName);
    cleanup();
    std::exit(1);
  }

  ReceiveSession s =
      newSession(REPORT_POLICY, fd, target, reportName, {KESTIL_QREPORT, flags, nullptr, limits, numLimits});
  char stateName[STATE_NAME_MAX];
  if (!runFetch(s, ".q_report.kestil_state.", stateName, sizeof stateName, timeout_limit_secs)) std::exit(1);

  if (s.success && s.md5Valid) print_dirlisting(reportName);
  free(reportName);
  if (!s.success) std::exit(11);
  if (!s.md5Valid) std::exit(12);
}

int report_cmd(int argc, char **argv) {
  const char *host = DEFAULT_HOST;
  long timeoutSec = DEFAULT_TIMEOUT_SECONDS;
  uint8_t flags = 0;

  optind = 0;
  bool reading = true;
  int c;
  // An unknown option ends the options; what follows are the group limits.
  while (reading && (c = getopt(argc, argv, "rh:t:")) != -1) {
    switch (c) {
      case 'r': flags |= KESTIL_LS_FLAG_R; break;
      case 'h': host = optarg; break;
      case 't': timeoutSec = std::atol(optarg); break;
      default: reading = false; break;
    }
  }

  sockaddr_in target;
  openTransferSocket(host, KESTIL_PORT, &target);
  qRep(fd, &target, argv + optind, argc - optind, flags, clampSeconds(timeoutSec));
  return 0;
}
