"""The quantum Fourier transform, compared with NumPy's."""

import numpy as np

import pblinalg as pb


def fourier_transform(n: int) -> pb.Circuit:
    """|x> becomes the sum over y of e^(2 pi i x y / 2^n) |y>, divided by 2^(n/2)."""
    circuit = pb.Circuit(n)
    for qubit in range(n):
        circuit.h(qubit)
        for other in range(qubit + 1, n):
            circuit.cp(np.pi / 2 ** (other - qubit), other, qubit)
    for qubit in range(n // 2):
        circuit.swap(qubit, n - 1 - qubit)
    return circuit


n = 10
rng = np.random.default_rng(1)
amplitudes = rng.normal(size=2**n) + 1j * rng.normal(size=2**n)
amplitudes /= np.linalg.norm(amplitudes)

circuit = fourier_transform(n)
state = pb.StateVector(n).set_amplitudes(amplitudes).run(circuit)
# NumPy's inverse transform has the plus sign in its exponent, and another normalisation.
expected = np.fft.ifft(amplitudes) * 2 ** (n / 2)
deviation = np.abs(state.to_array() - expected).max()
print(f"{n} qubits, {len(circuit)} gates, largest deviation from NumPy's transform {deviation:.1e}")
assert deviation < 1e-12

state.run(circuit.inverse())
assert np.abs(state.to_array() - amplitudes).max() < 1e-12
