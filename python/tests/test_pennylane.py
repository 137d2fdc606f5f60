"""The PennyLane device against `default.qubit` on states without symmetry, and its own device suite."""

import subprocess
import sys

import numpy as np
import pytest

qml = pytest.importorskip("pennylane")

from pennylane import numpy as pnp  # noqa: E402
from pennylane.devices.tests import get_device_tests  # noqa: E402
from pennylane.exceptions import DeviceError  # noqa: E402

#: Labels whose order is neither that of numbers nor that of their first use.
WIRES = ["b", 7, "a", 0, 3]
HERMITIAN = np.array([[1, 2j], [-2j, 0.5]])
MATRIX = np.array([[0.6, 0.8j], [0.8j, 0.6]])


def device(wires=WIRES, **options):
    return qml.device("pblinalg.qubit", wires=wires, **options)


def start():
    """A state in which no two wires are alike."""
    for place, wire in enumerate(WIRES):
        qml.RY(0.4 + 0.3 * place, wire)
        qml.RZ(0.9 - 0.5 * place, wire)
    for first, second in zip(WIRES, WIRES[1:]):
        qml.CNOT([first, second])


def matches(build, *arguments, wires=WIRES):
    """The results here and on `default.qubit` are the same; returns them."""
    wanted = qml.QNode(build, qml.device("default.qubit", wires=wires))(*arguments)
    found = qml.QNode(build, device(wires))(*arguments)
    for ours, theirs in zip(found, wanted, strict=True):
        np.testing.assert_allclose(ours, theirs, atol=1e-12)
    return found


OPERATIONS = [
    lambda: [op(7) for op in (qml.X, qml.Y, qml.Z, qml.H, qml.S, qml.T, qml.SX)],
    lambda: [qml.adjoint(op(7)) for op in (qml.S, qml.T, qml.SX)],
    lambda: [op(0.3, "a") for op in (qml.RX, qml.RY, qml.RZ, qml.PhaseShift, qml.U1)],
    lambda: [qml.U2(0.3, 0.4, 0), qml.U3(0.3, 0.4, 0.5, 3), qml.Rot(0.3, 0.4, 0.5, 7)],
    lambda: [op(["a", "b"]) for op in (qml.SWAP, qml.ISWAP, qml.SISWAP, qml.ECR, qml.CY, qml.CZ)],
    lambda: [op(0.3, [3, "b"]) for op in (qml.IsingXX, qml.IsingYY, qml.IsingZZ, qml.IsingXY)],
    lambda: [op(0.3, [3, 7]) for op in (qml.PSWAP, qml.SingleExcitation, qml.FermionicSWAP)],
    lambda: [op(0.3, [3, "b", 7, 0]) for op in (qml.DoubleExcitation, qml.OrbitalRotation)],
    lambda: [qml.PauliRot(0.3, word, [0, "a", 7]) for word in ("XYZ", "IZY", "III", "IIX")],
    lambda: [qml.MultiRZ(0.3, [0, "a", 7]), qml.GlobalPhase(0.3), qml.Barrier(0), qml.I(3)],
    lambda: [qml.CRot(0.3, 0.4, 0.5, [0, 3]), qml.CSWAP([0, 3, "b"]), qml.CCZ([7, 3, "b"])],
    lambda: [qml.MultiControlledX([0, 3, "a", "b"], control_values=[1, 0, 0])],
    lambda: [qml.ctrl(qml.PauliRot(0.3, "XY", [0, 3]), ["a", 7], control_values=[0, 1])],
    lambda: [qml.ctrl(op(0.3, [0, 3]), "a") for op in (qml.PSWAP, qml.MultiRZ, qml.IsingXY)],
    lambda: [qml.ctrl(qml.adjoint(qml.SingleExcitation(0.3, [0, 3])), 7, control_values=[0])],
    lambda: [qml.ctrl(qml.ctrl(qml.adjoint(qml.S("a")), 7, control_values=[0]), 0)],
    lambda: [qml.ctrl(qml.DoubleExcitation(0.3, [0, 3, "b", 7]), "a"), qml.adjoint(qml.QFT(WIRES))],
    lambda: [qml.ctrl(qml.GlobalPhase(0.4), 3, control_values=[0])],
    lambda: [qml.QubitUnitary(MATRIX, 0), qml.ctrl(qml.QubitUnitary(MATRIX, 0), 7)],
    lambda: [qml.DiagonalQubitUnitary([1, 1j, -1, np.exp(0.3j)], [0, 7]), qml.pow(qml.RX(0.3, 7), 0.4)],
    lambda: [qml.SpecialUnitary(np.arange(15) / 10, ["a", 0]), qml.exp(qml.X(0) @ qml.Y(7), 0.3j)],
    lambda: [qml.BasisState([1, 0, 1], [7, "a", 0]), qml.QubitSum([0, "a", 7])],
    lambda: [qml.StronglyEntanglingLayers(np.arange(30).reshape(2, 5, 3) / 9, WIRES)],
]


