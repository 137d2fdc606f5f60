"""OpenQASM 2 programs: amplitudes against another simulator, and the command line."""

import io
import json
import re
from pathlib import Path

import numpy as np
import pytest

import dense
import pblinalg as pb
from interpreter import run_python
from pblinalg.__main__ import main
from pblinalg.qasm import load, loads

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
    reason = "the OpenQASM parsers are an optional extra"
    pytest.importorskip("qiskit_qasm3_import", reason=reason)
    return pytest.importorskip("qiskit", reason=reason)


@pytest.mark.parametrize("path", UNITARY, ids=lambda path: path.stem)
def test_amplitudes_equal_those_of_an_independent_simulator(qiskit, path, precision):
    from qiskit import qasm2, quantum_info

    other = qasm2.load(path, custom_instructions=qasm2.LEGACY_CUSTOM_INSTRUCTIONS)
    other.remove_final_measurements()
    expected = quantum_info.Statevector(other.reverse_bits()).data
    state = pb.StateVector(other.num_qubits, precision.name)
    for step in load(path).steps:
        if isinstance(step, pb.lowlevel.GateList):
            step.run(state.core)
    np.testing.assert_allclose(state.to_array(), expected, atol=60 * precision.tolerance)


@pytest.mark.parametrize("name,pattern", DYNAMIC.items())
def test_measured_bits_feed_forward(qiskit, name, pattern):
    counts = load(CIRCUITS / f"{name}.qasm").run(300, seed=1)
    assert counts.shots == 300
    for key in counts:
        assert len(key) == len(pattern)
        assert all(p in ("?", bit) for p, bit in zip(pattern, key)), key
    assert len(counts) == 2 ** pattern.count("?")


def matrix_of(other):
    """The matrix of a qiskit circuit, qubit 0 most significant."""
    from qiskit.quantum_info import Operator

    return Operator(other.reverse_bits()).data


def known_gates(qiskit):
    """Name, number of angles and of qubits of all gates that the parser knows."""
    from qiskit.qasm2 import LEGACY_CUSTOM_INSTRUCTIONS

    return [
        (gate.name, gate.num_params, gate.num_qubits)
        for gate in LEGACY_CUSTOM_INSTRUCTIONS
        if gate.name not in ("delay", "u0")
    ] + [("iswap", 0, 2), ("own", 1, 2)]


def call_of(name, angles, qubits):
    listed = f"({','.join(str(0.4 + 0.3 * i) for i in range(angles))})" if angles else ""
    return f"{name}{listed} {','.join(f'q[{(i + 1) % 5}]' for i in range(qubits))};"


def test_known_gates_are_what_the_parser_says(qiskit):
    for name, angles, qubits in known_gates(qiskit)[:-2]:
        text = f'OPENQASM 2.0; include "qelib1.inc"; qreg q[5]; {call_of(name, angles, qubits)}'
        expected = qiskit.qasm2.loads(
            text, custom_instructions=qiskit.qasm2.LEGACY_CUSTOM_INSTRUCTIONS
        )
        np.testing.assert_allclose(
            loads(text).matrix(), matrix_of(expected), atol=1e-14, err_msg=name
        )


@pytest.mark.parametrize(
    "head,own,flip",
    [
        ("OPENQASM 2.0; qreg q[5];", "U", "CX"),
        ('OPENQASM 2.0; include "qelib1.inc"; qreg q[5];', "u3", "cx"),
        ('OPENQASM 3.0; include "stdgates.inc"; qubit[5] q;', "u3", "cx"),
    ],
)
def test_gates_that_a_program_defines_are_its_own(qiskit, head, own, flip):
    for name, angles, qubits in known_gates(qiskit):
        if name in (own, flip):
            continue
        names = [f"a{i}" for i in range(qubits)]
        body = f"{own}(0.3,0.5,0.7) a0;" + "".join(f"{flip} a0,{a};" for a in names[1:])
        parameters = f"({','.join(f'p{i}' for i in range(angles))})" if angles else ""
        definition = f"gate {name}{parameters} {','.join(names)} {{ {body} }}"
        expected = pb.Circuit(5).u(0.3, 0.5, 0.7, 1)
        for i in range(1, qubits):
            expected.cx(1, (i + 1) % 5)
        found = loads(f"{head} // gate h\n{definition}\n{call_of(name, angles, qubits)} // {name}")
        np.testing.assert_allclose(found.matrix(), expected.matrix(), atol=1e-14, err_msg=name)


