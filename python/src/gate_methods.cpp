// The gate methods of circuits and states: the class that both derive from. A circuit records a
// gate in its open gate list; a state applies it at once, a density matrix on both sides.
#include <nanobind/nanobind.h>
#include <nanobind/stl/unique_ptr.h>

#include <array>
#include <bit>

#include "circuits/plan.hpp"
#include "circuits/run_alone.hpp"
#include "gate_lists.hpp"
#include "parts.hpp"

namespace pblinalg::python {
namespace {

/// Applies one gate: the operations that the gate comes to in a circuit, so that the bits are the
/// same.
template <class T>
void apply_gate(BoundState<T>& state, const GateView& gate) {
    // The members do these in one pass over the amplitudes, or with less ado around it.
    const std::uint64_t controls = gate.controls.mask;
    const auto& q = gate.targets;
    if (gate.kind == GateKind::X && std::has_single_bit(controls) &&
        controls == gate.controls.values)
        return state.apply_CNOT(static_cast<unsigned int>(std::countr_zero(controls)), q[0]);
    if (controls == 0) {
        if (gate.kind == GateKind::T) return state.apply_T(q[0]);
        if (gate.kind == GateKind::SWAP) return state.apply_SWAP(q[0], q[1]);
        if (gate.kind == GateKind::ISWAP) return state.apply_ISWAP(q[0], q[1]);
        if (gate.kind == GateKind::SQRTSWAP) return state.apply_SQRTSWAP(q[0], q[1]);
    }
    cpu::Program<T>& program = state.gate;
    program.clear();
    program.nqubits = state.nqubits;
    cpu::lower(gate, program);
    const int workers = cpu::plan_workers<T>(state.nqubits, state.num_threads);
    for (const cpu::Operation& operation : program.operations) {
        cpu::run_alone(state.state.get(), state.nqubits, program, operation, program.factors.data(),
                       workers);
    }
    // Large matrices are not kept.
    if (has_values(gate.kind)) program = {};
}

/// Where the gates of a circuit or a state go.
class GateMethods {
  public:
    void record_into(nb::list steps, unsigned int nqubits) {
        steps_ = steps;
        nqubits_ = nqubits;
        if (!names_) names_ = std::make_shared<ParameterNames>();
    }
    void apply_to(nb::object state, bool both_sides) {
        state_ = state;
        both_sides_ = both_sides;
        double_state_ = nb::isinstance<BoundState<double>>(state)
                            ? nb::inst_ptr<BoundState<double>>(state)
                            : nullptr;
        float_state_ = double_state_ ? nullptr : nb::cast<BoundState<float>*>(state);
    }

    unsigned int nqubits() const {
        if (steps_.is_valid()) return nqubits_;
        const unsigned int all = double_state_  ? double_state_->nqubits
                                 : float_state_ ? float_state_->nqubits
                                                : 0;
        return both_sides_ ? all / 2 : all;
    }
    /// An angle that the object takes: a state takes numbers only.
    AngleArgument angle(nb::handle value, const char* name) const {
        const AngleArgument angle = angle_argument(value, name, float_state_);
        if (angle.parameter && !steps_.is_valid()) {
            raise(
                PyExc_TypeError,
                "%s: parameter '%s' has no value; a state takes numbers, parameters belong into a "
                "circuit",
                name, angle.parameter->c_str());
        }
        return angle;
    }
    ParameterNames& names() {
        if (!names_) raise(PyExc_TypeError, "the object records no gates");
        return *names_;
    }

    /// Takes a gate of the table whose arguments were checked.
    void take(GateKind kind, QubitList targets, std::span<const AngleArgument> angles,
              Controls controls) {
        if (steps_.is_valid()) {
            open_list().add(kind, targets, angles, controls);
            return;
        }
        Angle numbers[3];
        for (std::size_t i = 0; i < angles.size(); ++i)
            numbers[i] = angles[i].angle;
        apply({kind, controls, targets, {numbers, angles.size()}, {}, {}});
    }
    void take(const GateView& gate) {
        if (steps_.is_valid()) {
            open_list().gates.append(gate);
        } else {
            apply(gate);
        }
    }

