"""Copies, pickles, threads and processes: every public object can be sent and shared."""

import copy
import multiprocessing
import pickle
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import pblinalg as pb
import pblinalg.lowlevel as low
from interpreter import run_python

KINDS = [getattr(low, name) for name in low.__all__ if isinstance(getattr(low, name), type)]
STATES, RECORDS, OBSERVABLES, TERMS = (
    [kind for kind in KINDS if kind.__name__.startswith(name)]
    for name in ("PybindLinAlgStateVectorCPU", "PybindLinAlgWCircuit", "WObservable", "SimpleTerm")
)


def every_gate() -> pb.Circuit:
    circuit = pb.Circuit(3, 4).h(0).u(0.1, 0.2, 0.3, 1, [2]).rx(0.5, 1).cx(0, 2).iswap(1, 2)
    circuit.unitary(np.diag([1, 1j, -1, 1]), [2, 0]).phase_oracle([1, 2], [0, 2]).measure(0, 3)
    with circuit.if_([3, 0], 2):
        circuit.cp(0.25, 0, 1)
        with circuit.if_(3):
            circuit.reset(2).x(2)
    circuit.measure([1, 2])
    circuit.registers = [1, 3]
    return circuit


def used_observable() -> pb.Observable:
    observable = pb.Observable({"XYZ": 0.5, "ZZI": -2.0, "III": 1})
    pb.StateVector(3).expectation(observable)
    return observable


def used_state(precision="float") -> pb.StateVector:
    state = pb.StateVector(3, precision, threads=2, seed=5).h(0).rx(0.3, 1).cx(0, 2)
    state.sample(3)
    return state


def released() -> pb.StateVector:
    state = pb.StateVector(2)
    state.release()
    return state


def mixed() -> pb.DensityMatrix:
    return pb.DensityMatrix(2, seed=3).h(0).cx(0, 1).depolarize(0.2, 0)


def described(thing):
    """All that can be seen of an object; later draws of its generator, too."""
    if isinstance(thing, pb.Circuit):
        steps = [repr(step).split(" object at")[0] for step in thing.steps]
        gates = [(*gate[:5], np.asarray(gate[5]).tolist()) for gate in thing]
        return steps, gates, thing.registers, thing.run(40, seed=1)
    if isinstance(thing, pb.Observable):
        return str(thing), pb.StateVector(3).h(0).expectation(thing)
    if isinstance(thing, pb.Counts):
        return dict(thing), thing.seed
    if isinstance(thing, pb.NoiseModel):
        return repr(thing), every_gate().run(40, seed=1, noise=thing)
    if isinstance(thing, SMALL):
        return [thing, getattr(thing, "steps", None)]
    if type(thing).__name__ in dir(low):
        return [(name, told(thing, name)) for name in dir(thing) if name in TELLING]
    if not thing.core.size:
        return "released"
    array = thing.to_array()
    options = (thing.precision, thing.threads, thing.seed)
    return array.dtype, array.tolist(), options, thing.sample_outcomes(50).tolist()


def conditional() -> pb.Conditional:
    circuit = pb.Circuit(2)
    with circuit.if_(1):
        circuit.h(0).rx(pb.Parameter("a"), 1).measure(0)
    return circuit.steps[0]


def noisy() -> pb.NoiseModel:
    noise = pb.NoiseModel().add(pb.Channel.depolarizing(0.3, 2), "cx", (0, 2))
    return noise.add_readout_error([[0.9, 0.1], [0.2, 0.8]], 1)


def told(thing, name):
    value = getattr(thing, name)
    return value.tolist() if isinstance(value, np.ndarray) else getattr(value, "position", value)


def lower_state(kind):
    state = kind(4)
    state.reset_to_str("1+-0")
    state.set_num_threads(3)
    state.density_matrix = True
    state.rng()
    return state


def lower_circuit(kind):
    circuit = kind(3)
    circuit.add_gate("RX", [0.3], [2])
    circuit.add_gate("CNOT", [], [0, 1])
    circuit.add_gate("unknown", [1], [9])
    return circuit


def lower_observable(kind):
    observable = kind([1, 2j], [1, 2], [3, 0], [1, 0], 4)
    observable.trailing_word = 7
    return observable


