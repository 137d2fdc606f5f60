"""Builds the benchmarks, runs them mixed with the machine's limits, and shows the results as shares
of those limits. Reading results is in benchmark_results.py, drawing in benchmark_plot.py."""

import argparse
import os
import re
import subprocess
import sys
from pathlib import Path

from benchmark_plot import draw
from benchmark_results import LIMITS, Results, slowdowns, text_table

ROOT = Path(__file__).resolve().parent.parent
PROGRAM = ROOT / "build/benchmarks/pblinalg_benchmarks"
THREADS = os.cpu_count() or 1

LIMIT_NAMES = tuple(f"BM_{family}<" for family in LIMITS)
# What runs by default, as expressions on names. {all} stands for all of the machine's threads.
SELECTION = (
    *LIMIT_NAMES,
    r"BM_Gate<.*, Gate(H|X|RX|RZ)>/qubits:24/target:(0|3|7|12|18|23)/threads:{all}/",
    r"BM_Gate<.*>/qubits:24/target:12/threads:{all}/",
    r"BM_Gate<.*, Gate(H|X|RX|RZ)>/qubits:(4|10)/target:0/threads:1/",
    r"BM_ControlledGate<.*, Gate(X|RX|PH)>/qubits:24/target:12/.*/threads:{all}/",
    r"BM_PairGate<.*>/qubits:24/q1:(5/q2:1|12/q2:23)/threads:{all}/",
    r"BM_DenseGate<.*>/qubits:24/lowest:(0|12)/controls:0/threads:{all}/",
    r"BM_Circuit<.*>/qubits:24/.*/threads:{all}/",
    r"BM_List(ByRounding)?<.*>/qubits:24/.*/threads:{all}/",
)
MAX_SLOWDOWN = 1.15


class Refusal(Exception):
    """Something the user asked for cannot be done."""


def positive_integer(text):
    if not re.fullmatch(r"[0-9]+", text) or int(text) == 0:
        raise argparse.ArgumentTypeError(f"'{text}' is not a whole number above 0")
    return int(text)


def expression(text):
    try:
        re.compile(text)
    except re.error as error:
        raise argparse.ArgumentTypeError(f"'{text}' is no regular expression: {error}") from error
    return text


def read_options():
    parser = argparse.ArgumentParser(
        prog="run-benchmarks",
        description="Measures the library beside the machine's own limits.",
        epilog="Exit codes: 0 done, 1 something is slower than in the earlier run, "
        "2 bad options, 3 building or measuring failed.",
    )
    parser.add_argument("--filter", type=expression, metavar="REGEX",
                        help="benchmarks to run instead of the default selection; the limits "
                        "always run")
    parser.add_argument("--repetitions", type=positive_integer, default=5, metavar="N",
                        help="runs of each benchmark, in random order (default 5)")
    parser.add_argument("--output", type=Path, default=ROOT / "build/benchmarks/results.json",
                        metavar="FILE", help="where the results go (default "
                        "build/benchmarks/results.json; the plot goes beside it as .svg)")
    parser.add_argument("--compare", type=Path, metavar="FILE",
                        help="results of an earlier run to compare with, each relative to the "
                        "limits of its own run")
    parser.add_argument("--no-run", action="store_true",
                        help="show the results that the output file already holds")
    parser.add_argument("--docs", action="store_true",
                        help="also put the plot and the table into docs/")
    return parser.parse_args()


def load(path):
    try:
        return Results(path)
    except OSError as error:
        raise Refusal(f"cannot read {path}: {error.strerror}") from error
    except (ValueError, KeyError, TypeError) as error:
        raise Refusal(f"{path} is no result of a benchmark run: {error}") from error


def run_command(command, **streams):
    try:
        status = subprocess.run(command, cwd=ROOT, check=False, **streams).returncode
    except OSError as error:
        raise Refusal(f"cannot run {command[0]}: {error.strerror}") from error
    if status != 0:
        raise Refusal(f"{command[0]} failed with exit code {status}")


