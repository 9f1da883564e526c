// Splits one fuzz input into the pieces a target feeds to the code under test: option bytes
// and a run of length-prefixed datagrams, so one input can drive a whole exchange.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace fz {

// A fresh directory under $TMPDIR (or /tmp) named after `tag`, removed with all it holds when
// the process exits. One per target.
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

struct Input {
  const uint8_t *p;
  size_t len;

  uint8_t byte() {
    if (len == 0) return 0;
    --len;
    return *p++;
  }
  // Next datagram: a two-byte big-endian length (taken modulo max + 1), then that many bytes
  // or what is left. False once the input is used up.
  bool datagram(size_t max, const uint8_t **data, size_t *n) {
    if (len < 2) return false;
    size_t want = (static_cast<size_t>(p[0]) << 8 | p[1]) % (max + 1);
    p += 2;
    len -= 2;
    *n = want < len ? want : len;
    *data = p;
    p += *n;
    len -= *n;
    return true;
  }
};

}  // namespace fz
