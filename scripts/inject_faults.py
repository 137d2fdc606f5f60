#!/usr/bin/env python3
"""Breaks the library in many small ways, one at a time, and counts how many of them the C++ tests
catch. Works on a copy of the sources under build/faults; a run that was stopped goes on where it
was, unless sources or tests changed. What cannot change a result is listed in harmless_faults.txt.

    nice -n 19 scripts/inject_faults.py --count 100
"""

import argparse
import dataclasses
import hashlib
import json
import os
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
HARMLESS = Path(__file__).with_name("harmless_faults.txt")
# A fault that all tests survive meets them again with the address sanitizer: many a loop that goes
# one too far does no harm that can be seen.
PLAIN = ""
SANITIZED = "-fsanitize=address,undefined -fno-sanitize-recover=all"
# The library over MPI is broken too where there is one; its tests then run on this many ranks.
WITH_MPI = bool(shutil.which("mpirun") and shutil.which("mpicxx"))
MPI_TEST = "mpi_test"
RANKS = "4"
COPIED = ["CMakeLists.txt", "README.md", "cmake", "include", "src", "tests"]

# Binary operators stand between spaces, since all sources are formatted; the angle brackets,
# stars and ampersands of types do not.
SWAPS = {
    " < ": " <= ", " <= ": " < ", " > ": " >= ", " >= ": " > ", " == ": " != ", " != ": " == ",
    " + ": " - ", " - ": " + ", " * ": " + ", " / ": " * ", " % ": " / ",
    " << ": " >> ", " >> ": " << ", " & ": " | ", " | ": " & ", " ^ ": " | ",
    " && ": " || ", " || ": " && ", " += ": " -= ", " -= ": " += ", " *= ": " += ",
    " |= ": " &= ", " &= ": " |= ", " ^= ": " |= ", " <<= ": " >>= ", " >>= ": " <<= ",
    "true": "false", "false": "true", "std::min": "std::max", "std::max": "std::min",
}  # fmt: skip
SWAPPED = re.compile(
    "|".join(rf"\b{re.escape(s)}\b" if s[0].isalpha() else re.escape(s) for s in SWAPS)
)
NUMBER = re.compile(r"(?<![\w.])(\d+)(?=(?:u|ull)?\b)(?![.x'])")
CONDITION = re.compile(r"\b(if|while) \((?=[^;]*\)\s*(?:\{|[^{};]*;)?$)")
STATEMENT = re.compile(r"^\s*(?!return|break|continue|using|throw|goto)[\w:.<>\[\]>-]+\(.*\);$")
# What is no code, is not checked by running it, or can change nothing but speed.
LEFT_OUT = re.compile(
    r"^\s*(#|//|\*|template\b|static_assert|assert|namespace\b|using\b|case\b)|\\$"
    r"|__builtin_prefetch|\breserve\("
)


@dataclasses.dataclass(frozen=True)
class Fault:
    file: str
    line: int
    before: str
    after: str

    @property
    def over_mpi(self):
        return self.file.startswith("src/mpi/")

    @property
    def key(self):
        return f"{self.file}:{self.line + 1}: {self.after.strip()}"

    @property
    def without_line(self):
        return f"{self.file}: {self.after.strip()}"


def faults_of_line(line):
    """All ways to break one line, as the lines that result."""
    code, comment, rest = line.partition("//")
    if LEFT_OUT.search(line) or '"' in code:
        return
    for match in SWAPPED.finditer(code):
        yield code[: match.start()] + SWAPS[match.group()] + code[match.end() :] + comment + rest
    for match in NUMBER.finditer(code):
        changed = str(int(match.group()) + 1)
        yield code[: match.start()] + changed + code[match.end() :] + comment + rest
    for match in CONDITION.finditer(code):
        end = closing_parenthesis(code, match.end())
        if end:
            inner = code[match.end() : end]
            yield code[: match.end()] + f"!({inner})" + code[end:] + comment + rest
    if STATEMENT.match(code) and code.count("(") == code.count(")"):
        yield re.match(r"\s*", code).group() + ";"


def closing_parenthesis(code, begin):
    depth = 1
    for i in range(begin, len(code)):
        depth += {"(": 1, ")": -1}.get(code[i], 0)
        if depth == 0:
            return i
    return None


def all_faults(root):
    faults = []
    for path in sorted((root / "src").rglob("*.[ch]pp")):
        file = str(path.relative_to(root))
        for number, line in enumerate(path.read_text().split("\n")):
            for after in faults_of_line(line):
                faults.append(Fault(file, number, line, after))
    return faults


