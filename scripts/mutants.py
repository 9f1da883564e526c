#!/usr/bin/env python3
"""Mutation check: how many small faults in the product code the fast tests catch.

A fixed catalogue of mutants is drawn from the C++ sources outside tests/ and bench/ of the
checked-out commit: a comparison flipped, a bound moved by one, a statement dropped, a constant
changed, a condition negated. A sample drawn with a fixed seed is applied one mutant at a time
to a scratch copy of the tree in build-mutants/ (restored after each), built incrementally and
run against the fast tests (all but the install, soak and fuzz_replay labels), cheapest first,
stopping at the first failure and after at most three minutes. Each mutant is killed, survived
or not built; the report (tests/mutants.txt unless --report) names the tests that killed each
one and shows the source line of each survivor. Python 3 standard library only.

    scripts/mutants.py [--seed N] [--sample N] [--jobs N] [--report PATH]
    scripts/mutants.py --list           the catalogue, sampled mutants marked, nothing run
    scripts/mutants.py --only ID[,ID]   those mutants of the catalogue (one: with its killer's output)
"""
import argparse, hashlib, io, json, os, random, re, shutil, signal, subprocess, sys, tarfile, tempfile, time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCRATCH = os.path.join(ROOT, "build-mutants")
SRC, BUILD, TMP = (os.path.join(SCRATCH, d) for d in ("src", "build", "tmp"))
BASELINE = os.path.join(SCRATCH, "baseline.json")
KINDS = ("comparison flipped", "bound moved by one", "statement dropped", "constant changed", "condition negated")
CATALOGUE_SEED, CATALOGUE_PER_KIND = 1, 80
DEFAULT_SEED, DEFAULT_SAMPLE = 18, 40
MUTANT_SECONDS = 180
SLOW_LABELS = {"install", "soak", "fuzz_replay"}

# --------------------------------------------------------------------------------------------
# The catalogue


class Mutant:
    def __init__(self, path, line, kind, before, after, original, mutated):
        self.id = 0
        self.path, self.line, self.kind = path, line, kind
        self.before, self.after = before, after
        self.original, self.mutated = original, mutated  # the whole source line, before and after

    def where(self):
        return "%s:%d" % (self.path, self.line)

    def what(self):
        if self.kind in ("statement dropped", "condition negated"):
            return self.kind
        return "%s: %s -> %s" % (self.kind, self.before, self.after)


def masked_lines(text):
    """The file's lines with comments and string and character literals blanked out, same
    lengths, so the patterns below only ever see code."""
    out, in_block = [], False
    for line in text.split("\n"):
        chars, i = list(line), 0
        while i < len(line):
            if in_block:
                end = line.find("*/", i)
                stop = len(line) if end < 0 else end + 2
                chars[i:stop] = " " * (stop - i)
                in_block, i = end < 0, stop
            elif line.startswith("//", i):
                chars[i:] = " " * (len(line) - i)
                break
            elif line.startswith("/*", i):
                in_block = True
            elif line[i] in "\"'":
                j = i + 1
                while j < len(line) and line[j] != line[i]:
                    j += 2 if line[j] == "\\" else 1
                chars[i + 1:min(j, len(line))] = " " * (min(j, len(line)) - i - 1)
                i = j + 1
            else:
                i += 1
        out.append("".join(chars))
    return out


# Binary comparisons: clang-format puts a blank on each side, which template brackets,
# shifts and arrows never have.
COMPARISON = re.compile(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)")
FLIPPED = {"==": "!=", "!=": "==", "<": ">", ">": "<", "<=": ">=", ">=": "<="}
MOVED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
CONSTANT = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.'])")
CONDITION = re.compile(r"\b(if|while)\s*\(")
DECLARES = re.compile(r"\s*(?:const\s+)?[\w:]+(?:<[^()]*>)?[\s*&]+\w+\s*(?:=(?!=)|\{)")
# An expression statement on a line of its own: a call, an assignment or a step of a name.
STATEMENT = re.compile(r"^\s*(?:(?:\+\+|--)\w.*|break|continue|[A-Za-z_]\w*(?:(?:::|\.|->)[A-Za-z_]\w*|\[[^\]]*\])*"
                       r"(?:\(|\s*(?:[-+*/|&^]?=(?!=)|<<=|>>=)|\+\+|--).*);\s*$")
