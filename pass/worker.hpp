// The sessions kestil-pass runs, each in a forked child with its own socket: a download
// (the download session as get runs it), the queue report fetch, and a queue removal (qrm).
// A session ends its process with the outcome as exit status and prints per block; the child's
// standard output comes back through a pipe, where the parent counts the blocks and notices
// the moment the session has every block.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/wire.hpp"

enum class WorkerKind : uint8_t { Report, Download, Dequeue };

struct Worker {
  WorkerKind kind = WorkerKind::Download;
  pid_t pid = -1;
  int outFd = -1;            // the child's standard output; -1 once it has ended
  std::string name;          // what it works on, for the lines it leads to
  uint8_t group = 0;         // a removal's queue group
  size_t entry = 0;          // a download's job in the pass
  bool complete = false;     // the session said it holds every block ("MD5 time!")
  bool interrupted = false;  // sent SIGINT by the pass
  bool reaped = false;
  int status = -1;         // exit status once reaped; -1 when a signal ended it
  uint64_t datagrams = 0;  // data blocks the session reported
  std::string errorLine;   // "Server returned error code: ..." when one came
  std::string segment;     // output since the last line or redraw
  int64_t startedMs = 0;
  int64_t completeMs = 0;
  uint64_t heldBefore = 0;
  std::string reportName;  // the report's listing file, in the work folder
};

// The download of `remote` into `base` in the folder `dir`, continuing its state record there.
// Each spawn notes `nowMs` as the start; false (with errno) when no child could be made.
[[nodiscard]] bool spawnDownload(Worker *w, const std::string &dir, const std::string &base, const std::string &remote,
                                 const sockaddr_in &target, int timeoutS, int64_t nowMs);
// The queue report, with `limits`, into `w->reportName` in the folder `workDir`.
[[nodiscard]] bool spawnReport(Worker *w, const std::string &workDir, const sockaddr_in &target,
                               const std::vector<GroupLimit> &limits, int timeoutS, int64_t nowMs);
// A queue removal of `name` from `group` through the file manager of `host`.
[[nodiscard]] bool spawnDequeue(Worker *w, const std::string &host, uint8_t group, const std::string &name,
                                int64_t nowMs);

// The report fetch's vector record, beside its listing file in the work folder.
std::string reportStateName(const std::string &reportName);
// Reads what the child has printed, at `nowMs`. False once its output has ended (it has exited).
bool readWorkerOutput(Worker *w, int64_t nowMs);
// Collects the exit status of a child whose output has ended (waits for it).
void reapWorker(Worker *w);
// SIGINT (a download then ends resumable, after its closing acknowledgements) or SIGKILL.
void signalWorker(Worker *w, int sig);
// True while the session is still fetching blocks (not yet complete, not yet ended).
inline bool isReceiving(const Worker &w) { return w.kind != WorkerKind::Dequeue && !w.complete && !w.reaped; }
