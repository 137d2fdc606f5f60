"""Sweeps: every row is what a run of its own gives."""

import numpy as np
import pytest

import pblinalg as pb

A, B = pb.Parameter("a"), pb.Parameter("b")


def ansatz():
    return pb.Circuit(4).h(3).ry(A, 0).rxx(2 * B + 0.1, 0, 2).cx(0, 1).rz(A, 2).ry(B, 3, [2])


VALUES = np.random.default_rng(5).normal(size=(7, 2))
ISING = pb.Observable("ZZII + 0.5*X3 - 2", 4)


def test_rows_are_runs_of_their_own(precision):
    # By rounding the gates on qubit 1 are one.
    circuit = ansatz().rx(A, 1).rz(B, 1).rx(A, 1)
    seen = []
    for threads, accuracy in ((1, "exact"), (2, "exact"), (None, "exact"), (2, "rounding")):
        options = dict(precision=precision.name, threads=threads)
        own = pb.StateVector(4, **options)
        options["accuracy"] = accuracy
        energies = pb.sweep(circuit, VALUES, [ISING, "X0"], **options)
        single = pb.sweep(circuit, VALUES, {"XIII": 1}, **options)
        states = pb.sweep(circuit, {"b": VALUES[:, 1], A: VALUES[:, 0]}, states=True, **options)
        all_outcomes = pb.sweep(circuit, VALUES, probabilities=True, **options)
        some = pb.sweep(circuit, VALUES, probabilities=True, qubits=[2, 0], **options)
        assert energies.dtype == np.float64 and energies.shape == (7, 2)
        assert np.array_equal(single, energies[:, 1])
        assert states.dtype == precision.complex and all_outcomes.dtype == precision.real
        for row, values in enumerate(VALUES):
            own.reset()
            state = own.run(circuit, values=values, accuracy=accuracy)
            assert list(energies[row]) == [state.expectation(ISING), state.expectation("X0")]
            assert np.array_equal(states[row], state.to_array())
            assert np.array_equal(all_outcomes[row], state.probabilities())
            assert np.array_equal(some[row], state.probabilities([2, 0]))
        seen.append(states.tobytes())
    assert seen[0] == seen[1] == seen[2] != seen[3]


def test_shots_of_a_row_depend_on_its_seed_alone():
    circuit = ansatz()
    first = pb.sweep(circuit, VALUES, shots=200, seed=9, threads=1)
    assert pb.sweep(circuit, VALUES, shots=200, seed=9, threads=2) == first
    assert pb.sweep(circuit, VALUES[:3], shots=200, seed=9) == first[:3]
    assert len({counts.seed for counts in first}) == 7
    for counts, values in zip(first, VALUES):
        assert circuit.run(200, seed=counts.seed, values=values) == counts
    for counts, values in zip(pb.sweep(circuit, VALUES, shots=50, qubits=[3, 0]), VALUES):
        state = pb.StateVector(4, seed=counts.seed).run(circuit, values=values)
        assert state.sample(50, [3, 0]) == counts
    assert pb.sweep(circuit, VALUES, shots=5, qubits=[]) == [{"": 5}] * 7


def test_values_come_in_every_form():
    circuit = ansatz()
    expected = pb.sweep(circuit, VALUES, "Z0")
    wide = np.asfortranarray(VALUES)
    for values in (VALUES.tolist(), wide, {A: VALUES[:, 0], "b": list(VALUES[:, 1])}):
        assert np.array_equal(pb.sweep(circuit, values, "Z0"), expected)
    held = pb.sweep(circuit, {"a": VALUES[:, 0], "b": 0.25}, "Z0")
    same = np.column_stack([VALUES[:, 0], np.full(7, 0.25)])
    assert np.array_equal(held, pb.sweep(circuit, same, "Z0"))
    assert pb.sweep(circuit, VALUES[:0], ["Z0", "X0"]).shape == (0, 2)
    assert pb.sweep(pb.Circuit(2), np.empty((3, 0)), "ZZ").tolist() == [1, 1, 1]
    # Gates of several circuits are one list.
    joined = pb.Circuit(4, 9).compose(ansatz()).compose(ansatz().inverse())
    assert np.allclose(pb.sweep(joined, VALUES, probabilities=True)[:, 0], 1)


def test_progress_is_told_rows_and_stops_them():
    circuit = ansatz()
    for _ in range(11):
        circuit.compose(circuit)
    told = []
    pb.sweep(circuit, VALUES[:3], "Z0", progress=lambda *at: told.append(at))
    assert told[-1] == (3, 3) and told == sorted(told)

    def stop(done, total):
        raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        pb.sweep(circuit, np.tile(VALUES, (100, 1)), "Z0", progress=stop)
    assert pb.sweep(circuit, VALUES[:1], "Z0").shape == (1,)
