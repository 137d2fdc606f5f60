"""The package's own modules: who may import whom, and what stays private to a file."""

import ast
from pathlib import Path

import pytest

import pblinalg
from interpreter import run_python

SOURCES = sorted(Path(pblinalg.__file__).parent.glob("*.py"))
#: Modules that may wait with an import until it is needed.
OUTER = {"__init__", "__main__"}


def test_modules_import_from_the_top_and_only_public_names():
    assert len(SOURCES) > 10
    imports = {}
    for path in SOURCES:
        tree = ast.parse(path.read_text())
        inner = [n for n in ast.walk(tree) if isinstance(n, ast.ImportFrom) and n.level]
        for node in inner:
            private = [a.name for a in node.names if a.name[0] == "_" and a.name != "_core"]
            assert not private or private == ["__version__"], f"{path.name}: {private}"
        attributes = {n for n in ast.walk(tree) if isinstance(n, ast.Attribute)}
        own = {"_core", *(n.name for n in ast.walk(tree) if isinstance(n, ast.FunctionDef))}
        own |= {n.value for n in ast.walk(tree) if isinstance(n, ast.Constant)}  # slots
        for node in attributes:
            on_self = getattr(node.value, "id", "") in ("self", "cls")
            if node.attr[0] == "_" and node.attr[:2] != "__" and not on_self:
                assert node.attr in own, f"{path.name}:{node.lineno}: {node.attr}"
        late = [n.lineno for n in inner if n not in tree.body]
        assert path.stem in OUTER or not late, f"{path.name}: imports in lines {late}"
        imports[path.stem] = {n.module or a.name for n in inner for a in n.names}
    done = {"_core", "__version__"}
    while imports:
        ready = {name for name, needed in imports.items() if needed <= done}
        assert ready, f"these import each other in a circle: {imports}"
        done |= ready
        imports = {name: needed for name, needed in imports.items() if name not in ready}


@pytest.mark.parametrize("module", ["pennylane", "cirq"])
def test_a_framework_is_imported_when_asked_for_and_its_absence_names_the_extra(module):
    text = f"""if True:
        import sys, pblinalg
        assert {module!r} not in sys.modules
        sys.modules[{module!r}] = None
        try:
            import pblinalg.{module}
        except ImportError as error:
            print(error)"""
    assert f"pip install 'pblinalg[{module}]'" in run_python("-c", text).stdout
