"""Circuits with measurements, resets and conditions, and the counts that they give."""

import numpy as np
import pytest

import pblinalg as pb
from pblinalg.running import _final_measurements


def test_conditions_feed_measured_bits_forward(precision):
    circuit = pb.Circuit(3, 3).u(0.8, 0.3, 0.1, 0).h(1).cx(1, 2).cx(0, 1).h(0).measure([0, 1])
    with circuit.if_(1):
        circuit.x(2)
    with circuit.if_(0):
        circuit.z(2)
    circuit.u(-0.8, -0.1, -0.3, 2).measure(2)
    counts = circuit.run(400, precision=precision.name, seed=5)
    assert counts.shots == 400 and all(key[2] == "0" for key in counts) and len(counts) == 4
    assert counts == circuit.run(400, precision=precision.name, seed=5, threads=1)


def test_a_value_over_several_bits_has_its_first_listed_bit_most_significant():
    circuit = pb.Circuit(3).x(0).measure([0, 1])
    with circuit.if_([0, 1], 0b10):
        circuit.x(2)
        with circuit.if_([1, 0], 0b10):
            circuit.x(1)
    assert circuit.measure(2).run(3) == {"101": 3}
    assert len(circuit) == 3 and not circuit.is_unitary
    state = pb.StateVector(3).run(circuit.copy())
    assert state.classical_bits == (1, 0, 1) and state.to_dict() == {"101": 1}


def test_reset_frees_a_qubit_for_reuse():
    circuit = pb.Circuit(2).h(0).cx(0, 1).measure(0).reset(0).measure(0, 1)
    counts = circuit.run(200, seed=3)
    assert counts.keys() == {"00", "10"} and counts.shots == 200


def test_final_measurements_are_sampled_from_one_run():
    circuit = pb.Circuit(3, 4).h(0).cx(0, 2).measure(0, 3).x(1).measure(2, 1)
    assert _final_measurements(circuit) == {3: 0, 1: 2}
    counts = circuit.run(300, seed=1)
    assert counts.keys() == {"0000", "0101"}
    assert _final_measurements(pb.Circuit(2).measure(0).cx(1, 0)) is None
    assert _final_measurements(pb.Circuit(2).measure(0).reset(0)) is None
    circuit.registers = [1, 3]
    assert circuit.run(10, seed=1).keys() <= {"0 000", "0 101"}


def test_a_measured_qubit_read_again_shows_the_same_value():
    circuit = pb.Circuit(1, 2).h(0).measure(0, 0).measure(0, 1)
    assert circuit.run(100, seed=2).keys() == {"00", "11"}


def test_counts_are_a_sorted_dict_with_helpers():
    counts = pb.Counts({"11": 1, "00": 3})
    assert list(counts) == ["00", "11"] and counts.frequencies() == {"00": 0.75, "11": 0.25}
    assert counts.most_common(1) == [("00", 3)]
    assert pb.Counts({"01": 2}).reversed_bits() == {"10": 2}
    assert counts.histogram(width=6).splitlines()[1:] == [
        "00               3   75.00%  ######",
        "11               1   25.00%  ##",
    ]
    assert "1 more outcomes with 1 shots" in counts.histogram(rows=1)


def test_progress_reports_gates_and_shots():
    seen = []
    pb.StateVector(2).run(pb.Circuit(2).h(0).cx(0, 1), progress=lambda *a: seen.append(a))
    assert seen == [(2, 2)]
    circuit = pb.Circuit(1).h(0).measure(0).h(0).measure(0)
    circuit.run(3, progress=lambda *a: seen.append(a))
    assert seen[1:] == [(1, 3), (2, 3), (3, 3)]
    with pytest.raises(TypeError, match="progress must be"):
        pb.StateVector(1).run(circuit, progress="bar")


def test_a_bar_is_drawn_on_request(capsys):
    pytest.importorskip("tqdm")
    pb.StateVector(2).run(pb.Circuit(2).h(0).cx(0, 1), progress=True)
    assert "2/2" in capsys.readouterr().err


def test_copies_are_independent(precision):
    state = pb.StateVector(2, precision.name).h(0)
    other = state.copy().x(1)
    assert abs(state.inner(other)) == 0 and np.isclose(abs(state.inner(state)), 1)
    assert other.precision == precision.name
