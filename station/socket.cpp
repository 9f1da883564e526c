// Datagram sockets, host resolution and the request/response exchange with on-board services.
#include "station/station.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

namespace {

long long nowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Only one service is known on board; its port is fixed.
int servicePort(const char *service) {
  if (service != nullptr && std::string_view(service) == "filemgr") return STATION_FILEMGR_PORT;
  return -1;
}

// True when `host` has the shape of a DNS host name: labels of 1 to 63 letters, digits and
// hyphens, not starting with a hyphen, 253 characters at most, and not all digits (a
// malformed dotted address). Anything else fails without asking the resolver.
bool looksLikeHostName(std::string_view host) {
  if (host.empty() || host.size() > 253) return false;
  bool onlyDigits = true;
  size_t label = 0;
  for (char c : host) {
    if (c == '.') {
      if (label == 0) return false;
      label = 0;
      continue;
    }
    bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    bool digit = c >= '0' && c <= '9';
    if (!alpha && !digit && c != '-') return false;
    if (c == '-' && label == 0) return false;
    if (!digit) onlyDigits = false;
    if (++label > 63) return false;
  }
  return !onlyDigits;
}

}  // namespace

int socket_init(int port) {
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s < 0) return -1;
  // The receive loop takes one datagram per pass; a buffer of some thousands of them rides out
  // the moments a busy host does not schedule it, where the default (a few hundred) overflows
  // and every lost block costs a resend. The kernel caps the size at net.core.rmem_max.
  int rcvbuf = SOCKET_RCVBUF_BYTES;
  (void)setsockopt(s, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  local.sin_port = htons(static_cast<uint16_t>(port));
  if (bind(s, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) {
    int saved = errno;
    close(s);
    errno = saved;
    return -1;
  }
  return s;
}

int socket_read(int fd, void *buf, int size, struct sockaddr_in *from) {
  sockaddr_in sender{};
  socklen_t len = sizeof sender;
  ssize_t n = recvfrom(fd, buf, static_cast<size_t>(size), 0, reinterpret_cast<sockaddr *>(&sender), &len);
  if (n < 0) return -1;
  if (from != nullptr) *from = sender;
  return static_cast<int>(n);
}

int socket_write(int fd, const void *buf, int len, const struct sockaddr_in *to) {
  ssize_t n = sendto(fd, buf, static_cast<size_t>(len), 0, reinterpret_cast<const sockaddr *>(to), sizeof *to);
  return n < 0 ? -1 : static_cast<int>(n);
}

int socket_resolve_host(const char *host, struct in_addr *addr) {
  if (host == nullptr || addr == nullptr || *host == '\0') return 0;
  if (inet_aton(host, addr) != 0) return 1;
  if (!looksLikeHostName(host)) return 0;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) return 0;
  *addr = reinterpret_cast<sockaddr_in *>(found->ai_addr)->sin_addr;
  freeaddrinfo(found);
  return 1;
}

int socket_send_packet_and_read_response(const char *host, const char *service, const void *req, int len, void *resp,
                                         int size, int timeout) {
  int port = servicePort(service);
  if (port < 0 || req == nullptr || resp == nullptr || len <= 0 || size <= 0) return -1;
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(static_cast<uint16_t>(port));
  if (!socket_resolve_host(host != nullptr ? host : "127.0.0.1", &target.sin_addr)) return -1;

  int s = socket_init(0);
  if (s < 0) return -1;
  int result = -1;
  if (socket_write(s, req, len, &target) == len) {
    long long deadline = nowMs() + timeout;
    for (long long left = timeout; left > 0; left = deadline - nowMs()) {
      pollfd p{s, POLLIN, 0};
      int ready = poll(&p, 1, static_cast<int>(left));
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) break;
      sockaddr_in from{};
      int n = socket_read(s, resp, size, &from);
      // A datagram from anyone but the service is not its answer: keep waiting.
      if (from.sin_addr.s_addr != target.sin_addr.s_addr || from.sin_port != target.sin_port) continue;
      if (n > 0) result = n;
      break;
    }
  }
  close(s);
  return result;
}