def test_gates_that_an_included_file_defines_are_its_own(qiskit, tmp_path):
    (tmp_path / "own.inc").write_text("gate cz a,b { // mine\n CX a,b; }")
    program = tmp_path / "program.qasm"
    program.write_text('OPENQASM 2.0;\ninclude "own.inc";\nqreg q[2];\ncz q[0],q[1];')
    assert np.array_equal(load(program).matrix(), pb.Circuit(2).cx(0, 1).matrix())


def gates_of_all_kinds(controls):
    rng = np.random.default_rng(controls)
    circuit = pb.Circuit(5)

    def places(count):
        chosen = rng.permutation(5).tolist()
        return chosen[:count], chosen[count : count + controls]

    for name in ("h", "x", "y", "z", "s", "sdg", "t", "tdg", "sx", "sxdg", "p", "rx", "ry", "rz"):
        (qubit,), others = places(1)
        angles = rng.normal(size=int(name in ("p", "rx", "ry", "rz")))
        getattr(circuit, name)(*angles, qubit, controls=others)
    (qubit,), others = places(1)
    circuit.u(*rng.normal(size=3), qubit, others).x(qubit, others, ctrl_state=0)
    if controls < 4:
        for name in ("rxx", "ryy", "rzz", "swap", "iswap", "sqrt_swap"):
            pair, others = places(2)
            angles = rng.normal(size=int(name[0] == "r"))
            getattr(circuit, name)(*angles, *pair, others, ctrl_state=0)
        circuit.compose(pb.Circuit(5).sqrt_swap(*pair, others).iswap(*pair).inverse())
        circuit.diagonal(np.exp(1j * rng.normal(size=4)), pair, others)
    circuit.global_phase(0.3, others).cu(*rng.normal(size=4), 2, 1)
    for count in range(1, min(3, 5 - controls) + 1):
        qubits, others = places(count)
        circuit.unitary(dense.random_unitary(rng, 2**count), qubits, others)
    circuit.swap(0, 3).cswap(4, 1, 2).iswap(0, 1).sqrt_swap(2, 4).cx(1, 3).ccx(0, 1, 2).cz(3, 1)
    circuit.unitary(np.exp(0.7j) * np.eye(2), 2)
    return circuit.phase_oracle([0, 2, 5], [3, 0, 2]).phase_oracle([0], [3])


@pytest.mark.parametrize("version", [2, 3])
def test_written_circuits_are_read_back_the_same(qiskit, version):
    for controls in range(5):
        circuit = gates_of_all_kinds(controls)
        found = loads(circuit.to_qasm(version))
        np.testing.assert_allclose(found.matrix(), circuit.matrix(), atol=1e-12)


def test_written_measurements_and_conditions_are_read_back_the_same(qiskit):
    circuit = pb.Circuit(3, 4)
    circuit.registers = [2, 1, 1]
    circuit.ry(0.8, 0).h(2).measure([0, 2], [1, 3])
    with circuit.if_([1, 0], 2):
        circuit.x(1).measure(1, 2)
    circuit.reset(2)
    for version in (2, 3):
        found = loads(circuit.to_qasm(version))
        assert found.registers == (2, 1, 1)
        assert found.run(500, seed=4) == circuit.run(500, seed=4)
    with circuit.if_([0, 2], 1):
        circuit.measure(1, 0)
        with circuit.if_([3], 0):
            circuit.h(1).measure(1, 1)
    assert loads(circuit.to_qasm()).run(500, seed=4) == circuit.run(500, seed=4)
    with pytest.raises(ValueError, match="one whole register only"):
        circuit.to_qasm(2)
    with pytest.raises(ValueError, match="version = 4"):
        circuit.to_qasm(4)


def test_written_parameters_are_inputs(qiskit):
    a, b = pb.Parameter("a"), pb.Parameter("b_1")
    circuit = pb.Circuit(2).h(0).rx(2 * a + 0.5, 0).rzz(-b, 0, 1).p(b - 1, 1, [0]).u(a, b, 0.1, 1)
    circuit.global_phase(a / 2)
    found, values = loads(circuit.to_qasm()), {"a": 0.3, "b_1": -1.1}
    assert found.parameters == circuit.parameters == (a, b)
    np.testing.assert_allclose(found.matrix(values), circuit.matrix(values), atol=1e-14)


OPENQASM_3 = """OPENQASM 3;
include "stdgates.inc";
qubit[3] q; bit[2] c; bit d;
x q[0];
c[0] = measure q[0];
if (c[0] == 1) { x q[1]; } else { x q[2]; }
d = measure q[1];
if (c == 2) x q[2]; else z q[2];
if (!c[1]) { reset q[0]; } else { h q[0]; }
for int i in [1:3] { rx(pi/i) q[2]; }
for int i in [1:9] { x q[2]; if (d) { break; } y q[2]; d = measure q[1]; }
x q[2];
if (d) { x q[1]; d = measure q[1]; } else { x q[2]; }
x q[1]; d = measure q[1];
negctrl @ ctrl @ x q[0], q[1], q[2];
inv @ sx q[2]; sx q[2]; rx(-11*pi/6) q[2];
c[1] = measure q[2];
"""


