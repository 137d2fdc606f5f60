"""Writes docs/python-api.md from the docstrings: `generate_api_reference.py [--check]`."""

import inspect
import re
import sys
from pathlib import Path

import pblinalg
from pblinalg import _core, density_matrix, gates, lowlevel, program, pure_state, qasm, readout

TARGET = Path(__file__).resolve().parents[2] / "docs" / "python-api.md"

HEAD = """# Python API reference

Generated from the docstrings by `python/tools/generate_api_reference.py`; do not edit.
[python.md](python.md) is the guide.
"""


def text_of(thing) -> str:
    blocks = inspect.cleandoc(thing.__doc__ or "").split("\n\n")
    # Examples become code blocks.
    return "\n\n".join(re.sub("^", "    ", b, flags=re.M) if b[:3] == ">>>" else b for b in blocks)


class Annotation(str):
    """An annotation that a signature shows without quotes, its own or those of a string."""

    def __repr__(self) -> str:
        return re.sub(r"['\"]", "", self) if "Literal" not in self else str(self)


def signature_of(name: str, member) -> str:
    signature = inspect.signature(member)
    bare = lambda a: Annotation(a) if isinstance(a, str) else a  # noqa: E731
    parameters = [p.replace(annotation=bare(p.annotation)) for p in signature.parameters.values()]
    signature = signature.replace(
        parameters=parameters, return_annotation=bare(signature.return_annotation)
    )
    text = re.sub(r"^\(self(, )?", "(", str(signature))
    return name + re.sub(r"\bpblinalg\.\w+\.", "", text)


def entry(heading: str, text: str) -> list[str]:
    return [f"**`{heading}`**", "", *([text, ""] if text else [])]


def members_of(cls) -> list[str]:
    """Documented members that the class itself defines, in order of definition."""
    lines = []
    for name, member in vars(cls).items():
        if name.startswith("_") and name != "__iter__":
            continue
        if isinstance(member, property):
            lines += entry(name, text_of(member))
        elif isinstance(member, classmethod):
            lines += entry("classmethod " + signature_of(name, getattr(cls, name)), text_of(member))
        elif inspect.isfunction(member):
            lines += entry(signature_of(name, member), text_of(member))
    return lines


def class_section(title: str, *classes) -> list[str]:
    first = classes[0]
    lines = [f"## {title}", ""]
    if first is not pblinalg.Counts:
        lines += [f"`{signature_of(first.__name__, first.__init__).removesuffix(' -> None')}`", ""]
    lines += [text_of(first), ""]
    for cls in classes:
        lines += members_of(cls)
    return lines


def native_signature(signature: str) -> str:
    return signature.removeprefix("def ").replace("self, ", "").replace("self", "")


def gate_signature(signature: str) -> str:
    """The native signature of a gate method with the names that `arguments` has for its types."""
    several = r"collections\.abc\.Sequence\[typing\.SupportsIndex\] \| [\w.]+\[[\w.]+\[[\w.]+\]\]"
    text = re.sub(several, "Several", native_signature(signature))
    return re.sub(r"\b(typing|typing_extensions)\.", "", text)


def gate_members(cls) -> list[str]:
    lines = []
    for name, member in vars(cls).items():
        if hasattr(member, "__nb_signature__") and not name.startswith("_"):
            signature, text, *_ = member.__nb_signature__[0]
            lines += entry(gate_signature(signature), inspect.cleandoc(text))
    return lines


def native_section(cls) -> list[str]:
    lines = [f"### {cls.__name__}", "", text_of(cls), ""]
    for name, member in vars(cls).items():
        if name.startswith("_") and name not in ("__init__", "__len__", "__call__"):
            continue
        if isinstance(member, property):
            lines += entry(name, text_of(member))
        elif hasattr(member, "__nb_signature__"):
            for signature, text, *_ in member.__nb_signature__:
                lines += entry(native_signature(signature), inspect.cleandoc(text or ""))
    return lines


def reference() -> str:
    lines = [HEAD]
    lines += class_section(
        "StateVector", pblinalg.StateVector, pure_state.PureState, readout.Readout
    )
    lines += ["## Gates", "", text_of(gates.GateMethods), ""]
    lines += ["`StateVector`, `DensityMatrix` and `Circuit` share these methods.", ""]
    lines += gate_members(_core.GateMethods) + members_of(gates.GateMethods)
    lines += class_section("Circuit", pblinalg.Circuit, program.Program)
    lines += native_section(pblinalg.Parameter)
    for step in (pblinalg.Measure, pblinalg.Reset, pblinalg.Conditional):
        fields = ", ".join(step.__dataclass_fields__)
        lines += entry(f"{step.__name__}({fields})", text_of(step))
    lines += ["## Running", "", *entry(signature_of("run", pblinalg.run), text_of(pblinalg.run))]
    lines += entry(signature_of("sweep", pblinalg.sweep), text_of(pblinalg.sweep))
    lines += entry(signature_of("estimate", pblinalg.estimate), text_of(pblinalg.estimate))
    gradient = pblinalg.value_and_gradient
    lines += entry(signature_of("value_and_gradient", gradient), text_of(gradient))
    lines += class_section("Counts", pblinalg.Counts)
    lines += class_section("Observable", pblinalg.Observable)
    text = "An `Observable`, or the string or dict of terms that its constructor takes."
    lines += entry("ObservableLike", text)
    lines += class_section("DensityMatrix", density_matrix.DensityMatrix)
    lines += ["Reading works as in `StateVector`.", ""]
    lines += class_section("Channel", pblinalg.Channel)
    lines += class_section("NoiseModel", pblinalg.NoiseModel)
    lines += [
        "## OpenQASM and qiskit: `pblinalg.qasm`",
        "",
    ]
    for function in (qasm.load, qasm.loads, qasm.from_qiskit):
        lines += entry(signature_of(function.__name__, function), text_of(function))
    lines += ["## Lower level: `pblinalg.lowlevel`", "", text_of(lowlevel), ""]
    lines += ["The classes for float have the same members with complex64 and float32.", ""]
    for name in lowlevel.__all__:
        member = getattr(lowlevel, name)
        if inspect.isclass(member):
            if not name.endswith("Float"):
                lines += native_section(member)
        elif isinstance(member, tuple):
            text = (
                "The gates of a `GateList`: name, number of targets and of angles (0 targets where "
            )
            lines += entry(name, text + "each gate has its own number), and what the gate does.")
        else:
            signature, text, *_ = member.__nb_signature__[0]
            lines += entry(native_signature(signature), text_of(member))
    return re.sub(r"\n{3,}", "\n\n", "\n".join(lines)).rstrip() + "\n"


def main() -> int:
    text = reference()
    if sys.argv[1:] == ["--check"]:
        current = TARGET.read_text() if TARGET.exists() else ""
        if text != current:
            print(f"{TARGET} is out of date; run {Path(__file__).name}")
        return int(text != current)
    TARGET.write_text(text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
