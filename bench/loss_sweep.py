#!/usr/bin/env python3
"""The loss sweep: get and put of one file (4 MiB by default) through kestil-sim's emulated link
at 0 to 50% independent loss each way, with 10% duplication and 10% hold-back throughout.
Every transfer must end with a matching MD5. A put that rightly gives up before its request is
answered ("timed out", exit 1, nothing stored) is counted and finished with a second put.
Writes bench/results/loss_sweep.json and prints a table. Not part of `make check`.

Usage: bench/loss_sweep.py --bin BUILD/bin [--size BYTES] [--rate BITS] [--loss 0,0.1,...]
"""
import argparse
import json
import os
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run_bench as rb  # noqa: E402

DUP = 0.1
REORDER = 0.1
DELAY_MS = 10


def sweep_level(args, work, loss, src, up, want, want_up, index):
    root, ground = os.path.join(work, "root"), os.path.join(work, "ground")
    wire = rb.kestil_wire_bytes(args.size)
    bound = rb.lower_bound(wire, args.rate, DELAY_MS, loss)
    timeout = 10 * bound + 120
    sim = rb.start_sim(args, work, root, ["--rate", str(args.rate), "--delay", str(DELAY_MS), "--loss", str(loss),
                                          "--dup", str(DUP), "--reorder", str(REORDER), "--seed", str(11 + index)])
    row = {"loss": loss, "lower_bound_s": bound}
    try:
        t0, code, wall, cpu, rss = rb.kestil_get(args, ground, rb.SIM_ADDR, os.path.basename(src), timeout)
        got = os.path.join(ground, os.path.basename(src))
        done = rb.completed_at(got, t0)
        row["get"] = {"exit": code, "md5_ok": code == 0 and rb.md5(got) == want, "complete_s": done,
                      "complete_ratio": done / bound if done else None, "exit_s": wall}

        stored = os.path.join(root, os.path.basename(up))
        if os.path.exists(stored):
            os.remove(stored)
        pkts = args.rate / ((rb.KESTIL_BLOCK + 3 + rb.IPUDP) * 8)
        argv = [os.path.join(args.bin, "kestil"), "put", "-h", rb.SIM_ADDR, "-t", "20", "-p", f"{pkts:.3f}", up]
        gave_up = 0
        for _ in range(3):
            t0, code, wall, cpu, rss = rb.run_client(argv, ground, timeout)
            if os.path.exists(stored) or code != 1:
                break
            gave_up += 1  # the request went unanswered: nothing changed remotely; put again
        done = rb.completed_at(stored, t0) if os.path.exists(stored) else None
        row["put"] = {"exit": code, "md5_ok": os.path.exists(stored) and rb.md5(stored) == want_up,
                      "complete_s": done, "complete_ratio": done / bound if done else None, "exit_s": wall,
                      "gave_up_before_answer": gave_up}
    finally:
        sim.stop()
    return row


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin", required=True)
    ap.add_argument("--size", type=int, default=4 << 20)
    ap.add_argument("--rate", type=int, default=4_000_000)
    ap.add_argument("--loss", default="0,0.1,0.2,0.3,0.4,0.5")
    ap.add_argument("--out", default="bench/results")
    ap.add_argument("--net", type=int, default=51, help="the addresses used are 127.NET.0.x")
    args = ap.parse_args()
    rb.use_net(args.net)
    args.bin = os.path.abspath(args.bin)
    rb.signal.signal(rb.signal.SIGTERM, lambda *_: sys.exit(1))
    rows = []
    with tempfile.TemporaryDirectory(prefix="kestil-sweep.") as work:
        for d in ("root", "ground"):
            os.makedirs(os.path.join(work, d))
        src = os.path.join(work, "root", "sweep.bin")
        up = os.path.join(work, "ground", "sweep-up.bin")
        rb.make_file(src, args.size, 4)
        rb.make_file(up, args.size, 5)
        for i, loss in enumerate(float(x) for x in args.loss.split(",")):
            row = sweep_level(args, work, loss, src, up, rb.md5(src), rb.md5(up), i)
            rows.append(row)
            rb.log(f"loss {loss:.0%}: get {row['get']}, put {row['put']}")
    os.makedirs(args.out, exist_ok=True)
    with open(os.path.join(args.out, "loss_sweep.json"), "w") as f:
        json.dump({"size": args.size, "rate_bps": args.rate, "delay_ms": DELAY_MS, "dup": DUP, "reorder": REORDER,
                   "rows": rows}, f, indent=1)
    lines = ["| loss | get: complete / bound | get MD5 | put: complete / bound | put MD5 | puts that gave up first |",
             "|---|---|---|---|---|---|"]
    ok = True
    for r in rows:
        g, p = r["get"], r["put"]
        ratio = lambda x: f"{x:.2f}" if x else "—"  # noqa: E731
        lines.append(f"| {r['loss']:.0%} | {ratio(g['complete_ratio'])} | {'ok' if g['md5_ok'] else 'FAILED'} | "
                     f"{ratio(p['complete_ratio'])} | {'ok' if p['md5_ok'] else 'FAILED'} | "
                     f"{p['gave_up_before_answer']} |")
        ok = ok and g["md5_ok"] and p["md5_ok"]
    with open(os.path.join(args.out, "loss_sweep.md"), "w") as f:
        f.write("\n".join(lines) + "\n")
    print("\n".join(lines))
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
