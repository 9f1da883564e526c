// kestil-pass: drains the spacecraft's download queue across passes into an archive, with a
// ledger of what came down, what is partial and what failed.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "common/wire.hpp"
#include "pass/archive_paths.hpp"
#include "pass/ledger.hpp"
#include "pass/one_pass.hpp"
#include "pass/options.hpp"
#include "pass/schedule.hpp"
#include "pass/status.hpp"
#include "station/station.hpp"

namespace {

volatile sig_atomic_t stopRequested = 0;

void onStopSignal(int) { stopRequested = 1; }

void installSignals() {
  struct sigaction sa {};
  sa.sa_handler = onStopSignal;  // no SA_RESTART: a wait must end
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

int setupFailure(const std::string &what) {
  std::fprintf(stderr, "kestil-pass: %s\n", what.c_str());
  return 1;
}

// The archive's lock, held for the whole run: one kestil-pass at a time per archive. The
// holder's process id is written into it for the next one's message.
bool takeArchiveLock(const std::string &archive, std::string *error) {
  std::string path = archive + "/" + LOCK_FILE;
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    char pid[32] = {};
    ssize_t n = pread(fd, pid, sizeof pid - 1, 0);
    while (n > 0 && (pid[n - 1] == '\n' || pid[n - 1] == ' ')) pid[--n] = '\0';
    *error = "another kestil-pass (pid " + std::string(n > 0 ? pid : "?") + ") is working on " + archive;
    close(fd);
    return false;
  }
  std::string self = std::to_string(getpid()) + "\n";
  if (ftruncate(fd, 0) != 0 || pwrite(fd, self.data(), self.size(), 0) < 0) {}  // only for the message
  return true;  // the descriptor stays open, and the lock with it, until the process ends
}

// The archive as an absolute path, made when missing, with its work folder.
bool prepareArchive(const std::string &given, PassSettings *s, std::string *error) {
  char real[PATH_MAX];
  if ((mkdir(given.c_str(), 0755) != 0 && errno != EEXIST) || realpath(given.c_str(), real) == nullptr) {
    *error = "cannot use the archive " + given + ": " + std::strerror(errno);
    return false;
  }
  s->archive = real;
  s->workDir = s->archive + "/" + WORK_DIR;
  if (!makeDirs(s->archive, WORK_DIR)) {
    *error = "cannot make " + s->workDir + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool readSchedule(const std::string &path, std::vector<PassWindow> *windows, std::string *error) {
  std::ifstream in(path);
  if (!in) {
    *error = "cannot read the schedule " + path + ": " + std::strerror(errno);
    return false;
  }
  std::stringstream text;
  text << in.rdbuf();
  if (parseSchedule(text.str(), windows, error)) return true;
  *error = path + ", " + *error;
  return false;
}

// Sleeps until the wall clock reaches `targetMs`; false when interrupted first.
bool sleepUntil(int64_t targetMs) {
  for (int64_t left = targetMs - wallMs(); left > 0; left = targetMs - wallMs()) {
    if (stopRequested) return false;
    poll(nullptr, 0, static_cast<int>(left < 500 ? left : 500));
  }
  return !stopRequested;
}

int runSchedule(const PassSettings &s, Ledger &ledger, const std::vector<PassWindow> &windows) {
  int status = 0;
  bool ran = false;
  for (const PassWindow &w : windows) {
    std::string span = formatUtc(w.startMs) + " to " + formatUtc(w.endMs);
    if (w.endMs <= wallMs()) {
      if (!s.quiet) std::printf("window %s is past: skipped\n", span.c_str());
      continue;
    }
    if (w.startMs > wallMs()) {
      if (!s.quiet) std::printf("waiting for the window %s\n", span.c_str());
      std::fflush(stdout);
      if (!sleepUntil(w.startMs)) return passExitStatus(PassEnd::Interrupted);
    }
    PassEnd end = runPass(s, ledger, monotonicMs() + (w.endMs - wallMs()), &stopRequested);
    status = passExitStatus(end);
    ran = true;
    if (end == PassEnd::Interrupted || end == PassEnd::Failed) break;
  }
  if (!ran && !s.quiet) std::printf("no window of the schedule is ahead\n");
  return status;
}

PassSettings settingsFrom(const PassOptions &o) {
  PassSettings s;
  s.host = o.host;
  s.target.sin_family = AF_INET;
  s.target.sin_port = htons(KESTIL_PORT);
  s.limits = o.limits;
  s.confirm = o.confirm;
  s.timeoutS = o.timeoutS;
  s.retries = o.retries;
  s.quiet = o.quiet;
  return s;
}

int passMain(const PassOptions &o) {
  PassSettings s = settingsFrom(o);
  std::string error;
  std::vector<PassWindow> windows;
  if (socket_resolve_host(o.host.c_str(), &s.target.sin_addr) == 0) return setupFailure("cannot resolve " + o.host);
  if (o.untilMs != 0 && o.untilMs <= wallMs()) return setupFailure("--until " + formatUtc(o.untilMs) + " is past");
  if (!o.schedule.empty() && !readSchedule(o.schedule, &windows, &error)) return setupFailure(error);
  if (!prepareArchive(o.archive, &s, &error) || !takeArchiveLock(s.archive, &error)) return setupFailure(error);
  Ledger ledger;
  std::string db = o.db.empty() ? s.archive + "/" + LEDGER_FILE : o.db;
  if (!ledgerOpen(db, true, &ledger, &error)) return setupFailure("cannot open the ledger " + db + ": " + error);
  if (!ledgerCloseKilledPasses(ledger)) return setupFailure("cannot write the ledger " + db);
  installSignals();
  int status = 0;
  if (!o.schedule.empty()) {
    status = runSchedule(s, ledger, windows);
  } else {
    int64_t deadline = INT64_MAX;
    if (o.forSeconds != 0) deadline = monotonicMs() + o.forSeconds * 1000;
    if (o.untilMs != 0) deadline = monotonicMs() + (o.untilMs - wallMs());
    status = passExitStatus(runPass(s, ledger, deadline, &stopRequested));
  }
  ledgerClose(&ledger);
  return status;
}

int statusMain(const PassOptions &o) {
  Ledger ledger;
  std::string error, db = ledgerPath(o);
  if (!ledgerOpen(db, false, &ledger, &error)) return setupFailure("cannot open the ledger " + db + ": " + error);
  if (o.json) {
    printLedgerJson(stdout, ledger);
  } else {
    printLedgerTable(stdout, ledger);
  }
  ledgerClose(&ledger);
  return 0;
}

int clearMain(const PassOptions &o) {
  Ledger ledger;
  std::string error, db = ledgerPath(o);
  if (!ledgerOpen(db, false, &ledger, &error)) return setupFailure("cannot open the ledger " + db + ": " + error);
  int status = 0;
  for (const std::string &name : o.names) {
    int changed = ledgerClearFailures(ledger, name);
    if (changed < 0) status = setupFailure("cannot write the ledger " + db);
    if (changed == 0) status = setupFailure(name + " is not in the ledger");
  }
  ledgerClose(&ledger);
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  // A line at a time, also into a log file: an unattended run is read as it goes.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  PassOptions o;
  std::string error;
  switch (parsePassOptions(argc, argv, &o, &error)) {
    case OptionsOutcome::Help: std::fputs(passUsage(), stdout); return 0;
    case OptionsOutcome::Error: std::fprintf(stderr, "kestil-pass: %s\n%s", error.c_str(), passUsage()); return 1;
    case OptionsOutcome::Run: break;
  }
  DBG_init(argv[0]);
  DBG_setLevel(7);
  switch (o.mode) {
    case PassMode::Status: return statusMain(o);
    case PassMode::Clear: return clearMain(o);
    case PassMode::Pass: break;
  }
  return passMain(o);
}
