"""Every gate method and member against dense matrices, in both precisions."""

import numpy as np
import pytest

import dense
import pblinalg as pb
from pblinalg.lowlevel import GateSequence

T = 0.7312
U = np.array(
    [
        [np.cos(T / 2), -np.exp(0.3j) * np.sin(T / 2)],
        [np.exp(0.2j) * np.sin(T / 2), np.exp(0.5j) * np.cos(T / 2)],
    ]
)
ONE_QUBIT = {
    "h": ((), dense.H),
    "x": ((), dense.X),
    "y": ((), dense.Y),
    "z": ((), dense.Z),
    "s": ((), dense.phase(np.pi / 2)),
    "sdg": ((), dense.phase(-np.pi / 2)),
    "t": ((), dense.phase(np.pi / 4)),
    "tdg": ((), dense.phase(-np.pi / 4)),
    "sx": ((), np.exp(0.25j * np.pi) * dense.rotation(dense.X, np.pi / 2)),
    "sxdg": ((), np.exp(-0.25j * np.pi) * dense.rotation(dense.X, -np.pi / 2)),
    "p": ((T,), dense.phase(T)),
    "rx": ((T,), dense.rotation(dense.X, T)),
    "ry": ((T,), dense.rotation(dense.Y, T)),
    "rz": ((T,), dense.rotation(dense.Z, T)),
    "u": ((T, 0.2, 0.3), U),
}
SEVERAL_QUBITS = {
    "cx": ((), dense.controlled(dense.X, 1)),
    "cy": ((), dense.controlled(dense.Y, 1)),
    "cz": ((), dense.controlled(dense.Z, 1)),
    "ch": ((), dense.controlled(dense.H, 1)),
    "cp": ((T,), dense.controlled(dense.phase(T), 1)),
    "crx": ((T,), dense.controlled(dense.rotation(dense.X, T), 1)),
    "cry": ((T,), dense.controlled(dense.rotation(dense.Y, T), 1)),
    "crz": ((T,), dense.controlled(dense.rotation(dense.Z, T), 1)),
    "ccx": ((), dense.controlled(dense.X, 2)),
    "swap": ((), dense.SWAP),
    "cswap": ((), dense.controlled(dense.SWAP, 1)),
    "sqrt_swap": ((), dense.SQRT_SWAP),
    "iswap": ((), dense.ISWAP),
}
GATES = ONE_QUBIT | SEVERAL_QUBITS
QUBITS = 4


def every_use(rng):
    """(description, function that applies, qubits, matrix) for each gate, with and without controls."""
    for name, (angles, matrix) in GATES.items():
        qubits = [int(q) for q in rng.permutation(QUBITS)[: len(matrix).bit_length() - 1]]
        yield name, (lambda o, n=name, a=angles, q=qubits: getattr(o, n)(*a, *q)), qubits, matrix
    for name, (angles, matrix) in ONE_QUBIT.items():
        qubit, *controls = [int(q) for q in rng.permutation(QUBITS)[:3]]
        yield (
            f"{name} under controls",
            (lambda o, n=name, a=angles, q=qubit, c=controls: getattr(o, n)(*a, q, controls=c)),
            [*controls, qubit],
            dense.controlled(matrix, 2),
        )
    for k in (1, 2, 3, 4):
        for controls in range(0, QUBITS - k + 1):
            unitary = dense.random_unitary(rng, 2**k)
            for matrix in (unitary, np.diag(np.exp(1j * rng.normal(size=2**k)))):
                listed = [int(q) for q in rng.permutation(QUBITS)[: controls + k]]
                yield (
                    f"{2**k} rows under {controls} controls",
                    (lambda o, m=matrix, q=listed, c=controls: o.unitary(m, q[c:], q[:c])),
                    listed,
                    dense.controlled(matrix, controls),
                )


def test_every_gate_is_its_matrix_on_states_circuits_and_density_matrices(precision, rng):
    for description, apply, qubits, matrix in every_use(rng):
        start = dense.random_state(rng, QUBITS)
        full = dense.embed(matrix, qubits, QUBITS)
        expected = full @ start
        state = pb.StateVector(QUBITS, precision.name).set_amplitudes(start)
        assert apply(state) is state
        circuit = apply(pb.Circuit(QUBITS))
        recorded = pb.StateVector(QUBITS, precision.name).set_amplitudes(start).run(circuit)
        np.testing.assert_allclose(
            state.to_array(), expected, atol=4 * precision.tolerance, err_msg=description
        )
        assert np.array_equal(state.amplitudes, recorded.amplitudes), description
        recorded.run(circuit.inverse())
        np.testing.assert_allclose(
            recorded.to_array(), start, atol=8 * precision.tolerance, err_msg=description
        )
        mixed = pb.DensityMatrix(QUBITS, precision.name)
        apply(mixed.set_matrix(np.outer(start, start.conj())))
        np.testing.assert_allclose(
            mixed.to_array(),
            np.outer(expected, expected.conj()),
            atol=8 * precision.tolerance,
            err_msg=description,
        )


