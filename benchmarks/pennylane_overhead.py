"""What a QNode costs outside the library: medians of whole gradients, and what is left of them without
the run forwards and backwards; of the rest, what the translation takes. The circuit has 20 qubits,
layers of RX, RZ and CNOT with an angle of their own in every rotation, and an Ising energy of 39
terms. `pennylane_overhead.py [REPETITIONS]`.
"""

import statistics
import sys
import time

import numpy
import pennylane as qml
from pennylane import numpy as np

import pblinalg.pennylane

NUM_WIRES = 20


def layered_node(precision: str, layers: int) -> qml.QNode:
    """An energy as a function of an array of `layers` times 2 times `NUM_WIRES` angles."""
    pairs = [qml.Z(wire) @ qml.Z(wire + 1) for wire in range(NUM_WIRES - 1)]
    fields = [qml.X(wire) for wire in range(NUM_WIRES)]
    energy = qml.Hamiltonian([-1.0] * len(pairs) + [0.5] * len(fields), pairs + fields)

    @qml.qnode(qml.device("pblinalg.qubit", wires=NUM_WIRES, precision=precision))
    def node(angles):
        for layer in range(layers):
            for wire in range(NUM_WIRES):
                qml.RX(angles[layer, 0, wire], wire)
                qml.RZ(angles[layer, 1, wire], wire)
            for wire in range(layer % 2, NUM_WIRES - 1, 2):
                qml.CNOT([wire, wire + 1])
        return qml.expval(energy)

    return node


class Watch:
    """Adds up the time spent in calls of a function of the plug-in."""

    def __init__(self, name: str) -> None:
        self.seconds = 0.0
        self._original = getattr(pblinalg.pennylane, name)
        setattr(pblinalg.pennylane, name, self)

    def __call__(self, *arguments, **keywords):
        start = time.perf_counter()
        try:
            return self._original(*arguments, **keywords)
        finally:
            self.seconds += time.perf_counter() - start


def main() -> None:
    repetitions = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    inside, translation = Watch("value_and_gradient"), Watch("Translation")
    print(f"{'milliseconds':24}{'whole':>8}{'outside':>9}{'translation':>13}{'share outside':>15}")
    for layers in (6, 40):
        for precision in ("double", "float"):
            node = layered_node(precision, layers)
            gradient = qml.grad(node)
            shape = (layers, 2, NUM_WIRES)
            angles = np.array(numpy.random.default_rng(1).random(shape), requires_grad=True)
            gates = len(qml.workflow.construct_tape(node)(angles).operations)
            rows = []
            for _ in range(repetitions):
                inside.seconds = translation.seconds = 0.0
                start = time.perf_counter()
                gradient(angles)
                whole = time.perf_counter() - start
                rows.append((whole, whole - inside.seconds, translation.seconds))
            whole, outside, translated = (1e3 * statistics.median(c) for c in zip(*rows))
            title = f"{gates} gates, {precision}"
            print(f"{title:24}{whole:8.1f}{outside:9.2f}{translated:13.2f}{outside / whole:15.1%}")


if __name__ == "__main__":
    main()
