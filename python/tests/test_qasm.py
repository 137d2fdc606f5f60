"""OpenQASM 2 programs: amplitudes against another simulator, and the command line."""

import json
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import pblinalg as pb
from pblinalg.__main__ import main

CIRCUITS = Path(__file__).with_name("circuits")
UNITARY = sorted(p for p in CIRCUITS.glob("*.qasm") if not p.name.startswith("dynamic"))
#: What the bits of programs with feedback read, by position in a key; "?" for either value.
DYNAMIC = {
    "dynamic_teleport": "? ? 0",
    "dynamic_inverse_qft": "0 0 0 0",
    "dynamic_error_correction": "000 10",
    "dynamic_reset": "?0 0",
}


@pytest.fixture
def qiskit():
    return pytest.importorskip("qiskit", reason="the OpenQASM parser is an optional extra")


@pytest.mark.parametrize("path", UNITARY, ids=lambda path: path.stem)
def test_amplitudes_equal_those_of_an_independent_simulator(qiskit, path, precision):
    from qiskit import qasm2, quantum_info

    from pblinalg.qasm import load

    other = qasm2.load(path, custom_instructions=qasm2.LEGACY_CUSTOM_INSTRUCTIONS)
    other.remove_final_measurements()
    expected = quantum_info.Statevector(other.reverse_bits()).data
    state = pb.StateVector(other.num_qubits, precision.name)
    circuit = load(path)
    for step in circuit.steps:
        if hasattr(step, "apply"):
            step.apply(state.core)
    np.testing.assert_allclose(state.to_array(), expected, atol=60 * precision.tolerance)


@pytest.mark.parametrize("name,pattern", DYNAMIC.items())
def test_measured_bits_feed_forward(qiskit, name, pattern):
    from pblinalg.qasm import load

    counts = load(CIRCUITS / f"{name}.qasm").run(300, seed=1)
    assert counts.shots == 300
    for key in counts:
        assert len(key) == len(pattern)
        assert all(p in ("?", bit) for p, bit in zip(pattern, key)), key
    assert len(counts) == 2 ** pattern.count("?")


def test_there_are_twenty_programs():
    assert len(UNITARY) >= 20


def test_command_line_prints_counts_as_a_table_and_as_json(qiskit, capsys, tmp_path):
    bell = str(CIRCUITS / "bell.qasm")
    assert main(["run", bell, "--shots", "1000", "--seed", "7"]) == 0
    table = capsys.readouterr().out
    assert "2 qubits, 2 gates" in table and "outcome" in table and "#" in table
    assert main(["run", bell, "--shots", "1000", "--seed", "7", "--json"]) == 0
    document = json.loads(capsys.readouterr().out)
    assert document["counts"] == pb.Circuit(2).h(0).cx(0, 1).run(1000, seed=7)
    assert f"{document['counts']['00']}  " in table
    assert main(["run", str(CIRCUITS / "dynamic_error_correction.qasm"), "--json"]) == 0
    assert json.loads(capsys.readouterr().out)["counts"] == {"000 10": 1024}
    options = ["--json", "--bit-order", "first-right"]
    assert main(["run", str(CIRCUITS / "dynamic_error_correction.qasm"), *options]) == 0
    assert json.loads(capsys.readouterr().out)["counts"] == {"01 000": 1024}
    pytest.importorskip("matplotlib").use("Agg")
    picture = tmp_path / "bell.png"
    assert main(["run", bell, "--plot", str(picture)]) == 0
    assert picture.read_bytes().startswith(b"\x89PNG")


@pytest.mark.parametrize(
    "text,error",
    [
        (None, "no such file"),
        ("OPENQASM 2.0; qreg q[2]; x q[0];", "'x'"),
        ('OPENQASM 2.0; include "qelib1.inc"; qreg q[1]; h q[1];', "out-of-range"),
        ("OPENQASM 3.0; qubit q;", "OpenQASM 2"),
        ("OPENQASM 2.0; opaque f a; qreg q[1]; f q[0];", "'f' is declared but has no definition"),
        ("OPENQASM 2.0; qreg q[45];", "a register of 45 qubits needs"),
    ],
)
def test_command_line_errors_are_one_clear_line(qiskit, capsys, tmp_path, text, error):
    path = tmp_path / "program.qasm"
    if text is not None:
        path.write_text(text)
    assert main(["run", str(path)]) == 1
    captured = capsys.readouterr()
    assert captured.out == "" and captured.err.startswith("pblinalg: ")
    assert error in captured.err and captured.err.count("\n") == 1


def test_command_line_shows_the_machine_and_checks_itself():
    result = subprocess.run(
        [sys.executable, "-m", "pblinalg"], capture_output=True, text=True, timeout=120
    )
    assert result.returncode == 0, result.stderr
    for word in ("instruction set", "threads", "free memory", "largest register"):
        assert word in result.stdout
    assert result.stdout.count("ok ") == 8 and "FAILED" not in result.stdout


def test_wrong_options_stop_the_command_line(capsys):
    for options in (["run"], ["run", "x", "--shots", "many"], ["walk"], ["run", "x", "--oops"]):
        with pytest.raises(SystemExit, match="2"):
            main(options)
    capsys.readouterr()
    assert main(["run", str(CIRCUITS / "bell.qasm"), "--shots", "-1"]) == 1
    assert "pblinalg: " in capsys.readouterr().err
