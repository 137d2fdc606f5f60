"""Every gate method and member against dense matrices, in both precisions."""

from functools import partial

import numpy as np
import pytest
from pblinalg._core import take_gates

import dense
import pblinalg as pb
from pblinalg.lowlevel import GateList, gate_matrix, gate_table

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
EXCHANGE = {
    "swap": ((), dense.SWAP),
    "sqrt_swap": ((), dense.SQRT_SWAP),
    "iswap": ((), dense.ISWAP),
    "rxx": ((T,), dense.rotation(np.kron(dense.X, dense.X), T)),
    "ryy": ((T,), dense.rotation(np.kron(dense.Y, dense.Y), T)),
    "rzz": ((T,), dense.rotation(np.kron(dense.Z, dense.Z), T)),
    "rzx": ((T,), dense.rotation(np.kron(dense.Z, dense.X), T)),
}
#: Gates that take controls and what these read.
BASES = ONE_QUBIT | EXCHANGE
SEVERAL_QUBITS = {
    "c" + name: (angles, dense.controlled(matrix, 1))
    for name, (angles, matrix) in BASES.items()
    if name in ("x", "y", "z", "h", "p", "rx", "ry", "rz", "sx", "swap")
}
SEVERAL_QUBITS["cu"] = ((T, 0.2, 0.3, 0.4), dense.controlled(np.exp(0.4j) * U, 1))
SEVERAL_QUBITS["ccx"] = ((), dense.controlled(dense.X, 2))
GATES = BASES | SEVERAL_QUBITS
QUBITS = 4


def held(matrix, controls, state):
    """`matrix` where more qubits, which come first, read `state`."""
    result = np.eye(len(matrix) << controls, dtype=complex)
    place = slice(state * len(matrix), (state + 1) * len(matrix))
    result[place, place] = matrix
    return result


def every_use(rng):
    """(description, function that applies, qubits, matrix) of gates with and without controls."""

    def use(qubits, matrix, name, *arguments, **options):
        text = f"{name} {arguments} {options}"
        return text, lambda o: getattr(o, name)(*arguments, **options), qubits, matrix

    def places(count):
        return rng.permutation(QUBITS)[:count].tolist()

    def width(matrix):
        return len(matrix).bit_length() - 1

    for name, (angles, matrix) in GATES.items():
        q = places(width(matrix))
        yield use(q, matrix, name, *angles, *q)
    for name, (angles, matrix) in BASES.items():
        for state in (None, int(rng.integers(4))):
            q = places(width(matrix) + 2)
            full = held(matrix, 2, 3 if state is None else state)
            yield use(q, full, name, *angles, *q[2:], controls=q[:2], ctrl_state=state)
    for name, (angles, matrix) in SEVERAL_QUBITS.items():
        c, q = 2 if name == "ccx" else 1, places(width(matrix))
        small = matrix[-(len(matrix) >> c) :, -(len(matrix) >> c) :]
        yield use(q, held(small, c, 0), name, *angles, *q, ctrl_state="0" * c)
    for name, angles, matrix in (
        ("mcx", (), dense.X), ("mcz", (), dense.Z), ("mcp", (T,), dense.phase(T))
    ):  # fmt: skip
        q = places(4)
        yield use(q, held(matrix, 3, 3), name, *angles, q[:3], q[3], "011")
    yield use([1], dense.I2, "id", 1)
    yield use([0], np.exp(1j * T) * dense.I2, "global_phase", T)
    yield use([2], np.diag([np.exp(1j * T), 1]), "global_phase", T, [2], 0)
    for k in (1, 2, 3, 4):
        for c in range(0, QUBITS - k + 1):
            unitary = dense.random_unitary(rng, 2**k)
            for matrix in (unitary, np.diag(np.exp(1j * rng.normal(size=2**k)))):
                q = places(c + k)
                yield use(q, dense.controlled(matrix, c), "unitary", matrix, q[c:], q[:c])
            signs = np.where(np.arange(2**k) % 3 == 1, -1, 1)
            for name, values, diag in (
                ("diagonal", np.diag(matrix), matrix),
                ("phase_oracle", np.flatnonzero(signs < 0), np.diag(signs)),
            ):
                q, state = places(c + k), int(rng.integers(2**c))
                yield use(q, held(diag, c, state), name, values, q[c:], q[:c], ctrl_state=state)


