// The station support library as the client uses it: UDP endpoints and datagram I/O,
// one request/response exchange with a named on-board service, and the debug log.
#pragma once

#include <netinet/in.h>

#include <cerrno>
#include <cstddef>

// UDP port of the on-board "filemgr" service.
constexpr unsigned short STATION_FILEMGR_PORT = 3224;

// Receive buffer asked for on every socket_init socket (the kernel may grant less).
constexpr int SOCKET_RCVBUF_BYTES = 2 << 20;
// A UDP socket bound to `port` on any address (0: any free port); -1 on failure.
int socket_init(int port);
// One datagram into `buf`; the sender goes to `from`. Returns the byte count, or -1.
int socket_read(int fd, void *buf, int size, struct sockaddr_in *from);
// `buf` as one datagram to `to`. Returns the byte count sent, or -1.
int socket_write(int fd, const void *buf, int len, const struct sockaddr_in *to);
// Dotted address or host name into `addr`; non-zero on success, 0 on failure.
int socket_resolve_host(const char *host, struct in_addr *addr);
// Sends `req` to `service` on `host` (null: 127.0.0.1) and waits up to `timeout` milliseconds
// for one answer from that address and port. Returns the bytes stored in `resp`, or -1.
int socket_send_packet_and_read_response(const char *host, const char *service, const void *req, int len, void *resp,
                                         int size, int timeout);

// The debug log: syslog under the program's name, the level as priority.
void DBG_init(const char *progname);
void DBG_setLevel(int level);
[[gnu::format(printf, 2, 3)]] void DBG_print(int level, const char *format, ...);
// As DBG_print, followed by ": " and the text of the current errno.
[[gnu::format(printf, 5, 6)]] void DBG_syserr(int line, const char *function, const char *file, int level,
                                              const char *format, ...);

// Test hook: when set, every line that passes the level filter also goes here.
using DbgHook = void (*)(int level, const char *line);
void DBG_setHook(DbgHook hook);

// The logging pattern of the system: after a call whose failure is to be logged, log the
// message with the system error when errno is set, then clear errno. Callers clear errno
// before the call.
#define DBG_LOG_ERRNO(level, ...)                                     \
  do {                                                                \
    if (errno != 0) {                                                 \
      DBG_syserr(__LINE__, __func__, __FILE__, (level), __VA_ARGS__); \
      errno = 0;                                                      \
    }                                                                 \
  } while (0)
