// The gate members of the state vectors. Arguments are checked here and nowhere further down.
#pragma once

#include <nanobind/nanobind.h>

#include <stdexcept>
#include <utility>

#include "arguments.hpp"
#include "bound_state.hpp"

namespace pblinalg::python {

namespace gate_signatures {

#define PBLINALG_CONTROLS "controls: collections.abc.Sequence[int] | None = None) -> None"
#define PBLINALG_MATRIX "matrix: numpy.typing.ArrayLike) -> None"
#define PBLINALG_LIST "collections.abc.Sequence[int]"

inline constexpr const char* h = "def apply_H(self, qubit: int, " PBLINALG_CONTROLS;
inline constexpr const char* x = "def apply_X(self, qubit: int, " PBLINALG_CONTROLS;
inline constexpr const char* y = "def apply_Y(self, qubit: int, " PBLINALG_CONTROLS;
inline constexpr const char* z = "def apply_Z(self, qubit: int, " PBLINALG_CONTROLS;
inline constexpr const char* s = "def apply_S(self, qubit: int, " PBLINALG_CONTROLS;
inline constexpr const char* t = "def apply_T(self, qubit: int, " PBLINALG_CONTROLS;
inline constexpr const char* ph = "def apply_PH(self, qubit: int, theta: float, " PBLINALG_CONTROLS;
inline constexpr const char* rx = "def apply_RX(self, qubit: int, theta: float, " PBLINALG_CONTROLS;
inline constexpr const char* ry = "def apply_RY(self, qubit: int, theta: float, " PBLINALG_CONTROLS;
inline constexpr const char* rz = "def apply_RZ(self, qubit: int, theta: float, " PBLINALG_CONTROLS;
inline constexpr const char* y_to_z = "def apply_YtoZ(self, qubit: int, " PBLINALG_CONTROLS;
inline constexpr const char* z_to_y = "def apply_ZtoY(self, qubit: int, " PBLINALG_CONTROLS;
inline constexpr const char* one = "def apply_1qbit_gate(self, qubit: int, " PBLINALG_MATRIX;
inline constexpr const char* two =
    "def apply_2qbit_gate(self, qubit1: int, qubit2: int, " PBLINALG_MATRIX;
inline constexpr const char* many =
    "def apply_nqbit_gate(self, qubits: " PBLINALG_LIST ", " PBLINALG_MATRIX;
inline constexpr const char* one_ctrl =
    "def apply_1qbit_ctrl_gate(self, controls: " PBLINALG_LIST ", target: int, " PBLINALG_MATRIX;
inline constexpr const char* two_ctrl = "def apply_2qbit_ctrl_gate(self, controls: " PBLINALG_LIST
                                        ", qubit1: int, qubit2: int, " PBLINALG_MATRIX;
inline constexpr const char* many_ctrl = "def apply_nqbit_ctrl_gate(self, controls: " PBLINALG_LIST
                                         ", qubits: " PBLINALG_LIST ", " PBLINALG_MATRIX;
inline constexpr const char* phase_oracle =
    "def apply_phase_oracle(self, marked: " PBLINALG_LIST ", qubits: " PBLINALG_LIST ") -> None";

#undef PBLINALG_CONTROLS
#undef PBLINALG_MATRIX
#undef PBLINALG_LIST

}  // namespace gate_signatures

/// A one-qubit gate under optional controls.
template <auto member, class Target>
void bind_one_qubit(nb::class_<Target>& target, const char* name, const char* signature,
                    const char* doc) {
    target.def(
        name,
        [](Target& self, nb::handle qubit, nb::handle ctrls) {
            const Use use(self);
            QubitArguments qubits(self.qubit_limit());
            const unsigned int q = qubits.one(qubit, "qubit");
            typename Target::OptionalQubits controls;
            if (!ctrls.is_none()) controls = qubits.list(ctrls, "controls");
            self.run([&] { (self.*member)(q, std::move(controls)); });
        },
        nb::arg("qubit").none(), nb::arg("controls") = nb::none(), nb::sig(signature), doc);
}

/// A one-qubit rotation or phase under optional controls.
template <auto member, class Target>
void bind_rotation(nb::class_<Target>& target, const char* name, const char* signature,
                   const char* doc) {
    target.def(
        name,
        [](Target& self, nb::handle qubit, nb::handle theta, nb::handle ctrls) {
            const Use use(self);
            QubitArguments qubits(self.qubit_limit());
            const unsigned int q = qubits.one(qubit, "qubit");
            const auto angle = finite_argument<typename Target::Real>(theta, "theta");
            typename Target::OptionalQubits controls;
            if (!ctrls.is_none()) controls = qubits.list(ctrls, "controls");
            self.run([&] { (self.*member)(q, angle, std::move(controls)); });
        },
        nb::arg("qubit").none(), nb::arg("theta").none(), nb::arg("controls") = nb::none(),
        nb::sig(signature), doc);
}

template <class Target>
void bind_gates(nb::class_<Target>& target) {
    namespace sig = gate_signatures;
    using Complex = std::complex<typename Target::Real>;

    bind_one_qubit<&Target::apply_H>(target, "apply_H", sig::h,
                                     "Hadamard: [[1, 1], [1, -1]] / sqrt(2).");
    bind_one_qubit<&Target::apply_X>(target, "apply_X", sig::x, "Pauli X: exchanges |0> and |1>.");
    bind_one_qubit<&Target::apply_Y>(target, "apply_Y", sig::y, "Pauli Y: [[0, -i], [i, 0]].");
    bind_one_qubit<&Target::apply_Z>(target, "apply_Z", sig::z, "Pauli Z: diag(1, -1).");
    bind_one_qubit<&Target::apply_S>(target, "apply_S", sig::s, "diag(1, i).");
    bind_one_qubit<&Target::apply_T>(target, "apply_T", sig::t, "diag(1, e^(i pi/4)).");
    bind_rotation<&Target::apply_PH>(target, "apply_PH", sig::ph,
                                     "diag(1, e^(i theta)), theta in radians.");
    bind_rotation<&Target::apply_RX>(target, "apply_RX", sig::rx,
                                     "exp(-i theta X / 2), theta in radians.");
    bind_rotation<&Target::apply_RY>(target, "apply_RY", sig::ry,
                                     "exp(-i theta Y / 2), theta in radians.");
    bind_rotation<&Target::apply_RZ>(target, "apply_RZ", sig::rz,
                                     "exp(-i theta Z / 2), theta in radians.");
    bind_one_qubit<&Target::apply_YtoZ>(
        target, "apply_YtoZ", sig::y_to_z,
        "Maps the Y eigenvectors to the Z eigenvectors: [[1, -i], [1, i]] / sqrt(2).");
    bind_one_qubit<&Target::apply_ZtoY>(target, "apply_ZtoY", sig::z_to_y,
                                        "The inverse of YtoZ: [[1, 1], [i, -i]] / sqrt(2).");

    target.def(
        "apply_CNOT",
        [](Target& self, nb::handle control, nb::handle target) {
            const Use use(self);
            QubitArguments qubits(self.qubit_limit());
            const unsigned int c = qubits.one(control, "control");
            const unsigned int t = qubits.one(target, "target");
            self.run([&] { self.apply_CNOT(c, t); });
        },
        nb::arg("control").none(), nb::arg("target").none(),
        nb::sig("def apply_CNOT(self, control: int, target: int) -> None"),
        "Flips `target` where `control` is 1.");
    target.def(
        "apply_CCNOT",
        [](Target& self, nb::handle control1, nb::handle control2, nb::handle target) {
            const Use use(self);
            QubitArguments qubits(self.qubit_limit());
            const unsigned int c1 = qubits.one(control1, "control1");
            const unsigned int c2 = qubits.one(control2, "control2");
            const unsigned int t = qubits.one(target, "target");
            self.run([&] { self.apply_CCNOT(c1, c2, t); });
        },
        nb::arg("control1").none(), nb::arg("control2").none(), nb::arg("target").none(),
        nb::sig("def apply_CCNOT(self, control1: int, control2: int, target: int) -> None"),
        "Flips `target` where both controls are 1.");

#define PBLINALG_BIND_PAIR(NAME, DOC)                        \
    target.def(                                              \
        #NAME,                                               \
        [](Target& self, nb::handle q1, nb::handle q2) {     \
            const Use use(self);                             \
            QubitArguments qubits(self.qubit_limit());       \
            const unsigned int a = qubits.one(q1, "qubit1"); \
            const unsigned int b = qubits.one(q2, "qubit2"); \
            self.run([&] { self.NAME(a, b); });              \
        },                                                   \
        nb::arg("qubit1").none(), nb::arg("qubit2").none(),  \
        nb::sig("def " #NAME "(self, qubit1: int, qubit2: int) -> None"), DOC)
    PBLINALG_BIND_PAIR(apply_CSIGN, "Negates the amplitudes with both bits set.");
    PBLINALG_BIND_PAIR(apply_SWAP, "Exchanges two qubits.");
    PBLINALG_BIND_PAIR(apply_SQRTSWAP, "The square root of SWAP.");
    PBLINALG_BIND_PAIR(apply_ISWAP, "Swaps and multiplies the swapped amplitudes by i.");
#undef PBLINALG_BIND_PAIR

    target.def(
        "apply_1qbit_gate",
        [](Target& self, nb::handle qubit, nb::handle matrix) {
            const Use use(self);
            QubitArguments qubits(self.qubit_limit());
            const unsigned int q = qubits.one(qubit, "qubit");
            const auto entries = matrix_argument<Complex>(matrix, 1, "matrix");
            self.run([&] { self.apply_1qbit_gate(q, entries); });
        },
        nb::arg("qubit").none(), nb::arg("matrix").none(), nb::sig(sig::one),
        "Applies a 2 x 2 matrix, which need not be unitary.");
    target.def(
        "apply_2qbit_gate",
        [](Target& self, nb::handle q1, nb::handle q2, nb::handle matrix) {
            const Use use(self);
            QubitArguments qubits(self.qubit_limit());
            const unsigned int a = qubits.one(q1, "qubit1");
            const unsigned int b = qubits.one(q2, "qubit2");
            const auto entries = matrix_argument<Complex>(matrix, 2, "matrix");
            self.run([&] { self.apply_2qbit_gate(a, b, entries); });
        },
        nb::arg("qubit1").none(), nb::arg("qubit2").none(), nb::arg("matrix").none(),
        nb::sig(sig::two),
        "Applies a 4 x 4 matrix; `qubit1` is the most significant bit of its indices.");
    target.def(
        "apply_nqbit_gate",
        [](Target& self, nb::handle qubits, nb::handle matrix) {
            const Use use(self);
            const auto q = QubitArguments(self.qubit_limit()).list(qubits, "qubits");
            self.require_amplitudes();
            const auto entries = matrix_argument<Complex>(matrix, q.size(), "matrix");
            try {
                self.run([&] { self.apply_nqbit_gate(q, entries); });
            } catch (const std::runtime_error& error) {
                raise(PyExc_ValueError, "matrix: %s", error.what());
            }
        },
        nb::arg("qubits").none(), nb::arg("matrix").none(), nb::sig(sig::many),
        "Applies a 2^k x 2^k matrix; the first listed qubit is the most significant bit of its "
        "indices. A diagonal matrix on 9 or more qubits raises ValueError; see "
        "apply_nqbit_ctrl_gate.");
    target.def(
        "apply_1qbit_ctrl_gate",
        [](Target& self, nb::handle controls, nb::handle target, nb::handle matrix) {
            const Use use(self);
            QubitArguments qubits(self.qubit_limit());
            const auto c = qubits.list(controls, "controls");
            const unsigned int t = qubits.one(target, "target");
            const auto entries = matrix_argument<Complex>(matrix, 1, "matrix");
            self.run([&] { self.apply_1qbit_ctrl_gate(c, t, entries); });
        },
        nb::arg("controls").none(), nb::arg("target").none(), nb::arg("matrix").none(),
        nb::sig(sig::one_ctrl), "Applies a 2 x 2 matrix where all controls are 1.");
    target.def(
        "apply_2qbit_ctrl_gate",
        [](Target& self, nb::handle controls, nb::handle q1, nb::handle q2, nb::handle matrix) {
            const Use use(self);
            QubitArguments qubits(self.qubit_limit());
            const auto c = qubits.list(controls, "controls");
            const unsigned int a = qubits.one(q1, "qubit1");
            const unsigned int b = qubits.one(q2, "qubit2");
            const auto entries = matrix_argument<Complex>(matrix, 2, "matrix");
            self.run([&] { self.apply_2qbit_ctrl_gate(c, a, b, entries); });
        },
        nb::arg("controls").none(), nb::arg("qubit1").none(), nb::arg("qubit2").none(),
        nb::arg("matrix").none(), nb::sig(sig::two_ctrl),
        "Applies a 4 x 4 matrix where all controls are 1.");
    target.def(
        "apply_nqbit_ctrl_gate",
        [](Target& self, nb::handle controls, nb::handle qubits, nb::handle matrix) {
            const Use use(self);
            QubitArguments arguments(self.qubit_limit());
            const auto c = arguments.list(controls, "controls");
            const auto q = arguments.list(qubits, "qubits");
            self.require_amplitudes();
            const auto entries = matrix_argument<Complex>(matrix, q.size(), "matrix");
            self.run([&] { self.apply_nqbit_ctrl_gate(c, q, entries); });
        },
        nb::arg("controls").none(), nb::arg("qubits").none(), nb::arg("matrix").none(),
        nb::sig(sig::many_ctrl),
        "Applies a 2^k x 2^k matrix, of any size when it is diagonal, where all controls are 1.");
    target.def(
        "apply_phase_oracle",
        [](Target& self, nb::handle marked, nb::handle qubits) {
            const Use use(self);
            const auto q = QubitArguments(self.qubit_limit()).list(qubits, "qubits");
            const auto values = unsigned_list(marked, "marked", (1ull << q.size()) - 1);
            self.require_amplitudes();
            self.run([&] { self.apply_phase_oracle(values, q); });
        },
        nb::arg("marked").none(), nb::arg("qubits").none(), nb::sig(sig::phase_oracle),
        "Negates the amplitudes whose value on `qubits` is one of `marked`, the first listed qubit "
        "being the most significant bit. A listed number p stands for qubit n-1-p.");
}

}  // namespace pblinalg::python
