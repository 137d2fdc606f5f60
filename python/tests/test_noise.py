"""Noise: channels by their definitions, and trajectories against exact density matrices."""

import numpy as np
import pytest

import dense
import pblinalg as pb

C = pb.Channel
SHOTS = 4000

#: Every kind of channel, on one qubit and on two, and one whose operators are all likely.
CHANNELS = {
    "depolarizing": C.depolarizing(0.2),
    "pair depolarizing": C.depolarizing(0.3, num_qubits=2),
    "bit flip": C.bit_flip(0.15),
    "phase flip": C.phase_flip(0.25),
    "pauli": C.pauli({"X": 0.05, "Y": 0.1, "Z": 0.2}),
    "pair pauli": C.pauli({"XY": 0.1, "IZ": 0.2, "YI": 0.05}),
    "amplitude damping": C.amplitude_damping(0.3),
    "complete damping": C.amplitude_damping(1),
    "phase damping": C.phase_damping(0.4),
    "thermal relaxation": C.thermal_relaxation(50e-6, 70e-6, 20e-6),
    "mixture": C.mixture([dense.H, dense.rotation(dense.Y, 0.8)], [0.4, 0.6]),
    "pair mixture": C.mixture([np.eye(4), dense.ISWAP], [0.7, 0.3]),
    "projection": C([(np.eye(2) + s * dense.X) / 2 for s in (1, -1)]),
    "pair kraus": C(
        [
            np.kron(a, b)
            for a in C.amplitude_damping(0.2).operators
            for b in C.amplitude_damping(0.5).operators
        ]
    ),
    "isometry": C([k.reshape(4, 4) for k in np.linalg.qr(
        np.random.default_rng(5).normal(size=(12, 4))
        + 1j * np.random.default_rng(6).normal(size=(12, 4))
    )[0].reshape(3, 4, 4)]),
}  # fmt: skip


def prepared():
    circuit = pb.Circuit(3).ry(0.9, 0).cx(0, 1).u(0.7, 0.2, 0.4, 1).rx(1.2, 2).cz(1, 2)
    return circuit.h(0).cx(2, 0).ry(0.5, 1)


def chi_square_score(counts, probabilities):
    """How many standard deviations the statistic is above its mean; rare outcomes are pooled."""
    shots = counts.shots
    order = np.argsort(probabilities)
    seen = np.array([counts.get(format(i, "03b"), 0) for i in order])
    expected = shots * probabilities[order]
    while len(expected) > 1 and expected[0] < 5:
        seen[1] += seen[0]
        expected[1] += expected[0]
        seen, expected = seen[1:], expected[1:]
    freedom = len(expected) - 1
    if freedom == 0:
        return 0.0
    statistic = float(((seen - expected) ** 2 / expected).sum())
    # Wilson and Hilferty: the cube root is close to normal.
    spread = 2 / (9 * freedom)
    return ((statistic / freedom) ** (1 / 3) - (1 - spread)) / spread**0.5


