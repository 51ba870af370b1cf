#!/usr/bin/env python3
"""Mutation sampling: how many single-token faults in the module and the user
backend do the test suites notice?

  mutate.py generate [--seed S] [--count N]   write the frozen list (mutants.txt)
  mutate.py run [--only 3,7,10-20] [--jobs N] [--results FILE] [--test-timeout S]

`run` applies each listed mutant in a scratch copy of the tree under
build/mutate/ (the working tree is never written), rebuilds the default
preset there and runs ctest, the mutated file's own folder first, stopping at
the first failure; a test running longer than --test-timeout counts as a kill.
Each outcome is appended to the results file (JSON lines) and a later run
with the same file skips what it already holds, so start a new file for a new
state of the tree. It ends with the kill rate and every survivor. A mutant
that does not compile is reported and left out of the rate; one whose line
is gone is stale.

Each list line locates its token by file, the text of its line (stripped),
which occurrence of that text in the file, and the column within it:
   12  module/bypass/parser.cc@1:14  '<' -> '<='  | if (len < 4) return 0;
"""
import argparse
import bisect
import json
import os
import queue
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SOURCE_DIRS = ("module", "kport/user")
SUFFIXES = (".c", ".cc", ".cpp", ".h", ".hpp")
# Built only into the tests' variant: nothing a product run executes.
TEST_ONLY = {"module/wlan_lb/test_hooks.cc", "kport/user/fault.cc",
             "kport/user/include/kport/user/testing.h"}

# Binary operators count only with blanks on both sides: the tree is
# clang-format clean, so this leaves out templates, pointers, references and
# unary signs without parsing C++.
BINARY = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==",
          "&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "%": "*",
          "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "%=": "*="}
ANY = {"++": "--", "--": "++", "!": "", "true": "false", "false": "true"}
NEIGHBOURS = {"0": ["1"], "1": ["0", "2"], "2": ["1", "3"]}
# Checked at compile time or read only by the compiler: a change there does
# not build, so its arguments are not worth a slot.
COMPILE_TIME = {"static_assert", "KPORT_STATIC_ASSERT", "KPORT_PRINTF", "__attribute__", "alignas"}

LEX = re.compile(r"""
  (?P<comment>//[^\n]*|/\*.*?\*/)
| (?P<pp>\#(?:\\\n|[^\n])*)
| (?P<num>\.?\d(?:[eEpP][+-]|[\w.'])*)
| (?P<str>"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])*')
| (?P<word>[A-Za-z_]\w*)
| (?P<op><<=|>>=|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|::|\S)
| \s+""", re.S | re.X)
LIST_LINE = re.compile(r"^\s*(\d+)\s+(\S+)@(\d+):(\d+)\s+'([^']*)' -> '([^']*)'\s+\| (.*)$")


def candidates(text, rng):
    """(offset, token, replacement) of every site worth mutating in a file."""
    out, cond, guard, skip_parens, depth, last = [], [], None, False, 0, [("", "")] * 4
    for m in LEX.finditer(text):
        kind, tok = m.lastgroup, m.group()
        if kind == "pp":
            d, name = re.match(r"#\s*(\w*)\s*(\w*)", tok).groups()
            if d in ("if", "ifdef", "ifndef"):
                # The first #ifndef X followed by #define X is the include
                # guard; code under any other condition is some variant's only.
                is_guard = guard is None and d == "ifndef" and re.match(
                    r"\s*#\s*define\s+" + name + r"\b", text[m.end():]) is not None
                guard = guard or is_guard
                cond.append(not is_guard)
            elif d == "endif" and cond:
                cond.pop()
            continue
        if kind in (None, "comment", "str") or any(cond):
            continue
        if tok in COMPILE_TIME:
            skip_parens = True
        if skip_parens:
            depth += {"(": 1, ")": -1}.get(tok, 0)
            skip_parens = not (tok == ")" and depth == 0)
            continue
        last = last[1:] + [(kind, tok)]
        s, e = m.span()
        # The size in a declaration like `u8 rsv[2];` shapes a wire record.
        declared = (last[0][0], last[1][0], last[2][1]) == ("word", "word", "[") and \
            last[0][1] != "return"
        blanks = s > 0 and text[s - 1].isspace() and e < len(text) and text[e].isspace()
        if kind == "op" and tok in BINARY and blanks:
            out.append((s, tok, BINARY[tok]))
        elif tok in ANY and kind != "num":
            out.append((s, tok, ANY[tok]))
        elif kind == "num" and re.fullmatch(r"[012][uUlL]*", tok) and not declared:
            out.append((s, tok, rng.choice(NEIGHBOURS[tok[0]]) + tok[1:]))
    return out


