"""State-vector simulation of quantum circuits, exact and fast.

>>> import pblinalg as pb
>>> pb.Circuit(2).h(0).cx(0, 1).run(shots=1000, seed=7)

`StateVector`, `DensityMatrix`, `Circuit`, `Observable` and `Counts` are what most people need;
`pblinalg.lowlevel` holds the classes of the C++ library as they are.
"""

from ._core import version as __version__
from .circuit import Circuit
from .counts import Counts
from .density_matrix import DensityMatrix
from .observable import Observable
from .program import Conditional, Measure, Reset
from .running import run
from .state_vector import StateVector

__all__ = [
    "Circuit",
    "Conditional",
    "Counts",
    "DensityMatrix",
    "Measure",
    "Observable",
    "Reset",
    "StateVector",
    "__version__",
    "run",
]
