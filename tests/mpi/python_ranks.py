"""States over ranks against one process, from Python; started by mpirun with any ranks."""

import copy
import os
import signal
import tempfile
from pathlib import Path
from typing import Any

import numpy as np
from mpi4py import MPI

import pblinalg as pb

comm = MPI.COMM_WORLD
NUM_QUBITS = 10


def a_circuit() -> pb.Circuit:
    circuit = pb.Circuit(NUM_QUBITS)
    for qubit in range(NUM_QUBITS):
        circuit.h(qubit).rx(0.3 * qubit, qubit).cx(qubit, (qubit + 3) % NUM_QUBITS)
    return circuit.swap(0, NUM_QUBITS - 1).rzz(pb.Parameter("a"), 0, 5).h(0)


def both(precision: str = "double") -> tuple[pb.mpi.StateVector, pb.StateVector]:
    spread = pb.mpi.StateVector(NUM_QUBITS, comm, precision, seed=3)
    whole = pb.StateVector(NUM_QUBITS, precision, threads=2, seed=3)
    circuit = a_circuit()
    return spread.run(circuit, {"a": 0.4}), whole.run(circuit, values={"a": 0.4})


def raises(kind: type, part: str, work) -> None:
    try:
        work()
    except kind as error:
        assert part in str(error), error
        return
    raise AssertionError(f"no {kind.__name__} with {part!r}")


def test_results_are_those_of_one_process() -> None:
    for precision in ("float", "double"):
        spread, whole = both(precision)
        array, expected = spread.to_array(), whole.to_array()
        assert array.dtype == expected.dtype and array.tobytes() == expected.tobytes()
        assert spread.to_array(root=0) is None or comm.rank == 0
        assert spread["0110000001"] == whole["0110000001"] and spread[-1] == whole[-1]
        assert (spread.probabilities([9, 0, 4]) == whole.probabilities([9, 0, 4])).all()
        assert spread.probability("01", [8, 1]) == whole.probability("01", [8, 1])
        assert spread.norm() == whole.norm()
        assert spread.sample(500) == whole.sample(500)
        assert spread.sample(100, [3, 9]) == whole.sample(100, [3, 9])
        assert (spread.sample(5, root=0) is None) == (comm.rank != 0)
        whole.sample(5)
        observable = {"XIIIIIIIIX": 0.5, "ZIIIIYIIIZ": -1.5}
        assert spread.expectation(observable) == whole.expectation(observable)
        assert spread.expectation_terms(observable) == whole.expectation_terms(observable)
        assert spread.estimate(observable, 100) == whole.estimate(observable, 100)
        assert spread.measure([0, 9]) == whole.measure([0, 9])
        assert spread.cx(9, 0).to_array().tobytes() == whole.cx(9, 0).to_array().tobytes()
        assert sum(spread.sample(50, by_pieces=True).values()) == 50


def test_loads_are_those_of_one_process() -> None:
    inputs = np.random.default_rng(5)
    few = inputs.normal(size=4) + 1j * inputs.normal(size=4)
    few /= np.linalg.norm(few)
    loads = (
        lambda state: state.set_product("01+-01+-+-"),
        lambda state: state.prepare(few, [9, 0]),
        lambda state: state.prepare(1.0001 * few, [2, 5], check=False),
        lambda state: state.reset([0, 9, 4]),
        lambda state: state.load_words([[3, 0], [5, 6]], [8, 1], [0, 9, 4]),
        lambda state: state.reset([9, 1]),
        lambda state: state.load_amplitudes(few.real.reshape(2, 2), 5, 9),
    )
    for precision in ("float", "double"):
        spread, whole = both(precision)
        for number, load in enumerate(loads):
            assert load(spread) is spread
            same = spread.to_array().tobytes() == load(whole).to_array().tobytes()
            assert same, f"load {number} in {precision}"


