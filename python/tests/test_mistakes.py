"""Typical mistakes, one a row: the call, the kind of error, and words of the message that name the
argument and say what was expected. No call changes a state."""

import numpy as np
import pytest

import pblinalg as pb

EYE = np.eye(2)


def each(calls, error, text):
    return [(call, error, text) for call in calls]


# (expression on a lower-level state `s` of 4 qubits, error, text)
LOWER = [
    ("s.apply_H(4)", IndexError, "qubit = 4: expected a qubit between 0 and 3"),
    ("s.apply_H(2**70)", IndexError, "qubit = 1180591620717411303424"),
    ("s.apply_H(1.0)", TypeError, "qubit must be an integer, got 1.0 of type float"),
    ("s.apply_H(True)", TypeError, "qubit must be an integer, got True of type bool"),
    ("s.apply_H(0, [1, 'a'])", TypeError, r"controls\[1\] must be an integer"),
    ("s.apply_H(0, [1, 0])", ValueError, "controls = 0: the qubit is listed twice"),
    ("s.apply_H(0, {1})", TypeError, "controls must be a list, tuple or array"),
    ("s.apply_RX(0, float('nan'))", ValueError, "theta must be a finite number"),
    ("s.apply_RZ(0, 1j)", TypeError, "theta must be a real number"),
    *each(
        ("s.apply_CNOT(1, 1)", "s.apply_CCNOT(0, 2, 0)", "s.apply_1qbit_ctrl_gate([0], 0, EYE)"),
        ValueError, "target = [01]: the qubit is listed twice",
    ),
    ("s.apply_SWAP(0, 4)", IndexError, "qubit2 = 4"),
    ("s.apply_1qbit_gate(0, np.eye(3))", ValueError, "matrix holds 9 entries in 2 dimensions"),
    ("s.apply_2qbit_gate(0, 1, np.eye(2))", ValueError, "expected a 2.2 x 2.2 matrix"),
    ("s.apply_nqbit_ctrl_gate([0], [1, 0], np.eye(4))", ValueError, "qubits = 0: the qubit is li"),
    ("s.apply_1qbit_gate(0, [[1, 2], [3]])", TypeError, "matrix must be an array of complex"),
    ("s.apply_phase_oracle([4], [0, 1])", ValueError, "marked must lie between 0 and 3, got 4"),
    ("s.reset(np.zeros(15))", ValueError, r"source holds 15 elements; expected 16"),
    ("s.reset_to_str('00000')", ValueError, "expected at most 4 characters"),
    ("s.reset_to_str(b'0')", TypeError, "description must be a str"),
    ("s.reset_to_str('é')", ValueError, "ASCII"),
    ("s.resize(-1)", ValueError, "nqubits must lie between"),
    ("s.resize(50)", MemoryError, r"needs \d{16,} bytes \(.*\); \d+ bytes \(.*\) are available"),
    ("State(50)", MemoryError, "a register of 50 qubits needs"),
    ("State(2.0)", TypeError, "nqubits must be an integer"),
    ("s.set_num_threads(2**31)", ValueError, "num_threads must lie between"),
    ("s.rng.seed(-1)", ValueError, "value must lie between 0 and 18446744073709551615"),
    ("setattr(s, 'density_matrix', 1)", TypeError, "density_matrix must be True or False"),
    ("s.project([0], 2)", ValueError, "outcome must lie between 0 and 1, got 2"),
    ("s.project_then_reset([3], 1)", ValueError, "outcome = 1: it has probability 0"),
    ("s.probability(16)", ValueError, "outcome must lie between 0 and 15"),
    ("s.get_distribution([0, 0])", ValueError, "the qubit is listed twice"),
    ("s.sample(-1)", ValueError, "nshots must lie between"),
    ("s.sample(2**45)", MemoryError, "the array of results needs"),
    ("s.measure([9])", IndexError, "qubits = 9"),
    ("s.evaluate_terms([Term([0], 'X')], 0)", ValueError, "nshots = 0"),
    ("s.evaluate_terms([Term([4], 'X')], 1)", IndexError, "qubit 4, expected below 4"),
    ("s.evaluate_terms([None], 1)", TypeError, "incompatible|None"),
    ("Term([0], 'W')", ValueError, "expected the letters I, X, Y and Z"),
    ("Term([0, 1], 'X')", ValueError, "one letter for each of 2 qubits"),
    ("Term([0, 0], 'XX')", ValueError, "the qubit is listed twice"),
    ("s.expectation_value(Observable([1], [16], [0], [0]))", ValueError, "masks below 2.4"),
    ("s.expectation_value(Observable([1], [1, 2], [0], [0]))", ValueError, "equally many"),
    ("Observable([1e999], [0], [0], [0])", ValueError, "coefficients must be a finite complex"),
    ("Observable(['a'], [0], [0], [0])", TypeError, "coefficients must be a complex"),
    ("s.apply_state_preparation([1, 0, 0], [0])", ValueError, "amplitudes holds 3 elements"),
    ("s.apply_binary_qram([0, 1, 2], [0, 1], 1)", ValueError, "words holds 3 elements; expected 2"),
    ("s.apply_qram([1, 2], [0, 1], 1)", ValueError, "amplitudes holds 2 elements; expected 4"),
    ("s.apply_qram([1, 2], [0], 2)", ValueError, "data_width = 2: expected at most the 1"),
    ("Circuit(2).add_gate('H', [], [2])", IndexError, "qubits = 2"),
    ("Circuit(2).add_gate('CNOT', [], [0])", ValueError, "CNOT: 1 qubits and 0 params"),
    ("s.simulate_circuit(Circuit(5))", ValueError, "circuit.nqubits = 5"),
    ("s.simulate_circuit(unknown)", ValueError, "^Gate h is not supported by the pybinded circuit"),
]
UPPER = [
    # Making states
    ("pb.StateVector(-1)", ValueError, "num_qubits = -1: expected at least 0"),
    ("pb.StateVector(True)", TypeError, "num_qubits must be an integer, got True"),
    ("pb.StateVector(np.array([2, 3]))", TypeError, "num_qubits must be an integer"),
    *each(("pb.StateVector(60)", "v.resize(60)"), MemoryError, "a register of 60 qubits needs"),
    ("pb.StateVector(2**70)", ValueError, "num_qubits = 1180591620717411303424: expected at most"),
    ("pb.StateVector(2, 'half')", ValueError, "precision = 'half': expected 'float' or 'double'"),
    ("pb.StateVector(2, 64)", ValueError, "precision = 64"),
    ("pb.StateVector(2, threads=0)", ValueError, "threads = 0: expected at least 1"),
    ("pb.StateVector(2, threads=1.5)", TypeError, "threads must be an integer"),
    ("pb.StateVector(2, seed=2**64)", ValueError, "seed = 18446744073709551616: expected"),
    ("pb.StateVector(2, seed='a')", TypeError, "seed must be an integer, got 'a'"),
    ("v.reseed(1.0)", TypeError, "seed must be an integer"),
    ("setattr(v, 'threads', 0)", ValueError, "threads = 0"),
    ("pb.DensityMatrix(30)", MemoryError, "a density matrix of 30 qubits needs"),
    ("pb.DensityMatrix(1.5)", TypeError, "num_qubits must be an integer"),
    # Gates
    ("v.h(4)", IndexError, "qubit = 4: expected a qubit between 0 and 3"),
    ("v.h(None)", TypeError, "qubit must be an integer, got None"),
    ("v.h(0, [0])", ValueError, "controls = 0: the qubit is listed twice"),
    ("v.h(0, [4])", IndexError, "controls = 4"),
    ("v.h(0, 1)", TypeError, "controls must be a list, tuple or array"),
    ("v.rx(None, 0)", TypeError, "theta must be a real number, got None"),
    ("v.rx(float('nan'), 0)", ValueError, "theta must be a finite number"),
    ("f.rx(1e39, 0)", ValueError, "theta must be a finite number .in float32."),
    ("v.u(0, float('inf'), 0, 0)", ValueError, "phi must be a finite number"),
    ("v.u(0, 0, '1', 0)", TypeError, "lam must be a real number"),
    ("c.u(float('nan'), 0, 0, 0)", ValueError, "theta must be a finite number"),
    ("f.u(1e39, 0, 0, 0)", ValueError, "theta must be a finite number .in float32."),
    ("d.u(0, 0, float('nan'), 0)", ValueError, "lam must be a finite number"),
    *each(("v.cx(1, 1)", "v.ccx(0, 1, 1)"), ValueError, "target = 1: the qubit is listed twice"),
    ("v.cx(0, 7)", IndexError, "target = 7"),
    ("v.swap(0, 4)", IndexError, "qubit2 = 4"),
    *each(("v.iswap(1, 1)", "v.cswap(0, 1, 1)"), ValueError, "qubit2 = 1: the qubit is listed"),
    ("v.unitary(2 * EYE, 0)", ValueError, "matrix is not unitary"),
    ("v.unitary(EYE * np.nan, 0)", ValueError, "matrix is not unitary"),
    ("v.unitary(Sparse(), 0)", TypeError, "matrix must be an array of numbers, got <"),
    ("v.unitary([[1, 0], [0]], 0)", TypeError, "matrix must be an array of numbers"),
    ("v.unitary(np.eye(3), 0)", ValueError, "matrix holds 9 entries"),
    ("v.unitary(np.ones((2, 3)), 0)", ValueError, "matrix has shape .2, 3.; expected a square"),
    ("v.unitary(EYE, [0, 1])", ValueError, "matrix holds 4 entries"),
    ("v.unitary(EYE, '0')", TypeError, "qubits must be a qubit or a list of qubits, got '0'"),
    ("v.phase_oracle([4], [0, 1])", ValueError, "marked must lie between 0 and 3, got 4"),
    ("v.phase_oracle([0], [0.5])", TypeError, r"qubits\[0\] must be an integer, got 0.5"),
    # Loading
    ("v.set_product('012+')", ValueError, "expected 4 characters 0, 1, . or -"),
    ("v.set_product(5)", TypeError, "description must be a str, got 5"),
    ("v.set_amplitudes(np.ones(16))", ValueError, "amplitudes has norm 4"),
    ("v.set_amplitudes(np.full(16, np.nan))", ValueError, "amplitudes has norm nan"),
    ("v.set_amplitudes([1, 0])", ValueError, "amplitudes holds 2 elements; expected 16"),
    ("v.set_amplitudes(None)", TypeError, "amplitudes must be an array of numbers, got None"),
    ("v.prepare([1, 0, 0, 0], [0])", ValueError, "amplitudes holds 4 elements; expected 2 for 1"),
    ("v.prepare([1, 1], [0])", ValueError, "amplitudes has norm 1.41"),
    ("v.prepare([1, 0], [9])", IndexError, "qubits = 9"),
    ("v.load_words([0, 2], [0], [1])", ValueError, "words must lie between 0 and 1"),
    ("v.load_words([0.5, 0], [0], [1])", TypeError, "words must be integers"),
    ("v.load_words([0, 1], [1], [0])", ValueError, r"data: the register must be \|0>"),
    ("v.load_words([0, 1], [1], [1])", ValueError, "qubits = 1: the qubit is listed twice"),
    ("v.load_amplitudes([[1, 0], [0, 1]], [1], [0])", ValueError, "data: the register must be"),
    ("v.load_amplitudes([[1j, 0], [0, 1]], [0], [1])", ValueError, "table must hold real"),
    ("v.load_amplitudes([1, 0], [0], [1])", ValueError, "amplitudes holds 2 elements; expected 4"),
    # Reading
    *each(("v.probability('01')", "v['01']"), ValueError, "outcome = .01.: expected 4 characters"),
    ("v.probability(16)", ValueError, "outcome = 16: expected a value between 0 and 15"),
    ("v.probability(1.0)", TypeError, "outcome must be an integer"),
    ("v.probabilities([0, 0])", ValueError, "qubits = 0: the qubit is listed twice"),
    ("v.probabilities(out=np.zeros(3))", ValueError, "out holds 3 elements; expected 16"),
    ("v.sample(-1)", ValueError, "shots = -1: expected at least 0"),
    ("v.sample(1e3)", TypeError, "shots must be an integer, got 1000.0"),
    ("v.sample(5, [4])", IndexError, "qubits = 4"),
    ("v.sample(5, progress='bar')", TypeError, "progress must be"),
    ("v.sample(2**50)", MemoryError, "the outcomes of 1125899906842624 shots needs"),
    ("v.sample_outcomes(3, out=np.zeros(2, np.uint64))", ValueError, "out holds 2 elements"),
    ("v.sample_outcomes(3, out=np.zeros(3))", TypeError, "out must be a writable"),
    ("v.measure('0')", TypeError, "qubits must be a qubit or a list of qubits"),
    ("v.measure([0, 4])", IndexError, "qubits = 4"),
    ("v.reset(4)", IndexError, "qubits = 4"),
    ("v.project('1', [3])", ValueError, "outcome = 1: it has probability 0"),
    ("v.project(2, [0])", ValueError, "outcome = 2: expected a value between 0 and 1"),
    ("v.expectation('ZZ')", ValueError, "'ZZ' has 2 letters; expected 4"),
    ("v.expectation('ZZ ZZ')", ValueError, "expected a term at 'ZZ'"),
    ("v.expectation(1)", TypeError, "observable must be an Observable, a string or"),
    ("v.expectation({'ZZZA': 1})", ValueError, "'ZZZA'; expected a string of the letters"),
    ("v.expectation('(1+2j)*ZZZZ')", ValueError, "observable has coefficients that are not real"),
    ("v.estimate('ZZZZ', 0)", ValueError, "shots = 0: expected at least 1"),
    ("v.inner(np.ones(16))", TypeError, "other must be a StateVector, got ndarray"),
    ("v.inner(pb.StateVector(3))", ValueError, "other has 3 qubits; expected 4"),
    ("v[16]", IndexError, "position = 16"),
    ("v[0:2]", TypeError, "position must be an integer"),
    *each(
        ("v.reduced_density_matrix([0, 4])", "v.entanglement_entropy([0, 4])"),
        IndexError, "qubits = 4",
    ),
    *each(
        ("v.reduced_density_matrix([0, 0])", "v.entanglement_entropy([0, 0])"),
        ValueError, "qubits = 0: the qubit is listed twice",
    ),
    ("d.reduced_density_matrix([2])", IndexError, "qubits = 2"),
    ("pb.StateVector(20).reduced_density_matrix(range(20))", MemoryError, "a reduced density mat"),
    ("v.fidelity(pb.StateVector(3))", ValueError, "other has 3 qubits; expected 4"),
    ("v.fidelity(np.ones(8))", ValueError, r"shape \(8,\); expected \(16,\) or \(16, 16\)"),
    ("v.fidelity('00')", TypeError, "other must be an array of numbers"),
    ("v.save(5)", TypeError, "path must be a str or a path, got 5"),
    ("pb.StateVector.load('nowhere.npy')", FileNotFoundError, "nowhere.npy"),
    # Sweeps
    ("pb.sweep('h', [], 'Z')", TypeError, "circuit must be a Circuit, got 'h'"),
    ("pb.sweep(pb.Circuit(1).measure(0), [[]], 'Z')", ValueError, "circuit: a sweep runs circuits"),
    ("pb.sweep(c, [[]])", ValueError, "0 of observables, probabilities, shots and states are"),
    ("pb.sweep(c, [[]], 'ZZ', states=True)", ValueError, "2 of observables, .*; expected exactly"),
    ("pb.sweep(c, [[]], 'ZZ', qubits=[0])", ValueError, "only probabilities and shots take them"),
    ("pb.sweep(c, [[]], 'ZZ', seed=1)", ValueError, "seed = 1: only shots take one"),
    ("pb.sweep(c, [[]], probabilities=[0])", TypeError, "probabilities must be True or False, got"),
    ("pb.sweep(c, [[]], shots=-1)", ValueError, "shots = -1: expected at least 0"),
    ("pb.sweep(c, [[]], shots=2, qubits=[0, 2])", IndexError, "qubits = 2"),
    ("pb.sweep(c, [[]], shots=2, qubits=[1, 1])", ValueError, "qubits = 1: the qubit is listed tw"),
    ("pb.sweep(c, [[]], ['ZZ', 3])", TypeError, "observable must be an Observable, a string"),
    ("pb.sweep(c, [[]], 3)", TypeError, "observables must be an observable or a list, got 3"),
    ("pb.sweep(c, [[]], '1j*ZZ')", ValueError, "coefficients that are not real"),
    ("pb.sweep(c, [[]], 'ZZZ')", ValueError, "'ZZZ' has 3 letters; expected 2"),
    ("pb.sweep(c, [[]], 'ZZ', threads=0)", ValueError, "threads = 0"),
    ("pb.sweep(c, [[]], 'ZZ', precision='half')", ValueError, "precision = 'half'"),
    ("pb.sweep(c, [[]] * 3, 'ZZ', progress=1)", TypeError, "progress must be a function"),
    ("pb.sweep(pb.Circuit(45), [[]], 'Z0')", MemoryError, "a sweep of 1 rows and its expectations"),
    ("pb.sweep(c, np.empty((2**50, 0)), states=True)", MemoryError, "a sweep of .* and its states"),
    ("pb.sweep(pb.Circuit(1).unitary(2 * EYE, 0, check=False), [[]], shots=3)", ValueError,
     "circuit: the probabilities of the state of row 0 add up to 4; expected 1"),
    # States that are none
    *each(
        ["none." + call for call in ("sample(3)", "copy()", "amplitudes", "to_array()", "measure()",
                                     "probability('')", "expectation('')")],
        ValueError, "holds no amplitudes",
    ),
    *each(("zero.sample(3)", "zero.measure()"), ValueError, "add up to 0; expected 1"),
    *each(
        ("nan.sample_outcomes(3)", "nan.estimate('Z', 3)", "nan.reset(0)"),
        ValueError, "add up to .*; expected 1",
    ),
    ("double.sample(3)", ValueError, "add up to 2; expected 1"),
    ("pb.Circuit(1).unitary(2 * EYE, 0, check=False).run(3)", ValueError, "add up to 4; expected"),
    # Circuits
    ("pb.Circuit(59)", ValueError, "num_qubits = 59: expected at most 58"),
    ("pb.Circuit('2')", TypeError, "num_qubits must be an integer"),
    ("pb.Circuit(2, -1)", ValueError, "num_clbits = -1"),
    ("pb.Circuit(2, 1).measure(0, 1)", IndexError, "clbit = 1"),
    *each(("c.measure(2)", "c.reset(2)"), IndexError, "qubit = 2"),
    ("c.measure([0, 1], [0])", ValueError, "2 qubits and 1 clbits"),
    ("c.reset(None)", TypeError, "qubits must be a qubit or a list of qubits, got None"),
    ("c.if_(0, 2)", IndexError, "value = 2"),
    ("c.if_(2)", IndexError, "clbits = 2"),
    ("c.if_(0).x(1)", AttributeError, r"with circuit.if_\(...\): circuit.x"),
    ("setattr(c, 'registers', [1, 2])", ValueError, "registers = .1, 2.: expected sizes that"),
    ("c.compose('h')", TypeError, "other must be a Circuit, got 'h'"),
    ("c.compose(pb.Circuit(3))", ValueError, "other has 3 qubits"),
    ("pb.Circuit(2).measure(0).inverse()", ValueError, "no inverse"),
    ("pb.run('bell.qasm')", TypeError, "circuit must be a Circuit, got 'bell.qasm'"),
    ("c.run(10, precision='single ')", ValueError, "precision = 'single '"),
    *each(
        ("c.run(10, accuracy='fast')", "v.run(pb.Circuit(4), accuracy='fast')",
         "d.run(pb.Circuit(2), accuracy='fast')", "pb.sweep(c, [[]], 'ZZ', accuracy='fast')",
         "pb.lowlevel.GateList(4).run(v.core, accuracy='fast')"),
        ValueError, "accuracy = 'fast': expected 'exact' or 'rounding'",
    ),
    ("c.run(10, seed=-1)", ValueError, "seed = -1"),
    ("pb.Circuit(40).h(0).measure(0).h(0).run(3)", MemoryError, "a register of 40 qubits needs"),
    ("pb.Circuit(45).run(3)", MemoryError, "a register of 45 qubits needs"),
    ("v.run(pb.Circuit(3))", ValueError, "circuit acts on 3 qubits; the state has 4"),
    ("v.run('h')", TypeError, "circuit must be a Circuit"),
    ("pb.Circuit(1).rx(1e39, 0).run(3, 'float')", ValueError, "add up to .*; expected 1"),
    # Noise
    *each(
        ("Channel([EYE, EYE])", "Channel([np.diag([1, np.nan])])", "Channel([0.9 * EYE])"),
        ValueError, "operators: the sum .* must be the identity, from which it deviates by",
    ),
    *each(("Channel([])", "Channel([[1]])", "Channel([np.eye(3)])"), ValueError, "of 2.k rows"),
    ("Channel([EYE, np.eye(4)])", ValueError, r"operators must be matrices of shape .2, 2."),
    ("Channel(1)", TypeError, "operators must be a list of matrices, got 1"),
    ("Channel.depolarizing(1.5)", ValueError, "probability = 1.5: expected a value between 0 and"),
    ("Channel.amplitude_damping(np.nan)", ValueError, "probability = nan"),
    ("Channel.depolarizing(0.1, 0)", ValueError, "num_qubits = 0: expected at least 1"),
    ("Channel.pauli({'X': 0.7, 'Z': 0.7})", ValueError, "add up to 1.4; expected at most 1"),
    ("Channel.pauli({'Q': 0.1})", ValueError, "'Q' must be letters I, X, Y or Z"),
    ("Channel.pauli({'X': 0.1, 'XX': 0.1})", ValueError, "strings of different lengths"),
    ("Channel.pauli({'X': np.nan})", ValueError, "probability = nan"),
    ("Channel.mixture([EYE], [0.5])", ValueError, "probabilities add up to 0.5; expected 1"),
    ("Channel.mixture([2 * EYE], [1])", ValueError, "matrix is not unitary"),
    ("Channel.mixture([EYE], [0.5, 0.5])", ValueError, "1 unitaries and 2 probabilities"),
    ("Channel.thermal_relaxation(1, 3, 1)", ValueError, "t2 = 3: expected .* at most 2 t1 = 2"),
    ("Channel.thermal_relaxation(1, 1, -1)", ValueError, "time = -1: expected at least 0"),
    ("Channel.thermal_relaxation(np.inf, 1, 1)", ValueError, "t1 must be a finite number"),
    ("noise.add('x')", TypeError, "channel must be a Channel, got 'x'"),
    ("noise.add(flip, ['x', 'hadamard'])", ValueError, "gates: 'hadamard' is no gate; expected na"),
    ("noise.add(flip, qubits=-1)", IndexError, "qubits = -1: expected a value between 0 and 57"),
    ("noise.add(pair, qubits=[(0, 1), (1, 1)])", ValueError, ".1, 1. names 2 qubits; expected 2 d"),
    ("noise.add(pair, qubits=0)", ValueError, "names 1 qubits; expected 2 different ones"),
    ("noise.add_readout_error([[0.5, 0.6], [0, 1]])", ValueError, "expected rows that add up to 1"),
    ("noise.add_readout_error([[1.1, -0.1], [0, 1]])", ValueError, "probabilities between 0 and 1"),
    ("noise.add_readout_error([[np.nan, 1], [0, 1]])", ValueError, "probabilities between 0 and 1"),
    ("noise.add_readout_error(EYE, [0, 58])", IndexError, "qubits = 58"),
    ("noise.add_readout_error(np.eye(4))", ValueError, r"matrix has shape .4, 4.; expected .2, 2."),
    ("c.run(noise=pb.NoiseModel().add(flip, qubits=5))", IndexError, "noise: qubit 5 is named"),
    ("d.run(pb.Circuit(2), noise=pb.NoiseModel().add_readout_error(EYE, 2))", IndexError, "qubit"),
    *each(
        ("d.run(flipped, noise=pb.NoiseModel().add(pair, 'x'))",
         "flipped.run(noise=pb.NoiseModel().add(pair, 'x'))"),
        ValueError, "noise: Channel.* acts on 2 qubits, the gate x on 1",
    ),
    *each(("c.run(noise='x')", "pb.estimate(c, 'ZZ', noise=1)"), TypeError, "must be a NoiseModel"),
    ("pb.estimate(c, 'ZZZ')", ValueError, "'ZZZ' .*|observable acts on 3"),
    ("pb.estimate(c, 'ZZ', 1)", ValueError, "trajectories = 1: expected at least 2"),
    ("pb.estimate(c, '1j*ZZ', 2)", ValueError, "coefficients that are not real"),
    ("pb.Circuit(1).unitary(2 * EYE, 0, check=False).run(3, noise=noise)", ValueError, "add up to"),
    ("d.channel(pair, 0)", ValueError, "Channel.* acts on 2 qubits; 1 are listed"),
    # Observables
    ("pb.Observable({'ZA': 1})", ValueError, "'ZA'; expected a string"),
    ("pb.Observable({'ZZ': 1, 'Z': 1})", ValueError, "'Z' has 1 letters; expected 2"),
    ("pb.Observable({'Z': float('inf')})", ValueError, "coefficient .*inf.*; expected a finite"),
    ("pb.Observable('Z0 Z0')", ValueError, "names qubit 0 twice"),
    ("pb.Observable('Z9 + ZZ')", ValueError, "names qubit 9; expected at most 1"),
    ("pb.Observable('Z123456789')", ValueError, "qubit 123456789: expected at most"),
    ("pb.Observable('2')", ValueError, "needs num_qubits"),
    ("pb.Observable('ZZ') @ pb.Observable('Z')", ValueError, "on 2 qubits, the other on 1"),
    ("pb.Observable('ZZ').apply([1, 0])", ValueError, r"shape \(2,\); expected 4 amplitudes"),
    ("pb.Observable('Z') ** -1", ValueError, "exponent = -1: expected at least 0"),
    # Density matrices
    *each(("d.channel([EYE], 2)", "d.phase_damping(0.1, 2)", "d.x(2)"), IndexError, "qubits? = 2"),
    ("d.set_matrix(np.eye(2))", ValueError, "matrix has shape .2, 2.; expected .4, 4."),
    ("d.set_matrix(np.diag([2, -1, 0, 0]))", ValueError, "matrix has a negative eigenvalue"),
    ("d.set_matrix(np.eye(4))", ValueError, "matrix must be Hermitian with trace 1"),
    ("d.set_state(np.ones(4))", TypeError, "state must be a StateVector"),
    ("d.set_state(pb.StateVector(3))", ValueError, "state has 3 qubits; expected 2"),
    ("d.channel([EYE, EYE], 0)", ValueError, "operators: .* must be the identity"),
    ("d.channel([np.eye(3)], 0)", ValueError, r"operators must be matrices of shape .2, 2."),
    ("d.depolarize(1.1, 0)", ValueError, "probability = 1.1"),
    ("d.bit_flip(float('nan'), 0)", ValueError, "probability = nan"),
    ("d.phase_flip('0.5', 0)", TypeError, "probability must be a number"),
    ("d.depolarize(0.1, [0, 0])", ValueError, "the qubit is listed twice"),
    ("d.project('1', [0])", ValueError, "outcome = '1': it has probability 0"),
    ("d.run(pb.Circuit(2).measure(0))", ValueError, "circuit: a density matrix runs circuits"),
    ("d.run('h')", TypeError, "circuit must be a Circuit"),
]


