"""Calls everything with anything: `fuzz.py SEED CALLS`. A crash ends the process, an unexpected
kind of error shows a traceback; both fail the test that runs this."""

import faulthandler
import inspect
import random
import re
import sys

faulthandler.enable()
import numpy as np

import pblinalg as pb
import pblinalg.lowlevel as low

seed, calls = int(sys.argv[1]), int(sys.argv[2])
random.seed(seed)
# The kinds that the package promises; the last one when an argument uses the state that it is for.
ALLOWED = (ValueError, IndexError, TypeError, MemoryError, BufferError, RuntimeError)


class Odd:
    def __index__(self):
        return random.choice([-1, 0, 1, 2**64])

    def __len__(self):
        return random.choice([0, 3, 2**40])

    def __getitem__(self, i):
        raise IndexError

    def __float__(self):
        return 0.5

    def __array__(self, *a, **k):
        return np.zeros(random.choice([1, 2, 4, 16]))


NUMBERS = [
    0, 0, 1, 1, 2, 3, 4, 5, -1, 7, 63, 64, 255, 2**31, 2**32, 2**63, 2**64, -(2**63), 10**30,
    True, np.int64(1), np.uint8(2), 0.5, -2.5, float("nan"), float("inf"), 1e308, 1j,
    None, "1", b"1",
]  # fmt: skip


def number():
    return random.choice([*NUMBERS, Odd()])


def array():
    count = random.choice([0, 1, 2, 3, 4, 8, 16, 32, 64, 256])
    kind = random.choice(["c16", "c8", "f8", "f4", "u8", "i8", "i1", "b1", "O", "U1", ">c16"])
    value = np.zeros(count, kind)
    if random.random() < 0.3 and count in (4, 16, 64, 256):
        value = value.reshape(int(count**0.5), -1)
    if random.random() < 0.2:
        value = value[::2]
    if random.random() < 0.1:
        value.flags.writeable = False
    if random.random() < 0.3 and kind in ("c16", "c8"):
        value = np.eye(random.choice([1, 2, 4, 8]), dtype=kind)
    return value


def several():
    make = random.choice([
        lambda: [random.randrange(5) for _ in range(random.randrange(5))],
        lambda: tuple(random.sample(range(6), random.randrange(6))),
        lambda: [number() for _ in range(random.randrange(4))],
        array,
        lambda: range(random.randrange(-2, 5)),
        lambda: {1: 2},
    ])  # fmt: skip
    return make()


def text():
    return random.choice([
        "", "0", "01+-", "xyz", "XYZ", "XX", "H", "CNOT", "RX", "Z\0", "é" * 3, "double",
        "1.0*XYZI", "\ud800", "a" * 1000,
    ])  # fmt: skip


def lower_state():
    state = random.choice([STATE, low.PybindLinAlgStateVectorCPUFloat])(random.randrange(6))
    if random.random() < 0.8:
        state.reset()
    if random.random() < 0.2:
        state.density_matrix = True
    if random.random() < 0.1:
        state.release_memory()
    return state


STATE = low.PybindLinAlgStateVectorCPUDouble
RECORDS = [low.PybindLinAlgWCircuitDouble, low.PybindLinAlgWCircuitFloat]
OBSERVABLES = [low.WObservableDouble, low.WObservableFloat]
TERMS = [low.SimpleTermDouble, low.SimpleTermFloat]
MAKERS = [
    *[lower_state] * 4,
    lambda: random.choice(RECORDS)(random.randrange(5)),
    lambda: random.choice(OBSERVABLES)([1, 2], [1, 2], [0, 3], [0, 5]),
    lambda: random.choice(TERMS)([0, 1], "XY"),
    lambda: low.GateList(random.randrange(5)),
    lambda: pb.Circuit(random.randrange(5)).global_phase(pb.Parameter("a")),
    lambda: pb.StateVector(random.randrange(5)),
    lambda: pb.DensityMatrix(random.randrange(3)),
    lambda: pb.Observable({"XYZ": 1, "IIZ": 2j}),
    lambda: pb.Counts({"01": 2}),
    lambda: pb.Channel.depolarizing(0.1),
    lambda: pb.NoiseModel().add(pb.Channel.bit_flip(0.2)),
    lambda: pb.Parameter("b"),
    lambda: STATE(3).rng,
    lambda: STATE.__new__(STATE),
    lambda: random.choice([low, pb]),
]