def source_files(root):
    files = [p.relative_to(root).as_posix() for d in SOURCE_DIRS for p in (root / d).rglob("*")
             if p.suffix in SUFFIXES]
    return sorted(f for f in files if f not in TEST_ONLY)


def generate(root, seed, count):
    rng = random.Random(seed)
    per_file = []
    for rel in source_files(root):
        text = (root / rel).read_text()
        sites = candidates(text, rng)
        if sites:
            per_file.append((rel, text, sites, sum(1 for l in text.splitlines() if l.strip())))
    # Largest-remainder shares by non-blank lines, so big files get more.
    total = sum(f[3] for f in per_file)
    shares = [count * f[3] / total for f in per_file]
    quota = [int(s) for s in shares]
    for i in sorted(range(len(shares)), key=lambda i: quota[i] - shares[i])[:count - sum(quota)]:
        quota[i] += 1
    mutants = []
    for (rel, text, sites, _), k in zip(per_file, quota):
        lines = text.split("\n")
        starts = [0] + [i + 1 for i, c in enumerate(text) if c == "\n"]
        for off, tok, rep in sorted(rng.sample(sites, min(k, len(sites)))):
            n = bisect.bisect_right(starts, off) - 1
            line = lines[n]
            lead = len(line) - len(line.lstrip())
            stripped = line.strip()
            occ = sum(1 for l in lines[:n + 1] if l.strip() == stripped)
            mutants.append(dict(file=rel, occ=occ, col=off - starts[n] - lead + 1,
                                old=tok, new=rep, text=stripped))
    for i, m in enumerate(mutants, 1):
        m["id"] = i
    return mutants


def format_mutant(m):
    where = f"{m['file']}@{m['occ']}:{m['col']}"
    return f"{m['id']:4}  {where:48} '{m['old']}' -> '{m['new']}'  | {m['text']}"


def read_list(path):
    mutants = []
    for raw in Path(path).read_text().splitlines():
        if raw.strip() and not raw.startswith("#"):
            g = LIST_LINE.match(raw)
            if not g:
                sys.exit(f"{path}: cannot read: {raw}")
            mutants.append(dict(id=int(g[1]), file=g[2], occ=int(g[3]), col=int(g[4]),
                                old=g[5], new=g[6], text=g[7], key=raw.strip()))
    return mutants


def locate(root, m):
    """(line number, mutated file text), or None when the line is gone."""
    path = root / m["file"]
    if not path.exists():
        return None
    lines = path.read_text().split("\n")
    hits = [i for i, l in enumerate(lines) if l.strip() == m["text"]]
    if len(hits) < m["occ"]:
        return None
    n = hits[m["occ"] - 1]
    line = lines[n]
    c = len(line) - len(line.lstrip()) + m["col"] - 1
    if line[c:c + len(m["old"])] != m["old"]:
        return None
    lines[n] = line[:c] + m["new"] + line[c + len(m["old"]):]
    return n + 1, "\n".join(lines)


def parse_only(spec):
    ids = set()
    for part in spec.split(","):
        lo, _, hi = part.partition("-")
        ids.update(range(int(lo), int(hi or lo) + 1))
    return ids


def run(cmd, cwd, log, stop):
    """The command's exit status; it is killed, with its children, on stop."""
    with open(log, "a") as f:
        proc = subprocess.Popen(cmd, cwd=cwd, stdout=f, stderr=subprocess.STDOUT,
                                start_new_session=True)
        while proc.poll() is None:
            if stop.wait(0.5):
                # TERM first: ninja then removes the outputs it had half written.
                os.killpg(proc.pid, signal.SIGTERM)
                try:
                    proc.wait(20)
                except subprocess.TimeoutExpired:
                    os.killpg(proc.pid, signal.SIGKILL)
        return proc.wait()


