"""A simulator for Cirq. What its circuits become is said in `cirq_circuits`."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

try:
    import cirq
except ImportError as error:
    raise ImportError("pblinalg.cirq needs Cirq: pip install 'pblinalg[cirq]'") from error

from .arguments import Accuracy, Precision, accuracy_name, count, precision_name
from .cirq_circuits import NotLinear, Translation
from .observable import Observable
from .running import run
from .state_vector import StateVector

__all__ = ["Simulator"]

_TYPES: dict[str, Any] = {"float": np.complex64, "double": np.complex128}


class Simulator(
    cirq.SimulatesSamples,
    cirq.SimulatesAmplitudes,
    cirq.SimulatesExpectationValues,
    cirq.SimulatesFinalState[cirq.StateVectorTrialResult],
):
    """Simulates circuits of qubits with the full state vector.

    precision: "double" (complex128 amplitudes) or "float" (complex64).
    threads: worker threads, by default one per processor from 18 qubits on and one below.
    accuracy: "exact" or "rounding", as in `pblinalg.run`.
    seed: of everything that is drawn: an integer or a `numpy.random.RandomState`; by default NumPy's
    global generator.

    An initial state is an integer, 2^n amplitudes of norm 1, the first qubit being the most
    significant bit, or what else Cirq makes such an array of. Circuits with the same symbols in
    linear angles are translated once for all values. TypeError names operations that have no unitary
    and are neither measurement nor reset; ValueError circuits with qudits or without values for their
    symbols.
    """

    def __init__(
        self,
        *,
        precision: Precision = "double",
        threads: int | None = None,
        seed: cirq.RANDOM_STATE_OR_SEED_LIKE = None,
        accuracy: Accuracy = "exact",
    ) -> None:
        self._precision = precision_name(precision)
        self._accuracy = accuracy_name(accuracy)
        self._threads = None if threads is None else count(threads, "threads", 1)
        self._random = cirq.value.parse_random_state(seed)

    # ---- Samples ---------------------------------------------------------------------------------

    def run_sweep_iter(
        self, program: cirq.AbstractCircuit, params: cirq.Sweepable, repetitions: int = 1
    ) -> Iterator[cirq.Result]:
        """One result for each set of values; see `cirq.SimulatesSamples`."""
        if not program.has_measurements():
            raise ValueError("Circuit has no measurements to sample.")
        qubits = cirq.QubitOrder.DEFAULT.order_for(program.all_qubits())
        for resolver, translation, values in _translations(program, qubits, params):
            yield cirq.ResultDict(
                params=resolver, records=self._records(translation, values, repetitions)
            )

    def _run(
        self,
        circuit: cirq.AbstractCircuit,
        param_resolver: cirq.ParamResolver,
        repetitions: int,
    ) -> dict[str, NDArray[Any]]:
        (result,) = self.run_sweep_iter(circuit, param_resolver, repetitions)
        return dict(result.records)

    def _records(
        self, translation: Translation, values: Sequence[float], repetitions: int
    ) -> dict[str, NDArray[np.uint8]]:
        """What was read, by key: one row for each repetition, then each use of the key, then bits."""
        counts = run(
            translation.circuit,
            repetitions,
            self._precision,
            self._threads,
            self._seed(),
            progress=False,
            values=values,
            accuracy=self._accuracy,
        )
        width = translation.circuit.num_clbits
        text = "".join(counts).encode()
        read = np.frombuffer(text, dtype=np.uint8).reshape(len(counts), width) - ord("0")
        rows = np.repeat(read, list(counts.values()), axis=0)
        # Counts have lost the order of shots, which tells nothing.
        rows = rows[self._random.permutation(len(rows))]
        return {
            key: np.stack([self._outcomes(rows, gate, bits) for gate, bits in measured], axis=1)
            for key, measured in translation.measured.items()
        }

    def _outcomes(
        self, rows: NDArray[np.uint8], gate: cirq.MeasurementGate, bits: Sequence[int]
    ) -> NDArray[np.uint8]:
        """The columns of a measurement, inverted and confused as its gate says."""
        read = rows[:, list(bits)] ^ np.array(gate.full_invert_mask(), dtype=np.uint8)
        for places, confused in gate.confusion_map.items():
            listed = list(places)
            weights = 1 << np.arange(len(listed) - 1, -1, -1)
            ends = np.cumsum(np.asarray(confused, dtype=np.float64), axis=1)
            drawn = self._random.random_sample((len(read), 1)) * ends[:, -1:].max()
            outcomes = (drawn >= ends[read[:, listed] @ weights]).sum(axis=1)
            read[:, listed] = np.minimum(outcomes, len(ends) - 1)[:, None] // weights & 1
        return read

    # ---- States ----------------------------------------------------------------------------------

    def simulate_sweep_iter(
        self,
        program: cirq.AbstractCircuit,
        params: cirq.Sweepable,
        qubit_order: cirq.QubitOrderOrList = cirq.QubitOrder.DEFAULT,
        initial_state: Any = None,
    ) -> Iterator[cirq.StateVectorTrialResult]:
        """One final state for each set of values; see `cirq.SimulatesFinalState`."""
        qubits = _ordered(program, qubit_order)
        for resolver, translation, state in self._states(program, params, qubits, initial_state):
            read = np.array([state.classical_bits], dtype=np.uint8)
            measurements = {
                key: self._outcomes(read, *measured[-1])[0]
                for key, measured in translation.measured.items()
            }
            tensor = state.to_array().reshape((2,) * len(qubits))
            yield cirq.StateVectorTrialResult(
                params=resolver,
                measurements=measurements,
                final_simulator_state=cirq.StateVectorSimulationState(
                    initial_state=tensor, qubits=qubits, dtype=_TYPES[self._precision]
                ),
            )

    def compute_amplitudes_sweep_iter(
        self,
        program: cirq.AbstractCircuit,
        bitstrings: Sequence[int],
        params: cirq.Sweepable,
        qubit_order: cirq.QubitOrderOrList = cirq.QubitOrder.DEFAULT,
    ) -> Iterator[Sequence[complex]]:
        """Amplitudes of basis states for each set of values; see `cirq.SimulatesAmplitudes`."""
        if np.ndim(bitstrings) != 1:
            raise ValueError(f"bitstrings must be a list of integers, got {bitstrings!r}")
        qubits = _ordered(program, qubit_order)
        for _, _, state in self._states(program, params, qubits, None):
            yield [state[int(bitstring)] for bitstring in bitstrings]

    def simulate_expectation_values_sweep_iter(
        self,
        program: cirq.AbstractCircuit,
        observables: cirq.PauliSumLike | list[cirq.PauliSumLike],
        params: cirq.Sweepable,
        qubit_order: cirq.QubitOrderOrList = cirq.QubitOrder.DEFAULT,
        initial_state: Any = None,
        permit_terminal_measurements: bool = False,
    ) -> Iterator[list[float]]:
        """Exact expectation values for each set of values; see `cirq.SimulatesExpectationValues`.
        ValueError when an observable acts on other qubits than the circuit."""
        if not permit_terminal_measurements and program.are_any_measurements_terminal():
            raise ValueError(
                "Provided circuit has terminal measurements, which may skew expectation values. If "
                "this is intentional, set permit_terminal_measurements=True."
            )
        qubits = _ordered(program, qubit_order)
        listed = observables if isinstance(observables, list) else [observables]
        sums = [_pauli_sum(cirq.PauliSum.wrap(each), qubits) for each in listed]
        for _, _, state in self._states(program, params, qubits, initial_state):
            yield [state.expectation(each) for each in sums]

    def _states(
        self,
        program: cirq.AbstractCircuit,
        params: cirq.Sweepable,
        qubits: Sequence[cirq.Qid],
        initial_state: Any,
    ) -> Iterator[tuple[cirq.ParamResolver, Translation, StateVector]]:
        for resolver, translation, values in _translations(program, qubits, params):
            state = StateVector(len(qubits), self._precision, self._threads, self._seed())
            self._prepare(state, initial_state)
            state.run(translation.circuit, False, values, self._accuracy)
            yield resolver, translation, state

    def _prepare(self, state: StateVector, initial_state: Any) -> None:
        n = state.num_qubits
        if initial_state is None:
            return
        if isinstance(initial_state, (int, np.integer)):
            if not 0 <= initial_state < 1 << n:
                raise ValueError(
                    f"initial_state = {initial_state}: expected a value between 0 and {(1 << n) - 1}"
                )
            state.set_product(format(initial_state, f"0{n}b") if n else "")
            return
        vector = cirq.to_valid_state_vector(
            initial_state, n, qid_shape=(2,) * n, dtype=_TYPES[self._precision]
        )
        state.set_amplitudes(np.ravel(vector), check=False)

    def _seed(self) -> int:
        return int(self._random.randint(1 << 62, dtype=np.int64))


def _ordered(
    program: cirq.AbstractCircuit, qubit_order: cirq.QubitOrderOrList
) -> tuple[cirq.Qid, ...]:
    return cirq.QubitOrder.as_qubit_order(qubit_order).order_for(program.all_qubits())


def _translations(
    program: cirq.AbstractCircuit, qubits: Sequence[cirq.Qid], params: cirq.Sweepable
) -> Iterator[tuple[cirq.ParamResolver, Translation, list[float]]]:
    """The circuit and the values of its parameters for each set of values of the symbols."""
    shared = None
    for resolver in cirq.to_resolvers(params):
        values: list[float] = []
        if shared is None and cirq.is_parameterized(program):
            try:
                shared = Translation(program, qubits)
            except NotLinear:
                pass
        if shared is None:
            resolved = cirq.resolve_parameters(program, resolver)
            if cirq.is_parameterized(resolved):
                _require_values(resolved)
            translation = Translation(resolved, qubits)
            if not cirq.is_parameterized(program):
                shared = translation
        else:
            translation = shared
            values = [_value(resolver, each.name) for each in translation.circuit.parameters]
        yield resolver, translation, values


def _value(resolver: cirq.ParamResolver, name: str) -> float:
    value = resolver.value_of(name)
    try:
        return float(value)
    except TypeError:
        raise ValueError(f"the symbol {name!r} has no value") from None


def _require_values(resolved: cirq.AbstractCircuit) -> None:
    symbols = ", ".join(sorted(cirq.parameter_names(resolved)))
    raise ValueError(f"symbols without a value: {symbols}")


def _pauli_sum(paulis: cirq.PauliSum, qubits: Sequence[cirq.Qid]) -> Observable:
    places = {qubit: place for place, qubit in enumerate(qubits)}
    terms = []
    for string in paulis:
        letters = ["I"] * len(qubits)
        for qubit, pauli in string.items():
            if qubit not in places:
                raise ValueError(f"an observable acts on {qubit!r}, which the circuit does not hold")
            letters[places[qubit]] = str(pauli)
        terms.append(("".join(letters), complex(string.coefficient)))
    return Observable(terms, len(qubits))
