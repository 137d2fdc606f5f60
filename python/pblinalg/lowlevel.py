"""The library's classes in both precisions, member for member, every argument checked.

`PybindLinAlgStateVectorCPUFloat` and `...Double`, `PybindLinAlgWCircuitFloat` and `...Double`,
`WObservableFloat` and `...Double`, `SimpleTermFloat` and `...Double` mirror the C++ templates. An
argument that C++ takes as a pointer is an array here; members that fill a caller's buffer take it
as `out`, or make one when it is left out. `GateList` records gates for either precision;
`gate_table` and `gate_matrix` say what gates there are.
"""

from ._core import (
    GateList,
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
    gate_matrix,
    gate_table,
    get_num_threads,
    hardware_threads,
    instruction_set,
)

__all__ = [
    "GateList",
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
    "gate_matrix",
    "gate_table",
    "get_num_threads",
    "hardware_threads",
    "instruction_set",
]
