"""Qiskit's two primitives: a sampler and an estimator. Each circuit is translated once; its
parameters are then numbers of a run."""

from __future__ import annotations

import itertools
import warnings
from collections.abc import Iterable, Mapping
from typing import Any

import numpy as np
from qiskit.primitives import (
    BaseEstimatorV2,
    BaseSamplerV2,
    BitArray,
    DataBin,
    PrimitiveJob,
    PrimitiveResult,
    PubResult,
    SamplerPubResult,
)
from qiskit.primitives.containers.estimator_pub import EstimatorPub
from qiskit.primitives.containers.sampler_pub import SamplerPub

from .arguments import Precision
from .measured_runs import expectations, read_bits
from .observable import Observable
from .qiskit_backend import checked, own_errors, packed, seeds_of
from .qiskit_circuits import translate
from .state_vector import StateVector

#: Letters that are projectors: one half of the identity and of a Pauli matrix of this sign.
_PROJECTORS = {"0": "+Z", "1": "-Z", "+": "+X", "-": "-X", "r": "+Y", "l": "-Y"}


class _Job(PrimitiveJob):  # type: ignore[misc]
    """A job that has started."""

    def start(self) -> _Job:
        self._submit()
        return self


class Sampler(BaseSamplerV2):  # type: ignore[misc]
    """Qiskit's `SamplerV2`: what the classical registers of circuits read in each shot.

    Circuits may measure, reset and branch anywhere. `seed` is an integer, with which every job
    draws the same shots, or a NumPy generator; `precision` and `threads` are those of a run.

    >>> Sampler(seed=7).run([(circuit, values)], shots=1000).result()[0].data.meas.get_counts()
    """

    def __init__(
        self,
        *,
        default_shots: int = 1024,
        precision: Precision = "double",
        threads: int | None = None,
        seed: int | np.random.Generator | None = None,
    ) -> None:
        self._default_shots = default_shots
        self._options = checked(precision, threads)
        self._seed = seed

    @property
    def default_shots(self) -> int:
        """The shots of a circuit when neither it nor `run` says how many."""
        return self._default_shots

    def run(self, pubs: Iterable[Any], *, shots: int | None = None) -> _Job:
        """Samples circuits, each with an array of values for its parameters."""
        number = self._default_shots if shots is None else shots
        coerced = [SamplerPub.coerce(pub, number) for pub in pubs]
        if not all(pub.circuit.cregs for pub in coerced):
            warnings.warn("a circuit has no classical registers: it gives no data", stacklevel=2)
        return _Job(self._run, coerced).start()

    def _run(self, pubs: list[SamplerPub]) -> PrimitiveResult:
        generator = np.random.default_rng(self._seed)
        with own_errors():
            results = [self._run_pub(pub, generator) for pub in pubs]
        return PrimitiveResult(results, metadata={"version": 2})

    def _run_pub(self, pub: SamplerPub, generator: np.random.Generator) -> SamplerPubResult:
        circuit = pub.circuit
        translation = translate(circuit)
        numbers = pub.parameter_values.as_array(circuit.parameters)
        columns = {
            register.name: [circuit.find_bit(bit).index for bit in register]
            for register in circuit.cregs
        }
        arrays = {
            name: np.empty((*pub.shape, pub.shots, -(-len(listed) // 8)), dtype=np.uint8)
            for name, listed in columns.items()
        }
        seeds = seeds_of(generator, pub.size)
        for place, seed in zip(np.ndindex(pub.shape), seeds):
            values = translation.values(numbers[place])
            bits = read_bits(translation.circuit, values, pub.shots, *self._options, seed)
            translation.check(bits)
            for name, listed in columns.items():
                arrays[name][place] = packed(bits[:, listed])
        data = {name: BitArray(array, len(columns[name])) for name, array in arrays.items()}
        return SamplerPubResult(
            DataBin(**data, shape=pub.shape),
            metadata={"shots": pub.shots, "circuit_metadata": circuit.metadata},
        )


class Estimator(BaseEstimatorV2):  # type: ignore[misc]
    """Qiskit's `EstimatorV2`: expectation values of observables after circuits.

    They are exact where the precision that a job asks for is 0, and otherwise drawn from normal
    distributions of that standard deviation, which `stds` of a result tells. (`precision` of the
    constructor is that of the amplitudes, "double" or "float".) Circuits that measure or reset on
    their way give the mean over all courses that they may take. `seed` is an integer or a NumPy
    generator.

    >>> Estimator().run([(circuit, SparsePauliOp("ZZ"), values)]).result()[0].data.evs
    """

    def __init__(
        self,
        *,
        default_precision: float = 0.0,
        precision: Precision = "double",
        threads: int | None = None,
        seed: int | np.random.Generator | None = None,
    ) -> None:
        self._default_precision = default_precision
        self._options = checked(precision, threads)
        self._seed = seed

    @property
    def default_precision(self) -> float:
        """The standard deviation when neither a circuit nor `run` says one."""
        return self._default_precision

    def run(self, pubs: Iterable[Any], *, precision: float | None = None) -> _Job:
        """Estimates observables after circuits; arrays of observables and of values of parameters
        are broadcast against each other."""
        deviation = self._default_precision if precision is None else precision
        return _Job(self._run, [EstimatorPub.coerce(pub, deviation) for pub in pubs]).start()

    def _run(self, pubs: list[EstimatorPub]) -> PrimitiveResult:
        with own_errors():
            results = [self._run_pub(pub) for pub in pubs]
        return PrimitiveResult(results, metadata={"version": 2})

    def _run_pub(self, pub: EstimatorPub) -> PubResult:
        circuit = pub.circuit
        translation = translate(circuit)
        numbers = pub.parameter_values.as_array(circuit.parameters)
        rows = numbers.reshape(pub.parameter_values.size, -1)
        given = np.asarray(pub.observables)
        observables = [_observable(terms, circuit.num_qubits) for terms in given.ravel()]
        # Which row of values and which observable each result is of.
        row_of, observable_of = (
            np.broadcast_to(np.arange(size).reshape(shape), pub.shape)
            for size, shape in ((len(rows), numbers.shape[:-1]), (given.size, given.shape))
        )
        state = StateVector(circuit.num_qubits, *self._options)
        values = np.empty(pub.shape)
        for row, own in enumerate(rows):
            places = row_of == row
            wanted = observable_of[places]
            values[places] = expectations(
                state,
                translation.circuit,
                translation.values(own),
                [observables[o] for o in wanted],
                translation.check,
            )
        if pub.precision:
            generator = np.random.default_rng(self._seed)
            values = np.asarray(generator.normal(values, pub.precision))
        return PubResult(
            DataBin(evs=values, stds=np.full(pub.shape, float(pub.precision)), shape=pub.shape),
            metadata={"target_precision": pub.precision, "circuit_metadata": circuit.metadata},
        )


def _observable(terms: Mapping[str, float], num_qubits: int) -> Observable:
    """Strings of Qiskit, whose last letter belongs to qubit 0, with projectors among them."""
    sums: dict[str, float] = {}
    for letters, coefficient in terms.items():
        choices = [("I", _PROJECTORS[c]) if c in _PROJECTORS else (c,) for c in letters[::-1]]
        for chosen in itertools.product(*choices):
            string = "".join(choice[-1] for choice in chosen)
            signs = sum(choice[0] == "-" for choice in chosen)
            share = coefficient * (-1) ** signs / 2 ** sum(len(c) == 2 for c in choices)
            sums[string] = sums.get(string, 0.0) + share
    return Observable(sums, num_qubits)
