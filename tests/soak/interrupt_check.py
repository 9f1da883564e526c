#!/usr/bin/env python3
"""SIGINT mid-transfer: get ends with exit 13 and resume completes it, put ends at once, ls and report ignore it."""
import os, random, re, signal, subprocess, sys, time

sys.dont_write_bytecode = True  # no cache files beside the sources
from soaklib import Proc, Sim, check, eventually, options, read, write  # noqa: E402

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
        return [line for line in read(trace).decode(errors="replace").split("\n") if re.search(pattern, line)]

    state = os.path.join(cwd, ".big.bin.kestil_state")
    with Sim(opts.bin_dir, root, opts.addr,
             ["--delay", "150", "--loss", "0.02", "--seed", "3", "--pace", "1000", "-v"], trace):
        get = Proc([kestil, "get", "-h", opts.addr, "big.bin"], cwd)
        check(eventually(lambda: os.path.exists(state) and os.path.getsize(state) == 2248
                         and int.from_bytes(read(state)[36:40], "little") > 100, 30),
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
        status, out = Proc([kestil, "resume", "big.bin"], cwd).finish(120)
        same = read(os.path.join(cwd, "big.bin")) == source
        check(status == 0 and same and not os.path.exists(state),
              "resume: completes the interrupted file (exit %s, %s content, state %s)"
              % (status, "same" if same else "other", "left" if os.path.exists(state) else "gone"))

        before = len(trace_lines(r" in +\S+ code [5-8] "))
        put = Proc([kestil, "put", "-h", opts.addr, "-p", "200", "-o", "up.bin", "up.bin"], cwd)
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
            quiet_status, quiet = Proc([kestil] + args, cwd).finish()
            count = len(trace_lines(r" in "))
            noisy = Proc([kestil] + args, cwd)
            check(eventually(lambda: len(trace_lines(r" in ")) > count, 10), name + ": request seen")
            for _ in range(3):
                if noisy.proc.poll() is None:
                    noisy.proc.send_signal(signal.SIGINT)
                time.sleep(0.2)  # spread over the fetch, not a readiness wait
            status, out = noisy.finish()
            check(quiet_status == 0 and status == 0, "%s: exit status 0 with and without SIGINT (%s, %s)"
                  % (name, quiet_status, status))
            check(table(out) == table(quiet) and len(table(out)) > 1, name + ": the same table as without SIGINT")
    print("interrupt checks: all passed")


if __name__ == "__main__":
    main()
