"""What the soak scripts share: a scratch folder, kestil-sim on its own loopback address, runs
that may be killed at a given instant, and bounded waits. Python 3 standard library only."""
import argparse, atexit, os, select, shutil, signal, subprocess, sys, tempfile, time


def fail(msg):
    print("FAIL: " + msg, flush=True)
    sys.exit(1)


def options(doc, addr, **more):
    """The command line: --bin-dir (made absolute), --addr, and `more` as name=default."""
    ap = argparse.ArgumentParser(description=doc.split("\n\n")[0])
    ap.add_argument("--bin-dir", required=True, type=os.path.abspath)
    ap.add_argument("--addr", default=addr)
    for name, default in more.items():
        ap.add_argument("--" + name.replace("_", "-"), type=type(default), default=default)
    return ap.parse_args()


def workdir(prefix):
    """A fresh folder, removed at exit (also when the simulator fails to start)."""
    work = tempfile.mkdtemp(prefix=prefix)
    atexit.register(shutil.rmtree, work, ignore_errors=True)
    return work


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
    """kestil-sim on its own loopback address, ready once it has printed its serving line."""

    def __init__(self, bin_dir, root, addr, args, trace_path=os.devnull):
        self.trace = open(trace_path, "wb")
        self.proc = subprocess.Popen([os.path.join(bin_dir, "kestil-sim"), "--root", root, "--addr", addr] + args,
                                     stdout=self.trace, stderr=subprocess.PIPE)
        line, deadline = b"", time.monotonic() + 10
        while not line.endswith(b"\n") and select.select([self.proc.stderr], [], [], max(0, deadline - time.monotonic()))[0]:
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


def run(cmd, kill_after=None, limit_s=120, pids=None, **popen):
    """Runs cmd (its pid appended to pids); SIGKILL after kill_after seconds (None: never, but
    after limit_s). Its exit status, "killed", or "timed out after N s"."""
    proc = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, **popen)
    if pids is not None:
        pids.append(proc.pid)
    try:
        return proc.wait(kill_after if kill_after is not None else limit_s)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
        return "killed" if kill_after is not None else "timed out after %d s" % limit_s
