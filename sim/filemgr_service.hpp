// The file-manager service: add, remove and status requests on the download queue, one
// datagram in and one out, on its own UDP port.
#pragma once

#include <cstdint>
#include <string>

#include "common/filemgr_wire.hpp"
#include "sim/emulated_socket.hpp"

// Result byte of an add or remove answer: 0 success, else one of these (negative, as the
// client prints the byte as a signed number).
enum class FilemgrResult : int8_t {
  Ok = 0,
  PathRefused = -1,  // absolute, or leads out of the served root
  NoSuchEntry = -2,  // add: no such file; remove: not in that group of the queue
  Malformed = -3,    // no NUL-terminated name
  NotAFile = -4,     // add: a directory or device
};

// The answer to one request, into `resp`; its length, 0 for a datagram that gets none.
int filemgrAnswer(const std::string &rootReal, const uint8_t *req, int len, uint8_t *resp, int cap);

struct FileManagerService {
  std::string rootReal;
  EmulatedSocket sock;
};

void filemgrServiceStart(FileManagerService *svc, const std::string &rootReal, EventLoop *loop, const Trace *trace,
                         const LinkConfig &link, int fd, int64_t nowUs);
void filemgrServiceStop(FileManagerService *svc);
