// One pass: fetch the queue report, then its entries in report order with one download
// fetching at a time (the next one's request goes out as soon as the last download holds
// every block, while it still digests and sends its closing acknowledgements), fetching the
// report again while entries keep coming, until the queue is drained, the window ends, the
// link falls silent or an interrupt comes. Every partial download stays resumable.
#pragma once

#include <netinet/in.h>

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include "common/wire.hpp"
#include "pass/ledger.hpp"

struct PassSettings {
  std::string host;
  sockaddr_in target{};
  std::string archive;  // absolute
  std::string workDir;  // absolute; the report fetches land here
  std::vector<GroupLimit> limits;
  bool confirm = false;  // remove each entry from the queue once its file is complete
  int timeoutS = 10;     // silence that means the link is gone
  int retries = 3;       // failures after which an entry is left until cleared
  bool quiet = false;    // the summary only
};

enum class PassEnd : uint8_t { Drained, WindowEnded, LossOfSignal, Interrupted, Failed };
const char *passEndText(PassEnd end);
// 0 drained, 1 a set-up failure (archive or ledger), 2 window ended, 3 loss of signal, 4 interrupted.
int passExitStatus(PassEnd end);

// Runs one pass until its window ends at `windowEndMs` on the monotonic clock (INT64_MAX: no
// window) or another end; `stop` is the flag the interrupt handler sets.
PassEnd runPass(const PassSettings &settings, Ledger &ledger, int64_t windowEndMs, const volatile sig_atomic_t *stop);

int64_t monotonicMs();
int64_t wallMs();
