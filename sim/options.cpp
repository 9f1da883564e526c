// Parsing of the simulator's command line. Every value is checked in full: a script that
// passes "--loss 10" meaning ten percent is told so instead of getting a dead link.
#include "sim/options.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "sim/path_confine.hpp"

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

// "A:B" split at its last colon; false when there is none.
bool splitAtColon(const char *text, std::string *a, std::string *b) {
  if (text == nullptr) return false;
  std::string_view s(text);
  size_t colon = s.rfind(':');
  if (colon == std::string_view::npos) return false;
  *a = s.substr(0, colon);
  *b = s.substr(colon + 1);
  return true;
}

bool parseEndpoint(const char *text, sockaddr_in *out) {
  std::string host, port;
  uint64_t p = 0;
  *out = sockaddr_in{};
  out->sin_family = AF_INET;
  if (!splitAtColon(text, &host, &port) || !parseAddr(host.c_str(), &out->sin_addr) ||
      !parseUnsigned(port.c_str(), 65535, &p) || p == 0)
    return false;
  out->sin_port = htons(static_cast<uint16_t>(p));
  return true;
}

bool parsePass(const char *text, uint32_t *up, uint32_t *down) {
  std::string a, b;
  uint64_t u = 0;
  uint64_t d = 0;
  if (!splitAtColon(text, &a, &b) || !parseUnsigned(a.c_str(), 86400, &u) || !parseUnsigned(b.c_str(), 86400, &d) ||
      u == 0)
    return false;
  *up = static_cast<uint32_t>(u);
  *down = static_cast<uint32_t>(d);
  return true;
}

// One row per option: its name, what its value looks like (null: a switch), what it does,
// and the parser that stores the value. The parser answers null, or what a good value is.
struct SimOptionRow {
  const char *name;
  const char *argument;
  const char *help;
  const char *(*parse)(const char *value, SimOptions *opts);
};

template <uint64_t Max, typename Field>
const char *storeUnsigned(const char *value, uint64_t min, Field *field, const char *expected) {
  uint64_t n = 0;
  if (!parseUnsigned(value, Max, &n) || n < min) return expected;
  *field = static_cast<Field>(n);
  return nullptr;
}

const char *storeText(const char *value, std::string *field, const char *expected) {
  if (*value == '\0') return expected;
  *field = value;
  return nullptr;
}

const char *storeFraction(const char *value, double *field) {
  return parseFraction(value, field) ? nullptr : "a fraction from 0 to 1, 0.1 = 10%";
}

// A file named as a get names it, under the root; kept in the form the request's path takes.
const char *storeServedPath(const char *value, std::set<std::string> *paths) {
  std::string rel;
  if (normaliseRemotePath(value, &rel) != PathVerdict::Inside || rel == ".") return "a file's path under the root";
  paths->insert(rel);
  return nullptr;
}

constexpr const char *PORT_EXPECTED = "a port from 1 to 65535";

