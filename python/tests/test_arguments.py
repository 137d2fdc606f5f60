"""Arguments that misbehave: Python code that they run, and anything at all."""

import os
from pathlib import Path

import pytest

import pblinalg.lowlevel as low
from interpreter import run_python


def test_an_argument_that_runs_python_code_meets_a_claimed_state():
    state = low.PybindLinAlgStateVectorCPUDouble(4)

    class Meddler:
        def __index__(self):
            state.resize(1)
            return 3

    with pytest.raises(RuntimeError, match="in use by another call"):
        state.apply_H(Meddler())
    assert state.nqubits == 4
    state.apply_H(3)


@pytest.mark.parametrize("seed", range(int(os.environ.get("PBLINALG_FUZZ_SEEDS", "3"))))
def test_no_call_crashes_the_process(seed, tmp_path):
    script = Path(__file__).with_name("fuzz.py")
    calls = os.environ.get("PBLINALG_FUZZ_CALLS", "20000")
    # Some of the calls save files.
    result = run_python("-W", "ignore", script.resolve(), seed, calls, timeout=1200, cwd=tmp_path)
    done, passed = map(int, result.stdout.split())
    assert passed > done / 50
