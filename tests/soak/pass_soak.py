#!/usr/bin/env python3
"""kestil-pass killed at random instants: the ledger agrees with the archive after each kill, the last run drains."""
import hashlib, os, random, shutil, signal, sqlite3, struct, subprocess, sys, time

sys.dont_write_bytecode = True  # no cache files beside the sources
from soaklib import Sim, fail, options, run, write  # noqa: E402

OWN = (".kestil-pass.db", ".kestil-pass.lock", ".kestil-pass.d")


def make_queue(root, rng, count, max_size):
    sums, queue = {}, b""
    for i in range(count):
        name = "g%d/file%02d.bin" % (i % 3, i)
        data = rng.randbytes(0 if i == 0 else rng.randrange(1, max_size))
        write(os.path.join(root, name), data)
        sums[name] = hashlib.md5(data).hexdigest()
        raw = name.encode()
        queue += struct.pack("<H", len(raw) + 4) + raw + b"\0" + bytes([i % 3, rng.randrange(5), 0])
    write(os.path.join(root, ".kestil-sim.qdata"), queue)
    return sums


def check_ledger(archive, sums):
    db = sqlite3.connect(os.path.join(archive, ".kestil-pass.db"), timeout=10)
    try:
        if db.execute("PRAGMA integrity_check").fetchone()[0] != "ok":
            return "the ledger fails its integrity check"
        for remote, local, md5 in db.execute("SELECT remote_path, local_path, md5 FROM files WHERE state = 'complete'"):
            try:
                with open(os.path.join(archive, local), "rb") as f:
                    digest = hashlib.md5(f.read()).hexdigest()
            except OSError as e:
                return "%s is complete in the ledger but not in the archive: %s" % (remote, e)
            if digest != sums[remote] or md5 != sums[remote]:
                return "%s is complete in the ledger with other bytes" % remote
        return None
    finally:
        db.close()


def archive_files(archive):
    found = set()
    for dirpath, dirs, files in os.walk(archive):
        rel = os.path.relpath(dirpath, archive)
        dirs[:] = [d for d in dirs if rel != "." or d not in OWN]
        for f in files:
            if rel != "." or f not in OWN:
                found.add(os.path.normpath(os.path.join(rel, f)))
    return found


def wait_groups_gone(groups, seconds=10):  # a killed run's sessions end on their own
    deadline = time.monotonic() + seconds
    for g in groups:
        while time.monotonic() < deadline:
            try:
                os.killpg(g, 0)
            except ProcessLookupError:
                break
            time.sleep(0.1)


def main():
    opts = options("127.0.41.1", kills=100, files=8, max_size=150000, loss="0.05", seed=1)
    rng, work = random.Random(opts.seed), opts.work
    root = os.path.join(work, "root")
    sums = make_queue(root, rng, opts.files, opts.max_size)
    groups = []  # each run in a process group of its own, so that its sessions can be waited for
    sim = Sim(opts.bin_dir, root, opts.addr, ["--rate", "800000", "--loss", opts.loss, "--seed", str(opts.seed)])

    def drain(archive, kill_after):
        with open(os.path.join(work, "pass.err"), "w+b") as err:
            status = run([os.path.join(opts.bin_dir, "kestil-pass"), "-h", opts.addr, "--archive", archive, "-q"],
                         kill_after, pids=groups, cwd=work, stdout=subprocess.DEVNULL, stderr=err,
                         start_new_session=True)
            err.seek(0)
            return status, err.read().decode(errors="replace")

    started, kills, rounds = time.monotonic(), 0, 0
    try:
        status, err = drain(os.path.join(work, "whole"), None)
        span = time.monotonic() - started  # the kill instants spread over one whole drain
        if status != 0:
            fail("the uninterrupted drain ended with %s: %s" % (status, err))
        while kills < opts.kills:
            rounds += 1
            archive = os.path.join(work, "archive%03d" % rounds)
            while True:  # killed runs, one after the other, until one drains the queue
                kill_after = rng.uniform(0.0, span)
                status, err = drain(archive, kill_after)
                if status != "killed":
                    break
                kills += 1
                problem = check_ledger(archive, sums)
                if problem:
                    fail("round %d, kill %d after %.3f s: %s" % (rounds, kills, kill_after, problem))
            if status != 0:
                fail("round %d: a run ended with %s: %s" % (rounds, status, err))
            wait_groups_gone(groups)
            problem = check_ledger(archive, sums)
            db = sqlite3.connect(os.path.join(archive, ".kestil-pass.db"))
            complete = {r[0] for r in db.execute("SELECT remote_path FROM files WHERE state = 'complete'")}
            db.close()
            if problem or complete != set(sums) or archive_files(archive) != set(sums):
                fail("round %d drained: %s; the archive holds %s, the ledger %s complete, the source %s"
                     % (rounds, problem, sorted(archive_files(archive)), sorted(complete), sorted(sums)))
            shutil.rmtree(archive)
            print("round %d drained: %d kills, %.0f s" % (rounds, kills, time.monotonic() - started), flush=True)
    finally:
        for g in groups:
            try:
                os.killpg(g, signal.SIGKILL)
            except ProcessLookupError:
                pass
        sim.stop()


if __name__ == "__main__":
    main()
