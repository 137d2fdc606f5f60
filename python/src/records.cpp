// Circuit records, observables and Pauli terms.
#include "records.hpp"

#include <nanobind/stl/complex.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "parts.hpp"

namespace pblinalg::python {
namespace {

struct GateShape {
    std::size_t qubits;
    std::size_t params;
};

/// What a circuit record holds for a gate that it knows.
std::optional<GateShape> shape_of(const std::string& name) {
    if (name == "CNOT") return GateShape{2, 0};
    const std::optional<GateKind> kind = gate_named(name);
    if (!kind || !info(*kind).in_record) return std::nullopt;
    return GateShape{info(*kind).n_targets, info(*kind).n_angles};
}

template <class T>
std::vector<T> finite_list(nb::handle values, const char* name) {
    std::vector<T> result;
    for (const nb::handle value : elements_of(values, name))
        result.push_back(finite_argument<T>(value, name));
    return result;
}

template <class T>
std::vector<std::complex<T>> complex_list(nb::handle values, const char* name) {
    std::vector<std::complex<T>> result;
    for (const nb::handle value : elements_of(values, name))
        result.push_back(complex_argument<T>(value, name));
    return result;
}

std::vector<unsigned int> word_list(nb::handle values, const char* name) {
    const auto wide = unsigned_list(values, name, ~0u);
    return {wide.begin(), wide.end()};
}

template <class T>
void bind_circuit(nb::module_& module) {
    using Circuit = BoundCircuit<T>;
    const std::string name = std::string("PybindLinAlgWCircuit") + precision_suffix<T>;
    nb::class_<Circuit>(module, name.c_str(),
                        "A list of gates for `simulate_circuit`, kept as three parallel lists.\n\n"
                        "The record knows H, X, Y, Z, RX, RY, RZ, PH, T, CNOT (control first) and "
                        "SWAP. Other\nnames are stored and refused when the circuit is simulated.")
        .def(
            "__init__",
            [](Circuit* self, nb::handle nqubits) {
                new (self) Circuit(
                    static_cast<unsigned>(unsigned_argument(nqubits, "nqubits", max_qubits)));
            },
            nb::arg("nqubits"), nb::sig("def __init__(self, nqubits: int) -> None"))
        .def_prop_ro("nqubits", [](const Circuit& self) { return self.nqubits; })
        .def_prop_ro(
            "gate_names", [](const Circuit& self) { return self.gate_names; },
            "A copy of the names, in order of addition.")
        .def_prop_ro(
            "gate_qubits", [](const Circuit& self) { return self.gate_qubits; },
            "A copy of the qubit lists.")
        .def_prop_ro(
            "gate_params", [](const Circuit& self) { return self.gate_params; },
            "A copy of the parameter lists, in radians.")
        .def(
            "add_gate",
            [](Circuit& self, nb::handle name, nb::handle params, nb::handle qubits) {
                const Use use(self);
                const std::string gate = text_argument(name, "name");
                const auto angles = finite_list<T>(params, "params");
                const std::optional<GateShape> shape = shape_of(gate);
                QubitArguments arguments(self.nqubits);
                const auto listed =
                    shape ? arguments.list(qubits, "qubits") : word_list(qubits, "qubits");
                if (shape && (listed.size() != shape->qubits || angles.size() != shape->params)) {
                    raise(PyExc_ValueError,
                          "%s: %zu qubits and %zu params; expected %zu qubits and %zu params",
                          gate.c_str(), listed.size(), angles.size(), shape->qubits, shape->params);
                }
                self.add_gate(gate, angles, listed);
                if (!shape && !self.unknown) self.unknown = gate;
            },
            nb::arg("name"), nb::arg("params"), nb::arg("qubits"),
            nb::sig("def add_gate(self, name: str, params: collections.abc.Sequence[float], "
                    "qubits: collections.abc.Sequence[int]) -> None"),
            "Appends one gate; the lists are copied.")
        .def(
            "reset",
            [](Circuit& self, nb::handle nqubits) {
                const Use use(self);
                const auto count = unsigned_argument(nqubits, "nqubits", max_qubits);
                self.reset(static_cast<unsigned>(count));
                self.unknown.reset();
            },
            nb::arg("nqubits"), nb::sig("def reset(self, nqubits: int) -> None"),
            "Empties the record.");
}

template <class T>
void bind_observable(nb::module_& module) {
    using Record = BoundObservable<T>;
    const std::string name = std::string("WObservable") + precision_suffix<T>;
    const auto init = [](Record* self, nb::handle coefficients, nb::handle flip_masks,
                         nb::handle sign_masks, nb::handle phase_powers, nb::handle constant) {
        Record record;
        record.coefficients = complex_list<T>(coefficients, "coefficients");
        record.flip_masks = unsigned_list(flip_masks, "flip_masks");
        record.sign_masks = unsigned_list(sign_masks, "sign_masks");
        record.phase_powers = word_list(phase_powers, "phase_powers");
        record.constant = complex_argument<T>(constant, "constant");
        record.trailing_word = 0;
        new (self) Record(std::move(record));
    };
    nb::class_<Record>(module, name.c_str(),
                       "A weighted sum of Pauli strings plus a constant, compiled to masks.\n\n"
                       "Term t maps |i> to i^phase_powers[t] * (-1)^popcount(sign_masks[t] & i) "
                       "times\n|i XOR flip_masks[t]>; bit q of a mask is qubit q. The lists are "
                       "read as copies and set\nwhole.")
        .def("__init__", init, nb::arg("coefficients") = nb::tuple(),
             nb::arg("flip_masks") = nb::tuple(), nb::arg("sign_masks") = nb::tuple(),
             nb::arg("phase_powers") = nb::tuple(), nb::arg("constant") = 0,
             nb::sig("def __init__(self, coefficients: collections.abc.Sequence[complex] = (), "
                     "flip_masks: collections.abc.Sequence[int] = (), "
                     "sign_masks: collections.abc.Sequence[int] = (), "
                     "phase_powers: collections.abc.Sequence[int] = (), "
                     "constant: complex = 0) -> None"))
        .def_prop_rw(
            "coefficients", [](const Record& self) { return self.coefficients; },
            [](Record& self, nb::handle values) {
                self.coefficients = complex_list<T>(values, "coefficients");
            },
            "Weight of each term.")
        .def_prop_rw(
            "flip_masks", [](const Record& self) { return self.flip_masks; },
            [](Record& self, nb::handle values) {
                self.flip_masks = unsigned_list(values, "flip_masks");
            },
            "Bits of the qubits that carry X or Y.")
        .def_prop_rw(
            "sign_masks", [](const Record& self) { return self.sign_masks; },
            [](Record& self, nb::handle values) {
                self.sign_masks = unsigned_list(values, "sign_masks");
            },
            "Bits of the qubits that carry Z or Y.")
        .def_prop_rw(
            "phase_powers", [](const Record& self) { return self.phase_powers; },
            [](Record& self, nb::handle values) {
                self.phase_powers = word_list(values, "phase_powers");
            },
            "Power of the imaginary unit of each term, modulo 4; a Y contributes one.")
        .def_prop_rw(
            "constant", [](const Record& self) { return self.constant; },
            [](Record& self, nb::handle value) {
                self.constant = complex_argument<T>(value, "constant");
            },
            "Coefficient of the identity.")
        .def_prop_rw(
            "trailing_word", [](const Record& self) { return self.trailing_word; },
            [](Record& self, nb::handle value) {
                self.trailing_word = unsigned_argument(value, "trailing_word");
            },
            "Copied with the record; nothing reads it.");
}

template <class T>
void bind_term(nb::module_& module) {
    using Term = BoundTerm<T>;
    const std::string name = std::string("SimpleTerm") + precision_suffix<T>;
    const auto check = [](const std::vector<unsigned int>& qubits, const std::string& paulis) {
        if (paulis.find_first_not_of("IXYZ") != std::string::npos)
            raise(PyExc_ValueError, "paulis = '%s': expected the letters I, X, Y and Z",
                  paulis.c_str());
        if (qubits.size() != paulis.size())
            raise(PyExc_ValueError, "paulis = '%s': expected one letter for each of %zu qubits",
                  paulis.c_str(), qubits.size());
    };
    nb::class_<Term>(module, name.c_str(),
                     "One weighted Pauli string, for `evaluate_terms`.\n\n"
                     "One letter I, X, Y or Z per listed qubit. Letters from an I on are dropped "
                     "together with the\none qubit at that I, so leave identities out.")
        .def(
            "__init__",
            [check](Term* self, nb::handle qubits, nb::handle paulis, nb::handle coefficient) {
                Term term;
                term.qubits = QubitArguments(64).list(qubits, "qubits");
                term.paulis = text_argument(paulis, "paulis");
                term.coefficient = complex_argument<T>(coefficient, "coefficient");
                check(term.qubits, term.paulis);
                new (self) Term(std::move(term));
            },
            nb::arg("qubits"), nb::arg("paulis"), nb::arg("coefficient") = 1,
            nb::sig("def __init__(self, qubits: collections.abc.Sequence[int], paulis: str, "
                    "coefficient: complex = 1) -> None"))
        .def_prop_ro("qubits", [](const Term& self) { return self.qubits; })
        .def_prop_ro("paulis", [](const Term& self) { return self.paulis; })
        .def_prop_ro("coefficient", [](const Term& self) { return self.coefficient; });
}

}  // namespace

template <class T>
void bind_records(nb::module_& module) {
    bind_circuit<T>(module);
    bind_observable<T>(module);
    bind_term<T>(module);
}

template void bind_records<float>(nb::module_&);
template void bind_records<double>(nb::module_&);

}  // namespace pblinalg::python