KEYWORDS = {"if", "while", "for", "switch", "return", "case", "do", "else", "sizeof", "static_assert", "delete",
            "new", "throw", "goto", "co_return", "co_yield"}


SCOPE = re.compile(r"^\s*(?:template\s*<.*>\s*)?(?:namespace|struct|class|union|enum|extern)\b")


def code_columns(code):
    """For each masked line, whether each column lies inside code that runs (a function body,
    a lambda, an initialiser) rather than in a namespace, record or enum at declaration level."""
    stack, prefix, out = [], "", []
    for line in code:
        if line.lstrip().startswith("#"):
            out.append([False] * len(line))
            continue
        flags = []
        for ch in line:
            flags.append(bool(stack) and stack[-1])
            if ch == "{":
                stack.append(not SCOPE.match(prefix))
                prefix = ""
            elif ch == "}":
                stack = stack[:-1]
                prefix = ""
            elif ch == ";":
                prefix = ""
            else:
                prefix += ch
        out.append(flags)
        prefix += " "
    return out


def closing_paren(code, start):
    depth = 0
    for i in range(start, len(code)):
        depth += {"(": 1, ")": -1}.get(code[i], 0)
        if depth == 0:
            return i
    return -1


def balanced(code):
    return all(code.count(a) == code.count(b) for a, b in ("()", "[]", "{}"))


def mutants_of(path, text):
    lines, code = text.split("\n"), masked_lines(text)
    found, previous = [], ";"
    for n, (line, c, in_code) in enumerate(zip(lines, code, code_columns(code)), start=1):
        stripped = c.strip()
        # Preprocessor lines, compile-time checks and format attributes only ever fail to build;
        # the debug log is no behaviour anyone sees.
        if not stripped or stripped.startswith("#") or re.search(r"static_assert|gnu::format|\bDBG_", c):
            previous = previous if not stripped else ";"
            continue
        kinds = set()

        def add(kind, start, end, after):
            # One mutant of a kind on a line; all but constants only where the code runs.
            if kind in kinds or not (in_code[start] or kind == "constant changed"):
                return
            kinds.add(kind)
            found.append(Mutant(path, n, kind, line[start:end], after, line, line[:start] + after + line[end:]))

        for m in COMPARISON.finditer(c):
            add("comparison flipped", m.start(), m.end(), FLIPPED[m.group(1)])
            if m.group(1) in MOVED:
                add("bound moved by one", m.start(), m.end(), MOVED[m.group(1)])
        for m in CONSTANT.finditer(c):
            digits = m.group(1)
            if digits.lower().startswith("0x"):
                new = "0x%X" % (int(digits, 16) + 1)
            elif digits.startswith("0") and digits != "0":
                new = "0%o" % (int(digits, 8) + 1)
            else:
                new = str(int(digits) + 1)
            add("constant changed", m.start(1), m.end(1), new)
        for m in CONDITION.finditer(c):
            close = closing_paren(c, m.end() - 1)
            # A condition that declares a name cannot be negated as a whole.
            if close > 0 and not DECLARES.match(c[m.end():close]) and ";" not in c[m.end():close]:
                add("condition negated", m.end() - 1, close + 1, "(!" + line[m.end() - 1:close + 1] + ")")
        first = re.match(r"\s*([A-Za-z_]\w*)", c)
        if (STATEMENT.match(c) and balanced(c) and previous[-1] in ";{}:"
                and not (first and first.group(1) in KEYWORDS)):
            indent = len(line) - len(line.lstrip())
            add("statement dropped", indent, len(line.rstrip()), "")
        previous = stripped
    return found


def head_tree():
    """The files of the checked-out commit: {path: bytes}."""
    tar = subprocess.run(["git", "archive", "--format=tar", "HEAD"], cwd=ROOT, check=True,
                         capture_output=True).stdout
    files = {}
    with tarfile.open(fileobj=io.BytesIO(tar)) as t:
        for member in t.getmembers():
            if member.isfile():
                files[member.name] = (t.extractfile(member).read(), member.mode)
    return files


def product_digest(files):
    """One digest of every product source, so that two reports taken with different suites
    show that they mutated the same code."""
    h = hashlib.sha256()
    for path in sorted(p for p in files if is_product(p)):
        h.update(path.encode() + b"\0" + files[path][0])
    return h.hexdigest()[:16]


def is_product(path):
    return path.endswith((".cpp", ".hpp", ".h", ".cc")) and not path.startswith(("tests/", "bench/"))