@pytest.mark.parametrize("number", range(len(OPERATIONS)))
def test_operations_do_what_they_do_elsewhere(number):
    def build():
        start()
        OPERATIONS[number]()
        return qml.state(), qml.probs(["a", "b"])

    matches(build)


def test_a_prepared_state_comes_first_on_its_own_wires():
    def build():
        qml.StatePrep([0.6, 0, 0.8j, 0], ["a", 7])
        qml.RX(0.3, 0)
        qml.StatePrep(np.array([0.8, 0.6j]), 3)
        return qml.state(), qml.expval(qml.Y(7))

    matches(build)


#: Sums, products, matrices and projectors on wires in mixed order.
WORD = qml.X("b") @ qml.Z(0) @ qml.Y("a")
PAIRS = sum(0.1 * k * qml.X(wire) @ qml.Z(WIRES[k - 1]) for k, wire in enumerate(WIRES))
LONG = PAIRS + sum(0.3 * qml.X(a) @ qml.Y(b) for a in WIRES for b in WIRES if a != b)
LONG += sum(k * qml.Z(a) @ qml.Z(b) @ qml.Y(c)
            for k, a in enumerate(WIRES) for b in WIRES for c in WIRES if len({a, b, c}) == 3)
OBSERVABLES = [
    qml.Y(3), WORD, PAIRS, LONG, qml.Hermitian(HERMITIAN, 7),
    qml.Hamiltonian([0.3, -1.2, 2], [qml.X(7) @ qml.Y("a"), qml.Z(3), qml.I(0)]),
    qml.Hermitian(np.kron(HERMITIAN, MATRIX + MATRIX.conj()), [7, "a"]),
    qml.Hermitian(HERMITIAN, 7) @ qml.Z("a"),
    0.3 * qml.Hermitian(HERMITIAN, 7) + qml.X("a") @ qml.H(0),
    qml.Projector([1, 0], ["a", 7]), qml.Projector(np.array([0.6, 0, 0, 0.8j]), ["a", 7]),
]  # fmt: skip


def test_exact_measurements():
    def build():
        start()
        sparse = qml.SparseHamiltonian(WORD.sparse_matrix(WIRES), WIRES)
        return [
            *(qml.expval(obs) for obs in OBSERVABLES),
            *(qml.var(obs) for obs in OBSERVABLES),
            qml.expval(sparse), qml.probs(["a", 3, "b"]), qml.probs(op=WORD),
            qml.state(), qml.density_matrix([3, "b"]), qml.purity(["a", 7]),
            qml.vn_entropy([0]), qml.mutual_info([0], ["b", 7]),
        ]  # fmt: skip

    matches(build)


def test_wires_of_the_circuit_where_the_device_has_none():
    def build():
        qml.RX(0.3, "x")
        qml.CNOT(["x", "c"])
        return qml.probs(["c", "x"]), qml.state()

    matches(build, wires=None)


def test_many_values_at_once():
    angles = np.array([0.1, 0.8, 2.5])

    def circuit(x, prepared, matrix, state=True):
        if prepared:
            qml.StatePrep([0.6, 0, 0.8j, 0], ["a", 7])
        start()
        qml.adjoint(qml.IsingXY(x, [0, 3]))
        qml.ctrl(qml.PauliRot(2 * x, "XZ", ["a", 7]), "b", control_values=[0])
        qml.Rot(0.3, x, x + 1, 7)
        if matrix:
            qml.QubitUnitary(np.stack([MATRIX, MATRIX @ MATRIX, MATRIX.T]), "a")
        read = [qml.expval(qml.X(0) @ qml.Y("a")), qml.probs([7, "b"])]
        return [*read, qml.state()] if state else read

    for prepared, matrix in ((False, False), (True, False), (False, True)):
        exact = matches(circuit, angles, prepared, matrix)

    sampled = qml.set_shots(qml.QNode(circuit, device(seed=1)), [4000, 3000])
    for shots in sampled(angles, False, True, state=False):
        for found, wanted in zip(shots, exact):
            np.testing.assert_allclose(found, wanted, atol=0.1)


