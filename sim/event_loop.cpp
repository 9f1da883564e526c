// The wait-dispatch cycle: wait for readable descriptors until the next timer is due, read
// the clock once, run the handlers and the due timers.
#include "sim/event_loop.hpp"

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <vector>

int64_t monotonicUs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void loopWatch(EventLoop *loop, int fd, LoopHandler onReadable) {
  loop->watches.push_back({fd, std::move(onReadable)});
}

void loopUnwatch(EventLoop *loop, int fd) {
  for (EventLoop::Watch &w : loop->watches) {
    if (w.fd == fd) w.fd = -1;  // removed at the top of the next cycle, when no handler runs
  }
}

uint64_t loopAddTimer(EventLoop *loop, int64_t dueUs, LoopHandler fn) {
  uint64_t id = loop->nextTimerId++;
  loop->timers.emplace(std::make_pair(dueUs, id), std::move(fn));
  loop->timerDue.emplace(id, dueUs);
  return id;
}

void loopCancelTimer(EventLoop *loop, uint64_t id) {
  auto it = loop->timerDue.find(id);
  if (it == loop->timerDue.end()) return;
  loop->timers.erase({it->second, id});
  loop->timerDue.erase(it);
}

int64_t loopNextDue(const EventLoop *loop) { return loop->timers.empty() ? -1 : loop->timers.begin()->first.first; }

void loopRunDue(EventLoop *loop, int64_t nowUs) {
  while (!loop->timers.empty() && loop->timers.begin()->first.first <= nowUs) {
    auto it = loop->timers.begin();
    LoopHandler fn = std::move(it->second);
    loop->timerDue.erase(it->first.second);
    loop->timers.erase(it);
    fn(nowUs);
  }
}

int loopRun(EventLoop *loop, const volatile sig_atomic_t *stop) {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGTERM);
  sigset_t waitMask;
  sigprocmask(SIG_BLOCK, &blocked, &waitMask);
  sigdelset(&waitMask, SIGINT);
  sigdelset(&waitMask, SIGTERM);

  std::vector<pollfd> fds;
  int result = 0;
  while (*stop == 0) {
    std::erase_if(loop->watches, [](const EventLoop::Watch &w) { return w.fd < 0; });
    fds.clear();
    for (const EventLoop::Watch &w : loop->watches) fds.push_back({w.fd, POLLIN, 0});
    int64_t now = monotonicUs();
    int64_t due = loopNextDue(loop);
    timespec timeout{};
    timespec *timeoutPtr = nullptr;
    if (due >= 0) {
      int64_t wait = due > now ? due - now : 0;
      timeout.tv_sec = static_cast<time_t>(wait / 1000000);
      timeout.tv_nsec = static_cast<long>(wait % 1000000) * 1000;
      timeoutPtr = &timeout;
    }
    int ready = ppoll(fds.data(), fds.size(), timeoutPtr, &waitMask);
    if (ready < 0 && errno != EINTR) {
      result = -1;
      break;
    }
    now = monotonicUs();
    if (ready > 0) {
      // Handlers may add or drop watches; only the ones polled, and still watched, are served.
      for (size_t i = 0; i < fds.size(); ++i) {
        if ((fds[i].revents & (POLLIN | POLLERR)) != 0 && loop->watches[i].fd == fds[i].fd) {
          loop->watches[i].onReadable(now);
        }
      }
    }
    loopRunDue(loop, now);
  }
  sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
  return result;
}
