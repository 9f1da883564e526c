// The one receive loop shared by the file download, the directory-listing fetch and the
// queue-report fetch. The three differ in a handful of rules, held in a ReceivePolicy.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <cstdint>

#include "client/state_file.hpp"
#include "common/blk_rx_vector.hpp"
#include "common/wire.hpp"

struct ReceivePolicy {
  bool lockDataFile;            // flock on the local file, dropped for each wait
  bool stopLength;              // the -l stop length is tested at the start of each pass
  bool errorReports;            // a code-15 datagram ends the transfer
  bool failedWaitIsIdle;        // a failed (interrupted) wait counts as an idle tick
  bool repeatUntilDataAndMeta;  // repeat the request until data arrived and block 0 is held,
                                // rather than only while block 0 is missing
  int requestRepeatTicks;       // the request goes out again on idle ticks that are multiples of this
  bool ackOnlyAfterData;        // periodic acknowledgements only once a datagram was read
  long ackAfterSeconds;         // ... when the whole seconds since the last one exceed this
  bool interruptEnds;           // rx_sigint ends the loop
  int confirmations;            // acknowledgements sent after a complete transfer
  bool printClientDone;
  bool removeLocalOnTimeout;  // a timed-out fetch's local file is of no use to anyone
};

extern const ReceivePolicy DOWNLOAD_POLICY;
extern const ReceivePolicy LISTING_POLICY;
extern const ReceivePolicy REPORT_POLICY;

// What the session asks for: a get or listing request by name, or a queue report.
struct SessionRequest {
  uint8_t cmd;  // KESTIL_GET, KESTIL_LS or KESTIL_QREPORT
  uint8_t flags;
  const char *name;          // get and listing
  const GroupLimit *limits;  // queue report
  uint8_t numLimits;
};

struct ReceiveSession {
  const ReceivePolicy *policy;
  int fd;  // transfer socket
  const struct sockaddr_in *target;
  int localFd;  // the local file (the process-wide outputFd)
  const char *localName;
  const char *stateName;
  StateMapping state;
  BlkRxVector *rxSet;
  SessionRequest request;
  uint32_t lenLimit;
  int zeroPad;
  int idleLimitTicks;

  // Transfer state.
  bool success;
  int timeout;  // consecutive idle ticks
  int dataSinceLastAck;
  bool receivedData;
  bool errorOut;
  bool md5Valid;
  uint32_t file_size;  // from the metadata; 0 until the first one
  KestilTimespec modTime;
  struct timeval startTime;
  struct timeval lastAckTime;
};

// A session of `policy` on the transfer socket `fd`, receiving into the process-wide outputFd
// (named `localName`); the transfer state is set by beginSession.
ReceiveSession newSession(const ReceivePolicy &policy, int fd, const struct sockaddr_in *target, const char *localName,
                          const SessionRequest &request);

// The size bound handed to the block processing: the file size once known, 0 before the first
// metadata, so that a stray block cannot make the file longer than its size.
uint32_t sizeBound(const ReceiveSession &s);

// Sets the transfer state to its start values and takes file size and time from a record that
// already has its metadata; a record without one gets the block size asked for.
void beginSession(ReceiveSession &s);
void sendSessionRequest(const ReceiveSession &s);
// One datagram read by the receive loop: an error report (when the policy heeds them), a data
// block or a metadata datagram; anything else is ignored.
void dispatchDatagram(ReceiveSession &s, const uint8_t *pkt, int nread, const struct sockaddr_in &from);
// Receives until the vector is complete or a rule of the policy ends the loop.
void receiveLoop(ReceiveSession &s);
// `count` acknowledgements of the vector, 300 ms apart.
void sendAcks(const ReceiveSession &s, int count, int abort);
// The end of every transfer that goes on to the digest: digest, confirmations, unmapping,
// verdict with its file removals, statistics line.
void finishTransfer(ReceiveSession &s);

// "<prefix>.YYYY-MM-DD_hh:mm:ss.XXXXXX" from the current UTC time, on the heap; null when it
// cannot be allocated. The six X are left for mkstemp.
char *timeStampedName(const char *prefix);
// The listing and report fetches from their created local file on: vector record under
// "<statePrefix><local name>", request, loop and the common end. False when the vector record
// could not be set up (its message printed, clean-up done).
[[nodiscard]] bool runFetch(ReceiveSession &s, const char *statePrefix, char *stateName, size_t stateNameSize,
                            int timeoutSeconds);

void lockLocalFile(const ReceiveSession &s);
void releaseLocalFile(const ReceiveSession &s);
