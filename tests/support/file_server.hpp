// A scripted remote file service for end-to-end tests of the receive sessions: it answers a
// running client's requests with metadata and blocks, resends what acknowledgements report
// missing, and records what the client sent.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "tests/support/test_support.hpp"

namespace kt {

constexpr uint32_t SERVE_BLOCK = 141;

inline void putBe32(std::vector<uint8_t> &v, uint32_t x) {
  for (int s = 24; s >= 0; s -= 8) v.push_back(static_cast<uint8_t>(x >> s));
}

// `head` with the bytes of `tail` after it (and a NUL when asked). Resized and copied: g++ 12
// at -O2 takes an insert at the end of a short vector for an overrun.
template <typename Bytes>
std::vector<uint8_t> withTail(std::vector<uint8_t> head, const Bytes &tail, bool nul) {
  const size_t at = head.size();
  head.resize(at + tail.size() + (nul ? 1 : 0), 0);
  std::copy(tail.begin(), tail.end(), head.begin() + static_cast<std::ptrdiff_t>(at));
  return head;
}

// A request as the client sends it: code, flags, block size 141, request 1, the name, NUL.
inline std::vector<uint8_t> request(uint8_t code, uint8_t flags, const std::string &name) {
  return withTail({code, flags, 0, 0x8D, 0, 0, 0, 1}, name, true);
}

inline std::vector<uint8_t> metadataDatagram(size_t size, const std::string &md5, uint32_t reqId = 1,
                                             uint32_t mtime = 1700000000) {
  std::vector<uint8_t> m{4};
  for (uint32_t x : {reqId, static_cast<uint32_t>(size), mtime, 0u}) putBe32(m, x);
  return withTail(m, md5, false);
}

// Data block n of `content`, with the narrowest block-number width.
inline std::vector<uint8_t> blockDatagram(const std::string &content, uint32_t n) {
  const int width = n < 256 ? 1 : n < 65536 ? 2 : 3;
  const size_t off = static_cast<size_t>(n - 1) * SERVE_BLOCK;
  const size_t bytes = off < content.size() ? std::min(content.size() - off, size_t{SERVE_BLOCK}) : 0;
  std::vector<uint8_t> d(1 + static_cast<size_t>(width) + bytes);  // sized once: g++ 12 at -O2 misreads appends here
  d[0] = static_cast<uint8_t>(4 + width);
  for (int i = 0; i < width; ++i) d[1 + static_cast<size_t>(i)] = static_cast<uint8_t>(n >> (8 * (width - 1 - i)));
  std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(std::min(off, content.size())), bytes,
              d.begin() + 1 + width);
  return d;
}

// Whether an acknowledgement (code 9 or 14 at `ack`) reports block b received.
inline bool ackHas(const uint8_t *ack, size_t len, uint32_t b) {
  if (len < 5) return false;
  uint32_t base = static_cast<uint32_t>(ack[1]) << 24 | ack[2] << 16 | ack[3] << 8 | ack[4];
  size_t byte = (b - base) / 8;
  return b < base || (5 + byte < len && (ack[5 + byte] & (0x80 >> (b % 8))) != 0);
}

struct ServeOptions {
  bool answer = true;   // false: a remote that never answers
  int dropPercent = 0;  // blocks lost on their first sending (seeded)
  uint32_t seed = 1;
  int dropMetadata = 0;        // metadata datagrams lost before one gets through
  bool blocksOnRepeat = true;  // false: a repeated request gets the metadata only
};

struct Served {
  std::vector<std::vector<uint8_t>> requests, acks, finals;  // codes 10/2/11, 9, 14
  std::vector<long long> ackMs, finalMs;                     // when each arrived
  std::set<uint32_t> dropped;
};

// The last seven of `acks` are `expected`, 300 ms apart: the closing round.
inline void expectClosing(const std::vector<std::vector<uint8_t>> &acks, const std::vector<long long> &ms,
                          const std::vector<uint8_t> &expected) {
  ASSERT_GE(acks.size(), 7u);
  for (size_t i = acks.size() - 7; i < acks.size(); ++i) EXPECT_EQ(acks[i], expected) << i;
  EXPECT_GE(ms.back() - ms[ms.size() - 7], 1700);
}