def test_openqasm_3_programs_are_followed(qiskit):
    circuit = loads(OPENQASM_3)
    assert circuit.registers == (2, 1)
    assert circuit.run(100) == {"11 1": 100}


#: What the bits of the branching circuit read, followed by hand, by the bits that it starts from.
READINGS = [
    "000 0000", "100 1000", "010 0000", "110 0000", "001 0001", "101 1001",
    "011 0100", "111 0000",
]  # fmt: skip


def test_qiskit_circuits_come_in(qiskit):
    from qiskit.circuit import Parameter, library
    from qiskit.circuit.classical import expr

    native = qiskit.QuantumCircuit(4)
    native.append(library.CUGate(0.1, 0.2, 0.3, 0.4), [2, 0])
    native.append(library.XGate().control(3, ctrl_state=0b011), [3, 1, 0, 2])
    for gate in (library.RXXGate(0.1), library.RYYGate(0.2), library.RZZGate(0.3)):
        native.append(gate, [1, 3])
        native.append(gate.control(1, ctrl_state=0), [0, 3, 2])
    for gate in (library.CSXGate(ctrl_state=0), library.CSGate(), library.CU1Gate(0.2)):
        native.append(gate, [1, 2])
    for gate in (library.CSwapGate(ctrl_state=0), library.CCZGate(), library.MCXGate(2)):
        native.append(gate, [1, 2, 0])
    native.append(library.MCPhaseGate(0.4, 3), [1, 2, 0, 3])
    native.append(library.GlobalPhaseGate(0.4), [])
    found = pb.from_qiskit(native)
    np.testing.assert_allclose(found.matrix(), matrix_of(native), atol=1e-14)
    assert "matrix" not in {gate.name for gate in found} and len(found) == len(native) + 1

    for value, reading in enumerate(READINGS):
        branching = qiskit.QuantumCircuit(3)
        branching.add_register(qiskit.ClassicalRegister(3), qiskit.ClassicalRegister(4))
        for bit in range(3):
            if value >> bit & 1:
                branching.x(bit)
        branching.measure(range(3), range(3))
        a, b, c = (expr.lift(branching.clbits[i]) for i in range(3))
        with branching.if_test(expr.logic_and(a, expr.logic_not(b))) as otherwise:
            branching.measure(0, 3)
        with otherwise:
            branching.reset(0)
        with branching.switch(branching.cregs[0]) as case:
            with case(1, 6):
                branching.measure(2, 4)
            with case(case.DEFAULT):
                branching.reset(1)
        with branching.if_test(expr.less(branching.cregs[0], 5)):
            branching.measure(1, 5)
        with branching.if_test(expr.bit_xor(b, c)):
            branching.measure(2, 6)
        assert pb.from_qiskit(branching).run(1) == {reading: 1}, value

    nonlinear, looping, deciding, left = (qiskit.QuantumCircuit(1, 1) for _ in range(4))
    forking = qiskit.QuantumCircuit(1, 2)
    with forking.for_loop(range(60)), forking.if_test((forking.cregs[0], 3)):
        forking.break_loop()
    nonlinear.rx(Parameter("theta") ** 2, 0)
    with looping.while_loop((looping.clbits[0], 0)):
        looping.measure(0, 0)
    with deciding.if_test((deciding.clbits[0], 0)) as otherwise:
        deciding.measure(0, 0)
    with otherwise:
        deciding.x(0)
        deciding.measure(0, 0)
    with left.for_loop(range(65)), left.if_test((left.clbits[0], 1)):
        left.break_loop()
    for rejected, error, text in (
        (nonlinear, ValueError, "theta.*; expected one parameter, linear"),
        (looping, ValueError, "'while_loop' cannot be followed"),
        (deciding, ValueError, "more than one branch measures into a classical bit that decides"),
        (forking, ValueError, "there is more than one way past its exit"),
        (left, ValueError, "'break_loop' cannot be followed here; expected a loop of at most 64"),
        ("h q[0];", TypeError, "circuit must be a qiskit QuantumCircuit"),
    ):
        with pytest.raises(error, match=text):
            pb.from_qiskit(rejected)


