// The upload session of the put command, split into the steps its receive loop runs, so that
// the pacing can be stepped through with chosen times instead of the clock.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>

#include "common/tx_state.hpp"

constexpr float PUT_DEFAULT_RATE = 6.0f;     // datagrams per second without -p
constexpr float PUT_FALLBACK_RATE = 5.0f;    // used when -p is 0 or below
constexpr int PUT_REQUEST_REPEAT_TICKS = 4;  // the request is repeated every 2 s of silence

// What one upload holds between passes of its receive loop.
struct PutSession {
  KESTIL_TXState *tx;         // owned by filePut
  int sock;                   // the transfer socket
  const sockaddr_in *target;  // where the put request goes
  const char *remoteName;
  uint8_t requestFlags;
  sockaddr_in recvFrom;  // source of the latest datagram: where blocks go
  float pkt_limit;       // sending credit, in datagrams
  float pkts_per_sec;
  timeval lastPktTime;  // the first answer, then the latest credit update
  int timeout;          // consecutive idle ticks
  int silenceLimit;     // in idle ticks
  bool accept;          // the remote side has answered the request
  bool success;         // cleared when the session gives up for silence
};

enum class [[nodiscard]] PutStep{Continue, Done, Refused, GaveUp};

// Fills the transmit record for the open file `fileFd` of status `st`.
void putInitTxState(KESTIL_TXState *tx, int fileFd, const struct stat &st);
// Starts the session state; a rate of 0 or below becomes PUT_FALLBACK_RATE.
void putInitSession(PutSession *s, KESTIL_TXState *tx, int sock, const sockaddr_in *target, const char *remoteName,
                    int longName, int timeoutLimitSecs, float rate);
void putSendRequest(const PutSession *s);
// Handles one datagram of `len` bytes from `from`, read at `now`.
PutStep putOnDatagram(PutSession *s, const uint8_t *buf, int len, const sockaddr_in &from, timeval now);
// Handles half a second without a datagram.
PutStep putOnIdleTick(PutSession *s);
// Spends whole units of credit on data datagrams; returns how many were sent.
int putBurst(PutSession *s);

void filePut(int fd, struct sockaddr_in *target, socklen_t *targetLen, const char *local_filename,
             const char *remote_filename, int timeout_limit_secs, int longName, float pkts_per_sec);
