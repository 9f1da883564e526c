// A transfer leaving the simulator (get, ls, report): the file is paced out through the
// transmit routine's datagram builder, the client's acknowledgements are folded into the
// sender's copy of its vector, and what they show lost or still unacknowledged goes again.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/tx_state.hpp"
#include "common/wire_codec.hpp"

struct TransferService;

// Sends remembered for the loss estimate: four windows' worth.
constexpr uint32_t SEND_LOG = 4 * BLK_RX_WINDOW;

struct SendStamp {
  uint32_t blk = 0;
  uint64_t count = 0;          // of its latest send; 0: never sent
  uint32_t resentInRound = 0;  // fill round of its last resend; 0 after a first send
  // The earliest of its sends not known lost: the send that its report as received proves
  // arrived. A fill copy leaves it be, as the send before may still arrive.
  uint64_t proof = 0;
};

struct ReportedEntry {
  std::string name;
  uint8_t group;
};

struct SendSession {
  TransferService *svc = nullptr;
  sockaddr_in peer{};
  KESTIL_TXState tx{};
  uint8_t meta[KESTIL_METADATA_LEN]{};  // block 0, digested once when the transfer starts
  bool passExhausted = false;           // nothing sendable until the next acknowledgement
  double credit = 0.0;                  // in bits of wire, IP/UDP overhead included
  double paceBits = 1.0;                // bits per second the session is paced at
  int64_t lastCreditUs = 0;
  // Retransmission: every send is stamped with a running count, per block of the window, so
  // an acknowledgement that shows a later send arrived shows which earlier ones were lost.
  uint64_t sendCount = 0;
  SendStamp stamps[BLK_RX_WINDOW]{};
  uint32_t nextNew = 0;     // the forward pass: lowest block never sent
  std::set<uint32_t> lost;  // blocks to send again before anything new
  // Each recent send by its count: one more than its block for a block's first send, 0 for a
  // copy. An acknowledgement settles the sends up to its newest arrival, and the first sends
  // whose block it still lacks were lost.
  uint32_t sentFirst[SEND_LOG]{};
  // The share of first sends that acknowledgements showed lost, over those they settled.
  double sendsSettled = 0.0;
  double sendsLost = 0.0;
  // Rounds of unacknowledged blocks that fill an idle wire, within the fill budget: the
  // datagrams sent since `fillFrom`, which what the client reports taking in moves on.
  uint32_t fillNext = 0;
  uint32_t fillRound = 1;
  uint32_t fillSentInRound = 0;
  uint64_t fillFrom = 0;
  uint64_t newestArrived = 0;  // send count of the newest send known to have arrived
  uint64_t sentAtLastAck = 0;  // send count when the last acknowledgement came
  int64_t lastAckUs = 0;       // when it came (the transfer's start before the first)
  // Fill datagrams beyond the budget that the last acknowledgement allows, and those sent since.
  uint32_t fillAllowance = 0;
  uint32_t fillSentSinceAck = 0;
  // The usual gap between the client's acknowledgements, and the silences past it since the
  // last: each lets one more budget of fill go (`fillExtra`), after twice as long as the last.
  int64_t ackGapUs = 0;
  uint64_t silenceTimer = 0;
  uint32_t silences = 0;
  uint64_t fillExtra = 0;
  std::vector<uint8_t> lastAck;
  uint32_t acksHeard = 0;  // the client's acknowledgements applied (not the request's)
  uint64_t dataSent = 0;   // datagrams of the file's blocks sent, copies included
  uint64_t pumpTimer = 0;
  bool removeOnConfirm = false;  // a report whose entries leave the queue once confirmed
  std::vector<ReportedEntry> reported;
  bool changedAfterDigest = false;  // --change: every block differs from the bytes digested

  SendSession() = default;
  SendSession(const SendSession &) = delete;
  SendSession &operator=(const SendSession &) = delete;
  ~SendSession();  // stops the pump and closes the file
};

// What the client's acknowledgement did to the transfer.
enum class SendAck : uint8_t { Going, Stopped, Complete };

// Each start answers null when the request was refused (a get answered with an error report,
// a listing that could not be made): no transfer is left behind. `ack` is the acknowledgement
// a get request carries behind its name (null, 0: none).
std::unique_ptr<SendSession> sendStartGet(TransferService *svc, const sockaddr_in &peer, const KESTIL_get &req,
                                          const uint8_t *ack, int ackLen, int64_t now);
std::unique_ptr<SendSession> sendStartListing(TransferService *svc, const sockaddr_in &peer, const KESTIL_get &req,
                                              int64_t now);
std::unique_ptr<SendSession> sendStartReport(TransferService *svc, const sockaddr_in &peer, const KESTIL_qreport &req,
                                             int64_t now);
// The client repeated its request, with the acknowledgement it carries (null, 0: none).
void sendOnRepeat(SendSession *s, const uint8_t *ack, int ackLen, int64_t now);
// An acknowledgement (code 9 or 14) of more than 4 bytes from the session's client.
SendAck sendOnAck(SendSession *s, const uint8_t *d, int len, int64_t now);
