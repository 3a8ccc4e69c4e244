#!/usr/bin/env python3
"""Plants realistic faults in the product code, one at a time, and reports
which of them the test suite catches: a measuring tool for the suite, not a
part of it.

Each fault in scripts/faults.txt is one line, fields separated by " | ":
    <id> | <file> | <text to find> | <replacement>
The text must occur exactly once in the file; "\\n" stands for a line break.
For each fault the file is changed, the x86_64 tree is rebuilt and its whole
ctest suite run (stopping at the first failure); the file is then put back.
A fault whose build fails counts as caught by the compiler and is reported
apart.

    scripts/faults.py                 every fault
    scripts/faults.py <id>...         only these
Needs a configured build/x64 (scripts/build.sh makes it).
"""
import os
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build", "x64")


def load_faults():
    faults = []
    with open(os.path.join(ROOT, "scripts", "faults.txt"), encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            if line.endswith(" |"):
                line += " "  # an empty replacement
            parts = line.split(" | ")
            if len(parts) != 4:
                sys.exit(f"faults.txt:{number}: expected 4 fields separated by ' | '")
            ident, path, find, replace = (p.strip() if i < 2 else p for i, p in enumerate(parts))
            faults.append((ident, path, find.replace("\\n", "\n"), replace.replace("\\n", "\n")))
    return faults


def run(command, log):
    return subprocess.run(command, cwd=ROOT, stdout=log, stderr=subprocess.STDOUT).returncode


def build(log):
    return run(["cmake", "--build", BUILD, "-j2"], log) == 0


def main():
    faults = load_faults()
    wanted = set(sys.argv[1:])
    if wanted:
        faults = [f for f in faults if f[0] in wanted]
    results = []
    log_path = os.path.join(BUILD, "faults.log")
    with open(log_path, "w") as log:
        if not build(log):
            sys.exit(f"the unchanged tree does not build; see {log_path}")
        for index, (ident, path, find, replace) in enumerate(faults, 1):
            full = os.path.join(ROOT, path)
            with open(full, encoding="utf-8") as f:
                original = f.read()
            if original.count(find) != 1:
                print(f"[{index}/{len(faults)}] {ident}: the text occurs {original.count(find)} times in {path}")
                results.append((ident, "stale"))
                continue
            start = time.time()
            try:
                with open(full, "w", encoding="utf-8") as f:
                    f.write(original.replace(find, replace))
                log.write(f"\n===== {ident}\n")
                log.flush()
                if not build(log):
                    outcome = "build"
                else:
                    tests = subprocess.run(["ctest", "--test-dir", BUILD, "-j2", "--stop-on-failure", "--timeout", "300"],
                                           cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
                    log.write(tests.stdout)
                    failing = re.findall(r"Test\s+#\d+: (\S+) .*\*\*\*", tests.stdout)
                    outcome = f"caught by {', '.join(failing) or '?'}" if tests.returncode else "MISSED"
            finally:
                with open(full, "w", encoding="utf-8") as f:
                    f.write(original)
            results.append((ident, outcome))
            print(f"[{index}/{len(faults)}] {ident}: {outcome} ({time.time() - start:.0f} s)", flush=True)
        build(log)
    caught = sum(1 for _, o in results if o.startswith("caught"))
    counted = sum(1 for _, o in results if o.startswith("caught") or o == "MISSED")
    missed = [i for i, o in results if o == "MISSED"]
    print(f"caught {caught} of {counted} planted faults" + (f"; missed: {', '.join(missed)}" if missed else ""))
    others = [f"{i} ({o})" for i, o in results if not o.startswith("caught") and o != "MISSED"]
    if others:
        print("not counted: " + ", ".join(others))
    return 0 if not missed else 1


if __name__ == "__main__":
    sys.exit(main())
