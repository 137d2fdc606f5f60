"""What people look at and calculate with: pictures, tables, counts, the algebra of observables."""

import copy
import pickle
from xml.etree import ElementTree

import numpy as np
import pytest

import dense
import pblinalg as pb


def teleport():
    circuit = pb.Circuit(3, 2)
    circuit.registers = [1, 1]
    circuit.h(1).cx(1, 2).ry(np.pi / 4, 0).cx(0, 1).h(0).measure([0, 1], [0, 1])
    with circuit.if_(1):
        circuit.x(2)
    with circuit.if_(0):
        circuit.z(2)
    return circuit.reset(1).sdg(1)


TELEPORT = """\
        ┌─────────┐             ┌───┐ ┌───┐
   q0: ─┤ Ry(π/4) ├─────────●───┤ H ├─┤ M ├───────────────────────
        └─────────┘         │   └───┘ └─╥─┘
           ┌───┐          ┌─┴─┐         ║   ┌───┐ ┌─────┐ ┌────┐
   q1: ────┤ H ├──────●───┤ X ├─────────╫───┤ M ├─┤ |0⟩ ├─┤ S† ├──
           └───┘      │   └───┘         ║   └─╥─┘ └─────┘ └────┘
                    ┌─┴─┐               ║     ║    ┌───┐   ┌───┐
   q2: ─────────────┤ X ├───────────────╫─────╫────┤ X ├───┤ Z ├──
                    └───┘               ║     ║    └─╥─┘   └─╥─┘
                                        ║     ║      ║       ║
c0[1]: ═════════════════════════════════╩═════╬══════╬═══════■════
                                        0     ║      ║      0=1
                                              ║      ║
c1[1]: ═══════════════════════════════════════╩══════■════════════
                                              0     0=1"""


def test_text_drawings_show_boxes_connections_and_readings():
    assert teleport().draw(width=200) == TELEPORT
    narrow = teleport().draw(width=40).splitlines()
    assert max(map(len, narrow)) <= 40 and len(narrow) > len(TELEPORT.splitlines())
    assert sum(line.count("M") for line in narrow) == 2
    assert pb.Circuit(0).draw() == "" and pb.Circuit(1).draw() == "q0: ─"
    large = pb.Circuit(2)
    for _ in range(1000):
        large.h(0)
    assert str(large).endswith("... and 600 more") and str(large).count("H") == 400
    for wrong in ({"output": "png"}, {"width": 0}):
        with pytest.raises(ValueError, match=f"{[*wrong][0]} = "):
            large.draw(**wrong)


def test_svg_drawings_are_documents_of_the_same_elements():
    circuit = teleport().cswap(0, 1, 2).unitary(np.eye(4), [2, 0]).p(-0.3, 1, [2])
    root = ElementTree.fromstring(circuit.draw("svg"))
    texts = [element.text for element in root.iter("{http://www.w3.org/2000/svg}text")]
    for label in ("q0", "c1[1]", "H", "Ry(π/4)", "|0⟩", "U:0", "U:1", "P(-0.3)", "0=1"):
        assert label in texts, label
    narrow = ElementTree.fromstring(circuit.draw("svg", width=200))
    assert float(narrow.get("width")) < 260 < 500 < float(root.get("width"))
    assert circuit._repr_svg_() == circuit.draw("svg")


def test_drawings_show_parameters_open_controls_and_phases():
    a = pb.Parameter("a")
    circuit = pb.Circuit(2).rx(2 * a, 0).x(1, [0], ctrl_state=0).rzz(a - 1, 0, 1)
    text = circuit.global_phase(np.pi).global_phase(a, [1]).draw(width=200)
    for label in ("Rx(2*a)", "○", "Rzz(a-1)", " φ(π) ", "●φ(a)"):
        assert label in text
    assert ElementTree.fromstring(circuit.draw("svg"))
    names = ("global_phase", "rx", "cx", "rzz", "cglobal_phase")
    assert circuit.count_ops() == dict.fromkeys(names, 1)
    assert circuit.depth() == 4


def test_operations_depth_and_matrix(rng):
    circuit = teleport()
    assert circuit.count_ops() == {
        "h": 2, "cx": 2, "measure": 2, "ry": 1, "x": 1, "z": 1, "reset": 1, "sdg": 1
    }  # fmt: skip
    # H, CX; CX, H, M; X after the measurement of 1, Z after that of 0 and after X.
    assert circuit.depth() == 6
    waiting = pb.Circuit(2).h(0).measure(0)
    with waiting.if_(0):
        waiting.x(1)
    assert waiting.depth() == 3
    assert pb.Circuit(3).h(0).x(2, [0, 1]).z(0, [1, 2]).count_ops() == {"h": 1, "ccx": 1, "ccz": 1}
    assert pb.Circuit(2).depth() == 0
    with pytest.raises(ValueError, match="has no matrix"):
        circuit.matrix()
    unitary = dense.random_unitary(rng, 4)
    found = pb.Circuit(3).unitary(unitary, [2, 0]).cx(1, 2).matrix()
    expected = dense.embed(dense.controlled(dense.X, 1), [1, 2], 3)
    np.testing.assert_allclose(found, expected @ dense.embed(unitary, [2, 0], 3), atol=1e-14)


