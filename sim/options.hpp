// The simulator's command line: what it serves, where it listens, and how the emulated
// link between it and its clients behaves.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <set>
#include <string>

#include "sim/link_emulator.hpp"

struct SimOptions {
  std::string root = ".";
  in_addr addr{};               // the exact address to bind (never a wildcard)
  uint16_t port = 3223;         // transfer service
  uint16_t filemgrPort = 3224;  // file-manager service
  std::string queueFile;        // empty: the default inside the root
  LinkConfig link;
  int64_t passStartUnixS = 0;    // --pass-start: the first pass's start, seconds since the epoch; 0: start-up
  bool verbose = false;          // -v: the protocol trace on standard output
  std::string pcapPath;          // --pcap: capture file of every datagram; empty: none
  uint32_t idleS = 60;           // a transfer with no datagram for this long is dropped
  uint32_t pace = 0;             // datagrams per second per transfer; 0: derived from --rate
  uint64_t paceBits = 0;         // or bits per second of wire per transfer; 0: not given
  uint32_t ackIntervalMs = 500;  // upload acknowledgements: at least this often ...
  uint32_t ackBlocks = 64;       // ... or after this many new blocks
  bool relay = false;            // relay mode: no services, only the emulated link
  sockaddr_in relayListen{};
  sockaddr_in relayUpstream{};
  // Faults of named files, for rehearsing a bad pass; each a set of paths under the root,
  // normalised as a request's path is.
  std::set<std::string> failGet;    // --fail-get: a get is answered with an error report
  std::set<std::string> badDigest;  // --bad-digest: the metadata carries a wrong MD5 digest
  std::set<std::string> changing;   // --change: the blocks served differ from the bytes digested
};

enum class ParseOutcome : uint8_t { Run, Help, Version, Error };

// Fills `opts` from argv[1..]; on Error `error` holds a one-line explanation.
[[nodiscard]] ParseOutcome parseSimOptions(int argc, const char *const *argv, SimOptions *opts, std::string *error);
// The usage text printed for --help and after an option error.
const char *simUsage();
// Bits per second of wire (28 bytes of IP/UDP counted per datagram) a download is paced at:
// --pace-rate, else --pace full blocks of `blockSize` bytes, else the link rate, else the
// loopback default. A link emulated elsewhere (a relay) is matched with --pace-rate.
double effectivePaceBits(const SimOptions &opts, uint32_t blockSize);
