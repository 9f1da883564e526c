#!/usr/bin/env python3
"""The benchmarks behind `make bench`: the loopback ceiling, a loopback download beside atftp and
uftp (and alone with both ends on one core), the emulated links S1-S5 crossed by every tool
through kestil-sim's relay, and the client's memory. Every figure is the median of --runs runs
(--fast-runs for the loopback download and S5) with min and max; the tools take turns run by
run, so that each sees the same machine. Every line reports copies: data datagrams sent per
block of the file, minus one. Only 127.NET.0.x addresses are used; every process is bounded in
time and killed at the end.

Usage: bench/run_bench.py --bin BUILD/bin [--runs N] [--fast-runs N] [--only raw,loopback,...] [--out DIR]
"""
import argparse
import hashlib
import json
import os
import platform
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

# Addresses and ports: see use_net (127.NET.0.1 the relay, .2 kestil-sim, .3 atftpd, .4 uftpd).
SIM_ADDR = RELAY_ADDR = ATFTPD_ADDR = UFTPD_ADDR = RAW_ADDR = ""
ATFTP_PORT = UFTP_PORT = 0
IPUDP = 28
KESTIL_BLOCK = 141

# name, link rate bit/s, one-way delay ms, loss, file size, the best other tool's ratio to exit
SCENARIOS = [
    ("S1", 1_000_000, 20, 0.00, 1 << 20, 1.04),
    ("S2", 1_000_000, 20, 0.05, 1 << 20, 1.09),
    ("S3", 64_000, 300, 0.10, 256 << 10, 1.35),
    ("S4", 9_600, 10, 0.02, 32 << 10, 1.09),
    ("S5", 20_000_000, 5, 0.01, 64 << 20, None),
]
SEED = 7
# Items measured over --fast-runs runs.
FAST_ITEMS = ("loopback", "loopback-1core", "S5")
# On S5 a peer (and kestil put) that has not finished after this many times kestil's lower
# bound is stopped and counted as incomplete: atftp's window falls into rounds of resends at 1%
# loss and would take about ten minutes a run.
S5_PEER_LIMIT = 3
# uftpd's client ID: its address on the interface it serves (-I lo). Named to uftp with -H, it
# makes a closed group, so uftp sends as soon as that client has registered; an open group is
# announced 20 times (about 5 s) first, whatever the link.
UFTPD_CLIENT_ID = "0x7F000001"
# uftp's -R counts its own packets (block and header, about 1320 bytes) without the 28 bytes of
# IP/UDP that the link counts: the rate it is given is scaled so that it fills the link exactly
# rather than overrunning it by 2% and queueing in the relay.
UFTP_RATE_SHARE = 1320 / (1320 + IPUDP)
PERF_SENDS = ["perf", "stat", "-e", "syscalls:sys_enter_sendto", "-x,", "-o"]
HAVE_PERF = False


def use_net(net):
    global SIM_ADDR, RELAY_ADDR, ATFTPD_ADDR, UFTPD_ADDR, RAW_ADDR, ATFTP_PORT, UFTP_PORT
    SIM_ADDR, RELAY_ADDR, ATFTPD_ADDR, UFTPD_ADDR, RAW_ADDR = (f"127.{net}.0.{i}" for i in (2, 1, 3, 4, 5))
    # uftpd listens on its port on every address, so each net has its own ports too.
    ATFTP_PORT, UFTP_PORT = 6900 + net * 4, 10400 + net * 4


def log(*a):
    print(*a, file=sys.stderr, flush=True)


def md5(path):
    h = hashlib.md5()
    with open(path, "rb") as f:
        for chunk in iter(lambda: f.read(1 << 20), b""):
            h.update(chunk)
    return h.hexdigest()


def summary(values):
    values = [v for v in values if v is not None]
    if not values:
        return None
    return {"median": statistics.median(values), "min": min(values), "max": max(values), "n": len(values)}


