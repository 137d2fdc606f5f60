"""The command line: `python -m pblinalg` and `python -m pblinalg run CIRCUIT.qasm`."""

from __future__ import annotations

import argparse
import json
import sys
from collections.abc import Sequence

from . import __version__, _core
from .running import run
from .self_check import self_check


def main(arguments: Sequence[str] | None = None) -> int:
    parser = _parser()
    options = parser.parse_args(arguments)
    try:
        return options.command(options)
    except KeyboardInterrupt:
        print("pblinalg: interrupted", file=sys.stderr)
        return 130
    except BrokenPipeError:
        sys.stderr.close()
        return 141
    except (ValueError, IndexError, TypeError, MemoryError, ImportError, OSError) as error:
        print(f"pblinalg: {error}", file=sys.stderr)
        return 1


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
        help="simulate an OpenQASM 2 file and print counts",
        description="Simulates an OpenQASM 2 file. In a printed outcome the first bit of a register "
        "is leftmost; a program without measurements is read out over all qubits.",
    )
    job.add_argument("file", help="OpenQASM 2 file")
    job.add_argument("--shots", type=int, default=1024, help="number of shots (default 1024)")
    job.add_argument("--seed", type=int, help="makes the shots repeatable")
    job.add_argument("--precision", choices=("double", "float"), default="double")
    job.add_argument("--threads", type=int, help="worker threads (default: all processors)")
    job.add_argument(
        "--bit-order",
        choices=("first-left", "first-right"),
        default="first-left",
        help="where the first bit of a register is printed (default first-left)",
    )
    job.add_argument("--json", action="store_true", help="print counts as JSON")
    job.add_argument("--plot", metavar="FILE", help="write a bar chart (needs matplotlib)")
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
    counts = run(circuit, options.shots, options.precision, options.threads, options.seed)
    if options.bit_order == "first-right":
        counts = counts.reversed_bits()
    if options.plot:
        axes = counts.plot()
        axes.figure.tight_layout()
        axes.figure.savefig(options.plot)
    if options.json:
        document = {
            "file": options.file,
            "qubits": circuit.num_qubits,
            "clbits": circuit.num_clbits,
            "shots": counts.shots,
            "seed": options.seed,
            "precision": options.precision,
            "bit_order": options.bit_order,
            "counts": counts,
        }
        print(json.dumps(document, indent=2))
    else:
        print(f"{options.file}: {circuit.num_qubits} qubits, {len(circuit)} gates")
        print(counts.histogram())
    return 0


if __name__ == "__main__":
    sys.exit(main())