@pytest.mark.parametrize("name", CHANNELS)
def test_trajectories_agree_with_the_exact_channel(name, precision):
    channel = CHANNELS[name]
    gates = ["ry", "cx", "cz"][channel.num_qubits - 1 :]
    noise = pb.NoiseModel().add(channel).add(channel, gates=gates)
    exact = pb.DensityMatrix(3).run(prepared(), noise=noise)
    ideal = pb.StateVector(3).run(prepared())
    options = {"precision": precision.name, "seed": 17, "noise": noise}
    counts = prepared().run(SHOTS, **options)
    assert counts.shots == SHOTS
    assert chi_square_score(counts, exact.probabilities()) < 4
    for observable in ("Z0 + X1", "YXZ", "X0Y2"):
        value, error = pb.estimate(prepared(), observable, SHOTS // 4, **options)
        rounding = 100 * precision.tolerance
        assert abs(value - exact.expectation(observable)) <= 5 * error + rounding and error < 0.1
    # What is compared has something to show: the noise is not lost in the shots.
    assert np.abs(exact.probabilities() - ideal.probabilities()).sum() > 0.02


def test_a_seed_gives_the_same_shots_for_any_number_of_threads_and_of_shots(precision):
    noise = pb.NoiseModel().add(C.amplitude_damping(0.1)).add(C.depolarizing(0.1, 2), qubits=(1, 0))
    noise.add_readout_error([[0.9, 0.1], [0.2, 0.8]], 1)
    circuit = prepared().measure(0).reset(1)
    with circuit.if_(0):
        circuit.h(1).cx(1, 2)
    circuit.measure([0, 1, 2])
    options = {"precision": precision.name, "noise": noise}
    runs = [circuit.run(500, seed=3, threads=t, **options) for t in (1, 2, 3)]
    assert runs[0] == runs[1] == runs[2] != circuit.run(500, seed=4, **options)
    assert runs[0].seed == 3
    first, more = (circuit.run(shots, seed=3, **options) for shots in (499, 500))
    assert more.shots == first.shots + 1 and all(more[key] >= first[key] for key in first)
    means = [pb.estimate(circuit, "ZZZ", 300, seed=3, threads=t, **options) for t in (1, 2, 3)]
    assert means[0] == means[1] == means[2]


def test_channels_are_what_they_are_called():
    rho = np.array([[0.3, 0.2 - 0.1j], [0.2 + 0.1j, 0.7]])
    off = rho[0, 1]

    def after(channel):
        return sum(k @ rho @ k.conj().T for k in channel.operators)

    def matrix(one, coherence):
        return np.array([[1 - one, coherence], [np.conj(coherence), one]])

    t1, t2, time = 3.0, 4.0, 1.5
    kept = np.exp(-time / t1)
    for channel, expected in (
        (C.depolarizing(0.2), 0.8 * rho + 0.1 * np.eye(2)),
        (C.bit_flip(0.2), 0.8 * rho + 0.2 * dense.X @ rho @ dense.X),
        (C.phase_flip(0.2), matrix(0.7, 0.6 * off)),
        (C.pauli({"Y": 0.2}), 0.8 * rho + 0.2 * dense.Y @ rho @ dense.Y),
        (C.amplitude_damping(0.2), matrix(0.56, 0.8**0.5 * off)),
        (C.phase_damping(0.2), matrix(0.7, 0.8**0.5 * off)),
        (C.thermal_relaxation(t1, t2, time), matrix(0.7 * kept, np.exp(-time / t2) * off)),
        (C.thermal_relaxation(t1, 2 * t1, time), after(C.amplitude_damping(1 - kept))),
    ):
        np.testing.assert_allclose(after(channel), expected, atol=1e-15, err_msg=repr(channel))
    assert C.bit_flip(0.1) != C.bit_flip(0.2) and C.bit_flip(0.1).probabilities == (0.9, 0.1)


def test_channels_follow_the_gates_that_rules_name():
    # Certain flips show where a rule applies.
    flip, pair = C.bit_flip(1), C.pauli({"XI": 1})
    ccx = pb.Circuit(4).x(3).x(1, [0, 2]).h(0).h(0)
    for noise, expected in (
        (pb.NoiseModel().add(flip, "x"), "0000"),
        (pb.NoiseModel().add(flip), "1000"),
        (pb.NoiseModel().add(flip, qubits=0), "1001"),
        (pb.NoiseModel().add(flip, "ccx"), "1111"),
        (pb.NoiseModel().add(flip, ["ccx", "h"], [1, 2]), "0111"),
        (pb.NoiseModel().add(pair), "0001"),
    ):
        assert ccx.run(20, seed=1, noise=noise) == {expected: 20}
    swapped = pb.Circuit(2).cx(1, 0)
    both = [(0, 1), (1, 0)]
    for places, expected in (((0, 1), "10"), ([(1, 0)], "01"), (both, "11"), (None, "01")):
        assert swapped.run(9, noise=pb.NoiseModel().add(pair, "cx", places)) == {expected: 9}
    # In conditions, after the bits were read wrongly, and in the order of the rules.
    circuit = pb.Circuit(2).x(0).measure(0)
    with circuit.if_(0, 0):
        circuit.x(1)
    circuit.measure(1)
    noise = pb.NoiseModel().add_readout_error([[1, 0], [1, 0]], 0).add(flip, "x", 1)
    assert circuit.run(9, noise=noise) == {"00": 9}
    damped = pb.NoiseModel().add(flip, "x").add(C.amplitude_damping(1), "x")
    assert pb.Circuit(1).x(0).x(0).run(9, noise=damped) == {"0": 9}


def test_readout_errors_confuse_what_is_read(precision):
    tables = [np.array([[0.9, 0.1], [0.3, 0.7]]), np.array([[0.8, 0.2], [0.05, 0.95]])]
    noise = pb.NoiseModel().add_readout_error(tables[0]).add_readout_error(tables[1], [1])
    assert np.array_equal(noise.readout_error(1), tables[1])
    assert np.array_equal(noise.readout_error(7), tables[0])
    true = pb.StateVector(3).run(prepared()).probabilities()
    confusion = np.kron(np.kron(tables[0], tables[1]), tables[0])
    counts = prepared().run(SHOTS, seed=2, noise=noise, precision=precision.name)
    assert chi_square_score(counts, true @ confusion) < 4
    # Read again, the qubit is what it was, and errs anew.
    again = pb.Circuit(2, 3).h(0).measure(0, 0).measure(0, 1).measure(0, 2)
    counts = again.run(SHOTS, seed=5, noise=noise)
    joint = sum(0.5 * np.kron(np.kron(row, row), row) for row in tables[0])
    assert chi_square_score(counts, joint) < 4


def test_one_run_serves_all_trajectories_that_drew_no_error():
    noise = pb.NoiseModel().add(C.depolarizing(1e-9))
    value, error = pb.estimate(prepared(), "ZZI", 100000, noise=noise, seed=1)
    exact = pb.StateVector(3).run(prepared()).expectation("ZZI")
    assert error == 0 and value == pytest.approx(exact)
    a = pb.Parameter("a")
    circuit = pb.Circuit(1).ry(a, 0).measure(0)
    mean, error = pb.estimate(circuit, "X", 2000, values=[1.2], seed=1)
    # What was measured has no coherence left.
    assert abs(mean) <= 5 * error
    turned = pb.Circuit(1).ry(a, 0)
    assert pb.estimate(turned, "X", 2, values=[1.2]) == (pytest.approx(np.sin(1.2)), 0)


def test_norms_survive_many_weak_operators(precision):
    # Usual operators of damping, which are not unitary, pile up over thousands of gates.
    circuit = pb.Circuit(2).x(0)
    for _ in range(1500):
        circuit.z(0).h(1)
    rate = 2e-3
    noise = pb.NoiseModel().add(C.amplitude_damping(rate), "z").add(C.amplitude_damping(0.01), "h")
    counts = circuit.run(500, seed=3, noise=noise, precision=precision.name)
    kept = sum(times for key, times in counts.items() if key[0] == "1")
    expected = 500 * (1 - rate) ** 1500
    assert abs(kept - expected) < 5 * expected**0.5