def test_long_samples_tell_how_far_they_are() -> None:
    spread, whole = both()
    told: list[tuple[int, int]] = []
    expected = whole.sample_outcomes(25)
    pb.mpi.SHOTS_PER_PIECE = 10
    outcomes = spread.sample_outcomes(25, progress=lambda *report: told.append(report))
    assert (outcomes == expected).all() and told == [(10, 25), (20, 25), (25, 25)]

    def fail(done: int, total: int) -> None:
        raise LookupError("no more")

    here = comm.rank == comm.size - 1
    raises(
        LookupError if here else RuntimeError,
        "no more",
        lambda: spread.sample(30, progress=fail if here else False),
    )
    whole.sample(10)
    if comm.size > 1:
        # Rank by rank other numbers of pieces.
        raises(ValueError, "differs", lambda: spread.sample(20 + 10 * here))
    pb.mpi.SHOTS_PER_PIECE = 1 << 20
    assert spread.sample(30) == whole.sample(30)


def test_measured_circuits_agree() -> None:
    circuit = pb.Circuit(NUM_QUBITS, 2).h(9).measure(9, 0).cx(9, 0).measure(0, 1)
    spread = pb.mpi.StateVector(NUM_QUBITS, seed=5).run(circuit)
    whole = pb.StateVector(NUM_QUBITS, seed=5).run(circuit)
    assert spread.copy().classical_bits == spread.classical_bits == whole.classical_bits
    assert (spread.to_array() == whole.to_array()).all()


def test_files_pass_between_numbers_of_ranks(directory: Path) -> None:
    spread, whole = both()
    spread.save(directory / "state.npy")
    assert (np.load(directory / "state.npy") == whole.to_array()).all()
    again = pb.mpi.StateVector.load(directory / "state.npy")
    assert again.precision == "double" and (again.to_array() == whole.to_array()).all()
    if comm.rank == 0:
        np.save(directory / "other.npy", whole.to_array().astype(np.complex64))
    comm.Barrier()
    other = pb.mpi.StateVector.load(directory / "other.npy")
    assert other.precision == "float"
    assert (other.to_array() == whole.to_array().astype(np.complex64)).all()
    scaled = pb.mpi.StateVector(NUM_QUBITS, comm).set_amplitudes(2 * whole.to_array(), check=False)
    scaled.save(directory / "scaled.npy")
    texts = []
    for load in (pb.StateVector.load, pb.mpi.StateVector.load):
        assert load(directory / "scaled.npy", check=False).norm() == scaled.norm()
        try:
            load(directory / "scaled.npy")
        except ValueError as error:
            texts.append(str(error))
    assert len(texts) == 2 and texts[0] == texts[1], texts
    raises(RuntimeError, "nobody.npy", lambda: pb.mpi.StateVector.load(directory / "nobody.npy"))
    if comm.rank == 0:
        header = b"{'descr': ['<c16', 'shape"
        broken = b"\x93NUMPY\x01\x00" + bytes([len(header), 0]) + header
        (directory / "broken.npy").write_bytes(broken)
        with open(directory / "second.npy", "wb") as file:
            np.lib.format.write_array(file, whole.to_array(), version=(2, 0))
    comm.Barrier()
    raises(RuntimeError, "broken.npy", lambda: pb.mpi.StateVector.load(directory / "broken.npy"))
    second = pb.mpi.StateVector.load(directory / "second.npy")
    assert (second.to_array() == whole.to_array()).all()


def test_runs_resume_from_checkpoints(directory: Path) -> None:
    state = pb.mpi.StateVector(NUM_QUBITS)
    state.run(a_circuit(), [0.4], checkpoint=directory / "run", every=7)
    again = pb.mpi.StateVector(NUM_QUBITS)
    again.resume(a_circuit(), directory / "run", 7, [0.4])
    assert (again.to_array() == state.to_array()).all()
    raises(
        ValueError,
        "another list",
        lambda: again.resume(a_circuit(), directory / "run", 7, [0.5]),
    )
    rounded = pb.mpi.StateVector(NUM_QUBITS)
    rounded.run(a_circuit(), [0.4], directory / "rounded", 7, accuracy="rounding")
    assert np.allclose(rounded.to_array(), state.to_array(), rtol=0, atol=1e-12)
    arguments = a_circuit(), directory / "rounded", 7, [0.4]
    raises(ValueError, "another accuracy", lambda: again.resume(*arguments))
    again.resume(*arguments, accuracy="rounding")
    assert np.allclose(again.to_array(), state.to_array(), rtol=0, atol=1e-12)
    raises(ValueError, "accuracy = 'fast'", lambda: state.run(a_circuit(), [0.4], accuracy="fast"))


