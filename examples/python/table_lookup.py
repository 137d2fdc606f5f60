"""QRAM: looking up all entries of a table at once, as words and as amplitudes."""

import numpy as np

import pblinalg as pb

words = [3, 1, 4, 1, 5, 9, 2, 6]
address, data = [0, 1, 2], [3, 4, 5, 6]

state = pb.StateVector(7, seed=2)
for qubit in address:
    state.h(qubit)
state.load_words(words, address, data)

counts = state.sample(2000, address + data)
for key in counts:
    a, word = int(key[:3], 2), int(key[3:], 2)
    print(f"address {a}: word {word}, seen {counts[key]} times")
    assert word == words[a]
assert len(counts) == len(words)

# Rows of real numbers become amplitudes of the data register, normalised row by row.
table = np.array([[3.0, 4.0], [1.0, 0.0], [1.0, -1.0], [0.0, 2.0]])
state = pb.StateVector(3).h(0).h(1).load_amplitudes(table, address=[0, 1], data=[2])
rows = 2 * state.to_array().real.reshape(4, 2)
print(rows)
assert np.allclose(rows, table / np.linalg.norm(table, axis=1, keepdims=True))
