#!/usr/bin/env python3
"""Small mutation pass over the numeric core.

Applies the one-line mutants of a list (scripts/mutants.txt by default) one at a time,
rebuilds the test binary each one names, runs its tests, and reports which mutants the tests
kill and which survive. The source is restored after each mutant, also on Ctrl-C.

Usage: scripts/mutate.py [--preset ci] [--list FILE] [--only TEXT] [--jobs 1]
List lines: file | test target | gtest filter | original | replacement   ("\\n" for a newline)
"""
import argparse
import os
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def parse(path):
    mutants = []
    for number, line in enumerate(open(path, encoding="utf-8"), 1):
        line = line.rstrip("\n")
        if not line.strip() or line.lstrip().startswith("#"):
            continue
        parts = [p.strip() for p in line.split(" | ")]
        if len(parts) != 5:
            sys.exit(f"{path}:{number}: expected 5 fields separated by ' | '")
        file, target, gfilter, before, after = parts
        mutants.append(dict(line=number, file=file, target=target, filter=gfilter,
                            before=before.replace("\\n", "\n"), after=after.replace("\\n", "\n")))
    return mutants


def run(cmd, timeout):
    try:
        return subprocess.run(cmd, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return "timeout"


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--preset", default="ci")
    ap.add_argument("--list", default=os.path.join(ROOT, "scripts", "mutants.txt"))
    ap.add_argument("--only", default="", help="run only mutants whose file contains this text")
    ap.add_argument("--jobs", default="1")
    ap.add_argument("--wrapper", default=os.environ.get("MUTATE_WRAPPER", ""),
                    help="command put before builds and test runs (e.g. cpuslot)")
    args = ap.parse_args()
    wrap = args.wrapper.split() if args.wrapper else []
    mutants = [m for m in parse(args.list) if args.only in m["file"]]
    subprocess.run(["cmake", "--preset", args.preset], cwd=ROOT, stdout=subprocess.DEVNULL, check=True)
    build_dir = os.path.join(ROOT, "build", args.preset)
    results = []
    for m in mutants:
        path = os.path.join(ROOT, m["file"])
        original = open(path, encoding="utf-8").read()
        if original.count(m["before"]) != 1:
            results.append((m, "not found"))
            print(f"line {m['line']}: {m['file']}: original text found "
                  f"{original.count(m['before'])} times, skipped", flush=True)
            continue
        started = time.time()
        try:
            open(path, "w", encoding="utf-8").write(original.replace(m["before"], m["after"]))
            built = run(wrap + ["cmake", "--build", "--preset", args.preset, "-j", args.jobs,
                                "--target", m["target"]], 1800)
            if built != 0:
                verdict = "stillborn"  # does not compile: counts as neither
            else:
                binary = subprocess.run(["find", build_dir, "-name", m["target"], "-type", "f"],
                                        stdout=subprocess.PIPE, text=True).stdout.split()
                tested = run(wrap + [binary[0], f"--gtest_filter={m['filter']}",
                                     "--gtest_brief=1"], 900)
                verdict = "survived" if tested == 0 else "killed"
        finally:
            open(path, "w", encoding="utf-8").write(original)
        results.append((m, verdict))
        print(f"line {m['line']}: {verdict:9} {m['file']}: {m['before'].splitlines()[0][:60]!r}"
              f" ({time.time() - started:.0f} s)", flush=True)
    # Rebuild what the last mutant touched, so the tree is as it was.
    for target in sorted({m["target"] for m in mutants}):
        run(wrap + ["cmake", "--build", "--preset", args.preset, "-j", args.jobs, "--target", target], 1800)
    judged = [r for r in results if r[1] in ("killed", "survived")]
    killed = sum(1 for r in judged if r[1] == "killed")
    print(f"\n{killed} of {len(judged)} mutants killed"
          + (f" ({100.0 * killed / len(judged):.0f}%)" if judged else ""))
    for m, verdict in results:
        if verdict == "survived":
            print(f"  survivor: {m['file']} line {m['line']} of the list: {m['before']!r} -> {m['after']!r}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
