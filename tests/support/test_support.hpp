// Helpers shared by the whole suite: scripted UDP peers, runs of the real kestil executable,
// temporary files, digests, and listing files made without the listing writer.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace kt {

// A UDP socket bound to one loopback address and port, owned by the test. No address reuse:
// two tests that pick the same address and port make the second bind fail loudly instead of
// sharing (and stealing) each other's datagrams.
class UdpPeer {
 public:
  UdpPeer() = default;
  UdpPeer(const UdpPeer &) = delete;
  UdpPeer &operator=(const UdpPeer &) = delete;
  ~UdpPeer();
  bool bind(const char *ip, uint16_t port);  // port 0: any free port; false on failure
  // One datagram within timeoutMs; its length, or -1 on time-out or error.
  int recv(uint8_t *buf, int size, sockaddr_in *from, int timeoutMs);
  std::vector<uint8_t> recv(sockaddr_in *from, int timeoutMs);  // empty on time-out
  int send(const void *buf, int len, const sockaddr_in &to);
  int send(const std::vector<uint8_t> &d, const sockaddr_in &to) { return send(d.data(), int(d.size()), to); }
  const sockaddr_in &address() const { return addr_; }
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
  sockaddr_in addr_{};
};

// What a run shows the operator, compared whole: exit status (-1 when killed by a signal, the
// test's deadline among them), standard output, standard error.
struct Result {
  int status = -1;
  std::string out, err;
  bool operator==(const Result &) const = default;
};
inline void PrintTo(const Result &r, std::ostream *os) {
  *os << "status " << r.status << ", out \"" << r.out << "\", err \"" << r.err << "\"";
}

// A run as the operator sees it: standard output without progress redraws and block traces,
// its times as T and average as A.
Result plainShown(const Result &r);

// A running kestil process; its stdout and stderr go to files in its working directory.
struct Child {
  pid_t pid = -1;
  std::string outPath, errPath;
};

// Starts `exe` (the kestil executable unless given) in `cwd` as argv0 (a command name such as
// "kestil-get", or "kestil" for first-argument dispatch) with `args`.
Child start(const std::string &cwd, const std::string &argv0, const std::vector<std::string> &args,
            const char *exe = nullptr);
// Waits up to timeoutMs for the child to end (SIGKILL after that) and collects its output.
Result finish(Child &child, int timeoutMs);
Result run(const std::string &cwd, const std::string &argv0, const std::vector<std::string> &args, int timeoutMs,
           const char *exe = nullptr);

long long nowMs();  // monotonic clock
// True once the child has ended; it stays unreaped for finish().
bool childEnded(pid_t pid);

// A fresh empty directory under $TMPDIR (or /tmp), removed with all it holds when the test
// process exits.
std::string makeTempDir();
std::string readFile(const std::string &path);
bool writeFile(const std::string &path, const std::string &content);  // creating the folders on the way
bool exists(const std::string &path);
// Deterministic pseudo-random content of `size` bytes.
std::string patternBytes(size_t size, uint32_t seed);
std::string md5Hex(const std::string &content);
std::string md5Raw(const std::string &content);  // the 16 digest bytes
std::vector<uint8_t> bytes(std::initializer_list<int> list);
// The blank-separated words of `line`: argument lists written as one string.
std::vector<std::string> words(const std::string &line);
// The names in `dir` that start with `prefix` ("" for all), sorted.
std::vector<std::string> namesStartingWith(const std::string &dir, const std::string &prefix);

// One listing record's bytes (big-endian length and size, group, priority, flags, name, NUL)
// and a zlib stream of any bytes: listing files as the remote side would serve them.
std::string rawRecord(const std::string &name, uint32_t size, uint8_t group, uint8_t priority, uint8_t flags);
std::string zlibOf(const std::string &plain);

}  // namespace kt
