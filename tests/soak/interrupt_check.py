#!/usr/bin/env python3
"""SIGINT mid-transfer: get ends with exit 13 and resume completes it, put ends at once, ls and report ignore it."""
import os, random, re, signal, subprocess, sys, tempfile, time

sys.dont_write_bytecode = True  # no cache files beside the sources
from soaklib import Sim, eventually, options, write  # noqa: E402

failures = []


def check(ok, what):
    print(("ok    " if ok else "FAIL  ") + what, flush=True)
    if not ok:
        failures.append(what)


class Client:
    def __init__(self, kestil, cwd, args):
        self.out = tempfile.TemporaryFile(dir=cwd)
        self.proc = subprocess.Popen([kestil] + args, cwd=cwd, stdout=self.out, stderr=subprocess.STDOUT,
                                     stdin=subprocess.DEVNULL)

    def finish(self, timeout_s=60):
        try:
            self.proc.wait(timeout_s)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        self.out.seek(0)
        return self.proc.returncode, self.out.read().decode(errors="replace")


def table(output):  # what a person reads: no progress redraws, block traces or timing lines
    text = re.sub(r"\r\[[^\]]*\]|   block \d+, ", "", output)
    return [line for line in text.split("\n") if line and not line.startswith(("Elapsed time", "Received file"))]


def main():
    opts = options("127.0.10.1")
    kestil, work = os.path.join(opts.bin_dir, "kestil"), opts.work
    root, cwd = os.path.join(work, "root"), os.path.join(work, "client")
    rng = random.Random(7)
    source, upload = rng.randbytes(1500000), rng.randbytes(400000)
    for path, content in ((root + "/big.bin", source), (root + "/a.txt", b"alpha\n"),
                          (root + "/sub/b.txt", b"beta\n" * 50), (cwd + "/up.bin", upload)):
        write(path, content)
    trace = os.path.join(work, "sim-trace.txt")

    def trace_lines(pattern):
        with open(trace, "r", errors="replace") as f:
            return [line for line in f if re.search(pattern, line)]

    sim = Sim(opts.bin_dir, root, opts.addr,
              ["--delay", "150", "--loss", "0.02", "--seed", "3", "--pace", "1000", "-v"], trace)
    state = os.path.join(cwd, ".big.bin.kestil_state")
    try:
        get = Client(kestil, cwd, ["get", "-h", opts.addr, "big.bin"])
        check(eventually(lambda: os.path.exists(state) and os.path.getsize(state) == 2248
                         and int.from_bytes(open(state, "rb").read()[36:40], "little") > 100, 30),
              "get: blocks stored before the interrupt")
        get.proc.send_signal(signal.SIGINT)
        status, out = get.finish()
        check(status == 13, "get: exit status 13 after SIGINT (got %s)" % status)
        check(out.endswith("\nWaiting for satellite to stop spamming...\n"), "get: ends with the draining line")
        times = [float(line.split()[0]) for line in trace_lines(r" in +\S+ code 14 ")]
        check(len(times) == 7, "get: seven closing acknowledgements (saw %d)" % len(times))
        span = times[-1] - times[0] if times else 0
        check(0.8 <= span <= 5.4, "get: closing acknowledgements 300 ms apart (%.3f s from first to last)" % span)
        check(os.path.exists(os.path.join(cwd, "big.bin")) and os.path.exists(state), "get: both files kept")
        status, out = Client(kestil, cwd, ["resume", "big.bin"]).finish(120)
        with open(os.path.join(cwd, "big.bin"), "rb") as f:
            same = f.read() == source
        check(status == 0 and same and not os.path.exists(state),
              "resume: completes the interrupted file (exit %s, %s content, state %s)"
              % (status, "same" if same else "other", "left" if os.path.exists(state) else "gone"))

        before = len(trace_lines(r" in +\S+ code [5-8] "))
        put = Client(kestil, cwd, ["put", "-h", opts.addr, "-p", "200", "-o", "up.bin", "up.bin"])
        check(eventually(lambda: len(trace_lines(r" in +\S+ code [5-8] ")) > before + 50, 30),
              "put: blocks sent before the interrupt")
        put.proc.send_signal(signal.SIGINT)
        status, out = put.finish()
        check(status == 0, "put: exit status 0 after SIGINT (got %s)" % status)
        check(re.search(r"Elapsed time: \d\d:\d\d:\d\d\.\d{6}(      Avg Bps: \d+\.\d\d)?\n\Z", out) is not None
              and "Done!" not in out, "put: ends with its statistics line")
        check(not os.path.exists(os.path.join(root, "up.bin")), "put: nothing stored remotely")

        subprocess.run([kestil, "qadd", "-h", opts.addr, "-g", "2", "a.txt"], cwd=cwd, capture_output=True, timeout=30)
        for name, args in (("ls", ["ls", "-h", opts.addr, "-o", "r", "."]), ("report", ["report", "-h", opts.addr])):
            quiet_status, quiet = Client(kestil, cwd, args).finish()
            count = len(trace_lines(r" in "))
            noisy = Client(kestil, cwd, args)
            check(eventually(lambda: len(trace_lines(r" in ")) > count, 10), name + ": request seen")
            for _ in range(3):
                if noisy.proc.poll() is None:
                    noisy.proc.send_signal(signal.SIGINT)
                time.sleep(0.2)  # spread over the fetch, not a readiness wait
            status, out = noisy.finish()
            check(quiet_status == 0 and status == 0, "%s: exit status 0 with and without SIGINT (%s, %s)"
                  % (name, quiet_status, status))
            check(table(out) == table(quiet) and len(table(out)) > 1, name + ": the same table as without SIGINT")
    finally:
        sim.stop()
    if failures:
        sys.exit("%d checks failed" % len(failures))
    print("interrupt checks: all passed")


if __name__ == "__main__":
    main()
