"""The command line: `python -m pblinalg` and `python -m pblinalg run CIRCUIT.qasm`."""

from __future__ import annotations

import argparse
import importlib.util
import json
import sys
import time
from collections.abc import Callable, Sequence
from typing import Any

from . import __version__, _core
from .circuit import Circuit
from .counts import Counts
from .observable import Observable
from .progress import Progress
from .running import run
from .self_check import self_check
from .state_vector import StateVector

#: Seconds between two lines about a long run.
_PATIENCE = 5.0
#: Amplitudes of smaller magnitude are not printed.
_THRESHOLD = 1e-6


def main(arguments: Sequence[str] | None = None) -> int:
    parser = _parser()
    options = parser.parse_args(arguments)
    try:
        return int(options.command(options))
    except KeyboardInterrupt:
        print("pblinalg: interrupted", file=sys.stderr)
        return 130
    except BrokenPipeError:
        sys.stderr.close()
        return 141
    except (ValueError, IndexError, TypeError, MemoryError, ImportError, OSError) as error:
        print(f"pblinalg: {error}", file=sys.stderr)
        return 1


def _whole_number(first: int, last: int | None = None) -> Callable[[str], int]:
    """A check of an option's value; argparse names the option in its message."""
    limits = f"a whole number from {first}" + (f" to {last}" if last else "")

    def check(text: str) -> int:
        try:
            number = int(text)
        except ValueError:
            number = first - 1
        if number < first or (last is not None and number > last):
            raise argparse.ArgumentTypeError(f"{text!r}: expected {limits}")
        return number

    return check


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="pblinalg", description="State-vector simulation of quantum circuits."
    )
    parser.add_argument("--version", action="version", version=f"pblinalg {__version__}")
    parser.set_defaults(command=_show_info)
    commands = parser.add_subparsers(title="commands", metavar="")
    info = commands.add_parser(
        "info", help="print the machine and check the installation (default)"
    )
    info.set_defaults(command=_show_info)
    job = commands.add_parser(
        "run",
        help="simulate an OpenQASM file and print counts",
        description="Simulates an OpenQASM 2 or 3 file. In a printed outcome the first bit of a "
        "register is leftmost; a program without measurements is read out over all qubits.",
    )
    job.add_argument("file", help="OpenQASM 2 or 3 file; - reads the standard input")
    job.add_argument(
        "--shots", type=_whole_number(0), default=1024, help="number of shots (default 1024)"
    )
    job.add_argument("--seed", type=_whole_number(0, 2**64 - 1), help="makes the shots repeatable")
    job.add_argument("--precision", choices=("double", "float"), default="double")
    job.add_argument(
        "--accuracy",
        choices=("exact", "rounding"),
        default="exact",
        help="gates to the last bit (default), or faster and up to rounding",
    )
    job.add_argument(
        "--threads", type=_whole_number(1), help="worker threads (default: as many as help)"
    )
    job.add_argument(
        "--bit-order",
        choices=("first-left", "first-right"),
        default="first-left",
        help="where the first bit of a register is printed (default first-left)",
    )
    job.add_argument("--json", action="store_true", help="print everything as JSON")
    job.add_argument("--plot", metavar="FILE", help="write a bar chart (needs matplotlib)")
    job.add_argument("--draw", action="store_true", help="print the circuit first")
    exact = job.add_mutually_exclusive_group()
    exact.add_argument(
        "--state",
        action="store_true",
        help="print the amplitudes at the end instead of counts",
    )
    exact.add_argument(
        "--expectation",
        metavar="SUM",
        action="append",
        help='print the exact expectation value of a sum of Pauli strings, such as "ZZ + 0.5*X0", '
        "instead of counts; may be given more than once",
    )
    job.set_defaults(command=_run_file)
    return parser


def _show_info(_: argparse.Namespace) -> int:
    print(f"pblinalg {__version__}")
    print(f"instruction set   {_core.instruction_set()}")
    print(f"threads           {_core.hardware_threads()}")
    memory = _core.available_memory()
    print(f"free memory       {memory / 2**30:.1f} GiB")
    for precision, size in (("double", 16), ("float", 8)):
        qubits = max((n for n in range(59) if size << n <= memory), default=0)
        print(f"largest register  {qubits} qubits in {precision}")
    failed = 0
    for name, passed in self_check():
        print(f"{'ok' if passed else 'FAILED':<17} {name}")
        failed += not passed
    return 1 if failed else 0