def test_what_one_rank_raises_stops_all() -> None:
    circuit = pb.Circuit(NUM_QUBITS)
    for layer in range(2000):
        circuit.rx(0.1 * layer, layer % NUM_QUBITS).cx(layer % NUM_QUBITS, (layer + 3) % NUM_QUBITS)

    def interrupt(done: int, total: int) -> None:
        os.kill(os.getpid(), signal.SIGINT)

    def fail(done: int, total: int) -> None:
        raise LookupError("no more")

    last = comm.size - 1
    for progress, own, others in (
        (interrupt, KeyboardInterrupt, KeyboardInterrupt),
        (fail, LookupError, RuntimeError),
    ):
        state = pb.mpi.StateVector(NUM_QUBITS)
        here = comm.rank == last
        raises(
            own if here else others,
            "" if here else f"rank {last} raised {own.__name__}",
            lambda: state.run(circuit, progress=progress if here else False),
        )
        assert abs(state.norm() - 1) < 1e-9
    told: list[int] = []
    state.reset().run(circuit, progress=lambda done, total: told.append(done))
    assert told == sorted(told) and told[-1] == len(circuit)


class InterruptedOnLastRank:
    """A state of the lower level that gets SIGINT once a measurement has been read."""

    def __init__(self, core: Any) -> None:
        self.core = core

    def __getattr__(self, name: str) -> Any:
        return getattr(self.core, name)

    def measure(self, qubits: list[int]) -> int:
        outcome: int = self.core.measure(qubits)
        if comm.rank == comm.size - 1:
            os.kill(os.getpid(), signal.SIGINT)
        return outcome


def test_interrupts_amid_measurements_stop_all() -> None:
    circuit = pb.Circuit(NUM_QUBITS, 2).h(0).measure(0, 0).x(1).measure(1, 1)
    state = pb.mpi.StateVector(NUM_QUBITS)
    core = state._core
    state._core = InterruptedOnLastRank(core)
    raises(KeyboardInterrupt, "", lambda: state.run(circuit))
    state._core = core
    # What was begun is done, on all ranks.
    assert sorted(state.probabilities([0])) == [0, 1] and state.probability("0", [1]) == 1
    assert abs(state.norm() - 1) < 1e-9
    for by_pieces in (False, True):
        read = state.run(circuit, by_pieces=by_pieces).classical_bits
        assert state.measure([1, 0], by_pieces) == f"{read[1]}{read[0]}"


