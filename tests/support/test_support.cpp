// Scripted UDP peers and subprocess runs for the end-to-end tests.
#include "tests/support/test_support.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <md5.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#ifndef KESTIL_BIN
#error "KESTIL_BIN must name the kestil executable"
#endif

namespace kt {

Result plainShown(const Result &r) {
  static const std::regex noise("\r\\[[^\\]]{50}\\]|   block \\d+, ");
  static const std::regex elapsed("Elapsed time: \\d\\d:\\d\\d:\\d\\d\\.\\d{6}");
  static const std::regex avg("      Avg Bps: \\d+\\.\\d\\d");
  std::string s = std::regex_replace(r.out, noise, "");
  return {r.status, std::regex_replace(std::regex_replace(s, elapsed, "Elapsed time: T"), avg, " A"), r.err};
}

long long nowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool childEnded(pid_t pid) {
  siginfo_t si{};
  return waitid(P_PID, static_cast<id_t>(pid), &si, WEXITED | WNOHANG | WNOWAIT) == 0 && si.si_pid == pid;
}

UdpPeer::~UdpPeer() {
  if (fd_ >= 0) close(fd_);
}

bool UdpPeer::bind(const char *ip, uint16_t port) {
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  addr_ = {AF_INET, htons(port), {}, {}};
  socklen_t len = sizeof addr_;
  return fd_ >= 0 && inet_aton(ip, &addr_.sin_addr) != 0 &&
         ::bind(fd_, reinterpret_cast<sockaddr *>(&addr_), sizeof addr_) == 0 &&
         getsockname(fd_, reinterpret_cast<sockaddr *>(&addr_), &len) == 0;
}

int UdpPeer::recv(uint8_t *buf, int size, sockaddr_in *from, int timeoutMs) {
  pollfd p{fd_, POLLIN, 0};
  for (long long deadline = nowMs() + timeoutMs;;) {
    int ready = poll(&p, 1, static_cast<int>(std::max(0LL, deadline - nowMs())));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return -1;
    socklen_t len = sizeof(sockaddr_in);
    sockaddr_in sender{};
    ssize_t n = recvfrom(fd_, buf, static_cast<size_t>(size), 0, reinterpret_cast<sockaddr *>(&sender), &len);
    if (from != nullptr) *from = sender;
    return n < 0 ? -1 : static_cast<int>(n);
  }
}

std::vector<uint8_t> UdpPeer::recv(sockaddr_in *from, int timeoutMs) {
  std::vector<uint8_t> buf(2048);
  buf.resize(std::max(0, recv(buf.data(), static_cast<int>(buf.size()), from, timeoutMs)));
  return buf;
}

int UdpPeer::send(const void *buf, int len, const sockaddr_in &to) {
  return static_cast<int>(
      sendto(fd_, buf, static_cast<size_t>(len), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to));
}

Child start(const std::string &cwd, const std::string &argv0, const std::vector<std::string> &args, const char *exe) {
  static int serial = 0;
  std::string stem = cwd + "/.kt-run-" + std::to_string(getpid()) + "-" + std::to_string(serial++);
  Child child{-1, stem + ".out", stem + ".err"};
  std::vector<char *> argv{const_cast<char *>(argv0.c_str())};
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  child.pid = fork();
  if (child.pid == 0) {
    int in = open("/dev/null", O_RDONLY), out = open(child.outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644),
        err = open(child.errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (chdir(cwd.c_str()) == 0 && in >= 0 && out >= 0 && err >= 0 && dup2(in, 0) == 0 && dup2(out, 1) == 1 &&
        dup2(err, 2) == 2)
      execv(exe != nullptr ? exe : KESTIL_BIN, argv.data());
    _exit(127);
  }
  return child;
}

Result finish(Child &child, int timeoutMs) {
  Result r;
  if (child.pid <= 0) return r;  // never started, or already collected
  int status = 0;
  for (long long deadline = nowMs() + timeoutMs; waitpid(child.pid, &status, WNOHANG) != child.pid; usleep(2000)) {
    if (nowMs() > deadline) {
      kill(child.pid, SIGKILL);
      waitpid(child.pid, &status, 0);
      break;
    }
  }
  r = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(child.outPath), readFile(child.errPath)};
  unlink(child.outPath.c_str());
  unlink(child.errPath.c_str());
  child.pid = -1;
  return r;
}

Result run(const std::string &cwd, const std::string &argv0, const std::vector<std::string> &args, int timeoutMs,
           const char *exe) {
  Child child = start(cwd, argv0, args, exe);
  return finish(child, timeoutMs);
}

std::string makeTempDir() {
  // Every test case runs in a process of its own, so its exit is the end of the test; a forked
  // child leaves the directories to the test.
  static struct Made {
    pid_t owner = getpid();
    std::vector<std::string> paths;
    ~Made() {
      std::error_code ec;
      for (const std::string &p : paths)
        if (getpid() == owner) std::filesystem::remove_all(p, ec);
    }
  } made;
  const char *base = std::getenv("TMPDIR");
  std::string templ = std::string(base != nullptr ? base : "/tmp") + "/kestil-test-XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) return std::string();
  made.paths.push_back(templ);
  return templ;
}

std::string readFile(const std::string &path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

bool writeFile(const std::string &path, const std::string &content) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  return static_cast<bool>(std::ofstream(path, std::ios::binary | std::ios::trunc) << content);
}

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

std::string patternBytes(size_t size, uint32_t seed) {
  std::string s(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (char &c : s) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    c = static_cast<char>(x);
  }
  return s;
}

std::string md5Raw(const std::string &content) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, reinterpret_cast<const uint8_t *>(content.data()), content.size());
  uint8_t digest[16];
  MD5Final(digest, &ctx);
  return std::string(reinterpret_cast<const char *>(digest), 16);
}

std::string md5Hex(const std::string &content) {
  char hex[MD5_DIGEST_STRING_LENGTH];
  return MD5Data(reinterpret_cast<const uint8_t *>(content.data()), content.size(), hex);
}

std::vector<uint8_t> bytes(std::initializer_list<int> list) { return std::vector<uint8_t>(list.begin(), list.end()); }

std::vector<std::string> words(const std::string &line) {
  std::istringstream in(line);
  std::vector<std::string> out;
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

std::vector<std::string> namesStartingWith(const std::string &dir, const std::string &prefix) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto &e : std::filesystem::directory_iterator(dir, ec))
    if (std::string n = e.path().filename(); n.starts_with(prefix)) names.push_back(n);
  std::sort(names.begin(), names.end());
  return names;
}

std::string rawRecord(const std::string &name, uint32_t size, uint8_t group, uint8_t priority, uint8_t flags) {
  const size_t len = 10 + name.size();
  return std::string{char(len >> 8), char(len),   char(size >> 24), char(size >> 16), char(size >> 8),
                     char(size),     char(group), char(priority),   char(flags)} +
         name + '\0';
}

std::string zlibOf(const std::string &plain) {
  uLongf cap = compressBound(plain.size());
  std::string out(cap, '\0');
  compress(reinterpret_cast<Bytef *>(out.data()), &cap, reinterpret_cast<const Bytef *>(plain.data()), plain.size());
  return out.substr(0, cap);
}

}  // namespace kt
