#!/usr/bin/env python3
"""Mutation check: do the tests catch small, realistic faults?

Reads the fixed sample in cmake/mutants.txt. For each mutant it replaces one
exact piece of library code by a faulty one (a comparison flipped, a wake-up
dropped, a bound off by one, an fsync or rename skipped, a lock not taken, an
error result ignored), rebuilds only the test programs that the mutant names,
runs them, and puts the file back. A mutant is killed when a test program
fails, crashes or hangs (time-out). Prints "killed K of N" and the survivors.

    python3 cmake/mutate.py [--build build/dev] [--only ID,ID] [--list]

The source tree is always restored, also on Ctrl-C. A mutant whose original
text is no longer found exactly once is reported as stale: the sample must
follow the code it mutates.
"""
import argparse
import glob
import os
import re
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


class Mutant:
    def __init__(self, ident, path, tests, note):
        self.ident, self.path, self.tests, self.note = ident, path, tests, note
        self.old, self.new = [], []
        self.equivalent = None

    @property
    def old_text(self):
        return "\n".join(self.old)

    @property
    def new_text(self):
        return "\n".join(self.new)


def parse_sample(path):
    """Blocks of the form

        [ID] path/to/file.cpp  test_glob[,test_glob...]  -- what the fault is
        - exact original line(s)
        + replacement line(s)
        = equivalent: why the program behaves the same   (optional)
    """
    mutants, cur = [], None
    header = re.compile(r"^\[(\w+)\]\s+(\S+)\s+(\S+)\s+--\s+(.*)$")
    with open(path, encoding="utf-8") as f:
        for lineno, raw in enumerate(f, 1):
            line = raw.rstrip("\n")
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            m = header.match(line)
            if m:
                cur = Mutant(m.group(1), m.group(2), m.group(3).split(","), m.group(4))
                mutants.append(cur)
            elif cur is None:
                sys.exit(f"{path}:{lineno}: text before the first mutant header")
            elif line.startswith("- "):
                cur.old.append(line[2:])
            elif line.startswith("-") and line == "-":
                cur.old.append("")
            elif line.startswith("+ ") or line == "+":
                cur.new.append(line[2:])
            elif line.startswith("= "):
                cur.equivalent = line[2:]
            else:
                sys.exit(f"{path}:{lineno}: unexpected line: {line}")
    for m in mutants:
        if not m.old:
            sys.exit(f"mutant {m.ident}: no original text")
    return mutants


def run(cmd, timeout=None, quiet=True):
    out = subprocess.DEVNULL if quiet else None
    try:
        return subprocess.run(cmd, cwd=ROOT, stdout=out, stderr=out, timeout=timeout,
                              start_new_session=True).returncode
    except subprocess.TimeoutExpired:
        return "timeout"


_targets = {}


def build_targets(build):
    """The build's current target names: a test program left in the build
    directory by a test file that has since gone is not one of them."""
    if build not in _targets:
        out = subprocess.run(["cmake", "--build", build, "--target", "help"], cwd=ROOT,
                             capture_output=True, text=True).stdout
        _targets[build] = {line.split(":")[0].strip() for line in out.splitlines()}
    return _targets[build]


def test_programs(build, patterns):
    found = []
    known = build_targets(build)
    for p in patterns:
        for exe in sorted(glob.glob(os.path.join(ROOT, build, "tests", p))):
            if (os.access(exe, os.X_OK) and os.path.isfile(exe) and exe not in found
                    and os.path.basename(exe) in known):
                found.append(exe)
    return found


def run_tests(build, patterns, timeout):
    """Returns None when every program passed, else a short reason."""
    exes = test_programs(build, patterns)
    if not exes:
        return "no test program"
    for exe in exes:
        rc = run([exe, "--gtest_brief=1"], timeout=timeout)
        if rc != 0:
            return f"{os.path.basename(exe)}: {'hang' if rc == 'timeout' else 'rc ' + str(rc)}"
    return None


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default="build/dev")
    ap.add_argument("--sample", default=os.path.join(ROOT, "cmake", "mutants.txt"))
    ap.add_argument("--only", default="")
    ap.add_argument("--list", action="store_true")
    ap.add_argument("--timeout", type=int, default=240)
    args = ap.parse_args()

    mutants = parse_sample(args.sample)
    if args.only:
        keep = set(args.only.split(","))
        mutants = [m for m in mutants if m.ident in keep]
    if args.list:
        for m in mutants:
            print(f"{m.ident:5} {m.path:36} {m.note}")
        return 0

    print(f"== building {args.build} and checking that the sample's tests pass unmutated")
    if run(["cmake", "--build", args.build], quiet=False) != 0:
        sys.exit("the unmutated build fails")
    patterns = sorted({p for m in mutants for p in m.tests})
    base = run_tests(args.build, patterns, args.timeout)
    if base:
        sys.exit(f"the unmutated tests fail ({base}); fix that first")

    killed, survivors, stale, equivalent = 0, [], [], []
    original_contents = {}

    def restore():
        for path, text in original_contents.items():
            with open(path, "w", encoding="utf-8") as f:
                f.write(text)
        original_contents.clear()

    def on_signal(signum, frame):
        restore()
        sys.exit(130)

    signal.signal(signal.SIGINT, on_signal)
    signal.signal(signal.SIGTERM, on_signal)

    try:
        for m in mutants:
            path = os.path.join(ROOT, m.path)
            with open(path, encoding="utf-8") as f:
                text = f.read()
            if text.count(m.old_text) != 1:
                stale.append(m)
                print(f"[{m.ident}] STALE: original text found {text.count(m.old_text)} times in {m.path}")
                continue
            original_contents[path] = text
            with open(path, "w", encoding="utf-8") as f:
                f.write(text.replace(m.old_text, m.new_text, 1))
            t0 = time.time()
            targets = [os.path.basename(e) for e in test_programs(args.build, m.tests)]
            # A fault in a program the tests run (tools/tvreg.cpp) needs that
            # program rebuilt as well.
            program = os.path.splitext(os.path.basename(m.path))[0]
            if program in build_targets(args.build):
                targets.append(program)
            if run(["cmake", "--build", args.build, "--target", *targets]) != 0:
                result = "did not build"
                stale.append(m)
            else:
                reason = run_tests(args.build, m.tests, args.timeout)
                if reason:
                    killed += 1
                    result = f"killed ({reason})"
                elif m.equivalent:
                    equivalent.append(m)
                    result = "survived (equivalent)"
                else:
                    survivors.append(m)
                    result = "SURVIVED"
            restore()
            print(f"[{m.ident}] {m.path}: {m.note}: {result} [{time.time() - t0:.0f}s]", flush=True)
    finally:
        restore()
        run(["cmake", "--build", args.build])

    counted = len(mutants) - len(stale)
    print()
    print(f"killed {killed} of {counted}")
    for m in equivalent:
        print(f"  equivalent {m.ident} {m.path}: {m.note} ({m.equivalent})")
    for m in survivors:
        print(f"  survivor {m.ident} {m.path}: {m.note}")
    for m in stale:
        print(f"  stale {m.ident} {m.path}: {m.note}")
    return 0 if not stale else 1


if __name__ == "__main__":
    sys.exit(main())
