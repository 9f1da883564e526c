// The transfer service: the spacecraft side of get, put, ls, report and rm on one UDP
// socket, one transfer per client address and port, all driven from the event loop.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "sim/emulated_socket.hpp"
#include "sim/event_loop.hpp"
#include "sim/options.hpp"
#include "sim/trace.hpp"

// The three codes of an error report (code 15) and of a put refusal (code 13), which
// carries the same three numbers: what went wrong, the system's errno (0 when none), and
// the command code of the request that failed.
enum class SimErrorReason : int32_t {
  CannotOpen = 1,      // the file is missing or unreadable (errno says which)
  PathRefused = 2,     // absolute, or leads out of the served root
  BadRequest = 3,      // a block size the service cannot use
  NotAFile = 4,        // a directory or device where a file is needed
  TooLarge = 5,        // 4 GiB or more: beyond the protocol's 32-bit sizes
  DigestMismatch = 6,  // an upload whose MD5 digest does not match its metadata
  CannotStore = 7,     // the uploaded file cannot be created or moved into place
};

struct TransferSession;

struct TransferService {
  const SimOptions *opts = nullptr;
  std::string rootReal;  // the served directory, links resolved; also the working directory
  EventLoop *loop = nullptr;
  const Trace *trace = nullptr;
  EmulatedSocket sock;
  std::map<uint64_t, std::unique_ptr<TransferSession>> sessions;  // by client address and port
  uint64_t housekeepingTimer = 0;
  // What the transfers leaving the simulator sent, counted when each ends: datagrams of the
  // files' blocks (copies included) and the blocks of those files, metadata included.
  uint64_t datagramsSent = 0;
  uint64_t blocksServed = 0;

  // Out of line, where the session record is complete.
  TransferService();
  ~TransferService();
};

// Starts serving on the bound socket `fd`.
void transferServiceStart(TransferService *svc, const SimOptions *opts, const std::string &rootReal, EventLoop *loop,
                          const Trace *trace, int fd, int64_t nowUs);
void transferServiceStop(TransferService *svc);
// One datagram as the link delivers it; the socket's handler, and the tests' entry point.
void transferHandleDatagram(TransferService *svc, const uint8_t *dgram, int len, const sockaddr_in &from,
                            int64_t nowUs);
size_t transferSessionCount(const TransferService *svc);

// What the send and receive sessions share: the way out through the emulated link, and the
// failure datagrams.
void serviceSend(TransferService *svc, int64_t now, const uint8_t *d, size_t len, const sockaddr_in &to);
// An error report (code 15), or with `code` 13 a put refusal that carries the same numbers.
void encodeFailure(uint8_t *dst, uint8_t code, SimErrorReason reason, int err, uint8_t requestCode);
void sendErrorReport(TransferService *svc, int64_t now, const sockaddr_in &to, SimErrorReason reason, int err,
                     uint8_t requestCode);
