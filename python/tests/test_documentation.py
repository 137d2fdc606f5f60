"""Examples and documentation run as they stand."""

import contextlib
import io
import re
import shlex
import shutil
from pathlib import Path

import pytest

import pblinalg
from interpreter import run_python
from pblinalg import _core
from pblinalg.__main__ import main

ROOT = Path(__file__).resolve().parents[2]
EXAMPLES = sorted((ROOT / "examples" / "python").glob("*.py"))


@pytest.mark.parametrize("path", EXAMPLES, ids=lambda path: path.stem)
def test_example_checks_itself(path):
    if "scipy" in path.read_text():
        pytest.importorskip("scipy")
    run_python(path)


@pytest.mark.parametrize(
    "name", ["README.md", "docs/python.md", "docs/python-bit-order.md", "docs/frameworks.md"]
)
def test_python_in_documents_runs_and_prints_what_they_show(name, monkeypatch):
    monkeypatch.setenv("COLUMNS", "80")
    text = (ROOT / name).read_text()
    blocks = re.findall(r"```python\n(.*?)```(?:\n+```text\n(.*?)```)?", text, flags=re.S)
    assert blocks
    for code, shown in blocks:
        printed = io.StringIO()
        try:
            with contextlib.redirect_stdout(printed):
                exec(code, {})
        except ImportError as error:
            assert "pip install 'pblinalg[" in str(error) or error.name == "pennylane"
            continue
        if shown:
            assert printed.getvalue() == shown


def test_commands_in_the_guide_run(tmp_path, monkeypatch, capsys):
    pytest.importorskip("qiskit")
    pytest.importorskip("matplotlib")
    shutil.copy(ROOT / "python/tests/circuits/bell.qasm", tmp_path / "circuit.qasm")
    monkeypatch.chdir(tmp_path)
    lines = re.findall(
        r"^python -m pblinalg (run .*)$", (ROOT / "docs/python.md").read_text(), re.M
    )
    assert len(lines) > 3
    for line in lines:
        assert main(shlex.split(line)) == 0, capsys.readouterr().err


def test_type_checkers_accept_a_program_and_find_its_faults(tmp_path):
    program = Path(__file__).with_name("typed_program.py")
    run_python(program)
    api = pytest.importorskip("mypy.api")
    wrong = tmp_path / "wrong.py"
    wrong.write_text(
        "import pblinalg as pb\n"
        "state = pb.StateVector(2, 'half')\n"
        "text: str = state.expectation('ZZ')\n"
        "state.unitary([[1]], 0).hadamard(0)\n"
        "state.h('0')\n"
    )
    options = ["--strict", "--cache-dir", str(tmp_path)]
    shown, _, _ = api.run([*options, str(program), str(wrong)])
    places = re.findall(r"(\w+)\.py:(\d+): error", shown)
    assert places == [("wrong", line) for line in "2345"], shown


def test_the_reference_is_up_to_date():
    run_python(ROOT / "python" / "tools" / "generate_api_reference.py", "--check")


def test_the_version_is_that_of_the_build():
    build = (ROOT / "CMakeLists.txt").read_text()
    assert f"project(pblinalg VERSION {pblinalg.__version__}" in build


def test_everything_public_says_what_it_is():
    for module in (pblinalg, _core):
        for name in dir(module):
            if name.startswith("_"):
                continue
            try:
                thing = getattr(module, name)
            except ImportError:  # a module whose framework or library is not there
                continue
            if thing is pblinalg.Precision:  # a type alias, which holds no text
                continue
            assert thing.__doc__, name
            members = vars(thing).items() if isinstance(thing, type) else ()
            for member, value in members:
                callable_ = callable(value) or isinstance(value, property)
                if not member.startswith("_") and callable_ and "namedtuple" not in str(value):
                    fields = getattr(thing, "__dataclass_fields__", {})
                    assert value.__doc__ or member in fields, f"{name}.{member}"