class Tree:
    """One scratch copy of the working tree with its own default build."""

    def __init__(self, root, path, test_timeout, stop):
        self.root, self.path, self.timeout, self.stop = root, path, test_timeout, stop
        self.log = path.parent / f"{path.name}.log"

    def sync(self):
        """Makes the copy equal the working tree again, touching only what differs."""
        files = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"],
                               cwd=self.root, check=True, capture_output=True,
                               text=True).stdout.split("\0")
        wanted = {f for f in files if f and (self.root / f).is_file()}
        for top, dirs, names in os.walk(self.path):
            if Path(top) == self.path and "build" in dirs:
                dirs.remove("build")
            for n in names:
                if (p := Path(top) / n).relative_to(self.path).as_posix() not in wanted:
                    p.unlink()
        for rel in sorted(wanted):
            src, dst = self.root / rel, self.path / rel
            if not dst.exists() or dst.read_bytes() != src.read_bytes():
                dst.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(src, dst)  # a new mtime: the build must see the change

    def build(self):
        self.log.write_text("")
        if not (self.path / "build/default/build.ninja").exists():
            if run(["cmake", "--preset", "default"], self.path, self.log, self.stop):
                return False
        return run(["cmake", "--build", "--preset", "default"], self.path, self.log, self.stop) == 0

    def build_failure(self):
        """(status, detail) of a failed build. A test program that fails while
        listing its tests (at build time) was built, and the mutant killed it."""
        text = self.log.read_text()
        if "Error running test executable" in text:
            return "killed", "a test program listing its tests"
        errors = [l.strip() for l in text.splitlines() if "error:" in l]
        return "did not compile", errors[0] if errors else None

    def test_folders(self):
        """Each test's folder of tests/ (from its program, tests_FOLDER), by number - 1."""
        out = subprocess.run(["ctest", "--preset", "default", "--show-only=json-v1"],
                             cwd=self.path, check=True, capture_output=True, text=True).stdout
        exes = [Path(t.get("command", ["?"])[0]).name for t in json.loads(out)["tests"]]
        return [e[6:] if e.startswith("tests_") else None for e in exes]

    def ctest(self, numbers):
        """The first failing test's name (None: all passed)."""
        spec = "0,0,0," + ",".join(map(str, numbers))
        proc = subprocess.Popen(["ctest", "--preset", "default", "--stop-on-failure",
                                 "--timeout", str(self.timeout), "-I", spec],
                                cwd=self.path, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                text=True, start_new_session=True)
        lines = queue.Queue()

        def pump():
            for line in proc.stdout:
                lines.put(line)
            lines.put(None)

        threading.Thread(target=pump, daemon=True).start()
        names, running, failed = {}, {}, None
        with open(self.log, "a") as log:
            while True:
                try:
                    line = lines.get(timeout=1)
                except queue.Empty:
                    line = ""
                if line is None:
                    break
                log.write(line)
                # Names may hold blanks: tests are known by number.
                if g := re.match(r"\s*Start\s+(\d+): (.*)", line):
                    names[g[1]], running[g[1]] = g[2].strip(), time.monotonic()
                elif g := re.match(r"\s*\d+/\d+ Test\s+#(\d+): ", line):
                    running.pop(g[1], None)
                    ok = re.search(r"(Passed|\*Skipped)\s+[\d.]+ sec", line)
                    failed = failed or (None if ok else names.get(g[1], "#" + g[1]))
                late = [names[n] for n, t in running.items() if time.monotonic() - t > self.timeout]
                if late or self.stop.is_set():
                    os.killpg(proc.pid, signal.SIGKILL)
                    failed = failed or (f"{late[0]} (timed out)" if late else "interrupted")
                    break
        proc.wait()
        return failed if failed or proc.returncode == 0 else "ctest failed"

    def check(self, folder):
        folders = self.test_folders()
        mine = [i for i, f in enumerate(folders, 1) if folder and f == folder]
        rest = [i for i in range(1, len(folders) + 1) if i not in mine]
        for part in (mine, rest):
            if part and (failed := self.ctest(part)):
                return failed
        return None


