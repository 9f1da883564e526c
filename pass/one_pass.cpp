// The pass's loop: wait for the sessions' output, note what they did, start what comes next.
#include "pass/one_pass.hpp"

#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <set>
#include <utility>

#include "pass/entry_plan.hpp"
#include "pass/partial_state.hpp"
#include "pass/schedule.hpp"
#include "pass/status.hpp"
#include "pass/worker.hpp"

namespace {

constexpr int POLL_MS = 200;
// Sessions still running this long after the pass ended are killed; a download is resumable
// at any instant, and an interrupted one ends within a few seconds by itself.
constexpr int64_t STOP_GRACE_MS = 20000;
// A download still fetching is stopped this long before its window ends, so that its closing
// acknowledgements reach the spacecraft while it is in view and its transfer ends there too.
constexpr int64_t CLOSE_AHEAD_MS = 1000;

struct Job {
  QueueEntry entry;
  EntryPlan plan;
  int64_t modTimeNs = 0;
};

struct Pass {
  const PassSettings &set;
  Ledger &ledger;
  PassRow row{};
  PassTally tally{};
  std::vector<QueueEntry> entries{};  // the current round's report
  size_t next = 0;                    // the next entry of the round to look at
  bool haveReport = false;
  bool roundFetched = false;  // the round started a download: the report is fetched again after it
  int reports = 0;
  std::vector<Job> jobs{};  // every download of the pass
  std::vector<Worker> workers{};
  std::vector<QueueEntry> toDequeue{};
  std::set<std::string> inFlight{}, failedHere{}, noted{}, dequeued{};
  bool stopping = false;
  bool killed = false;
  PassEnd end = PassEnd::Drained;
  int64_t stopMs = 0;
  int64_t lastTickMs = 0;
  const volatile sig_atomic_t *stop = nullptr;
};

bool anyReceiving(const Pass &p) {
  return std::any_of(p.workers.begin(), p.workers.end(), [](const Worker &w) { return isReceiving(w); });
}

void beginStop(Pass &p, PassEnd end, int64_t now) {
  if (p.stopping) return;
  p.stopping = true;
  p.end = end;
  p.stopMs = now;
  bool cut = end == PassEnd::WindowEnded || end == PassEnd::Interrupted || end == PassEnd::Failed;
  for (Worker &w : p.workers) {
    // A report is worth nothing half fetched; a download ends resumable on SIGINT.
    if (w.kind == WorkerKind::Report && isReceiving(w)) signalWorker(&w, SIGKILL);
    if (w.kind == WorkerKind::Download && isReceiving(w) && cut) signalWorker(&w, SIGINT);
    if (w.kind == WorkerKind::Dequeue && cut) signalWorker(&w, SIGKILL);
  }
}

void setupFailed(Pass &p, const std::string &what, int64_t now) {
  std::fprintf(stderr, "kestil-pass: %s\n", what.c_str());
  beginStop(p, PassEnd::Failed, now);
}

std::string inWork(const Pass &p, const std::string &name) { return p.set.workDir + "/" + name; }

void clearWorkDir(const std::string &dir) {
  if (DIR *d = opendir(dir.c_str())) {
    while (dirent *e = readdir(d))
      if (std::string name = e->d_name; name != "." && name != "..") unlink((dir + "/" + name).c_str());
    closedir(d);
  }
}

// The listing file of the pass's `n`th report.
std::string reportName(const Pass &p, int n) { return "qreport." + std::to_string(p.row.id) + "." + std::to_string(n); }

void startReport(Pass &p, int64_t now) {
  Worker w;
  w.reportName = reportName(p, ++p.reports);
  w.name = "queue report";
  p.haveReport = false;
  if (!spawnReport(&w, p.set.workDir, p.set.target, p.set.limits, p.set.timeoutS, now))
    return setupFailed(p, "cannot start a session", now);
  p.workers.push_back(std::move(w));
}

void loadReport(Pass &p, const Worker &w) {
  p.entries = readQueueReport(inWork(p, w.reportName));
  p.next = 0;
  p.haveReport = true;
  p.roundFetched = false;
  if (!p.set.quiet)
    std::printf("queue report: %zu %s\n", p.entries.size(), p.entries.size() == 1 ? "entry" : "entries");
}

// The listing holds every block: it is taken once its digest matches the metadata's, while
// the fetch still sends its confirmations.
bool reportVerified(const Pass &p, const Worker &w) {
  RecordView rec = readVectorRecord(inWork(p, reportStateName(w.reportName)));
  return rec.present && rec.sized && md5OfFile(inWork(p, w.reportName)) == md5Hex(rec.md5);
}

void reportEnded(Pass &p, const Worker &w, int64_t now) {
  bool latest = w.reportName == reportName(p, p.reports);
  if (latest && !p.haveReport && !p.stopping) {
    if (w.status == 0) {
      loadReport(p, w);
    } else if (w.status == 11 || w.status == 12 || w.status == -1) {
      beginStop(p, PassEnd::LossOfSignal, now);  // no answer, or no whole report, in time
    } else {
      setupFailed(p, "the queue report could not be fetched (status " + std::to_string(w.status) + ")", now);
    }
  }
  unlink(inWork(p, w.reportName).c_str());
  unlink(inWork(p, reportStateName(w.reportName)).c_str());
}

// What a download's exit status means for its file.
struct Outcome {
  FileState state;
  bool failure;  // counts against the entry's retries
  bool lossOfSignal;
  std::string text;
};

Outcome outcomeOf(const Worker &w, bool stopAsked) {
  switch (w.status) {
    case 0: return {FileState::Complete, false, false, "complete"};
    case 12: return {FileState::Failed, true, false, "digest mismatch"};
    case 14: return {FileState::Failed, true, false, w.errorLine.empty() ? "error report" : w.errorLine};
    // Ended early without being asked to: the link has gone silent.
    case 11:
    case 13: return {FileState::Partial, false, !w.interrupted && !stopAsked, "partial"};
    case -1: return {FileState::Partial, false, false, "partial (session killed)"};
    default: return {FileState::Failed, true, false, "the session failed (status " + std::to_string(w.status) + ")"};
  }
}

uint64_t fileSize(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

int64_t nsOf(const KestilTimespec &t) { return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec; }

void saveOutcome(Pass &p, FileRow *row, uint64_t bytes, uint64_t datagrams, int64_t now) {
  p.row.bytes += bytes;
  p.row.datagrams += datagrams;
  p.row.endMs = wallMs();
  if (!ledgerRecordOutcome(p.ledger, row, p.row, bytes, datagrams)) setupFailed(p, "the ledger cannot be written", now);
}

void downloadEnded(Pass &p, Worker &w, int64_t now) {
  Job &job = p.jobs[w.entry];
  FileRow &row = job.plan.row;
  p.inFlight.erase(job.entry.name);
  Outcome o = outcomeOf(w, *p.stop != 0);
  RecordView rec = readDownloadRecord(underArchive(p.set.archive, stateFileOf(job.plan.path)));
  // The bytes are the file's own; the row keeps the size the report gives, which is what the
  // next report is compared with (a queue entry keeps the size its file had when queued).
  uint64_t held =
      o.state == FileState::Complete ? fileSize(underArchive(p.set.archive, job.plan.path.rel)) : rec.heldBytes;
  uint64_t bytes = held > w.heldBefore ? held - w.heldBefore : 0;
  if (rec.sized) job.modTimeNs = nsOf(rec.modTime);
  if (job.modTimeNs != 0) row.mtimeNs = job.modTimeNs;
  row.state = o.state;
  if (o.state == FileState::Complete) {
    row.md5 = md5OfFile(underArchive(p.set.archive, job.plan.path.rel));
    row.completedPass = p.row.id;
    row.note.clear();
    p.tally.complete++;
    if (p.set.confirm) p.toDequeue.push_back(job.entry);
  } else if (o.failure) {
    row.failures++;
    row.note = o.text;
    p.failedHere.insert(job.entry.name);
    p.tally.failed++;
  } else {
    p.tally.partial++;
  }
  saveOutcome(p, &row, bytes, w.datagrams, now);
  int64_t span = (w.complete ? w.completeMs : now) - w.startedMs;
  if (!p.set.quiet)
    printFileLine(stdout, job.entry.name, held, job.entry.size,
                  span > 0 ? static_cast<double>(bytes) * 1000.0 / static_cast<double>(span) : -1.0,
                  o.failure ? "failed: " + o.text : o.text);
  if (o.lossOfSignal) beginStop(p, PassEnd::LossOfSignal, now);
}

void dequeueEnded(Pass &p, const Worker &w) {
  if (w.status == 0) return;
  // Still queued: the next report lists it again, and it is removed then.
  p.dequeued.erase(w.name + '\0' + std::to_string(w.group));
  if (!p.set.quiet)
    std::printf("%s: still queued in group %u (the removal ended with status %d)\n", w.name.c_str(), w.group, w.status);
}

void onWorkerEnded(Pass &p, Worker &w, int64_t now) {
  switch (w.kind) {
    case WorkerKind::Report:
      p.row.datagrams += w.datagrams;
      reportEnded(p, w, now);
      break;
    case WorkerKind::Download: downloadEnded(p, w, now); break;
    case WorkerKind::Dequeue: dequeueEnded(p, w); break;
  }
}

void onWorkerComplete(Pass &p, Worker &w) {
  if (w.kind == WorkerKind::Report) {
    bool latest = w.reportName == reportName(p, p.reports);
    if (latest && !p.haveReport && !p.stopping && reportVerified(p, w)) loadReport(p, w);
  } else if (w.kind == WorkerKind::Download) {
    // The record goes once the digest matches: its time is taken while it is there.
    Job &job = p.jobs[w.entry];
    RecordView rec = readDownloadRecord(underArchive(p.set.archive, stateFileOf(job.plan.path)));
    if (rec.sized) job.modTimeNs = nsOf(rec.modTime);
  }
}

// Entries that need no download are noted once per pass; true for an entry to fetch.
bool needsFetch(Pass &p, const QueueEntry &e, EntryPlan *plan, int64_t now) {
  if (p.inFlight.count(e.name) != 0 || p.failedHere.count(e.name) != 0) return false;
  *plan = planEntry(p.ledger, e, p.set.retries);
  bool first = p.noted.insert(e.name).second;
  switch (plan->action) {
    case EntryAction::Fetch: return true;
    case EntryAction::Held:
      if (first) p.tally.held++;
      if (p.set.confirm) p.toDequeue.push_back(e);
      return false;
    case EntryAction::Refused:
      if (!recordRefusal(p.ledger, e, plan)) setupFailed(p, "the ledger cannot be written", now);
      if (first) p.tally.refused++;
      if (first && !p.set.quiet) std::printf("%s: refused, %s\n", e.name.c_str(), plan->why.c_str());
      return false;
    case EntryAction::GivenUp:
      if (first && !p.set.quiet) std::printf("%s: left alone, %s\n", e.name.c_str(), plan->why.c_str());
      return false;
  }
  return false;
}

// An entry the archive cannot take counts as a failed attempt; the pass goes on.
void entryFailed(Pass &p, Job &job, const std::string &error, int64_t now) {
  FileRow &row = job.plan.row;
  row.state = FileState::Failed;
  row.failures++;
  row.note = error;
  p.failedHere.insert(job.entry.name);
  p.tally.failed++;
  if (!ledgerSaveFile(p.ledger, &row)) setupFailed(p, "the ledger cannot be written", now);
  if (!p.set.quiet) std::printf("%s: failed: %s\n", job.entry.name.c_str(), error.c_str());
}

bool startDownload(Pass &p, Job &&job, int64_t now) {
  Worker w;
  w.name = job.entry.name;
  w.entry = p.jobs.size();
  RecordView rec = readDownloadRecord(underArchive(p.set.archive, stateFileOf(job.plan.path)));
  w.heldBefore = rec.heldBytes;
  std::string dir = underArchive(p.set.archive, job.plan.path.dir);
  if (!spawnDownload(&w, dir, job.plan.path.base, job.entry.name, p.set.target, p.set.timeoutS, now)) {
    setupFailed(p, "cannot start a session", now);
    return false;
  }
  p.inFlight.insert(job.entry.name);
  p.jobs.push_back(std::move(job));
  p.workers.push_back(std::move(w));
  p.roundFetched = true;
  return true;
}

bool startNextEntry(Pass &p, int64_t now) {
  while (p.next < p.entries.size() && !p.stopping) {
    Job job{p.entries[p.next++], {}};
    if (!needsFetch(p, job.entry, &job.plan, now)) continue;
    std::string error;
    switch (prepareFetch(p.set.archive, p.ledger, job.entry, &job.plan, &error)) {
      case Prepared::Ready: return startDownload(p, std::move(job), now);
      case Prepared::EntryFailed: entryFailed(p, job, error, now); break;
      case Prepared::LedgerFailed: setupFailed(p, error, now); return false;
    }
  }
  return false;
}

void startDequeues(Pass &p, int64_t now) {
  for (const QueueEntry &e : std::exchange(p.toDequeue, {})) {
    if (!p.dequeued.insert(e.name + '\0' + std::to_string(e.group)).second) continue;
    Worker w;
    w.name = e.name;
    w.group = e.group;
    if (spawnDequeue(&w, p.set.host, e.group, e.name, now)) p.workers.push_back(std::move(w));
  }
}

// Starts what comes next once nothing is fetching: the next entry, the next round's report,
// or the end of a drained pass.
void advance(Pass &p, int64_t now) {
  bool cut = p.stopping && p.end != PassEnd::Drained && p.end != PassEnd::LossOfSignal;
  if (!cut) startDequeues(p, now);
  if (p.stopping || anyReceiving(p) || !p.haveReport) return;
  if (startNextEntry(p, now) || p.stopping) return;
  if (p.roundFetched) return startReport(p, now);
  beginStop(p, PassEnd::Drained, now);
}

// Waits for output (bounded by the deadline), then takes in what every session printed.
void collect(Pass &p, int64_t deadlineMs) {
  std::vector<pollfd> fds;
  for (const Worker &w : p.workers)
    if (w.outFd >= 0) fds.push_back({w.outFd, POLLIN, 0});
  int64_t wait = std::clamp<int64_t>(deadlineMs - monotonicMs(), 0, POLL_MS);
  poll(fds.data(), fds.size(), p.stopping ? POLL_MS : static_cast<int>(wait));
  int64_t now = monotonicMs();
  for (Worker &w : p.workers) {
    bool was = w.complete;
    bool alive = readWorkerOutput(&w, now);
    if (!was && w.complete) onWorkerComplete(p, w);
    if (alive) continue;
    reapWorker(&w);
    onWorkerEnded(p, w, now);
  }
  std::erase_if(p.workers, [](const Worker &w) { return w.reaped; });
}

void tickBusy(Pass &p, int64_t now) {
  if (anyReceiving(p)) p.row.busyMs += now - p.lastTickMs;
  p.lastTickMs = now;
}

// The window ends with every entry of the last report taken and nothing cut off: only the
// report that would look for new entries was still to come.
bool nothingLeft(const Pass &p) {
  bool fetching = std::any_of(p.workers.begin(), p.workers.end(),
                              [](const Worker &w) { return w.kind == WorkerKind::Download && isReceiving(w); });
  return p.reports > 1 && !fetching && p.next >= p.entries.size() && p.tally.partial == 0;
}

void killStragglers(Pass &p, int64_t now) {
  if (!p.stopping || p.killed || now - p.stopMs < STOP_GRACE_MS) return;
  p.killed = true;
  for (Worker &w : p.workers) signalWorker(&w, SIGKILL);
}

void announce(const Pass &p, int64_t deadlineMs, int64_t now) {
  if (p.set.quiet) return;
  std::printf("pass %lld against %s", static_cast<long long>(p.row.id), p.set.host.c_str());
  if (deadlineMs != INT64_MAX) std::printf(" until %s", formatUtc(wallMs() + (deadlineMs - now)).c_str());
  std::printf("\n");
}

}  // namespace

const char *passEndText(PassEnd end) {
  switch (end) {
    case PassEnd::Drained: return "drained";
    case PassEnd::WindowEnded: return "window ended";
    case PassEnd::LossOfSignal: return "loss of signal";
    case PassEnd::Interrupted: return "interrupted";
    case PassEnd::Failed: return "failed";
  }
  return "?";
}

int passExitStatus(PassEnd end) {
  switch (end) {
    case PassEnd::Drained: return 0;
    case PassEnd::Failed: return 1;
    case PassEnd::WindowEnded: return 2;
    case PassEnd::LossOfSignal: return 3;
    case PassEnd::Interrupted: return 4;
  }
  return 1;
}

int64_t monotonicMs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

int64_t wallMs() {
  timespec t{};
  clock_gettime(CLOCK_REALTIME, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

PassEnd runPass(const PassSettings &settings, Ledger &ledger, int64_t windowEndMs, const volatile sig_atomic_t *stop) {
  const int64_t deadlineMs = windowEndMs == INT64_MAX ? windowEndMs : windowEndMs - CLOSE_AHEAD_MS;
  Pass p{.set = settings, .ledger = ledger};
  p.stop = stop;
  p.row.host = settings.host;
  p.row.startMs = p.row.endMs = wallMs();
  if (!ledgerStartPass(ledger, &p.row)) {
    std::fprintf(stderr, "kestil-pass: the ledger cannot be written\n");
    return PassEnd::Failed;
  }
  clearWorkDir(settings.workDir);
  int64_t now = monotonicMs();
  announce(p, windowEndMs, now);
  p.lastTickMs = now;
  startReport(p, now);
  for (;;) {
    now = monotonicMs();
    tickBusy(p, now);
    if (*stop != 0) beginStop(p, PassEnd::Interrupted, now);
    if (now >= deadlineMs) beginStop(p, nothingLeft(p) ? PassEnd::Drained : PassEnd::WindowEnded, now);
    advance(p, now);
    if (p.stopping && p.workers.empty()) break;
    killStragglers(p, now);
    collect(p, deadlineMs);
  }
  p.row.ended = passEndText(p.end);
  p.row.endMs = wallMs();
  if (!ledgerSavePass(ledger, p.row) && p.end != PassEnd::Failed) {
    std::fprintf(stderr, "kestil-pass: the ledger cannot be written\n");
    p.end = PassEnd::Failed;
  }
  clearWorkDir(settings.workDir);
  printPassSummary(stdout, p.row, p.tally);
  return p.end;
}
