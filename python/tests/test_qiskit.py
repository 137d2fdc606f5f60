"""Qiskit's interfaces against Qiskit's own simulation of the same circuits."""

import numpy as np
import pytest

import pblinalg as pb
from interpreter import run_python

qiskit = pytest.importorskip("qiskit", reason="Qiskit is an optional extra")
from qiskit import ClassicalRegister, QuantumCircuit, QuantumRegister, transpile
from qiskit.circuit import (
    AnnotatedOperation,
    ControlledGate,
    ControlModifier,
    InverseModifier,
    Parameter,
    ParameterVector,
    PowerModifier,
    library,
)
from qiskit.circuit.library.standard_gates import get_standard_gate_name_mapping
from qiskit.primitives import StatevectorEstimator, StatevectorSampler
from qiskit.providers import JobStatus
from qiskit.quantum_info import SparsePauliOp, Statevector, random_clifford, random_unitary
from qiskit.synthesis import SuzukiTrotter

from pblinalg.qiskit import Backend, Estimator, Sampler, SimulationError, statevector

STANDARD = {
    name: gate
    for name, gate in get_standard_gate_name_mapping().items()
    if name not in ("delay", "measure", "reset")
}


def prepared(rng, num_qubits, num_clbits=0):
    """A circuit whose amplitudes all differ."""
    circuit = QuantumCircuit(num_qubits, num_clbits, global_phase=rng.normal())
    for qubit in range(num_qubits):
        circuit.u(*rng.normal(size=3), qubit)
    return circuit


def random_gate(rng, parameters):
    """Any standard gate, sometimes under more controls or in a gate of its own."""
    gate = STANDARD[rng.choice(list(STANDARD))].to_mutable()
    angles = [*rng.normal(size=4), 2 * parameters[0] - 0.3, parameters[1], parameters[2] ** 2]
    angles.append(parameters[0] * parameters[1])
    gate.params = [angles[rng.integers(len(angles))] for _ in gate.params]
    if isinstance(gate, ControlledGate):
        gate.ctrl_state = int(rng.integers(2**gate.num_ctrl_qubits))
    kind = rng.integers(4)
    if kind == 0 and gate.num_qubits < 4:
        inner = QuantumCircuit(gate.num_qubits, global_phase=0.4)
        inner.append(gate, rng.permutation(gate.num_qubits).tolist())
        gate = inner.to_gate()
    if kind < 2 and gate.num_qubits < 4:
        controls = int(rng.integers(1, 5 - gate.num_qubits))
        gate = gate.control(controls, ctrl_state=int(rng.integers(2**controls)), annotated=True)
    return gate


@pytest.mark.parametrize("seed", range(20))
def test_random_circuits_give_the_amplitudes_of_qiskit(seed):
    rng = np.random.default_rng(seed)
    for _ in range(10):
        parameters = ParameterVector("p", 3)
        circuit = prepared(rng, 5)
        for _ in range(12):
            gate = random_gate(rng, parameters)
            circuit.append(gate, rng.permutation(5)[: gate.num_qubits].tolist())
        values = rng.normal(size=circuit.num_parameters)
        expected = Statevector(circuit.assign_parameters(values)).data
        np.testing.assert_allclose(statevector(circuit, values), expected, atol=1e-12)


def special_gates(rng):
    """Operations that are translated in ways of their own."""
    amplitudes = rng.normal(size=8) + 1j * rng.normal(size=8)
    amplitudes /= np.linalg.norm(amplitudes)
    paulis = SparsePauliOp(["XYZ", "IZX", "YII", "ZIY", "III", "XIX"], rng.normal(size=6))
    flip = library.UnitaryGate(random_unitary(4, seed=3))
    yield library.UnitaryGate(random_unitary(8, seed=1))
    yield flip.control(1, ctrl_state=0)
    yield library.DiagonalGate(np.exp(1j * rng.normal(size=8)).tolist())
    yield library.DiagonalGate(np.exp(1j * rng.normal(size=4)).tolist()).control(1, annotated=True)
    yield library.PauliEvolutionGate(paulis, time=0.7)
    yield library.PauliEvolutionGate(paulis, 0.7, synthesis=SuzukiTrotter(2, reps=2))
    yield library.PauliGate("XYZ")
    yield library.PermutationGate([2, 0, 1])
    yield library.StatePreparation(amplitudes)
    yield library.StatePreparation(amplitudes).inverse()
    yield library.StatePreparation("01r"[::-1])
    yield library.QFTGate(3)
    yield random_clifford(3, seed=1)
    yield AnnotatedOperation(
        flip, [InverseModifier(), ControlModifier(1, 0), PowerModifier(3), InverseModifier()]
    )
    for powers in ([-0.5], [2, 0.5], [-1, 0.5], [-3]):
        modifiers = [InverseModifier(), *map(PowerModifier, powers), ControlModifier(2, 1)]
        yield AnnotatedOperation(library.YGate(), modifiers)
        yield AnnotatedOperation(library.SXGate(), modifiers)
    yield library.MCXGate(2, ctrl_state=1)


