"""Shared by the soak scripts: options, a scratch folder, kestil-sim on loopback, killable runs, bounded waits."""
import argparse, atexit, os, select, shutil, signal, subprocess, sys, tempfile, time


def fail(msg):
    print("FAIL: " + msg, flush=True)
    sys.exit(1)


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
    """Exit status, "killed" (SIGKILL after kill_after s) or "timed out after N s"."""
    proc = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, **popen)
    if pids is not None:
        pids.append(proc.pid)
    try:
        return proc.wait(kill_after if kill_after is not None else limit_s)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
        return "killed" if kill_after is not None else "timed out after %d s" % limit_s