#: What tells objects of the lower level apart.
TELLING = (
    "state", "nqubits", "num_threads", "density_matrix", "rng", "gate_names", "gate_params",
    "gate_qubits", "coefficients", "flip_masks", "sign_masks", "phase_powers", "constant",
    "trailing_word", "qubits", "paulis", "coefficient", "parameters",
)  # fmt: skip
LOWER = [
    *(lambda k=k: lower_state(k) for k in STATES), *(lambda k=k: lower_circuit(k) for k in RECORDS),
    *(lambda k=k: lower_observable(k) for k in OBSERVABLES),
    *(lambda k=k: k([2, 0], "XY", 0.5) for k in TERMS), lambda: pb.Circuit(2).h(0).steps[0],
]  # fmt: skip
SMALL = (pb.Channel, pb.Conditional, pb.Gate, pb.Measure, pb.Parameter, pb.Reset)
MAKERS = [
    every_gate, used_observable, used_state, released, mixed, lambda: every_gate().run(50),
    conditional, lambda: next(iter(pb.Circuit(2).cx(0, 1))), lambda: pb.Measure(1, 0),
    lambda: pb.Reset(1), lambda: 2 * pb.Parameter("a") + 1, noisy,
    lambda: pb.Channel.phase_damping(0.3), lambda: pb.Channel.amplitude_damping(0.3),
]  # fmt: skip


@pytest.mark.parametrize(
    "duplicate",
    [copy.copy, copy.deepcopy, lambda thing: pickle.loads(pickle.dumps(thing))],
    ids=["copy", "deepcopy", "pickle"],
)
def test_every_object_duplicates_whole_and_independent(duplicate):
    public = {getattr(pb, name) for name in pb.__all__}
    assert {type(make()) for make in MAKERS} == {kind for kind in public if isinstance(kind, type)}
    # A generator belongs to its state and goes with it.
    generators = {low.GeneratorDouble, low.GeneratorFloat}
    assert {type(make()) for make in LOWER} == {*KINDS} - generators
    for make in MAKERS + LOWER:
        thing = make()
        twin = duplicate(thing)
        assert type(twin) is type(thing)
        assert described(twin) == described(thing)
    state = used_state()
    duplicate(state).x(0)
    assert described(state) == described(used_state())
    circuit = every_gate()
    with duplicate(circuit).if_(0) as twin:
        twin.x(0)
    assert described(circuit) == described(every_gate())


def test_a_copy_of_a_state_draws_numbers_of_its_own():
    state = used_state()
    other = state.copy()
    assert np.array_equal(other.amplitudes, state.amplitudes) and other.threads == 2
    assert other.seed != state.seed
    assert not np.array_equal(other.sample_outcomes(64), state.sample_outcomes(64))
    flipped = pb.StateVector(2).h(0).x(1)
    assert flipped.inner(pb.StateVector(2).h(0)) == 0 and np.isclose(flipped.inner(flipped), 1)


def run_seed(circuit_and_seed):
    circuit, seed = circuit_and_seed
    return circuit.run(30, seed=seed)


def test_one_circuit_runs_in_many_threads_and_in_other_processes():
    circuit = every_gate()
    expected = [circuit.run(30, seed=seed) for seed in range(40)]
    with ThreadPoolExecutor(8) as threads:
        assert list(threads.map(run_seed, [(circuit, seed) for seed in range(40)])) == expected
    large = pb.Circuit(16)
    for qubit in range(16):
        large.h(qubit).s(qubit)
    with ThreadPoolExecutor(8) as threads:
        counts = list(threads.map(run_seed, [(large, 3)] * 8))
    assert counts == [large.run(30, seed=3)] * 8
    with multiprocessing.get_context("spawn").Pool(1) as pool:
        assert pool.map(run_seed, [(circuit, 0), (circuit, 1)]) == expected[:2]
    with pytest.raises(RuntimeError, match="in use"):
        pb.StateVector(3).run(circuit, progress=lambda *_: circuit.steps[0].add("H", [0]))


def test_seeds_are_wide_told_and_repeatable():
    seeds = {pb.StateVector(1).seed for _ in range(2000)} | {pb.DensityMatrix(1).seed}
    assert len(seeds) == 2001 and max(seeds) > 1 << 60
    circuit = pb.Circuit(4).h(0).h(1).h(2).h(3)
    first = circuit.run(200)
    assert circuit.run(200, seed=first.seed) == first
    state = pb.StateVector(4).run(circuit)
    drawn = state.sample_outcomes(50)
    assert np.array_equal(state.reseed(state.seed).sample_outcomes(50), drawn)


def test_importing_brings_the_submodules_and_calm_workers():
    script = """
import os
before = dict(os.environ)
import pblinalg as pb
assert dict(os.environ) == before
assert {"qasm", "lowlevel", "run"} <= set(dir(pb))
assert pb.qasm.loads and pb.lowlevel.hardware_threads() >= 1
try:
    pb.nothing
except AttributeError as error:
    assert "nothing" in str(error)
"""
    for given, shown in (({}, "100"), ({"GOMP_SPINCOUNT": "7"}, "7")):
        env = {"PATH": "/usr/bin:/bin", "OMP_DISPLAY_ENV": "VERBOSE", **given}
        result = run_python("-c", script, env=env)
        assert f"GOMP_SPINCOUNT = '{shown}'" in result.stderr
