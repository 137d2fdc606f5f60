"""Angles that are given when a circuit runs."""

import pickle
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import pblinalg as pb

A, B, C = (pb.Parameter(name) for name in "abc")


def ansatz(a=A, b=B, c=C):
    """Every place that takes an angle; `a` is used first, then `c`, then `b`."""
    circuit = pb.Circuit(4).h(0).h(2).rx(2 * a + 0.5, 0).ry(c, 1).rz(-b, 2, [0]).p(b / 2, 3)
    circuit.u(a, b - 1, 1 - c, 2, [1], ctrl_state=0).cu(a, b, c, a, 0, 3).mcp(c, [0, 1], 2, "01")
    circuit.rxx(a, 0, 3).ryy(b, 1, 2).rzz(c, 3, 1, [0]).cp(a, 1, 0).crx(b, 2, 1)
    return circuit.cry(c, 3, 0).crz(a * 3, 0, 2).global_phase(b).x(1).iswap(0, 2)


def test_values_give_the_bits_of_numbers(precision):
    circuit = ansatz()
    assert circuit.parameters == (A, C, B) and "parameters=3" in repr(circuit)
    for a, b, c in ((0.3, -1.2, 2.0), (0.0, 0.25, -7.5)):
        numbers = ansatz(a, b, c)
        expected = pb.StateVector(4, precision.name).run(numbers).amplitudes
        for values in ([a, c, b], np.array([a, c, b]), {"a": a, B: b, C: c}):
            state = pb.StateVector(4, precision.name).run(circuit, values=values)
            assert np.array_equal(state.amplitudes, expected)
        bound = circuit.bind({"a": a, "b": b, "c": c})
        assert bound == numbers and not bound.parameters
        assert np.array_equal(circuit.matrix([a, c, b]), numbers.matrix())
        counts = circuit.run(50, precision.name, seed=1, values=[a, c, b])
        assert counts == numbers.run(50, precision.name, seed=1)
        mixed = pb.DensityMatrix(4, precision.name).run(circuit, values=[a, c, b])
        pure = expected.reshape((2,) * 4).transpose().reshape(-1)
        close = 20 * precision.tolerance
        np.testing.assert_allclose(mixed.to_array(), np.outer(pure, pure.conj()), atol=close)


def test_circuits_with_parameters_are_copied_inverted_joined_and_compared():
    circuit, values = ansatz(), [0.3, -0.8, 1.7]
    with circuit.if_(0, 0):
        circuit.rx(B, 0)
    for twin in (circuit.copy(), pickle.loads(pickle.dumps(circuit))):
        assert twin == circuit and twin.parameters == (A, C, B)
    assert circuit != ansatz() and circuit.bind(values) != circuit
    assert circuit.bind(values).run(5, seed=1) == circuit.run(5, seed=1, values=values)
    inverse = ansatz().inverse()
    assert inverse.parameters == (A, C, B)
    state = pb.StateVector(4).run(ansatz(), values=values).run(inverse, values=values)
    assert state.probability("0000") == pytest.approx(1, abs=1e-12)
    # Numbered by name, whatever their numbers were.
    joined = pb.Circuit(4).rx(B, 1).compose(ansatz())
    assert joined.parameters == (B, A, C)
    expected = pb.StateVector(4).rx(-0.5, 1).run(ansatz(0.1, -0.5, 0.2))
    state = pb.StateVector(4).run(joined, values=[-0.5, 0.1, 0.2])
    assert np.array_equal(state.amplitudes, expected.amplitudes)


def test_threads_run_one_circuit_with_values_of_their_own():
    circuit = ansatz()
    values = np.random.default_rng(1).normal(size=(40, 3))

    def amplitudes(own):
        return pb.StateVector(4).run(circuit, values=own).to_array()

    with ThreadPoolExecutor(8) as threads:
        results = list(threads.map(amplitudes, values))
    for own, result in zip(values, results):
        assert np.array_equal(result, amplitudes(own))


