// What kestil-pass prints: one progress line per file and a summary per pass while it runs,
// and the ledger as a table or as JSON for --status.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "pass/ledger.hpp"

// "name: held of size bytes, rate B/s, state"; a rate below 0 is left out.
void printFileLine(FILE *out, const std::string &name, uint64_t held, uint64_t size, double rate,
                   const std::string &state);

struct PassTally {
  int complete = 0;
  int partial = 0;
  int failed = 0;
  int refused = 0;
  int held = 0;  // complete before this pass
};

void printPassSummary(FILE *out, const PassRow &pass, const PassTally &tally);

// The share of a pass's time a receive session was running, 0 to 1.
double busyShare(const PassRow &pass);

void printLedgerTable(FILE *out, Ledger &ledger);
void printLedgerJson(FILE *out, Ledger &ledger);
// A JSON string literal of `s`.
std::string jsonString(const std::string &s);
