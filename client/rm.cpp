// The rm command: one fire-and-forget remove request that carries every name that fits.
#include "client/rm.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "client/client.hpp"
#include "common/requests.hpp"
#include "common/wire_codec.hpp"

namespace {

const char RM_USAGE[] = "rm [-h host] [-L] <remote file>";
constexpr size_t RM_LIMIT = 200;        // whole datagram, ordinary names
constexpr size_t RM_LONG_LIMIT = 1400;  // whole datagram with -L

}  // namespace

void rmFiles(int fd, struct sockaddr_in *target, socklen_t *, char **paths, int pathBegin, int pathEnd,
             int long_file_name, const char *, int force, int recursive) {
  const uint8_t flags =
      static_cast<uint8_t>((recursive ? KESTIL_RM_FLAG_RECURSIVE : 0) | (force ? KESTIL_RM_FLAG_FORCE : 0));
  const size_t limit = long_file_name ? RM_LONG_LIMIT : RM_LIMIT;
  // Names are packed straight into the datagram as they are looked at; an empty one takes a
  // single byte.
  uint8_t buf[KESTIL_MAX_DATAGRAM];
  WireWriter w{buf, limit};
  w.u8(KESTIL_RM);
  w.u8(flags);
  int count = 0;

  for (int i = pathBegin; i < pathEnd; ++i) {
    const char *name = paths[i];
    std::printf("Packing %s\n", name);
    const size_t nameBytes = std::strlen(name) + 1;
    // A name that does not fit is left out and said so; later, shorter names may still fit.
    if (nameBytes > w.cap - w.pos) {
      std::printf("Not packed, too long for the request: %s\n", name);
      continue;
    }
    w.bytes(name, nameBytes);
    ++count;
  }
  // A request without a single name would ask for nothing: it is not sent.
  if (count == 0) {
    std::puts("No name fits in the request; nothing sent");
    return;
  }

  sendReported(fd, target, buf, w.done(), "rm");
}

int rm_cmd(int argc, char **argv) {
  const char *host = DEFAULT_HOST;
  int longName = 0;
  int recursive = 0;
  int force = 0;

  optind = 0;
  int c;
  while ((c = getopt(argc, argv, "Lh:rf")) != -1) {
    switch (c) {
      case 'L': longName = 1; break;
      case 'h': host = optarg; break;
      case 'r': recursive = 1; break;
      case 'f': force = 1; break;
      default: return printSynopsis(RM_USAGE);
    }
  }
  if (optind >= argc) return printSynopsis(RM_USAGE);

  sockaddr_in target;
  openTransferSocket(host, KESTIL_PORT, &target);
  socklen_t targetLen = sizeof target;
  rmFiles(fd, &target, &targetLen, argv, optind, argc, longName, host, force, recursive);
  return 0;
}
