"""A GHZ state on noisy hardware: trajectories beside the exact density matrix."""

import pblinalg as pb

n = 5
circuit = pb.Circuit(n).h(0)
for qubit in range(n - 1):
    circuit.cx(qubit, qubit + 1)

# Gates of 50 and 300 ns on qubits that keep a state for some 100 microseconds, and a readout that
# takes a decayed qubit for 0.
microseconds = 1e-6
noise = pb.NoiseModel()
noise.add(pb.Channel.thermal_relaxation(90 * microseconds, 70 * microseconds, 5e-8), gates="h")
noise.add(pb.Channel.thermal_relaxation(90 * microseconds, 70 * microseconds, 3e-7), gates="cx")
noise.add(pb.Channel.depolarizing(0.01, num_qubits=2), gates="cx")
noise.add_readout_error([[0.99, 0.01], [0.03, 0.97]])

exact = pb.DensityMatrix(n).run(circuit, noise=noise)
parity = "X" * n
print("observable   trajectories         exact    without noise")
ideal = pb.StateVector(n).run(circuit)
for observable in ("Z0 Z1", f"Z0 Z{n - 1}", parity):
    value, error = pb.estimate(circuit, observable, 20000, noise=noise, seed=7)
    expected = exact.expectation(observable)
    print(
        f"{observable:<10}{value:8.4f} +- {error:.4f}{expected:14.4f}"
        f"{ideal.expectation(observable):17.4f}"
    )
    assert abs(value - expected) < 5 * error

counts = circuit.run(20000, noise=noise, seed=7)
print(counts.histogram(rows=6))

# What is read is the diagonal of the density matrix through the errors of the readout.
weights = exact.probabilities().reshape((2,) * n)
for qubit in range(n):
    weights = (weights.swapaxes(qubit, -1) @ noise.readout_error(qubit)).swapaxes(qubit, -1)
shots = counts.shots
deviation = 0.0
for outcome, probability in enumerate(weights.reshape(-1)):
    spread = (shots * probability * (1 - probability)) ** 0.5
    seen = counts.get(format(outcome, f"0{n}b"), 0)
    deviation = max(deviation, abs(seen - shots * probability) / spread)
print(f"largest deviation of a count: {deviation:.2f} standard errors")
assert deviation < 5
