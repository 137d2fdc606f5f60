"""The PennyLane device `pblinalg.qubit`. What its circuits become is said in `pennylane_circuits`,
how they are measured in `pennylane_measurements`."""

from __future__ import annotations

import operator
from collections.abc import Sequence
from dataclasses import replace
from typing import Any

import numpy as np
from numpy.typing import NDArray

try:
    import pennylane as qml
    from pennylane.devices import Device, ExecutionConfig, MCMConfig
    from pennylane.devices.modifiers import simulator_tracking, single_tape_support
    from pennylane.devices.preprocess import (
        decompose,
        device_resolve_dynamic_wires,
        no_sampling,
        validate_adjoint_trainable_params,
        validate_device_wires,
        validate_measurements,
        validate_observables,
    )
    from pennylane.exceptions import DeviceError
    from pennylane.measurements import ExpectationMP, MeasurementProcess
    from pennylane.operation import Operator, StatePrepBase
    from pennylane.ops.mid_measure import MidMeasure
    from pennylane.tape import QuantumScript
    from pennylane.transforms import broadcast_expand, defer_measurements, dynamic_one_shot
    from pennylane.transforms.core import CompilePipeline
except ImportError as error:
    raise ImportError(
        "pblinalg.pennylane needs PennyLane 0.45 or newer: pip install 'pblinalg[pennylane]'"
    ) from error

from ._core import GateList, Parameter
from .arguments import Accuracy, Precision, accuracy_name, count, precision_name
from .circuit import Circuit
from .execution import run_steps
from .gradients import value_and_gradient
from .observable import Observable
from .pennylane_circuits import Translation, has_angles, is_native
from .pennylane_measurements import (
    Qubits,
    Sampling,
    accepts_exact,
    accepts_shots,
    as_pauli_sum,
    differentiable,
    measure_exactly,
    pauli_sum,
)
from .state_vector import StateVector
from .sweep import sweep

__all__ = ["PblinalgQubit"]

#: A norm that rounding leaves of nothing.
_VANISHED = {"float": 1e-6, "double": 1e-14}


def _without_measurements(op: Operator) -> bool:
    return not isinstance(op, MidMeasure) and is_native(op)


def _is_trained(op: Operator) -> bool:
    return any(qml.math.requires_grad(value) for value in op.data)


def _is_batched(op: Operator) -> bool:
    """Whether data have a dimension of many values. PennyLane takes long to say so of angles."""
    if has_angles(op):
        return any(getattr(value, "shape", ()) for value in op.data)
    return op.batch_size is not None


@qml.transform
def _split_batches(tape: QuantumScript) -> Any:
    """A circuit for each value of data that have many."""
    if any(map(_is_batched, tape.operations)):
        return broadcast_expand(tape)
    return (tape,), operator.itemgetter(0)


def _has_derivative(op: Operator) -> bool:
    return (
        _without_measurements(op)
        and not isinstance(op, qml.Projector)
        and (has_angles(op) or not _is_trained(op))
    )