const SimOptionRow OPTION_ROWS[] = {
    {"--root", "DIR", "the directory served (default: the working directory)",
     [](const char *v, SimOptions *o) { return storeText(v, &o->root, "a directory"); }},
    {"--addr", "ADDR", "the exact IPv4 address to bind (default 127.0.0.1)",
     [](const char *v, SimOptions *o) -> const char * {
       return parseAddr(v, &o->addr) ? nullptr : "a dotted IPv4 address";
     }},
    {"--port", "N", "the transfer service's port (default 3223)",
     [](const char *v, SimOptions *o) { return storeUnsigned<65535>(v, 1, &o->port, PORT_EXPECTED); }},
    {"--filemgr-port", "N", "the file manager's port (default 3224)",
     [](const char *v, SimOptions *o) { return storeUnsigned<65535>(v, 1, &o->filemgrPort, PORT_EXPECTED); }},
    {"--queue", "FILE", "the download queue's data file (default: .kestil-sim.qdata in the root)",
     [](const char *v, SimOptions *o) { return storeText(v, &o->queueFile, "a file name"); }},
    {"--rate", "BITS_PER_S", "link: rate each way, 0 for unlimited",
     [](const char *v, SimOptions *o) {
       return storeUnsigned<100000000000ull>(v, 0, &o->link.rateBps, "bits per second, 0 for unlimited");
     }},
    {"--delay", "MS", "link: one-way delay",
     [](const char *v, SimOptions *o) { return storeUnsigned<600000>(v, 0, &o->link.delayMs, "milliseconds"); }},
    {"--loss", "P", "link: share of datagrams lost each way (P is a fraction: 0.1 is 10%)",
     [](const char *v, SimOptions *o) { return storeFraction(v, &o->link.loss); }},
    {"--dup", "P", "link: share of datagrams delivered twice",
     [](const char *v, SimOptions *o) { return storeFraction(v, &o->link.dup); }},
    {"--reorder", "P", "link: share of datagrams held back behind the next",
     [](const char *v, SimOptions *o) { return storeFraction(v, &o->link.reorder); }},
    {"--corrupt", "P", "link: share of datagrams delivered with one bit flipped",
     [](const char *v, SimOptions *o) { return storeFraction(v, &o->link.corrupt); }},
    {"--pass", "UP_S:DOWN_S", "link: up for UP_S seconds, then down for DOWN_S, over and over",
     [](const char *v, SimOptions *o) -> const char * {
       return parsePass(v, &o->link.passUpS, &o->link.passDownS) ? nullptr : "UP_S:DOWN_S with UP_S above 0";
     }},
    {"--pass-start", "UNIX_S", "link: the first pass starts at this wall-clock time (default: at start-up)",
     [](const char *v, SimOptions *o) {
       return storeUnsigned<INT64_MAX / 1000000>(v, 1, &o->passStartUnixS, "seconds since the epoch");
     }},
    {"--seed", "N", "link: seed of the loss, duplication, corruption and reordering draws",
     [](const char *v, SimOptions *o) {
       return storeUnsigned<UINT64_MAX>(v, 0, &o->link.seed, "a non-negative integer");
     }},
    {"--idle", "S", "a transfer silent this long is dropped (default 60)",
     [](const char *v, SimOptions *o) { return storeUnsigned<86400>(v, 1, &o->idleS, "seconds, at least 1"); }},
    {"--pace", "N", "downloads: datagrams per second per transfer",
     [](const char *v, SimOptions *o) {
       return storeUnsigned<1000000>(v, 0, &o->pace, "datagrams per second, 0 for the default");
     }},
    {"--pace-rate", "BITS_PER_S", "downloads: bits per second of wire per transfer",
     [](const char *v, SimOptions *o) {
       return storeUnsigned<10000000000ull>(v, 0, &o->paceBits, "bits per second, 0 for the default");
     }},
    {"--ack-interval", "MS", "uploads: acknowledge at least this often (default 500)",
     [](const char *v, SimOptions *o) {
       return storeUnsigned<60000>(v, 1, &o->ackIntervalMs, "milliseconds, at least 1");
     }},
    {"--ack-blocks", "N", "uploads: or after this many new blocks (default 64)",
     [](const char *v, SimOptions *o) { return storeUnsigned<1024>(v, 1, &o->ackBlocks, "blocks, 1 to 1024"); }},
    {"--fail-get", "NAME", "fault: a get of NAME is answered with an error report (cannot open)",
     [](const char *v, SimOptions *o) { return storeServedPath(v, &o->failGet); }},
    {"--bad-digest", "NAME", "fault: the metadata of NAME carries a wrong MD5 digest",
     [](const char *v, SimOptions *o) { return storeServedPath(v, &o->badDigest); }},
    {"--change", "NAME", "fault: NAME changes once digested; the blocks served differ from it",
     [](const char *v, SimOptions *o) { return storeServedPath(v, &o->changing); }},
    {"--pcap", "FILE", "write every datagram to a capture file",
     [](const char *v, SimOptions *o) { return storeText(v, &o->pcapPath, "a file name"); }},
    {"-v", nullptr, "the protocol trace on standard output (also --verbose)",
     [](const char *, SimOptions *o) -> const char * {
       o->verbose = true;
       return nullptr;
     }},
};

