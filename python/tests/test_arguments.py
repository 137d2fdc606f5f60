"""Wrong arguments: the right error, naming what is wrong, and an untouched state."""

import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import pblinalg as pb
import pblinalg.lowlevel as low

EYE = np.eye(2)
# (expression on a lower-level state `s` of 4 qubits, error, text)
LOWER = [
    ("s.apply_H(4)", IndexError, "qubit = 4: expected a qubit between 0 and 3"),
    ("s.apply_H(-1)", IndexError, "qubit = -1"),
    ("s.apply_H(2**70)", IndexError, "qubit = 1180591620717411303424"),
    ("s.apply_H(1.0)", TypeError, "qubit must be an integer, got 1.0 of type float"),
    ("s.apply_H(True)", TypeError, "qubit must be an integer, got True of type bool"),
    ("s.apply_H('0')", TypeError, "qubit must be an integer"),
    ("s.apply_H(0, [1, 'a'])", TypeError, r"ctrls\[1\] must be an integer"),
    ("s.apply_H(0, [1, 0])", ValueError, "ctrls = 0: the qubit is listed twice"),
    ("s.apply_H(0, {1})", TypeError, "ctrls must be a list, tuple or array"),
    ("s.apply_H(0, '12')", TypeError, "ctrls must be a list, tuple or array"),
    ("s.apply_RX(0, 'a')", TypeError, "theta must be a real number"),
    ("s.apply_RX(0, float('nan'))", ValueError, "theta must be a finite number"),
    ("s.apply_PH(0, 10**400)", ValueError, "theta must be a finite number"),
    ("s.apply_RZ(0, 1j)", TypeError, "theta must be a real number"),
    ("s.apply_CNOT(1, 1)", ValueError, "target = 1: the qubit is listed twice"),
    ("s.apply_CCNOT(0, 2, 0)", ValueError, "target = 0: the qubit is listed twice"),
    ("s.apply_SWAP(0, 4)", IndexError, "q2 = 4"),
    ("s.apply_1qbit_gate(0, np.eye(3))", ValueError, "matrix holds 9 entries in 2 dimensions"),
    ("s.apply_2qbit_gate(0, 1, np.eye(2))", ValueError, "expected a 2.2 x 2.2 matrix"),
    ("s.apply_nqbit_gate([0, 1], np.ones((2, 8)))", ValueError, "matrix holds 16 entries"),
    ("s.apply_1qbit_ctrl_gate([0], 0, EYE)", ValueError, "target = 0: the qubit is listed twice"),
    ("s.apply_nqbit_ctrl_gate([0], [1, 0], np.eye(4))", ValueError, "qubits = 0: the qubit is li"),
    ("s.apply_1qbit_gate(0, [[1, 2], [3]])", TypeError, "matrix must be an array of complex"),
    ("s.apply_phase_oracle([4], [0, 1])", ValueError, "marked must lie between 0 and 3, got 4"),
    ("s.reset(np.zeros(15))", ValueError, r"source holds 15 elements; expected 16"),
    ("s.reset_to_str('00000')", ValueError, "expected at most 4 characters"),
    ("s.reset_to_str(b'0')", TypeError, "description must be a str"),
    ("s.reset_to_str('é')", ValueError, "ASCII"),
    ("s.resize(-1)", ValueError, "nqubits must lie between"),
    ("s.resize(50)", MemoryError, r"needs \d{16,} bytes \(.*\); \d+ bytes \(.*\) are available"),
    ("State(50)", MemoryError, "a register of 50 qubits needs"),
    ("State(64)", MemoryError, "a register of 64 qubits needs"),
    ("State(2.0)", TypeError, "nqubits must be an integer"),
    ("s.set_num_threads(2**31)", ValueError, "num_threads must lie between"),
    ("s.rng.seed(-1)", ValueError, "value must lie between 0 and 18446744073709551615"),
    ("setattr(s, 'density_matrix', 1)", TypeError, "density_matrix must be True or False"),
    ("s.project([0], 2)", ValueError, "outcome must lie between 0 and 1, got 2"),
    ("s.project_then_reset([3], 1)", ValueError, "outcome = 1: it has probability 0"),
    ("s.probability(16)", ValueError, "outcome must lie between 0 and 15"),
    ("s.get_distribution([0, 0])", ValueError, "the qubit is listed twice"),
    ("s.sample(-1)", ValueError, "nshots must lie between"),
    ("s.sample(2**45)", MemoryError, "the array of results needs"),
    ("s.measure([9])", IndexError, "qubits = 9"),
    ("s.evaluate_terms([Term([0], 'X')], 0)", ValueError, "nshots = 0"),
    ("s.evaluate_terms([Term([4], 'X')], 1)", IndexError, "qubit 4, expected below 4"),
    ("s.evaluate_terms([None], 1)", TypeError, "incompatible|None"),
    ("Term([0], 'W')", ValueError, "expected the letters I, X, Y and Z"),
    ("Term([0, 1], 'X')", ValueError, "one letter for each of 2 qubits"),
    ("Term([0, 0], 'XX')", ValueError, "the qubit is listed twice"),
    ("s.expectation_value(Observable([1], [16], [0], [0]))", ValueError, "masks below 2.4"),
    ("s.expectation_value(Observable([1], [1, 2], [0], [0]))", ValueError, "equally many"),
    ("Observable([1e999], [0], [0], [0])", ValueError, "coefficients must be a finite complex"),
    ("Observable(['a'], [0], [0], [0])", TypeError, "coefficients must be a complex"),
    ("s.apply_state_preparation([1, 0, 0], [0])", ValueError, "amplitudes holds 3 elements"),
    ("s.apply_binary_qram([0, 1, 2], [0, 1], 1)", ValueError, "words holds 3 elements; expected 2"),
    ("s.apply_qram([1, 2], [0, 1], 1)", ValueError, "amplitudes holds 2 elements; expected 4"),
    ("s.apply_qram([1, 2], [0], 2)", ValueError, "data_width = 2: expected at most the 1"),
    ("Circuit(2).add_gate('H', [], [2])", IndexError, "qubits = 2"),
    ("Circuit(2).add_gate('CNOT', [], [0])", ValueError, "CNOT: 1 qubits and 0 params"),
    ("Circuit(2).add_gate('RX', [], [0])", ValueError, "expected 1 qubits and 1 params"),
    ("s.simulate_circuit(Circuit(5))", ValueError, "circuit.nqubits = 5"),
    (
        "s.simulate_circuit(unknown)",
        ValueError,
        "^Gate h is not supported by the pybinded circuit$",
    ),
]
UPPER = [
    ("pb.StateVector(2, precision='half')", ValueError, "precision = 'half'"),
    ("pb.StateVector(2, threads=0)", ValueError, "threads = 0: expected at least 1"),
    ("pb.StateVector(2, seed='a')", TypeError, "value must be an integer"),
    ("v.set_product('012+')", ValueError, "expected 4 characters 0, 1, . or -"),
    ("v.set_amplitudes(np.ones(16))", ValueError, "amplitudes has norm 4"),
    ("v.unitary(2 * EYE, 0)", ValueError, "matrix is not unitary"),
    ("v.unitary(EYE * np.nan, 0)", ValueError, "matrix is not unitary"),
    ("v.prepare([1, 0, 0, 0], [0])", ValueError, "amplitudes holds 4 elements; expected 2"),
    ("v.load_words([0, 2], [0], [1])", ValueError, "words must lie between 0 and 1"),
    ("v.phase_oracle([0], [4])", IndexError, "qubits = 4"),
    ("v.probability('01')", ValueError, "outcome = '01': expected 4 characters"),
    ("v.expectation('ZZ')", ValueError, "acts on 2 qubits; the state has 4"),
    ("v.expectation('ZZ ZZ')", ValueError, "expected a term at 'ZZ'"),
    ("v.run(pb.Circuit(3))", ValueError, "acts on 3 qubits; the state has 4"),
    ("v.sample(-1)", ValueError, "shots = -1"),
    ("pb.Circuit(2, 1).measure(0, 1)", IndexError, "clbit = 1"),
    ("pb.Circuit(2).measure([0, 1], [0])", ValueError, "2 qubits and 1 clbits"),
    ("pb.Circuit(2).reset(2)", IndexError, "qubit = 2"),
    ("pb.Circuit(2).measure(0).inverse()", ValueError, "no inverse"),
    ("pb.Circuit(2).if_(0, 2).__enter__()", IndexError, "value = 2"),
    ("pb.Observable({'ZA': 1})", ValueError, "'ZA'; expected a string"),
    ("pb.Observable({'ZZ': 1, 'Z': 1})", ValueError, "'Z' has 1 letters; expected 2"),
    ("pb.DensityMatrix(1).channel([EYE, EYE], 0)", ValueError, "identity"),
    ("pb.DensityMatrix(2).x(2)", IndexError, "qubit = 2"),
    ("pb.DensityMatrix(1).depolarize(1.1, 0)", ValueError, "probability = 1.1"),
    ("pb.run(pb.Circuit(1), shots=1.5)", TypeError, "shots must be an integer"),
]