def mutate(args):
    root, work = args.root.resolve(), (args.work or args.root / "build/mutate").resolve()
    mutants = read_list(args.list)
    if args.only:
        mutants = [m for m in mutants if m["id"] in parse_only(args.only)]
    results = Path(args.results or work / "results.jsonl")
    done = {r["key"]: r for r in map(json.loads, results.read_text().splitlines())
            } if results.exists() else {}
    stale = [m for m in mutants if not locate(root, m)]
    todo = [m for m in mutants if m not in stale and m["key"] not in done]
    head = subprocess.run(["git", "rev-parse", "HEAD"], cwd=root, capture_output=True,
                          text=True).stdout.strip()
    folders = {p.name for p in (root / "tests").iterdir() if p.is_dir()}
    print(f"{len(mutants)} mutants, {len(stale)} stale, {len(mutants) - len(stale) - len(todo)} "
          f"already in {results}, {len(todo)} to run", flush=True)

    stop, lock, jobs = threading.Event(), threading.Lock(), queue.Queue()
    for m in todo:
        jobs.put(m)
    errors = []

    def worker(k):
        tree = Tree(root, work / f"tree{k}", args.test_timeout, stop)
        try:
            tree.path.mkdir(parents=True, exist_ok=True)
            tree.sync()
            if not tree.build():
                raise RuntimeError(f"the unmutated tree does not build (see {tree.log})")
            if failed := tree.check(None):
                raise RuntimeError(f"the unmutated tree fails {failed} (see {tree.log})")
            while not stop.is_set():
                try:
                    m = jobs.get_nowait()
                except queue.Empty:
                    return
                line, text = locate(tree.path, m)
                path = tree.path / m["file"]
                original, start = path.read_bytes(), time.monotonic()
                try:
                    path.write_text(text)
                    folder = next((p for p in Path(m["file"]).with_suffix("").parts
                                   if p in folders), None)
                    if not tree.build():
                        status, by = tree.build_failure()
                    else:
                        by = tree.check(folder)
                        status = "killed" if by else "survived"
                finally:
                    path.write_bytes(original)
                if stop.is_set():
                    return
                rec = dict(id=m["id"], file=m["file"], line=line,
                           change=f"'{m['old']}' -> '{m['new']}'", text=m["text"], status=status,
                           by=by, seconds=round(time.monotonic() - start), commit=head,
                           key=m["key"])
                with lock:
                    with open(results, "a") as f:
                        f.write(json.dumps(rec) + "\n")
                    done[m["key"]] = rec
                    how = f" by {by}" if status == "killed" else f": {by}" if by else ""
                    print(f"#{m['id']} {m['file']}:{line} {rec['change']}: {status}{how} "
                          f"({rec['seconds']} s)", flush=True)
        except Exception as e:  # noqa: BLE001 - reported once, the other workers stop too
            if not stop.is_set():
                errors.append(e)
            stop.set()

    work.mkdir(parents=True, exist_ok=True)
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    threads = [threading.Thread(target=worker, args=(k,))
               for k in range(1, min(args.jobs, len(todo)) + 1)]
    for t in threads:
        t.start()
    try:
        # Sleep, not join: an interrupted join can leave its thread looking
        # finished, and the exit would then kill a worker before it restores.
        while any(t.is_alive() for t in threads):
            time.sleep(0.5)
    except KeyboardInterrupt:
        stop.set()
        for t in threads:
            t.join()
        print("interrupted: the scratch copies are restored; rerun to resume")
    report(mutants, stale, done)
    if errors:
        sys.exit(f"error: {errors[0]}")
    return 130 if stop.is_set() else 0


def report(mutants, stale, done):
    recs = [done[m["key"]] for m in mutants if m["key"] in done]
    count = {s: sum(1 for r in recs if r["status"] == s)
             for s in ("killed", "survived", "did not compile")}
    counted = count["killed"] + count["survived"]
    rate = f"{100 * count['killed'] / counted:.1f}%" if counted else "n/a"
    print(f"killed {count['killed']} of {counted} ({rate}); "
          f"{count['did not compile']} did not compile, {len(stale)} stale, "
          f"{len(mutants) - len(recs) - len(stale)} not run")
    for r in recs:
        if r["status"] == "survived":
            print(f"survived: {r['file']}:{r['line']}: {r['change']}  | {r['text']}")
    for m in stale:
        print(f"stale: #{m['id']} {m['file']}@{m['occ']}:{m['col']}  | {m['text']}")


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("command", choices=("generate", "run"))
    ap.add_argument("--root", type=Path, default=ROOT, help="the tree (default: this one)")
    ap.add_argument("--list", type=Path, help="default: tools/mutate/mutants.txt of the root")
    ap.add_argument("--seed", type=int, default=19)
    ap.add_argument("--count", type=int, default=150)
    ap.add_argument("--only", help="ids to run: 3,7,10-20")
    ap.add_argument("--jobs", type=int, default=1, help="mutants built and tested at once")
    ap.add_argument("--work", type=Path, help="scratch copies (default: build/mutate)")
    ap.add_argument("--results", help="JSON lines (default: build/mutate/results.jsonl)")
    ap.add_argument("--test-timeout", type=int, default=120, help="seconds; longer is a kill")
    args = ap.parse_args()
    args.list = args.list or args.root / "tools/mutate/mutants.txt"
    if args.command == "generate":
        mutants = generate(args.root.resolve(), args.seed, args.count)
        with open(args.list, "w") as f:
            f.write(f"# {len(mutants)} mutants, seed {args.seed}: tools/mutate/mutate.py generate\n"
                    "# id  file@occurrence:column  'from' -> 'to'  | the line, stripped\n")
            f.writelines(format_mutant(m) + "\n" for m in mutants)
        return 0
    return mutate(args)


if __name__ == "__main__":
    sys.exit(main())
