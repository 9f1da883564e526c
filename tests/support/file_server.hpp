// A scripted remote file service for end-to-end tests of the receive sessions: it answers the
// requests of one running client with metadata and data blocks, resends what the client's
// acknowledgements report missing, and records everything the client sent.
#pragma once

#include <md5.h>
#include <zlib.h>
#include <dirent.h>
#include <sys/wait.h>
#include <time.h>

#include <cstdint>
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

inline std::string md5Raw(const std::string &content) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, reinterpret_cast<const uint8_t *>(content.data()), content.size());
  uint8_t d[16];
  MD5Final(d, &ctx);
  return std::string(reinterpret_cast<char *>(d), 16);
}

inline std::vector<uint8_t> metadataDatagram(uint32_t size, const std::string &md5, uint32_t reqId = 1,
                                             uint32_t modTime = 1700000000) {
  std::vector<uint8_t> m{4};
  putBe32(m, reqId);
  putBe32(m, size);
  putBe32(m, modTime);
  putBe32(m, 0);
  m.insert(m.end(), md5.begin(), md5.end());
  return m;
}

// Data block n of `content`, with the narrowest block-number width.
inline std::vector<uint8_t> blockDatagram(const std::string &content, uint32_t n) {
  int width = n < 256 ? 1 : n < 65536 ? 2 : n < 16777216 ? 3 : 4;
  std::vector<uint8_t> d{static_cast<uint8_t>(4 + width)};
  for (int i = width - 1; i >= 0; --i) d.push_back(static_cast<uint8_t>(n >> (8 * i)));
  size_t off = static_cast<size_t>(n - 1) * SERVE_BLOCK;
  if (off < content.size()) {
    size_t len = std::min<size_t>(SERVE_BLOCK, content.size() - off);
    d.insert(d.end(), content.begin() + static_cast<long>(off), content.begin() + static_cast<long>(off + len));
  }
  return d;
}

inline uint32_t blocksOf(const std::string &content) {
  return static_cast<uint32_t>((content.size() + SERVE_BLOCK - 1) / SERVE_BLOCK);
}

struct ListingEntry {
  std::string name;
  uint32_t size;
  uint8_t group, priority, flags;
};

// A listing file as the remote side serves it: one zlib stream of big-endian records.
inline std::string listingFile(const std::vector<ListingEntry> &entries) {
  std::string raw;
  for (const ListingEntry &e : entries) {
    size_t len = 10 + e.name.size();
    raw += static_cast<char>(len >> 8);
    raw += static_cast<char>(len);
    for (int s = 24; s >= 0; s -= 8) raw += static_cast<char>(e.size >> s);
    raw += static_cast<char>(e.group);
    raw += static_cast<char>(e.priority);
    raw += static_cast<char>(e.flags);
    raw += e.name;
    raw += '\0';
  }
  uLongf outLen = compressBound(raw.size());
  std::string out(outLen, '\0');
  compress2(reinterpret_cast<Bytef *>(out.data()), &outLen, reinterpret_cast<const Bytef *>(raw.data()), raw.size(),
            9);
  out.resize(outLen);
  return out;
}

