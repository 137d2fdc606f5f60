// The gate sequence class: what circuits of the upper level are made of.
#include <nanobind/ndarray.h>
#include <nanobind/stl/complex.h>
#include <nanobind/stl/vector.h>

#include "bind_gates.hpp"
#include "gate_sequence.hpp"
#include "parts.hpp"

namespace pblinalg::python {
namespace {

nb::object matrix_of(const GateSequence& sequence, const GateSequence::Gate& gate) {
    const nb::object flat =
        nb::module_::import_("numpy").attr("array")(sequence.matrix(gate), "complex128");
    return flat.attr("reshape")(std::size_t{1} << gate.targets, -1);
}

template <class T>
void apply(GateSequence& self, BoundState<T>& state, nb::handle progress) {
    const Reading reading(self);
    if (!progress.is_none() && !PyCallable_Check(progress.ptr()))
        raise(PyExc_TypeError, "progress must be callable or None, got %.200R", progress.ptr());
    self.apply<T>(state, [&](std::size_t done) {
        if (PyErr_CheckSignals() != 0) throw nb::python_error();
        if (!progress.is_none()) progress(done);
    });
}

}  // namespace

void bind_gate_sequence(nb::module_& module) {
    nb::class_<GateSequence> target(
        module, "GateSequence", "Gates recorded once and replayed on states of either precision.");
    bind_gates(target);
    target
        .def(
            "__init__",
            [](GateSequence* self, nb::handle nqubits) {
                const auto count = unsigned_argument(nqubits, "nqubits", max_qubits);
                new (self) GateSequence(static_cast<unsigned>(count));
            },
            nb::arg("nqubits"), nb::sig("def __init__(self, nqubits: int) -> None"))
        .def_prop_ro("nqubits", [](const GateSequence& self) { return self.nqubits; })
        .def("__len__", [](const GateSequence& self) { return self.size(); })
        .def(
            "gate",
            [](GateSequence& self, nb::handle position) {
                const Reading reading(self);
                const auto i = unsigned_argument(position, "position");
                if (i >= self.size()) {
                    raise(PyExc_IndexError, "position = %.200R: expected a value below %zu",
                          position.ptr(), self.size());
                }
                const GateSequence::Gate& gate = self[i];
                nb::object value = nb::none();
                if (self.has_angle(gate)) value = nb::float_(self.angle(gate));
                if (gate.kind == GateKind::matrix) value = matrix_of(self, gate);
                if (gate.kind == GateKind::phase_oracle) value = nb::cast(self.marked(gate));
                return nb::make_tuple(name_of(gate.kind), self.targets(gate), self.controls(gate),
                                      value);
            },
            nb::arg("position"),
            nb::sig("def gate(self, position: int) -> tuple[str, list[int], list[int], object]"),
            "Name, target qubits, control qubits, and the angle, the matrix or the marked values.")
        .def(
            "extend",
            [](GateSequence& self, GateSequence& other) {
                const Use use(self);
                if (other.nqubits > self.nqubits) {
                    raise(PyExc_ValueError, "other.nqubits = %u: expected at most %u",
                          other.nqubits, self.nqubits);
                }
                self.extend(other);
            },
            nb::arg("other"), "Appends the gates of another sequence.")
        .def("apply", apply<float>, nb::arg("state"), nb::arg("progress") = nb::none(),
             nb::sig("def apply(self, state: PybindLinAlgStateVectorCPUFloat, "
                     "progress: collections.abc.Callable[[int], object] | None = None) -> None"))
        .def("apply", apply<double>, nb::arg("state"), nb::arg("progress") = nb::none(),
             nb::sig("def apply(self, state: PybindLinAlgStateVectorCPUDouble, "
                     "progress: collections.abc.Callable[[int], object] | None = None) -> None"),
             "Applies the gates. Between pieces `progress` is told how many are done and pending "
             "signals are\nlooked at; an exception from either leaves the effect of exactly these "
             "gates.");
}

}  // namespace pblinalg::python
