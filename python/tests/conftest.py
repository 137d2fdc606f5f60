import numpy as np
import pytest

import pblinalg.lowlevel as low


class Precision:
    """The classes of one precision and how closely its results are compared."""

    def __init__(self, name):
        suffix = name.capitalize()
        self.name = name
        self.complex = {"float": np.complex64, "double": np.complex128}[name]
        self.real = {"float": np.float32, "double": np.float64}[name]
        self.tolerance = {"float": 2e-6, "double": 1e-14}[name]
        self.State = getattr(low, "PybindLinAlgStateVectorCPU" + suffix)
        self.Circuit = getattr(low, "PybindLinAlgWCircuit" + suffix)
        self.Observable = getattr(low, "WObservable" + suffix)
        self.Term = getattr(low, "SimpleTerm" + suffix)

    def state(self, amplitudes):
        """A lower-level state with the given amplitudes in caller order."""
        state = self.State(len(amplitudes).bit_length() - 1)
        state.reset(np.asarray(amplitudes, dtype=self.complex))
        return state


@pytest.fixture(params=["double", "float"])
def precision(request):
    return Precision(request.param)


@pytest.fixture
def rng():
    return np.random.default_rng(20240)
