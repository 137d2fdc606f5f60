"""OpenQASM programs as circuits. The text is parsed by qiskit, an optional extra; what the parser
builds becomes gates of the library in `qiskit_circuits`. The way out is `Circuit.to_qasm`."""

from __future__ import annotations

import importlib
import re
import sys
import warnings
from pathlib import Path
from typing import Any

from .circuit import Circuit
from .qiskit_circuits import from_qiskit

__all__ = ["from_qiskit", "load", "loads"]

#: Names that the parsers know before a program defines them.
_KNOWN = frozenset(
    "u3 u2 u1 cx id u0 u p x y z h s sdg t tdg rx ry rz sx sxdg cz cy swap ch ccx cswap crx cry "
    "crz cu1 cp cu3 csx cu rxx rzz rccx rc3x c3x c3sqrtx c4x phase cphase delay".split()
)
#: Set behind a name that a program defines itself, so that the parsers leave it alone.
_OWN = "_of_this_program"
_TOKEN = re.compile(r"//[^\n]*|/\*.*?\*/|\"[^\"]*\"|'[^']*'|[^\W\d]\w*|\s+|.", re.S)


def loads(text: str) -> Circuit:
    """The circuit of an OpenQASM 2 or 3 program. Classical bits are numbered through the registers
    in order of declaration; qubits likewise. ValueError says where the program is wrong or what
    cannot be followed."""
    if not isinstance(text, str):
        raise TypeError(f"text must be a str, got {text!r}")
    return _read(text, "program", Path())


def load(path: str | Path) -> Circuit:
    """The circuit of an OpenQASM 2 or 3 file; included files are looked for beside it. "-" reads
    the standard input."""
    if str(path) == "-":
        return _read(sys.stdin.read(), "standard input", Path())
    path = Path(path)
    if path.is_dir():
        raise IsADirectoryError(f"{path}: a directory; expected an OpenQASM file")
    if not path.exists():
        raise FileNotFoundError(f"{path}: no such file")
    try:
        text = path.read_text(encoding="utf-8")
    except UnicodeDecodeError:
        raise ValueError(f"{path}: not a text file") from None
    return _read(text, str(path), path.parent)


def _read(text: str, source: str, folder: Path) -> Circuit:
    version = _version(text)
    text = _own_names_first(_with_included_names(text, folder) if version == 2 else text)
    lines: list[int] = []
    try:
        parsed = _parse_2(text, folder) if version == 2 else _parse_3(text, lines)
    except SyntaxError as error:
        message = str(error.msg).replace(_OWN, "").replace("<input>:", "")
        raise ValueError(f"{source}: OpenQASM {version}: {message}") from None
    try:
        return from_qiskit(parsed)
    except ValueError as error:
        message = str(error).replace(_OWN, "")
        line = _line_of(text, error, lines)
        place = f"{line},0: " if line else ""
        raise ValueError(f"{source}: OpenQASM {version}: {place}{message}") from None


def _line_of(text: str, error: ValueError, lines: list[int]) -> int | None:
    """The line of what cannot be followed; `lines` are those of the instructions, if known."""
    place = getattr(error, "place", None)
    if place is not None and place < len(lines):
        return lines[place]
    name = re.match(r"the gate '(\w+)' is declared", str(error))
    if name:
        code = re.sub(r"//[^\n]*|\bopaque\s+\w+", "", text)
        used = re.search(rf"\b{name[1]}\b", code)
        return code[: used.start()].count("\n") + 1 if used else None
    return None


def _version(text: str) -> int:
    stated = re.match(r"(?:\s|//[^\n]*|/\*.*?\*/)*OPENQASM\s+(\d+)", text, re.S)
    if stated:
        return 2 if stated[1] == "2" else 3
    return 3 if re.search(r"\b(qubit|bit)\b|stdgates\.inc", _code(text)) else 2


def _code(text: str) -> str:
    """The text without its comments."""
    return "".join(token for token in _TOKEN.findall(text) if token[:2] not in ("//", "/*"))