const SimOptionRow *findOption(std::string_view name) {
  if (name == "--verbose") name = "-v";
  for (const SimOptionRow &row : OPTION_ROWS) {
    if (name == row.name) return &row;
  }
  return nullptr;
}

std::string buildUsage() {
  std::string text =
      "usage: kestil-sim [options]\n"
      "       kestil-sim --relay LISTEN_ADDR:PORT UPSTREAM_ADDR:PORT [link options] [--idle S] [-v] [--pcap FILE]\n"
      "       kestil-sim --help | --version\n"
      "options:\n";
  for (const SimOptionRow &row : OPTION_ROWS) {
    std::string left = std::string(row.name) + (row.argument != nullptr ? std::string(" ") + row.argument : "");
    left.resize(std::max<size_t>(left.size() + 1, 26), ' ');
    text += "  " + left + row.help + "\n";
  }
  return text;
}

// --relay takes two values, the listening and the upstream endpoint.
ParseOutcome parseRelay(int argc, const char *const *argv, int *i, SimOptions *opts, std::string *error) {
  const char *listen = *i + 1 < argc ? argv[++*i] : nullptr;
  const char *upstream = *i + 1 < argc ? argv[++*i] : nullptr;
  if (!parseEndpoint(listen, &opts->relayListen)) {
    *error = std::string("bad value for --relay: '") + (listen != nullptr ? listen : "") + "' (LISTEN_ADDR:PORT)";
    return ParseOutcome::Error;
  }
  if (!parseEndpoint(upstream, &opts->relayUpstream)) {
    *error = std::string("bad value for --relay: '") + (upstream != nullptr ? upstream : "") +
             "' (UPSTREAM_ADDR:PORT after the listen address)";
    return ParseOutcome::Error;
  }
  opts->relay = true;
  return ParseOutcome::Run;
}

}  // namespace

const char *simUsage() {
  static const std::string usage = buildUsage();
  return usage.c_str();
}

ParseOutcome parseSimOptions(int argc, const char *const *argv, SimOptions *opts, std::string *error) {
  inet_pton(AF_INET, "127.0.0.1", &opts->addr);
  for (int i = 1; i < argc; ++i) {
    std::string_view name(argv[i]);
    if (name == "-h" || name == "--help") return ParseOutcome::Help;
    if (name == "--version") return ParseOutcome::Version;
    if (name == "--relay") {
      if (parseRelay(argc, argv, &i, opts, error) == ParseOutcome::Error) return ParseOutcome::Error;
      continue;
    }
    // A value comes either as "--name=value" or as the next argument.
    std::string inlineValue;
    bool hasInline = false;
    size_t eq = name.find('=');
    if (name.starts_with("--") && eq != std::string_view::npos) {
      inlineValue = std::string(name.substr(eq + 1));
      name = name.substr(0, eq);
      hasInline = true;
    }
    const SimOptionRow *row = findOption(name);
    if (row == nullptr) {
      *error = "unknown option '" + std::string(argv[i]) + "'";
      return ParseOutcome::Error;
    }
    const char *value = "";
    if (row->argument != nullptr) {
      if (!hasInline && i + 1 >= argc) {
        *error = "option " + std::string(name) + " needs a value";
        return ParseOutcome::Error;
      }
      value = hasInline ? inlineValue.c_str() : argv[++i];
    }
    if (const char *expected = row->parse(value, opts); expected != nullptr) {
      *error = "bad value for " + std::string(name) + ": '" + value + "' (" + expected + ")";
      return ParseOutcome::Error;
    }
  }
  return ParseOutcome::Run;
}

double effectivePaceBits(const SimOptions &opts, uint32_t blockSize) {
  if (opts.paceBits > 0) return static_cast<double>(opts.paceBits);
  if (opts.pace == 0 && opts.link.rateBps > 0) return static_cast<double>(opts.link.rateBps);
  // A full data block travels with its largest header and the IP/UDP overhead. Without a
  // pace or a link rate: fast, yet slow enough that a client on the same host keeps up.
  double fullBits = (static_cast<double>(blockSize) + 5 + LINK_IP_UDP_OVERHEAD) * 8;
  return static_cast<double>(opts.pace > 0 ? opts.pace : 2000) * fullBits;
}
