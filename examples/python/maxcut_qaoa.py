"""The largest cut of the dodecahedron's graph by the quantum approximate optimization algorithm.

20 nodes, three edges each: how many of the 30 edges can run between two sets of nodes? Every layer
turns by the cut of the graph and mixes all nodes; its two angles are found with gradients. With a
file name as argument the convergence is drawn there. Needs SciPy, and matplotlib for the picture.
"""

import sys

import numpy as np
from scipy.optimize import minimize

import pblinalg as pb

nodes, layers = 20, 5
# A rim of ten nodes, and ten inside that are joined two apart.
edges = [
    edge
    for i in range(10)
    for edge in ((i, (i + 1) % 10), (i, 10 + i), (10 + i, 10 + (i + 2) % 10))
]
uncut = pb.Observable({f"Z{a} Z{b}": 0.5 for a, b in edges}, num_qubits=nodes)
cut = 0.5 * len(edges) - uncut

parameters = [pb.Parameter(f"{name}{layer}") for layer in range(layers) for name in ("turn", "mix")]
circuit = pb.Circuit(nodes)
for node in range(nodes):
    circuit.h(node)
for turn, mix in zip(parameters[::2], parameters[1::2]):
    for a, b in edges:
        circuit.rzz(turn, a, b)
    for node in range(nodes):
        circuit.rx(2 * mix, node)

history = []


def loss(values: np.ndarray) -> tuple[float, np.ndarray]:
    value, gradient = pb.value_and_gradient(circuit, cut, values, precision="float")
    history.append(value)
    return -value, -gradient


# Turn more and mix less from layer to layer.
ramp = (np.arange(layers) + 0.5) / layers
start = np.stack([-0.7 * ramp, 0.7 * (1 - ramp)], axis=1).reshape(-1)
found = minimize(loss, start, jac=True, method="L-BFGS-B", options={"maxiter": 30})

# By trying all: node 19 stays on its side.
sides = np.arange(2 ** (nodes - 1))
largest = sum((sides >> a ^ sides >> b) & 1 for a, b in edges).max()


def cut_of(sides: str) -> int:
    return sum(sides[a] != sides[b] for a, b in edges)


counts = circuit.run(shots=2000, seed=1, precision="float", values=found.x)
best = max(counts, key=cut_of)
print(f"mean cut {history[0]:.2f} at first, {max(history):.2f} after {len(history)} evaluations")
cut = cut_of(best)
print(f"best of 2000 shots: {best} cuts {cut} of {len(edges)} edges, the most is {largest}")
assert max(history) > 0.85 * largest and cut == largest

if len(sys.argv) > 1:
    import matplotlib

    matplotlib.use("agg")
    import matplotlib.pyplot as plt

    plt.plot(history)
    plt.axhline(largest, linestyle="--")
    plt.xlabel("evaluations")
    plt.ylabel("mean cut")
    plt.savefig(sys.argv[1])