def test_every_gate_is_its_matrix_on_states_circuits_and_density_matrices(precision, rng):
    for description, apply, qubits, matrix in every_use(rng):
        start = dense.random_state(rng, QUBITS)
        full = dense.embed(matrix, qubits, QUBITS)
        expected = full @ start
        state = pb.StateVector(QUBITS, precision.name).set_amplitudes(start)
        assert apply(state) is state
        circuit = apply(pb.Circuit(QUBITS))
        recorded = pb.StateVector(QUBITS, precision.name).set_amplitudes(start).run(circuit)
        close = partial(np.testing.assert_allclose, err_msg=description)
        close(state.to_array(), expected, atol=4 * precision.tolerance)
        assert np.array_equal(state.amplitudes, recorded.amplitudes), description
        recorded.run(circuit.inverse())
        close(recorded.to_array(), start, atol=8 * precision.tolerance)
        mixed = pb.DensityMatrix(QUBITS, precision.name)
        apply(mixed.set_matrix(np.outer(start, start.conj())))
        mixture = np.outer(expected, expected.conj())
        close(mixed.to_array(), mixture, atol=8 * precision.tolerance)


def test_basis_changes_of_the_lower_level(precision):
    y_to_z = np.array([[1, -1j], [1, 1j]]) / np.sqrt(2)
    for name, matrix in (("apply_YtoZ", y_to_z), ("apply_ZtoY", y_to_z.conj().T)):
        for column in range(2):
            state = precision.state(np.eye(2)[column])
            getattr(state, name)(0)
            np.testing.assert_allclose(state.state, matrix[:, column], atol=precision.tolerance)


def test_every_row_of_the_table_has_a_matrix_an_inverse_and_a_conjugate(rng):
    for name, targets, n_angles, formula in gate_table:
        angles = [float(a) for a in rng.normal(size=n_angles)]
        gates = GateList(3)
        values = {
            "matrix": dense.random_unitary(rng, 4),
            "diagonal": np.exp(1j * rng.normal(size=4)),
            "phase_oracle": [1, 3],
        }.get(name)
        if values is None:
            matrix = gate_matrix(name, angles)
        else:
            targets = 2
            matrix = np.diag([1, -1, 1, -1] if name == "phase_oracle" else values)
            matrix = values if name == "matrix" else matrix
        listed = [2, 0][:targets]
        gates.add(name, listed, [1], 0, angles, values)
        expected = dense.embed(held(matrix, 1, 0), [1, *listed], 3)
        for relation, wanted in (
            (lambda g: g, expected),
            (lambda g: g.inverse(), expected.conj().T),
            (lambda g: g.conjugate(), expected.conj()),
        ):
            circuit = pb.Circuit(3)
            take_gates(circuit, relation(gates))
            np.testing.assert_allclose(circuit.matrix(), wanted, atol=1e-14, err_msg=name + formula)


def test_random_circuits_agree_with_dense_products_and_bit_for_bit_between_paths(precision, rng):
    n = 6
    for _ in range(5):
        circuit, record = pb.Circuit(n), precision.Circuit(n)
        direct = precision.State(n)
        direct.reset()
        expected = np.eye(2**n, dtype=complex)[0]
        for _ in range(60):
            name = rng.choice(["h", "x", "y", "z", "t", "p", "rx", "ry", "rz", "cx", "swap"])
            angles, matrix = GATES[name]
            qubits = [int(q) for q in rng.permutation(n)[: 2 if name in ("cx", "swap") else 1]]
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


def test_a_diagonal_beyond_the_library_s_limit_is_applied(precision, rng):
    n = 9
    phases = np.exp(1j * rng.normal(size=2**n))
    start = dense.random_state(rng, n)
    state = pb.StateVector(n, precision.name).set_amplitudes(start)
    state.unitary(np.diag(phases), range(n))
    np.testing.assert_allclose(state.to_array(), phases * start, atol=precision.tolerance)
    with pytest.raises(ValueError, match="Diagonal is too large"):
        state.core.apply_nqbit_gate(range(n), np.diag(phases))


def test_circuits_list_their_gates_and_join():
    circuit = pb.Circuit(3).h(0).rx(0.5, 1, [2]).ccx(2, 0, 1, "10").phase_oracle([1], [0, 2])
    assert [gate.name for gate in circuit] == ["H", "RX", "X", "phase_oracle"]
    assert list(circuit)[1:3] == [
        ("RX", [1], [2], 1, (0.5,), None),
        # Controls in order of their numbers.
        ("X", [1], [0, 2], 0b01, (), None),
    ]
    wider = pb.Circuit(4).compose(circuit).compose(circuit)
    assert list(wider) == list(circuit) * 2 and list(circuit.copy()) == list(circuit)
    gates = GateList(2)
    gates.add("X", [1])
    gates.extend(gates)
    assert [gates.gate(i) for i in range(2)] == [("X", [1], [], 0, (), None)] * 2