def chosen_faults(options):
    """All faults in the order in which they are tried."""
    harmless = {
        line.strip() for line in HARMLESS.read_text().split("\n") if not line.startswith((" ", "#"))
    }
    faults = [
        fault for fault in all_faults(ROOT)
        if options.only in fault.file and (WITH_MPI or not fault.over_mpi)
    ]  # fmt: skip
    random.Random(options.seed).shuffle(faults)
    return [fault for fault in faults if fault.without_line not in harmless]


class Tree:
    """The copy that gets broken, and one of its builds."""

    def __init__(self, folder, name, flags, jobs):
        self.source = folder / "source"
        self.build = folder / name
        self.flags = flags
        self.jobs = jobs
        self.seconds = None
        self.clean = None

    def copy_sources(self):
        """Makes the copy equal to the tree; files that did not change keep their times."""
        for top in COPIED:
            paths = [ROOT / top] if (ROOT / top).is_file() else sorted((ROOT / top).rglob("*"))
            for path in paths:
                copy = self.source / path.relative_to(ROOT)
                if path.is_file() and not (
                    copy.exists() and copy.read_bytes() == path.read_bytes()
                ):
                    copy.parent.mkdir(parents=True, exist_ok=True)
                    shutil.copyfile(path, copy)
        for copy in list(self.source.rglob("*")):
            if copy.is_file() and not (ROOT / copy.relative_to(self.source)).exists():
                copy.unlink()

    def configure(self):
        launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        # Assertions on; no debug information, so that equal code gives equal objects.
        subprocess.run(
            ["cmake", "-S", self.source, "-B", self.build, "-G", "Ninja",
             "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O1",
             f"-DCMAKE_CXX_FLAGS={self.flags}",
             "-DPBLINALG_BUILD_BENCHMARKS=OFF", "-DPBLINALG_BUILD_EXAMPLES=OFF",
             f"-DPBLINALG_BUILD_MPI={'ON' if WITH_MPI else 'OFF'}",
             "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST", *launcher],
            check=True, stdout=subprocess.DEVNULL,
        )  # fmt: skip

    def make_libraries(self, limit):
        return self.make("pblinalg_internals", *["pblinalg_mpi"] * WITH_MPI, limit=limit)

    def make(self, *targets, limit):
        """True when the targets were built, within `limit` seconds."""
        command = ["cmake", "--build", self.build, "-j", str(self.jobs), "--target", *targets]
        return run_limited(command, limit) == 0

    def object_digests(self):
        return {
            str(path): hashlib.sha256(path.read_bytes()).hexdigest()
            for path in (self.build / "src").rglob("*.o")
        }

    def prepare(self):
        """Builds the unbroken code, and measures its tests, which must pass."""
        self.configure()
        if not self.make_libraries(limit=7200):
            sys.exit(f"the library does not build without a fault in {self.build}")
        seconds = {}
        for path in sorted((ROOT / "tests").rglob("*_test.cpp")):
            test = path.stem
            if test == MPI_TEST and not WITH_MPI:
                continue
            if not self.make(test, limit=7200):
                sys.exit(f"{test} does not build without a fault")
            start = processor_seconds()
            if run_test(self, test, 3600) != 0:
                sys.exit(f"{test} fails without a fault")
            seconds[test] = processor_seconds() - start
            print(f"{test:28} {seconds[test]:6.1f} s", flush=True)
        self.seconds = seconds
        self.clean = self.object_digests()

    def write(self, fault, line):
        path = self.source / fault.file
        lines = path.read_text().split("\n")
        lines[fault.line] = line
        path.write_text("\n".join(lines))


def run_limited(command, limit, **options):
    """The exit code, or None after `limit` seconds; the whole process group ends with it."""
    process = subprocess.Popen(
        command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        start_new_session=True, **options,
    )  # fmt: skip
    try:
        return process.wait(limit)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        return None


def ordered_tests(seconds, fault):
    """The tests likeliest to catch the fault first: of the same name, of the same folder, quick."""
    stem = Path(fault.file).stem
    room = Path(fault.file).parts[1]
    folder = {"gates": "kernels", "apply": "kernels", "state": "core"}.get(room, room)

    def rank(test):
        near = test.removesuffix("_test") in (stem, stem.removesuffix("_kernels"))
        same = any((ROOT / "tests" / folder).glob(f"{test}.cpp"))
        return (not near, not same, seconds[test])

    # The core's own tests are what must catch its faults.
    return sorted((test for test in seconds if (test == MPI_TEST) == fault.over_mpi), key=rank)


def run_test(tree, test, limit):
    """The exit code; not 0 after `limit` seconds of processor time, which other load does not
    shorten, or many times as long without using them."""
    environment = os.environ | {"GTEST_FAIL_FAST": "1", "OMP_WAIT_POLICY": "passive"}
    command = [tree.build / "tests" / test, "--gtest_brief=1"]
    if test == MPI_TEST:
        # MPI itself keeps memory until the end.
        environment |= {"OMP_NUM_THREADS": "1", "ASAN_OPTIONS": "detect_leaks=0"}
        command = [ROOT / "scripts" / "ranks.sh", RANKS, *command]
    return run_limited(
        command, 20 * limit, env=environment,
        cwd=tree.build,
        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CPU, (int(limit), int(limit))),
    )  # fmt: skip


