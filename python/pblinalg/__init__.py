"""State-vector simulation of quantum circuits, exact and fast.

>>> import pblinalg as pb
>>> pb.Circuit(2).h(0).cx(0, 1).run(shots=1000, seed=7)

`StateVector`, `DensityMatrix`, `Circuit`, `Observable` and `Counts` are what most people need;
`pblinalg.lowlevel` holds the classes of the C++ library as they are.
"""

import importlib
import os
from typing import TYPE_CHECKING, Any

# Workers that wait for the next region in a busy loop keep the processor from whoever has work. The
# OpenMP runtime reads this when loaded: with the extension, unless something loaded it before.
_spin = {"GOMP_SPINCOUNT": "100"}
if "GOMP_SPINCOUNT" in os.environ or "OMP_WAIT_POLICY" in os.environ:
    _spin = {}
os.environ.update(_spin)
from ._core import Parameter  # noqa: E402
from ._core import version as __version__  # noqa: E402

for _name in _spin:
    del os.environ[_name]
from . import pickling as pickling  # what it registers is all there is to it
from .arguments import Precision
from .branching import estimate
from .channels import Channel
from .circuit import Circuit
from .counts import Counts
from .density_matrix import DensityMatrix
from .gates import Gate
from .gradients import value_and_gradient
from .noise import NoiseModel
from .observable import Observable
from .program import Conditional, Measure, Reset
from .running import run
from .state_vector import StateVector
from .sweep import sweep

if TYPE_CHECKING:
    from . import lowlevel as lowlevel
    from . import mpi as mpi
    from . import qasm as qasm
    from .qiskit_circuits import from_qiskit as from_qiskit

#: Modules that are loaded when they are first asked for.
_MODULES = ("lowlevel", "mpi", "qasm")

__all__ = [
    "Channel",
    "Circuit",
    "Conditional",
    "Counts",
    "DensityMatrix",
    "Gate",
    "Measure",
    "NoiseModel",
    "Observable",
    "Parameter",
    "Precision",
    "Reset",
    "StateVector",
    "__version__",
    "estimate",
    "run",
    "sweep",
    "value_and_gradient",
]


def __getattr__(name: str) -> Any:
    if name in _MODULES:
        return importlib.import_module(f"{__name__}.{name}")
    if name == "from_qiskit":
        return importlib.import_module(f"{__name__}.qiskit_circuits").from_qiskit
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


def __dir__() -> list[str]:
    return sorted({*globals(), *_MODULES, "from_qiskit"})