@simulator_tracking
@single_tape_support
class PblinalgQubit(Device):
    """A device that holds the full state vector: `qml.device("pblinalg.qubit", wires=20)`.

    wires: their number or their labels; without them every circuit brings its own.
    shots: the default of circuits that do not say (PennyLane would rather be told by `set_shots`).
    precision: "double" or "float" amplitudes.
    threads: worker threads, by default one per processor from 18 qubits on and one below.
    accuracy: "exact" or "rounding", as in `pblinalg.run`; derivatives run by rounding either way.
    seed: of everything that is drawn: an integer, what `numpy.random.default_rng` takes, None for
    the system's randomness, or "global" for a number from NumPy's global generator.

    Derivatives without shots are computed backwards through the circuit (`diff_method="adjoint"`,
    which "best" chooses where all measurements are expectation values). DeviceError names what is
    not supported.
    """

    name = "pblinalg.qubit"

    def __init__(
        self,
        wires: Any = None,
        shots: Any = None,
        precision: Precision = "double",
        threads: int | None = None,
        seed: Any = "global",
        accuracy: Accuracy = "exact",
    ) -> None:
        super().__init__(wires=wires, shots=shots)
        try:
            self._precision = precision_name(precision)
            self._accuracy = accuracy_name(accuracy)
            self._threads = None if threads is None else count(threads, "threads", 1)
            if isinstance(seed, str) and seed == "global":
                seed = np.random.randint(1 << 31)
            self._rng = np.random.default_rng(seed)
        except (ValueError, TypeError) as error:
            raise DeviceError(str(error)) from error

    # ---- Before a run ----------------------------------------------------------------------------

    def supports_derivatives(
        self,
        execution_config: ExecutionConfig | None = None,
        circuit: QuantumScript | None = None,
    ) -> bool:
        """True for expectation values without shots of what is a sum of Pauli strings or has a
        matrix on few wires, where neither it nor a prepared state is trained and nothing is
        postselected."""
        if execution_config is not None and execution_config.gradient_method not in (
            "adjoint",
            "best",
            "device",
        ):
            return False
        if circuit is None:
            return True
        if circuit.shots or any(
            op.postselect is not None
            if isinstance(op, MidMeasure)
            else isinstance(op, StatePrepBase) and _is_trained(op)
            for op in circuit.operations
        ):
            return False
        return all(
            isinstance(each, ExpectationMP)
            and each.obs is not None
            and differentiable(each.obs)
            and not _is_trained(each.obs)
            for each in circuit.measurements
        )

    def supports_vjp(
        self,
        execution_config: ExecutionConfig | None = None,
        circuit: QuantumScript | None = None,
    ) -> bool:
        """As for derivatives."""
        return self.supports_derivatives(execution_config, circuit)

    def setup_execution_config(
        self, config: ExecutionConfig | None = None, circuit: QuantumScript | None = None
    ) -> ExecutionConfig:
        """Chooses the derivative and the way of measurements in the middle where nobody did."""
        config = config or ExecutionConfig()
        for option in config.device_options:
            raise DeviceError(f"device option {option!r} is not known to {self.name}")
        method = config.gradient_method
        if method in ("best", "device") and self.supports_derivatives(config, circuit):
            method = "adjoint"
        backwards = method == "adjoint"
        chosen: dict[str, Any] = {
            "gradient_method": method,
            "mcm_config": self._mcm_config(config.mcm_config, circuit),
        }
        if config.use_device_gradient is None:
            chosen["use_device_gradient"] = backwards
        if config.use_device_jacobian_product is None:
            chosen["use_device_jacobian_product"] = False
        if config.grad_on_execution is None:
            chosen["grad_on_execution"] = backwards
        return replace(config, **chosen)

    def _mcm_config(self, config: MCMConfig, circuit: QuantumScript | None) -> MCMConfig:
        method = config.mcm_method
        if method in (None, "device"):
            method = "one-shot" if circuit is not None and circuit.shots else "deferred"
        if method not in ("deferred", "one-shot"):
            raise DeviceError(
                f"mcm_method {method!r} is not supported by {self.name}; expected 'deferred' or "
                "'one-shot'"
            )
        if config.postselect_mode == "fill-shots" and method != "deferred":
            raise DeviceError("postselect_mode 'fill-shots' needs mcm_method 'deferred'")
        return replace(config, mcm_method=method)

    def preprocess_transforms(
        self, execution_config: ExecutionConfig | None = None
    ) -> CompilePipeline:
        """What turns circuits into such as `execute` takes."""
        config = execution_config or ExecutionConfig()
        pipeline = CompilePipeline()
        deferred = config.mcm_config.mcm_method == "deferred"
        if deferred:
            pipeline.add_transform(defer_measurements, allow_postselect=True)
        backwards = config.gradient_method == "adjoint"
        condition = is_native
        if backwards:
            condition = _has_derivative
        elif deferred:
            condition = _without_measurements
        pipeline.add_transform(
            decompose,
            stopping_condition=condition,
            device_wires=self.wires,
            name=self.name,
        )
        pipeline.add_transform(
            device_resolve_dynamic_wires, wires=self.wires, allow_resets=not deferred
        )
        pipeline.add_transform(validate_device_wires, self.wires, name=self.name)
        pipeline.add_transform(
            validate_measurements,
            analytic_measurements=accepts_exact,
            sample_measurements=accepts_shots,
            name=self.name,
        )
        if config.mcm_config.mcm_method == "one-shot":
            pipeline.add_transform(
                dynamic_one_shot, postselect_mode=config.mcm_config.postselect_mode
            )
        if backwards:
            name = f"adjoint + {self.name}"
            pipeline.add_transform(no_sampling, name=name)
            pipeline.add_transform(validate_observables, differentiable, name=name)
            pipeline.add_transform(
                validate_measurements, analytic_measurements=_is_expectation, name=name
            )
            pipeline.add_transform(_split_batches)
            pipeline.add_transform(validate_adjoint_trainable_params)
        return pipeline

    # ---- Running ---------------------------------------------------------------------------------

    def execute(
        self,
        circuits: Sequence[QuantumScript],
        execution_config: ExecutionConfig | None = None,
    ) -> tuple[Any, ...]:
        """The results of preprocessed circuits."""
        config = execution_config or ExecutionConfig()
        fill = config.mcm_config.postselect_mode == "fill-shots"
        return tuple(self._execute(circuit, fill) for circuit in circuits)

    def _execute(self, tape: QuantumScript, fill_shots: bool) -> Any:
        if any(map(_is_batched, tape.operations)):
            return self._execute_batch(tape, fill_shots)
        qubits = self._qubits(tape)
        state, operations, _ = self._prepared(tape, qubits)
        if state is None:
            state = self._state(len(qubits))
        translation = Translation(operations, qubits)
        if translation.measured:
            return self._execute_shots(tape, state, translation, qubits)
        state.run(translation.circuit, accuracy=self._accuracy)
        if any(isinstance(op, qml.Projector) for op in operations):
            self._normalise(tape, state, fill_shots)
        return self._read(tape, state, qubits)

    def _normalise(self, tape: QuantumScript, state: StateVector, fill_shots: bool) -> None:
        """Postselection leaves a projected state behind."""
        if tape.shots and not fill_shots:
            raise DeviceError(
                "postselection with shots needs postselect_mode 'fill-shots' or mcm_method "
                "'one-shot'"
            )
        norm = state.norm()
        if norm < _VANISHED[self._precision]:
            raise DeviceError("a postselected outcome has probability 0")
        state.amplitudes[:] /= norm

    def _execute_batch(self, tape: QuantumScript, fill_shots: bool) -> Any:
        """One circuit for all values, where these are angles; otherwise a circuit for each."""
        if not all(
            has_angles(op) if _is_batched(op) else not isinstance(op, qml.Projector)
            for op in tape.operations
        ):
            tapes, combine = broadcast_expand(tape)
            return combine(tuple(self._execute(each, fill_shots) for each in tapes))
        numbers, columns = [], []
        place = 0
        for op in tape.operations:
            for offset, value in enumerate(op.data if _is_batched(op) else ()):
                numbers.append(place + offset)
                columns.append(np.broadcast_to(np.ravel(value), (tape.batch_size,)))
            place += len(op.data)
        qubits = self._qubits(tape)
        start, operations, skipped = self._prepared(tape, qubits)
        circuit, order = _parametrised(operations, qubits, numbers, skipped)
        values = np.ascontiguousarray(np.array(columns, dtype=np.float64)[order].T)
        if self._is_sweep(tape, start):
            sums = [pauli_sum(each.obs.pauli_rep, qubits) for each in tape.measurements]
            found = sweep(
                circuit,
                values,
                sums,
                precision=self._precision,
                threads=self._threads,
                accuracy=self._accuracy,
            )
            return tuple(found.T) if len(sums) > 1 else found[:, 0]
        state = self._state(len(qubits))
        rows = []
        for row in values:
            if start is None:
                state.reset()
            else:
                state.amplitudes[:] = start.amplitudes
            state.run(circuit, values=row, accuracy=self._accuracy)
            rows.append(self._read(tape, state, qubits))
        return _stacked(rows)

    def _is_sweep(self, tape: QuantumScript, start: StateVector | None) -> bool:
        """Whether the library makes all runs of a batch and all that is read in one call."""
        return (
            start is None
            and not tape.shots
            and all(
                _is_expectation(each) and each.obs is not None and each.obs.pauli_rep is not None
                for each in tape.measurements
            )
        )

    def _execute_shots(
        self, tape: QuantumScript, state: StateVector, translation: Translation, qubits: Qubits
    ) -> tuple[Any, ...]:
        """One result per shot of a circuit with measurements in the middle, which come last in it.
        What precedes the first of them is simulated once."""
        circuit = translation.circuit
        state.seed = int(self._rng.integers(1 << 63))
        steps = list(circuit.steps)
        nothing = np.empty(0)
        if isinstance(steps[0], GateList):
            steps.pop(0).run(state.core, nothing, accuracy=self._accuracy)
        start = state.amplitudes.copy()
        final = tape.measurements[: len(tape.measurements) - len(translation.measured)]
        sampling = Sampling(final, qml.measurements.Shots(1), qubits) if final else None
        results = []
        for _ in range(tape.shots.total_shots):
            state.amplitudes[:] = start
            bits = [0] * circuit.num_clbits
            run_steps(state.core, steps, bits, nothing, accuracy=self._accuracy)
            values: list[Any] = [np.array([bit]) for bit in bits]
            if sampling is not None:
                drawn = sampling.draw(state, self._rng)
                values = [*(drawn if len(final) > 1 else [drawn]), *values]
            results.append(tuple(values) if len(values) > 1 else values[0])
        return tuple(results)

    def _read(self, tape: QuantumScript, state: StateVector, qubits: Qubits) -> Any:
        if tape.shots:
            return Sampling(tape.measurements, tape.shots, qubits).draw(state, self._rng)
        results = tuple(measure_exactly(each, state, qubits) for each in tape.measurements)
        return results if len(results) != 1 else results[0]

    def _state(self, num_qubits: int) -> StateVector:
        # What is drawn from it is seeded where it is drawn.
        return StateVector(num_qubits, self._precision, self._threads, 0)

    def _prepared(
        self, tape: QuantumScript, qubits: Qubits
    ) -> tuple[StateVector | None, Sequence[Operator], int]:
        """The state that a circuit begins with, None for |0...0>, its other operations, and how
        many data come before theirs."""
        operations = tape.operations
        if not operations or not isinstance(operations[0], StatePrepBase):
            return None, operations, 0
        amplitudes = operations[0].state_vector(wire_order=list(qubits))
        if hasattr(amplitudes, "toarray"):
            amplitudes = amplitudes.toarray()
        state = self._state(len(qubits)).set_amplitudes(np.ravel(amplitudes), check=False)
        return state, operations[1:], len(operations[0].data)

    def _qubits(self, tape: QuantumScript) -> dict[Any, int]:
        """The number of the qubit of each wire of a circuit, in the order of the device's wires, or
        of the circuit's own."""
        if self.wires is not None:
            # `tape.wires` takes many times longer.
            used = {wire for each in tape.circuit for wire in each.wires.labels}
            wires = [wire for wire in self.wires.labels if wire in used]
        else:
            wires = tape.wires.labels
            if set(wires) == set(range(len(wires))):
                wires = range(len(wires))
        return {wire: number for number, wire in enumerate(wires)}

    # ---- Derivatives -----------------------------------------------------------------------------

    def compute_derivatives(
        self,
        circuits: Sequence[QuantumScript],
        execution_config: ExecutionConfig | None = None,
    ) -> tuple[Any, ...]:
        """The Jacobians of preprocessed circuits."""
        return tuple(self._value_and_jacobian(circuit)[1] for circuit in circuits)

    def execute_and_compute_derivatives(
        self,
        circuits: Sequence[QuantumScript],
        execution_config: ExecutionConfig | None = None,
    ) -> tuple[tuple[Any, ...], tuple[Any, ...]]:
        """Results and Jacobians, from one run forwards and backwards."""
        pairs = [self._value_and_jacobian(circuit) for circuit in circuits]
        return tuple(value for value, _ in pairs), tuple(jacobian for _, jacobian in pairs)

    def compute_vjp(
        self,
        circuits: Sequence[QuantumScript],
        cotangents: Sequence[Any],
        execution_config: ExecutionConfig | None = None,
    ) -> tuple[Any, ...]:
        """Cotangents times the Jacobians: one derivative of the weighted sum of all observables."""
        return tuple(self._vjp(*pair) for pair in zip(circuits, cotangents))

    def execute_and_compute_vjp(
        self,
        circuits: Sequence[QuantumScript],
        cotangents: Sequence[Any],
        execution_config: ExecutionConfig | None = None,
    ) -> tuple[tuple[Any, ...], tuple[Any, ...]]:
        """Results, and cotangents times the Jacobians."""
        return self.execute(circuits), self.compute_vjp(circuits, cotangents)

    def _value_and_jacobian(self, tape: QuantumScript) -> tuple[Any, Any]:
        qubits = self._qubits(tape)
        observables = [as_pauli_sum(each.obs, qubits) for each in tape.measurements]
        values, jacobian = self._differentiate(tape, qubits, observables)
        columns = [[np.array(entry) for entry in row] for row in jacobian]
        rows = [row[0] if len(row) == 1 else tuple(row) for row in columns]
        if len(rows) == 1:
            return values[0], rows[0]
        return tuple(values), tuple(rows)

    def _vjp(self, tape: QuantumScript, cotangents: Any) -> tuple[Any, ...]:
        weights = np.array(
            np.broadcast_arrays(*(cotangents if len(tape.measurements) > 1 else [cotangents])),
            dtype=np.float64,
        )
        qubits = self._qubits(tape)
        observables = [as_pauli_sum(each.obs, qubits) for each in tape.measurements]
        if weights.ndim == 1:
            total = sum(weight * each for weight, each in zip(weights.tolist(), observables))
            return tuple(self._differentiate(tape, qubits, [total])[1][0])
        return tuple(self._differentiate(tape, qubits, observables)[1].T @ weights)

    def _differentiate(
        self, tape: QuantumScript, qubits: Qubits, observables: Sequence[Observable]
    ) -> tuple[NDArray[np.float64], NDArray[np.float64]]:
        """Expectation values, and their derivatives by trainable parameter, one row for each
        observable. Those of observables count as constant."""
        trainable = tape.trainable_params
        start, operations, skipped = self._prepared(tape, qubits)
        circuit, order = _parametrised(operations, qubits, trainable, skipped)
        jacobian = np.zeros((len(observables), len(trainable)))
        numbers = tape.get_parameters()
        at = np.array([numbers[place] for place in order], dtype=np.float64)
        values, columns = value_and_gradient(
            circuit, observables, at, self._precision, self._threads, start
        )
        jacobian[:, order] = columns
        return values, jacobian


def _parametrised(
    operations: Sequence[Operator], qubits: Qubits, numbers: Sequence[int], skipped: int
) -> tuple[Circuit, list[int]]:
    """A circuit with parameters for the data of these numbers, counted through all operations after
    `skipped` others, and for each parameter of the circuit its place among `numbers`."""
    named = {number - skipped: Parameter(str(place)) for place, number in enumerate(numbers)}
    circuit = Translation(operations, qubits, named).circuit
    return circuit, [int(parameter.name) for parameter in circuit.parameters]


def _is_expectation(measurement: MeasurementProcess) -> bool:
    return isinstance(measurement, ExpectationMP)


def _stacked(rows: Sequence[Any]) -> Any:
    """Results of the same form as one whose arrays have one axis more in front."""
    if isinstance(rows[0], tuple):
        return tuple(_stacked(column) for column in zip(*rows))
    return list(rows) if isinstance(rows[0], dict) else np.stack(rows)