def catalogue(files):
    """CATALOGUE_PER_KIND mutants of each kind, drawn with a fixed seed from every candidate of
    the product code, so that each kind of fault weighs the same in the score."""
    candidates = []
    for path in sorted(p for p in files if is_product(p)):
        candidates += mutants_of(path, files[path][0].decode("utf-8", errors="replace"))
    rng, chosen = random.Random(CATALOGUE_SEED), []
    for kind in KINDS:
        pool = [m for m in candidates if m.kind == kind]
        chosen += rng.sample(pool, min(CATALOGUE_PER_KIND, len(pool)))
    chosen.sort(key=lambda m: (m.path, m.line, KINDS.index(m.kind)))
    for i, m in enumerate(chosen, start=1):
        m.id = i
    return chosen, len(candidates)


def draw(cat, seed, size):
    return sorted(random.Random(seed).sample(cat, min(size, len(cat))), key=lambda m: m.id)


# --------------------------------------------------------------------------------------------
# The scratch copy, its build and the fast tests


def sync_scratch(files):
    """Makes build-mutants/src the checked-out commit, rewriting only files that differ so
    that the build stays incremental (and a mutant left by an interrupted run is undone)."""
    os.makedirs(SRC, exist_ok=True)
    for path, (data, mode) in files.items():
        dest = os.path.join(SRC, path)
        try:
            with open(dest, "rb") as f:
                if f.read() == data:
                    continue
        except OSError:
            os.makedirs(os.path.dirname(dest), exist_ok=True)
        with open(dest, "wb") as f:
            f.write(data)
        os.chmod(dest, mode & 0o777)
    for base, dirs, names in os.walk(SRC, topdown=False):
        for name in names:
            path = os.path.join(base, name)
            if os.path.relpath(path, SRC) not in files:
                os.remove(path)
        for name in dirs:
            if not os.listdir(os.path.join(base, name)):
                os.rmdir(os.path.join(base, name))


def build(jobs, targets=None, timeout=1800):
    """True once the targets (all when None) are built; else False and the first error."""
    if not os.path.exists(os.path.join(BUILD, "CMakeCache.txt")):
        generator = ["-G", "Ninja"] if shutil.which("ninja") else []
        subprocess.run(["cmake", "-S", SRC, "-B", BUILD] + generator, check=True, stdout=subprocess.DEVNULL)
    cmd = ["cmake", "--build", BUILD, "-j", str(jobs)] + (["--target"] + targets if targets else [])
    try:
        r = subprocess.run(cmd, capture_output=True, text=True, errors="replace", timeout=timeout)
    except subprocess.TimeoutExpired:
        return False, "build timed out"
    if r.returncode == 0:
        return True, ""
    errors = [line for line in r.stdout.split("\n") if " error: " in line or line.startswith("CMake Error")]
    return False, (errors[0] if errors else r.stdout.strip().split("\n")[-1]).replace(SRC + "/", "")


class Test:
    def __init__(self, entry):
        props = {p["name"]: p["value"] for p in entry.get("properties", [])}
        # Value-parameterised cases print their parameter into the name, addresses included:
        # the part before it is what stays the same from one build to the next.
        self.name, self.command = entry["name"].split("  # GetParam()")[0], entry["command"]
        self.cwd = props.get("WORKING_DIRECTORY", BUILD)
        self.timeout = float(props.get("TIMEOUT", 1500))
        self.env = dict(e.split("=", 1) for e in props.get("ENVIRONMENT", []))
        self.will_fail = bool(props.get("WILL_FAIL", False))
        self.exclusive = bool(props.get("RUN_SERIAL") or props.get("RESOURCE_LOCK"))
        self.labels = set(props.get("LABELS", []))
        self.seconds = 0.0

    def slow(self):
        return bool(self.labels & SLOW_LABELS) or self.name.startswith(tuple(l + "_" for l in SLOW_LABELS))


def fast_tests():
    shown = subprocess.run(["ctest", "--show-only=json-v1"], cwd=BUILD, check=True, capture_output=True).stdout
    return [t for t in (Test(e) for e in json.loads(shown)["tests"]) if not t.slow()]


def targets_of(tests):
    """The executables the tests run from the build's bin/, and the two programs."""
    names = {"kestil", "kestil-sim"}
    for t in tests:
        for word in t.command:
            if os.path.dirname(word) == os.path.join(BUILD, "bin"):
                names.add(os.path.basename(word))
    return sorted(names)