def test_tables_for_notebooks_show_the_largest_and_sum_up_the_rest():
    state = pb.StateVector(6)
    for qubit in range(6):
        state.ry(0.4 + 0.2 * qubit, qubit)
    best = max(state.to_dict().items(), key=lambda entry: abs(entry[1]))[0]
    html = state._repr_html_()
    assert html.count("<tr>") == 34 and html.index(f"|{best}⟩") < html.index("32 others")
    shares = sorted(state.probabilities(), reverse=True)
    assert f"{sum(shares[32:]):.4%}" in html and f"{shares[0]:.4%}" in html
    mixed = pb.DensityMatrix(6).run(pb.Circuit(6).h(0).h(1).h(2).h(3).h(4).h(5))
    assert mixed._repr_html_().count("<tr>") == 34
    assert "|1⟩" in pb.StateVector(1).x(0)._repr_html_()
    counts = state.sample(5000)
    assert f"{len(counts) - 32} others" in counts._repr_html_()
    assert "<td" not in pb.StateVector(21)._repr_html_()
    latex = pb.Observable("ZIZ - 0.5*X1 + 3")._repr_latex_()
    assert latex == r"$\displaystyle Z_{0} Z_{2} - 0.5 X_{1} + 3 I$"


def test_charts_stay_small_whatever_the_number_of_outcomes():
    pytest.importorskip("matplotlib").use("Agg")
    rng = np.random.default_rng(3)
    outcomes = rng.integers(0, 1 << 18, 100_000)
    for counts, charts, bars in (
        (pb.Counts({"00": 5, "11": 6}), 1, 2),
        (pb.Counts({format(i, "06b"): i + 1 for i in range(40)}), 2, 33),
        (pb.Counts.from_outcomes(outcomes, 18), 2, 33),
    ):
        axes = counts.plot()
        figure = axes.figure
        assert len(figure.axes) == charts and len(axes.patches) == bars
        assert max(figure.get_size_inches()) < 12
        assert axes.get_xlabel() == "outcome" and axes.get_ylabel() == "shots"
        assert axes.get_title() == f"{counts.shots} shots, {len(counts)} outcomes"
        if charts == 2:
            assert sum(bar.get_height() for bar in figure.axes[1].patches) == counts.shots
            assert axes.get_xticklabels()[-1].get_text() == f"{len(counts) - 32} others"
        assert len(counts.plot(axes).patches) == 2 * bars


def test_counts_add_up_and_shrink():
    counts = pb.Counts({"00 1": 3, "11 0": 5, "01 1": 2})
    counts.seed = 4
    for twice in (counts + counts, sum([counts, counts]), counts + dict(counts)):
        assert type(twice) is pb.Counts and twice == {"00 1": 6, "01 1": 4, "11 0": 10}
    for same in (counts.copy(), copy.copy(counts), pickle.loads(pickle.dumps(counts))):
        assert type(same) is pb.Counts and same == counts and same.seed == 4
    assert type(counts | {"10 1": 1}) is pb.Counts and list(counts | {"10 1": 1})[2] == "10 1"
    assert counts.marginal([2, 0]) == {"10": 5, "01": 5} and counts.marginal(1) == {"0": 3, "1": 7}
    for text, value in (("ZII", 0.0), ("Z0 Z1", 0.6), ("Z0Z1 + 2*IIZ - 1", -0.4), ("2.5", 2.5)):
        assert counts.expectation(text) == pytest.approx(value)
    for call, error, message in (
        (lambda: counts.marginal([3]), IndexError, "bits = 3: expected a value between 0 and 2"),
        (lambda: counts.expectation("X0"), ValueError, "expected I and Z only"),
        (lambda: counts.expectation("ZZ"), ValueError, "'ZZ' has 2 letters; expected 3"),
        (lambda: pb.Counts().expectation("Z"), ValueError, "no shots"),
        (lambda: counts + {"0": 1}, ValueError, "different lengths"),
    ):
        with pytest.raises(error, match=message):
            call()


def test_observables_calculate_as_their_matrices_do(rng):
    a = pb.Observable("1.0*ZZI - 0.5*X0 + 2 + (1+2j)*Y0Z2")
    b = pb.Observable({"XYZ": 0.5, "Y1 Z2": -2})
    assert b.terms == {"XYZ": 0.5, "IYZ": -2} and pb.Observable("Z0*Z5").num_qubits == 6
    m, n, one = a.matrix(), b.matrix(), np.eye(8)
    for found, expected in (
        (a @ b, m @ n), (a * b * a, m @ n @ m), (a**3, m @ m @ m), (a**0, one),
        (2 + a / 2 - 1, m / 2 + one), (1 - a, one - m), (sum([a, b, a]), 2 * m + n),
        (a @ b - b @ a, m @ n - n @ m), (a * 2j, 2j * m),
    ):  # fmt: skip
        np.testing.assert_allclose(found.matrix(), expected, atol=1e-14)
        assert eval(repr(found), {"Observable": pb.Observable}) == found
    assert (a - a).terms == {} == (b @ a - b @ a).terms
    for other in (pb.Observable({}, 2), pb.Observable({"": 2j}), pb.Observable("X")):
        assert eval(repr(other), {"Observable": pb.Observable}) == other
    state = pb.StateVector(3).set_amplitudes(dense.random_state(rng, 3))
    np.testing.assert_allclose(a.apply(state), m @ state.to_array(), atol=1e-14)
    np.testing.assert_allclose(b.apply(np.arange(8)), n @ np.arange(8), atol=1e-14)
    twice = 2 * state.expectation("ZII")
    assert state.expectation({"ZII": 2}) == state.expectation("2*Z0") == twice
    sparse = pytest.importorskip("scipy.sparse")
    assert sparse.issparse(a.to_sparse_matrix())
    np.testing.assert_allclose(a.to_sparse_matrix().toarray(), m, atol=1e-14)