def measure(options):
    run_command(["cmake", "--preset", "release"])
    run_command(["cmake", "--build", "--preset", "release", "--target", PROGRAM.name])
    chosen = [options.filter, *LIMIT_NAMES] if options.filter else SELECTION
    pattern = "|".join(chosen).replace("{all}", str(THREADS)).replace(r"\d", "[0-9]")
    names = subprocess.run(
        [PROGRAM, "--benchmark_list_tests", f"--benchmark_filter={pattern}"],
        capture_output=True, text=True, check=False,
    ).stdout.split("\n")
    n_measured = sum(1 for name in names if name and not name.startswith(LIMIT_NAMES))
    if n_measured == 0:
        raise Refusal(f"no benchmark matches '{options.filter}'")

    options.output.parent.mkdir(parents=True, exist_ok=True)
    # A run that is cut short must not leave half a result under the final name.
    unfinished = options.output.with_suffix(".unfinished")
    print(f"Running {n_measured} benchmarks {options.repetitions} times each, mixed with the "
          "limits; keep the machine quiet", flush=True)
    run_command([
        str(PROGRAM),
        f"--benchmark_filter={pattern}",
        f"--benchmark_repetitions={options.repetitions}",
        "--benchmark_enable_random_interleaving=true",
        "--benchmark_min_time=0.03",
        f"--benchmark_out={unfinished}",
        "--benchmark_out_format=json",
    ], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    unfinished.replace(options.output)


def show_comparison(earlier, later):
    """Prints the ratios; returns whether something got slower in the median and at its best."""
    ratios = slowdowns(earlier, later)
    if not ratios:
        raise Refusal("the two runs have no benchmark in common")
    slower = [name for name, median, best in ratios if min(median, best) > MAX_SLOWDOWN]
    print("\nTime relative to the limit, this run / earlier run (median, best), slowest first:")
    for name, median, best in ratios:
        print(f"{median:6.2f} {best:6.2f}  {name}{'  SLOWER' if name in slower else ''}")
    print(f"{len(slower)} of {len(ratios)} are slower by more than "
          f"{100 * (MAX_SLOWDOWN - 1):.0f} %")
    return bool(slower)


def output_of(*command):
    return subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False).stdout


def made_by(results):
    """One line: when, on what and of what the results are."""
    cache = (ROOT / "build/CMakeCache.txt").read_text(encoding="utf-8")
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.+)$", cache, re.MULTILINE).group(1)
    processor = re.search(r"^Model name:\s*(.+)$", output_of("lscpu"), re.MULTILINE)
    return ", ".join([
        results.context["date"],
        processor.group(1) if processor else "unknown processor",
        f"{results.context['num_cpus']} processors",
        output_of(compiler, "--version").split("\n")[0],
        "commit " + output_of("git", "describe", "--always", "--dirty").strip(),
    ])


def update_docs(results):
    """The plot, and the table between the markers of docs/performance-rows.md."""
    origin = made_by(results)
    plot = ROOT / "docs/images/benchmarks.svg"
    plot.parent.mkdir(parents=True, exist_ok=True)
    plot.write_text(draw(results, THREADS), encoding="utf-8")
    page = ROOT / "docs/performance-rows.md"
    begin, end = "<!-- results -->\n", "<!-- end of results -->"
    text = page.read_text(encoding="utf-8")
    if begin not in text or end not in text:
        raise Refusal(f"{page} lacks its result markers")
    table = f"{origin}\n\n```text\n{text_table(results)}\n```\n"
    text = text[: text.index(begin) + len(begin)] + table + text[text.index(end):]
    page.write_text(text, encoding="utf-8")
    print(f"Updated {page} and {plot}")


def main():
    options = read_options()
    try:
        # An earlier run that cannot be read should be told before minutes of measuring.
        earlier = load(options.compare) if options.compare else None
        if not options.no_run:
            measure(options)
        results = load(options.output)
        print("\n" + text_table(results))
        plot = options.output.with_suffix(".svg")
        plot.write_text(draw(results, THREADS), encoding="utf-8")
        print(f"\nResults: {options.output}\nPlot:    {plot}")
        if options.docs:
            update_docs(results)
        return 1 if earlier and show_comparison(earlier, results) else 0
    except (Refusal, OSError) as error:
        print(f"run-benchmarks: {error}", file=sys.stderr)
        return 3


if __name__ == "__main__":
    sys.exit(main())
