// An upload arriving at the simulator (put): blocks go through the incoming processing into a
// hidden file beside the target, acknowledged on a timer and after every few new blocks, and
// the file is renamed into place once its digest matches the metadata.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>

#include "common/blk_rx_vector.hpp"
#include "common/wire_codec.hpp"

struct TransferService;

enum class ReceiveState : uint8_t { Receiving, Done, Refused };

struct ReceiveSession {
  TransferService *svc = nullptr;
  sockaddr_in peer{};
  ReceiveState state = ReceiveState::Receiving;
  BlkRxVector rx{};
  uint32_t fileSize = 0;
  KestilTimespec modTime{};
  int tmpFd = -1;
  std::string tmpPath;  // removed with the session unless the upload was moved into place
  std::string finalPath;
  uint32_t newSinceAck = 0;
  uint64_t ackTimer = 0;
  uint8_t refusal[KESTIL_ERROR_LEN]{};

  ReceiveSession() = default;
  ReceiveSession(const ReceiveSession &) = delete;
  ReceiveSession &operator=(const ReceiveSession &) = delete;
  ~ReceiveSession();
};

// Starts receiving the upload the put request names. A refused upload is a session too: it
// answers every later datagram of its client with the refusal.
std::unique_ptr<ReceiveSession> receiveStart(TransferService *svc, const sockaddr_in &peer, const KESTIL_get &req,
                                             int64_t now);
// The client repeated its put request.
void receiveOnRepeat(ReceiveSession *r, int64_t now);
// Any other datagram from the session's client.
void receiveOnDatagram(ReceiveSession *r, const uint8_t *d, int len, const sockaddr_in &from, int64_t now);