def test_arithmetic_of_parameters():
    assert 2 * A + 0.5 == pb.Parameter("a", 2, 0.5) == pickle.loads(pickle.dumps(A * 2 + 0.5))
    assert 1 - A / 4 == pb.Parameter("a", -0.25, 1) and -(A - 1) == pb.Parameter("a", -1, 1)
    assert A != B and len({A, pb.Parameter("a"), B}) == 2
    assert repr(A) == "Parameter('a')"
    assert eval(repr(3 * A - 1), {"Parameter": pb.Parameter}) == 3 * A - 1


CASES = [
    ("run(circuit)", ValueError, "values: parameter 'a' has no value; expected 3 values, got 0"),
    ("run(circuit, values=[1, 2])", ValueError, "parameter 'b' has no value; expected 3"),
    ("run(circuit, values=[1, 2, 3, 4])", ValueError, "values holds 4 elements; expected 3"),
    ("run(circuit, values=[1, nan, 3])", ValueError, "parameter 'c' must be a finite number"),
    ("run(circuit, values=np.array([1, nan, 3]))", ValueError, "parameter 'c' must be a finite"),
    ("run(circuit, values=[1, 'x', 3])", TypeError, "parameter 'c' must be a real number"),
    ("run(circuit, values={'a': 1, 'b': 2})", ValueError, "parameter 'c' has no value"),
    ("run(circuit, values=dict.fromkeys('abcd', 1))", ValueError, "'d' is no parameter"),
    ("run(circuit, values={2 * A: 1})", TypeError, "keys must be parameters or their names"),
    ("run(circuit, values=3.0)", TypeError, "values must be a sequence of numbers or a dict"),
    ("sweep([1, 2, 3])", ValueError, r"shape \(3,\); expected \(rows, 3\)"),
    ("sweep([[1, 2]])", ValueError, r"\(1, 2\).*: parameter 'b' has no value"),
    ("sweep([[1, 2, 3, 4]])", ValueError, r"shape \(1, 4\); expected \(rows, 3\)"),
    ("sweep([[1, 2, 3], [1, nan, 3]])", ValueError, "row 1: parameter 'c' must be"),
    ("sweep([[1, 2], [3]])", TypeError, "values must be an array of real numbers"),
    ("sweep([[1, 2, 3j]])", TypeError, "values must be an array of real numbers"),
    ("sweep({'a': [1, 2], 'b': 1})", ValueError, "parameter 'c' has no value"),
    ("sweep(dict(a=[1, 2], b=1, c=[1]))", ValueError, "'a' has values of shape"),
    ("sweep(dict(a=1, b=[[1]], c=1))", ValueError, r"'b' has values of shape \(1, 1"),
    ("sweep(dict(a=1, b='x', c=1))", TypeError, "parameter 'b' must be an array"),
    ("sweep(dict.fromkeys('abcd', [1]))", ValueError, "'d' is no parameter"),
    ("circuit.bind([1])", ValueError, "parameter 'c' has no value"),
    ("circuit.to_qasm(2)", ValueError, "OpenQASM 2 has no parameters, the circuit has 'a'"),
    ("pb.Circuit(1).rx(pb.Parameter('a b'), 0).to_qasm()", ValueError, "'a b' cannot be called so"),
    ("state.rx(A, 0)", TypeError, "theta: parameter 'a' has no value; a state takes numbers"),
    ("pb.Parameter(3)", TypeError, "name must be a str"),
    ("pb.Parameter('')", TypeError, "name must be a str of one character or more"),
    ("A + B", TypeError, "unsupported operand"),
    ("A * 'x'", TypeError, "unsupported|multiply"),
    ("A * True", TypeError, "unsupported operand"),
]


@pytest.mark.parametrize("expression,error,text", CASES)
def test_mistakes_name_the_parameter(expression, error, text):
    state = pb.StateVector(4).h(0)
    before = state.to_array()
    names = dict(pb=pb, np=np, nan=np.nan, A=A, B=B, circuit=ansatz(), state=state, run=state.run)
    names["sweep"] = lambda values: pb.sweep(names["circuit"], values, "ZZZZ")
    with pytest.raises(error, match=text):
        eval(expression, names)
    assert np.array_equal(state.to_array(), before)
