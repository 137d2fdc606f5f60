"""Probabilities, shots, collapse, observables and loading against dense arrays."""

import numpy as np
import pytest

import dense
import pblinalg as pb


@pytest.fixture
def state(precision, rng):
    return pb.StateVector(4, precision.name, seed=11).set_amplitudes(dense.random_state(rng, 4))


def marginal(amplitudes, qubits):
    weights = np.abs(amplitudes.reshape((2,) * 4)) ** 2
    rest = tuple(q for q in range(4) if q not in qubits)
    kept = sorted(qubits)
    return weights.sum(axis=rest).transpose([kept.index(q) for q in qubits]).reshape(-1)


def test_qubit_0_comes_first_in_everything_that_goes_in_or_out(precision):
    state = pb.StateVector(3, precision.name).x(0)
    assert state.to_dict() == {"100": 1}
    assert np.flatnonzero(state.to_array()) == [0b100]
    assert np.flatnonzero(state.amplitudes) == [0b001]
    assert state.sample(5) == {"100": 5} and state.sample(5, [2, 0]) == {"01": 5}
    assert state.sample_outcomes(2).tolist() == [4, 4]
    assert state.probability("100") == 1 and state.probability(1, [1, 0]) == 1
    assert state.probabilities([0, 2]).tolist() == [0, 0, 1, 0]
    assert state.measure() == "100" and state.measure([1, 0]) == "01"
    assert state.expectation("1.0*ZII") == -1 and state.expectation("1.0*IIZ") == 1
    assert state.set_product("01+").to_dict().keys() == {"010", "011"}
    assert str(pb.StateVector(2).x(1)) == "|01>  1+0j"


def test_probabilities_and_thresholds(precision, state):
    amplitudes = state.to_array()
    for qubits in ([0, 1, 2, 3], [3, 1], [2], [1, 0, 3], []):
        expected = marginal(amplitudes, qubits)
        one_by_one = [state.probability(outcome, qubits) for outcome in range(len(expected))]
        for found in (state.probabilities(qubits), one_by_one):
            np.testing.assert_allclose(found, expected, atol=4 * precision.tolerance)
    cut = float(np.median(np.abs(amplitudes)))
    assert len(state.to_dict(cut)) == 8
    mapped = state.core.get_mapped_distribution([2, 0])
    assert [mapped[i] for i in range(4)] == pytest.approx(state.probabilities([2, 0]), rel=1e-5)
    assert abs(state.norm() - 1) < 10 * precision.tolerance


def test_shots_follow_the_probabilities_and_the_seed_alone(precision, state):
    counts = state.sample(20000, [1, 3])
    expected = marginal(state.to_array(), [1, 3])
    shares = [counts.get(format(i, "02b"), 0) / 20000 for i in range(4)]
    np.testing.assert_allclose(shares, expected, atol=0.02)
    assert counts.shots == 20000 and list(counts) == sorted(counts)
    big = pb.Circuit(16)
    for qubit in range(16):
        big.ry(0.3 + qubit, qubit)
    seen = [big.run(500, precision=precision.name, threads=t, seed=9) for t in (1, 2, 1)]
    assert seen[0] == seen[1] == seen[2] != big.run(500, precision=precision.name, seed=10)
    first = state.reseed(4).sample_outcomes(50)
    assert np.array_equal(first, state.reseed(4).sample_outcomes(50))


def test_measuring_collapses_and_projecting_normalises(precision, state):
    amplitudes = state.to_array().reshape((2,) * 4)
    outcome = state.measure([2, 0])
    expected = np.zeros_like(amplitudes)
    expected[int(outcome[1]), :, int(outcome[0])] = amplitudes[int(outcome[1]), :, int(outcome[0])]
    expected /= np.linalg.norm(expected)
    np.testing.assert_allclose(state.to_array(), expected.reshape(-1), atol=4 * precision.tolerance)
    assert state.measure([2, 0]) == outcome
    state.reset([0, 2])
    np.testing.assert_allclose(state.probability("00", [0, 2]), 1, atol=10 * precision.tolerance)