def _with_included_names(text: str, folder: Path) -> str:
    """The program with those included files written out that define a known name; the numbers of
    its lines stay."""

    def written_out(match: re.Match[str]) -> str:
        path = folder / match[1]
        if match[1] == "qelib1.inc" or not path.is_file():
            return match[0]
        body = _with_included_names(path.read_text(encoding="utf-8"), folder)
        if not _own_names(body):
            return match[0]
        return " ".join(re.sub(r"//[^\n]*", "", body).split("\n"))

    return re.sub(r"^[ \t]*include\s*\"([^\"]*)\"\s*;", written_out, text, flags=re.M)


def _own_names(text: str) -> set[str]:
    if not re.search(r"\bgate\b", text):
        return set()
    return {name for name in re.findall(r"\bgate\s+(\w+)", _code(text)) if name in _KNOWN}


def _own_names_first(text: str) -> str:
    """The program with known names that it defines itself changed from the definition on: what a
    program says about a gate counts more than what the parsers know."""
    if not _own_names(text):
        return text
    own: set[str] = set()
    result = []
    previous = ""
    for token in _TOKEN.findall(text):
        if previous == "gate" and token in _KNOWN:
            own.add(token)
        result.append(token + _OWN if token in own else token)
        if not token.isspace() and token[:2] not in ("//", "/*"):
            previous = token
    return "".join(result)


def _parse_2(text: str, folder: Path) -> Any:
    qasm2 = _import("qiskit.qasm2")
    try:
        return qasm2.loads(
            text,
            include_path=(folder,),
            custom_instructions=qasm2.LEGACY_CUSTOM_INSTRUCTIONS,
        )
    except qasm2.QASM2ParseError as error:
        raise SyntaxError(error.message) from None


def _parse_3(text: str, lines: list[int]) -> Any:
    """The circuit; `lines` gets the line of each of its instructions."""
    converter = _import("qiskit_qasm3_import.converter")
    from openqasm3 import parser
    from qiskit.exceptions import QiskitError

    base: Any = converter.ConvertVisitor

    class Converter(base):  # type: ignore[misc]
        """Says of every error where in the program it is."""

        def visit(self, node: Any, context: Any = None) -> Any:
            try:
                return super().visit(node, context)
            except (QiskitError, IndexError) as error:
                message = getattr(error, "message", str(error))
                raise converter.ConversionError(message, node) from error

        def visit_Program(self, node: Any, context: Any) -> Any:
            for statement in node.statements:
                context = self.visit(statement, context)
                new = len(context.circuit.data) - len(lines)
                lines.extend([statement.span.start_line] * new)
            return context

        def visit_WhileLoop(self, node: Any, context: Any) -> Any:
            raise converter.ConversionError("'while' loops cannot be followed", node)

    # The converter compares single bits with true and false only.
    text = re.sub(
        r"(\bif\s*\(\s*\w+\s*\[\s*\w+\s*\]\s*[!=]=\s*)([01])(?=\s*\))",
        lambda match: match[1] + ("true" if match[2] == "1" else "false"),
        text,
    )
    try:
        with warnings.catch_warnings():
            # The converter calls what newer versions of qiskit call otherwise.
            warnings.simplefilter("ignore", DeprecationWarning)
            return Converter().convert(parser.parse(text)).circuit
    except converter.ConversionError as error:
        raise SyntaxError(error.message) from None
    except parser.QASM3ParsingError as error:
        raise SyntaxError(str(error) or _unexpected(error)) from None


def _unexpected(error: BaseException | None) -> str:
    """What the parser stumbled over, from the causes of its error."""
    while error is not None:
        for part in (error, *error.args):
            token = getattr(part, "offendingToken", None)
            if token is not None:
                return f"{token.line},{token.column}: unexpected {token.text!r}"
        error = error.__cause__ or error.__context__
    return "the program cannot be parsed"


def _import(name: str) -> Any:
    try:
        return importlib.import_module(name)
    except ImportError as error:
        raise ImportError(
            f"reading OpenQASM needs {error.name}: pip install 'pblinalg[qasm]'"
        ) from error
