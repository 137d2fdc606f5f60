"""Tests of benchmark_results.py on a small made-up run."""

import json
import tempfile
import unittest
from pathlib import Path

from benchmark_plot import draw
from benchmark_results import Results, slowdowns, text_table

PASS = "BM_ReadWritePass<double>/qubits:24/threads:2"
GATE = "BM_Gate<double, GateH>/qubits:24/target:3/threads:2"
DENSE = "BM_DenseGate<double, 5>/qubits:24/lowest:0/controls:0/threads:2"
CIRCUIT = "BM_Circuit<double, qft>/qubits:24/layers:1/threads:2"


def run(slowness=1, gate_times=(6, 5, 9)):
    """Results of a machine that takes 5 ms a pass, times `slowness`."""
    entries = []

    def add(name, milliseconds, **counters):
        entries.append({
            "run_name": name + "/real_time", "run_type": "iteration", "time_unit": "ms",
            "real_time": milliseconds * slowness,
            **{key: rate / slowness for key, rate in counters.items()},
        })

    add("BM_FusedMultiplyAdd<double>/threads:2", 1, fused_multiply_adds=100)
    add(PASS, 5, bytes_per_second=120)
    for milliseconds in gate_times:
        add(GATE, milliseconds, bytes_per_second=600 / milliseconds)
    add(DENSE, 40, bytes_per_second=15, fused_multiply_adds=80)
    add(CIRCUIT, 100)
    entries[-1]["gates"] = 1000
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / "run.json"
        path.write_text(json.dumps({"context": {}, "benchmarks": entries}), encoding="utf-8")
        return Results(path)


class BenchmarkResults(unittest.TestCase):
    def test_medians_are_read_against_the_limit_that_binds(self):
        results = run()
        self.assertEqual(results.by_name[GATE].time, 6e6)
        self.assertAlmostEqual(results.fraction(results.by_name[GATE]), 100 / 120)
        self.assertAlmostEqual(results.fraction(results.by_name[DENSE]), 0.8)
        self.assertAlmostEqual(results.passes(results.by_name[CIRCUIT]), 20)
        self.assertIn("100 us", text_table(results))

    def test_a_slower_machine_is_no_slowdown_and_a_slower_gate_is(self):
        same = slowdowns(run(), run(slowness=3))
        self.assertEqual(len(same), 3)
        for _, median, best in same:
            self.assertAlmostEqual(median, 1)
            self.assertAlmostEqual(best, 1)
        name, median, best = slowdowns(run(), run(slowness=3, gate_times=(9, 10, 12)))[0]
        self.assertEqual((name, best), (GATE, 9 / 5))
        self.assertAlmostEqual(median, 10 / 6)

    def test_a_picture_shows_what_was_measured(self):
        picture = draw(run(), threads=2)
        for text in ("1000 gates", "qft", "double, from 0"):
            self.assertIn(text, picture)


if __name__ == "__main__":
    unittest.main()
