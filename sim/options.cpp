// Parsing of the simulator's command line. Every value is checked in full: a script that
// passes "--loss 10" meaning ten percent is told so instead of getting a dead link.
#include "sim/options.hpp"

#include <arpa/inet.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

bool parseUnsigned(const char *text, uint64_t max, uint64_t *out) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  errno = 0;
  char *end = nullptr;
  unsigned long long v = std::strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

bool parseFraction(const char *text, double *out) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char *end = nullptr;
  double v = std::strtod(text, &end);
  if (errno != 0 || *end != '\0' || !std::isfinite(v) || v < 0.0 || v > 1.0) return false;
  *out = v;
  return true;
}

// A dotted IPv4 address; host names are not looked up, the simulator binds exact addresses.
bool parseAddr(const char *text, in_addr *out) { return text != nullptr && inet_pton(AF_INET, text, out) == 1; }

bool parseEndpoint(const char *text, sockaddr_in *out) {
  if (text == nullptr) return false;
  std::string_view s(text);
  size_t colon = s.rfind(':');
  if (colon == std::string_view::npos) return false;
  std::string host(s.substr(0, colon));
  std::string port(s.substr(colon + 1));
  uint64_t p = 0;
  *out = sockaddr_in{};
  out->sin_family = AF_INET;
  if (!parseAddr(host.c_str(), &out->sin_addr) || !parseUnsigned(port.c_str(), 65535, &p) || p == 0) return false;
  out->sin_port = htons(static_cast<uint16_t>(p));
  return true;
}

bool parsePass(const char *text, uint32_t *up, uint32_t *down) {
  if (text == nullptr) return false;
  std::string_view s(text);
  size_t colon = s.find(':');
  if (colon == std::string_view::npos) return false;
  std::string a(s.substr(0, colon));
  std::string b(s.substr(colon + 1));
  uint64_t u = 0;
  uint64_t d = 0;
  if (!parseUnsigned(a.c_str(), 86400, &u) || !parseUnsigned(b.c_str(), 86400, &d) || u == 0) return false;
  *up = static_cast<uint32_t>(u);
  *down = static_cast<uint32_t>(d);
  return true;
}

}  // namespace

const char *simUsage() {
  return "usage: kestil-sim [--root DIR] [--addr ADDR] [--port N] [--filemgr-port N] [--queue FILE]\n"
         "                  [link options] [--idle S] [--pace N | --pace-rate BITS_PER_S] [--ack-interval MS] "
         "[--ack-blocks N] [-v]\n"
         "                  [--pcap FILE]\n"
         "       kestil-sim --relay LISTEN_ADDR:PORT UPSTREAM_ADDR:PORT [link options] [--idle S] [-v] [--pcap FILE]\n"
         "link options: --rate BITS_PER_S --delay MS --loss P --dup P --reorder P --pass UP_S:DOWN_S --seed N\n"
         "              --pass-start UNIX_S\n"
         "              (P is a fraction: 0.1 is 10%)\n";
}

