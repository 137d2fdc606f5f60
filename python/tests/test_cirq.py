"""The Cirq simulator against `cirq.Simulator`, on states and in orders without symmetry."""

import numpy as np
import pytest

cirq = pytest.importorskip("cirq")

import sympy  # noqa: E402

from pblinalg.cirq import Simulator  # noqa: E402

A, B, C = cirq.LineQubit.range(3)
T = sympy.Symbol("t")
AXES = {"x_exponent": 0.2, "z_exponent": 0.5, "axis_phase_exponent": 0.7}
PHASES = np.arange(1, 9) / 10

#: Gates with a counterpart, as matrices, and such as Cirq takes apart, by their number of qubits.
GATES = {
    gate: number
    for number, gates in enumerate(
        [
            [
                cirq.H, cirq.H**0.4, cirq.T**-1, cirq.Rz(rads=0.4), cirq.ry(1.1), cirq.rx(0.3), cirq.I,
                *(base**power for base in (cirq.X, cirq.Y, cirq.Z) for power in (1, 0.5, -0.5, 0.3)),
                cirq.XPowGate(exponent=0.3, global_shift=0.2), cirq.PhasedXZGate(**AXES),
                cirq.YPowGate(exponent=1, global_shift=0.2),
                cirq.PhasedXPowGate(phase_exponent=0.3, exponent=0.7),
                cirq.PhasedXPowGate(phase_exponent=0.3, exponent=0.7, global_shift=-0.5),
            ],
            [
                *(base**power for base in (cirq.CX, cirq.CZ, cirq.SWAP, cirq.ISWAP)
                  for power in (1, -1, 0.5, -0.5, 0.3)),
                cirq.XX**0.3, cirq.YY**0.2, cirq.ZZ**0.4, cirq.ms(0.3), cirq.givens(0.4),
                cirq.FSimGate(0.3, 0.4), cirq.PhasedFSimGate(0.1, 0.2, 0.3, 0.4, 0.5),
                cirq.PhasedISwapPowGate(phase_exponent=0.2, exponent=0.3),
                cirq.CXPowGate(exponent=0.3, global_shift=0.2),
                cirq.CZPowGate(exponent=1, global_shift=0.2),
                cirq.ISwapPowGate(exponent=0.3, global_shift=0.1),
                cirq.SwapPowGate(exponent=1, global_shift=0.1),
                cirq.ControlledGate(cirq.PhasedXZGate(**AXES), control_values=[0]),
                cirq.ControlledGate(cirq.H**0.3, control_values=[[0, 1]]),
                cirq.TwoQubitDiagonalGate(PHASES[:4]),
                cirq.MatrixGate(cirq.testing.random_unitary(4, random_state=3)),
            ],
            [
                cirq.CCX, cirq.CCX**0.3, cirq.CCZ**0.3, cirq.CSWAP, cirq.QuantumFourierTransformGate(3),
                cirq.DiagonalGate(PHASES), cirq.ThreeQubitDiagonalGate(PHASES),
                cirq.ControlledGate(cirq.Y**0.3, num_controls=2, control_values=[0, 1]),
                cirq.ControlledGate(cirq.ISWAP**0.3), cirq.ControlledGate(cirq.FSimGate(0.3, 0.4)),
                cirq.ControlledGate(cirq.MatrixGate(cirq.testing.random_unitary(4, random_state=4))),
                cirq.DensePauliString("XZY", coefficient=1j), cirq.BooleanHamiltonianGate(
                    ["a", "b", "c"], ["a & (b | c)"], 0.3),
            ],
        ],
        start=1,
    )
    for gate in gates
}  # fmt: skip


def random_state(size, seed):
    rng = np.random.default_rng(seed)
    amplitudes = rng.normal(size=size) + 1j * rng.normal(size=size)
    return amplitudes / np.linalg.norm(amplitudes)


def reference(seed=None):
    return cirq.Simulator(dtype=np.complex128, seed=seed)


def matches(circuit, order, seed=0, **options):
    options |= {"qubit_order": order, "initial_state": random_state(2 ** len(order), seed)}
    found, wanted = (each.simulate(circuit, **options) for each in (Simulator(), reference()))
    np.testing.assert_allclose(found.final_state_vector, wanted.final_state_vector, atol=1e-10)
    assert found.qubit_map == wanted.qubit_map


@pytest.mark.parametrize("gate", GATES, ids=str)
def test_gates(gate):
    qubits = [C, A, B][: GATES[gate]]
    matches(cirq.Circuit(gate.on(*qubits)), [A, B, C])
    if GATES[gate] < 3:
        free = next(qubit for qubit in (A, B, C) if qubit not in qubits)
        matches(cirq.Circuit(gate.on(*qubits).controlled_by(free, control_values=[0])), [B, C, A])