def objects():
    return random.choice(MAKERS)()


pool = [objects() for _ in range(40)]


def argument():
    kind = random.randrange(12)
    if kind < 5:
        return number()
    if kind < 8:
        return several()
    if kind < 9:
        return array()
    if kind < 10:
        return text()
    return random.choice(pool)


def likely(name):
    """A value that a parameter of this name would often accept."""
    qubit = random.randrange(4)
    if name in (
        "qubit", "target", "control", "control1", "control2", "q1", "q2", "qubit1", "qubit2",
        "clbit", "position",
    ):  # fmt: skip
        return qubit
    if name in ("qubits", "ctrls", "controls", "address", "data", "clbits"):
        return random.sample(range(5), random.randrange(4))
    if name in ("theta", "phi", "lam", "threshold", "probability", "factor", "coefficient"):
        return random.choice([0.0, 0.3, -1.2, pb.Parameter("a"), 2 * pb.Parameter("b")])
    if name in ("matrix", "operators"):
        return np.eye(2 ** random.choice([1, 1, 2, 3]))
    if name in ("nqubits", "num_qubits", "shots", "nshots", "outcome", "data_width", "num_threads"):
        return random.randrange(6)
    if name in ("out", "source", "amplitudes", "words", "table"):
        return random.choice([None, [0, 1], array()])
    if name in ("values", "marked", "angles"):
        return random.choice([None, [0, 1], (), {"a": 1.5}, {"a": [1, 2]}, [[0.5], [1]], array()])
    if name == "observables":
        return random.choice(["Z0", ["X0", "Z0"], [], None])
    if name == "ctrl_state":
        return random.choice([None, 0, 1, "01"])
    if name in ("terms", "letters", "description", "paulis", "text", "name"):
        return text()
    return random.choice(pool)


def parameters_of(member):
    """Names of the parameters, without `self`; empty when they are not known."""
    signatures = getattr(member, "__nb_signature__", None)
    if signatures:
        return [n for n in re.findall(r"(\w+)\s*:", signatures[0][0]) if n != "self"]
    try:
        return list(inspect.signature(member).parameters)
    except (TypeError, ValueError):
        return []


# Those that print, read or write files, or are dict's own.
SKIPPED = {
    "print", "main", "plot", "load", "save", "pop", "popitem", "setdefault", "update", "fromkeys",
}  # fmt: skip
SPECIAL = ("__init__", "__len__", "__call__", "__iter__", "__add__", "__mul__", "__str__")
TAKE_SHOTS = (
    "sample", "estimate", "evaluate_terms", "sample_subset", "sample_outcomes", "run", "sweep",
)  # fmt: skip


def public_names(target):
    if inspect.ismodule(target):
        return [n for n in target.__all__ if n not in SKIPPED]
    return [n for n in dir(target) if n not in SKIPPED and (not n.startswith("_") or n in SPECIAL)]


def assign(target, name):
    """Python itself answers an attribute that cannot be set with AttributeError."""
    try:
        setattr(target, name, argument())
    except AttributeError:
        pass


def call(member, name):
    known = parameters_of(member)
    if known and random.random() < 0.9:
        strange = random.choice([0, 0, 0.3])
        arguments = [
            argument() if random.random() < strange else likely(n)
            for n in known[: random.choice([1, 2, 3, 4, 5])]
        ]
    else:
        arguments = [argument() for _ in range(random.randrange(5))]
    if name in TAKE_SHOTS:
        arguments = [a if not (isinstance(a, int) and a > 2**20) else 50 for a in arguments]
    result = member(*arguments)
    if isinstance(result, np.ndarray) and random.random() < 0.1:
        pool.append(result)
        pool.pop(0)


done = passed = 0
while done < calls:
    if random.random() < 0.02:
        pool[random.randrange(len(pool))] = objects()
    target = random.choice(pool)
    if isinstance(target, np.ndarray):
        continue
    name = random.choice(public_names(target))
    done += 1
    try:
        if random.random() < 0.05 and target not in (low, pb):
            assign(target, name)
            continue
        member = getattr(target, name)
        if callable(member):
            call(member, name)
            passed += 1
    except ALLOWED:
        pass
print(done, passed)