def try_build(tree, fault, build_limit):
    """What became of a fault that is in the sources, in one build: the outcome and its test."""
    if not tree.make_libraries(build_limit):
        return "does not build", None
    if tree.object_digests() == tree.clean:
        return "same code", None
    for test in ordered_tests(tree.seconds, fault):
        if not tree.make(test, limit=build_limit):
            return "does not build", None
        # A fault may also make a loop endless.
        code = run_test(tree, test, 10 + 5 * tree.seconds[test])
        if code != 0:
            hangs = code in (None, -signal.SIGXCPU, -signal.SIGKILL)
            return "caught", f"{test}{' (hangs)' if hangs else ''}"
    return "survived", None


def try_fault(trees, fault, build_limit):
    """What became of one fault: the outcome and the test that saw it."""
    for tree in trees:
        if tree.seconds is None:
            tree.prepare()
        tree.write(fault, fault.after)
        try:
            outcome, test = try_build(tree, fault, build_limit)
        finally:
            tree.write(fault, fault.before)
        if outcome != "survived":
            return outcome, f"{test}{', sanitized' if tree.flags == SANITIZED else ''}"
    return "survived", None


def processor_seconds():
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


def digest_of_sources(root):
    digest = hashlib.sha256()
    for top in ("include", "src", "tests"):
        for path in sorted((root / top).rglob("*.[ch]pp")):
            digest.update(str(path.relative_to(root)).encode() + path.read_bytes())
    return digest.hexdigest()[:16]


def report(records):
    counted = [r for r in records if r["outcome"] in ("caught", "survived")]
    survivors = [r for r in counted if r["outcome"] == "survived"]
    for record in survivors:
        print(f"\n{record['file']}:{record['line']}\n-{record['before']}\n+{record['after']}")
    print(f"\n{len(counted) - len(survivors)} of {len(counted)} faults caught")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--count", type=int, default=100, help="faults to try (default 100)")
    parser.add_argument("--seed", type=int, default=1, help="chooses the faults (default 1)")
    parser.add_argument("--jobs", type=int, default=1, help="compilers at a time (default 1)")
    parser.add_argument("--only", default="", help="part of the path of the files to break")
    parser.add_argument("--build-limit", type=float, default=1800, metavar="SECONDS",
                        help="for the build of one fault (default 1800)")  # fmt: skip
    parser.add_argument("--quick", action="store_true",
                        help="without the sanitizer; what survives is not recorded, and meets it "
                        "in a later run")  # fmt: skip
    parser.add_argument("--list", action="store_true", help="print the chosen faults and stop")
    parser.add_argument("--report", action="store_true", help="print what is known and stop")
    parser.add_argument("--restart", action="store_true", help="forget earlier results")
    options = parser.parse_args()

    chosen = chosen_faults(options)
    if options.list:
        for fault in chosen[: options.count]:
            print(f"{fault.file}:{fault.line + 1}\n-{fault.before}\n+{fault.after}")
        return

    folder = ROOT / "build" / "faults"
    folder.mkdir(parents=True, exist_ok=True)
    results = folder / f"results-{digest_of_sources(ROOT)}.jsonl"
    if options.restart:
        results.unlink(missing_ok=True)
    records = [json.loads(line) for line in results.open()] if results.exists() else []
    if options.report:
        report(records)
        return

    trees = [
        Tree(folder, "plain", PLAIN, options.jobs),
        Tree(folder, "sanitized", SANITIZED, options.jobs),
    ]
    trees[0].copy_sources()
    if options.quick:
        trees.pop()

    known = {record["key"]: record for record in records}
    tried = []
    for fault in chosen:
        if sum(r["outcome"] in ("caught", "survived") for r in tried) >= options.count:
            break
        record = known.get(fault.key)
        if record is None:
            start = time.monotonic()
            outcome, test = try_fault(trees, fault, options.build_limit)
            record = {
                "key": fault.key, "file": fault.file, "line": fault.line + 1,
                "before": fault.before, "after": fault.after, "outcome": outcome, "test": test,
                "seconds": round(time.monotonic() - start),
            }  # fmt: skip
            if not (options.quick and outcome == "survived"):
                with results.open("a") as out:
                    out.write(json.dumps(record) + "\n")
            print(f"{outcome:14} {record['seconds']:5} s  {fault.key}  [{test}]", flush=True)
        tried.append(record)
    report(tried)


if __name__ == "__main__":
    main()
