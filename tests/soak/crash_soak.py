#!/usr/bin/env python3
"""Crash soak of the download: `kestil get` of a multi-megabyte file from kestil-sim over a
lossy link, killed with SIGKILL at random (seeded) instants, the follow-up runs (get or
resume of the same local name) sometimes killed too, then finished by one more get.

After every kill the pair of data file and state record must be a partial download that can
be continued: every block the record marks holds the source's bytes, and once the record
knows the file its size and digest are the source's. Every round must end with exit status
0, a file with the source's content and no state file. Loopback only; every wait bounded.

    crash_soak.py --bin-dir build/bin --kills 100            # the long soak, ~20 minutes
    crash_soak.py --bin-dir build/bin --kills 4 --size 1000000 --addr 127.0.9.21
"""
import argparse
import hashlib
import os
import random
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

STATE_SIZE = 2248
VECTOR_AT = 20  # the block vector inside the state record
VECTOR = struct.Struct("<IIIIIiii16s128s")


def fail(msg):
    print("FAIL: " + msg, flush=True)
    sys.exit(1)


class Sim:
    """kestil-sim on its own loopback address, ready once it has printed its serving line."""

    def __init__(self, binary, root, addr, args, trace_path):
        self.trace = open(trace_path, "wb")
        self.proc = subprocess.Popen([binary, "--root", root, "--addr", addr] + args,
                                     stdout=self.trace, stderr=subprocess.PIPE)
        line = b""
        deadline = time.monotonic() + 10
        while not line.endswith(b"\n") and time.monotonic() < deadline:
            ready, _, _ = select.select([self.proc.stderr], [], [], deadline - time.monotonic())
            if not ready:
                break
            chunk = os.read(self.proc.stderr.fileno(), 512)
            if not chunk:
                break
            line += chunk
        if not line.startswith(b"kestil-sim: serving"):
            self.stop()
            fail("kestil-sim did not start: %r" % line)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.trace.close()


def check_partial(cwd, local, source, block_size_expected=141):
    """None when the data file and state record left by a killed run are consistent."""
    state_path = os.path.join(cwd, "." + local + ".kestil_state")
    data_path = os.path.join(cwd, local)
    if not os.path.exists(state_path):
        return None  # killed before the record was made, or after a verified end removed it
    with open(state_path, "rb") as f:
        rec = f.read()
    if len(rec) < STATE_SIZE:
        return None  # cut off while being created: the next run creates it anew
    if len(rec) != STATE_SIZE:
        return "state record of %d bytes" % len(rec)
    base, last, fsize, bsize, unique, _, _, head, md5, ring = VECTOR.unpack_from(rec, VECTOR_AT)
    if not 0 <= head <= 127 or base % 8 != 0:
        return "state record with ring index %d, base %d" % (head, base)
    if last == 0:
        return None  # no metadata yet: nothing marked counts
    if fsize != len(source) or md5 != hashlib.md5(source).digest() or bsize != block_size_expected:
        return "state record knows size %d, block size %d, another digest" % (fsize, bsize)
    with open(data_path, "rb") as f:
        data = f.read()
    marked = list(range(1, min(base, last)))
    for i in range(128):
        byte = ring[(head + i) % 128]
        for bit in range(8):
            blk = base + 8 * i + bit
            if blk != 0 and blk < last and byte & (0x80 >> bit):
                marked.append(blk)
    for blk in marked:
        start = (blk - 1) * bsize
        want = source[start:start + bsize]
        if data[start:start + len(want)] != want:
            return "block %d is marked received but the data file holds other bytes" % blk
    return None


