"""States that are spread over the ranks of an MPI communicator. Needs mpi4py, and a package that
was built with PBLINALG_BUILD_MPI."""

from __future__ import annotations

import importlib
import os
import secrets
import signal
import threading
from collections.abc import Callable, Iterable, Iterator
from contextlib import contextmanager
from typing import Any, Literal, NoReturn, SupportsIndex

import numpy as np
from numpy.lib import format as npy
from numpy.typing import ArrayLike, NDArray

from . import _core
from ._core import GateList
from .arguments import (
    MAX_COUNT,
    Accuracy,
    Precision,
    Qubits,
    accuracy_name,
    count,
    distinct_qubits,
    index,
    integer,
    outcome_number,
    precision_name,
    seed_number,
)
from .circuit import Circuit
from .counts import Counts
from .execution import run_steps
from .gates import GateMethods, as_qubits
from .parameters import Values, values_in_order
from .program import Program
from .progress import Progress, bar_class, check_progress, reporter
from .pure_state import PureState, amplitudes_array, require_norm_1
from .readout import SHOTS_PER_PIECE, Readout

try:
    _mpi: Any = importlib.import_module("pblinalg._mpi")
    MPI: Any = importlib.import_module("mpi4py.MPI")
except ImportError as error:
    raise ImportError(
        f"pblinalg.mpi is not there ({error}): it needs mpi4py and a package built with "
        "pip install . --config-settings=cmake.define.PBLINALG_BUILD_MPI=ON"
    ) from None

_STATES = {"float": _mpi.StateVectorFloat, "double": _mpi.StateVectorDouble}
#: The root of a result that every rank gets.
_ALL = -1


class _Interrupts:
    """Those that came while ranks are not to be torn apart."""

    def __init__(self) -> None:
        self.signals: list[tuple[Any, Any]] = []

    def error(self) -> KeyboardInterrupt | None:
        return KeyboardInterrupt() if self.signals else None

    def watched(self, report: Callable[[int], object] | None) -> Callable[[int], None]:
        """`report`, which raises what came."""

        def told(done: int) -> None:
            if self.signals:
                raise KeyboardInterrupt
            if report:
                report(done)

        return told


@contextmanager
def _interrupts_held() -> Iterator[_Interrupts]:
    """Collects SIGINT: an exception between two calls that all ranks take part in would leave the
    others waiting. One that nobody has raised by the end is handed on then."""
    held = _Interrupts()
    before = signal.getsignal(signal.SIGINT)
    if threading.current_thread() is not threading.main_thread() or not callable(before):
        yield held
        return
    signal.signal(signal.SIGINT, lambda *received: held.signals.append(received))
    try:
        yield held
    finally:
        signal.signal(signal.SIGINT, before)
    if held.signals:
        before(*held.signals[-1])


class _ByPieces:
    """A state of the lower level, measured with running sums that each rank takes on its own."""

    def __init__(self, core: Any) -> None:
        self.project, self.project_then_reset = core.project, core.project_then_reset
        self.measure = core.measure_by_pieces