def test_basis_changes_of_the_lower_level(precision):
    y_to_z = np.array([[1, -1j], [1, 1j]]) / np.sqrt(2)
    for name, matrix in (("apply_YtoZ", y_to_z), ("apply_ZtoY", y_to_z.conj().T)):
        for column in range(2):
            state = precision.state(np.eye(2)[column])
            getattr(state, name)(0)
            np.testing.assert_allclose(state.state, matrix[:, column], atol=precision.tolerance)


def test_random_circuits_agree_with_dense_products_and_bit_for_bit_between_paths(precision, rng):
    n = 6
    for _ in range(5):
        circuit, record = pb.Circuit(n), precision.Circuit(n)
        direct = precision.State(n)
        direct.reset()
        expected = np.eye(2**n, dtype=complex)[0]
        for _ in range(60):
            name = rng.choice(["h", "x", "y", "z", "t", "p", "rx", "ry", "rz", "cx", "swap"])
            angles = [float(rng.normal())] if GATES[name][0] else []
            qubits = [int(q) for q in rng.permutation(n)[: 2 if name in ("cx", "swap") else 1]]
            matrix = GATES[name][1]
            if angles:
                pauli = {"rx": dense.X, "ry": dense.Y, "rz": dense.Z}.get(name)
                matrix = dense.phase(*angles) if pauli is None else dense.rotation(pauli, *angles)
            getattr(circuit, name)(*angles, *qubits)
            library_name = {"p": "PH", "cx": "CNOT"}.get(name, name.upper())
            record.add_gate(library_name, angles, qubits)
            getattr(direct, "apply_" + library_name)(*qubits, *angles)
            expected = dense.embed(matrix, qubits, n) @ expected
        by_circuit = pb.StateVector(n, precision.name).run(circuit)
        by_record = precision.State(n)
        by_record.reset()
        by_record.simulate_circuit(record)
        np.testing.assert_allclose(by_circuit.to_array(), expected, atol=60 * precision.tolerance)
        assert np.array_equal(by_circuit.amplitudes, direct.state)
        assert np.array_equal(by_record.state, direct.state)


def test_phase_oracle_marks_values_with_the_first_listed_qubit_most_significant(precision, rng):
    n, qubits, marked = 5, [3, 0, 4], [1, 6]
    start = dense.random_state(rng, n)
    signs = np.array([-1 if v in marked else 1 for v in range(8)])
    expected = dense.embed(np.diag(signs), qubits, n) @ start
    state = pb.StateVector(n, precision.name).set_amplitudes(start)
    np.testing.assert_allclose(
        state.phase_oracle(marked, qubits).to_array(), expected, atol=precision.tolerance
    )
    circuit = pb.Circuit(n).phase_oracle(marked, qubits)
    other = pb.StateVector(n, precision.name).set_amplitudes(start).run(circuit)
    assert np.array_equal(other.amplitudes, state.amplitudes)


def test_a_diagonal_beyond_the_library_s_limit_is_applied(precision, rng):
    n = 9
    phases = np.exp(1j * rng.normal(size=2**n))
    start = dense.random_state(rng, n)
    state = pb.StateVector(n, precision.name).set_amplitudes(start)
    state.unitary(np.diag(phases), range(n))
    np.testing.assert_allclose(state.to_array(), phases * start, atol=precision.tolerance)
    with pytest.raises(ValueError, match="Diagonal is too large"):
        state.core.apply_nqbit_gate(range(n), np.diag(phases))


def test_sequences_list_extend_and_compose_what_was_recorded():
    circuit = pb.Circuit(3).h(0).rx(0.5, 1, [2]).cx(1, 2).unitary(dense.H, 0).phase_oracle([1], [0])
    names = [gate[0] for gate in circuit]
    assert names == ["H", "RX", "CNOT", "matrix", "phase_oracle"]
    assert list(circuit)[1] == ("RX", [1], [2], 0.5)
    assert list(circuit)[4] == ("phase_oracle", [2], [], [1])
    assert len(circuit.compose(circuit)) == 10 and len(circuit.copy()) == 10
    sequence = GateSequence(2)
    sequence.apply_X(1)
    sequence.extend(sequence)
    assert [sequence.gate(i) for i in range(2)] == [("X", [1], [], None)] * 2