@pytest.mark.parametrize("seed", range(40))
def test_random_circuits(seed):
    circuit = cirq.testing.random_circuit(6, 15, 0.7, gate_domain=GATES, random_state=seed)
    qubits = sorted(circuit.all_qubits())
    matches(circuit, [qubits[k] for k in np.random.default_rng(seed).permutation(len(qubits))], seed)


def test_operations_that_are_no_gates():
    inner = cirq.FrozenCircuit(cirq.X(A) ** 0.3, cirq.CX(A, B) ** 0.4)
    circuit = cirq.Circuit(
        cirq.CircuitOperation(inner, repetitions=3, qubit_map={A: C, B: A}),
        cirq.PauliString({A: cirq.X, C: cirq.Y}, coefficient=-1).with_tags("here"),
        cirq.PauliStringPhasor(cirq.X(A) * cirq.Z(B), exponent_neg=0.3),
        cirq.ControlledOperation(
            [C], cirq.CX(A, B) ** 0.3, control_values=cirq.SumOfProducts([(0,), (1,)])
        ),
        cirq.ControlledOperation(
            [A, B], cirq.X(C) ** 0.3, control_values=cirq.SumOfProducts([(0, 1), (1, 0)], name="xor")
        ),
        cirq.global_phase_operation(1j),
        cirq.global_phase_operation(-1).controlled_by(B, control_values=[0]),
        cirq.ParallelGate(cirq.Y**0.2, 3)(C, A, B),
    )
    matches(circuit, [B, C, A])


def test_initial_states_and_amplitudes():
    circuit = cirq.Circuit(cirq.rx(0.3)(A), cirq.CX(A, B) ** 0.4, cirq.Y(C) ** 0.2)
    prepared = cirq.KET_PLUS(A) * cirq.KET_ONE(B) * cirq.KET_IMAG(C)
    tensor = random_state(8, 1).reshape(2, 2, 2)
    for start in (3, 6, tensor, prepared, [1, 0, 1]):
        found, wanted = (
            each.simulate(circuit, initial_state=start, qubit_order=[C, A, B])
            for each in (Simulator(), reference())
        )
        np.testing.assert_allclose(found.final_state_vector, wanted.final_state_vector, atol=1e-7)
    asked = [6, 0, 3]
    np.testing.assert_allclose(
        Simulator().compute_amplitudes(circuit, asked, qubit_order=[C, A, B]),
        reference().compute_amplitudes(circuit, asked, qubit_order=[C, A, B]),
        atol=1e-12,
    )
    assert Simulator().simulate(circuit).dirac_notation() == reference().simulate(circuit).dirac_notation()
    assert Simulator(precision="float").simulate(circuit).final_state_vector.dtype == np.complex64


#: Linear in one symbol; linear in two; no longer linear.
SWEPT = [
    cirq.Circuit(cirq.rx(2 * T + 0.1)(A), cirq.CX(A, B) ** T, cirq.PhasedXPowGate(
        phase_exponent=T / 2, exponent=0.3 - T)(B), cirq.FSimGate(T, 2 * T)(A, B)),
    cirq.Circuit(cirq.rx(T + sympy.Symbol("s"))(A), cirq.CX(A, B)),
    cirq.Circuit(cirq.ry(T**2)(A), cirq.CX(A, B), cirq.PhasedISwapPowGate(exponent=T)(A, B)),
]  # fmt: skip


@pytest.mark.parametrize("circuit", SWEPT, ids=["linear", "sum", "square"])
def test_expectation_values_for_many_values(circuit):
    sweep = cirq.Linspace("t", 0.1, 1.3, 4) * cirq.Points("s", [0.2, 0.7])
    sums = [cirq.X(A) * cirq.Y(B), 2 * cirq.Z(B) - 0.5 * cirq.X(A) + 3]
    found, wanted = (
        each.simulate_expectation_values_sweep(circuit, sums, sweep, qubit_order=[B, A])
        for each in (Simulator(), reference())
    )
    np.testing.assert_allclose(found, wanted, atol=1e-10)
    results = Simulator(seed=1).run_sweep(circuit + cirq.measure(B, A, key="m"), sweep, 20)
    assert [result.params["t"] for result in results] == [params["t"] for params in sweep]