class StateVector(PureState):
    """The pure state of `num_qubits` qubits, in |0...0> at first, over 2^p ranks of `comm`, each of
    which holds 2^(n-p) amplitudes.

    All methods are collective: every rank calls them in the same order with the same arguments, and
    gets the same result or the same error. Strings, outcomes and arrays have qubit 0 first, as
    those of `pblinalg.StateVector`, whose amplitudes and shots for a seed these are. ValueError for
    a number of ranks that is no power of two and for fewer than p + 2 qubits. `prepare`, and the
    data registers of `load_words` and `load_amplitudes`, take n - p qubits at most.

    threads: worker threads of every rank, 1 by default.
    seed: of the generator behind shots and measurements, by default one that rank 0 draws.

    >>> StateVector(30, MPI.COMM_WORLD, seed=7).run(circuit).sample(100)
    """

    __slots__ = ("_comm", "_node_ranks", "_precision", "_threads")

    def __init__(
        self,
        num_qubits: SupportsIndex,
        comm: Any = None,
        precision: Precision = "double",
        threads: SupportsIndex = 1,
        seed: SupportsIndex | None = None,
    ) -> None:
        self._comm = MPI.COMM_WORLD if comm is None else comm
        with self._together():
            self._precision = precision_name(precision)
            number = count(num_qubits, "num_qubits", 0, MAX_COUNT)
            self._threads = count(threads, "threads", 1)
            given = seed if seed is None else seed_number(seed)
        if len(set(self._comm.allgather(given is None))) > 1:
            raise ValueError("seed is given on some ranks only; expected on all or none")
        self._seed = self._drawn_seed() if given is None else given
        node = self._comm.Split_type(MPI.COMM_TYPE_SHARED)
        self._node_ranks = node.size
        node.Free()
        self._require_memory(number, self._node_ranks / self._comm.size)
        self._core = _STATES[self._precision](self._comm.py2f(), number, self._threads)
        self._core.seed(self._seed)
        self._bits: list[int] = []
        GateMethods.__init__(self)

    def copy(self) -> StateVector:
        """A state of its own over the same ranks with the same amplitudes, precision and threads,
        and a generator with a seed of its own."""
        result = type(self).__new__(type(self))
        for name in ("_bits", *StateVector.__slots__):
            setattr(result, name, getattr(self, name))
        self._require_memory(self.num_qubits, self._node_ranks / self._comm.size)
        result._core = self._core.copy()
        result.seed = self._drawn_seed()
        GateMethods.__init__(result)
        return result

    def _require_memory(self, num_qubits: int, copies: float) -> None:
        """Asks this machine for that of so many times all amplitudes; the system itself would give
        more than there is."""
        with self._together():
            # Beyond any memory there is no need for the exact number.
            size = np.dtype(self._dtype).itemsize * 2.0 ** min(num_qubits, 100)
            _core.require_memory(copies * size, f"the amplitudes of {num_qubits} qubits")

    def _drawn_seed(self) -> int:
        seed: int = self._comm.bcast(secrets.randbits(64))
        return seed

    @property
    def local_qubits(self) -> int:
        """n - p: how many qubits a matrix can act on, and the amplitudes of a rank as a power of
        two."""
        return int(self._core.local_qubits)

    @property
    def comm(self) -> Any:
        """The communicator."""
        return self._comm

    @property
    def precision(self) -> Literal["float", "double"]:
        """'float' (complex64 amplitudes) or 'double' (complex128)."""
        return self._precision

    @property
    def threads(self) -> int:
        """Worker threads of a rank. No result depends on it."""
        return self._threads

    @threads.setter
    def threads(self, threads: SupportsIndex) -> None:
        self._threads = count(threads, "threads", 1)
        self._core.set_num_threads(self._threads)

    @property
    def seed(self) -> int:
        """What the generator behind shots and measurements was last seeded with. Assigning seeds it
        anew, on all ranks."""
        return self._seed

    @seed.setter
    def seed(self, seed: SupportsIndex) -> None:
        self._seed = seed_number(seed)
        self._core.seed(self._seed)

    # ---- Preparing -------------------------------------------------------------------------------

    def set_amplitudes(self, amplitudes: ArrayLike, check: bool = True) -> StateVector:
        """Loads 2^n amplitudes, given whole on every rank, qubit 0 being the most significant bit
        of an index. ValueError when their norm is not 1, unless `check` is False."""
        with self._together():
            array = amplitudes_array(amplitudes, self.num_qubits, check).reshape(-1)
        self._core.set_amplitudes(array.astype(self._dtype, copy=False))
        return self

    # ---- Running ---------------------------------------------------------------------------------

    def run(
        self,
        circuit: Program,
        values: Values | None = None,
        checkpoint: str | os.PathLike[str] | None = None,
        every: SupportsIndex = 0,
        progress: Progress = None,
        accuracy: Accuracy = "exact",
        by_pieces: bool = False,
    ) -> StateVector:
        """Applies a circuit, measurements and all, to the state as it is. `values` are those of its
        parameters; `accuracy` is that of `pblinalg.run`. "rounding" exchanges far less: gates on
        different qubits overtake each other, so that more of them run between two exchanges. Its
        amplitudes agree up to rounding for every number of ranks.

        A signal that one rank gets, such as SIGINT, and an exception from its `progress` stop all
        of them, within about a thousand gates: the state then holds the effect of exactly the gates
        and measurements up to there. That rank raises what it got; the others raise
        KeyboardInterrupt or RuntimeError, which names the rank.

        checkpoint: a file that names the last saved state. A circuit of gates alone is saved every
        `every` gates, and `resume` goes on from there.
        progress: a function of (gates done, gates), called on every rank that gives one; True or
        None for a bar on rank 0.
        by_pieces: measurements in the circuit as those of `measure`.
        """
        with _interrupts_held() as interrupts:
            steps, numbers, path, interval, own = self._agreed(
                circuit, values, checkpoint, every, accuracy, progress
            )
            self._bits = [0] * circuit.num_clbits
            with reporter(own, len(circuit), "gate") as report:
                run_steps(
                    _ByPieces(self._core) if by_pieces else self._core,
                    steps,
                    self._bits,
                    numbers,
                    report,
                    run_gates=lambda gates, report: self._raise_together(
                        self._core.run(
                            gates, numbers, path, interval, interrupts.watched(report), accuracy
                        )
                    ),
                    after_measurement=lambda: self._raise_together(interrupts.error()),
                )
            self._raise_together(interrupts.error())
        return self

    def resume(
        self,
        circuit: Program,
        checkpoint: str | os.PathLike[str],
        every: SupportsIndex = 0,
        values: Values | None = None,
        progress: Progress = None,
        accuracy: Accuracy = "exact",
    ) -> StateVector:
        """Loads a checkpoint of a run of the same circuit, values and accuracy and applies the
        gates that it lacks: exact ones give the bits of a run that was not interrupted, on any
        number of ranks. ValueError for one of another. `progress` and signals are as in `run`."""
        with _interrupts_held() as interrupts:
            steps, numbers, path, interval, own = self._agreed(
                circuit, values, checkpoint, every, accuracy, progress
            )
            with reporter(own, len(circuit), "gate") as report:
                for gates in steps:
                    self._raise_together(
                        self._core.resume(
                            gates, numbers, path, interval, interrupts.watched(report), accuracy
                        )
                    )
            self._raise_together(interrupts.error())
        return self

    def _agreed(
        self,
        circuit: Program,
        values: Values | None,
        checkpoint: str | os.PathLike[str] | None,
        every: SupportsIndex,
        accuracy: Accuracy,
        progress: Progress,
    ) -> tuple[Any, NDArray[np.float64], str, int, Progress]:
        """What a run was given, checked on all ranks."""
        with self._together():
            accuracy_name(accuracy)
            steps = self._steps(circuit, values)
            return *steps, *self._checkpoint(circuit, checkpoint, every), self._own(progress)

    def _own(self, progress: Progress) -> Progress:
        """What this rank shows of it: bars are those of rank 0."""
        check_progress(progress)
        if progress is True:
            bar_class()
        return progress if callable(progress) or self._comm.rank == 0 else False

    @contextmanager
    def _together(self) -> Iterator[None]:
        error: BaseException | None = None
        try:
            yield
        except BaseException as raised:
            error = raised
        self._raise_together(error)

    def _raise_together(self, error: BaseException | None) -> None:
        """Raises an error of this rank here and tells the others."""
        if not self._comm.allreduce(error is not None, MPI.LOR):
            return
        found = None if error is None else (isinstance(error, KeyboardInterrupt), repr(error))
        everybody = self._comm.allgather(found)
        if error is not None:
            raise error
        rank, (interrupted, text) = next(item for item in enumerate(everybody) if item[1])
        raise (KeyboardInterrupt if interrupted else RuntimeError)(f"rank {rank} raised {text}")

    def _steps(self, circuit: Program, values: Values | None) -> tuple[Any, NDArray[np.float64]]:
        if not isinstance(circuit, Program):
            raise TypeError(f"circuit must be a Circuit, got {circuit!r}")
        if circuit.num_qubits != self.num_qubits:
            raise ValueError(
                f"circuit acts on {circuit.num_qubits} qubits; the state has {self.num_qubits}"
            )
        return circuit.steps, values_in_order(circuit, values)

    @staticmethod
    def _checkpoint(
        circuit: Program, checkpoint: str | os.PathLike[str] | None, every: SupportsIndex
    ) -> tuple[str, int]:
        if checkpoint is None:
            return "", 0
        if len(circuit.steps) > 1 or not all(isinstance(step, GateList) for step in circuit.steps):
            raise ValueError("checkpoint: the circuit measures; expected one of gates alone")
        return os.fspath(checkpoint), count(every, "every")

    # ---- Reading ---------------------------------------------------------------------------------

    @property
    def _dtype(self) -> Any:
        return np.complex64 if self._precision == "float" else np.complex128

    def to_array(self, root: int | None = None) -> NDArray[np.complexfloating[Any, Any]] | None:
        """The 2^n amplitudes with qubit 0 the most significant bit of an index: on all ranks, or on
        rank `root` alone and None on the others."""
        with self._together():
            place = self._root(root)
        arrays = self._node_ranks if root is None else int(root == self._comm.rank)
        self._require_memory(self.num_qubits, arrays)
        values: NDArray[Any] = self._core.gather(place)
        return values if root in (None, self._comm.rank) else None

    def __array__(self, dtype: Any = None, copy: bool | None = None) -> NDArray[Any]:
        if copy is False:
            raise ValueError("the amplitudes lie on several ranks; an array of them is a copy")
        return np.asarray(self.to_array()).astype(dtype or self._dtype, copy=False)

    def __len__(self) -> int:
        """The number of amplitudes, 2^n."""
        return 1 << self.num_qubits

    def __getitem__(self, position: SupportsIndex | str) -> complex:
        """One amplitude, by its index in `to_array` or by its basis state as a string."""
        with self._together():
            if isinstance(position, str):
                number = outcome_number(position, self.num_qubits)
            else:
                number = integer(position, "position")
                if not -len(self) <= number < len(self):
                    raise IndexError(f"position = {number}: expected a value below {len(self)}")
                number %= len(self)
        return complex(self._core.amplitudes([number])[0])

    def amplitudes_at(self, indices: ArrayLike) -> NDArray[np.complexfloating[Any, Any]]:
        """The amplitudes at the given indices of `to_array`. ValueError for one beyond them."""
        with self._together():
            numbers = [integer(number, "indices") for number in np.asarray(indices).reshape(-1)]
            if any(number < 0 for number in numbers):
                raise ValueError(f"indices must not be negative, got {indices!r}")
        values: NDArray[Any] = self._core.amplitudes(numbers)
        return values

    def probabilities(
        self, qubits: Qubits | None = None, out: NDArray[Any] | None = None
    ) -> NDArray[np.floating[Any]]:
        """The probabilities of all outcomes on `qubits` (all of them by default), the first listed
        qubit being the most significant bit of an index; written into `out` when given."""
        with self._together():
            listed = self._listed(qubits)
            if out is not None and out.size != 1 << len(listed):
                raise ValueError(f"out holds {out.size} elements; expected {1 << len(listed)}")
        values: NDArray[Any] = self._core.get_distribution(listed)
        if out is None:
            return values
        out.flat[:] = values
        return out

    def to_dict(self, threshold: float = 0.0) -> dict[str, complex]:
        """The amplitudes of magnitude above `threshold` by basis state, qubit 0 leftmost: all of
        them on every rank."""
        array = np.asarray(self.to_array())
        (kept,) = np.nonzero(np.abs(array) > threshold)
        return {format(i, f"0{self.num_qubits}b"): complex(array[i]) for i in kept}

    def reduced_density_matrix(self, qubits: Qubits) -> NDArray[np.complex128]:
        """The state of the listed qubits when nothing is known of the others, as a 2^k x 2^k array,
        the first listed qubit being the most significant bit of rows and columns, on every rank;
        last digits depend on the number of ranks. ValueError for more than n - p qubits."""
        with self._together():
            listed = distinct_qubits(self._listed(qubits), self.num_qubits)
        matrix: NDArray[np.complex128] = self._core.reduced_density_matrix(listed)
        return matrix.reshape(1 << len(listed), -1)

    def entanglement_entropy(self, qubits: Qubits) -> float:
        """How much the listed qubits are entangled with the others, in bits. ValueError when the
        probabilities of the state do not add up to 1, and where both are more than n - p qubits."""
        return self._entanglement(qubits)

    def inner(self, other: StateVector) -> complex:
        """The inner product <self|other> with a state over the same ranks. ValueError for one of
        another precision or number of qubits."""
        with self._together():
            if not isinstance(other, StateVector):
                raise TypeError(
                    f"other must be a StateVector over ranks, got {type(other).__name__}"
                )
            if other.precision != self.precision:
                raise ValueError(
                    f"other has precision {other.precision}; expected {self.precision}"
                )
        return complex(self._core.inner(other._core))

    def fidelity(self, other: Readout | ArrayLike) -> float:
        """|<a|b>|^2 with a state over the same ranks. Any other state or array is compared with
        the whole of this one on every rank; see `pblinalg.StateVector.fidelity`."""
        if isinstance(other, StateVector):
            return abs(self.inner(other)) ** 2
        return super().fidelity(other)

    def _in_memory(self) -> NDArray[Any]:
        array = np.asarray(self.to_array())
        return array.reshape((2,) * self.num_qubits).T.reshape(-1)

    def sample_outcomes(  # type: ignore[override]
        self,
        shots: SupportsIndex,
        qubits: Qubits | None = None,
        root: int | None = None,
        by_pieces: bool = False,
        progress: Progress = None,
    ) -> NDArray[np.uint64] | None:
        """The outcomes of `shots` measurements in order, the first listed qubit being the most
        significant bit: on all ranks, or on rank `root` alone and None on the others.

        They are those of one process with the same seed, for which the ranks add up their
        probabilities one after the other. With `by_pieces` they do it at once, and shots on the
        brink may fall to a neighbouring outcome. `progress` is that of `run`; what it raises on one
        rank stops all of them between pieces.
        """
        with self._together():
            number = count(shots, "shots")
            listed = self._listed(qubits)
            place = self._root(root)
            own = self._own(progress)
        # What the loop below depends on; the lower level compares the rest.
        if len(set(self._comm.allgather((number, not listed)))) > 1:
            raise ValueError("the list of qubits or the number of shots differs between ranks")
        self._require_norm()
        receives = root in (None, self._comm.rank)
        with self._together():
            outcomes = np.zeros(number if receives else 0, dtype=np.uint64)
        # The lower level reads all qubits for an empty list.
        pieces = range(0, number if listed else 0, SHOTS_PER_PIECE)
        with reporter(own if len(pieces) > 1 else False, number, "shot") as report:
            for begin in pieces:
                end = min(begin + SHOTS_PER_PIECE, number)
                with self._together():
                    drawn = self._core.sample(end - begin, listed, place, by_pieces)
                    outcomes[begin:end] = drawn
                    if report:
                        report(end)
        return outcomes if receives else None

    def sample(  # type: ignore[override]
        self,
        shots: SupportsIndex,
        qubits: Qubits | None = None,
        root: int | None = None,
        by_pieces: bool = False,
        progress: Progress = None,
    ) -> Counts | None:
        """Counts of `shots` measurements of `qubits` (all of them by default); see
        `sample_outcomes`."""
        with self._together():
            listed = self._listed(qubits)
        outcomes = self.sample_outcomes(shots, listed, root, by_pieces, progress)
        return None if outcomes is None else Counts.from_outcomes(outcomes, len(listed))

    def measure(self, qubits: Qubits | None = None, by_pieces: bool = False) -> str:
        """Measures qubits (all of them by default), collapses the state and returns what was read,
        the first listed qubit leftmost: that of one process with the same seed or, with
        `by_pieces`, on the brink its neighbour, as in `sample_outcomes`."""
        return self._measure(qubits, _ByPieces(self._core) if by_pieces else self._core)

    # ---- Files -----------------------------------------------------------------------------------

    def save(self, path: str | os.PathLike[str]) -> None:
        """Writes the amplitudes to one file in NumPy's .npy format, all ranks at once, in the order
        of `to_array`. RuntimeError when that fails; an older file is kept until the new one is
        whole."""
        self._core.save(os.fspath(path))

    @classmethod
    def load(
        cls,
        path: str | os.PathLike[str],
        comm: Any = None,
        threads: SupportsIndex = 1,
        seed: SupportsIndex | None = None,
        check: bool = True,
    ) -> StateVector:
        """The state in a .npy file of 2^n complex numbers. RuntimeError for a file that cannot be
        read, is cut short or holds something else; ValueError for one whose norm is not 1, unless
        `check` is False."""
        world = MPI.COMM_WORLD if comm is None else comm
        name = os.fspath(path)
        found: Any = None
        if world.rank == 0:
            try:
                with open(name, "rb") as file:
                    first = npy.read_magic(file) == (1, 0)
                    header = npy.read_array_header_1_0 if first else npy.read_array_header_2_0
                    shape, _, dtype = header(file)
                size = int(np.prod(shape))
                if dtype not in (np.complex64, np.complex128) or size & (size - 1) or size == 0:
                    raise ValueError(f"holds {shape} of {dtype}; expected 2^n complex numbers")
                found = size.bit_length() - 1, "float" if dtype == np.complex64 else "double"
            # Headers that are none raise whatever parsing them does; the other ranks wait.
            except Exception as error:
                found = f"{name}: {error}"
        found = world.bcast(found)
        if isinstance(found, str):
            raise RuntimeError(found)
        state = cls(found[0], world, found[1], threads, seed)
        state._core.load(name)
        if check:
            try:
                require_norm_1(state.inner(state).real ** 0.5)
            except ValueError as error:
                raise ValueError(f"{name}: {error}") from None
        return state

    # ---- What all ranks do together --------------------------------------------------------------

    def _listed(self, qubits: Qubits | None) -> list[Any]:
        listed = range(self.num_qubits) if qubits is None else as_qubits(qubits)
        return [index(qubit, "qubits", self.num_qubits - 1) for qubit in listed]

    def _root(self, root: int | None) -> int:
        return _ALL if root is None else index(root, "root", self._comm.size - 1)

    def _require_amplitudes(self) -> None:
        pass

    def _estimates(self, terms: list[Any], shots: int) -> Iterable[tuple[complex, complex]]:
        """At once: ranks compare all terms before they rotate to the first."""
        estimates: list[tuple[complex, complex]] = self._core.evaluate_terms(terms, shots)
        return estimates

    def __getstate__(self) -> NoReturn:
        raise TypeError("a state over ranks cannot be pickled; use its copy(), or save and load it")

    def __repr__(self) -> str:
        return (
            f"StateVector(num_qubits={self.num_qubits}, precision={self.precision!r}) over "
            f"{self._comm.size} ranks"
        )


