"""Shared by the soak scripts: options, a scratch folder, kestil-sim on loopback, runs killed or waited for, bounded
waits, and the frame of a crash soak."""
import argparse, atexit, os, shutil, signal, subprocess, sys, tempfile, time


def fail(msg):
    print("FAIL: " + msg, flush=True)
    sys.exit(1)


def check(ok, what):
    if not ok:
        fail(what)


def options(addr, **more):
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin-dir", required=True, type=os.path.abspath)
    ap.add_argument("--addr", default=addr)
    for name, default in more.items():
        ap.add_argument("--" + name.replace("_", "-"), type=type(default), default=default)
    opts = ap.parse_args()
    opts.work = tempfile.mkdtemp(prefix="kestil-soak.")
    atexit.register(shutil.rmtree, opts.work, ignore_errors=True)
    return opts


def read(path):
    with open(path, "rb") as f:
        return f.read()


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def eventually(pred, timeout_s):
    deadline = time.monotonic() + timeout_s
    while not pred():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.01)
    return True


class Sim:
    """kestil-sim serving root on addr, its trace (standard output) in trace_path; started once it says it serves."""

    def __init__(self, bin_dir, root, addr, args, trace_path=os.devnull):
        self.trace, self.err = open(trace_path, "wb"), tempfile.TemporaryFile()
        self.proc = subprocess.Popen([os.path.join(bin_dir, "kestil-sim"), "--root", root, "--addr", addr] + args,
                                     stdout=self.trace, stderr=self.err)
        said = lambda: os.pread(self.err.fileno(), 512, 0)  # noqa: E731
        eventually(lambda: b"\n" in said() or self.proc.poll() is not None, 10)
        if not said().startswith(b"kestil-sim: serving"):
            self.stop()
            fail("kestil-sim did not start: %r" % said())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.trace.close()


class Proc:
    """A command started in cwd, its standard output and error together in a file that is gone once closed."""

    def __init__(self, cmd, cwd, **popen):
        self.out = tempfile.TemporaryFile(dir=cwd)
        self.proc = subprocess.Popen(cmd, cwd=cwd, stdin=subprocess.DEVNULL, stdout=self.out, stderr=subprocess.STDOUT,
                                     **popen)

    def finish(self, limit_s=60, kill_after=None):
        """Exit status, or "killed" (SIGKILL after kill_after s) or "timed out after N s"; and the output."""
        try:
            status = self.proc.wait(limit_s if kill_after is None else kill_after)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            status = "timed out after %d s" % limit_s if kill_after is None else "killed"
        self.out.seek(0)
        return status, self.out.read().decode(errors="replace")


def kill_rounds(opts, rng, run, check_kill, end_round, tries=lambda: sys.maxsize):
    """The crash soak's frame. run(round, attempt, kill_after) starts a run and returns Proc.finish's answer;
    run(0, 0, None) is one whole run, whose time is the span the kill instants are drawn from. Each round is
    a series of runs SIGKILLed at random instants, each kill checked by check_kill(round) (a problem or None),
    until a run ends by itself or tries() kills are spent; end_round(round, status, output) finishes it.
    Rounds follow one another until opts.kills kills are done."""
    started = time.monotonic()
    status, out = run(0, 0, None)
    if status != 0:
        fail("the uninterrupted run ended with %s: %s" % (status, out))
    span, kills, rounds = time.monotonic() - started, 0, 0
    while kills < opts.kills:
        rounds += 1
        for attempt in range(tries()):
            kill_after = rng.uniform(0.0, span)
            status, out = run(rounds, attempt, kill_after)
            if status != "killed":
                break
            kills += 1
            problem = check_kill(rounds)
            if problem:
                fail("round %d, kill %d after %.3f s: %s" % (rounds, kills, kill_after, problem))
        end_round(rounds, status, out)
        print("round %d ended well: %d kills, %.0f s" % (rounds, kills, time.monotonic() - started), flush=True)
