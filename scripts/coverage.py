#!/usr/bin/env python3
"""Measures which lines and branches of the library the C++ tests reach, with clang: counters stand
in the ordinary objects and in the baseline kernels, which are the same source as the others.
Prints, by file, what was reached, and which lines were not. Needs clang, libomp-dev and
llvm; where there is an MPI, states over ranks count, too."""

import collections
import json
import os
import shutil
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
BUILD = ROOT / "build" / "coverage"
PROFILES = BUILD / "profiles"


def run(*command, **options):
    return subprocess.run(command, check=True, cwd=ROOT, **options)


def run_tests():
    linked = "-fprofile-instr-generate"
    run("cmake", "-S", ".", "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
        "-DCMAKE_CXX_COMPILER=clang++",
        f"-DCMAKE_PROJECT_pblinalg_INCLUDE={ROOT}/cmake/coverage.cmake",
        f"-DCMAKE_EXE_LINKER_FLAGS={linked}", f"-DCMAKE_SHARED_LINKER_FLAGS={linked}",
        "-DPBLINALG_BUILD_BENCHMARKS=OFF", "-DPBLINALG_BUILD_EXAMPLES=OFF",
        f"-DPBLINALG_BUILD_MPI={'ON' if shutil.which('mpicxx') else 'OFF'}")  # fmt: skip
    run("cmake", "--build", BUILD)
    PROFILES.mkdir(exist_ok=True)
    for profile in PROFILES.iterdir():
        profile.unlink()
    # Counters are no part of consumers or of optimised kernels.
    run("ctest", "--test-dir", BUILD, "--exclude-regex", "^(consumer|object_code)",
        "--output-on-failure", "--parallel", str(os.cpu_count()), "--progress",
        env=os.environ | {"LLVM_PROFILE_FILE": f"{PROFILES}/%m.profraw"})  # fmt: skip


def export(form):
    merged = PROFILES / "all.profdata"
    run("llvm-profdata", "merge", "-sparse", "-o", merged, *PROFILES.glob("*.profraw"))
    programs = sorted(path for path in (BUILD / "tests").glob("*_test") if os.access(path, os.X_OK))
    # Tests of states over ranks link the library that users do.
    programs += (BUILD / "src" / "mpi").glob("libpblinalg_mpi.so")
    objects = [argument for path in programs[1:] for argument in ("-object", path)]
    command = ["llvm-cov", "export", f"-format={form}", f"-instr-profile={merged}"]
    return run(*command, programs[0], *objects, capture_output=True, text=True).stdout


def reached_lines():
    """Per file, how often each line ran, in any instance of a template."""
    files = collections.defaultdict(collections.Counter)
    for line in export("lcov").splitlines():
        if line.startswith("SF:"):
            current = files[line[3:]]
        elif line.startswith("DA:"):
            number, count = line[3:].split(",")[:2]
            current[int(number)] += int(count)
    return files


def reached_branches():
    """Per file, how often each condition was true and false, in any instance of a template."""
    files = {}
    for file in json.loads(export("text"))["data"][0]["files"]:
        branches = collections.defaultdict(lambda: [0, 0])
        for *place, when_true, when_false, _, _, _ in file["branches"]:
            branches[tuple(place)][0] += when_true
            branches[tuple(place)][1] += when_false
        files[file["filename"]] = branches
    return files


def ranges(numbers):
    text = []
    for n in numbers:
        if text and text[-1][1] == n - 1:
            text[-1][1] = n
        else:
            text.append([n, n])
    return " ".join(f"{a}" if a == b else f"{a}-{b}" for a, b in text)


def main():
    run_tests()
    lines, branches = reached_lines(), reached_branches()
    total = collections.Counter()
    print(f"{'file':40} {'lines':>11} {'branches':>11}  not reached")
    for path in sorted(lines):
        if not path.startswith(f"{ROOT}/src/"):
            continue
        counts = lines[path].values()
        ways = [way for pair in branches.get(path, {}).values() for way in pair]
        own = {"lines": len(counts), "run": sum(map(bool, counts)),
               "ways": len(ways), "taken": sum(map(bool, ways))}  # fmt: skip
        total.update(own)
        missed = sorted(n for n, count in lines[path].items() if count == 0)
        half = sorted({place[0] for place, pair in branches.get(path, {}).items() if 0 in pair})
        print(f"{path[len(str(ROOT)) + 1 :]:40} {own['run']:5}/{own['lines']:5} "
              f"{own['taken']:5}/{own['ways']:5}  "
              f"{'lines ' + ranges(missed) if missed else ''} "
              f"{'one way at ' + ranges(half) if half else ''}")  # fmt: skip
    print(f"{total['run'] / total['lines']:.1%} of {total['lines']} lines, "
          f"{total['taken'] / total['ways']:.1%} of {total['ways']} branches")  # fmt: skip


if __name__ == "__main__":
    main()
