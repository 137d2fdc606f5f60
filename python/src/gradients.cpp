// Gradients of gate lists.
#include <nanobind/nanobind.h>

#include <algorithm>
#include <cmath>
#include <pblinalg/gradient.hpp>

#include "gate_lists.hpp"
#include "parts.hpp"
#include "records.hpp"
#include "watch.hpp"

namespace pblinalg::python {
namespace {

/// How far a matrix may be from a unitary one.
constexpr double unitary_tolerance = 1e-6;

/// Whether the adjoint of a matrix undoes it, as seen on one vector, which hides no direction.
bool is_unitary(const GateView& gate) {
    using C = std::complex<double>;
    const std::size_t rows = std::size_t{1} << gate.targets.size();
    if (gate.kind == GateKind::diagonal) {
        return std::ranges::all_of(gate.values, [](const C& entry) {
            return std::abs(std::abs(entry) - 1) <= unitary_tolerance;
        });
    }
    const auto entry = [&](std::size_t r, std::size_t c) { return gate.values[r * rows + c]; };
    const auto vector = [](std::size_t i) {
        return std::polar(1 + std::sin(7.0 * static_cast<double>(i)) / 2,
                          1.7 * static_cast<double>(i * i));
    };
    std::vector<C> image(rows);
    for (std::size_t r = 0; r < rows; ++r) {
        for (std::size_t c = 0; c < rows; ++c)
            image[r] += entry(r, c) * vector(c);
    }
    for (std::size_t c = 0; c < rows; ++c) {
        C back = 0;
        for (std::size_t r = 0; r < rows; ++r)
            back += std::conj(entry(r, c)) * image[r];
        if (!(std::abs(back - vector(c)) <= 4 * unitary_tolerance)) return false;
    }
    return true;
}

void require_unitary(const GateList& gates) {
    for (std::size_t i = 0; i < gates.size(); ++i) {
        const GateView gate = gates[i];
        if (gate.values.empty() || is_unitary(gate)) continue;
        raise(PyExc_ValueError,
              "gate %zu of the circuit is a %s that is not unitary: it has no derivative", i,
              info(gate.kind).name.data());
    }
}

nb::object array_of(const std::vector<double>& values, const nb::tuple& shape) {
    const nb::object array = nb::module_::import_("numpy").attr("empty")(values.size(), "float64");
    Buffer buffer;
    buffer.acquire(array, Element<double>::formats, alignof(double), true);
    std::ranges::copy(values, static_cast<double*>(buffer.data()));
    buffer.release();
    return array.attr("reshape")(shape);
}

template <class T>
nb::tuple gradient_of_list(BoundGateList& self, BoundState<T>& state, nb::handle observables,
                           nb::handle values, nb::handle progress, nb::handle target) {
    const Reading reading(self);
    Watch watch(progress);
    const std::vector<double> numbers = values_argument(self, values);
    const Use use(state);
    const auto require_size = [&](const BoundState<T>& given, const char* what) {
        given.require_amplitudes();
        if (given.nqubits == self.nqubits) return;
        raise(PyExc_ValueError, "the %s has %u qubits; the gates were made for %u", what,
              given.nqubits, self.nqubits);
    };
    require_size(state, "state");
    const BoundState<T>* wanted = nullptr;
    std::vector<WObservable<T>> sums;
    if (target.is_none()) {
        for (const nb::handle observable : elements_of(observables, "observables")) {
            if (!nb::isinstance<BoundObservable<T>>(observable)) {
                raise(PyExc_TypeError,
                      "observables must be records of the state's precision, got %.200R",
                      observable.ptr());
            }
            sums.push_back(*nb::inst_ptr<BoundObservable<T>>(observable));
            check_observable(sums.back(), self.nqubits);
        }
    } else {
        if (!nb::isinstance<BoundState<T>>(target) ||
            nb::inst_ptr<BoundState<T>>(target) == &state) {
            raise(PyExc_TypeError, "target must be another state of the same precision, got %.200R",
                  target.ptr());
        }
        wanted = nb::inst_ptr<BoundState<T>>(target);
        require_size(*wanted, "target");
    }
    require_unitary(self.gates);
    // Made while this thread has the lock: another one may copy the list once it runs.
    self.gates.plans();
    RunOptions options;
    Gradient gradient;
    {
        const std::size_t size = std::max<std::size_t>(1, self.gates.size());
        Unlocked unlocked(state.size >= min_unlocked_size / size);
        options.between_passes = [&](std::size_t done) { return watch.goes_on(done, unlocked); };
        gradient = wanted ? overlap_and_gradient<T>(state, self.gates, *wanted, numbers, options)
                          : value_and_gradient<T>(state, self.gates, sums, numbers, options);
    }
    watch.finish((1 + gradient.values.size()) * self.gates.size());
    // Parameters behind the last one that this list uses.
    const std::size_t rows = gradient.values.size(), used = self.gates.n_parameters();
    std::vector<double> jacobian(rows * numbers.size());
    for (std::size_t r = 0; r < rows; ++r) {
        std::copy_n(gradient.jacobian.begin() + static_cast<std::ptrdiff_t>(r * used), used,
                    jacobian.begin() + static_cast<std::ptrdiff_t>(r * numbers.size()));
    }
    return nb::make_tuple(array_of(gradient.values, nb::make_tuple(rows)),
                          array_of(jacobian, nb::make_tuple(rows, numbers.size())));
}

}  // namespace

void bind_gradients(nb::module_& module) {
    const char* const doc =
        "The expectation values of observables after the gates, and their derivatives by the "
        "parameters, one row\nper observable; or the squared overlap with `target` in place of "
        "these. The state serves as memory: its\namplitudes are undefined afterwards.";
#define PBLINALG_SIGNATURE(PRECISION)                                                             \
    nb::sig("def value_and_gradient(gates: GateList, state: PybindLinAlgStateVectorCPU" PRECISION \
            ", observables: collections.abc.Sequence[WObservable" PRECISION                       \
            "], values: collections.abc.Sequence[float] | "                                       \
            "numpy.typing.NDArray[numpy.float64] | None = None, "                                 \
            "progress: collections.abc.Callable[[int], object] | None = None, "                   \
            "target: PybindLinAlgStateVectorCPU" PRECISION                                        \
            " | None = None) -> tuple[numpy.typing.NDArray[numpy.float64], "                      \
            "numpy.typing.NDArray[numpy.float64]]")
    module.def("value_and_gradient", gradient_of_list<float>, nb::arg("gates"), nb::arg("state"),
               nb::arg("observables"), nb::arg("values") = nb::none(),
               nb::arg("progress") = nb::none(), nb::arg("target") = nb::none(),
               PBLINALG_SIGNATURE("Float"), doc);
    module.def("value_and_gradient", gradient_of_list<double>, nb::arg("gates"), nb::arg("state"),
               nb::arg("observables"), nb::arg("values") = nb::none(),
               nb::arg("progress") = nb::none(), nb::arg("target") = nb::none(),
               PBLINALG_SIGNATURE("Double"), doc);
#undef PBLINALG_SIGNATURE
}

}  // namespace pblinalg::python
