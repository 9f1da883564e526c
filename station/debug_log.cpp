// The debug log: lines go to syslog under the program's base name with their level as
// priority; levels above the set level are dropped.
#include "station/station.hpp"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

int currentLevel = LOG_DEBUG;
DbgHook hook = nullptr;
char ident[64] = "kestil";

void emit(int level, const char *line) {
  if (level > currentLevel) return;
  syslog(level, "%s", line);
  if (hook != nullptr) hook(level, line);
}

}  // namespace

void DBG_init(const char *progname) {
  const char *base = progname != nullptr ? std::strrchr(progname, '/') : nullptr;
  base = base != nullptr ? base + 1 : progname;
  if (base != nullptr && *base != '\0') std::snprintf(ident, sizeof ident, "%s", base);
  openlog(ident, LOG_PID, LOG_USER);
}

void DBG_setLevel(int level) { currentLevel = level; }

void DBG_setHook(DbgHook h) { hook = h; }

void DBG_print(int level, const char *format, ...) {
  char line[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  emit(level, line);
}

void DBG_syserr(int line, const char *function, const char *file, int level, const char *format, ...) {
  int saved = errno;
  char text[768];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  char full[1024];
  std::snprintf(full, sizeof full, "%s:%d %s: %s: %s", file, line, function, text, std::strerror(saved));
  emit(level, full);
  errno = saved;
}
