#!/usr/bin/env python3
"""kestil-pass killed at random instants: the ledger agrees with the archive after each kill, the last run drains."""
import hashlib, os, random, shutil, signal, sqlite3, struct, sys

sys.dont_write_bytecode = True  # no cache files beside the sources
from soaklib import Proc, Sim, eventually, fail, kill_rounds, options, read, write  # noqa: E402


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


def check_ledger(archive, sums, drained=False):
    """What is wrong with the ledger against the archive, or None; once drained, every file must be complete."""
    db = sqlite3.connect(os.path.join(archive, ".kestil-pass.db"), timeout=10)
    try:
        if db.execute("PRAGMA integrity_check").fetchone()[0] != "ok":
            return "the ledger fails its integrity check"
        complete = db.execute("SELECT remote_path, local_path, md5 FROM files WHERE state = 'complete'").fetchall()
    finally:
        db.close()
    for remote, local, md5 in complete:
        try:
            digest = hashlib.md5(read(os.path.join(archive, local))).hexdigest()
        except OSError as e:
            return "%s is complete in the ledger but not in the archive: %s" % (remote, e)
        if digest != sums[remote] or md5 != sums[remote]:
            return "%s is complete in the ledger with other bytes" % remote
    names = {remote for remote, _, _ in complete}
    if drained and (names != set(sums) or archive_files(archive) != set(sums)):
        return "drained, the archive holds %s, the ledger %s complete, the source %s" % (
            sorted(archive_files(archive)), sorted(names), sorted(sums))
    return None


def archive_files(archive):  # kestil-pass's own files, at the top, left out
    found = {os.path.relpath(os.path.join(d, f), archive) for d, _, files in os.walk(archive) for f in files}
    return {name for name in found if not name.startswith(".kestil-pass")}


def live_groups(groups, sig=0):
    """Sends sig to each process group of groups, keeping there only those still alive."""
    for g in list(groups):
        try:
            os.killpg(g, sig)
        except ProcessLookupError:
            groups.remove(g)
    return groups


def main():
    opts = options("127.0.41.1", kills=100, files=8, max_size=150000, loss="0.05", seed=1)
    rng, work = random.Random(opts.seed), opts.work
    root = os.path.join(work, "root")
    sums = make_queue(root, rng, opts.files, opts.max_size)
    groups = []  # each run in a process group of its own, so that its sessions can be waited for
    archive = lambda rnd: os.path.join(work, "archive%03d" % rnd)  # noqa: E731

    def drain(rnd, _, kill_after):
        run = Proc([os.path.join(opts.bin_dir, "kestil-pass"), "-h", opts.addr, "--archive", archive(rnd), "-q"], work,
                   start_new_session=True)
        groups.append(run.proc.pid)
        return run.finish(120, kill_after)

    def end_round(rnd, status, out):  # the run that was not killed drained the queue
        if status != 0:
            fail("round %d: a run ended with %s: %s" % (rnd, status, out))
        eventually(lambda: not live_groups(groups), 10)  # a killed run's sessions end on their own
        problem = check_ledger(archive(rnd), sums, drained=True)
        if problem:
            fail("round %d: %s" % (rnd, problem))
        shutil.rmtree(archive(rnd))

    try:
        with Sim(opts.bin_dir, root, opts.addr, ["--rate", "800000", "--loss", opts.loss, "--seed", str(opts.seed)]):
            kill_rounds(opts, rng, drain, lambda rnd: check_ledger(archive(rnd), sums), end_round)
    finally:
        live_groups(groups, signal.SIGKILL)


if __name__ == "__main__":
    main()