def test_command_line_prints_counts_as_a_table_and_as_json(qiskit, capsys, tmp_path):
    bell = str(CIRCUITS / "bell.qasm")
    assert main(["run", bell, "--shots", "1000", "--seed", "7"]) == 0
    table = capsys.readouterr().out
    assert "2 qubits, 2 gates" in table and "outcome" in table and "#" in table
    assert main(["run", bell, "--shots", "1000", "--seed", "7", "--json"]) == 0
    document = json.loads(capsys.readouterr().out)
    assert document["counts"] == pb.Circuit(2).h(0).cx(0, 1).run(1000, seed=7)
    assert f"{document['counts']['00']}  " in table
    dynamic = str(CIRCUITS / "dynamic_error_correction.qasm")
    for options, key in (([], "000 10"), (["--bit-order", "first-right"], "01 000")):
        assert main(["run", dynamic, "--json", *options]) == 0
        assert json.loads(capsys.readouterr().out)["counts"] == {key: 1024}
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
        ("OPENQASM 3.0;\nqubit q;\nhh q;", "program.qasm: OpenQASM 3: 3,0: gate 'hh'"),
        ("OPENQASM 3.0;\nqubit q;\nU(1,2,3) q", "OpenQASM 3: 3,10: unexpected '<EOF>'"),
        ("OPENQASM 3.0;\nbit c;\nwhile (c) { }", "3,0: 'while' loops cannot be followed"),
        ("OPENQASM 2.0; gate h a { } gate h b { } qreg q[1];", "'h' is already defined"),
        ("OPENQASM 2.0; qreg q[9]; qreg r[90];", "99 qubits in q[9], r[90]"),
        ("OPENQASM 2.0;\nopaque f a;\nqreg q[1];\nf q[0];", "4,0: the gate 'f' is declared but"),
        (
            "OPENQASM 3.0;\nqubit q; bit c;\nU(1,2,3) q;\n"
            "if (c) { c = measure q; } else { c = measure q; }",
            "4,0: 'if_else' cannot be followed: more than one branch measures",
        ),
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
    result = run_python("-m", "pblinalg")
    for word in ("instruction set", "threads", "free memory", "largest register"):
        assert word in result.stdout
    assert result.stdout.count("ok ") == 8 and "FAILED" not in result.stdout


def test_wrong_options_stop_the_command_line(capsys):
    for options in (["run"], ["run", "x", "--shots", "many"], ["walk"], ["run", "x", "--oops"]):
        with pytest.raises(SystemExit, match="2"):
            main(options)
    capsys.readouterr()
    for option, value in (("--shots", "-1"), ("--seed", str(2**64)), ("--threads", "0")):
        with pytest.raises(SystemExit, match="2"):
            main(["run", str(CIRCUITS / "bell.qasm"), option, value])
        assert f"argument {option}: '{value}': expected" in capsys.readouterr().err


def test_command_line_reads_standard_input_and_prints_what_is_asked(qiskit, capsys, monkeypatch):
    def run(text, *options):
        monkeypatch.setattr("sys.stdin", io.StringIO(text))
        status = main(["run", "-", *options])
        printed = capsys.readouterr()
        assert status == 0, printed.err
        return printed.out

    plus = 'OPENQASM 3; include "stdgates.inc"; qubit[2] q; h q[0]; cx q[0], q[1]; s q[1];'
    seed = json.loads(run(plus, "--json"))["seed"]
    repeated = json.loads(run(plus, "--json", "--seed", str(seed)))
    assert repeated["seed"] == seed and sum(repeated["counts"].values()) == 1024
    assert re.search(
        r"^\|00>  0.70710678\d+\+0j\n\|11>  0\+0.7071\d+j$", run(plus, "--state"), re.M
    )
    state = json.loads(run(plus + "x q[0];", "--state", "--json", "--bit-order", "first-right"))
    assert list(state["amplitudes"]) == ["01", "10"]
    sums = ["--expectation", "ZZ + 0.5*X0", "--expectation", "X0 Y1"]
    assert run(plus, *sums).endswith("<ZZ + 0.5*X0> = 1\n<X0 Y1> = 1\n")
    assert json.loads(run(plus, *sums, "--json"))["expectation"]["X0 Y1"] == pytest.approx(1)
    measured = plus + "bit[2] c; x q[0]; reset q; x q[1]; c = measure q;"
    assert "which read 01\n|01>" in run(measured, "--state", "--draw")
    assert main(["run", str(CIRCUITS)]) == 1
    assert "a directory; expected" in capsys.readouterr().err


def test_long_runs_say_how_far_they_are(qiskit, capsys, monkeypatch):
    monkeypatch.setattr("pblinalg.__main__._PATIENCE", 0.0)
    assert main(["run", str(CIRCUITS / "dynamic_teleport.qasm"), "--shots", "20"]) == 0
    assert "pblinalg: 20 of 20 (100%)" in capsys.readouterr().err