def test_bad_arguments_name_themselves() -> None:
    state = pb.mpi.StateVector(NUM_QUBITS)
    raises(ValueError, "too few", lambda: pb.mpi.StateVector(1))
    raises(MemoryError, "amplitudes of 60", lambda: pb.mpi.StateVector(60))
    raises(ValueError, "circuit acts on 3", lambda: state.run(pb.Circuit(3)))
    raises(IndexError, "root", lambda: state.to_array(root=comm.size))
    raises(IndexError, "qubits", lambda: state.probabilities([NUM_QUBITS]))
    raises(ValueError, "norm", lambda: state.set_amplitudes(np.ones(1024)))
    raises(TypeError, "save", lambda: copy.copy(state))
    raises(TypeError, "progress", lambda: state.run(pb.Circuit(NUM_QUBITS), progress=1))
    raises(ValueError, "expected 10 characters", lambda: state.set_product("01"))
    raises(TypeError, "must be a str", lambda: state.set_product(1))
    raises(ValueError, "expected 4 for 2", lambda: state.prepare([1], [0, 1]))
    raises(ValueError, "listed twice", lambda: state.prepare([1, 0, 0, 0], [1, 1]))
    raises(IndexError, "qubits", lambda: state.prepare([1, 0], [NUM_QUBITS]))
    raises(TypeError, "integers", lambda: state.load_words([0.5, 1], [0], [1]))
    raises(ValueError, "between 0 and 1", lambda: state.load_words([2, 1], [0], [1]))
    raises(ValueError, "expected 4", lambda: state.load_words([1], [0, 2], [1]))
    raises(ValueError, "real", lambda: state.load_amplitudes([1j, 1], [], [1]))
    raises(ValueError, "shots", lambda: state.estimate("Z" * NUM_QUBITS, 0))
    raises(ValueError, "real", lambda: state.estimate({"Z" * NUM_QUBITS: 1j}, 10))
    one = pb.mpi.StateVector(NUM_QUBITS).x(4)
    raises(ValueError, "data: the register must be", lambda: one.load_words([1, 0], [0], [4]))
    if comm.size > 1:
        every = list(range(NUM_QUBITS))
        raises(ValueError, "a rank has", lambda: state.prepare(np.eye(1, 1 << NUM_QUBITS), every))
        # What one rank alone is given wrongly reaches all, and so does what differs.
        last = int(comm.rank == comm.size - 1)
        raises(ValueError, "differs", lambda: state.rx(0.1 * comm.rank, 0))
        raises(ValueError, "differs", lambda: state.sample(10 + last))
        raises(ValueError, "differs", lambda: state.probabilities([0] if last else [0, 9]))
        raises(ValueError, "differs", lambda: state.project(0, [last]))
        raises(ValueError, "differs", lambda: state.load_words([1, 1], [0], [8 + last]))
        raises(ValueError, "differs", lambda: state.estimate("ZX"[last] * NUM_QUBITS, 10))
        raises(ValueError, "differs", lambda: state.save(f"state_{last}.npy"))
        raises(ValueError, "differs", lambda: state.set_amplitudes(np.eye(1, 1024, last)))
        raises(ValueError, "the seed differs", lambda: pb.mpi.StateVector(NUM_QUBITS, seed=last))
        seed = last or None
        raises(ValueError, "on some ranks", lambda: pb.mpi.StateVector(NUM_QUBITS, seed=seed))
        kind = ValueError if last else RuntimeError
        for work in (
            lambda: state.set_product("?" if last else "0" * NUM_QUBITS),
            lambda: state.probability(9 * last, [0]),
            lambda: state.sample(-1 if last else 1),
            lambda: state.run(pb.Circuit(NUM_QUBITS + last)),
            lambda: state.z(5, [4 + last]),
            lambda: state.expectation("Z" * (NUM_QUBITS + last)),
        ):
            raises(kind, "" if last else f"rank {comm.size - 1} raised ValueError", work)
    assert state["0" * NUM_QUBITS] == 1


def test_copies_and_comparisons_are_those_of_one_process() -> None:
    spread, whole = both()
    copied, twin = spread.copy().rx(0.3, 9), whole.copy().rx(0.3, 9)
    assert copied.to_array().tobytes() == twin.to_array().tobytes()
    assert spread.to_array().tobytes() == whole.to_array().tobytes()
    assert copied.seed != spread.seed and copied.seed == comm.bcast(copied.seed)
    assert np.isclose(spread.inner(copied), whole.inner(twin))
    for other in (copied, twin, twin.to_array()):
        assert np.isclose(spread.fidelity(other), whole.fidelity(twin)), type(other)
    assert spread.to_dict(0.02) == whole.to_dict(0.02)
    matrix = spread.reduced_density_matrix([9, 0, 4])
    np.testing.assert_allclose(matrix, whole.reduced_density_matrix([9, 0, 4]), atol=1e-14)
    few = [9, 2]
    assert np.isclose(spread.entanglement_entropy(few), whole.entanglement_entropy(few))
    raises(ValueError, "precision", lambda: spread.inner(both("float")[0]))
    raises(ValueError, "expected 10 on", lambda: spread.inner(pb.mpi.StateVector(11, comm)))
    raises(TypeError, "over ranks", lambda: spread.inner(whole))


def test_dry_runs_need_no_ranks() -> None:
    circuit = pb.Circuit(40)
    for qubit in range(40):
        circuit.rx(0.3, qubit)
    run = pb.mpi.dry_run(circuit, 1024)
    assert run["exchanges"] == 1 and 0.99 < run["bytes_sent"] / 2**34 < 1
    assert run["gate_by_gate_exchanges"] == 10
    circuit.compose(circuit)
    assert pb.mpi.dry_run(circuit, 1024)["exchanges"] == 2
    assert pb.mpi.dry_run(circuit, 1024, accuracy="rounding")["exchanges"] == 1


if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as own:
        shared = Path(comm.bcast(own))
        for name, test in list(globals().items()):
            if name.startswith("test_"):
                test(shared) if "directory" in test.__annotations__ else test()
        comm.Barrier()
    if comm.rank == 0:
        print("all passed on", comm.size, "ranks")
