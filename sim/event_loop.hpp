// The simulator's single-threaded event loop: descriptors to watch and one-shot timers on
// the monotonic clock. Handlers get the loop's time so that nothing below reads the clock.
#pragma once

#include <csignal>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <unordered_map>
#include <utility>

using LoopHandler = std::function<void(int64_t nowUs)>;

struct EventLoop {
  struct Watch {
    int fd;
    LoopHandler onReadable;
  };
  std::deque<Watch> watches;                                   // a deque: handlers may add watches while one runs
  std::map<std::pair<int64_t, uint64_t>, LoopHandler> timers;  // (due, id): due order, then creation
  std::unordered_map<uint64_t, int64_t> timerDue;
  uint64_t nextTimerId = 1;
};

int64_t monotonicUs();
void loopWatch(EventLoop *loop, int fd, LoopHandler onReadable);
// Stops watching `fd`; safe from inside a handler. The caller closes the descriptor.
void loopUnwatch(EventLoop *loop, int fd);
// A one-shot timer; returns its id (never 0).
uint64_t loopAddTimer(EventLoop *loop, int64_t dueUs, LoopHandler fn);
// Cancelling an id that already fired (or 0) does nothing.
void loopCancelTimer(EventLoop *loop, uint64_t id);
// Due time of the earliest timer, or -1.
int64_t loopNextDue(const EventLoop *loop);
// Runs every timer due at `nowUs`, including ones that those timers add for the same moment.
void loopRunDue(EventLoop *loop, int64_t nowUs);
// Runs until `*stop` is set. SIGINT and SIGTERM are blocked except while waiting, so a
// signal always ends the wait that follows it. Returns 0, or -1 when waiting itself failed.
int loopRun(EventLoop *loop, const volatile sig_atomic_t *stop);
