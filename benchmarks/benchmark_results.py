"""Results of a benchmark run: medians, and what they are relative to the machine's limits measured
in the same run. Running is in run_benchmarks.py, drawing in benchmark_plot.py."""

import json
import re
import statistics

LIMITS = ("ReadWritePass", "FusedMultiplyAdd")
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


class Result:
    """The median of one benchmark's repetitions."""

    def __init__(self, name, repetitions):
        self.name = name
        head, *arguments = name.split("/")
        match = re.fullmatch(r"BM_(\w+)(?:<(\w+)(?:, (.+))?>)?", head)
        if not match:
            raise ValueError(f"unexpected benchmark name '{name}'")
        self.family, self.precision, self.subject = match.groups()
        self.arguments = {}
        for argument in arguments:
            key, _, value = argument.partition(":")
            self.arguments[key] = int(value)

        def median(key):
            values = [run[key] for run in repetitions if key in run]
            return statistics.median(values) if values else None

        times = [run["real_time"] * NANOSECONDS[run["time_unit"]] for run in repetitions]
        self.time = statistics.median(times)
        self.best_time = min(times)
        self.bytes_per_second = median("bytes_per_second")
        self.multiply_adds = median("fused_multiply_adds")
        self.gates = median("gates")

    def order(self):
        """Limits come first, then families in alphabetical order, arguments by number."""
        return (
            self.family not in LIMITS,
            self.family,
            self.precision or "",
            self.subject or "",
            *self.arguments.values(),
        )


class Results:
    """All results of one run, by name."""

    def __init__(self, path):
        with open(path, encoding="utf-8") as file:
            run = json.load(file)
        self.context = run["context"]
        repetitions = {}
        for entry in run["benchmarks"]:
            if entry.get("run_type", "iteration") == "iteration" and "real_time" in entry:
                name = entry["run_name"].removesuffix("/real_time")
                repetitions.setdefault(name, []).append(entry)
        results = [Result(name, runs) for name, runs in repetitions.items()]
        self.by_name = {result.name: result for result in sorted(results, key=Result.order)}
        if not self.by_name:
            raise ValueError("it holds no results")

    def select(self, family, **wanted):
        """The results of a family whose arguments or attributes have the wanted values."""
        return [
            result
            for result in self.by_name.values()
            if result.family == family
            and all(
                result.arguments.get(key, getattr(result, key, None)) == value
                for key, value in wanted.items()
            )
        ]

    def measured(self):
        """Everything but the limits."""
        return [result for result in self.by_name.values() if result.family not in LIMITS]

    def memory_limit(self, result):
        """The pass over a state of the same size and precision by as many threads, or None."""
        return self.by_name.get(
            f"BM_ReadWritePass<{result.precision}>/qubits:{result.arguments.get('qubits')}"
            f"/threads:{result.arguments.get('threads')}"
        )

    def passes(self, result):
        """Its time in passes over the state at the machine's limit, or None."""
        limit = self.memory_limit(result)
        return limit and result.time / limit.time

    def fraction(self, result):
        """The share of the limit that binds it (memory or arithmetic) that it reaches, or None."""
        shares = []
        memory = self.memory_limit(result)
        if memory and result.bytes_per_second:
            shares.append(result.bytes_per_second / memory.bytes_per_second)
        arithmetic = self.by_name.get(
            f"BM_FusedMultiplyAdd<{result.precision}>/threads:{result.arguments.get('threads')}"
        )
        if arithmetic and result.multiply_adds:
            shares.append(result.multiply_adds / arithmetic.multiply_adds)
        return max(shares, default=None)


def slowdowns(earlier, later):
    """(name, ratio of medians, ratio of best times) of all benchmarks in both runs, slowest first,
    each time taken relative to the limit of its own run."""

    def relative(results, result):
        limit = results.memory_limit(result)
        return (
            result.time / (limit.time if limit else 1),
            result.best_time / (limit.best_time if limit else 1),
        )

    ratios = []
    for result in later.measured():
        before = earlier.by_name.get(result.name)
        if before and bool(earlier.memory_limit(before)) == bool(later.memory_limit(result)):
            old, new = relative(earlier, before), relative(later, result)
            ratios.append((result.name, new[0] / old[0], new[1] / old[1]))
    return sorted(ratios, key=lambda ratio: -ratio[1])


def format_time(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def table_rows(results):
    """Name, median, rate, share of the limit, passes and time per gate of every benchmark."""
    for result in results.by_name.values():
        rate = result.bytes_per_second
        fraction = results.fraction(result)
        passes = results.passes(result)
        yield (
            result.name.removeprefix("BM_"),
            format_time(result.time),
            f"{rate / 1e9:.1f} GB/s" if rate else "",
            f"{100 * fraction:.0f} %" if fraction else "",
            f"{passes:.2f}" if passes else "",
            format_time(result.time / result.gates) if result.gates else "",
        )


HEADINGS = ("benchmark", "median", "rate", "of limit", "passes", "per gate")


def text_table(results):
    rows = [HEADINGS, *table_rows(results)]
    widths = [max(len(row[column]) for row in rows) for column in range(len(HEADINGS))]
    return "\n".join(
        "  ".join([row[0].ljust(widths[0]), *map(str.rjust, row[1:], widths[1:])]).rstrip()
        for row in rows
    )