def test_observables_are_compiled_computed_and_estimated(precision, state):
    observable = pb.Observable({"XYZI": 0.5, "IZZX": -1.5, "YIIY": 0.25, "IIII": 2.0})
    amplitudes = state.to_array().astype(complex)
    tolerance = 20 * precision.tolerance
    expected = np.vdot(amplitudes, observable.matrix() @ amplitudes).real
    assert abs(state.expectation(observable) - expected) < tolerance
    terms = state.expectation_terms(observable)
    assert abs(sum(terms.values()) + 2 - expected) < tolerance and len(terms) == 3
    value, error = state.estimate(observable, 40000)
    assert abs(value - expected) < 5 * error < 0.1
    assert np.allclose(state.to_array(), amplitudes, atol=20 * precision.tolerance)
    mixed = pb.DensityMatrix(4, precision.name).set_matrix(np.outer(amplitudes, amplitudes.conj()))
    assert abs(mixed.expectation(observable) - expected) < tolerance
    assert np.allclose(mixed.probabilities([3, 1]), state.probabilities([3, 1]), atol=tolerance)
    with pytest.raises(ValueError, match="even number"):
        state.resize(3).core.density_matrix = True
        state.probabilities()


def test_observables_survive_masks_and_text(rng):
    letters = ["".join(rng.choice(list("IXYZ"), 5)) for _ in range(20)]
    values = [complex(v) for v in rng.normal(size=20)] + [1e-30, 2e20, 0.5j]
    observable = pb.Observable(zip(letters + ["XXXXX", "YYYYY", "ZIZIZ"], values))
    observable += pb.Observable({"ZZZZZ": 1 - 2j})
    assert pb.Observable.parse(str(observable)) == observable
    assert pb.Observable.from_masks(5, *observable.masks()) == observable
    assert pb.Observable.parse("ZZ - 2XI+ (1+2j) * YY").terms == {"ZZ": 1, "XI": -2, "YY": 1 + 2j}
    doubled = 2 * observable - observable
    np.testing.assert_allclose(doubled.matrix(), observable.matrix())
    for wrong in ("", "ZZ XX", "1.0*", "q", "1..2*ZZ", "()ZZ"):
        with pytest.raises(ValueError, match="^observable"):
            pb.Observable.parse(wrong)


def test_loading_puts_data_where_the_listed_order_says(precision, rng):
    values = dense.random_state(rng, 2)
    for qubits in ([0, 2], [2, 0], [3, 1]):
        state = pb.StateVector(4, precision.name).prepare(values, qubits)
        expected = dense.embed(np.outer(values, [1, 0, 0, 0]), qubits, 4)[:, 0]
        np.testing.assert_allclose(state.to_array(), expected, atol=precision.tolerance)
    words = [2, 1, 3, 0]
    state = pb.StateVector(4, precision.name).h(3).h(1).load_words(words, [3, 1], [0, 2])
    shown = {f"{w >> 1}{a & 1}{w & 1}{a >> 1}" for a, w in enumerate(words)}
    assert state.to_dict(0.1).keys() == shown
    table = rng.normal(size=(2, 4))
    state = pb.StateVector(3, precision.name).h(1).load_amplitudes(table, [1], [2, 0])
    rows = table / np.linalg.norm(table, axis=1)[:, None] / np.sqrt(2)
    expected = {f"{d & 1}{a}{d >> 1}": rows[a, d] for a in range(2) for d in range(4)}
    for key, value in state.to_dict().items():
        assert abs(value - expected[key]) < 4 * precision.tolerance