    /// The list that ends the open steps; a new one unless they end with one.
    BoundGateList& open_list() {
        PyObject* const steps = steps_.ptr();
        const Py_ssize_t size = PyList_GET_SIZE(steps);
        PyObject* const last = size == 0 ? nullptr : PyList_GET_ITEM(steps, size - 1);
        if (!last || last != last_.ptr()) {
            if (last && nb::isinstance<BoundGateList>(last)) {
                last_ = nb::borrow(last);
            } else {
                last_ = nb::cast(std::make_unique<BoundGateList>(nqubits_, names_));
                steps_.append(last_);
            }
            list_ = nb::inst_ptr<BoundGateList>(last_);
        }
        list_->require_unused();
        return *list_;
    }

  private:
    void apply(const GateView& gate) {
        if (double_state_) return apply(*double_state_, gate);
        if (float_state_) return apply(*float_state_, gate);
        raise(PyExc_TypeError, "the object takes no gates");
    }
    template <class T>
    void apply(BoundState<T>& state, const GateView& gate) {
        const Use use(state);
        state.require_amplitudes();
        if (!both_sides_) return state.run([&] { apply_gate(state, gate); });
        const GateList both = on_both_sides(GateList().append(gate), state.nqubits / 2);
        state.run([&] {
            for (const GateView side : both)
                apply_gate(state, side);
        });
    }

