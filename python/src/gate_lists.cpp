// The gate list class and the parameters of circuits.
#include "gate_lists.hpp"

#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/unique_ptr.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <bit>
#include <cmath>

#include "circuits/gate_matrix.hpp"
#include "parts.hpp"
#include "watch.hpp"

namespace pblinalg::python {
namespace {

nb::object array_of(std::span<const std::complex<double>> values, bool square) {
    const nb::module_ numpy = nb::module_::import_("numpy");
    const nb::object array = numpy.attr("empty")(values.size(), "complex128");
    Buffer buffer;
    buffer.acquire(array, Element<std::complex<double>>::formats, alignof(double), true);
    std::ranges::copy(values, static_cast<std::complex<double>*>(buffer.data()));
    const auto rows = static_cast<std::size_t>(std::sqrt(static_cast<double>(values.size())));
    return square ? nb::object(array.attr("reshape")(rows, rows)) : array;
}

template <class List>
nb::list list_of(const List& values) {
    nb::list result;
    for (const auto& value : values)
        result.append(nb::int_(value));
    return result;
}

std::vector<unsigned int> qubits_of(std::uint64_t mask) {
    std::vector<unsigned int> qubits;
    for (; mask != 0; mask &= mask - 1)
        qubits.push_back(static_cast<unsigned int>(std::countr_zero(mask)));
    return qubits;
}

nb::object angle_object(const Angle& angle, const ParameterNames& names) {
    if (angle.is_number()) return nb::float_(angle.offset);
    return nb::cast(Parameter{names.list()[angle.parameter], angle.scale, angle.offset});
}

nb::tuple gate_tuple(const BoundGateList& self, std::size_t i) {
    const GateView gate = self.gates[i];
    const std::vector<unsigned int> controls = qubits_of(gate.controls.mask);
    std::uint64_t state = 0;
    for (const unsigned int qubit : controls)
        state = state << 1 | (gate.controls.values >> qubit & 1);
    nb::list angles;
    for (const Angle& angle : gate.angles)
        angles.append(angle_object(angle, *self.names));
    nb::object values = nb::none();
    if (gate.kind == GateKind::phase_oracle) {
        values = list_of(gate.marked);
    } else if (has_values(gate.kind)) {
        values = array_of(gate.values, gate.kind == GateKind::matrix);
    }
    const std::string_view name = info(gate.kind).name;
    return nb::make_tuple(nb::str(name.data(), name.size()), list_of(gate.targets),
                          list_of(controls), state, nb::tuple(angles), values);
}

GateKind kind_argument(nb::handle name) {
    const std::string text = text_argument(name, "name");
    const std::optional<GateKind> kind = gate_named(text);
    if (!kind) raise(PyExc_ValueError, "name = '%s': expected a gate's name", text.c_str());
    return *kind;
}

void require_count(const GateInfo& row, std::size_t given, std::size_t expected, const char* what) {
    if (given == expected) return;
    raise(PyExc_ValueError, "%s: %zu %s; expected %zu", row.name.data(), given, what, expected);
}

void add_gate(BoundGateList& self, nb::handle name, nb::handle targets, nb::handle controls,
              nb::handle ctrl_state, nb::handle angles, nb::handle values) {
    const GateKind kind = kind_argument(name);
    const GateInfo& row = info(kind);
    QubitArguments qubits(self.nqubits);
    const Controls held = controls_argument(qubits, controls, ctrl_state);
    const std::vector<unsigned int> listed = qubits.list(targets, "targets");
    if (kind == GateKind::matrix) {
        const auto entries = matrix_argument<std::complex<double>>(values, listed.size(), "values");
        self.require_unused();
        self.gates.add_matrix(listed, entries, held);
    } else if (kind == GateKind::diagonal) {
        const InputArray<std::complex<double>> entries(values, "values");
        entries.require_count(std::size_t{1} << listed.size(), "2^k for k targets");
        self.require_unused();
        self.gates.add_diagonal(listed, {entries.data(), entries.count()}, held);
    } else if (kind == GateKind::phase_oracle) {
        const auto wide = unsigned_list(values, "values", (1ull << listed.size()) - 1);
        const std::vector<std::uint64_t> marked(wide.begin(), wide.end());
        self.require_unused();
        self.gates.add_phase_oracle(marked, listed, held);
    } else {
        require_count(row, listed.size(), row.n_targets, "targets");
        const nb::tuple elements = elements_of(angles, "angles");
        require_count(row, elements.size(), row.n_angles, "angles");
        std::vector<AngleArgument> checked;
        for (const nb::handle angle : elements)
            checked.push_back(angle_argument(angle, "angles", false));
        self.require_unused();
        self.add(kind, listed, checked, held);
    }
}

template <class T>
void run_list(BoundGateList& self, BoundState<T>& state, nb::handle values, nb::handle progress,
              bool both_sides, nb::handle accuracy) {
    const Reading reading(self);
    Watch watch(progress);
    const std::vector<double> numbers = values_argument(self, values);
    RunOptions options;
    options.accuracy = accuracy_argument(accuracy);
    const Use use(state);
    state.require_amplitudes();
    const unsigned int expected = both_sides ? 2 * self.nqubits : self.nqubits;
    if (state.nqubits != expected) {
        raise(PyExc_ValueError, "the state has %u qubits; the gates were made for %u",
              state.nqubits, expected);
    }
    // Made while this thread has the lock: another one may copy the list once it runs.
    self.gates.plans();
    RunReport report;
    {
        const std::size_t size = std::max<std::size_t>(1, self.gates.size());
        Unlocked unlocked(state.size >= min_unlocked_size / size);
        options.between_passes = [&](std::size_t done) { return watch.goes_on(done, unlocked); };
        if (both_sides) {
            const GateList both = on_both_sides(self.gates, self.nqubits);
            report = pblinalg::run(state, both, numbers, options);
            if (report.gates_done % 2 != 0) {
                // No gate is left on the rows alone.
                options.between_passes = {};
                pblinalg::run(state, GateList().append(both[report.gates_done]), numbers, options);
                ++report.gates_done;
            }
        } else {
            report = pblinalg::run(state, self.gates, numbers, options);
        }
    }
    state.gates_applied += report.gates_done;
    watch.finish(report.gates_done);
}

/// The list with numbers in place of its parameters.
void bind_values(const GateList& from, std::span<const double> values, GateList& to) {
    to.reserve(from.size());
    for (const GateView gate : from) {
        Angle angles[3];
        GateView bound = gate;
        for (std::size_t i = 0; i < gate.angles.size(); ++i)
            angles[i] = gate.angles[i].value(values);
        bound.angles = {angles, gate.angles.size()};
        to.append(bound);
    }
}

std::unique_ptr<BoundGateList> with_gates(const BoundGateList& self, GateList gates) {
    auto result = std::make_unique<BoundGateList>(self.nqubits, self.names);
    result->gates = std::move(gates);
    return result;
}

void bind_parameter(nb::module_& module) {
    const auto number = [](nb::handle value) {
        return finite_argument<double>(value, "the other operand");
    };
    const auto is_number = [](nb::handle value) {
        return PyFloat_Check(value.ptr()) ||
               (PyIndex_Check(value.ptr()) && !PyBool_Check(value.ptr()));
    };
    const auto combined = [=](nb::handle other, const auto& result) -> nb::object {
        if (!is_number(other)) return nb::borrow(Py_NotImplemented);
        return nb::cast(result(number(other)));
    };
    const auto times = [=](const Parameter& self, nb::handle factor) {
        return combined(factor, [&](double f) {
            return Parameter{self.name, self.scale * f, self.offset * f};
        });
    };
    const auto plus = [=](const Parameter& self, nb::handle term) {
        return combined(term, [&](double t) {
            return Parameter{self.name, self.scale, self.offset + t};
        });
    };
    nb::class_<Parameter>(module, "Parameter",
                          "An angle that is given when a circuit runs.\n\n"
                          "Takes the place of any angle, also times a number or plus a number: "
                          "`circuit.rx(2 * a + 0.5, 0)`\nfor `a = Parameter(\"a\")`. Parameters of "
                          "the same name are the same parameter.")
        .def(
            "__init__",
            [](Parameter* self, nb::handle name, nb::handle scale, nb::handle offset) {
                if (!PyUnicode_Check(name.ptr()) || PyUnicode_GetLength(name.ptr()) == 0)
                    raise(PyExc_TypeError,
                          "name must be a str of one character or more, got %.200R", name.ptr());
                new (self)
                    Parameter{nb::cast<std::string>(name), finite_argument<double>(scale, "scale"),
                              finite_argument<double>(offset, "offset")};
            },
            nb::arg("name"), nb::arg("scale") = 1.0, nb::arg("offset") = 0.0,
            nb::sig("def __init__(self, name: str, scale: float = 1.0, offset: float = 0.0) -> "
                    "None"))
        .def_ro("name", &Parameter::name)
        .def_ro("scale", &Parameter::scale, "What its value is multiplied by.")
        .def_ro("offset", &Parameter::offset, "What is added then.")
        .def("__mul__", times, nb::sig("def __mul__(self, factor: float, /) -> Parameter"))
        .def("__rmul__", times, nb::sig("def __rmul__(self, factor: float, /) -> Parameter"))
        .def(
            "__truediv__",
            [=](const Parameter& self, nb::handle divisor) {
                return combined(divisor, [&](double f) {
                    if (f == 0) raise(PyExc_ZeroDivisionError, "division of a Parameter by 0");
                    return Parameter{self.name, self.scale / f, self.offset / f};
                });
            },
            nb::sig("def __truediv__(self, divisor: float, /) -> Parameter"))
        .def("__add__", plus, nb::sig("def __add__(self, term: float, /) -> Parameter"))
        .def("__radd__", plus, nb::sig("def __radd__(self, term: float, /) -> Parameter"))
        .def(
            "__sub__",
            [=](const Parameter& self, nb::handle term) {
                return combined(term, [&](double t) {
                    return Parameter{self.name, self.scale, self.offset - t};
                });
            },
            nb::sig("def __sub__(self, term: float, /) -> Parameter"))
        .def(
            "__rsub__",
            [=](const Parameter& self, nb::handle term) {
                return combined(term, [&](double t) {
                    return Parameter{self.name, -self.scale, t - self.offset};
                });
            },
            nb::sig("def __rsub__(self, term: float, /) -> Parameter"))
        .def("__neg__",
             [](const Parameter& self) {
                 return Parameter{self.name, -self.scale, -self.offset};
             })
        .def(
            "__eq__",
            [](const Parameter& self, nb::handle other) {
                return nb::isinstance<Parameter>(other) && self == *nb::inst_ptr<Parameter>(other);
            },
            nb::sig("def __eq__(self, other: object, /) -> bool"))
        .def("__hash__", [](const Parameter& self) { return std::hash<std::string>()(self.name); })
        .def(
            "__reduce__",
            [](nb::pointer_and_handle<Parameter> self) {
                return nb::make_tuple(self.h.type(),
                                      nb::make_tuple(self.p->name, self.p->scale, self.p->offset));
            },
            nb::sig("def __reduce__(self) -> tuple[object, ...]"))
        .def("__repr__", [](const Parameter& self) {
            if (self.scale == 1 && self.offset == 0)
                return nb::str("Parameter({!r})").format(self.name);
            return nb::str("Parameter({!r}, {!r}, {!r})")
                .format(self.name, self.scale, self.offset);
        });
}

}  // namespace

std::vector<double> values_argument(const BoundGateList& self, nb::handle values) {
    const std::vector<std::string>& names = self.names->list();
    std::vector<double> result;
    if (!values.is_none()) {
        Buffer array;
        if (array.acquire(values, Element<double>::formats, alignof(double), false)) {
            const auto* const first = static_cast<const double*>(array.data());
            result.assign(first, first + array.count());
        } else {
            for (const nb::handle value : elements_of(values, "values"))
                result.push_back(real_argument<double>(value, "values"));
        }
    }
    if (result.size() < names.size()) {
        raise(PyExc_ValueError, "values: parameter '%s' has no value; expected %zu values, got %zu",
              names[result.size()].c_str(), names.size(), result.size());
    }
    if (result.size() > names.size()) {
        raise(PyExc_ValueError, "values holds %zu elements; expected %zu, one for each parameter",
              result.size(), names.size());
    }
    for (std::size_t i = 0; i < result.size(); ++i) {
        if (!std::isfinite(result[i])) {
            raise(PyExc_ValueError, "values: parameter '%s' must be a finite number, got %R",
                  names[i].c_str(), nb::float_(result[i]).ptr());
        }
    }
    return result;
}

AngleArgument angle_argument(nb::handle value, const char* name, bool single) {
    if (PyFloat_CheckExact(value.ptr()) && !single) {
        const double number = PyFloat_AS_DOUBLE(value.ptr());
        if (std::isfinite(number)) return {number, nullptr};
    }
    if (nb::isinstance<Parameter>(value)) {
        const Parameter& parameter = *nb::inst_ptr<Parameter>(value);
        return {Angle::of_parameter(0, parameter.scale, parameter.offset), &parameter.name};
    }
    const double number = finite_argument<double>(value, name);
    if (single) finite_argument<float>(value, name);
    return {number, nullptr};
}

Controls controls_of(std::span<const unsigned int> controls, nb::handle ctrl_state) {
    const QubitList listed(controls);
    if (ctrl_state.is_none()) return Controls(listed);
    const std::size_t width = controls.size();
    if (!PyUnicode_Check(ctrl_state.ptr())) {
        return Controls(listed, unsigned_argument(ctrl_state, "ctrl_state", (1ull << width) - 1));
    }
    const std::string text = text_argument(ctrl_state, "ctrl_state");
    if (text.size() != width || text.find_first_not_of("01") != std::string::npos) {
        raise(PyExc_ValueError, "ctrl_state = %.200R: expected %zu characters 0 or 1",
              ctrl_state.ptr(), width);
    }
    std::uint64_t values = 0;
    for (const char digit : text)
        values = values << 1 | static_cast<unsigned>(digit == '1');
    return Controls(listed, values);
}

Controls controls_argument(QubitArguments& qubits, nb::handle controls, nb::handle ctrl_state) {
    if (controls.is_none()) {
        if (ctrl_state.is_none()) return {};
        return controls_of({}, ctrl_state);
    }
    return controls_of(qubits.list(controls, "controls"), ctrl_state);
}

void BoundGateList::add(GateKind kind, QubitList targets, std::span<const AngleArgument> angles,
                        Controls controls) {
    Angle numbered[3];
    for (std::size_t i = 0; i < angles.size(); ++i) {
        numbered[i] = angles[i].angle;
        if (angles[i].parameter) numbered[i].parameter = names->number_of(*angles[i].parameter);
    }
    gates.add(kind, targets, {numbered, angles.size()}, controls);
}

void BoundGateList::extend(const BoundGateList& other) {
    if (names == other.names || other.gates.n_parameters() == 0) {
        // A copy comes with the plans that there are.
        if (gates.empty()) {
            gates = other.gates;
        } else {
            gates.append(other.gates);
        }
        return;
    }
    gates.reserve(gates.size() + other.gates.size());
    for (const GateView gate : other.gates) {
        Angle angles[3];
        for (std::size_t i = 0; i < gate.angles.size(); ++i) {
            angles[i] = gate.angles[i];
            if (!angles[i].is_number())
                angles[i].parameter = names->number_of(other.names->list()[angles[i].parameter]);
        }
        GateView renumbered = gate;
        renumbered.angles = {angles, gate.angles.size()};
        gates.append(renumbered);
    }
}

GateList on_both_sides(const GateList& gates, unsigned int m) {
    const GateList columns = gates.conjugate().shifted(m);
    GateList both;
    both.reserve(2 * gates.size());
    for (std::size_t i = 0; i < gates.size(); ++i)
        both.append(gates[i]).append(columns[i]);
    return both;
}

void bind_gate_lists(nb::module_& module) {
    bind_parameter(module);
    nb::list table;
    for (const GateInfo& row : gate_table)
        table.append(nb::make_tuple(nb::str(row.name.data(), row.name.size()), row.n_targets,
                                    row.n_angles, nb::str(row.formula.data(), row.formula.size())));
    module.attr("gate_table") = nb::tuple(table);
    module.def(
        "gate_matrix",
        [](nb::handle name, nb::handle angles) {
            const GateKind kind = kind_argument(name);
            const GateInfo& row = info(kind);
            if (has_values(kind))
                raise(PyExc_ValueError, "%s: its matrix is its values", row.name.data());
            std::vector<double> numbers;
            for (const nb::handle angle : elements_of(angles, "angles"))
                numbers.push_back(finite_argument<double>(angle, "angles"));
            require_count(row, numbers.size(), row.n_angles, "angles");
            return array_of(gate_matrix(kind, numbers), true);
        },
        nb::arg("name"), nb::arg("angles") = nb::tuple(),
        nb::sig("def gate_matrix(name: str, angles: collections.abc.Sequence[float] = ()) -> "
                "numpy.typing.NDArray[numpy.complex128]"),
        "The matrix of a gate of `gate_table`, the first target being the most significant bit of "
        "an index.");

    nb::class_<BoundGateList> target(
        module, "GateList",
        "Gates of any kind, recorded once and run on states of either precision.");
    target
        .def(
            "__init__",
            [](BoundGateList* self, nb::handle nqubits) {
                const auto count = unsigned_argument(nqubits, "nqubits", max_qubits);
                new (self)
                    BoundGateList(static_cast<unsigned>(count), std::make_shared<ParameterNames>());
            },
            nb::arg("nqubits"), nb::sig("def __init__(self, nqubits: int) -> None"))
        .def_prop_ro("nqubits", [](const BoundGateList& self) { return self.nqubits; })
        .def_prop_ro(
            "parameters", [](const BoundGateList& self) { return self.names->list(); },
            "Names of the parameters, in the order of the values of a run.")
        .def_prop_ro(
            "qubits",
            [](const BoundGateList& self) {
                std::uint64_t mask = 0;
                for (const GateView gate : self.gates) {
                    mask |= gate.controls.mask;
                    for (const unsigned int qubit : gate.targets)
                        mask |= std::uint64_t{1} << qubit;
                }
                return mask;
            },
            "The qubits that the gates act on, as a mask: bit q is qubit q.")
        .def("__len__", [](const BoundGateList& self) { return self.gates.size(); })
        .def(
            "__eq__",
            [](const BoundGateList& self, nb::handle other) {
                if (!nb::isinstance<BoundGateList>(other)) return false;
                const BoundGateList& list = *nb::inst_ptr<BoundGateList>(other);
                const bool same_names = self.names->list() == list.names->list();
                return self.nqubits == list.nqubits && self.gates == list.gates &&
                       (same_names || self.gates.n_parameters() == 0);
            },
            nb::sig("def __eq__(self, other: object, /) -> bool"))
        .def(
            "gate",
            [](BoundGateList& self, nb::handle position) {
                const Reading reading(self);
                const auto i = unsigned_argument(position, "position");
                if (i >= self.gates.size()) {
                    raise(PyExc_IndexError, "position = %.200R: expected a value below %zu",
                          position.ptr(), self.gates.size());
                }
                return gate_tuple(self, i);
            },
            nb::arg("position"),
            nb::sig("def gate(self, position: int) -> tuple[str, list[int], list[int], int, "
                    "tuple[float | Parameter, ...], typing.Any]"),
            "Name as in `gate_table`, targets, controls, what these must read (the first listed "
            "one most\nsignificant), angles, and the matrix, the diagonal, the marked values or "
            "None.")
        .def("add", add_gate, nb::arg("name"), nb::arg("targets"),
             nb::arg("controls") = nb::tuple(), nb::arg("ctrl_state") = nb::none(),
             nb::arg("angles") = nb::tuple(), nb::arg("values") = nb::none(),
             nb::sig("def add(self, name: str, targets: collections.abc.Sequence[int], "
                     "controls: collections.abc.Sequence[int] = (), "
                     "ctrl_state: int | str | None = None, "
                     "angles: collections.abc.Sequence[float | Parameter] = (), "
                     "values: typing.Any = None) -> None"),
             "Appends a gate given by what `gate` says of it.")
        .def(
            "extend",
            [](BoundGateList& self, BoundGateList& other) {
                self.require_unused();
                if (other.nqubits > self.nqubits) {
                    raise(PyExc_ValueError, "other.nqubits = %u: expected at most %u",
                          other.nqubits, self.nqubits);
                }
                self.extend(other);
            },
            nb::arg("other"), "Appends the gates of another list.")
        .def(
            "inverse",
            [](BoundGateList& self) {
                const Reading reading(self);
                return with_gates(self, self.gates.inverse());
            },
            "The list that undoes this one; matrices are taken to be unitary.")
        .def(
            "part",
            [](BoundGateList& self, nb::handle begin, nb::handle end) {
                const Reading reading(self);
                const auto last = unsigned_argument(end, "end", self.gates.size());
                GateList gates;
                for (auto i = unsigned_argument(begin, "begin", last); i < last; ++i)
                    gates.append(self.gates[i]);
                return with_gates(self, std::move(gates));
            },
            nb::arg("begin"), nb::arg("end"),
            nb::sig("def part(self, begin: int, end: int) -> GateList"),
            "Gates [begin, end) as a list of their own.")
        .def(
            "conjugate",
            [](BoundGateList& self) {
                const Reading reading(self);
                return with_gates(self, self.gates.conjugate());
            },
            "The list whose matrices are the complex conjugates.")
        .def(
            "bind",
            [](BoundGateList& self, nb::handle values) {
                const Reading reading(self);
                const std::vector<double> numbers = values_argument(self, values);
                auto result = std::make_unique<BoundGateList>(self.nqubits,
                                                              std::make_shared<ParameterNames>());
                bind_values(self.gates, numbers, result->gates);
                return result;
            },
            nb::arg("values"),
            nb::sig("def bind(self, values: collections.abc.Sequence[float] | "
                    "numpy.typing.NDArray[numpy.float64]) -> GateList"),
            "The list with numbers in place of its parameters.")
        .def(
            "__getstate__",
            [](BoundGateList& self) {
                const Reading reading(self);
                nb::list gates;
                for (std::size_t i = 0; i < self.gates.size(); ++i)
                    gates.append(gate_tuple(self, i));
                return nb::make_tuple(self.nqubits, self.names->list(), gates);
            },
            nb::sig("def __getstate__(self) -> tuple[int, list[str], list[typing.Any]]"))
        .def(
            "__setstate__",
            [](BoundGateList& self, nb::tuple state) {
                new (&self) BoundGateList(nb::cast<unsigned int>(state[0]),
                                          std::make_shared<ParameterNames>());
                for (const nb::handle name : nb::cast<nb::list>(state[1]))
                    self.names->number_of(nb::cast<std::string>(name));
                for (const nb::handle gate : nb::cast<nb::list>(state[2])) {
                    const auto part = [&](int i) { return nb::object(gate[i]); };
                    add_gate(self, part(0), part(1), part(2), part(3), part(4), part(5));
                }
            },
            nb::sig("def __setstate__(self, state: tuple[int, list[str], list[typing.Any]], /) -> "
                    "None"));
    const char* const doc =
        "Applies the gates with one value for each parameter. Once in a while `progress` is told "
        "how many are\ndone and pending signals are looked at; an exception from either leaves the "
        "effect of exactly the\nfirst so many gates, by which `gates_applied` of the state has "
        "grown. With `both_sides` the state is\na density matrix: every gate acts on its rows and, "
        "conjugated, on its columns. `accuracy` is that of\n`pblinalg.run`.";
#define PBLINALG_RUN_SIGNATURE(STATE)                                           \
    nb::sig("def run(self, state: " STATE                                       \
            ", values: collections.abc.Sequence[float] | "                      \
            "numpy.typing.NDArray[numpy.float64] | None = None, "               \
            "progress: collections.abc.Callable[[int], object] | None = None, " \
            "both_sides: bool = False, "                                        \
            "accuracy: typing.Literal['exact', 'rounding'] = 'exact') -> None")
    target
        .def("run", run_list<float>, nb::arg("state"), nb::arg("values") = nb::none(),
             nb::arg("progress") = nb::none(), nb::arg("both_sides") = false,
             nb::arg("accuracy") = "exact",
             PBLINALG_RUN_SIGNATURE("PybindLinAlgStateVectorCPUFloat"))
        .def("run", run_list<double>, nb::arg("state"), nb::arg("values") = nb::none(),
             nb::arg("progress") = nb::none(), nb::arg("both_sides") = false,
             nb::arg("accuracy") = "exact",
             PBLINALG_RUN_SIGNATURE("PybindLinAlgStateVectorCPUDouble"), doc);
#undef PBLINALG_RUN_SIGNATURE
}

}  // namespace pblinalg::python
