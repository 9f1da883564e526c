// The ls command: a remote directory listing fetched as a listing file, kept in the working
// directory under a name from the current time, and printed.
#include "client/ls.hpp"

#include <arpa/inet.h>
#include <getopt.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>

#include "client/client.hpp"
#include "client/receive_session.hpp"
#include "client/session_time.hpp"
#include "listing/listing.hpp"
#include "station/station.hpp"

namespace {

const char LS_USAGE[] = "ls [-h host] [-o <[a][r]>] <remote path>";

uint8_t listingFlags(const char *options) {
  uint8_t flags = 0;
  for (const char *c = options; c != nullptr && *c != '\0'; ++c) {
    if (*c == 'a')
      flags |= KESTIL_LS_FLAG_A;
    else if (*c == 'r')
      flags |= KESTIL_LS_FLAG_R;
    else if (*c != '-')
      std::printf("Invalid argument '%c'.\n", *c);
  }
  return flags;
}

}  // namespace

int lsDir(int fd, const struct sockaddr_in *target, int, const char *path, const char *options, int timeout_limit_secs,
          const char *) {
  uint8_t flags = listingFlags(options);
  // The name lives until the process ends.
  static char *listingName = nullptr;
  listingName = timeStampedName("dirlisting");
  outputFd = listingName != nullptr ? mkstemp(listingName) : -1;
  if (outputFd < 0) {
    std::perror(path);
    cleanup();
    return 1;
  }

  ReceiveSession s = newSession(LISTING_POLICY, fd, target, listingName, {KESTIL_LS, flags, path, nullptr, 0});
  char stateName[STATE_NAME_MAX];
  if (!runFetch(s, ".dir_listing.kestil_state.", stateName, sizeof stateName, timeout_limit_secs)) return 1;
  if (!s.success || !s.md5Valid) return 1;
  print_dirlisting(listingName);
  return 0;
}

int ls_cmd(int argc, char **argv) {
  const char *host = DEFAULT_HOST;
  const char *options = nullptr;
  long timeoutSec = DEFAULT_TIMEOUT_SECONDS;

  optind = 0;
  int c;
  while ((c = getopt(argc, argv, "h:o:t:")) != -1) {
    switch (c) {
      case 'h': host = optarg; break;
      case 'o': options = optarg; break;
      case 't': timeoutSec = std::atol(optarg); break;
      default: return printSynopsis(LS_USAGE);
    }
  }
  if (optind >= argc) return printSynopsis(LS_USAGE);
  const char *path = argv[optind];

  sockaddr_in target;
  openTransferSocket(host, KESTIL_PORT, &target);
  return lsDir(fd, &target, sizeof target, path, options, clampSeconds(timeoutSec), host);
}