def differentiated(x, y):
    """Every operation that has a derivative here, some with data that count as constant."""
    start()
    for place, op in enumerate((qml.RX, qml.RY, qml.RZ, qml.PhaseShift, qml.U1)):
        op(x * (place + 1), WIRES[place])
    qml.U2(0.3, x, 0), qml.U3(x, 0.2, y, "a"), qml.Rot(y, x, 0.3, 7), qml.CRot(x, 0.2, y, [0, 3])
    for op in (qml.IsingXX, qml.IsingYY, qml.IsingZZ, qml.IsingXY, qml.PSWAP, qml.SingleExcitation):
        op(x, [3, "b"])
        qml.ctrl(op(y, [7, "a"]), 0, control_values=[0])
    qml.DoubleExcitation(x, [3, "b", 7, 0])
    qml.PauliRot(x, "XIY", [0, "a", 7]), qml.MultiRZ(y, [0, "a", 7]), qml.GlobalPhase(x)
    qml.ctrl(qml.GlobalPhase(y), "a"), qml.adjoint(qml.CRX(x, [0, "b"])), qml.PauliRot(x, "II", [0, 3])
    qml.ControlledPhaseShift(x * y, [3, 0]), qml.CPhaseShift01(x, [3, 0]), qml.OrbitalRotation(y, WIRES[:4])
    qml.QubitUnitary(MATRIX, 0), qml.exp(qml.X(0) @ qml.Y(7), 0.5j * x), qml.pow(qml.RX(x, 3), 0.4)


@pytest.mark.parametrize("vjp", [False, True])
@pytest.mark.parametrize("several", [False, True])
def test_derivatives(vjp, several):
    def circuit(x, y):
        if several:
            qml.StatePrep(np.array([0.6, 0, 0.8j, 0]), ["a", 7])
        differentiated(x, y)
        taken = [5, 6, 9] if several else [2]
        return [qml.expval(OBSERVABLES[place]) for place in taken]

    node = qml.QNode(circuit, device(), diff_method="adjoint", device_vjp=vjp)
    at = pnp.array([0.37, 1.1], requires_grad=True)
    found = qml.jacobian(lambda z: pnp.stack(node(*z)))(at)
    exact = qml.QNode(circuit, qml.device("default.qubit", wires=WIRES), diff_method=None)
    for place, step in enumerate(1e-3 * np.eye(2)):
        near, far = (
            np.array(exact(*(at + k * step))) - np.array(exact(*(at - k * step))) for k in (1, 2)
        )
        np.testing.assert_allclose(found[:, place], (8 * near - far) / 12e-3, atol=1e-9)


def test_the_best_derivative_is_that_of_the_device_where_it_has_one():
    dev = device(None)
    trained = pnp.array(0.3, requires_grad=True)

    def count(measurement):
        def circuit(x):
            qml.RX(x, 0)
            return measurement(x)

        with qml.Tracker(dev) as tracker:
            gradient = qml.grad(qml.QNode(circuit, dev))(trained)
        return float(gradient), tracker.totals.get("execute_and_derivative_batches", 0)

    value, backwards = count(lambda x: qml.expval(qml.Z(0)))
    assert backwards == 1 and value == pytest.approx(-np.sin(0.3))
    value, backwards = count(lambda x: qml.var(qml.Z(0)))
    assert backwards == 0 and value == pytest.approx(np.sin(0.6))
    value, backwards = count(lambda x: (qml.measure(1, postselect=0), qml.expval(qml.Z(0)))[1])
    assert backwards == 0 and value == pytest.approx(-np.sin(0.3))
    # A trained coefficient is none of the circuit's angles.
    value, backwards = count(lambda x: qml.expval(qml.Hamiltonian([x], [qml.Z(0)])))
    assert backwards == 0 and value == pytest.approx(np.cos(0.3) - 0.3 * np.sin(0.3))


def dynamic(x):
    """Measurements that decide, reset and are read."""
    start()
    first = qml.measure("b", reset=True)
    qml.cond(first, qml.RY, qml.RX)(x, 7)
    second = qml.measure(7)
    qml.cond(first & ~second, qml.X)("a")
    qml.cond(first + 2 * second == 2, qml.adjoint(qml.IsingXY))(x, ["a", "b"])
    return [
        qml.expval(qml.Y("a")), qml.probs(["a", "b"]), qml.expval(first), qml.probs(op=second),
        qml.expval(first * second), qml.var(qml.Hermitian(HERMITIAN, 0)),
    ]  # fmt: skip


def test_measurements_in_the_middle():
    wanted = matches(dynamic, 0.7, wires=None)
    drawn = qml.set_shots(qml.QNode(dynamic, device(seed=5)), 1500)(0.7)
    for exact, sampled in zip(wanted, drawn, strict=True):
        np.testing.assert_allclose(sampled, exact, atol=0.1)


def test_postselection():
    def circuit():
        start()
        qml.RX(1.2, "b")
        qml.cond(qml.measure("b", postselect=1), qml.RX)(0.4, 0)
        return qml.expval(qml.Y(0)), qml.probs(["b", 7])

    wanted = qml.QNode(circuit, qml.device("default.qubit"))()
    for options in ({}, {"mcm_method": "deferred", "postselect_mode": "fill-shots"}):
        dev = device(None, seed=2)
        found = qml.QNode(circuit, dev, **options)()
        drawn = qml.set_shots(qml.QNode(circuit, dev, **options), 1000)()
        for exact, ours, sampled in zip(wanted, found, drawn, strict=True):
            np.testing.assert_allclose(ours, exact, atol=1e-12)
            np.testing.assert_allclose(sampled, exact, atol=0.1)