    // A circuit: its open steps, and the gate list at their end.
    nb::list steps_ = nb::steal<nb::list>(nb::handle());
    nb::object last_;
    BoundGateList* list_ = nullptr;
    unsigned int nqubits_ = 0;
    std::shared_ptr<ParameterNames> names_;
    // A state.
    nb::object state_;
    BoundState<float>* float_state_ = nullptr;
    BoundState<double>* double_state_ = nullptr;
    bool both_sides_ = false;
};

using Self = nb::pointer_and_handle<GateMethods>;

/// A gate without a control of its own: its angles, its qubits, and optional controls.
template <GateKind kind>
nb::object take_one(Self self, nb::handle qubit, nb::handle controls, nb::handle ctrl_state) {
    QubitArguments qubits(self.p->nqubits());
    const unsigned int target = qubits.one(qubit, "qubit");
    self.p->take(kind, target, {}, controls_argument(qubits, controls, ctrl_state));
    return nb::borrow(self.h);
}
template <GateKind kind>
nb::object take_turn(Self self, nb::handle theta, nb::handle qubit, nb::handle controls,
                     nb::handle ctrl_state) {
    QubitArguments qubits(self.p->nqubits());
    const unsigned int target = qubits.one(qubit, "qubit");
    const AngleArgument angle = self.p->angle(theta, "theta");
    self.p->take(kind, target, {&angle, 1}, controls_argument(qubits, controls, ctrl_state));
    return nb::borrow(self.h);
}
template <GateKind kind>
nb::object take_pair(Self self, nb::handle qubit1, nb::handle qubit2, nb::handle controls,
                     nb::handle ctrl_state) {
    QubitArguments qubits(self.p->nqubits());
    const unsigned int a = qubits.one(qubit1, "qubit1");
    const unsigned int b = qubits.one(qubit2, "qubit2");
    self.p->take(kind, {a, b}, {}, controls_argument(qubits, controls, ctrl_state));
    return nb::borrow(self.h);
}
template <GateKind kind>
nb::object take_pair_turn(Self self, nb::handle theta, nb::handle qubit1, nb::handle qubit2,
                          nb::handle controls, nb::handle ctrl_state) {
    QubitArguments qubits(self.p->nqubits());
    const unsigned int a = qubits.one(qubit1, "qubit1");
    const unsigned int b = qubits.one(qubit2, "qubit2");
    const AngleArgument angle = self.p->angle(theta, "theta");
    self.p->take(kind, {a, b}, {&angle, 1}, controls_argument(qubits, controls, ctrl_state));
    return nb::borrow(self.h);
}

/// A gate under one control.
template <GateKind kind>
nb::object take_controlled(Self self, nb::handle control, nb::handle target,
                           nb::handle ctrl_state) {
    QubitArguments qubits(self.p->nqubits());
    const unsigned int c = qubits.one(control, "control");
    const unsigned int t = qubits.one(target, "target");
    self.p->take(kind, t, {}, controls_of({&c, 1}, ctrl_state));
    return nb::borrow(self.h);
}
template <GateKind kind>
nb::object take_controlled_turn(Self self, nb::handle theta, nb::handle control, nb::handle target,
                                nb::handle ctrl_state) {
    QubitArguments qubits(self.p->nqubits());
    const unsigned int c = qubits.one(control, "control");
    const unsigned int t = qubits.one(target, "target");
    const AngleArgument angle = self.p->angle(theta, "theta");
    self.p->take(kind, t, {&angle, 1}, controls_of({&c, 1}, ctrl_state));
    return nb::borrow(self.h);
}

/// A gate under any number of controls, which come first.
template <GateKind kind>
nb::object take_many(Self self, nb::handle controls, nb::handle target, nb::handle ctrl_state) {
    QubitArguments qubits(self.p->nqubits());
    const auto listed = qubits.list(controls, "controls");
    const unsigned int t = qubits.one(target, "target");
    self.p->take(kind, t, {}, controls_of(listed, ctrl_state));
    return nb::borrow(self.h);
}

std::array<AngleArgument, 3> u_angles(const GateMethods& self, nb::handle theta, nb::handle phi,
                                      nb::handle lam) {
    return {self.angle(theta, "theta"), self.angle(phi, "phi"), self.angle(lam, "lam")};
}

#define PBLINALG_Q ": typing.SupportsIndex, "
#define PBLINALG_ANGLE ": float | Parameter, "
#define PBLINALG_STATE \
    "ctrl_state: typing.SupportsIndex | str | None = None) -> typing_extensions.Self"
#define PBLINALG_SEVERAL                                \
    "collections.abc.Sequence[typing.SupportsIndex] | " \
    "numpy.typing.NDArray[numpy.integer[typing.Any]]"
#define PBLINALG_CONTROLS "controls: " PBLINALG_SEVERAL " | None = None, " PBLINALG_STATE
#define PBLINALG_ONE "qubit" PBLINALG_Q PBLINALG_CONTROLS
#define PBLINALG_TWO "qubit1" PBLINALG_Q "qubit2" PBLINALG_Q PBLINALG_CONTROLS
#define PBLINALG_CONTROLLED "control" PBLINALG_Q "target" PBLINALG_Q PBLINALG_STATE
#define PBLINALG_MANY "controls: " PBLINALG_SEVERAL ", target" PBLINALG_Q PBLINALG_STATE

void bind_one_qubit_gates(nb::class_<GateMethods>& cls) {
    using enum GateKind;
    const nb::arg qubit = nb::arg("qubit").none();
    const nb::arg theta = nb::arg("theta").none();
    const nb::arg_v controls = nb::arg("controls") = nb::none();
    const nb::arg_v state = nb::arg("ctrl_state") = nb::none();
    cls.def("h", take_one<H>, qubit, controls, state, nb::sig("def h(self, " PBLINALG_ONE),
            "Hadamard: [[1, 1], [1, -1]] / sqrt(2).")
        .def("x", take_one<X>, qubit, controls, state, nb::sig("def x(self, " PBLINALG_ONE),
             "Pauli X: exchanges |0> and |1>.")
        .def("y", take_one<Y>, qubit, controls, state, nb::sig("def y(self, " PBLINALG_ONE),
             "Pauli Y: [[0, -i], [i, 0]].")
        .def("z", take_one<Z>, qubit, controls, state, nb::sig("def z(self, " PBLINALG_ONE),
             "Pauli Z: diag(1, -1).")
        .def("s", take_one<S>, qubit, controls, state, nb::sig("def s(self, " PBLINALG_ONE),
             "diag(1, i).")
        .def("sdg", take_one<Sdg>, qubit, controls, state, nb::sig("def sdg(self, " PBLINALG_ONE),
             "diag(1, -i), the inverse of S.")
        .def("t", take_one<T>, qubit, controls, state, nb::sig("def t(self, " PBLINALG_ONE),
             "diag(1, e^(i pi/4)).")
        .def("tdg", take_one<Tdg>, qubit, controls, state, nb::sig("def tdg(self, " PBLINALG_ONE),
             "diag(1, e^(-i pi/4)), the inverse of T.")
        .def("sx", take_one<SX>, qubit, controls, state, nb::sig("def sx(self, " PBLINALG_ONE),
             "The square root of X: [[1+i, 1-i], [1-i, 1+i]] / 2.")
        .def("sxdg", take_one<SXdg>, qubit, controls, state,
             nb::sig("def sxdg(self, " PBLINALG_ONE), "The inverse of the square root of X.")
        .def("p", take_turn<PH>, theta, qubit, controls, state,
             nb::sig("def p(self, theta" PBLINALG_ANGLE PBLINALG_ONE),
             "Phase: diag(1, e^(i theta)).")
        .def("rx", take_turn<RX>, theta, qubit, controls, state,
             nb::sig("def rx(self, theta" PBLINALG_ANGLE PBLINALG_ONE), "exp(-i theta X / 2).")
        .def("ry", take_turn<RY>, theta, qubit, controls, state,
             nb::sig("def ry(self, theta" PBLINALG_ANGLE PBLINALG_ONE), "exp(-i theta Y / 2).")
        .def("rz", take_turn<RZ>, theta, qubit, controls, state,
             nb::sig("def rz(self, theta" PBLINALG_ANGLE PBLINALG_ONE), "exp(-i theta Z / 2).")
        .def(
            "u",
            [](Self self, nb::handle theta, nb::handle phi, nb::handle lam, nb::handle qubit,
               nb::handle controls, nb::handle ctrl_state) {
                QubitArguments qubits(self.p->nqubits());
                const unsigned int target = qubits.one(qubit, "qubit");
                const auto angles = u_angles(*self.p, theta, phi, lam);
                self.p->take(U, target, angles, controls_argument(qubits, controls, ctrl_state));
                return nb::borrow(self.h);
            },
            theta, nb::arg("phi").none(), nb::arg("lam").none(), qubit, controls, state,
            nb::sig("def u(self, theta" PBLINALG_ANGLE "phi" PBLINALG_ANGLE
                    "lam" PBLINALG_ANGLE PBLINALG_ONE),
            "Any one-qubit gate: [[cos(theta/2), -e^(i lam) sin(theta/2)],\n"
            "[e^(i phi) sin(theta/2), e^(i (phi + lam)) cos(theta/2)]].")
        .def(
            "id",
            [](Self self, nb::handle qubit) {
                QubitArguments(self.p->nqubits()).one(qubit, "qubit");
                return nb::borrow(self.h);
            },
            qubit, nb::sig("def id(self, qubit: typing.SupportsIndex) -> typing_extensions.Self"),
            "Nothing: no gate is appended.")
        .def(
            "global_phase",
            [](Self self, nb::handle theta, nb::handle controls, nb::handle ctrl_state) {
                QubitArguments qubits(self.p->nqubits());
                const AngleArgument angle = self.p->angle(theta, "theta");
                self.p->take(GPHASE, std::span<const unsigned int>(), {&angle, 1},
                             controls_argument(qubits, controls, ctrl_state));
                return nb::borrow(self.h);
            },
            theta, controls, state,
            nb::sig("def global_phase(self, theta" PBLINALG_ANGLE PBLINALG_CONTROLS),
            "Multiplies everything by e^(i theta).");
}

void bind_controlled_gates(nb::class_<GateMethods>& cls) {
    using enum GateKind;
    const nb::arg control = nb::arg("control").none();
    const nb::arg target = nb::arg("target").none();
    const nb::arg theta = nb::arg("theta").none();
    const nb::arg many = nb::arg("controls").none();
    const nb::arg_v state = nb::arg("ctrl_state") = nb::none();
    cls.def("cx", take_controlled<X>, control, target, state,
            nb::sig("def cx(self, " PBLINALG_CONTROLLED), "Controlled X (CNOT).")
        .def("cy", take_controlled<Y>, control, target, state,
             nb::sig("def cy(self, " PBLINALG_CONTROLLED), "Controlled Y.")
        .def("cz", take_controlled<Z>, control, target, state,
             nb::sig("def cz(self, " PBLINALG_CONTROLLED),
             "Controlled Z; the two qubits play the same part.")
        .def("ch", take_controlled<H>, control, target, state,
             nb::sig("def ch(self, " PBLINALG_CONTROLLED), "Controlled Hadamard.")
        .def("csx", take_controlled<SX>, control, target, state,
             nb::sig("def csx(self, " PBLINALG_CONTROLLED), "Controlled square root of X.")
        .def("cp", take_controlled_turn<PH>, theta, control, target, state,
             nb::sig("def cp(self, theta" PBLINALG_ANGLE PBLINALG_CONTROLLED),
             "Controlled phase: e^(i theta) where both qubits are 1.")
        .def("crx", take_controlled_turn<RX>, theta, control, target, state,
             nb::sig("def crx(self, theta" PBLINALG_ANGLE PBLINALG_CONTROLLED),
             "Controlled exp(-i theta X / 2).")
        .def("cry", take_controlled_turn<RY>, theta, control, target, state,
             nb::sig("def cry(self, theta" PBLINALG_ANGLE PBLINALG_CONTROLLED),
             "Controlled exp(-i theta Y / 2).")
        .def("crz", take_controlled_turn<RZ>, theta, control, target, state,
             nb::sig("def crz(self, theta" PBLINALG_ANGLE PBLINALG_CONTROLLED),
             "Controlled exp(-i theta Z / 2).")
        .def(
            "cu",
            [](Self self, nb::handle theta, nb::handle phi, nb::handle lam, nb::handle gamma,
               nb::handle control, nb::handle target, nb::handle ctrl_state) {
                QubitArguments qubits(self.p->nqubits());
                const unsigned int c = qubits.one(control, "control");
                const unsigned int t = qubits.one(target, "target");
                const auto angles = u_angles(*self.p, theta, phi, lam);
                const AngleArgument phase = self.p->angle(gamma, "gamma");
                const Controls controls = controls_of({&c, 1}, ctrl_state);
                self.p->take(U, t, angles, controls);
                self.p->take(GPHASE, std::span<const unsigned int>(), {&phase, 1}, controls);
                return nb::borrow(self.h);
            },
            theta, nb::arg("phi").none(), nb::arg("lam").none(), nb::arg("gamma").none(), control,
            target, state,
            nb::sig("def cu(self, theta" PBLINALG_ANGLE "phi" PBLINALG_ANGLE "lam" PBLINALG_ANGLE
                    "gamma" PBLINALG_ANGLE PBLINALG_CONTROLLED),
            "Controlled e^(i gamma) u(theta, phi, lam): two gates, the second one the phase.")
        .def(
            "ccx",
            [](Self self, nb::handle control1, nb::handle control2, nb::handle target,
               nb::handle ctrl_state) {
                QubitArguments qubits(self.p->nqubits());
                const unsigned int first = qubits.one(control1, "control1");
                const unsigned int controls[] = {first, qubits.one(control2, "control2")};
                const unsigned int t = qubits.one(target, "target");
                self.p->take(X, t, {}, controls_of(controls, ctrl_state));
                return nb::borrow(self.h);
            },
            nb::arg("control1").none(), nb::arg("control2").none(), target, state,
            nb::sig("def ccx(self, control1" PBLINALG_Q "control2" PBLINALG_Q
                    "target" PBLINALG_Q PBLINALG_STATE),
            "Doubly controlled X (Toffoli).")
        .def("mcx", take_many<X>, many, target, state, nb::sig("def mcx(self, " PBLINALG_MANY),
             "X under any number of controls.")
        .def("mcz", take_many<Z>, many, target, state, nb::sig("def mcz(self, " PBLINALG_MANY),
             "Z under any number of controls.")
        .def(
            "mcp",
            [](Self self, nb::handle theta, nb::handle controls, nb::handle target,
               nb::handle ctrl_state) {
                QubitArguments qubits(self.p->nqubits());
                const auto listed = qubits.list(controls, "controls");
                const unsigned int t = qubits.one(target, "target");
                const AngleArgument angle = self.p->angle(theta, "theta");
                self.p->take(PH, t, {&angle, 1}, controls_of(listed, ctrl_state));
                return nb::borrow(self.h);
            },
            theta, many, target, state, nb::sig("def mcp(self, theta" PBLINALG_ANGLE PBLINALG_MANY),
            "Phase under any number of controls.");
}

void bind_two_qubit_gates(nb::class_<GateMethods>& cls) {
    using enum GateKind;
    const nb::arg first = nb::arg("qubit1").none();
    const nb::arg second = nb::arg("qubit2").none();
    const nb::arg theta = nb::arg("theta").none();
    const nb::arg_v controls = nb::arg("controls") = nb::none();
    const nb::arg_v state = nb::arg("ctrl_state") = nb::none();
    cls.def("swap", take_pair<SWAP>, first, second, controls, state,
            nb::sig("def swap(self, " PBLINALG_TWO), "Exchanges two qubits.")
        .def("sqrt_swap", take_pair<SQRTSWAP>, first, second, controls, state,
             nb::sig("def sqrt_swap(self, " PBLINALG_TWO), "The square root of SWAP.")
        .def("iswap", take_pair<ISWAP>, first, second, controls, state,
             nb::sig("def iswap(self, " PBLINALG_TWO),
             "Swaps and multiplies the swapped amplitudes by i.")
        .def("rxx", take_pair_turn<RXX>, theta, first, second, controls, state,
             nb::sig("def rxx(self, theta" PBLINALG_ANGLE PBLINALG_TWO), "exp(-i theta XX / 2).")
        .def("ryy", take_pair_turn<RYY>, theta, first, second, controls, state,
             nb::sig("def ryy(self, theta" PBLINALG_ANGLE PBLINALG_TWO), "exp(-i theta YY / 2).")
        .def("rzz", take_pair_turn<RZZ>, theta, first, second, controls, state,
             nb::sig("def rzz(self, theta" PBLINALG_ANGLE PBLINALG_TWO), "exp(-i theta ZZ / 2).")
        .def("rzx", take_pair_turn<RZX>, theta, first, second, controls, state,
             nb::sig("def rzx(self, theta" PBLINALG_ANGLE PBLINALG_TWO),
             "exp(-i theta ZX / 2), Z on the first qubit.")
        .def(
            "cswap",
            [](Self self, nb::handle control, nb::handle qubit1, nb::handle qubit2,
               nb::handle ctrl_state) {
                QubitArguments qubits(self.p->nqubits());
                const unsigned int c = qubits.one(control, "control");
                const unsigned int a = qubits.one(qubit1, "qubit1");
                const unsigned int b = qubits.one(qubit2, "qubit2");
                self.p->take(SWAP, {a, b}, {}, controls_of({&c, 1}, ctrl_state));
                return nb::borrow(self.h);
            },
            nb::arg("control").none(), first, second, state,
            nb::sig("def cswap(self, control" PBLINALG_Q "qubit1" PBLINALG_Q
                    "qubit2" PBLINALG_Q PBLINALG_STATE),
            "Exchanges two qubits where the control is 1 (Fredkin).");
}

/// What the upper level's own methods stand on.
void bind_functions(nb::module_& module) {
    module.def(
        "record_into",
        [](GateMethods& self, nb::list steps, unsigned int nqubits) {
            self.record_into(steps, nqubits);
        },
        nb::arg("circuit"), nb::arg("steps"), nb::arg("nqubits"),
        nb::sig("def record_into(circuit: GateMethods, steps: list[typing.Any], nqubits: int) -> "
                "None"),
        "Has the gates of `circuit` recorded at the end of `steps`, in a gate list.");
    module.def(
        "apply_to",
        [](GateMethods& self, nb::object state, bool both_sides) {
            self.apply_to(state, both_sides);
        },
        nb::arg("owner"), nb::arg("state"), nb::arg("both_sides"),
        nb::sig("def apply_to(owner: GateMethods, state: PybindLinAlgStateVectorCPUFloat | "
                "PybindLinAlgStateVectorCPUDouble, both_sides: bool) -> None"),
        "Has the gates of `owner` applied to `state`, `both_sides` when that is a density matrix.");
    module.def(
        "parameters_of",
        [](GateMethods& self) {
            nb::list result;
            for (const std::string& name : self.names().list())
                result.append(nb::cast(Parameter{name}));
            return nb::tuple(result);
        },
        nb::arg("circuit"),
        nb::sig("def parameters_of(circuit: GateMethods) -> tuple[Parameter, ...]"),
        "The parameters of a circuit in order of first use.");
    module.def(
        "parameter_count", [](GateMethods& self) { return self.names().list().size(); },
        nb::arg("circuit"), nb::sig("def parameter_count(circuit: GateMethods) -> int"),
        "The number of parameters of a circuit.");
    module.def(
        "add_parameter",
        [](GateMethods& self, const Parameter& parameter) {
            self.names().number_of(parameter.name);
        },
        nb::arg("circuit"), nb::arg("parameter"),
        nb::sig("def add_parameter(circuit: GateMethods, parameter: Parameter) -> None"),
        "Numbers a parameter before a gate uses it.");
    module.def(
        "take_gates",
        [](GateMethods& self, BoundGateList& gates) {
            if (gates.nqubits > self.nqubits()) {
                raise(PyExc_ValueError, "gates.nqubits = %u: expected at most %u", gates.nqubits,
                      self.nqubits());
            }
            self.names();
            self.open_list().extend(gates);
        },
        nb::arg("circuit"), nb::arg("gates"), "Appends the gates of a list to a circuit.");
    module.def(
        "take_matrix",
        [](GateMethods& self, nb::handle matrix, nb::handle qubits, nb::handle controls,
           nb::handle ctrl_state) {
            QubitArguments arguments(self.nqubits());
            const Controls held = controls_argument(arguments, controls, ctrl_state);
            const auto targets = arguments.list(qubits, "qubits");
            const auto entries =
                matrix_argument<std::complex<double>>(matrix, targets.size(), "matrix");
            self.take({GateKind::matrix, held, targets, {}, entries, {}});
        },
        nb::arg("target"), nb::arg("matrix"), nb::arg("qubits"), nb::arg("controls").none(),
        nb::arg("ctrl_state").none(),
        nb::sig("def take_matrix(target: GateMethods, matrix: numpy.typing.ArrayLike, qubits: "
                "typing.Any, controls: typing.Any, ctrl_state: typing.Any) -> None"),
        "Takes a matrix of 2^k rows, the first of the qubits most significant.");
    module.def(
        "take_diagonal",
        [](GateMethods& self, nb::handle values, nb::handle qubits, nb::handle controls,
           nb::handle ctrl_state) {
            QubitArguments arguments(self.nqubits());
            const Controls held = controls_argument(arguments, controls, ctrl_state);
            const auto targets = arguments.list(qubits, "qubits");
            const InputArray<std::complex<double>> entries(values, "values");
            entries.require_count(std::size_t{1} << targets.size(), "2^k for k qubits");
            self.take(
                {GateKind::diagonal, held, targets, {}, {entries.data(), entries.count()}, {}});
        },
        nb::arg("target"), nb::arg("values"), nb::arg("qubits"), nb::arg("controls").none(),
        nb::arg("ctrl_state").none(),
        nb::sig("def take_diagonal(target: GateMethods, values: numpy.typing.ArrayLike, qubits: "
                "typing.Any, controls: typing.Any, ctrl_state: typing.Any) -> None"),
        "Takes a diagonal matrix of 2^k entries, the first of the qubits most significant.");
    module.def(
        "take_phase_oracle",
        [](GateMethods& self, nb::handle marked, nb::handle qubits, nb::handle controls,
           nb::handle ctrl_state) {
            QubitArguments arguments(self.nqubits());
            const Controls held = controls_argument(arguments, controls, ctrl_state);
            const auto targets = arguments.list(qubits, "qubits");
            const auto wide = unsigned_list(marked, "marked", (1ull << targets.size()) - 1);
            const std::vector<std::uint64_t> values(wide.begin(), wide.end());
            self.take({GateKind::phase_oracle, held, targets, {}, {}, values});
        },
        nb::arg("target"), nb::arg("marked"), nb::arg("qubits"), nb::arg("controls").none(),
        nb::arg("ctrl_state").none(),
        nb::sig("def take_phase_oracle(target: GateMethods, marked: "
                "collections.abc.Sequence[typing.SupportsIndex], qubits: typing.Any, controls: "
                "typing.Any, ctrl_state: typing.Any) -> None"),
        "Takes the negation of the amplitudes whose value on the qubits is marked.");
}

}  // namespace

void bind_gate_methods(nb::module_& module) {
    nb::class_<GateMethods> cls(module, "GateMethods", "The gates that have a name.");
    cls.def(nb::init<>());
    bind_one_qubit_gates(cls);
    bind_controlled_gates(cls);
    bind_two_qubit_gates(cls);
    bind_functions(module);
}

}  // namespace pblinalg::python
