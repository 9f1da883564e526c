// The sessions' shared time keeping: idle-tick limits, elapsed times and the statistics line.
#include "client/session_time.hpp"

#include <climits>
#include <cstdio>

int clampSeconds(long seconds) {
  if (seconds > INT_MAX) return INT_MAX;
  if (seconds < INT_MIN) return INT_MIN;
  return static_cast<int>(seconds);
}

int idleLimitTicks(long timeoutSeconds) {
  long long ticks = 2LL * timeoutSeconds;
  if (ticks > INT_MAX) return INT_MAX;
  if (ticks < INT_MIN) return INT_MIN;
  return static_cast<int>(ticks);
}

timeval timeBetween(const timeval &from, const timeval &to) {
  timeval d{to.tv_sec - from.tv_sec, to.tv_usec - from.tv_usec};
  if (d.tv_usec < 0) {
    d.tv_sec -= 1;
    d.tv_usec += 1000000;
  }
  return d;
}

int formatStatistics(char *buf, size_t size, timeval elapsed, uint32_t fileSize) {
  long secs = static_cast<long>(elapsed.tv_sec);
  long usecs = static_cast<long>(elapsed.tv_usec);
  int n = std::snprintf(buf, size, "Elapsed time: %02ld:%02ld:%02ld.%06ld", secs / 3600, (secs % 3600) / 60, secs % 60,
                        usecs);
  double seconds = static_cast<double>(secs) + static_cast<double>(usecs) / 1000000.0;
  if (n >= 0 && static_cast<size_t>(n) < size && fileSize != 0 && seconds > 0.0)
    n += std::snprintf(buf + n, size - static_cast<size_t>(n), "      Avg Bps: %.2f",
                       static_cast<double>(fileSize) / seconds);
  return n;
}

void printStatistics(timeval elapsed, uint32_t fileSize) {
  char line[160];
  formatStatistics(line, sizeof line, elapsed, fileSize);
  std::printf("%s\n", line);
}
