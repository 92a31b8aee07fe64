#!/usr/bin/env python3
"""Puts small faults into a copy of the sources, one at a time, and reports which ones the tests notice.

tests/mutations/faults.txt lists the faults, and for each the tests that must fail. A fault that all of
them pass has survived; at most two may. A fault that does not build, or whose text its file does not
hold exactly once, must be repaired in the list.

usage: check_mutations.py [TEXT]      TEXT: only faults of files whose path contains it
"""
import collections
import filecmp
import os
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
LIST = ROOT / "tests/mutations/faults.txt"
COPY = ROOT / "build/mutations"
BUILD = COPY / "build/dev"
SECONDS_PER_TEST = 120  # a fault can make a test hang
MOST_SURVIVORS = 2


def read_faults(only):
    """Returns [(file, text, replacement, tests)]."""
    faults = []
    file, tests = None, []
    for line in LIST.read_text().splitlines():
        header, fault = re.fullmatch(r"\[(.*): (.*)\]", line), re.fullmatch("(.*?) => (.*)", line)
        if header:
            file, tests = header[1], header[2].split()
        elif fault and file:
            faults.append((file, fault[1], fault[2], tests))
        elif line and not line.startswith("#"):
            sys.exit(f"{LIST}: neither a file nor a fault: {line}")
    return [fault for fault in faults if only in fault[0]]


def copy_sources():
    """Writes only files that differ, so that a second run builds little; removes those that are gone."""
    for folder, subfolders, files in os.walk(ROOT):
        subfolders[:] = [name for name in subfolders if name not in ("build", ".git", ".cache")]
        to = COPY / pathlib.Path(folder).relative_to(ROOT)
        to.mkdir(parents=True, exist_ok=True)
        for gone in {path.name for path in to.iterdir()} - {*files, *subfolders, "build"}:
            shutil.rmtree(to / gone) if (to / gone).is_dir() else (to / gone).unlink()
        for name in files:
            if not (to / name).exists() or not filecmp.cmp(f"{folder}/{name}", to / name, shallow=False):
                shutil.copyfile(f"{folder}/{name}", to / name)
                shutil.copymode(f"{folder}/{name}", to / name)


def build(tests):
    log = open(BUILD / "build.log", "w")
    return subprocess.run(["cmake", "--build", BUILD, "--target", *tests], stdout=log, stderr=log).returncode == 0


def passes(test):
    environment = {**os.environ, "GTEST_DEATH_TEST_STYLE": "threadsafe", "GTEST_FAIL_FAST": "1"}
    try:
        return subprocess.run([BUILD / "tests" / test], env=environment, timeout=SECONDS_PER_TEST,
                              stdout=open(BUILD / "test.log", "w"), stderr=subprocess.STDOUT).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def verdict_on(file, text, replacement, tests):
    original = (ROOT / file).read_text() if (ROOT / file).exists() else ""
    if original.count(text) != 1:
        return "NOT IN ITS FILE ONCE"
    (COPY / file).write_text(original.replace(text, replacement))
    try:
        if not build(tests):
            return "DOES NOT BUILD"
        return next((f"caught by {test}" for test in tests if not passes(test)), "SURVIVED")
    finally:
        (COPY / file).write_text(original)


def main(only=""):
    faults = read_faults(only)
    tests = sorted({test for *_, names in faults for test in names})
    if not faults:
        sys.exit(f"no fault of {LIST} is in a file whose path contains '{only}'")
    subprocess.run([ROOT / "scripts/install-packages.sh", "test"], check=True)
    subprocess.run([ROOT / "samples/make-clips.sh", ROOT / "build/clips"], check=True)
    copy_sources()
    subprocess.run(["cmake", "-S", COPY, "--preset", "dev", "-DQXTOOLS_BUILD_BENCH=OFF",
                    f"-DQXTOOLS_CLIPS_DIR={ROOT}/build/clips"], check=True, stdout=subprocess.DEVNULL)
    if not build(tests):
        sys.exit(f"the unchanged sources do not build; see {BUILD}/build.log")
    for test in tests:
        if not passes(test) and not passes(test):
            sys.exit(f"{test} fails without any fault; see {BUILD}/test.log")
    counts = collections.Counter()
    for file, text, replacement, names in faults:
        verdict = verdict_on(file, text, replacement, names)
        counts[verdict.split()[0]] += 1
        print(f"{verdict:36} {file}: {text} => {replacement}", flush=True)
    print(f"{counts['caught']} of {len(faults)} faults caught, {counts['SURVIVED']} survived")
    return counts["caught"] + counts["SURVIVED"] < len(faults) or counts["SURVIVED"] > MOST_SURVIVORS


sys.exit(main(*sys.argv[1:]))