def run_tests(tests, jobs, budget, stop_on_failure=True):
    """Runs `tests` in order, `jobs` at a time, until one fails (when asked) or `budget` seconds
    have passed. Returns the failed tests' names (a test still running at the end of the budget
    counts as failed) and the output of the first one."""
    shutil.rmtree(TMP, ignore_errors=True)
    os.makedirs(TMP)
    env = dict(os.environ, TMPDIR=TMP)
    pending, running, failed, output = list(tests), [], [], ""
    start = time.monotonic()

    def stop(proc):
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except OSError:  # the group has ended already
            pass
        proc.wait()

    try:
        while pending or running:
            while pending and len(running) < jobs and not (failed and stop_on_failure):
                t = pending[0]
                if running and (t.exclusive or any(r[0].exclusive for r in running)):
                    break
                pending.pop(0)
                log = tempfile.TemporaryFile(dir=SCRATCH)
                proc = subprocess.Popen(t.command, cwd=t.cwd, env=dict(env, **t.env), stdin=subprocess.DEVNULL,
                                        stdout=log, stderr=subprocess.STDOUT, start_new_session=True)
                running.append((t, proc, log, time.monotonic()))
            if not running:
                break
            time.sleep(0.05)
            now = time.monotonic()
            for entry in list(running):
                t, proc, log, began = entry
                late = proc.poll() is None and (now - began > t.timeout or now - start > budget)
                if proc.poll() is None and not late:
                    continue
                stop(proc)  # and whatever the test started and left running
                running.remove(entry)
                t.seconds = now - began
                if late or (proc.returncode == 0) == t.will_fail:
                    failed.append(t.name + (" (time-out)" if late else ""))
                    if not output:
                        log.seek(0)
                        output = log.read().decode(errors="replace")
                log.close()
            if failed and stop_on_failure:
                for t, proc, log, _ in running:
                    stop(proc)
                    log.close()
                running = []
                pending = []
    finally:
        for t, proc, log, _ in running:
            stop(proc)
            log.close()
        shutil.rmtree(TMP, ignore_errors=True)
    return failed, output


def baseline(tests, commit, jobs):
    """Each fast test's time on the unmutated tree (measured once per commit), for the
    cheapest-first order; every test must pass there for the check to mean anything."""
    names = sorted(t.name for t in tests)
    try:
        with open(BASELINE) as f:
            saved = json.load(f)
        if saved["commit"] == commit and sorted(saved["seconds"]) == names:
            return saved["seconds"]
    except (OSError, ValueError, KeyError):
        pass
    print("baseline: %d fast tests on the unmutated tree" % len(tests), flush=True)
    failed, output = run_tests(tests, jobs, budget=3600, stop_on_failure=False)
    if failed:
        sys.exit("the fast tests fail on the unmutated tree: %s\n%s" % (", ".join(failed), output[-3000:]))
    seconds = {t.name: round(t.seconds, 2) for t in tests}
    with open(BASELINE, "w") as f:
        json.dump({"commit": commit, "seconds": seconds}, f, indent=1)
    return seconds


# --------------------------------------------------------------------------------------------
# Running mutants and the report


def try_mutant(m, files, tests, targets, jobs):
    path = os.path.join(SRC, m.path)
    original = files[m.path][0]
    lines = original.decode("utf-8", errors="replace").split("\n")
    assert lines[m.line - 1] == m.original, "catalogue and tree disagree at " + m.where()
    lines[m.line - 1] = m.mutated
    began = time.monotonic()
    try:
        with open(path, "w", newline="") as f:
            f.write("\n".join(lines))
        built, error = build(jobs, targets)
        if not built:
            return "not built", [error], "", time.monotonic() - began
        failed, output = run_tests(tests, jobs, budget=MUTANT_SECONDS)
        return ("killed" if failed else "survived"), failed, output, time.monotonic() - began
    finally:
        with open(path, "wb") as f:  # a new time stamp: the next build compiles it again
            f.write(original)


def describe(m, result, detail):
    head = "%5d  %-9s  %-34s %s" % (m.id, result, m.where(), m.what())
    if result == "killed":
        return head + "\n" + " " * 18 + "by " + ", ".join(detail)
    if result == "not built":
        return head + "\n" + " " * 18 + detail[0][:200]
    return (head + "\n" + " " * 18 + "was: " + m.original.strip() + "\n" + " " * 18 + "now: " +
            (m.mutated.strip() or "(nothing)"))