def _add_gate(name: str) -> None:
    recorded = getattr(GateMethods, name)

    def apply(self: StateVector, *arguments: Any, **options: Any) -> StateVector:
        with self._together():
            circuit = Circuit(self.num_qubits)
            getattr(circuit, name)(*arguments, **options)
        return self.run(circuit)

    apply.__name__ = name
    apply.__doc__ = recorded.__doc__
    setattr(StateVector, name, apply)


for _name in dir(GateMethods):
    if not _name.startswith("_"):
        _add_gate(_name)


def dry_run(
    circuit: Program,
    num_ranks: SupportsIndex,
    precision: Precision = "double",
    memory_bandwidth: float = 40e9,
    network_bandwidth: float = 10e9,
    latency: float = 5e-6,
    accuracy: Accuracy = "exact",
) -> dict[str, float]:
    """What a run of a circuit of gates alone over `num_ranks` would do, without its memory and on
    one process: exchanges and the bytes that each rank sends in them, passes over its memory, and
    the seconds that this takes with the given bandwidths of a rank in bytes per second and the
    latency of a message in seconds. `gate_by_gate_...` is the same with one exchange of half of the
    amplitudes for every gate that mixes or moves amplitudes between ranks."""
    ranks = count(num_ranks, "num_ranks", 1)
    if ranks & (ranks - 1):
        raise ValueError(f"num_ranks = {ranks}: expected a power of two")
    accuracy_name(accuracy)
    steps = circuit.steps
    if len(steps) != 1 or not isinstance(steps[0], GateList):
        raise ValueError("circuit measures or is empty; expected one of gates alone")
    single = precision_name(precision) == "float"
    result: dict[str, float] = _mpi.dry_run(
        steps[0],
        ranks.bit_length() - 1,
        single,
        memory_bandwidth,
        network_bandwidth,
        latency,
        accuracy,
    )
    return result