def test_special_operations_give_the_amplitudes_of_qiskit(rng):
    for gate in special_gates(rng):
        for start in (prepared(rng, 4), QuantumCircuit(4)):
            reference, places = start.copy(), [2, 0, 3][: gate.num_qubits]
            # What an evolution is, its synthesis says.
            evolves = isinstance(gate, library.PauliEvolutionGate)
            reference.append(gate.definition if evolves else gate, places)
            start.append(gate, places)
            np.testing.assert_allclose(
                statevector(start), Statevector(reference).data, atol=1e-12, err_msg=str(gate)
            )


def test_loaded_states_take_a_gate_for_each_qubit_and_not_more():
    rng = np.random.default_rng(8)
    amplitudes = rng.normal(size=1 << 12) * (rng.random(1 << 12) < 0.3) + 0j
    amplitudes /= np.linalg.norm(amplitudes)
    circuit = QuantumCircuit(13)
    circuit.x([2, 3])
    circuit.initialize(amplitudes, [*range(3, 13), 1, 0])
    assert len(pb.from_qiskit(circuit)) == 2 + 3 * 12 + 1
    # Axis q is qubit q; qubit 2 stays |1>.
    found = statevector(circuit).reshape((2,) * 13).transpose(range(12, -1, -1))
    expected = np.zeros((2,) * 13, dtype=complex)
    expected[:, :, 1] = amplitudes.reshape((2,) * 12).transpose([0, 1, *range(11, 1, -1)])
    np.testing.assert_allclose(found, expected, atol=1e-14)


def test_transpiling_leaves_native_gates_alone():
    backend = Backend()
    for level in (0, 1):
        for name in backend.operation_names:
            if name not in STANDARD or (level and name in ("id", "global_phase")):
                continue
            gate = STANDARD[name].to_mutable()
            gate.params = [0.1 + 0.2 * i for i, _ in enumerate(gate.params)]
            circuit = QuantumCircuit(4)
            circuit.append(gate, range(gate.num_qubits))
            found = transpile(circuit, backend, optimization_level=level)
            assert (found.num_qubits, found.count_ops()) == (4, {name: 1})
    dynamic = QuantumCircuit(7, 2)
    dynamic.mcx([0, 1, 2, 3, 4], 5)
    dynamic.initialize([0.6, 0.8], 6)
    dynamic.unitary(random_unitary(8, seed=1), [0, 4, 2])
    with dynamic.for_loop(range(2)), dynamic.if_test((dynamic.cregs[0], 2)):
        dynamic.reset(1)
        dynamic.delay(3, 2)
    dynamic.rcccx(0, 1, 2, 3)
    names = transpile(dynamic, backend, optimization_level=0).count_ops()
    assert {"mcx", "initialize", "unitary", "for_loop"} < set(names) and "rcccx" not in names
    assert backend.num_qubits >= 20


def measured_circuit(rng):
    """Bits of three registers, and parameters in an angle of each kind."""
    a, b = Parameter("a"), Parameter("b")
    sizes = {"low": 2, "wide": 9, "c": 1}
    registers = [ClassicalRegister(size, name) for name, size in sizes.items()]
    circuit = QuantumCircuit(QuantumRegister(3), *registers)
    circuit.ry(2 * a, 0)
    circuit.rx(a * b + 0.1, 1)
    circuit.cx(1, 2)
    circuit.ry(b - 0.2, 2)
    circuit.measure([2, 0, 1], [registers[0][1], registers[1][8], registers[2][0]])
    return circuit


def test_sampler_agrees_with_the_reference(rng):
    circuit, values = measured_circuit(rng), rng.normal(size=(2, 3, 2))
    pubs = [(circuit, values), circuit.assign_parameters([1, 2]), (circuit, [[1, 2]] * 2, 50)]
    ours = Sampler(seed=3).run(pubs, shots=20000)
    theirs = StatevectorSampler(seed=4).run([(circuit, values)], shots=20000).result()[0]
    first, second, same = ours.result()
    assert not np.array_equal(*same.data.low.array)
    assert second.data.shape == () and second.metadata["shots"] == 20000
    for name in ("low", "wide", "c"):
        found, expected = first.data[name], theirs.data[name]
        assert found.array.shape == expected.array.shape and found.num_bits == expected.num_bits
    for place in np.ndindex(2, 3):
        counts = [pub.join_data().get_counts(place) for pub in (first, theirs)]
        for key in counts[0] | counts[1]:
            shares = [count.get(key, 0) / 20000 for count in counts]
            assert abs(shares[0] - shares[1]) < 5 * np.sqrt(2 * max(shares) / 20000), (place, key)
    again = Sampler(seed=3).run([(circuit, values)], shots=20000).result()[0].data
    assert np.array_equal(again.low.array, first.data.low.array)