def dynamic():
    """Repeated keys, inverted bits, conditions of all kinds, a reset, a measurement in a circuit."""
    m, r = cirq.MeasurementKey("m"), sympy.Symbol("r")
    return cirq.Circuit(
        cirq.X(A), cirq.ry(1.1)(B), cirq.H(C) ** 0.4,
        cirq.measure(A, B, key="m", invert_mask=(True,)),
        cirq.X(A).with_classical_controls("m"),
        cirq.Y(C).with_classical_controls(cirq.BitMaskKeyCondition(m, bitmask=1, target_value=1)),
        cirq.measure(C, key="r"),
        cirq.reset(B),
        cirq.X(B).with_classical_controls(sympy.Eq(r + sympy.Symbol("m"), 2)),
        cirq.CircuitOperation(cirq.FrozenCircuit(cirq.H(C), cirq.measure(C, key="r"))),
        cirq.rx(0.7)(A).with_classical_controls("m", cirq.KeyCondition(cirq.MeasurementKey("r"), 0)),
        cirq.measure(B, C, A, key="end", confusion_map={(1, 2): np.array(
            [[0.9, 0.1, 0, 0], [0, 1, 0, 0], [0, 0, 0.7, 0.3], [0, 0, 0, 1]])}),
        cirq.measure_single_paulistring(cirq.X(A) * cirq.Z(B), key="pauli"),
    )  # fmt: skip


def test_samples_of_measurements_that_decide():
    found = Simulator(seed=2).run(dynamic(), repetitions=4000)
    wanted = reference(3).run(dynamic(), repetitions=500)
    assert found.records.keys() == wanted.records.keys()
    tables = []
    for result in (found, wanted):
        for key, rows in result.records.items():
            assert rows.shape[1:] == wanted.records[key].shape[1:]
        columns = [rows.reshape(len(rows), -1) for _, rows in sorted(result.records.items())]
        bits = np.concatenate(columns, axis=1)
        table = np.bincount(bits @ (1 << np.arange(bits.shape[1])), minlength=1024)
        tables.append(table / len(bits))
    np.testing.assert_allclose(*tables, atol=0.06)
    again = Simulator(seed=2).run(dynamic(), repetitions=4000)
    assert again == found != Simulator(seed=4).run(dynamic(), repetitions=4000)
    # Shots come in no order, so that a part of them is a sample, too.
    assert 0.2 < found.records["m"][:300, 0, 1].mean() < 0.9


def test_one_course_of_measurements_that_decide():
    circuit = cirq.Circuit(
        cirq.X(A), cirq.measure(A, B, key="m", invert_mask=(False, True)),
        cirq.X(C).with_classical_controls("m"), cirq.measure(C, key="m2"), cirq.measure(B, key="m2"),
    )  # fmt: skip
    found, wanted = (each.simulate(circuit) for each in (Simulator(), reference()))
    assert {key: bits.tolist() for key, bits in found.measurements.items()} == {
        key: bits.tolist() for key, bits in wanted.measurements.items()
    }
    np.testing.assert_allclose(found.final_state_vector, wanted.final_state_vector)


Q3 = cirq.LineQid(0, 3)
MISTAKES = [
    (lambda s: s.simulate(cirq.Circuit(cirq.depolarize(0.1)(A))), TypeError, "depolarize"),
    (lambda s: s.simulate(cirq.Circuit(cirq.IdentityGate(1, (3,))(Q3))), ValueError, "dimension 3"),
    (lambda s: s.simulate(cirq.Circuit(cirq.X(A) ** T)), ValueError, "symbol"),
    (lambda s: s.simulate(cirq.Circuit(cirq.X(A) ** (T * T))), ValueError, "symbols .*: t"),
    (lambda s: s.simulate(cirq.Circuit(cirq.X(A)), initial_state=2), ValueError, "between 0 and 1"),
    (lambda s: s.simulate(cirq.Circuit(cirq.X(A)), initial_state=[1, 1, 1]), ValueError, "shape"),
    (lambda s: s.run(cirq.Circuit(cirq.X(A))), ValueError, "no measurements"),
    (lambda s: s.run(cirq.Circuit(cirq.X(A).with_classical_controls("k"), cirq.measure(B))),
     ValueError, "k missing"),
    (lambda s: s.simulate_expectation_values(cirq.Circuit(cirq.X(A)), cirq.Z(B)), ValueError, "LineQubit"),
    (lambda s: s.simulate_expectation_values(cirq.Circuit(cirq.measure(A)), cirq.Z(A)), ValueError,
     "terminal measurements"),
    (lambda s: s.compute_amplitudes(cirq.Circuit(cirq.X(A)), [2]), IndexError, "position = 2"),
    (lambda s: Simulator(precision="half"), ValueError, "precision = 'half'"),
    (lambda s: Simulator(accuracy="half"), ValueError, "accuracy = 'half'"),
    (lambda s: Simulator(threads=0), ValueError, "threads = 0"),
]  # fmt: skip


@pytest.mark.parametrize("number", range(len(MISTAKES)))
def test_mistakes_are_errors_of_cirqs_kinds(number):
    do, kind, text = MISTAKES[number]
    with pytest.raises(kind, match=text):
        do(Simulator())