def test_shots_come_from_the_seed_and_agree_with_exact_values():
    measured = [2, 5, 6, 8]

    def circuit():
        start()
        return [
            *(qml.expval(OBSERVABLES[place]) for place in measured),
            qml.var(WORD), qml.probs(["a", "b"]), qml.sample(wires=[3, "b"]),
            qml.counts(), qml.counts(qml.Y(0)), qml.shadow_expval(OBSERVABLES[0], seed=8),
        ]  # fmt: skip

    def run(seed, shots):
        return qml.set_shots(qml.QNode(circuit, device(seed=seed)), shots)()

    def exact():
        start()
        return [
            *(qml.expval(OBSERVABLES[place]) for place in measured),
            qml.var(WORD), qml.probs(["a", "b"]), qml.probs([3, "b"]),
            qml.probs(WIRES), qml.probs(op=qml.Y(0)), qml.expval(OBSERVABLES[0]),
        ]  # fmt: skip

    short, long = run(4, [50, 20000])
    again, other = run(4, [50, 20000])[0], run(5, [50, 20000])[0]
    assert str(short) == str(again) != str(other)
    assert short[6].shape == (50, 2) and sum(short[7].values()) == 50
    wanted = qml.QNode(exact, device())()
    for ours, theirs in zip([*long[:6], long[9]], [*wanted[:6], wanted[9]]):
        np.testing.assert_allclose(ours, theirs, atol=0.1)
    joint = np.bincount(long[6] @ [2, 1], minlength=4) / 20000
    np.testing.assert_allclose(joint, wanted[6], atol=0.02)
    np.testing.assert_allclose(
        [long[7].get(format(k, "05b"), 0) / 20000 for k in range(32)], wanted[7], atol=0.02
    )
    np.testing.assert_allclose([long[8][1.0] / 20000, long[8][-1.0] / 20000], wanted[8], atol=0.02)
    # Unseeded, the device listens to NumPy's seed.
    np.random.seed(3)
    first = run("global", 50)
    np.random.seed(3)
    assert str(run("global", 50)) == str(first)


def test_precision_and_threads_reach_the_library():
    def build():
        start()
        return qml.state()

    coarse = qml.QNode(build, device(precision="float", threads=2, accuracy="rounding"))()
    fine = qml.QNode(build, device())()
    assert coarse.dtype == np.complex64 and fine.dtype == np.complex128
    np.testing.assert_allclose(coarse, fine, atol=1e-6)


MISTAKES = [
    ({"precision": "half"}, {}, lambda: qml.expval(qml.Z(0)), "precision = 'half'"),
    ({"accuracy": "half"}, {}, lambda: qml.expval(qml.Z(0)), "accuracy = 'half'"),
    ({"threads": 0}, {}, lambda: qml.expval(qml.Z(0)), "threads = 0"),
    ({"seed": -1}, {}, lambda: qml.expval(qml.Z(0)), "negative"),
    ({}, {"mcm_method": "tree-traversal"}, lambda: qml.expval(qml.Z(0)), "tree-traversal"),
    ({}, {}, lambda: qml.sample(wires=[0]), "not accepted"),
    ({}, {}, lambda: (qml.DepolarizingChannel(0.1, 0), qml.expval(qml.Z(0)))[1], "not supported"),
    ({}, {}, lambda: (qml.measure(0, postselect=1), qml.probs([0]))[1], "probability 0"),
    ({}, {"device_option": 1}, lambda: qml.expval(qml.Z(0)), "device_option"),
]


@pytest.mark.parametrize("number", range(len(MISTAKES)))
def test_mistakes_are_device_errors(number):
    options, node, build, text = MISTAKES[number]
    extra = {"device_option": 1} if node.pop("device_option", None) else {}
    with pytest.raises(DeviceError, match=text):
        dev = device([0, 1], **options)
        if extra:
            dev.setup_execution_config(qml.devices.ExecutionConfig(device_options=extra))
        qml.QNode(build, dev, **node)()


def test_the_suite_of_pennylane():
    pytest.importorskip("pytest_mock")
    pytest.importorskip("flaky")
    command = [
        sys.executable, "-m", "pytest", get_device_tests(), "--device=pblinalg.qubit",
        "--shots=None", "-q", "-p", "no:cacheprovider", "--tb=short",
        "--no-flaky-report", "-W", "ignore", "--rootdir", get_device_tests(),
    ]  # fmt: skip
    result = subprocess.run(command, capture_output=True, text=True, timeout=600)
    assert result.returncode == 0, result.stdout[-4000:]
    assert " passed" in result.stdout
