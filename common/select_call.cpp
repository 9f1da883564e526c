// The bounded wait of every session loop: one descriptor, an absolute deadline, and a
// select that is called again after early wake-ups until the deadline has passed.
#include "common/select_call.hpp"

#include <sys/select.h>
#include <sys/time.h>

namespace {

bool before(const timeval &a, const timeval &b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_usec < b.tv_usec);
}

}  // namespace

int select_call(int fd, int sec, int usec) {
  // A descriptor a read set cannot hold is a failed wait, as select itself would answer.
  if (fd < 0 || fd >= FD_SETSIZE) return -1;
  timeval now{};
  gettimeofday(&now, nullptr);
  timeval deadline{now.tv_sec + sec, now.tv_usec + usec};
  if (deadline.tv_usec > 999999) {
    deadline.tv_sec += 1;
    deadline.tv_usec -= 1000000;
  }
  while (before(now, deadline)) {
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(fd, &readSet);
    timeval left{deadline.tv_sec - now.tv_sec, deadline.tv_usec - now.tv_usec};
    if (left.tv_usec < 0) {
      left.tv_sec -= 1;
      left.tv_usec += 1000000;
    }
    if (select(fd + 1, &readSet, nullptr, nullptr, &left) < 0) return -1;
    if (FD_ISSET(fd, &readSet)) return 1;
    gettimeofday(&now, nullptr);
  }
  return 0;
}
