// The harness the fuzz targets share: a scratch folder, files written or the run aborted, and
// one input split into option bytes and a run of length-prefixed datagrams, so that one input
// can drive a whole exchange.
#pragma once

#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace fz {

// A fresh directory under $TMPDIR (or /tmp) named after `tag`, removed with all it holds when
// the process exits. One per target: keep it in a static.
inline std::string scratchDir(const std::string &tag) {
  const char *base = std::getenv("TMPDIR");
  static std::string dir = std::string(base != nullptr ? base : "/tmp") + "/kestil-fuzz-" + tag + ".XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) std::abort();
  std::atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  });
  return dir;
}

// A broken rule: said on stderr, then the abort the fuzzing engine reports.
[[noreturn, gnu::format(printf, 1, 2)]] inline void fail(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  std::vfprintf(stderr, format, ap);
  va_end(ap);
  std::fputc('\n', stderr);
  std::abort();
}

inline void writeFile(const std::string &path, const void *data, size_t len) {
  FILE *f = std::fopen(path.c_str(), "wb");
  bool ok = f != nullptr && std::fwrite(data, 1, len, f) == len;
  if (f == nullptr || std::fclose(f) != 0 || !ok) fail("cannot write %s", path.c_str());
}

struct Input {
  const uint8_t *p;
  size_t len;

  uint8_t byte() {
    if (len == 0) return 0;
    --len;
    return *p++;
  }
  // Up to n bytes into `out`, the rest of it zero-filled.
  void take(void *out, size_t n) {
    size_t got = n < len ? n : len;
    std::memset(out, 0, n);
    std::memcpy(out, p, got);
    p += got;
    len -= got;
  }
  // Each datagram in turn, copied into a buffer of exactly Max bytes (as a receive loop's own
  // buffer) and handed to step(buf, n, lead), until the input is used up or step returns false.
  // A datagram is a lead byte when asked for, a two-byte big-endian length (taken modulo
  // Max + 1), then that many bytes or what is left.
  template <size_t Max, typename Step>
  void datagrams(Step step, bool withLead = false) {
    for (uint8_t lead = withLead ? byte() : 0; len >= 2; lead = withLead ? byte() : 0) {
      size_t want = (static_cast<size_t>(p[0]) << 8 | p[1]) % (Max + 1);
      p += 2;
      len -= 2;
      uint8_t buf[Max];
      size_t n = want < len ? want : len;
      std::memcpy(buf, p, n);
      p += n;
      len -= n;
      if (!step(buf, n, lead)) return;
    }
  }
};

}  // namespace fz
