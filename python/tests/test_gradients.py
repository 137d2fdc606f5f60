"""Values and gradients of circuits with parameters."""

import threading

import numpy as np
import pytest

import pblinalg as pb

A, B, C = (pb.Parameter(name) for name in "abc")
TERMS = {"ZZI": 1.0, "XIY": -0.5, "IYX": 0.25, "III": 2.0}


def ansatz():
    circuit = pb.Circuit(3).h(0).rx(2 * A + 0.5, 0).ry(C, 1).crz(-B, 0, 2).cu(A, B, C, A, 0, 1)
    return circuit.rxx(B, 0, 2).rzz(C, 1, 2).mcp(A / 2, [0, 1], 2, "01").unitary(SWAP, [0, 2])


SWAP = np.eye(4)[[0, 2, 1, 3]]
VALUES = np.array([0.4, -0.9, 1.7])


def by_differences(function, values, step=1e-5):
    columns = []
    for place in range(len(values)):
        moved = [values + sign * step * np.eye(len(values))[place] for sign in (1, -1)]
        columns.append((function(moved[0]) - function(moved[1])) / (2 * step))
    return np.stack(columns, axis=-1)


def test_values_and_gradients_are_those_of_states(precision):
    circuit, close = ansatz(), {"double": 1e-8, "float": 1e-4}[precision.name]

    def value(values, start=None):
        state = pb.StateVector(3)
        state.amplitudes[:] = state.amplitudes if start is None else start.amplitudes
        return state.run(circuit, values=values).expectation(TERMS)

    start = pb.StateVector(3).h(0).ry(0.3, 1).cx(0, 2)
    for initial in (None, start):
        got = pb.value_and_gradient(circuit, TERMS, VALUES, precision.name, initial=initial)
        assert isinstance(got[0], float)
        assert got[0] == pytest.approx(value(VALUES, initial), abs=close)
        assert got[1].dtype == np.float64 and got[1].shape == (3,)
        expected = by_differences(lambda v: value(v, initial), VALUES)
        np.testing.assert_allclose(got[1], expected, atol=close)
    values, jacobian = pb.value_and_gradient(
        circuit, [TERMS, pb.Observable("ZZZ")], {"a": 0.4, C: -0.9, "b": 1.7}, precision.name
    )
    assert circuit.parameters == (A, C, B) and values.shape == (2,) and jacobian.shape == (2, 3)
    alone = pb.value_and_gradient(circuit, TERMS, VALUES, precision.name)
    assert values[0] == alone[0] and np.array_equal(jacobian[0], alone[1])

    def fidelity(values):
        return abs(pb.StateVector(3).run(circuit, values=values).inner(start)) ** 2

    overlap = pb.value_and_gradient(circuit, start, VALUES, precision.name)
    assert overlap[0] == pytest.approx(fidelity(VALUES), abs=close)
    np.testing.assert_allclose(overlap[1], by_differences(fidelity, VALUES), atol=close)


def test_circuits_of_other_shapes():
    value, gradient = pb.value_and_gradient(pb.Circuit(2).h(0), "XI")
    assert value == pytest.approx(1) and gradient.shape == (0,)
    assert pb.value_and_gradient(pb.Circuit(2), "ZI + 1")[0] == 2
    assert pb.value_and_gradient(pb.Circuit(1).rx(A, 0), [], [1.0])[1].shape == (0, 1)
    # Parameters in the order of the circuit, whatever the order of its gates.
    inverse = pb.Circuit(1).ry(A, 0).rz(B, 0).ry(C, 0).inverse()
    assert inverse.parameters == (A, B, C)

    def value_of(values):
        return pb.StateVector(1).run(inverse, values=values).expectation("X")

    got = pb.value_and_gradient(inverse, "X", VALUES)[1]
    np.testing.assert_allclose(got, by_differences(value_of, VALUES), atol=1e-8)


def test_threads_share_a_circuit_and_progress_stops():
    circuit = pb.Circuit(16)
    parameters = [pb.Parameter(f"p{i}") for i in range(64)]
    for place, parameter in enumerate(parameters):
        circuit.ry(parameter, place % 16).cx(place % 16, (place + 5) % 16)
    values = np.linspace(0, 3, 64)
    expected = pb.value_and_gradient(circuit, "Z0 Z7", values, threads=1)[1]
    results = []
    workers = [
        threading.Thread(
            target=lambda: results.append(
                pb.value_and_gradient(circuit, "Z0 Z7", values, threads=2)[1]
            )
        )
        for _ in range(3)
    ]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    assert len(results) == 3 and all(np.array_equal(result, expected) for result in results)
    told = []
    pb.value_and_gradient(circuit, ["Z0", "X3"], values, progress=lambda *two: told.append(two))
    assert told[-1] == (3 * len(circuit), 3 * len(circuit))

    def stop(done, total):
        raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        pb.value_and_gradient(circuit, "Z0", values, progress=stop)
    assert np.array_equal(pb.value_and_gradient(circuit, "Z0 Z7", values)[1], expected)


@pytest.mark.parametrize(
    "arguments, message",
    [
        ((None, "ZII", VALUES), "circuit must be a Circuit, got None"),
        ((pb.Circuit(1).measure(0), "Z"), "circuit measures, resets or has conditions"),
        ((ansatz(), "ZII"), "values: parameter 'a' has no value; expected 3 values, got 0"),
        ((ansatz(), "ZII", [1, 2, np.nan]), "values: parameter 'b' must be a finite number"),
        ((ansatz(), "ZII", [1, 2, 3, 4]), "values holds 4 elements; expected 3"),
        ((ansatz(), pb.Observable("ZZ"), VALUES), "observable acts on 2 qubits; the circuit has 3"),
        ((ansatz(), "Z7", VALUES), "7"),
        ((ansatz(), {"ZII": 1j}, VALUES), "coefficients that are not real"),
        ((ansatz(), 3.0, VALUES), "observable must be an Observable, a string"),
        ((ansatz(), ["ZII", 3.0], VALUES), "observable must be an Observable, a string"),
        ((ansatz(), pb.StateVector(2), VALUES), "observable has 2 qubits; the circuit has 3"),
        ((ansatz(), "ZII", VALUES, "half"), "precision = 'half'"),
        ((ansatz(), "ZII", VALUES, "double", 0), "threads = 0"),
        ((ansatz(), "ZII", VALUES, "double", 1, "000"), "initial must be a StateVector"),
        (
            (pb.Circuit(2).h(0).unitary([[1, 0.5], [0, 1]], 1, check=False), "ZZ"),
            "gate 1 of the circuit is a matrix that is not unitary",
        ),
        ((pb.Circuit(50), "Z" * 50), "a gradient on 50 qubits"),
    ],
    ids=lambda value: value if isinstance(value, str) else "",
)
def test_mistakes_are_named(arguments, message):
    with pytest.raises((TypeError, ValueError, MemoryError)) as error:
        pb.value_and_gradient(*arguments)
    assert message in str(error.value)