def test_estimator_agrees_with_the_reference(rng):
    circuit = measured_circuit(rng).remove_final_measurements(inplace=False)
    values = rng.normal(size=(3, 1, 2))
    observables = [
        SparsePauliOp(["XYZ", "IIZ", "III"], [0.5, -2, 0.3]),
        {"ZII": 1.5},
        SparsePauliOp(["IXI", "YYI"], [1, 2]),
        "IZZ",
    ]
    pubs = [(circuit, observables, values), (circuit, "XII", [0.1, 0.2])]
    for precision in (0.0, 0.25):
        job = Estimator(seed=5).run(pubs, precision=precision)
        expected = StatevectorEstimator(seed=5).run(pubs, precision=precision).result()
        for ours, theirs in zip(job.result(), expected):
            np.testing.assert_allclose(ours.data.evs, theirs.data.evs, atol=1e-13)
            assert ours.data.evs.shape == theirs.data.evs.shape
            assert np.all(ours.data.stds == precision)
    theirs = StatevectorEstimator().run(pubs).result()[0].data.evs
    single = Estimator(precision="float", threads=2, default_precision=0.0).run(pubs).result()
    np.testing.assert_allclose(single[0].data.evs, theirs, atol=1e-5)


def test_estimator_knows_projectors_and_follows_every_course():
    circuit = QuantumCircuit(3, 1)
    circuit.ry(0.8, 0)
    circuit.h(1)
    circuit.measure(0, 0)
    with circuit.if_test((0, 1)):
        circuit.s(1)
        circuit.x(2)
    circuit.reset(0)
    share = np.sin(0.4) ** 2
    wanted = {"1rI": share, "0+I": 1 - share, "IYI": share, "ZXI": 1 - share, "IIZ": 1, "III": 2}
    found = Estimator().run([(circuit, [{key: 1.0} for key in wanted])]).result()[0].data.evs
    expected = [share, 1 - share, share, 1 - share, 1, 1]
    np.testing.assert_allclose(found, expected, atol=1e-14)
    for _ in range(13):
        circuit.h(0)
        circuit.reset(0)
    with pytest.raises(SimulationError, match="takes more than 4096 courses"):
        Estimator().run([(circuit, "IIZ")]).result()


def test_backend_returns_results_in_qiskits_form():
    low, high = ClassicalRegister(2, "low"), ClassicalRegister(3, "high")
    first, second = QuantumCircuit(QuantumRegister(3), low, high), QuantumCircuit(2, 2)
    first.x([0, 2])
    first.h(1)
    first.reset(1)
    first.measure([0, 1, 2], [low[1], high[0], high[2]])
    first.x(0)
    second.h(0)
    second.cx(0, 1)
    second.measure(0, 0)
    with second.if_test((0, 1)):
        second.x(1)
    second.measure(1, 1)
    backend = Backend(seed=1)
    job = backend.run(transpile([first, second], backend), shots=100, memory=True)
    result = job.result()
    assert job.status() is JobStatus.DONE and result.success
    assert result.get_counts(0) == {"100 10": 100} and result.get_memory(0) == ["100 10"] * 100
    counts = result.get_counts(1)
    assert set(counts) == {"00", "01"} and 20 < counts["00"] < 80
    memory = result.get_memory(second)
    assert memory.count("00") == counts["00"] and memory != sorted(memory)
    for options in ({}, {"precision": "float", "threads": 1}):
        again = backend.run([first, second], shots=100, memory=True, **options).result()
        assert again.get_memory(1) == memory
    assert backend.run(second, seed_simulator=2).result().get_counts() != counts
    seeded = qiskit.primitives.BackendSamplerV2(backend=Backend(seed=3)).run([first]).result()
    assert seeded[0].data.high.get_counts() == {"100": 1024}