def run_client(kestil, cwd, args, kill_after, limit_s):
    """Runs one client; SIGKILL after kill_after seconds (None: never). Returns its status,
    or 'killed' when the kill ended it."""
    with open(os.path.join(cwd, "client.out"), "wb") as out:
        proc = subprocess.Popen([kestil] + args, cwd=cwd, stdout=out, stderr=subprocess.STDOUT,
                                stdin=subprocess.DEVNULL)
        try:
            proc.wait(kill_after if kill_after is not None else limit_s)
            return proc.returncode
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
            return "killed" if kill_after is not None else "timed out after %ds" % limit_s


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--bin-dir", required=True)
    ap.add_argument("--kills", type=int, default=100, help="SIGKILLs in all (at least)")
    ap.add_argument("--size", type=int, default=2 * 1024 * 1024, help="bytes of the remote file")
    ap.add_argument("--loss", default="0.05")
    ap.add_argument("--pace", default="8000", help="the simulator's datagrams per second")
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--addr", default="127.0.9.40")
    ap.add_argument("--keep", action="store_true", help="keep the work directory")
    opts = ap.parse_args()

    kestil = os.path.join(opts.bin_dir, "kestil")
    sim_bin = os.path.join(opts.bin_dir, "kestil-sim")
    rng = random.Random(opts.seed)
    work = tempfile.mkdtemp(prefix="kestil-soak.")
    root = os.path.join(work, "root")
    cwd = os.path.join(work, "client")
    os.makedirs(root)
    os.makedirs(cwd)
    source = rng.randbytes(opts.size)
    with open(os.path.join(root, "payload.bin"), "wb") as f:
        f.write(source)
    digest = hashlib.md5(source).hexdigest()
    sim = Sim(sim_bin, root, opts.addr,
              ["--loss", opts.loss, "--dup", "0.01", "--seed", str(opts.seed), "--pace", opts.pace, "--idle", "5"],
              os.path.join(work, "sim-trace.txt"))
    limit_s = 120
    started = time.monotonic()
    kills = runs = rounds = 0
    try:
        # One uninterrupted download first: the soak's kill instants spread over its length.
        t0 = time.monotonic()
        status = run_client(kestil, cwd, ["get", "-h", opts.addr, "-o", "whole.bin", "payload.bin"], None, limit_s)
        span = time.monotonic() - t0
        if status != 0:
            fail("the uninterrupted get ended with %s" % status)
        while kills < opts.kills:
            rounds += 1
            local = "copy%03d.bin" % rounds
            for attempt in range(rng.choice([1, 2, 3, 4])):
                # A follow-up is a get of the same names or a resume of the local file.
                if attempt > 0 and rng.random() < 0.5:
                    args = ["resume", local]
                else:
                    args = ["get", "-h", opts.addr, "-o", local, "payload.bin"]
                kill_after = rng.uniform(0.0, span)
                status = run_client(kestil, cwd, args, kill_after, limit_s)
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
            status = run_client(kestil, cwd, ["get", "-h", opts.addr, "-o", local, "payload.bin"], None, limit_s)
            runs += 1
            with open(os.path.join(cwd, local), "rb") as f:
                content = f.read()
            if status != 0 or hashlib.md5(content).hexdigest() != digest or content != source:
                fail("round %d: the finishing get ended with %s and a file of %d bytes (digest %s)"
                     % (rounds, status, len(content), "right" if content == source else "wrong"))
            if os.path.exists(os.path.join(cwd, "." + local + ".kestil_state")):
                fail("round %d: the state file outlived a verified download" % rounds)
            os.remove(os.path.join(cwd, local))
            print("round %d verified: %d kills so far, %.0f s" % (rounds, kills, time.monotonic() - started),
                  flush=True)
    finally:
        sim.stop()
        if not opts.keep:
            shutil.rmtree(work, ignore_errors=True)
    print("crash soak: %d kills in %d rounds (%d runs) of a %d-byte file at %s loss, seed %d, %.0f s; "
          "every round ended verified" % (kills, rounds, runs, opts.size, opts.loss, opts.seed,
                                            time.monotonic() - started), flush=True)


if __name__ == "__main__":
    main()