// The names in `dir` that start with `prefix`.
inline std::vector<std::string> namesStartingWith(const std::string &dir, const std::string &prefix) {
  std::vector<std::string> names;
  if (DIR *d = opendir(dir.c_str())) {
    while (dirent *e = readdir(d))
      if (std::string(e->d_name).rfind(prefix, 0) == 0) names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

// Whether an acknowledgement (code 9 or 14, starting at `ack`) reports block b received.
inline bool ackHas(const uint8_t *ack, size_t len, uint32_t b) {
  if (len < 5) return false;
  uint32_t base = static_cast<uint32_t>(ack[1]) << 24 | ack[2] << 16 | ack[3] << 8 | ack[4];
  if (b < base) return true;
  size_t byte = (b - base) / 8;
  if (5 + byte >= len) return false;
  return (ack[5 + byte] & (0x80 >> (b % 8))) != 0;
}

struct ServeOptions {
  bool answer = true;            // false: a remote that never answers
  int dropPercent = 0;           // blocks lost on their first sending (seeded)
  uint32_t seed = 1;
  int dropMetadata = 0;          // metadata datagrams lost before one gets through
  std::string md5;               // a digest to announce instead of the real one
  uint32_t firstBlocks = UINT32_MAX;  // blocks sent in answer to a request (the rest only on acks)
  bool resend = true;            // answer acknowledgements with the blocks they miss
  bool blocksOnRepeat = true;    // false: a repeated request gets the metadata only
  pid_t alsoWaitFor = -1;        // a second client served at the same time
  int deadlineMs = 20000;
};

struct Served {
  std::vector<std::vector<uint8_t>> requests;  // codes 10, 2, 11 in arrival order
  std::vector<std::vector<uint8_t>> acks;      // code 9
  std::vector<std::vector<uint8_t>> finals;    // code 14
  std::vector<long long> finalTimesMs;
  std::vector<long long> ackTimesMs;
  std::set<uint32_t> dropped;
};

inline long long monoMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// True once the child has ended; it stays unreaped for kt::finish.
inline bool childEnded(pid_t pid) {
  siginfo_t si{};
  return waitid(P_PID, static_cast<id_t>(pid), &si, WEXITED | WNOHANG | WNOWAIT) == 0 && si.si_pid == pid;
}

// Where a request's piggy-backed acknowledgement starts, or its length when it has none.
inline size_t piggyBackAt(const std::vector<uint8_t> &req) {
  if (req[0] == 11) return req.size() > 8 ? 9 + 9 * static_cast<size_t>(req[8]) : req.size();
  size_t i = 8;
  while (i < req.size() && req[i] != 0) ++i;
  return i + 1;
}

// Serves `content` to the client until it has ended (or the deadline passed).
inline Served serveFile(UdpPeer &peer, pid_t client, const std::string &content, const ServeOptions &o = {}) {
  Served seen;
  uint32_t lastBlk = blocksOf(content) + 1;
  std::string md5 = o.md5.empty() ? md5Raw(content) : o.md5;
  uint32_t rng = o.seed * 2654435761u + 7;
  std::set<uint32_t> sentOnce;
  int metaToDrop = o.dropMetadata;
  sockaddr_in from{};
  auto sendMeta = [&] {
    if (metaToDrop > 0) {
      --metaToDrop;
      return;
    }
    peer.send(metadataDatagram(static_cast<uint32_t>(content.size()), md5), from);
  };
  auto sendBlock = [&](uint32_t b) {
    bool first = sentOnce.insert(b).second;
    rng ^= rng << 13;
    rng ^= rng >> 17;
    rng ^= rng << 5;
    if (first && static_cast<int>(rng % 100) < o.dropPercent) {
      seen.dropped.insert(b);
      return;
    }
    peer.send(blockDatagram(content, b), from);
  };
  long long deadline = monoMs() + o.deadlineMs;
  uint8_t buf[2048];
  while (monoMs() < deadline) {
    int n = peer.recv(buf, sizeof buf, &from, 50);
    if (n <= 0) {
      if (childEnded(client) && (o.alsoWaitFor < 0 || childEnded(o.alsoWaitFor))) break;
      continue;
    }
    std::vector<uint8_t> d(buf, buf + n);
    if (d[0] == 10 || d[0] == 2 || d[0] == 11) {
      seen.requests.push_back(d);
      if (!o.answer) continue;
      bool repeated = seen.requests.size() > 1;
      size_t at = piggyBackAt(d);
      bool hasAck = at + 5 <= d.size();
      if (!hasAck || !ackHas(d.data() + at, d.size() - at, 0)) sendMeta();
      uint32_t sent = 0;
      for (uint32_t b = 1; b < lastBlk && sent < o.firstBlocks && (!repeated || o.blocksOnRepeat); ++b) {
        if (hasAck && ackHas(d.data() + at, d.size() - at, b)) continue;
        sendBlock(b);
        ++sent;
      }
    } else if (d[0] == 9) {
      seen.acks.push_back(d);
      seen.ackTimesMs.push_back(monoMs());
      if (!o.answer || !o.resend) continue;
      if (!ackHas(d.data(), d.size(), 0)) sendMeta();
      for (uint32_t b = 1; b < lastBlk; ++b)
        if (!ackHas(d.data(), d.size(), b)) sendBlock(b);
    } else if (d[0] == 14) {
      seen.finals.push_back(d);
      seen.finalTimesMs.push_back(monoMs());
    }
  }
  return seen;
}

// Standard output without the progress-bar redraws and the per-block traces.
inline std::string withoutRedraws(const std::string &out) {
  static const std::regex bar("\r\\[[^\\]]{50}\\]");
  static const std::regex trace("   block \\d+, ");
  return std::regex_replace(std::regex_replace(out, bar, ""), trace, "");
}

// The statistics line with its times replaced by T and its average by A.
inline std::string withoutTimes(const std::string &out) {
  static const std::regex elapsed("Elapsed time: \\d\\d:\\d\\d:\\d\\d\\.\\d{6}");
  static const std::regex avg("      Avg Bps: \\d+\\.\\d\\d");
  return std::regex_replace(std::regex_replace(out, elapsed, "Elapsed time: T"), avg, " A");
}

}  // namespace kt
