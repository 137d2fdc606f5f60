"""The library's classes in both precisions, member for member, every argument checked.

`PybindLinAlgStateVectorCPUFloat` and `...Double`, `PybindLinAlgWCircuitFloat` and `...Double`,
`WObservableFloat` and `...Double`, `SimpleTermFloat` and `...Double` mirror the C++ templates. An
argument that C++ takes as a pointer is an array here; members that fill a caller's buffer take it
as `out`, or make one when it is left out. `GateSequence` records gates for either precision.
"""

from ._core import (
    GateSequence,
    GeneratorDouble,
    GeneratorFloat,
    PybindLinAlgStateVectorCPUDouble,
    PybindLinAlgStateVectorCPUFloat,
    PybindLinAlgWCircuitDouble,
    PybindLinAlgWCircuitFloat,
    SimpleTermDouble,
    SimpleTermFloat,
    WObservableDouble,
    WObservableFloat,
    available_memory,
    contains_no_first_qubits,
    get_num_threads,
    hardware_threads,
    instruction_set,
)

__all__ = [
    "GateSequence",
    "GeneratorDouble",
    "GeneratorFloat",
    "PybindLinAlgStateVectorCPUDouble",
    "PybindLinAlgStateVectorCPUFloat",
    "PybindLinAlgWCircuitDouble",
    "PybindLinAlgWCircuitFloat",
    "SimpleTermDouble",
    "SimpleTermFloat",
    "WObservableDouble",
    "WObservableFloat",
    "available_memory",
    "contains_no_first_qubits",
    "get_num_threads",
    "hardware_threads",
    "instruction_set",
]
