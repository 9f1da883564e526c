#!/usr/bin/env python3
"""A simulated day of passes: kestil-pass --schedule drains a queue larger than the day can
carry from kestil-sim behind a paced, lossy link that is up only in the scheduled windows.
The figure is the payload delivered divided by what the up time can carry at best:

    up time x rate / 8 x (1 - loss) x 141 / 172

(172 bytes of wire carry one 141-byte block: its 3-byte header and 28 bytes of IP/UDP). Every
file the ledger holds complete must have the source's MD5. Loopback only; bounded in time.

    pass_day.py --bin build/bin                      # 6 passes of 120 s up, 60 s down (~18 min)
    pass_day.py --bin build/bin --passes 3 --up 24 --down 8 --target 0.3    # the short form in make check
"""
import argparse, hashlib, json, math, os, random, select, shutil, signal, struct, subprocess, sys, tempfile, time

BLOCK, WIRE = 141, 172


def fail(msg):
    print("FAIL: " + msg, flush=True)
    sys.exit(1)


def utc(t):
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(t))


def make_queue(root, rng, capacity, opts):
    """Files of log-uniform sizes, more bytes than the day can carry, queued over groups and
    priorities in the simulator's queue data file. Returns {name: md5}."""
    sums, queue, total, i = {}, b"", 0, 0
    while total < opts.excess * capacity:
        size = int(math.exp(rng.uniform(math.log(opts.min_size), math.log(opts.max_size))))
        name = "day/f%03d.bin" % i
        data = rng.randbytes(size)
        with open(os.path.join(root, name), "wb") as f:
            f.write(data)
        sums[name] = hashlib.md5(data).hexdigest()
        raw = name.encode()
        queue += struct.pack("<H", len(raw) + 4) + raw + b"\0" + bytes([rng.randrange(4), rng.randrange(10), 0])
        total, i = total + size, i + 1
    with open(os.path.join(root, ".kestil-sim.qdata"), "wb") as f:
        f.write(queue)
    return sums


def start_sim(binary, args, work):
    proc = subprocess.Popen([binary] + args, cwd=work, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    if not select.select([proc.stderr], [], [], 10)[0] or not proc.stderr.readline().startswith(b"kestil-sim: serving"):
        proc.kill()
        fail("kestil-sim did not start")
    return proc


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--bin", required=True)
    ap.add_argument("--passes", type=int, default=6)
    ap.add_argument("--up", type=int, default=120)
    ap.add_argument("--down", type=int, default=60)
    ap.add_argument("--loss", type=float, default=0.1)
    ap.add_argument("--rate", type=int, default=19200)
    ap.add_argument("--min-size", type=int, default=1024)
    ap.add_argument("--max-size", type=int, default=1 << 20)
    ap.add_argument("--excess", type=float, default=1.5, help="queued bytes over what the day can carry")
    # Seed 3 queues 31 files, of which about a dozen fit the day: the figure includes the changes
    # from one file to the next, not only long transfers.
    ap.add_argument("--seed", type=int, default=3)
    ap.add_argument("--addr", default="127.0.49.1")
    ap.add_argument("--target", type=float, default=0.85)
    ap.add_argument("--out", help="write the result as JSON here")
    opts = ap.parse_args()
    bindir = os.path.abspath(opts.bin)
    capacity = opts.passes * opts.up * opts.rate / 8 * (1 - opts.loss) * BLOCK / WIRE
    work = tempfile.mkdtemp(prefix="kestil-day.")
    root, archive = os.path.join(work, "root"), os.path.join(work, "archive")
    os.makedirs(os.path.join(root, "day"))
    sim = None
    try:
        sums = make_queue(root, random.Random(opts.seed), capacity, opts)
        t0 = int(time.time()) + 3
        period = opts.up + opts.down
        with open(os.path.join(work, "schedule"), "w") as f:
            for k in range(opts.passes):
                f.write("%s %s\n" % (utc(t0 + k * period), utc(t0 + k * period + opts.up)))
        # A transfer the pass left behind is dropped well within the gap, as a real service would.
        sim = start_sim(os.path.join(bindir, "kestil-sim"),
                        ["--root", root, "--addr", opts.addr, "--rate", str(opts.rate), "--pace-rate", str(opts.rate),
                         "--loss", str(opts.loss), "--seed", str(opts.seed), "--pass", "%d:%d" % (opts.up, opts.down),
                         "--pass-start", str(t0), "--idle", str(max(2, opts.down // 2))], work)
        started = time.monotonic()
        run = subprocess.run([os.path.join(bindir, "kestil-pass"), "-h", opts.addr, "--archive", archive,
                              "--schedule", os.path.join(work, "schedule"), "-q"], cwd=work, capture_output=True,
                             timeout=opts.passes * period + 60)
        elapsed = time.monotonic() - started
        if run.returncode not in (0, 2):
            fail("kestil-pass ended with %d: %s%s" % (run.returncode, run.stdout.decode(), run.stderr.decode()))
        status = subprocess.run([os.path.join(bindir, "kestil-pass"), "--status", "--archive", archive, "--json"],
                                capture_output=True, check=True)
        ledger = json.loads(status.stdout)
        complete = [f for f in ledger["files"] if f["state"] == "complete"]
        for f in complete:
            with open(os.path.join(archive, f["local_path"]), "rb") as data:
                if hashlib.md5(data.read()).hexdigest() != sums[f["remote_path"]] or f["md5"] != sums[f["remote_path"]]:
                    fail("%s is complete in the ledger but not the source's bytes" % f["remote_path"])
        passes = ledger["passes"]
        if len(passes) != opts.passes:
            fail("%d passes in the ledger, %d scheduled" % (len(passes), opts.passes))
        payload = sum(p["bytes"] for p in passes)
        figure = payload / capacity
        result = {"passes": opts.passes, "up_s": opts.up, "down_s": opts.down, "loss": opts.loss, "rate": opts.rate,
                  "queued_files": len(sums), "queued_bytes": sum(os.path.getsize(os.path.join(root, n)) for n in sums),
                  "complete_files": len(complete), "payload_bytes": payload, "best_bytes": round(capacity),
                  "figure": round(figure, 4), "seconds": round(elapsed, 1),
                  "per_pass": [{"bytes": p["bytes"], "ended": p["ended"], "busy": p["busy_share"]} for p in passes]}
        print("simulated day: %d passes of %d s up, %d s down, %.0f%% loss each way, %d bit/s: %d of %d queued "
              "files complete, %d payload bytes of %d at best: %.3f (target %.2f)"
              % (opts.passes, opts.up, opts.down, 100 * opts.loss, opts.rate, len(complete), len(sums), payload,
                 capacity, figure, opts.target), flush=True)
        if opts.out:
            with open(opts.out, "w") as f:
                json.dump(result, f, indent=1)
        if figure < opts.target:
            fail("the day delivered %.3f of the best, below %.2f" % (figure, opts.target))
    finally:
        if sim is not None:
            sim.send_signal(signal.SIGTERM)
            sim.wait(10)
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
