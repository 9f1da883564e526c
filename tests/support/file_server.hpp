// A scripted remote file service for end-to-end tests: datagrams built as the remote side
// builds them, and runs of a command against a peer that answers as each test scripts it and
// records what the client sent, byte for byte.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
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

// What a client sent until it ended: requests (codes 10, 2, 11), acknowledgements (9) and
// their closing form (14), with the times the acknowledgements came.
struct Heard {
  std::vector<std::vector<uint8_t>> requests, acks, finals;
  std::vector<long long> ackMs, finalMs;
};

// The last seven of `acks` are `expected`, 300 ms apart: the closing round.
inline void expectClosing(const std::vector<std::vector<uint8_t>> &acks, const std::vector<long long> &ms,
                          const std::vector<uint8_t> &expected) {
  ASSERT_GE(acks.size(), 7u);
  for (size_t i = acks.size() - 7; i < acks.size(); ++i) EXPECT_EQ(acks[i], expected) << i;
  EXPECT_GE(ms.back() - ms[ms.size() - 7], 1700);
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
  // Answers the request with `content` whole, its metadata first.
  void sendFile(const std::string &content) {
    send(metadataDatagram(content.size(), md5Raw(content)));
    for (uint32_t b = 1; b <= (content.size() + SERVE_BLOCK - 1) / SERVE_BLOCK; ++b) send(blockDatagram(content, b));
  }
  // What the client sends until it ends (at most 30 s).
  Heard listen() {
    Heard h;
    for (long long deadline = nowMs() + 30000; nowMs() < deadline;) {
      std::vector<uint8_t> d = peer.recv(&client, 50);
      if (d.empty() && childEnded(child.pid)) break;
      if (d.empty()) continue;
      if (d[0] == 9) h.acks.push_back(d), h.ackMs.push_back(nowMs());
      if (d[0] == 14) h.finals.push_back(d), h.finalMs.push_back(nowMs());
      if (d[0] == 10 || d[0] == 2 || d[0] == 11) h.requests.push_back(d);
    }
    return h;
  }
  Result finish() { return kt::finish(child, 30000); }
};

}  // namespace kt