def test_wrong_arguments_of_the_lower_level(precision):
    names = dict(
        np=np, EYE=EYE, s=precision.State(4), State=precision.State, Circuit=precision.Circuit,
        Term=precision.Term, Observable=precision.Observable, setattr=setattr,
        unknown=precision.Circuit(4),
    )  # fmt: skip
    names["s"].reset()
    names["s"].apply_H(0)
    names["unknown"].add_gate("X", [], [0])
    names["unknown"].add_gate("h", [], [0])
    before = names["s"].state.copy()
    for expression, error, text in LOWER:
        with pytest.raises(error, match=text):
            print(expression, "gave", eval(expression, names))
        assert np.array_equal(names["s"].state, before), expression
        assert names["s"].nqubits == 4


@pytest.mark.parametrize("expression,error,text", UPPER)
def test_wrong_arguments_of_the_upper_level(expression, error, text):
    v = pb.StateVector(4).h(0)
    before = v.to_array()
    with pytest.raises(error, match=text):
        eval(expression, dict(pb=pb, np=np, v=v, EYE=EYE))
    assert np.array_equal(v.to_array(), before)


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
def test_no_call_crashes_the_process(seed):
    script = Path(__file__).with_name("fuzz.py")
    calls = os.environ.get("PBLINALG_FUZZ_CALLS", "20000")
    result = subprocess.run(
        [sys.executable, "-W", "ignore", script, str(seed), calls],
        capture_output=True, text=True, timeout=1200,
    )  # fmt: skip
    assert result.returncode == 0, result.stdout[-2000:] + result.stderr[-4000:]
    done, passed = map(int, result.stdout.split())
    assert passed > done / 50