// Serves `content` to whichever client writes, until `client` has ended (at most 30 s).
inline Served serveFile(UdpPeer &peer, pid_t client, const std::string &content, const ServeOptions &o = {}) {
  Served seen;
  uint32_t lastBlk = static_cast<uint32_t>((content.size() + SERVE_BLOCK - 1) / SERVE_BLOCK) + 1;
  uint32_t rng = o.seed * 2654435761u + 7;
  std::set<uint32_t> sent;
  int metaToDrop = o.dropMetadata;
  sockaddr_in from{};
  auto answer = [&](const uint8_t *ack, size_t len, bool blocks) {
    if ((ack == nullptr || !ackHas(ack, len, 0)) && metaToDrop-- <= 0)
      peer.send(metadataDatagram(content.size(), md5Raw(content)), from);
    for (uint32_t b = 1; blocks && b < lastBlk; ++b) {
      if (ack != nullptr && ackHas(ack, len, b)) continue;
      rng ^= rng << 13, rng ^= rng >> 17, rng ^= rng << 5;
      if (sent.insert(b).second && static_cast<int>(rng % 100) < o.dropPercent)
        seen.dropped.insert(b);
      else
        peer.send(blockDatagram(content, b), from);
    }
  };
  uint8_t buf[2048];
  for (long long deadline = nowMs() + 30000; nowMs() < deadline;) {
    int n = peer.recv(buf, sizeof buf, &from, 50);
    if (n <= 0 && childEnded(client)) break;
    if (n <= 0) continue;
    std::vector<uint8_t> d(buf, buf + n);
    if (d[0] == 9) seen.acks.push_back(d), seen.ackMs.push_back(nowMs());
    if (d[0] == 14) seen.finals.push_back(d), seen.finalMs.push_back(nowMs());
    if (d[0] == 10 || d[0] == 2 || d[0] == 11) seen.requests.push_back(d);
    if (!o.answer || d[0] == 14) continue;
    if (d[0] == 9) {
      answer(buf, n, true);
      continue;
    }
    // A request's piggy-backed acknowledgement follows its name (a report request: its limits).
    size_t at = d[0] == 11 ? 9 + 9 * static_cast<size_t>(d[8]) : 8;
    while (d[0] != 11 && at < d.size() && d[at++] != 0) {}
    answer(at + 5 <= d.size() ? buf + at : nullptr, n - at, seen.requests.size() == 1 || o.blocksOnRepeat);
  }
  return seen;
}

// One run of a kestil command against a scripted remote on `ip`:3223, in its own directory
// holding `files` (name, content) when the command starts.
struct RemoteRun {
  std::string dir = makeTempDir();
  UdpPeer peer;
  Child child;
  sockaddr_in client{};
  RemoteRun(const char *ip, const std::string &command, std::vector<std::string> args,
            const std::map<std::string, std::string> &files = {}) {
    if (!peer.bind(ip, 3223)) {
      std::fprintf(stderr, "cannot bind %s:3223: another test holds it\n", ip);
      std::abort();
    }
    for (const auto &[name, content] : files) writeFile(dir + "/" + name, content);
    args.insert(args.begin(), {"-h", ip});
    child = start(dir, command, args);
  }
  ~RemoteRun() {  // a run left unfinished by a failed assertion does not outlive its test
    if (child.pid > 0) kill(child.pid, SIGKILL), kt::finish(child, 5000);
  }
  std::vector<uint8_t> recv(int timeoutMs = 5000) { return peer.recv(&client, timeoutMs); }
  void send(const std::vector<uint8_t> &d) { peer.send(d, client); }
  Served serve(const std::string &content, const ServeOptions &o = {}) {
    return serveFile(peer, child.pid, content, o);
  }
  Result finish() { return kt::finish(child, 30000); }
};

// A run as the operator sees it, standard output without progress redraws and block traces,
// its times as T and average as A.
inline Result plainShown(const Result &r) {
  static const std::regex noise("\r\\[[^\\]]{50}\\]|   block \\d+, ");
  static const std::regex elapsed("Elapsed time: \\d\\d:\\d\\d:\\d\\d\\.\\d{6}");
  static const std::regex avg("      Avg Bps: \\d+\\.\\d\\d");
  std::string s = std::regex_replace(r.out, noise, "");
  return {r.status, std::regex_replace(std::regex_replace(s, elapsed, "Elapsed time: T"), avg, " A"), r.err};
}

}  // namespace kt