def test_loops_end_where_their_conditions_say():
    """Bits count rounds; the number of shots that leave a loop in a round halves."""
    tossing, counting = QuantumCircuit(2, 5), QuantumCircuit(2, 5)
    with tossing.while_loop((0, 0)):
        with tossing.if_test((1, 1)):
            tossing.measure(1, 2)
        tossing.h(0)
        tossing.measure(0, 0)
        tossing.x(1)
        tossing.measure(1, 1)
        with tossing.if_test((0, 0)):
            tossing.reset(0)
            tossing.continue_loop()
        tossing.measure(1, 4)
    with counting.for_loop(range(5)):
        counting.x(0)
        counting.measure(0, 0)
        with counting.if_test((0, 1)) as otherwise:
            counting.x(1)
            counting.measure(1, 1)
            counting.measure(0, 2)
        with otherwise:
            counting.measure(1, 3)
        with counting.if_test((3, 1)):
            counting.break_loop()
        counting.measure(0, 4)
    found = Backend(seed=2).run([tossing, counting], shots=4000).result()
    counts = found.get_counts(0)
    # One round, an even number of them, any other number.
    expected = {"10011": 1 / 2, "00101": 1 / 3, "10111": 1 / 6}
    assert counts.keys() == expected.keys()
    assert all(abs(counts[key] - 4000 * share) < 150 for key, share in expected.items())
    assert found.get_counts(1) == {"11110": 4000}
    values = Estimator().run([(tossing, ["ZI", "IZ"])]).result()[0].data.evs
    np.testing.assert_allclose(values, [-1 / 3, -1], atol=1e-12)


def test_errors_are_qiskits_and_say_what_is_wrong():
    open_angle, looping, opaque, measured = (QuantumCircuit(1, 1) for _ in range(4))
    open_angle.rx(Parameter("theta"), 0)
    with looping.while_loop((0, 0)):
        looping.h(0)
    opaque.append(qiskit.circuit.Gate("mystery", 1, []), [0])
    backend = Backend()
    for action, text in (
        (lambda: backend.run(open_angle).result(), "parameters without a value: theta"),
        (lambda: backend.run(looping).result(), "'while_loop' was not over after 200 rounds"),
        (lambda: statevector(looping), "'while_loop' was not over"),
        (lambda: backend.run(opaque).result(), "'mystery' is declared but has no definition"),
        (lambda: backend.run("circuit").result(), "must be a qiskit QuantumCircuit"),
        (lambda: backend.run(looping, shots=-1).result(), "shots = -1: expected at least 0"),
        (lambda: backend.run(measured, precision="half").result(), "precision = 'half'"),
        (lambda: statevector(open_angle), r"values has shape \(0,\); expected .* 1 parameters"),
        (lambda: Sampler(threads=0).run([QuantumCircuit(1, 1)]).result(), "threads = 0"),
    ):
        with pytest.raises(SimulationError, match=text):
            action()
    assert issubclass(SimulationError, qiskit.QiskitError)
    with pytest.warns(UserWarning, match="option 'shot' is not used"):
        backend.run(QuantumCircuit(1), shot=3).result()
    text = "import sys; sys.modules['qiskit'] = None\nimport pblinalg\n"
    text += "try:\n import pblinalg.qiskit\nexcept ImportError as error:\n print(error)"
    assert "pip install 'pblinalg[qiskit]'" in run_python("-c", text).stdout


def test_long_jobs_can_be_cancelled():
    circuit = QuantumCircuit(20, 1)
    for _ in range(2000):
        circuit.rx(0.1, range(20))
    job = Backend().run(circuit)
    assert job.cancel()
    with pytest.raises(SimulationError, match="cancelled"):
        job.result()
    assert job.status() is JobStatus.CANCELLED


#: Shares of what those public benchmarks read at 5 qubits that measure on their way.
DYNAMIC = {
    "dynamic_qft": {format(i, "05b"): 1 / 32 for i in range(32)},
    "ghz_dynamic": {f"{i:02b} {bit * 5}": 1 / 8 for i in range(4) for bit in "01"},
    "iqpe": {"1001": 1.0},
}


def test_public_benchmarks_agree():
    bench = pytest.importorskip("mqt.bench", reason="MQT Bench is for tests alone")
    from mqt.bench.benchmarks import get_available_benchmark_names

    seen = 0
    for name in get_available_benchmark_names():
        for size in (5, 6, 8, 7):
            try:
                circuit = bench.get_benchmark(name, bench.BenchmarkLevel.INDEP, size)
                break
            except ValueError:  # this one comes in other sizes
                continue
        else:
            continue
        seen += 1
        if name in DYNAMIC:
            counts = Backend(seed=1).run(circuit, shots=4000).result().get_counts()
            assert counts.keys() == DYNAMIC[name].keys()
            for key, share in DYNAMIC[name].items():
                assert abs(counts[key] / 4000 - share) < 5 * np.sqrt(share / 4000), (name, key)
            continue
        circuit.remove_final_measurements()
        basic = transpile(circuit, basis_gates=["u", "cx"], optimization_level=0)
        expected = Statevector(basic).data
        np.testing.assert_allclose(statevector(circuit), expected, atol=1e-12, err_msg=name)
    assert seen > 30