ParseOutcome parseSimOptions(int argc, const char *const *argv, SimOptions *opts, std::string *error) {
  inet_pton(AF_INET, "127.0.0.1", &opts->addr);
  for (int i = 1; i < argc; ++i) {
    std::string_view name(argv[i]);
    if (name == "-h" || name == "--help") return ParseOutcome::Help;
    if (name == "-v" || name == "--verbose") {
      opts->verbose = true;
      continue;
    }
    // Every other option takes a value, either as "--name=value" or as the next argument.
    std::string inlineValue;
    bool hasInline = false;
    if (name.starts_with("--")) {
      size_t eq = name.find('=');
      if (eq != std::string_view::npos) {
        inlineValue = std::string(name.substr(eq + 1));
        name = name.substr(0, eq);
        hasInline = true;
      }
    }
    auto takeValue = [&](const char **value) {
      if (hasInline) {
        *value = inlineValue.c_str();
        return true;
      }
      if (i + 1 >= argc) return false;
      *value = argv[++i];
      return true;
    };
    const char *value = nullptr;
    std::string opt(name);
    auto bad = [&](const char *what) {
      *error = "bad value for " + opt + ": '" + (value != nullptr ? value : "") + "' (" + what + ")";
      return ParseOutcome::Error;
    };
    if (opt != "--root" && opt != "--addr" && opt != "--port" && opt != "--filemgr-port" && opt != "--queue" &&
        opt != "--rate" && opt != "--delay" && opt != "--loss" && opt != "--dup" && opt != "--reorder" &&
        opt != "--pass" && opt != "--pass-start" && opt != "--seed" && opt != "--idle" && opt != "--pace" &&
        opt != "--pace-rate" && opt != "--ack-interval" && opt != "--ack-blocks" && opt != "--relay" &&
        opt != "--pcap") {
      *error = "unknown option '" + std::string(argv[i]) + "'";
      return ParseOutcome::Error;
    }
    if (!takeValue(&value)) {
      *error = "option " + opt + " needs a value";
      return ParseOutcome::Error;
    }
    uint64_t n = 0;
    if (opt == "--root") {
      if (*value == '\0') return bad("a directory");
      opts->root = value;
    } else if (opt == "--addr") {
      if (!parseAddr(value, &opts->addr)) return bad("a dotted IPv4 address");
    } else if (opt == "--port" || opt == "--filemgr-port") {
      if (!parseUnsigned(value, 65535, &n) || n == 0) return bad("a port from 1 to 65535");
      (opt == "--port" ? opts->port : opts->filemgrPort) = static_cast<uint16_t>(n);
    } else if (opt == "--queue") {
      if (*value == '\0') return bad("a file name");
      opts->queueFile = value;
    } else if (opt == "--rate") {
      if (!parseUnsigned(value, 100000000000ull, &n)) return bad("bits per second, 0 for unlimited");
      opts->link.rateBps = n;
    } else if (opt == "--delay") {
      if (!parseUnsigned(value, 600000, &n)) return bad("milliseconds");
      opts->link.delayMs = static_cast<uint32_t>(n);
    } else if (opt == "--loss" || opt == "--dup" || opt == "--reorder") {
      double p = 0;
      if (!parseFraction(value, &p)) return bad("a fraction from 0 to 1, 0.1 = 10%");
      (opt == "--loss" ? opts->link.loss : opt == "--dup" ? opts->link.dup : opts->link.reorder) = p;
    } else if (opt == "--pass") {
      if (!parsePass(value, &opts->link.passUpS, &opts->link.passDownS)) return bad("UP_S:DOWN_S with UP_S above 0");
    } else if (opt == "--pass-start") {
      if (!parseUnsigned(value, INT64_MAX / 1000000, &n) || n == 0) return bad("seconds since the epoch");
      opts->passStartUnixS = static_cast<int64_t>(n);
    } else if (opt == "--seed") {
      if (!parseUnsigned(value, UINT64_MAX, &n)) return bad("a non-negative integer");
      opts->link.seed = n;
    } else if (opt == "--idle") {
      if (!parseUnsigned(value, 86400, &n) || n == 0) return bad("seconds, at least 1");
      opts->idleS = static_cast<uint32_t>(n);
    } else if (opt == "--pace") {
      if (!parseUnsigned(value, 1000000, &n)) return bad("datagrams per second, 0 for the default");
      opts->pace = static_cast<uint32_t>(n);
    } else if (opt == "--pace-rate") {
      if (!parseUnsigned(value, 10000000000ull, &n)) return bad("bits per second, 0 for the default");
      opts->paceBits = n;
    } else if (opt == "--ack-interval") {
      if (!parseUnsigned(value, 60000, &n) || n == 0) return bad("milliseconds, at least 1");
      opts->ackIntervalMs = static_cast<uint32_t>(n);
    } else if (opt == "--ack-blocks") {
      if (!parseUnsigned(value, 1024, &n) || n == 0) return bad("blocks, 1 to 1024");
      opts->ackBlocks = static_cast<uint32_t>(n);
    } else if (opt == "--pcap") {
      if (*value == '\0') return bad("a file name");
      opts->pcapPath = value;
    } else if (opt == "--relay") {
      const char *upstream = i + 1 < argc ? argv[++i] : nullptr;
      if (!parseEndpoint(value, &opts->relayListen)) return bad("LISTEN_ADDR:PORT");
      value = upstream;
      if (!parseEndpoint(upstream, &opts->relayUpstream)) return bad("UPSTREAM_ADDR:PORT after the listen address");
      opts->relay = true;
    }
  }
  return ParseOutcome::Run;
}

uint32_t effectivePace(const SimOptions &opts, uint32_t blockSize) {
  if (opts.pace > 0) return opts.pace;
  if (opts.link.rateBps > 0) {
    // A full data block travels with its largest header and the IP/UDP overhead.
    uint64_t bits = (static_cast<uint64_t>(blockSize) + 5 + LINK_IP_UDP_OVERHEAD) * 8;
    uint64_t perSecond = opts.link.rateBps / bits;
    return perSecond > 0 ? static_cast<uint32_t>(perSecond) : 1;
  }
  // Unlimited link: fast, yet slow enough that a client on the same host keeps up.
  return 2000;
}

double effectivePaceBits(const SimOptions &opts, uint32_t blockSize) {
  if (opts.paceBits > 0) return static_cast<double>(opts.paceBits);
  if (opts.pace == 0 && opts.link.rateBps > 0) return static_cast<double>(opts.link.rateBps);
  double fullBits = (static_cast<double>(blockSize) + 5 + LINK_IP_UDP_OVERHEAD) * 8;
  return static_cast<double>(effectivePace(opts, blockSize)) * fullBits;
}
