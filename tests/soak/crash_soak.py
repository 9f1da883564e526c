#!/usr/bin/env python3
"""Crash soak of the download: `kestil get` of a multi-megabyte file from kestil-sim over a lossy
link, killed with SIGKILL at seeded random instants, follow-up runs (get or resume of the same
local name) sometimes killed too, then one more get. After every kill the data file and state
record must be a partial download that can be continued; every round must end with exit status
0, the source's content and no state file. Loopback only; every wait bounded.

    crash_soak.py --bin-dir build/bin --kills 100            # the long soak, ~20 minutes
"""
import hashlib, os, random, struct, sys, time

sys.dont_write_bytecode = True  # no cache files beside the sources
from soaklib import Sim, fail, options, run, workdir, write  # noqa: E402

STATE_SIZE = 2248
VECTOR = struct.Struct("<IIIIIiii16s128s")  # the block vector, 20 bytes into the state record


def check_partial(cwd, local, source):
    """None when the data file and state record left by a killed run are consistent."""
    state_path = os.path.join(cwd, "." + local + ".kestil_state")
    if not os.path.exists(state_path):
        return None  # killed before the record was made, or after a verified end removed it
    with open(state_path, "rb") as f:
        rec = f.read()
    if len(rec) < STATE_SIZE:
        return None  # cut off while being created: the next run creates it anew
    if len(rec) != STATE_SIZE:
        return "state record of %d bytes" % len(rec)
    base, last, fsize, bsize, _, _, _, head, md5, ring = VECTOR.unpack_from(rec, 20)
    if not 0 <= head <= 127 or base % 8 != 0:
        return "state record with ring index %d, base %d" % (head, base)
    if last == 0:
        return None  # no metadata yet: nothing marked counts
    if fsize != len(source) or md5 != hashlib.md5(source).digest() or bsize != 141:
        return "state record knows size %d, block size %d, another digest" % (fsize, bsize)
    with open(os.path.join(cwd, local), "rb") as f:
        data = f.read()
    marked = list(range(1, min(base, last)))
    marked += [base + 8 * i + bit for i in range(128) for bit in range(8)
               if ring[(head + i) % 128] & (0x80 >> bit) and 0 < base + 8 * i + bit < last]
    for blk in marked:
        want = source[(blk - 1) * bsize:blk * bsize]
        if data[(blk - 1) * bsize:(blk - 1) * bsize + len(want)] != want:
            return "block %d is marked received but the data file holds other bytes" % blk
    return None


def run_client(kestil, cwd, args, kill_after):
    """One client, its output in client.out; its status, or 'killed'."""
    with open(os.path.join(cwd, "client.out"), "wb") as out:
        return run([kestil] + args, kill_after, cwd=cwd, stdout=out, stderr=out)


def main():
    opts = options(__doc__, "127.0.9.40", kills=100, size=2 * 1024 * 1024, loss="0.05", seed=1)
    kestil = os.path.join(opts.bin_dir, "kestil")
    rng = random.Random(opts.seed)
    work = workdir("kestil-soak.")
    root, cwd = os.path.join(work, "root"), os.path.join(work, "client")
    os.makedirs(cwd)
    source = rng.randbytes(opts.size)
    write(os.path.join(root, "payload.bin"), source)
    sim = Sim(opts.bin_dir, root, opts.addr,
              ["--loss", opts.loss, "--dup", "0.01", "--seed", str(opts.seed), "--pace", "8000", "--idle", "5"],
              os.path.join(work, "sim-trace.txt"))
    get = ["get", "-h", opts.addr, "-o"]
    started = time.monotonic()
    kills = runs = rounds = 0
    try:
        # One uninterrupted download first: the kill instants spread over its length.
        status = run_client(kestil, cwd, get + ["whole.bin", "payload.bin"], None)
        span = time.monotonic() - started
        if status != 0:
            fail("the uninterrupted get ended with %s" % status)
        while kills < opts.kills:
            rounds += 1
            local = "copy%03d.bin" % rounds
            for attempt in range(rng.choice([1, 2, 3, 4])):
                # A follow-up is a get of the same names or a resume of the local file.
                args = ["resume", local] if attempt > 0 and rng.random() < 0.5 else get + [local, "payload.bin"]
                kill_after = rng.uniform(0.0, span)
                status = run_client(kestil, cwd, args, kill_after)
                runs += 1
                if status != "killed":
                    # It ended before its kill: verified, or a resume that found no record left.
                    if status != 0 and not (args[0] == "resume" and status == 1):
                        fail("round %d: %s ended with %s before its kill" % (rounds, " ".join(args), status))
                    break
                kills += 1
                problem = check_partial(cwd, local, source)
                if problem:
                    fail("round %d, kill %d after %.3fs: %s" % (rounds, kills, kill_after, problem))
            status = run_client(kestil, cwd, get + [local, "payload.bin"], None)
            runs += 1
            with open(os.path.join(cwd, local), "rb") as f:
                content = f.read()
            if status != 0 or content != source:
                fail("round %d: the finishing get ended with %s and a file of %d bytes (digest %s)"
                     % (rounds, status, len(content), "right" if content == source else "wrong"))
            if os.path.exists(os.path.join(cwd, "." + local + ".kestil_state")):
                fail("round %d: the state file outlived a verified download" % rounds)
            os.remove(os.path.join(cwd, local))
            print("round %d verified: %d kills so far, %.0f s" % (rounds, kills, time.monotonic() - started),
                  flush=True)
    finally:
        sim.stop()
    print("crash soak: %d kills in %d rounds (%d runs) of a %d-byte file at %s loss, seed %d, %.0f s; "
          "every round ended verified" % (kills, rounds, runs, opts.size, opts.loss, opts.seed,
                                            time.monotonic() - started), flush=True)


if __name__ == "__main__":
    main()