def _run_file(options: argparse.Namespace) -> int:
    from .qasm import load

    circuit = load(options.file)
    source = "standard input" if options.file == "-" else options.file
    document: dict[str, Any] = {
        "file": source,
        "qubits": circuit.num_qubits,
        "clbits": circuit.num_clbits,
        "precision": options.precision,
        "accuracy": options.accuracy,
    }
    try:
        if options.state or options.expectation:
            text = _exact(options, circuit, document)
        else:
            text = _counts(options, circuit, document)
    except MemoryError as error:
        raise MemoryError(f"{source}: {error}") from None
    if options.json:
        print(json.dumps(document, indent=2))
        return 0
    print(f"{source}: {circuit.num_qubits} qubits, {len(circuit)} gates")
    if options.draw:
        print(circuit)
    print(text)
    return 0


def _counts(options: argparse.Namespace, circuit: Circuit, document: dict[str, Any]) -> str:
    counts = run(
        circuit,
        options.shots,
        options.precision,
        options.threads,
        options.seed,
        progress=_lines(),
        accuracy=options.accuracy,
    )
    seed = counts.seed
    if options.bit_order == "first-right":
        counts = counts.reversed_bits()
    if options.plot:
        _plot(counts, options.plot)
    document |= {
        "shots": counts.shots,
        "seed": seed,
        "bit_order": options.bit_order,
        "counts": counts,
    }
    return counts.histogram()


def _plot(counts: Counts, path: str) -> None:
    try:
        import matplotlib

        # Drawing to a file needs no display.
        matplotlib.use("Agg")
    except ImportError:
        pass  # `plot` says what is missing
    counts.plot().figure.savefig(path, dpi=150)


def _exact(options: argparse.Namespace, circuit: Circuit, document: dict[str, Any]) -> str:
    """Amplitudes or expectation values after one run; where the circuit measures, of one course."""
    try:
        sums = [Observable(text, circuit.num_qubits) for text in options.expectation or ()]
    except ValueError as error:
        raise ValueError(f"--expectation: {error}") from None
    state = StateVector(circuit.num_qubits, options.precision, options.threads, options.seed)
    seed = state.seed
    state.run(circuit, progress=_lines(), accuracy=options.accuracy)
    document["seed"] = seed
    bits = "".join(map(str, state.classical_bits))
    measured = not circuit.is_unitary
    if measured:
        document["classical_bits"] = bits
    lines = [f"one course of the circuit, which read {bits}"] if measured else []
    if sums:
        values = {
            text: state.expectation(o) if o.is_hermitian() else state.expectation_complex(o)
            for text, o in zip(options.expectation, sums)
        }
        document["expectation"] = {
            text: [value.real, value.imag] if isinstance(value, complex) else value
            for text, value in values.items()
        }
        lines += [f"<{text}> = {value:.15g}" for text, value in values.items()]
        return "\n".join(lines)
    amplitudes = state.to_dict(_THRESHOLD)
    if options.bit_order == "first-right":
        amplitudes = {key[::-1]: value for key, value in amplitudes.items()}
    document["bit_order"] = options.bit_order
    document["amplitudes"] = {
        key: [value.real, value.imag] for key, value in sorted(amplitudes.items())
    }
    lines += [f"|{key}>  {value:.15g}" for key, value in sorted(amplitudes.items())]
    return "\n".join(lines)


def _lines() -> Progress:
    """A line about a long run every few seconds where there is no bar."""
    if sys.stderr.isatty() and importlib.util.find_spec("tqdm"):
        return None
    last = time.monotonic()

    def report(done: int, total: int) -> None:
        nonlocal last
        now = time.monotonic()
        if now - last > _PATIENCE and total:
            print(f"pblinalg: {done} of {total} ({done / total:.0%})", file=sys.stderr, flush=True)
            last = now

    return report


if __name__ == "__main__":
    sys.exit(main())
