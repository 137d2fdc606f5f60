"""A user's program that type checkers must accept in their strict modes. It uses what is public;
`test_documentation.py` checks and runs it."""

from __future__ import annotations

import copy

import numpy as np
from numpy.typing import NDArray

import pblinalg as pb


def prepared(n: int, precision: pb.Precision) -> pb.StateVector:
    state = pb.StateVector(n, precision, threads=1, seed=7)
    for qubit in np.arange(n):
        state.h(qubit).rz(0.5, qubit)
    return state.cx(0, 1).u(0.1, 0.2, 0.3, 2, controls=[0]).unitary(np.eye(4), np.array([1, 2]))


def teleported() -> pb.Circuit:
    circuit = pb.Circuit(3, 3).ry(0.8, 0).h(1).cx(1, 2).cx(0, 1).h(0).measure([0, 1], (0, 1))
    with circuit.if_(1):
        circuit.x(2)
    with circuit.if_([0, 1], 3) as same:
        same.z(2)
    return circuit.reset(0).compose(pb.Circuit(3).p(0.1, 2)).copy()


def energy(state: pb.StateVector | pb.DensityMatrix, observable: pb.Observable) -> float:
    exact: float = state.expectation(observable)
    value, error = state.estimate(observable, 1000)
    assert abs(value - exact) < 6 * error + 1e-9
    return exact


def looked_at(circuit: pb.Circuit) -> str:
    operations: dict[str, int] = circuit.count_ops()
    depth: int = circuit.depth()
    assert depth <= sum(operations.values())
    unitary: NDArray[np.complex128] = pb.Circuit(1).h(0).matrix()
    flipped = pb.Observable("X0 + 2", 1) @ pb.Observable("Z") / 2 - 1
    array: NDArray[np.complex128] = flipped.apply(unitary[0])
    assert array.shape == (2,)
    counts = circuit.run(20) + circuit.run(20).copy()
    mean: float = counts.marginal([0, 2]).expectation({"ZZ": 1.0})
    return f"{mean} {circuit.draw('svg', width=300)} {circuit.to_qasm(3)}"


def main() -> None:
    assert "<svg" in looked_at(teleported())
    state = prepared(3, "double")
    array: NDArray[np.complexfloating] = state.to_array()
    probabilities: NDArray[np.floating] = state.probabilities([0, np.int64(1)])
    amplitude: complex = state[3]
    assert abs(amplitude - state["011"]) == 0 and len(state) == array.size
    assert abs(float(probabilities.sum()) - 1) < 1e-12
    counts: pb.Counts = state.sample(100, np.array([2, 0]))
    best, times = counts.most_common(1)[0]
    assert len(best) == 2 and times > 0 and counts.shots == 100
    outcomes: NDArray[np.uint64] = state.sample_outcomes(5)
    assert outcomes.shape == (5,)

    observable = 2 * pb.Observable({"ZZI": 1.0, "IXX": -0.5}) - pb.Observable("ZII")
    energy(state, observable)
    terms: dict[str, complex] = state.expectation_terms(observable)
    assert "ZZI" in terms

    mixed = pb.DensityMatrix(3).set_state(state).depolarize(0.1, [0, 1]).phase_damping(0.2, 2)
    energy(mixed.channel([np.eye(2)], 0), observable)
    read: str = mixed.copy().measure()
    assert len(read) == 3 and mixed.purity() < 1

    angle = pb.Parameter("angle")
    rotated = pb.Circuit(2).ry(angle, 0).cx(0, 1)
    energies: NDArray[np.float64] = pb.sweep(rotated, [[0.1], [0.2]], ["ZZ", {"XX": 0.5}])
    rows: NDArray[np.floating] = pb.sweep(rotated, {angle: [1, 2]}, probabilities=True, qubits=0)
    drawn: list[pb.Counts] = pb.sweep(rotated, {"angle": np.ones(3)}, shots=5, seed=1)
    assert energies.shape == rows.shape == (2, 2) and len(drawn) == 3
    entropy: float = state.entanglement_entropy([0]) + mixed.entropy()
    reduced: NDArray[np.complex128] = state.reduced_density_matrix([2, 0])
    assert entropy > 0 and reduced.shape == (4, 4) and state.fidelity(mixed) < 1

    circuit = teleported()
    result = circuit.run(50, precision="single", seed=3)
    seed: int | None = result.seed
    assert seed == 3 and pb.run(circuit, 50, "single", seed=seed) == result
    gates = [gate.name for gate in circuit]
    assert len(gates) == len(circuit) and bool(circuit)
    inverted: pb.Circuit = pb.Circuit(2).h(0).cx(0, 1).inverse()
    back = copy.deepcopy(pb.StateVector(2)).run(inverted, progress=lambda done, total: None)
    assert back.project("1", [0]).reset([0]).norm() > 0.99
    states: list[pb.StateVector] = [back.reseed(1), back.resize(3).set_product("01+")]
    assert states[0].precision == "double"


if __name__ == "__main__":
    main()
