"""Circuits with measurements, resets and conditions, and the counts that they give."""

import numpy as np
import pytest

import pblinalg as pb


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


def test_truth_and_length_of_circuits_and_joining_oneself():
    assert not pb.Circuit(2) and pb.Circuit(2).measure_all() and pb.Circuit(1).reset(0)
    assert len(pb.Circuit(2).measure_all()) == 0 and list(pb.Circuit(2).measure_all()) == []
    circuit = pb.Circuit(1, 1).x(0).measure(0)
    with circuit.if_(0):
        circuit.x(0).compose(circuit)
    # Inside the block: X, then X, a measurement of 1, and the block so far, with its X.
    assert len(circuit) == 4 and circuit.measure(0).run(5) == {"0": 5}


def test_what_all_shots_share_is_run_once(precision):
    def passes(circuit, **options):
        """Whether progress is told gates, as it is of circuits that are simulated once."""
        seen = []
        circuit.run(7, progress=lambda done, total: seen.append(total), **options)
        return seen[0] != 7

    circuit = pb.Circuit(3, 4).h(0).cx(0, 2).measure(0, 3).x(1).measure(2, 1)
    counts = circuit.run(300, seed=1)
    assert counts.keys() == {"0000", "0101"}
    assert circuit.run(300, seed=1, threads=2) == counts
    circuit.registers = [1, 3]
    assert circuit.run(10, seed=1).keys() <= {"0 000", "0 101"}
    prepared = pb.Circuit(3).reset(range(3)).h(0).cx(0, 1).measure([0, 2])
    for once in (circuit, prepared):
        assert passes(once, precision=precision.name)
    with prepared.if_(2, 0):
        prepared.x(2).ry(1, 2).ry(2, 2).ry(-3, 2).reset(2)
    counts = prepared.measure([0, 1]).run(50, seed=1, precision=precision.name)
    assert counts.keys() == {"000", "110"}
    early = pb.Circuit(2).h(0).measure(0).h(1).measure(1).h(1).measure(1)
    assert not passes(early, precision=precision.name) and len(early.run(200, seed=4)) == 4


def test_runs_by_rounding_agree_with_exact_ones(precision):
    a = pb.Parameter("a")
    circuit = pb.Circuit(12, 1)
    for layer in range(20):
        for qubit in range(12):
            circuit.h(qubit).rz(layer + a, qubit).u(0.3, a, 0.1 * qubit, qubit)
        for qubit in range(layer % 2, 11, 2):
            circuit.cx(qubit, qubit + 1).rxx(0.2, qubit, (qubit + 5) % 12)
    for values in ([0.7], [2.9]):
        exact, rounded = (
            pb.StateVector(12, precision.name).run(circuit, values=values, accuracy=accuracy)
            for accuracy in ("exact", "rounding")
        )
        assert 0 < np.abs(exact.amplitudes - rounded.amplitudes).max() < 10 * precision.tolerance
    pair = pb.Circuit(6).h(0).sx(0).cx(0, 4)
    exact, rounded = (
        pb.DensityMatrix(6, precision.name).run(pair, accuracy=accuracy)
        for accuracy in ("exact", "rounding")
    )
    assert np.allclose(exact.to_array(), rounded.to_array())
    with circuit.measure(0, 0).if_(0):
        circuit.x(1)
    counts = circuit.run(99, precision.name, seed=1, values=[1], accuracy="rounding")
    assert counts == circuit.run(99, precision.name, seed=1, values=[1])


SHOTS = 250


def exact_distribution(circuit, precision):
    """Probabilities of the keys, by following every outcome of every step."""
    branches = [(1.0, pb.StateVector(circuit.num_qubits, precision), [0] * circuit.num_clbits)]

    def follow(steps, branches):
        for step in steps:
            after = []
            for weight, state, bits in branches:
                if isinstance(step, pb.Conditional):
                    read = int("".join(str(bits[c]) for c in step.clbits), 2)
                    taken = [(weight, state, bits)]
                    after += follow(step.steps, taken) if read == step.value else taken
                    continue
                if not isinstance(step, (pb.Measure, pb.Reset)):
                    step.run(state.core)
                    after.append((weight, state, bits))
                    continue
                for outcome in range(2):
                    p = min(state.probability(outcome, [step.qubit]), 1)
                    if p > 1e-9:
                        other, own = state.copy().project(outcome, [step.qubit]), list(bits)
                        if isinstance(step, pb.Measure):
                            own[step.clbit] = outcome
                        elif outcome:
                            other.x(step.qubit)
                        after.append((weight * p, other, own))
            branches = after
        return branches

    distribution = {}
    for weight, _, bits in follow(circuit.steps, branches):
        key = "".join(map(str, bits))
        distribution[key] = distribution.get(key, 0) + weight
    return distribution


def random_program(rng):
    circuit = pb.Circuit(3, 3)

    def extend(depth):
        for _ in range(rng.integers(3, 9)):
            a, b, c = (int(q) for q in rng.permutation(3))
            kind = rng.integers(8)
            if kind < 2:
                circuit.ry(float(rng.choice([0.7, np.pi / 2, np.pi])), a)
            elif kind < 4:
                circuit.x(a, [b] * (kind - 2))
            elif kind == 4:
                circuit.reset(a)
            elif kind < 7 or depth == 2:
                circuit.measure(a, c)
            else:
                with circuit.if_(c, int(rng.integers(2))):
                    extend(depth + 1)

    extend(0)
    return circuit.measure(0, 1)


def test_shared_and_single_shots_follow_the_exact_distribution(precision, rng):
    for _ in range(100):
        circuit = random_program(rng)
        exact = exact_distribution(circuit, precision.name)
        counts = circuit.run(SHOTS, precision=precision.name, seed=int(rng.integers(1 << 63)))
        assert sum(exact.values()) == pytest.approx(1, abs=1e-5)
        for key in exact.keys() | counts.keys():
            p = min(exact.get(key, 0), 1)
            assert abs(counts.get(key, 0) - SHOTS * p) <= 6 * (SHOTS * p * (1 - p)) ** 0.5 + 1e-3
        repeated = circuit.run(30, precision=precision.name, seed=3)
        assert repeated == circuit.run(30, precision=precision.name, seed=3, threads=2)


def test_counts_are_a_sorted_dict_with_helpers():
    counts = pb.Counts({"11": 1, "00": 3})
    assert list(counts) == ["00", "11"] and counts.frequencies() == {"00": 0.75, "11": 0.25}
    assert counts.most_common(1) == [("00", 3)]
    assert pb.Counts({"01": 2}).reversed_bits() == {"10": 2}
    assert counts.histogram(width=6).splitlines()[1:] == [
        "00               3   75.00%  ######",
        "11               1   25.00%  ##",
    ]
    assert counts.histogram(rows=1).endswith("1 others          1   25.00%")


def test_progress_reports_gates_and_shots():
    seen = []
    pb.StateVector(2).run(pb.Circuit(2).h(0).cx(0, 1), progress=lambda *a: seen.append(a))
    assert seen == [(2, 2)]
    circuit = pb.Circuit(1).h(0).measure(0).h(0).measure(0)
    circuit.run(3, progress=lambda *a: seen.append(a))
    assert seen[-1] == (3, 3) and all(total == 3 for _, total in seen[1:])
    with pytest.raises(TypeError, match="progress must be"):
        pb.StateVector(1).run(circuit, progress="bar")


def test_a_bar_is_drawn_on_request(capsys):
    pytest.importorskip("tqdm")
    pb.StateVector(2).run(pb.Circuit(2).h(0).cx(0, 1), progress=True)
    assert "2/2" in capsys.readouterr().err