def children(pid):
    kids = []
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/children") as f:
                kids += [int(k) for k in f.read().split()]
    except (FileNotFoundError, ProcessLookupError):
        pass
    return kids


def counting_sends(argv, path):
    """`argv` run under perf, which writes to `path` how many datagrams it sent (sendto calls)."""
    return PERF_SENDS + [path, "--"] + argv if HAVE_PERF else argv


def sends_counted(path):
    try:
        with open(path) as f:
            for line in f:
                fields = line.split(",")
                if len(fields) > 2 and "sys_enter_sendto" in fields[2]:
                    return int(fields[0])
    except (FileNotFoundError, ValueError):
        pass
    return None


def check_perf(work):
    global HAVE_PERF
    path = os.path.join(work, "perf-check.txt")
    HAVE_PERF = shutil.which("perf") is not None
    if HAVE_PERF:
        subprocess.run(counting_sends(["true"], path), capture_output=True, timeout=30)
        HAVE_PERF = sends_counted(path) is not None
    if not HAVE_PERF:
        log("perf cannot count system calls here: the peers' copies on loopback are not reported")


def copies(datagrams, blocks):
    return None if datagrams is None or not blocks else datagrams / blocks - 1


def kestil_blocks(size):
    return -(-size // KESTIL_BLOCK) + 1  # block 0 is the metadata


class Daemon:
    """A server started for one measurement; waits (bounded) until it is ready, then stopped.
    One started under perf (counting_sends) is stopped through its child, so that perf writes."""

    def __init__(self, argv, workdir, name, ready=None, timeout=10):
        self.err = os.path.join(workdir, name + ".err")
        self.out = os.path.join(workdir, name + ".out")
        self.counted = argv[0] == "perf"
        self.proc = subprocess.Popen(argv, stdout=open(self.out, "wb"), stderr=open(self.err, "wb"),
                                     cwd=workdir, start_new_session=True)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError(f"{name} ended at start: {open(self.err).read()}")
            if ready is None or ready():
                return
            time.sleep(0.01)
        raise RuntimeError(f"{name} did not come up")

    def stop(self):
        kids = children(self.proc.pid) if self.counted and self.proc.poll() is None else []
        for k in kids:
            os.kill(k, signal.SIGTERM)
        if kids:
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                pass
        if self.proc.poll() is None:
            os.killpg(self.proc.pid, signal.SIGTERM)
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait()


def has_output(path):
    return lambda: os.path.exists(path) and os.path.getsize(path) > 0


def udp_bound(addr, port):
    hexaddr = "".join(f"{int(x):02X}" for x in reversed(addr.split(".")))
    key = f"{hexaddr}:{port:04X}"
    def check():
        with open("/proc/net/udp") as f:
            return any(line.split()[1] == key for line in f.readlines()[1:])
    return check


def run_client(argv, cwd, timeout, stdout=subprocess.DEVNULL):
    """Runs one client; answers (exit status, wall seconds, user+system CPU seconds, peak RSS KiB)."""
    t0 = time.time_ns()
    proc = subprocess.Popen(argv, cwd=cwd, stdout=stdout, stderr=subprocess.STDOUT, start_new_session=True)
    deadline = time.monotonic() + timeout
    try:
        while True:
            pid, status, ru = os.wait4(proc.pid, os.WNOHANG)
            if pid != 0:
                break
            if time.monotonic() > deadline:
                os.killpg(proc.pid, signal.SIGKILL)
                pid, status, ru = os.wait4(proc.pid, 0)
                status = -1
                break
            time.sleep(0.005)
    except BaseException:
        os.killpg(proc.pid, signal.SIGKILL)  # a stopped benchmark leaves no client behind
        os.waitpid(proc.pid, 0)
        raise
    wall = (time.time_ns() - t0) / 1e9
    code = os.waitstatus_to_exitcode(status) if status != -1 else -1
    proc.returncode = code
    return t0, code, wall, ru.ru_utime + ru.ru_stime, ru.ru_maxrss


def completed_at(path, t0):
    """When the received file last changed (written, renamed into place or stamped), after t0."""
    try:
        return (os.stat(path).st_ctime_ns - t0) / 1e9
    except FileNotFoundError:
        return None


def make_file(path, size, seed):
    with open(path, "wb") as f:
        remaining, n = size, seed
        while remaining > 0:
            block = hashlib.sha256(str(n).encode()).digest() * 2048
            f.write(block[:remaining])
            remaining -= len(block[:remaining])
            n += 1


# ---- wire sizes for the lower bounds ----

def kestil_wire_bytes(size):
    blocks = -(-size // KESTIL_BLOCK)
    total = 33 + IPUDP
    for first, last, hdr in ((1, 255, 2), (256, 65535, 3), (65536, 1 << 24, 4)):
        n = max(0, min(blocks, last) - first + 1)
        total += n * (hdr + IPUDP)
    return total + size


def atftp_wire_bytes(size, blksize):
    return (size // blksize + 1) * (4 + IPUDP) + size


def uftp_wire_bytes(size, blksize=1300, header=24):
    # the data packets' own headers (uftp, file segment), measured from the relay trace
    return -(-size // blksize) * (header + IPUDP) + size


def lower_bound(wire_bytes, rate, delay_ms, loss):
    return wire_bytes * 8 / rate / (1 - loss) + 2 * delay_ms / 1000


# ---- the measurements ----

def bench_raw(args, work):
    """The bare receiver's rate, and the rate of one that also makes the receive loop's
    required system calls for every datagram, run by run."""
    out = {"": [], "client-calls": []}
    for _ in range(args.runs):
        for mode in out:
            r = subprocess.run([os.path.join(args.bin, "raw_udp_bench"), RAW_ADDR, "3"] + ([mode] if mode else []),
                               capture_output=True, text=True, timeout=30)
            out[mode].append(json.loads(r.stdout)["payload_MBps"])
    return {"payload_MBps": summary(out[""]), "client_calls_MBps": summary(out["client-calls"])}


def start_sim(args, work, root, extra, pin=()):
    err = os.path.join(work, "sim.err")
    if os.path.exists(err):
        os.remove(err)
    return Daemon(list(pin) + [os.path.join(args.bin, "kestil-sim"), "--root", root, "--addr", SIM_ADDR,
                               "--idle", "30"] + extra, work, "sim", has_output(err))


def sim_copies(sim):
    """Copies of the downloads a stopped kestil-sim served, from the count it prints when it stops."""
    m = re.search(r"sent (\d+) datagrams for (\d+) blocks", open(sim.err).read())
    return copies(int(m[1]), int(m[2])) if m else None


def start_relay(args, work, upstream, port, rate, delay, loss, trace=False, listen_port=None):
    err = os.path.join(work, "relay.err")
    if os.path.exists(err):
        os.remove(err)
    argv = [os.path.join(args.bin, "kestil-sim"), "--relay", f"{RELAY_ADDR}:{listen_port or port}", f"{upstream}:{port}",
            "--rate", str(rate), "--delay", str(delay), "--loss", str(loss), "--seed", str(SEED), "--idle", "30"]
    return Daemon(argv + (["-v"] if trace else []), work, "relay", has_output(err))


def relayed(relay, side):
    """Datagrams a stopped relay took in from `side` ("clients" or "upstream"), before the link's losses."""
    m = re.search(r"relayed (\d+) datagrams from clients, (\d+) from upstream", open(relay.err).read())
    return int(m[1] if side == "clients" else m[2]) if m else None


def start_atftpd(work, root, addr, count_path=None):
    argv = ["atftpd", "--daemon", "--no-fork", "--user", "root.root", "--port", str(ATFTP_PORT),
            "--bind-address", addr, "--logfile", os.path.join(work, "atftpd.log"), root]
    return Daemon(counting_sends(argv, count_path) if count_path else argv, work, "atftpd",
                  udp_bound(addr, ATFTP_PORT))


def start_uftpd(work, dest, tmp):
    return Daemon(["uftpd", "-d", "-p", str(UFTP_PORT), "-D", dest, "-T", tmp, "-I", "lo", "-L",
                   os.path.join(work, "uftpd.log")], work, "uftpd", udp_bound("0.0.0.0", UFTP_PORT))


def kestil_get(args, cwd, host, name, timeout, rss_file=None, pin=(), out=None):
    if os.path.exists(os.path.join(cwd, name)):
        os.remove(os.path.join(cwd, name))
    state = os.path.join(cwd, f".{name}.kestil_state")
    if os.path.exists(state):
        os.remove(state)
    argv = list(pin) + [os.path.join(args.bin, "kestil"), "get", "-h", host, "-t", "20", name]
    if rss_file:
        # The client's own peak: a child forked from this interpreter would report the
        # interpreter's size, one forked from GNU time reports next to nothing.
        argv = ["/usr/bin/time", "-f", "%M", "-o", rss_file] + argv
    # The client's trace and progress bar go to a file, as an operator's log would take them.
    with open(out or os.devnull, "wb") as sink:
        t0, code, wall, cpu, rss = run_client(argv, cwd, timeout, stdout=sink)
    if out:
        os.remove(out)
    if rss_file:
        with open(rss_file) as f:
            rss = int(f.read().split()[-1])
    return t0, code, wall, cpu, rss


def loopback_kestil(args, work, root, ground, want, pin=()):
    """One loopback download from a fresh kestil-sim; its copies are the simulator's own count."""
    sim = start_sim(args, work, root, ["--pace", str(args.loopback_pace)], pin)
    try:
        t0, code, wall, cpu, rss = kestil_get(args, ground, SIM_ADDR, "big.bin", 600, pin=pin,
                                              out=os.path.join(work, "get.out"))
    finally:
        sim.stop()
    got = os.path.join(ground, "big.bin")
    return {"exit": code, "md5_ok": code == 0 and md5(got) == want, "complete_s": completed_at(got, t0),
            "exit_s": wall, "cpu_s": cpu, "copies": sim_copies(sim)}


def loopback_atftp(args, work, root, ground, want, size):
    """One loopback atftp download from a fresh atftpd, whose sends perf counts."""
    count = os.path.join(work, "atftpd.sends")
    if os.path.exists(count):
        os.remove(count)
    d = start_atftpd(work, root, ATFTPD_ADDR, count)
    dst = os.path.join(ground, "atftp.bin")
    if os.path.exists(dst):
        os.remove(dst)
    try:
        t0, code, wall, cpu, rss = run_client(
            ["atftp", "--option", "blksize 141", "--option", "windowsize 64", "-g", "-r", "big.bin", "-l", dst,
             ATFTPD_ADDR, str(ATFTP_PORT)], ground, 600)
    finally:
        d.stop()
    ok = code == 0 and os.path.exists(dst) and md5(dst) == want
    sent = sends_counted(count)  # data blocks and the option acknowledgement
    return {"exit": code, "md5_ok": ok, "complete_s": completed_at(dst, t0), "exit_s": wall, "cpu_s": cpu,
            "copies": copies(sent - 1 if sent else None, size // 141 + 1)}


def bench_loopback(args, work, pinned=False):
    size = args.loopback_mib << 20
    root, ground = os.path.join(work, "root"), os.path.join(work, "ground")
    src = os.path.join(root, "big.bin")
    if not os.path.exists(src) or os.path.getsize(src) != size:
        make_file(src, size, 1)
    want = md5(src)
    mib = size / (1 << 20)
    # Both ends on one core: the rate is what one core gives, the copies must stay as few.
    pin = ("taskset", "-c", "0") if pinned else ()
    result = {"kestil": []} if pinned else {"kestil": [], "atftp": [], "uftp": []}
    if not shutil.which("uftp"):
        result.pop("uftp", None)
    for _ in range(args.fast_runs):
        result["kestil"].append(loopback_kestil(args, work, root, ground, want, pin))
        if "atftp" in result:
            result["atftp"].append(loopback_atftp(args, work, root, ground, want, size))
        if "uftp" in result:
            result["uftp"].append(uftp_run(args, work, src, want, None, 600))

    table = {}
    for tool, rs in result.items():
        good = [r for r in rs if r["md5_ok"] and r["complete_s"]]
        table[tool] = {
            "payload_MBps": summary([size / r["complete_s"] / 1e6 for r in good]),
            "cpu_s_per_MiB": summary([r["cpu_s"] / mib for r in good]),
            "copies": summary([r["copies"] for r in rs]),
            "runs": rs,
        }
    return table


def uftp_run(args, work, src, want, link, timeout):
    """uftp sends `src` to uftpd once, unicast only: straight to uftpd, or through the relay when `link`.
    Copies: its sends as perf counts them on loopback, what the relay took in from it on a link."""
    dest, tmp = os.path.join(work, "uftp-dest"), os.path.join(work, "uftp-tmp")
    for d in (dest, tmp):
        shutil.rmtree(d, ignore_errors=True)
        os.makedirs(d)
    relay = None
    count = os.path.join(work, "uftp.sends")
    if os.path.exists(count):
        os.remove(count)
    daemon = start_uftpd(work, dest, tmp)
    try:
        # uftpd listens on every address of its port, so the relay takes the next port.
        argv = ["uftp", "-M", UFTPD_ADDR if link is None else RELAY_ADDR,
                "-p", str(UFTP_PORT if link is None else UFTP_PORT + 1), "-Y", "none", "-H", UFTPD_CLIENT_ID,
                "-L", os.path.join(work, "uftp.log")]
        if link is None:
            argv += ["-R", "-1"]  # as fast as loopback allows: its default is 1000 kbit/s
        else:
            rate, delay, loss = link
            relay = start_relay(args, work, UFTPD_ADDR, UFTP_PORT, rate, delay, loss, listen_port=UFTP_PORT + 1)
            argv += ["-R", str(max(1, round(rate * UFTP_RATE_SHARE / 1000)))]
        argv.append(src)
        t0, code, wall, cpu, rss = run_client(counting_sends(argv, count) if link is None else argv, work, timeout)
    finally:
        if relay:
            relay.stop()
        daemon.stop()
    got = os.path.join(dest, os.path.basename(src))
    ok = os.path.exists(got) and md5(got) == want
    sent = relayed(relay, "clients") if relay else sends_counted(count)
    return {"exit": code, "md5_ok": ok, "complete_s": completed_at(got, t0) if ok else None,
            "exit_s": wall, "cpu_s": cpu, "copies": copies(sent, -(-os.path.getsize(src) // 1300))}


def bench_scenario(args, work, sc):
    name, rate, delay, loss, size, best_other = sc
    root, ground = os.path.join(work, "root"), os.path.join(work, "ground")
    src = os.path.join(root, f"{name}.bin")
    make_file(src, size, 2)
    up = os.path.join(ground, f"{name}-up.bin")
    shutil.copy(src, up)
    want = md5(src)
    kw = kestil_wire_bytes(size)
    kb = kestil_blocks(size)
    timeout = 20 * lower_bound(kw, rate, delay, loss) + 60
    peer_timeout = S5_PEER_LIMIT * lower_bound(kw, rate, delay, loss) + 10 if name == "S5" else timeout
    runs = args.fast_runs if name in FAST_ITEMS else args.runs
    atftp_window = max(1, min(16, int(1.5 * rate / ((1428 + 4 + IPUDP) * 8))))
    # Copies through the relay: what the side that sends the data gave it.

    def get_run():
        relay = start_relay(args, work, SIM_ADDR, 3223, rate, delay, loss)
        try:
            t0, code, wall, cpu, rss = kestil_get(args, ground, RELAY_ADDR, f"{name}.bin", timeout)
        finally:
            relay.stop()
        got = os.path.join(ground, f"{name}.bin")
        return {"exit": code, "md5_ok": code == 0 and md5(got) == want, "complete_s": completed_at(got, t0),
                "exit_s": wall, "copies": copies(relayed(relay, "upstream"), kb)}

    def put_run():
        # kestil put at what the link carries, in full data datagrams per second.
        pkts = rate / ((KESTIL_BLOCK + 3 + IPUDP) * 8)
        stored = os.path.join(root, f"{name}-up.bin")
        if os.path.exists(stored):
            os.remove(stored)
        relay = start_relay(args, work, SIM_ADDR, 3223, rate, delay, loss)
        try:
            t0, code, wall, cpu, rss = run_client(
                [os.path.join(args.bin, "kestil"), "put", "-h", RELAY_ADDR, "-t", "20", "-p", f"{pkts:.3f}", up],
                ground, peer_timeout)
        finally:
            relay.stop()
        ok = os.path.exists(stored) and md5(stored) == want
        return {"exit": code, "md5_ok": ok, "complete_s": completed_at(stored, t0) if ok else None, "exit_s": wall,
                "copies": copies(relayed(relay, "clients"), kb)}

    def atftp_run():
        # atftp with 1428-byte blocks and a window, through the same link. The window is as many
        # blocks as the link carries in 1.5 s (16 at most, 1 at least): a window that takes longer
        # than atftp's retransmission time-out to cross the link is sent again whole, forever.
        dst = os.path.join(ground, f"{name}-atftp.bin")
        if os.path.exists(dst):
            os.remove(dst)
        relay = start_relay(args, work, ATFTPD_ADDR, ATFTP_PORT, rate, delay, loss)
        try:
            t0, code, wall, cpu, rss = run_client(
                ["atftp", "--option", "blksize 1428", "--option", f"windowsize {atftp_window}", "-g", "-r",
                 f"{name}.bin", "-l", dst, RELAY_ADDR, str(ATFTP_PORT)], ground, peer_timeout)
        finally:
            relay.stop()
        ok = code == 0 and os.path.exists(dst) and md5(dst) == want
        sent = relayed(relay, "upstream")  # data blocks and the option acknowledgement
        return {"exit": code, "md5_ok": ok, "complete_s": completed_at(dst, t0) if ok else None, "exit_s": wall,
                "copies": copies(sent - 1 if sent else None, size // 1428 + 1)}

    plan = []
    if "kestil" in args.tools:
        plan += [("kestil get", get_run, kw), ("kestil put", put_run, kw)]
    if "atftp" in args.tools:
        plan.append(("atftp", atftp_run, atftp_wire_bytes(size, 1428)))
    if "uftp" in args.tools and shutil.which("uftp"):
        plan.append(("uftp", lambda: uftp_run(args, work, src, want, (rate, delay, loss), peer_timeout),
                     uftp_wire_bytes(size)))
    out = {tool: [] for tool, _, _ in plan}
    sim = start_sim(args, work, root, ["--pace-rate", str(rate)]) if "kestil" in args.tools else None
    d = start_atftpd(work, root, ATFTPD_ADDR) if "atftp" in args.tools else None
    try:
        for _ in range(runs):
            for tool, run, _ in plan:
                out[tool].append(run())
    finally:
        for server in (sim, d):
            if server:
                server.stop()

    table = {"link": {"rate_bps": rate, "delay_ms": delay, "loss": loss, "size": size,
                      "best_other_exit_ratio_target": best_other, "atftp_window": atftp_window,
                      "peer_time_limit_s": peer_timeout}}
    for tool, _, wire in plan:
        rs = out[tool]
        bound = lower_bound(wire, rate, delay, loss)
        good = [r for r in rs if r["md5_ok"]]
        table[tool] = {
            "lower_bound_s": bound,
            "complete_ratio": summary([r["complete_s"] / bound for r in good if r["complete_s"]]),
            "exit_ratio": summary([r["exit_s"] / bound for r in good]),
            "copies": summary([r["copies"] for r in rs]),
            "completed": f"{len(good)}/{len(rs)}",
            "runs": rs,
        }
    return table


def bench_memory(args, work):
    root, ground = os.path.join(work, "root"), os.path.join(work, "ground")
    out = {}
    for label, size in (("1 KiB", 1024), ("1 GiB", 1 << 30)):
        src = os.path.join(root, "mem.bin")
        if size <= 1 << 20:
            make_file(src, size, 3)
        else:
            with open(src, "wb") as f:  # sparse: the source's content does not matter here
                f.truncate(size)
        rss, cpu, okc = [], [], 0
        sim = start_sim(args, work, root, ["--pace", str(args.loopback_pace)])
        try:
            for _ in range(args.runs):
                t0, code, wall, c, r = kestil_get(args, ground, SIM_ADDR, "mem.bin", 1800,
                                                  os.path.join(work, "rss.txt"))
                rss.append(r / 1024)
                if size >= 1 << 20:  # a small file's CPU is the process's start and end
                    cpu.append(c / (size / (1 << 20)))
                okc += code == 0
        finally:
            sim.stop()
        os.remove(src)
        dst = os.path.join(ground, "mem.bin")
        if os.path.exists(dst):
            os.remove(dst)
        out[label] = {"peak_rss_MiB": summary(rss), "cpu_s_per_MiB": summary(cpu), "ok_runs": okc}
    return out


def machine():
    cpu = "?"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    return {"cpu": cpu, "cores": os.cpu_count(), "kernel": platform.release(),
            "mem_GiB": round(os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / (1 << 30), 1)}


def main():
    # A stopped run still stops its servers (the finally clauses).
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin", required=True)
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--fast-runs", type=int, default=5, help="runs of " + ", ".join(FAST_ITEMS))
    ap.add_argument("--only", default="raw,loopback,loopback-1core,S1,S2,S3,S4,S5,memory")
    ap.add_argument("--out", default="bench/results")
    ap.add_argument("--tools", default="kestil,atftp,uftp", help="which tools cross the emulated links")
    ap.add_argument("--loopback-mib", type=int, default=64)
    # The window and the acknowledgements set the loopback rate; the pace only caps it.
    ap.add_argument("--loopback-pace", type=int, default=1000000)
    ap.add_argument("--net", type=int, default=50, help="the addresses used are 127.NET.0.x")
    args = ap.parse_args()
    use_net(args.net)
    args.bin = os.path.abspath(args.bin)
    wanted = args.only.split(",")
    os.makedirs(args.out, exist_ok=True)
    latest = os.path.join(args.out, "latest.json")
    results = json.load(open(latest)) if os.path.exists(latest) and args.only != ap.get_default("only") else {}
    results["machine"] = machine()
    with tempfile.TemporaryDirectory(prefix="kestil-bench.") as work:
        for d in ("root", "ground"):
            os.makedirs(os.path.join(work, d))
        check_perf(work)
        for item in wanted:
            log(f"== {item}")
            started = time.monotonic()
            if item == "raw":
                results["raw"] = bench_raw(args, work)
            elif item == "loopback":
                results["loopback"] = bench_loopback(args, work)
            elif item == "loopback-1core":
                results["loopback-1core"] = bench_loopback(args, work, pinned=True)
            elif item == "memory":
                results["memory"] = bench_memory(args, work)
            else:
                sc = next(s for s in SCENARIOS if s[0] == item)
                results.setdefault("scenarios", {})[item] = bench_scenario(args, work, sc)
            results.setdefault("seconds", {})[item] = round(time.monotonic() - started, 1)
            results.setdefault("load_after", {})[item] = round(os.getloadavg()[0], 2)
            with open(latest, "w") as f:
                json.dump(results, f, indent=1)
    subprocess.run([sys.executable, os.path.join(os.path.dirname(__file__), "report.py"), args.out], check=False)


if __name__ == "__main__":
    main()