def git(*args):
    return subprocess.run(["git"] + list(args), cwd=ROOT, check=True, capture_output=True, text=True).stdout.strip()


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--seed", type=int, default=DEFAULT_SEED)
    ap.add_argument("--sample", type=int, default=DEFAULT_SAMPLE)
    ap.add_argument("--jobs", type=int, default=2, help="build jobs and tests run at once")
    ap.add_argument("--list", action="store_true", help="print the catalogue and run nothing")
    ap.add_argument("--only", type=lambda v: [int(i) for i in v.split(",")], metavar="ID[,ID]",
                    help="run these mutants of the catalogue, report nothing")
    ap.add_argument("--report", default=os.path.join(ROOT, "tests", "mutants.txt"))
    opts = ap.parse_args()

    commit = git("rev-parse", "HEAD")
    files = head_tree()
    cat, candidates = catalogue(files)
    sample = draw(cat, opts.seed, opts.sample)
    if opts.list:
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # quietly, into head or less
        chosen = {m.id for m in sample}
        print("catalogue of %d mutants (of %d candidates) at %s; * the %d drawn with seed %d"
              % (len(cat), candidates, commit[:12], len(sample), opts.seed))
        for m in cat:
            print("%s%4d  %-34s %s\n%7s%s" % ("*" if m.id in chosen else " ", m.id, m.where(), m.what(), "",
                                               ("drops: " + m.original if not m.mutated.strip() else m.mutated).strip()))
        return
    if opts.only is not None:
        for i in opts.only:
            if not 1 <= i <= len(cat):
                sys.exit("no mutant %d: the catalogue holds 1 to %d" % (i, len(cat)))
        sample = [cat[i - 1] for i in opts.only]
    if git("status", "--porcelain", "--untracked-files=no"):
        print("note: changes not committed are left out; the check runs on %s" % commit[:12], flush=True)

    print("scratch copy and its build in %s" % os.path.relpath(SCRATCH, ROOT), flush=True)
    sync_scratch(files)
    built, error = build(opts.jobs)
    if not built:
        sys.exit("the unmutated tree does not build: " + error)
    tests = fast_tests()
    seconds = baseline(tests, commit, opts.jobs)
    tests.sort(key=lambda t: (seconds.get(t.name, 0), t.name))
    targets = targets_of(tests)

    results = []
    for i, m in enumerate(sample, start=1):
        print("[%d/%d] %5d %s %s" % (i, len(sample), m.id, m.where(), m.what()), flush=True)
        result, detail, output, took = try_mutant(m, files, tests, targets, opts.jobs)
        results.append((m, result, detail))
        print(describe(m, result, detail) + "\n" + " " * 18 + "(%.0f s)" % took, flush=True)
        if opts.only is not None and len(sample) == 1 and output:
            print("--- output of %s (last 60 lines)\n%s" % (detail[0], "\n".join(output.split("\n")[-60:])))
    built_ok = sum(1 for _, r, _ in results if r != "not built")
    killed = sum(1 for _, r, _ in results if r == "killed")
    print("killed %d of %d built mutants; %d not built" % (killed, built_ok, len(results) - built_ok))
    if opts.only is not None:
        return

    lines = ["Mutation check: mutants of the product code (C++ outside tests/ and bench/) against the fast tests",
             "commit: %s %s" % (commit, git("log", "-1", "--format=%s")),
             "product sources: digest %s" % product_digest(files),
             "seed: %d   sample: %d of a catalogue of %d mutants (%d of each kind, of %d candidates)"
             % (opts.seed, len(results), len(cat), CATALOGUE_PER_KIND, candidates),
             "score: %d of %d built mutants killed (%.1f%%); %d not built" %
             (killed, built_ok, 100.0 * killed / built_ok if built_ok else 0.0, len(results) - built_ok),
             "tests: %d (labels %s left out), cheapest first, stopping at the first failure, %d s at most" %
             (len(tests), ", ".join(sorted(SLOW_LABELS)), MUTANT_SECONDS), ""]
    lines += [describe(m, r, d) for m, r, d in results]
    with open(opts.report, "w") as f:
        f.write("\n".join(lines) + "\n")
    print("report: " + opts.report)


if __name__ == "__main__":
    main()
