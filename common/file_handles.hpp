// Small owners of what a function opens for itself: a file descriptor and a shared memory
// mapping, released when the owner goes out of scope or is reset. The process-wide `fd` and
// `outputFd` stay plain ints, closed by `cleanup`.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <utility>

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
  UniqueFd &operator=(UniqueFd &&other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// The fields stay open to readers: the state files' users reach the record through `addr`.
struct Mapping {
  void *addr = nullptr;
  size_t size = 0;

  Mapping() = default;
  Mapping(Mapping &&other) noexcept : addr(std::exchange(other.addr, nullptr)), size(std::exchange(other.size, 0)) {}
  Mapping &operator=(Mapping &&other) noexcept {
    if (this != &other) {
      reset();
      addr = std::exchange(other.addr, nullptr);
      size = std::exchange(other.size, 0);
    }
    return *this;
  }
  ~Mapping() { reset(); }

  // The first `length` bytes of `fd`, mapped shared with the file; empty (addr null) when
  // mmap fails, with errno saying why.
  static Mapping shared(int fd, size_t length, int prot) {
    Mapping m;
    void *at = mmap(nullptr, length, prot, MAP_SHARED, fd, 0);
    if (at == MAP_FAILED) return m;
    m.addr = at;
    m.size = length;
    return m;
  }
  void reset() {
    if (addr != nullptr) munmap(addr, size);
    addr = nullptr;
    size = 0;
  }
};
