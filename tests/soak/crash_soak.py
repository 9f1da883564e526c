#!/usr/bin/env python3
"""Gets from kestil-sim killed at random instants leave a continuable partial download; each round ends verified."""
import hashlib, os, random, struct, sys

sys.dont_write_bytecode = True  # no cache files beside the sources
from soaklib import Proc, Sim, fail, kill_rounds, options, read, write  # noqa: E402

STATE_SIZE = 2248
VECTOR = struct.Struct("<IIIIIiii16s128s")  # the block vector, 20 bytes into the state record


def check_partial(cwd, local, source):
    state_path = os.path.join(cwd, "." + local + ".kestil_state")
    if not os.path.exists(state_path):
        return None  # killed before the record was made, or after a verified end removed it
    rec = read(state_path)
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
    data = read(os.path.join(cwd, local))
    marked = list(range(1, min(base, last)))
    marked += [base + 8 * i + bit for i in range(128) for bit in range(8)
               if ring[(head + i) % 128] & (0x80 >> bit) and 0 < base + 8 * i + bit < last]
    for blk in marked:
        want = source[(blk - 1) * bsize:blk * bsize]
        if data[(blk - 1) * bsize:(blk - 1) * bsize + len(want)] != want:
            return "block %d is marked received but the data file holds other bytes" % blk
    return None


def main():
    opts = options("127.0.9.40", kills=100, size=2 * 1024 * 1024, loss="0.05", seed=1)
    kestil, rng = os.path.join(opts.bin_dir, "kestil"), random.Random(opts.seed)
    root, cwd = os.path.join(opts.work, "root"), os.path.join(opts.work, "client")
    os.makedirs(cwd)
    source = rng.randbytes(opts.size)
    write(os.path.join(root, "payload.bin"), source)

    def run(rnd, attempt, kill_after):  # a get of copyNNN.bin, or after a kill as likely its resume
        local = "copy%03d.bin" % rnd
        get = ["get", "-h", opts.addr, "-o", local, "payload.bin"]
        args = ["resume", local] if attempt > 0 and rng.random() < 0.5 else get
        status, out = Proc([kestil] + args, cwd).finish(120, kill_after)
        # Ended before its kill: verified, or a resume that found no record left.
        if kill_after is not None and status not in ("killed", 0) and not (args[0] == "resume" and status == 1):
            fail("round %d: %s ended with %s before its kill: %s" % (rnd, " ".join(args), status, out))
        return status, out

    def end_round(rnd, *_):  # one more get finishes the file and removes its record
        local = "copy%03d.bin" % rnd
        status, out = run(rnd, 0, None)
        same = read(os.path.join(cwd, local)) == source
        if status != 0 or not same or os.path.exists(os.path.join(cwd, "." + local + ".kestil_state")):
            fail("round %d: the finishing get ended with %s, %s content, state file %s: %s" % (
                rnd, status, "same" if same else "other", os.listdir(cwd), out))
        os.remove(os.path.join(cwd, local))

    with Sim(opts.bin_dir, root, opts.addr,
             ["--loss", opts.loss, "--dup", "0.01", "--seed", str(opts.seed), "--pace", "8000", "--idle", "5"]):
        kill_rounds(opts, rng, run, lambda rnd: check_partial(cwd, "copy%03d.bin" % rnd, source), end_round,
                    tries=lambda: rng.choice([1, 2, 3, 4]))


if __name__ == "__main__":
    main()
