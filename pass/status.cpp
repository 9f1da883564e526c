// Progress lines, pass summaries and the ledger's status, as a table and as JSON.
#include "pass/status.hpp"

#include <map>
#include <vector>

#include "pass/schedule.hpp"

namespace {

double seconds(int64_t ms) { return static_cast<double>(ms) / 1000.0; }

double rateOf(const PassRow &p) {
  double s = seconds(p.endMs - p.startMs);
  return s > 0 ? static_cast<double>(p.bytes) / s : 0.0;
}

void printFileTable(FILE *out, const std::vector<FileRow> &files) {
  std::map<std::string, int> counts;
  for (const FileRow &f : files) counts[f.current ? fileStateName(f.state) : "earlier version"]++;
  std::fprintf(out, "files: %d complete, %d partial, %d failed, %d refused, %d earlier versions\n", counts["complete"],
               counts["partial"], counts["failed"], counts["refused"], counts["earlier version"]);
  if (files.empty()) return;
  std::fprintf(out, "%-9s %10s %10s %5s %4s  %s\n", "state", "size", "fetched", "tries", "pass", "file");
  for (const FileRow &f : files) {
    std::string file = f.current ? f.remote : f.remote + " (earlier version, " + f.local + ")";
    if (!f.note.empty() && f.state != FileState::Complete) file += " (" + f.note + ")";
    std::fprintf(out, "%-9s %10u %10llu %5d %4lld  %s\n", fileStateName(f.state), f.size,
                 static_cast<unsigned long long>(f.fetched), f.attempts, static_cast<long long>(f.completedPass),
                 file.c_str());
  }
}

void printPassTable(FILE *out, const std::vector<PassRow> &passes) {
  if (passes.empty()) return;
  std::fprintf(out, "%4s  %-20s %7s  %-16s %10s %9s %8s %5s  %s\n", "pass", "start", "seconds", "ended", "bytes",
               "datagrams", "B/s", "busy", "host");
  for (const PassRow &p : passes) {
    std::fprintf(out, "%4lld  %-20s %7.0f  %-16s %10llu %9llu %8.0f %4.0f%%  %s\n", static_cast<long long>(p.id),
                 formatUtc(p.startMs).c_str(), seconds(p.endMs - p.startMs),
                 p.ended.empty() ? "(running)" : p.ended.c_str(), static_cast<unsigned long long>(p.bytes),
                 static_cast<unsigned long long>(p.datagrams), rateOf(p), 100.0 * busyShare(p), p.host.c_str());
  }
}

void printFileJson(FILE *out, const FileRow &f, const std::vector<FilePassBytes> &bytes) {
  std::fprintf(out,
               "{\"remote_path\":%s,\"local_path\":%s,\"size\":%u,\"mtime_ns\":%lld,\"md5\":%s,\"state\":\"%s\","
               "\"current\":%s,\"completed_pass\":",
               jsonString(f.remote).c_str(), jsonString(f.local).c_str(), f.size, static_cast<long long>(f.mtimeNs),
               jsonString(f.md5).c_str(), fileStateName(f.state), f.current ? "true" : "false");
  if (f.completedPass != 0) {
    std::fprintf(out, "%lld", static_cast<long long>(f.completedPass));
  } else {
    std::fputs("null", out);
  }
  std::fprintf(out, ",\"attempts\":%d,\"failures\":%d,\"note\":%s,\"bytes_per_pass\":{", f.attempts, f.failures,
               jsonString(f.note).c_str());
  const char *sep = "";
  for (const FilePassBytes &b : bytes) {
    if (b.fileId != f.id) continue;
    std::fprintf(out, "%s\"%lld\":%llu", sep, static_cast<long long>(b.passId),
                 static_cast<unsigned long long>(b.bytes));
    sep = ",";
  }
  std::fputs("}}", out);
}

void printPassJson(FILE *out, const PassRow &p) {
  std::fprintf(out,
               "{\"id\":%lld,\"start\":\"%s\",\"end\":\"%s\",\"seconds\":%.3f,\"host\":%s,\"ended\":%s,"
               "\"bytes\":%llu,\"datagrams\":%llu,\"busy_share\":%.4f}",
               static_cast<long long>(p.id), formatUtc(p.startMs).c_str(), formatUtc(p.endMs).c_str(),
               seconds(p.endMs - p.startMs), jsonString(p.host).c_str(),
               p.ended.empty() ? "null" : jsonString(p.ended).c_str(), static_cast<unsigned long long>(p.bytes),
               static_cast<unsigned long long>(p.datagrams), busyShare(p));
}

}  // namespace

void printFileLine(FILE *out, const std::string &name, uint64_t held, uint64_t size, double rate,
                   const std::string &state) {
  std::fprintf(out, "%s: %llu of %llu bytes", name.c_str(), static_cast<unsigned long long>(held),
               static_cast<unsigned long long>(size));
  if (rate >= 0) std::fprintf(out, ", %.0f B/s", rate);
  std::fprintf(out, ", %s\n", state.c_str());
  std::fflush(out);
}

void printPassSummary(FILE *out, const PassRow &p, const PassTally &t) {
  std::fprintf(out,
               "pass %lld ended (%s) after %.0f s: %d complete, %d partial, %d failed, %d refused, %d held before; "
               "%llu bytes, %llu datagrams, %.0f B/s, link busy %.0f%%\n",
               static_cast<long long>(p.id), p.ended.c_str(), seconds(p.endMs - p.startMs), t.complete, t.partial,
               t.failed, t.refused, t.held, static_cast<unsigned long long>(p.bytes),
               static_cast<unsigned long long>(p.datagrams), rateOf(p), 100.0 * busyShare(p));
  std::fflush(out);
}

double busyShare(const PassRow &p) {
  int64_t span = p.endMs - p.startMs;
  if (span <= 0) return 0.0;
  double share = static_cast<double>(p.busyMs) / static_cast<double>(span);
  return share > 1.0 ? 1.0 : share;
}

void printLedgerTable(FILE *out, Ledger &ledger) {
  printFileTable(out, ledgerFiles(ledger));
  printPassTable(out, ledgerPasses(ledger));
}

void printLedgerJson(FILE *out, Ledger &ledger) {
  std::vector<FilePassBytes> bytes = ledgerFilePassBytes(ledger);
  std::fputs("{\"files\":[", out);
  const char *sep = "";
  for (const FileRow &f : ledgerFiles(ledger)) {
    std::fputs(sep, out);
    printFileJson(out, f, bytes);
    sep = ",";
  }
  std::fputs("],\"passes\":[", out);
  sep = "";
  for (const PassRow &p : ledgerPasses(ledger)) {
    std::fputs(sep, out);
    printPassJson(out, p);
    sep = ",";
  }
  std::fputs("]}\n", out);
}

std::string jsonString(const std::string &s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}