def test_mistakes_of_the_lower_level(precision):
    names = dict(
        np=np, EYE=EYE, s=precision.State(4), State=precision.State, Circuit=precision.Circuit,
        Term=precision.Term, Observable=precision.Observable, setattr=setattr,
        unknown=precision.Circuit(4),
    )  # fmt: skip
    names["s"].reset()
    names["s"].apply_H(0)
    names["unknown"].add_gate("X", [], [0])
    names["unknown"].add_gate("h", [], [0])
    before = names["s"].state.copy()
    for expression, error, text in LOWER:
        with pytest.raises(error, match=text):
            print(expression, "gave", eval(expression, names))
        assert np.array_equal(names["s"].state, before), expression
        assert names["s"].nqubits == 4


def states_and_circuits():
    def loaded(amplitudes):
        return pb.StateVector(1).set_amplitudes(amplitudes, check=False)

    none = pb.StateVector(2)
    none.release()
    return dict(
        pb=pb, np=np, EYE=EYE, setattr=setattr, v=pb.StateVector(4).h(0), d=pb.DensityMatrix(2),
        f=pb.StateVector(2, "float"), c=pb.Circuit(2), none=none, zero=loaded([0, 0]),
        double=loaded([1, 1]), nan=loaded([np.nan, 0]), Sparse=type("Sparse", (), {}),
        Channel=pb.Channel, flip=pb.Channel.bit_flip(0.1), pair=pb.Channel.depolarizing(0.1, 2),
        noise=pb.NoiseModel(), flipped=pb.Circuit(2).x(0),
    )  # fmt: skip


@pytest.mark.parametrize("expression,error,text", UPPER)
def test_mistakes_of_the_upper_level(expression, error, text):
    names = states_and_circuits()
    before = {name: names[name].to_array() for name in "vfd"}
    with pytest.raises(error, match=text):
        eval(expression, names)
    for name, array in before.items():
        assert np.array_equal(names[name].to_array(), array)
    assert not names["c"] and repr(names["noise"]) == repr(pb.NoiseModel())