def test_channels_act_as_their_kraus_operators(precision, rng):
    n = 3
    start = dense.random_state(rng, n)
    rho = np.outer(start, start.conj())
    operators = dense.random_unitary(rng, 8)[:, :4].reshape(2, 4, 4)
    for kraus, qubits in ((operators, [2, 0]), (operators, [0, 1])):
        mixed = pb.DensityMatrix(n, precision.name).set_matrix(rho).channel(kraus, qubits)
        full = [dense.embed(k, qubits, n) for k in kraus]
        expected = sum(k @ rho @ k.conj().T for k in full)
        np.testing.assert_allclose(mixed.to_array(), expected, atol=8 * precision.tolerance)
    half, new = np.eye(2) / 2, lambda: pb.DensityMatrix(1, precision.name)
    for mixed, expected in (
        (new().h(0).depolarize(1, 0), half),
        (new().x(0).amplitude_damping(0.25, 0), np.diag([0.25, 0.75])),
        (new().h(0).phase_flip(0.5, 0).bit_flip(0.1, 0), half),
        (new().h(0).phase_damping(0.19, 0), [[0.5, 0.45], [0.45, 0.5]]),
    ):
        np.testing.assert_allclose(mixed.to_array(), expected, atol=1e-6)
    assert abs(new().h(0).depolarize(1, 0).purity() - 0.5) < 1e-6


def test_density_matrices_collapse_like_the_states_that_they_are_made_of(precision, rng):
    for qubits, outcome in (([1], "1"), ([2, 0], "01"), ([0, 1, 2], "101")):
        pure = pb.StateVector(3, precision.name).set_amplitudes(dense.random_state(rng, 3))
        mixed = pb.DensityMatrix(3, precision.name, seed=4).set_state(pure)
        pure.project(outcome, qubits)
        expected = np.outer(pure, np.conj(pure))
        found = np.asarray(mixed.project(outcome, qubits))
        np.testing.assert_allclose(found, expected, atol=20 * precision.tolerance)
        assert mixed.measure(qubits) == outcome
    bell = pb.DensityMatrix(2, precision.name, seed=1).h(0).cx(0, 1)
    assert {bell.copy().reseed(seed).measure() for seed in range(20)} == {"00", "11"}
    bell.depolarize(0.3, [1, 0])
    plain = np.outer([1, 0, 0, 1], [1, 0, 0, 1]) / 2
    np.testing.assert_allclose(bell.to_array(), 0.7 * plain + 0.3 * np.eye(4) / 4, atol=1e-6)


def test_states_read_as_sequences_and_arrays_serve_as_lists_of_qubits(precision, state):
    amplitudes = state.to_array()
    assert len(state) == 16 and [state[i] for i in range(-16, 16)] == [*amplitudes, *amplitudes]
    assert state["0110"] == state[np.int64(6)] == amplitudes[6]
    assert np.array_equal(np.asarray(state), amplitudes)
    assert np.asarray(state).dtype == amplitudes.dtype
    listed, array = [2, 0], np.array([2, 0], np.uint8)
    assert np.array_equal(state.probabilities(listed), state.probabilities(array))
    assert state.copy().reseed(3).sample(50, listed) == state.copy().reseed(3).sample(50, array)
    for use in (
        lambda s, q: s.measure(q),
        lambda s, q: s.unitary(dense.ISWAP, q).h(3, controls=q).sdg(3, controls=q),
        lambda s, q: s.project("10", q).prepare([0, 0, 1j, 0], q),
        lambda s, q: s.reset(q).load_words([0, 3, 1, 2], np.array([1, 3]), q),
        lambda s, q: s.run(pb.Circuit(4).measure(q).phase_oracle([1], q).reset(q)),
    ):
        pair = [state.copy().reseed(3) for _ in range(2)]
        first, second = (use(s, q) for s, q in zip(pair, (listed, array)))
        assert isinstance(first, pb.StateVector) or first == second
        assert np.array_equal(pair[0].amplitudes, pair[1].amplitudes)


def test_text_of_the_lower_level(precision, capfd):
    state = precision.state([1, 0])
    state.print()
    assert capfd.readouterr().out == "0: (1,0)\n1: (0,0)\n" and state.str() == "(1,0) (0,0) "
    state.reset_to_str("-")
    assert state.get_mapped_statevector()[1].real < 0
    assert state.get_named_ctrl_gates() == "X Y Z H S T RX RY RZ PH".split()
