"""OpenQASM 2 programs as circuits. The text is parsed by qiskit's qasm2 package, an optional extra;
here its instructions become gates of the library."""

from __future__ import annotations

import cmath
import math
from pathlib import Path

import numpy as np

from .circuit import Circuit

#: Gates with a method of the same meaning; the arguments are angles, then qubits.
_METHODS = {
    "h": "h", "x": "x", "y": "y", "z": "z", "s": "s", "sdg": "sdg", "t": "t", "tdg": "tdg",
    "sx": "sx", "sxdg": "sxdg", "p": "p", "u1": "p", "rx": "rx", "ry": "ry", "rz": "rz", "u": "u",
    "U": "u", "u3": "u", "cx": "cx", "CX": "cx", "cy": "cy", "cz": "cz", "ch": "ch", "cp": "cp",
    "cu1": "cp", "crx": "crx", "cry": "cry", "crz": "crz", "ccx": "ccx", "swap": "swap",
    "cswap": "cswap", "iswap": "iswap",
}  # fmt: skip


def loads(text: str) -> Circuit:
    """The circuit of an OpenQASM 2 program. Classical bits are numbered through the registers in
    order of declaration; qubits likewise. ValueError says where the program is wrong."""
    qasm2 = _parser()
    try:
        parsed = qasm2.loads(text, custom_instructions=qasm2.LEGACY_CUSTOM_INSTRUCTIONS)
    except qasm2.QASM2ParseError as error:
        raise ValueError(f"OpenQASM 2: {error.message}") from None
    return _lower(parsed)


def load(path: str | Path) -> Circuit:
    """The circuit of an OpenQASM 2 file; included files are looked for beside it."""
    qasm2 = _parser()
    path = Path(path)
    if not path.is_file():
        raise FileNotFoundError(f"{path}: no such file")
    try:
        parsed = qasm2.load(
            path,
            include_path=(path.parent,),
            custom_instructions=qasm2.LEGACY_CUSTOM_INSTRUCTIONS,
        )
    except qasm2.QASM2ParseError as error:
        raise ValueError(f"OpenQASM 2: {error.message}") from None
    except UnicodeDecodeError:
        raise ValueError(f"{path}: not a text file") from None
    return _lower(parsed)


def _parser():
    try:
        from qiskit import qasm2
    except ImportError as error:
        raise ImportError("reading OpenQASM needs qiskit: pip install 'pblinalg[qasm]'") from error
    return qasm2


def _lower(parsed) -> Circuit:
    circuit = Circuit(parsed.num_qubits, parsed.num_clbits)
    if parsed.cregs:
        circuit.registers = [register.size for register in parsed.cregs]
    qubits = {qubit: i for i, qubit in enumerate(parsed.qubits)}
    clbits = {clbit: i for i, clbit in enumerate(parsed.clbits)}
    _lower_body(parsed, circuit, qubits, clbits)
    return circuit


def _lower_body(body, circuit: Circuit, qubits: dict, clbits: dict) -> None:
    for instruction in body.data:
        operation = instruction.operation
        targets = [qubits[qubit] for qubit in instruction.qubits]
        bits = [clbits[clbit] for clbit in instruction.clbits]
        condition = getattr(operation, "condition", None)
        if condition is None:
            _lower_operation(operation, circuit, targets, bits)
            continue
        if operation.name == "if_else":
            (block,) = [block for block in operation.blocks if block is not None]
        else:
            block = None
        listed, value = _condition(condition, clbits)
        if value >= 1 << len(listed):
            # A register never reads a value that it cannot hold.
            continue
        with circuit.if_(listed, value):
            if block is None:
                _lower_operation(operation, circuit, targets, bits)
            else:
                _lower_body(
                    block,
                    circuit,
                    dict(zip(block.qubits, targets)),
                    dict(zip(block.clbits, bits)),
                )


def _condition(condition, clbits: dict) -> tuple[list[int], int]:
    """Classical bits, most significant first: bit 0 of a register is its least significant."""
    register, value = condition
    bits = [register] if register in clbits else list(register)
    return [clbits[bit] for bit in reversed(bits)], int(value)


def _lower_operation(operation, circuit: Circuit, qubits: list[int], clbits: list[int]) -> None:
    name = operation.name
    if name == "measure":
        circuit.measure(qubits, clbits)
    elif name == "reset":
        circuit.reset(qubits)
    elif name in ("barrier", "id", "u0", "delay"):
        return
    elif name in _METHODS:
        getattr(circuit, _METHODS[name])(*map(float, operation.params), *qubits)
    elif name == "u2":
        phi, lam = map(float, operation.params)
        circuit.u(math.pi / 2, phi, lam, qubits[0])
    elif operation.definition is not None:
        inner = operation.definition
        places = dict(zip(inner.qubits, qubits))
        _lower_body(inner, circuit, places, dict(zip(inner.clbits, clbits)))
        if inner.global_phase:
            circuit.unitary(cmath.exp(1j * float(inner.global_phase)) * np.eye(2), qubits[0])
    else:
        raise ValueError(f"OpenQASM 2: the gate {name!r} is declared but has no definition")
