#!/usr/bin/python3
"""Breaks production lines one at a time and checks that the suite notices.

    mutate.py BUILD_DIR [--list scripts/mutations.txt] [--check] [--test EXE ...] [NAME_SUBSTRING ...]

For every mutation (see scripts/mutations.txt) whose name contains one of the given
substrings (all without any), and whose test executable is one of the --test ones: replace the fragment in its file, build the named test
target in BUILD_DIR, run it with the gtest filter, expect it to fail, and restore the
file with `git checkout -- FILE`. Prints one table row per mutation: caught, SURVIVED,
or a problem (fragment missing or not unique, build failed). --check only verifies that
every fragment occurs exactly once. Exit status 1 when a mutation survived or could not
be applied. A file with uncommitted changes is refused: the restore would lose them.
"""
import argparse
import os
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FIELDS = ("name", "file", "find", "replace", "test", "filter")
TEST_TIMEOUT_S = 300  # as CTest allows one test


def parse(path):
    records, current = [], {}
    with open(path, encoding="utf-8") as f:
        for number, raw in enumerate(f, 1):
            line = raw.rstrip("\n")
            if line.startswith("#"):
                continue
            if not line.strip():
                if current:
                    records.append(current)
                current = {}
                continue
            key, sep, value = line.partition(": ")
            if not sep or key not in FIELDS:
                sys.exit(f"{path}:{number}: expected one of {', '.join(FIELDS)} followed by ': '")
            current[key] = value
    if current:
        records.append(current)
    for record in records:
        missing = [field for field in FIELDS if field not in record]
        if missing:
            sys.exit(f"{path}: mutation {record.get('name', '?')!r} lacks {', '.join(missing)}")
    return records


def occurrences(record):
    with open(os.path.join(ROOT, record["file"]), encoding="utf-8") as f:
        return f.read().count(record["find"])


def dirty(path):
    return subprocess.run(["git", "diff", "--quiet", "--", path], cwd=ROOT).returncode != 0


def run_one(record, build_dir):
    path = os.path.join(ROOT, record["file"])
    with open(path, encoding="utf-8") as f:
        original = f.read()
    count = original.count(record["find"])
    if count != 1:
        return f"fragment found {count} times"
    if dirty(record["file"]):
        return "file has uncommitted changes"
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original.replace(record["find"], record["replace"], 1))
        build = subprocess.run(["cmake", "--build", build_dir, "--target", record["test"], "-j2"], cwd=ROOT,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if build.returncode != 0:
            return "build failed"
        binary = os.path.join(build_dir, "tests", record["test"])
        listed = subprocess.run([binary, "--gtest_list_tests", f"--gtest_filter={record['filter']}"],
                                capture_output=True, text=True)
        if not any(line.startswith("  ") for line in listed.stdout.splitlines()):
            return "filter matches no test"
        try:
            test = subprocess.run([binary, f"--gtest_filter={record['filter']}"], cwd=os.path.join(build_dir, "tests"),
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=TEST_TIMEOUT_S)
            return "caught" if test.returncode != 0 else "SURVIVED"
        except subprocess.TimeoutExpired:
            return "caught (time-out)"
    finally:
        subprocess.run(["git", "checkout", "--", record["file"]], cwd=ROOT, check=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build_dir")
    parser.add_argument("--list", default=os.path.join(ROOT, "scripts", "mutations.txt"))
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--test", action="append", default=[], help="only mutations caught by this executable")
    parser.add_argument("names", nargs="*")
    args = parser.parse_intermixed_args()
    records = [r for r in parse(args.list)
               if (not args.names or any(n in r["name"] for n in args.names))
               and (not args.test or r["test"] in args.test)]
    build_dir = os.path.abspath(args.build_dir)
    width = max((len(r["name"]) for r in records), default=8)
    print(f"{'mutation':<{width}}  {'caught by':<60}  result")
    failures = 0
    for record in records:
        started = time.monotonic()
        if args.check:
            count = occurrences(record)
            result = "ok" if count == 1 else f"fragment found {count} times"
        else:
            result = run_one(record, build_dir)
        ok = result.startswith("caught") or result == "ok"
        failures += 0 if ok else 1
        where = f"{record['test']} {record['filter']}"
        print(f"{record['name']:<{width}}  {where:<60}  {result} ({time.monotonic() - started:.0f} s)", flush=True)
    print(f"{len(records) - failures} of {len(records)} {'fragments found' if args.check else 'caught'}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
