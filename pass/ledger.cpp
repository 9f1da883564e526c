// The ledger on SQLite: three tables, prepared statements, one transaction per write.
#include "pass/ledger.hpp"

#include <sqlite3.h>

#include <cstring>

namespace {

const char SCHEMA[] =
    "CREATE TABLE IF NOT EXISTS passes("
    " id INTEGER PRIMARY KEY, start_ms INTEGER NOT NULL, end_ms INTEGER NOT NULL, host TEXT NOT NULL,"
    " ended TEXT, bytes INTEGER NOT NULL DEFAULT 0, datagrams INTEGER NOT NULL DEFAULT 0,"
    " busy_ms INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE IF NOT EXISTS files("
    " id INTEGER PRIMARY KEY, remote_path TEXT NOT NULL, local_path TEXT NOT NULL, size INTEGER NOT NULL,"
    " mtime_ns INTEGER NOT NULL DEFAULT 0, md5 TEXT NOT NULL DEFAULT '',"
    " state TEXT NOT NULL CHECK(state IN ('partial', 'complete', 'failed', 'refused')),"
    " completed_pass INTEGER REFERENCES passes(id), attempts INTEGER NOT NULL DEFAULT 0,"
    " failures INTEGER NOT NULL DEFAULT 0, current INTEGER NOT NULL DEFAULT 1, note TEXT NOT NULL DEFAULT '');"
    "CREATE UNIQUE INDEX IF NOT EXISTS files_current ON files(remote_path) WHERE current = 1;"
    "CREATE TABLE IF NOT EXISTS file_pass("
    " file_id INTEGER NOT NULL REFERENCES files(id), pass_id INTEGER NOT NULL REFERENCES passes(id),"
    " bytes INTEGER NOT NULL DEFAULT 0, datagrams INTEGER NOT NULL DEFAULT 0, PRIMARY KEY(file_id, pass_id));";

const char FILE_COLUMNS[] =
    "f.id, f.remote_path, f.local_path, f.size, f.mtime_ns, f.md5, f.state, COALESCE(f.completed_pass, 0),"
    " f.attempts, f.failures, f.current, f.note,"
    " (SELECT COALESCE(SUM(bytes), 0) FROM file_pass WHERE file_id = f.id)";

// A prepared statement, finalised when it goes out of scope.
struct Stmt {
  sqlite3_stmt *s = nullptr;
  Stmt(sqlite3 *db, const char *sql) { sqlite3_prepare_v2(db, sql, -1, &s, nullptr); }
  Stmt(const Stmt &) = delete;
  Stmt &operator=(const Stmt &) = delete;
  ~Stmt() { sqlite3_finalize(s); }
  Stmt &bind(int i, int64_t v) {
    sqlite3_bind_int64(s, i, v);
    return *this;
  }
  Stmt &bind(int i, const std::string &v) {
    sqlite3_bind_text(s, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    return *this;
  }
  // One step; true for a row (want `row`) or for done.
  bool step(bool row = false) { return s != nullptr && sqlite3_step(s) == (row ? SQLITE_ROW : SQLITE_DONE); }
  int64_t i64(int col) { return sqlite3_column_int64(s, col); }
  std::string text(int col) {
    const unsigned char *t = sqlite3_column_text(s, col);
    return t != nullptr ? std::string(reinterpret_cast<const char *>(t), sqlite3_column_bytes(s, col)) : "";
  }
};

bool exec(Ledger &l, const char *sql) { return sqlite3_exec(l.db, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

// Runs `body` inside one transaction; anything that fails rolls all of it back.
template <typename Body>
bool transaction(Ledger &l, Body body) {
  if (!exec(l, "BEGIN IMMEDIATE")) return false;
  if (body() && exec(l, "COMMIT")) return true;
  exec(l, "ROLLBACK");
  return false;
}

FileState stateFromName(const std::string &name) {
  if (name == "complete") return FileState::Complete;
  if (name == "failed") return FileState::Failed;
  if (name == "refused") return FileState::Refused;
  return FileState::Partial;
}

FileRow fileFrom(Stmt &q) {
  FileRow r;
  r.id = q.i64(0);
  r.remote = q.text(1);
  r.local = q.text(2);
  r.size = static_cast<uint32_t>(q.i64(3));
  r.mtimeNs = q.i64(4);
  r.md5 = q.text(5);
  r.state = stateFromName(q.text(6));
  r.completedPass = q.i64(7);
  r.attempts = static_cast<int>(q.i64(8));
  r.failures = static_cast<int>(q.i64(9));
  r.current = q.i64(10) != 0;
  r.note = q.text(11);
  r.fetched = static_cast<uint64_t>(q.i64(12));
  return r;
}

bool insertFile(Ledger &l, FileRow *r) {
  Stmt q(l.db,
         "INSERT INTO files(remote_path, local_path, size, mtime_ns, md5, state, completed_pass, attempts,"
         " failures, current, note) VALUES(?, ?, ?, ?, ?, ?, NULLIF(?, 0), ?, ?, ?, ?)");
  q.bind(1, r->remote).bind(2, r->local).bind(3, r->size).bind(4, r->mtimeNs).bind(5, r->md5);
  q.bind(6, std::string(fileStateName(r->state))).bind(7, r->completedPass).bind(8, r->attempts);
  q.bind(9, r->failures).bind(10, r->current ? 1 : 0).bind(11, r->note);
  if (!q.step()) return false;
  r->id = sqlite3_last_insert_rowid(l.db);
  return true;
}

bool updateFile(Ledger &l, const FileRow &r) {
  Stmt q(l.db,
         "UPDATE files SET local_path = ?, size = ?, mtime_ns = ?, md5 = ?, state = ?,"
         " completed_pass = NULLIF(?, 0), attempts = ?, failures = ?, current = ?, note = ? WHERE id = ?");
  q.bind(1, r.local).bind(2, r.size).bind(3, r.mtimeNs).bind(4, r.md5).bind(5, std::string(fileStateName(r.state)));
  q.bind(6, r.completedPass).bind(7, r.attempts).bind(8, r.failures).bind(9, r.current ? 1 : 0).bind(10, r.note);
  q.bind(11, r.id);
  return q.step() && sqlite3_changes(l.db) == 1;
}

bool writeFile(Ledger &l, FileRow *r) { return r->id == 0 ? insertFile(l, r) : updateFile(l, *r); }

bool updatePass(Ledger &l, const PassRow &p) {
  Stmt q(l.db,
         "UPDATE passes SET end_ms = ?, ended = NULLIF(?, ''), bytes = ?, datagrams = ?, busy_ms = ? WHERE id = ?");
  q.bind(1, p.endMs).bind(2, p.ended).bind(3, static_cast<int64_t>(p.bytes));
  q.bind(4, static_cast<int64_t>(p.datagrams)).bind(5, p.busyMs).bind(6, p.id);
  return q.step();
}

}  // namespace

const char *fileStateName(FileState state) {
  switch (state) {
    case FileState::Partial: return "partial";
    case FileState::Complete: return "complete";
    case FileState::Failed: return "failed";
    case FileState::Refused: return "refused";
  }
  return "?";
}

bool ledgerOpen(const std::string &path, bool create, Ledger *l, std::string *error) {
  int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
  if (sqlite3_open_v2(path.c_str(), &l->db, flags, nullptr) != SQLITE_OK) {
    *error = l->db != nullptr ? sqlite3_errmsg(l->db) : "out of memory";
    ledgerClose(l);
    return false;
  }
  sqlite3_busy_timeout(l->db, 10000);
  // A commit is on disk before the next step: a kill, or a power cut, keeps every outcome.
  if (!exec(*l, "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA foreign_keys = ON") ||
      !transaction(*l, [&] { return exec(*l, SCHEMA); })) {
    *error = sqlite3_errmsg(l->db);
    ledgerClose(l);
    return false;
  }
  return true;
}

void ledgerClose(Ledger *l) {
  sqlite3_close(l->db);
  l->db = nullptr;
}

bool ledgerCloseKilledPasses(Ledger &l) {
  return transaction(l, [&] { return exec(l, "UPDATE passes SET ended = 'killed' WHERE ended IS NULL"); });
}

bool ledgerStartPass(Ledger &l, PassRow *p) {
  return transaction(l, [&] {
    Stmt q(l.db, "INSERT INTO passes(start_ms, end_ms, host) VALUES(?, ?, ?)");
    q.bind(1, p->startMs).bind(2, p->endMs).bind(3, p->host);
    if (!q.step()) return false;
    p->id = sqlite3_last_insert_rowid(l.db);
    return true;
  });
}

bool ledgerSavePass(Ledger &l, const PassRow &p) {
  return transaction(l, [&] { return updatePass(l, p); });
}

bool ledgerFindFile(Ledger &l, const std::string &remote, FileRow *out) {
  std::string sql = std::string("SELECT ") + FILE_COLUMNS + " FROM files f WHERE remote_path = ? AND current = 1";
  Stmt q(l.db, sql.c_str());
  q.bind(1, remote);
  if (!q.step(true)) return false;
  *out = fileFrom(q);
  return true;
}

std::string ledgerLocalOwner(Ledger &l, const std::string &local, const std::string &remote) {
  Stmt q(l.db,
         "SELECT remote_path, current FROM files WHERE local_path = ? AND state != 'refused'"
         " AND NOT (remote_path = ? AND current = 1) LIMIT 1");
  q.bind(1, local).bind(2, remote);
  if (!q.step(true)) return "";
  return q.i64(1) != 0 ? q.text(0) : "an earlier version of " + q.text(0);
}

bool ledgerSaveFile(Ledger &l, FileRow *row) {
  return transaction(l, [&] { return writeFile(l, row); });
}

bool ledgerRecordOutcome(Ledger &l, FileRow *row, const PassRow &pass, uint64_t bytes, uint64_t datagrams) {
  return transaction(l, [&] {
    if (!writeFile(l, row)) return false;
    Stmt q(l.db,
           "INSERT INTO file_pass(file_id, pass_id, bytes, datagrams) VALUES(?, ?, ?, ?)"
           " ON CONFLICT(file_id, pass_id) DO UPDATE SET bytes = bytes + excluded.bytes,"
           " datagrams = datagrams + excluded.datagrams");
    q.bind(1, row->id).bind(2, pass.id).bind(3, static_cast<int64_t>(bytes)).bind(4, static_cast<int64_t>(datagrams));
    return q.step() && updatePass(l, pass);
  });
}

bool ledgerArchiveVersion(Ledger &l, FileRow *old, const std::string &versionLocal, FileRow *fresh) {
  FileRow kept = *old;
  kept.local = versionLocal;
  kept.current = false;
  bool ok = transaction(l, [&] { return updateFile(l, kept) && insertFile(l, fresh); });
  if (ok) *old = kept;
  return ok;
}

int ledgerClearFailures(Ledger &l, const std::string &remote) {
  int changed = 0;
  bool ok = transaction(l, [&] {
    Stmt q(l.db,
           "UPDATE files SET failures = 0, state = CASE state WHEN 'failed' THEN 'partial' ELSE state END"
           " WHERE remote_path = ? AND current = 1");
    q.bind(1, remote);
    if (!q.step()) return false;
    changed = sqlite3_changes(l.db);
    return true;
  });
  return ok ? changed : -1;
}

std::vector<FileRow> ledgerFiles(Ledger &l) {
  std::string sql = std::string("SELECT ") + FILE_COLUMNS + " FROM files f ORDER BY f.remote_path, f.current, f.id";
  Stmt q(l.db, sql.c_str());
  std::vector<FileRow> rows;
  while (q.step(true)) rows.push_back(fileFrom(q));
  return rows;
}

std::vector<PassRow> ledgerPasses(Ledger &l) {
  Stmt q(l.db,
         "SELECT id, start_ms, end_ms, host, COALESCE(ended, ''), bytes, datagrams, busy_ms FROM passes ORDER BY id");
  std::vector<PassRow> rows;
  while (q.step(true)) {
    rows.push_back({q.i64(0), q.i64(1), q.i64(2), q.text(3), q.text(4), static_cast<uint64_t>(q.i64(5)),
                    static_cast<uint64_t>(q.i64(6)), q.i64(7)});
  }
  return rows;
}

std::vector<FilePassBytes> ledgerFilePassBytes(Ledger &l) {
  Stmt q(l.db, "SELECT file_id, pass_id, bytes, datagrams FROM file_pass ORDER BY file_id, pass_id");
  std::vector<FilePassBytes> rows;
  while (q.step(true))
    rows.push_back({q.i64(0), q.i64(1), static_cast<uint64_t>(q.i64(2)), static_cast<uint64_t>(q.i64(3))});
  return rows;
}
