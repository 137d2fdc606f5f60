// The state vector class of either precision: lifecycle, readout, observables and loading. Its gate
// members are in bind_gates.hpp.
#include <nanobind/ndarray.h>
#include <nanobind/stl/complex.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <cmath>
#include <map>
#include <memory>
#include <numeric>
#include <sstream>

#include "bind_gates.hpp"
#include "bound_state.hpp"
#include "core/complex_math.hpp"
#include "observables/pauli_sums.hpp"
#include "parts.hpp"
#include "readout/projection.hpp"
#include "records.hpp"

namespace pblinalg::python {
namespace {

/// The generator of a state, through the state's own lock.
template <class T>
struct Generator {
    nb::object owner;
    BoundState<T>* state;
};

/// Stops unless a register of `nqubits` fits into memory, `reusable` bytes of which are freed
/// first.
template <class T>
unsigned int size_argument(nb::handle value, double reusable = 0) {
    const auto nqubits = static_cast<unsigned>(unsigned_argument(value, "nqubits", ~0u));
    const std::string purpose = "a register of " + std::to_string(nqubits) + " qubits";
    const int exponent = static_cast<int>(std::min(nqubits, 1000u));
    require_memory(std::ldexp(double{sizeof(std::complex<T>)}, exponent), purpose.c_str(),
                   reusable);
    if (nqubits > max_qubits)
        raise(PyExc_MemoryError, "%s does not fit into the address space", purpose.c_str());
    return nqubits;
}

template <class T>
void require_no_views(const BoundState<T>& state, const char* change) {
    if (state.views == 0) return;
    raise(PyExc_BufferError,
          "%s would free amplitudes that %u array views still show; delete the views or copy them",
          change, state.views);
}

template <class T>
nb::object view_amplitudes(BoundState<T>& self) {
    const Use use(self);
    struct View {
        nb::object owner;
        BoundState<T>* state;
    };
    nb::object owner = nb::find(self);
    auto view = std::make_unique<View>(View{owner, &self});
    nb::capsule keeper(view.get(), [](void* pointer) noexcept {
        const std::unique_ptr<View> ended(static_cast<View*>(pointer));
        --ended->state->views;
    });
    view.release();
    ++self.views;
    const std::size_t shape[] = {self.state ? static_cast<std::size_t>(self.size) : 0};
    using Array = nb::ndarray<nb::numpy, std::complex<T>, nb::ndim<1>>;
    return nb::cast(Array(self.state.get(), 1, shape, keeper));
}

/// A library map as a dict; the map is freed.
template <class V>
nb::dict dict_of(std::map<unsigned long long, V>* map) {
    const std::unique_ptr<std::map<unsigned long long, V>> owned(map);
    nb::dict result;
    for (const auto& [key, value] : *owned)
        result[nb::int_(key)] = nb::cast(value);
    return result;
}

/// Bytes of one entry of a map and of the dict that it becomes.
constexpr double bytes_per_map_entry = 250;

/// Stops when the entries above the threshold do not fit into a map. Small maps are not looked at.
template <class T, class Probability>
void require_map_memory(const BoundState<T>& self, unsigned long long entries, T threshold,
                        const Probability& probability) {
    if (entries < 1ull << 18) return;
    const T limit = threshold * threshold;
    const unsigned long long kept = self.run([&] {
        unsigned long long count = 0;
        for (unsigned long long i = 0; i < entries; ++i) {
            const T p = probability(i);
            count += p != 0 && p > limit;
        }
        return count;
    });
    require_memory(static_cast<double>(kept) * bytes_per_map_entry, "the map of entries");
}

template <class T>
void bind_generator(nb::module_& module) {
    const std::string name = std::string("Generator") + precision_suffix<T>;
    nb::class_<Generator<T>>(module, name.c_str(),
                             "The 64-bit Mersenne twister of one state vector.")
        .def(
            "seed",
            [](Generator<T>& self, nb::handle value) {
                const Use use(*self.state);
                self.state->rng.seed(unsigned_argument(value, "value"));
            },
            nb::arg("value"), nb::sig("def seed(self, value: int) -> None"),
            "Makes all later draws repeatable.")
        .def(
            "__call__",
            [](Generator<T>& self) {
                const Use use(*self.state);
                return static_cast<unsigned long long>(self.state->rng());
            },
            "The next 64-bit number.")
        .def_prop_rw(
            "position",
            [](Generator<T>& self) {
                const Use use(*self.state);
                std::ostringstream text;
                text << self.state->rng;
                return text.str();
            },
            [](Generator<T>& self, nb::handle value) {
                const Use use(*self.state);
                std::istringstream text(text_argument(value, "position"));
                auto generator = self.state->rng;
                if (!(text >> generator))
                    raise(PyExc_ValueError, "position must be what `position` of a generator gave");
                self.state->rng = generator;
            },
            nb::for_getter(nb::sig("def position(self) -> str")),
            nb::for_setter(nb::sig("def position(self, value: str, /) -> None")),
            "Where the generator stands, as text: assigned to another one, the same numbers "
            "follow.");
}

template <class T>
void bind_lifecycle(nb::class_<BoundState<T>>& target) {
    using State = BoundState<T>;
    target
        .def(
            "__init__",
            [](State* self, nb::handle nqubits) { new (self) State(size_argument<T>(nqubits)); },
            nb::arg("nqubits"), nb::sig("def __init__(self, nqubits: int) -> None"),
            "Allocates 2^nqubits amplitudes, all zero; call `reset` before use.")
        .def_prop_ro(
            "nqubits", [](const State& self) { return self.nqubits; }, "The qubit count n.")
        .def_prop_ro(
            "size", [](const State& self) { return self.size; },
            "The number of amplitudes, 2^n, or 0 after `release_memory`.")
        .def_prop_ro(
            "state", [](State& self) { return view_amplitudes(self); },
            nb::sig("def state(self) -> numpy.typing.NDArray[numpy.complexfloating]"),
            "The amplitudes as a writable array without a copy, basis state b at index b, qubit q "
            "of weight 2^q.\nWhile such an array is alive, `resize` and `release_memory` raise "
            "BufferError.")
        .def_prop_rw(
            "density_matrix", [](const State& self) { return self.density_matrix; },
            [](State& self, nb::handle value) {
                const Use use(self);
                self.density_matrix = bool_argument(value, "density_matrix");
            },
            "True when the amplitudes are a density matrix of m = n/2 qubits, its entry (row, "
            "column) at\ncolumn * 2^m + row. Honoured by readouts and observables.")
        .def_prop_rw(
            "num_threads", [](const State& self) { return self.num_threads; },
            [](State& self, nb::handle value) {
                const Use use(self);
                self.set_num_threads(int_argument(value, "num_threads"));
            },
            "The requested worker count.")
        .def_prop_ro(
            "seed", [](const State& self) { return self.seed; },
            "The value that the generator was last seeded with from the clock.")
        .def_prop_ro(
            "rng",
            [](State& self) {
                return Generator<T>{nb::find(self), &self};
            },
            "The one generator behind every draw; `rng.seed(value)` makes shots repeatable.")
        .def_prop_ro("named_ctrl_gates", [](const State& self) { return self.named_ctrl_gates; })
        .def_ro("views", &State::views, "Arrays of amplitudes that are alive.")
        .def_ro("gates_applied", &State::gates_applied,
                "Gates applied by gate lists since construction.")
        .def(
            "get_named_ctrl_gates", [](State& self) { return self.get_named_ctrl_gates(); },
            "Names of the gates that take control qubits.")
        .def(
            "set_num_threads",
            [](State& self, nb::handle num_threads) {
                const Use use(self);
                self.set_num_threads(int_argument(num_threads, "num_threads"));
            },
            nb::arg("num_threads"), nb::sig("def set_num_threads(self, num_threads: int) -> None"),
            "Stores the requested worker count; 0 or less asks for the OpenMP runtime's default.")
        .def(
            "resize",
            [](State& self, nb::handle nqubits) {
                const Use use(self);
                const double freed = static_cast<double>(self.amplitudes().bytes);
                const unsigned int n = size_argument<T>(nqubits, freed);
                // A count that a failed call has left is none to grow or shrink from.
                if (!self.state) self.release_memory();
                if (n == self.nqubits) return;
                require_no_views(self, "resize");
                const Unlocked unlocked(n > 14);
                self.resize(n);
            },
            nb::arg("nqubits"), nb::sig("def resize(self, nqubits: int) -> None"),
            "Changes the qubit count. A smaller count keeps the first 2^nqubits amplitudes, a "
            "larger one\ndrops them all and leaves zeros. BufferError while views are alive.")
        .def(
            "release_memory",
            [](State& self) {
                const Use use(self);
                require_no_views(self, "release_memory");
                self.release_memory();
            },
            "Frees the amplitudes; `resize` to a positive count allocates again. BufferError while "
            "views are\nalive.")
        .def(
            "reset",
            [](State& self, nb::handle source) {
                const Use use(self);
                self.require_amplitudes();
                if (source.is_none()) return self.run([&] { self.reset(); });
                const InputArray<std::complex<T>> values(source, "source", self.amplitudes());
                values.require_count(self.size, "one per amplitude");
                self.run([&] { self.reset(reinterpret_cast<unsigned long long>(values.data())); });
            },
            nb::arg("source") = nb::none(),
            nb::sig("def reset(self, source: numpy.typing.ArrayLike | None = None) -> None"),
            "Without a value: basis state 0. With one: loads `size` amplitudes in caller order, as "
            "they are.")
        .def(
            "reset_to_str",
            [](State& self, nb::handle description) {
                const Use use(self);
                self.require_amplitudes();
                const std::string text = text_argument(description, "description");
                if (text.size() > self.nqubits) {
                    raise(PyExc_ValueError, "description = %.200R: expected at most %u characters",
                          description.ptr(), self.nqubits);
                }
                // The library takes the request of this member as it is, beyond the hardware too.
                const int requested = self.num_threads;
                self.num_threads = get_num_threads(requested);
                self.run([&] { self.reset_to_str(text); });
                self.num_threads = requested;
            },
            nb::arg("description"), nb::sig("def reset_to_str(self, description: str) -> None"),
            "Sets a product state, one character per qubit: 0, 1, + or -; any other character, or "
            "a missing\none, leaves its qubit free with factor 1. Character k governs qubit n-1-k.")
        .def(
            "print",
            [](State& self) {
                const Use use(self);
                nb::module_::import_("sys").attr("stdout").attr("flush")();
                self.run([&] { self.print(); });
            },
            "Writes one line per amplitude to the standard output of the process.")
        .def(
            "str",
            [](State& self) {
                const Use use(self);
                require_memory(static_cast<double>(self.size) * 80, "the text");
                return self.run([&] { return self.str(); });
            },
            "All amplitudes in index order, each followed by a space.")
        .def(
            "simulate_circuit",
            [](State& self, BoundCircuit<T>& circuit) {
                const Use use(self);
                const Use use_circuit(circuit);
                if (circuit.unknown) {
                    const std::string text =
                        "Gate " + *circuit.unknown + " is not supported by the pybinded circuit";
                    raise(PyExc_ValueError, "%s", text.c_str());
                }
                if (circuit.nqubits > self.nqubits) {
                    raise(PyExc_ValueError,
                          "circuit.nqubits = %u: expected at most the state's %u qubits",
                          circuit.nqubits, self.nqubits);
                }
                self.require_amplitudes();
                const Unlocked unlocked(self.size * circuit.gate_names.size() >= min_unlocked_size);
                self.simulate_circuit(circuit);
            },
            nb::arg("circuit"),
            "Applies the gates of a record in order. An unknown gate raises ValueError before the "
            "first gate.");
}

template <class T>
void bind_readout(nb::class_<BoundState<T>>& target) {
    using State = BoundState<T>;
    const auto projected = [](State& self, nb::handle qubits, nb::handle outcome, bool reset) {
        const Use use(self);
        self.require_amplitudes();
        const auto q = QubitArguments(self.nqubits).list(qubits, "qubits");
        const auto value = unsigned_argument(outcome, "outcome", (1ull << q.size()) - 1);
        // An impossible outcome is found before anything is cleared, and its weight not summed
        // again.
        std::complex<T>* const amplitudes = self.state.get();
        const T weight = self.run(
            [&] { return cpu::outcome_weight(amplitudes, self.size, q, value, self.num_threads); });
        if (weight == 0)
            raise(PyExc_ValueError, "outcome = %.200R: it has probability 0", outcome.ptr());
        self.run([&] {
            cpu::collapse(amplitudes, self.size, q, value, weight, self.num_threads);
            if (reset) cpu::move_to_zero(amplitudes, self.size, q, value, self.num_threads);
        });
    };
    target
        .def(
            "project",
            [projected](State& self, nb::handle qubits, nb::handle outcome) {
                projected(self, qubits, outcome, false);
            },
            nb::arg("qubits"), nb::arg("outcome"),
            nb::sig(
                "def project(self, qubits: collections.abc.Sequence[int], outcome: int) -> None"),
            "Collapses `qubits` onto `outcome` (first listed qubit most significant) and "
            "normalises. "
            "ValueError for an outcome of probability 0; the state is kept.")
        .def(
            "project_then_reset",
            [projected](State& self, nb::handle qubits, nb::handle outcome) {
                projected(self, qubits, outcome, true);
            },
            nb::arg("qubits"), nb::arg("outcome"),
            nb::sig("def project_then_reset(self, qubits: collections.abc.Sequence[int], "
                    "outcome: int) -> None"),
            "`project`, then returns the listed qubits to 0.")
        .def(
            "get_permuted_statevector",
            [](State& self, nb::handle out, nb::handle threshold) {
                const Use use(self);
                self.require_amplitudes();
                const T limit = real_argument<T>(threshold, "threshold");
                const OutputArray<std::complex<T>> result(out, self.size, self.amplitudes());
                self.run([&] { self.get_permuted_statevector(result.data(), limit); });
                return result.object();
            },
            nb::arg("out") = nb::none(), nb::arg("threshold") = 0.0,
            nb::sig("def get_permuted_statevector(self, out: numpy.typing.NDArray | None = None, "
                    "threshold: float = 0.0) -> numpy.typing.NDArray"),
            "Writes the 2^n amplitudes in caller order into `out` or a new array; those of "
            "probability up to\nthreshold^2 as 0.")
        .def(
            "get_permuted_density_matrix",
            [](State& self, nb::handle out, nb::handle threshold) {
                const Use use(self);
                self.require_amplitudes();
                const T limit = real_argument<T>(threshold, "threshold");
                const OutputArray<std::complex<T>> result(out, self.size, self.amplitudes());
                self.run([&] { self.get_permuted_density_matrix(result.data(), limit); });
                return result.object();
            },
            nb::arg("out") = nb::none(), nb::arg("threshold") = 0.0,
            nb::sig(
                "def get_permuted_density_matrix(self, out: numpy.typing.NDArray | None = None, "
                "threshold: float = 0.0) -> numpy.typing.NDArray"),
            "Writes the 4^m entries of a density matrix row-major, rows and columns in caller "
            "order.")
        .def(
            "get_permuted_density_diag",
            [](State& self, nb::handle out, nb::handle threshold) {
                const Use use(self);
                self.require_amplitudes();
                const T limit = real_argument<T>(threshold, "threshold");
                const OutputArray<T> result(out, 1ull << (self.nqubits / 2), self.amplitudes());
                self.run([&] { self.get_permuted_density_diag(result.data(), limit); });
                return result.object();
            },
            nb::arg("out") = nb::none(), nb::arg("threshold") = 0.0,
            nb::sig("def get_permuted_density_diag(self, out: numpy.typing.NDArray | None = None, "
                    "threshold: float = 0.0) -> numpy.typing.NDArray"),
            "Writes the 2^(n/2) real parts of the diagonal of a density matrix.")
        .def(
            "get_mapped_statevector",
            [](State& self, nb::handle threshold) {
                const Use use(self);
                self.require_amplitudes();
                const T limit = real_argument<T>(threshold, "threshold");
                const auto* const amplitudes = self.state.get();
                require_map_memory(self, self.size, limit,
                                   [=](unsigned long long i) { return std::norm(amplitudes[i]); });
                return dict_of(self.run([&] { return self.get_mapped_statevector(limit); }));
            },
            nb::arg("threshold") = 0.0,
            nb::sig(
                "def get_mapped_statevector(self, threshold: float = 0.0) -> dict[int, complex]"),
            "The amplitudes of probability above threshold^2 by caller index; zeros are left out.")
        .def(
            "get_mapped_density_diag",
            [](State& self, nb::handle threshold) {
                const Use use(self);
                self.require_amplitudes();
                const T limit = real_argument<T>(threshold, "threshold");
                const unsigned long long rows = 1ull << (self.nqubits / 2);
                const auto* const amplitudes = self.state.get();
                require_map_memory(self, rows, limit, [=](unsigned long long i) {
                    return amplitudes[i * (rows + 1)].real();
                });
                return dict_of(self.run([&] { return self.get_mapped_density_diag(limit); }));
            },
            nb::arg("threshold") = 0.0,
            nb::sig(
                "def get_mapped_density_diag(self, threshold: float = 0.0) -> dict[int, float]"),
            "The diagonal of a density matrix by caller index; zeros are left out.")
        .def(
            "probability",
            [](State& self, nb::handle outcome, nb::handle qubits) {
                const Use use(self);
                self.require_readable();
                std::optional<std::vector<unsigned int>> q;
                unsigned int width = self.readout_qubits();
                if (!qubits.is_none()) {
                    q = QubitArguments(width).list(qubits, "qubits");
                    width = static_cast<unsigned int>(q->size());
                }
                const unsigned long long value =
                    unsigned_argument(outcome, "outcome", (1ull << width) - 1);
                return self.run([&] { return self.probability(value, q); });
            },
            nb::arg("outcome"), nb::arg("qubits") = nb::none(),
            nb::sig("def probability(self, outcome: int, "
                    "qubits: collections.abc.Sequence[int] | None = None) -> float"),
            "The probability of `outcome` on `qubits`, the first listed qubit being the least "
            "significant bit\n(opposite to the distributions). Without a list: all qubits.")
        .def(
            "get_distribution",
            [](State& self, nb::handle qubits, nb::handle out, nb::handle threshold) {
                const Use use(self);
                self.require_readable();
                const auto q = QubitArguments(self.readout_qubits()).list(qubits, "qubits");
                const T limit = real_argument<T>(threshold, "threshold");
                const OutputArray<T> result(out, 1ull << q.size(), self.amplitudes());
                self.run([&] { self.get_distribution(result.data(), limit, q); });
                return result.object();
            },
            nb::arg("qubits"), nb::arg("out") = nb::none(), nb::arg("threshold") = 0.0,
            nb::sig("def get_distribution(self, qubits: collections.abc.Sequence[int], "
                    "out: numpy.typing.NDArray | None = None, threshold: float = 0.0) "
                    "-> numpy.typing.NDArray"),
            "Writes the 2^L probabilities of the L listed qubits, first listed qubit most "
            "significant.")
        .def(
            "get_mapped_distribution",
            [](State& self, nb::handle qubits, nb::handle threshold) {
                const Use use(self);
                self.require_readable();
                const auto q = QubitArguments(self.readout_qubits()).list(qubits, "qubits");
                const T limit = real_argument<T>(threshold, "threshold");
                require_memory(std::ldexp(bytes_per_map_entry, static_cast<int>(q.size())),
                               "the map of probabilities");
                return dict_of(self.run([&] { return self.get_mapped_distribution(limit, q); }));
            },
            nb::arg("qubits"), nb::arg("threshold") = 0.0,
            nb::sig("def get_mapped_distribution(self, qubits: collections.abc.Sequence[int], "
                    "threshold: float = 0.0) -> dict[int, float]"),
            "The entries of `get_distribution` that are not 0.")
        .def(
            "sample",
            [](State& self, nb::handle nshots, nb::handle out) {
                const Use use(self);
                self.require_readable();
                const auto shots = unsigned_argument(nshots, "nshots", 1ull << 48);
                const OutputArray<unsigned long long> result(out, shots, self.amplitudes());
                const Unlocked unlocked(self.size + shots >= min_unlocked_size);
                self.sample(result.data(), shots);
                return result.object();
            },
            nb::arg("nshots"), nb::arg("out") = nb::none(),
            nb::sig("def sample(self, nshots: int, out: numpy.typing.NDArray | None = None) "
                    "-> numpy.typing.NDArray"),
            "Writes `nshots` outcomes over all qubits in caller order, as uint64.")
        .def(
            "sample_subset",
            [](State& self, nb::handle qubits, nb::handle nshots, nb::handle out) {
                const Use use(self);
                self.require_readable();
                const auto q = QubitArguments(self.readout_qubits()).list(qubits, "qubits");
                const auto shots = unsigned_argument(nshots, "nshots", 1ull << 48);
                const OutputArray<unsigned long long> result(out, shots, self.amplitudes());
                const Unlocked unlocked(self.size + shots >= min_unlocked_size);
                self.sample_subset(result.data(), q, shots);
                return result.object();
            },
            nb::arg("qubits"), nb::arg("nshots"), nb::arg("out") = nb::none(),
            nb::sig("def sample_subset(self, qubits: collections.abc.Sequence[int], nshots: int, "
                    "out: numpy.typing.NDArray | None = None) -> numpy.typing.NDArray"),
            "Writes `nshots` outcomes over the listed qubits, the first one most significant. An "
            "empty list reads all qubits.")
        .def(
            "measure",
            [](State& self, nb::handle qubits) {
                const Use use(self);
                self.require_readable();
                const auto q = QubitArguments(self.readout_qubits()).list(qubits, "qubits");
                return self.run([&] { return self.measure(q); });
            },
            nb::arg("qubits"),
            nb::sig("def measure(self, qubits: collections.abc.Sequence[int]) -> int"),
            "One outcome over the listed qubits; the state is not collapsed.");
}

/// Pending signals are looked at between the passes of an observable from this size on.
constexpr unsigned long long min_interrupted_size = 1ull << 18;

/// <P> of every term of an observable on a large pure state, bit for bit as in one call, with looks
/// at pending signals in between.
template <class T>
std::vector<T> term_values(BoundState<T>& self, const WObservable<T>& observable) {
    std::vector<T> values(observable.flip_masks.size());
    for (const auto& pass : cpu::passes_of_terms(observable, self.size)) {
        WObservable<T> part;
        for (const auto t : pass) {
            part.coefficients.emplace_back(1);
            part.flip_masks.push_back(observable.flip_masks[t]);
            part.sign_masks.push_back(observable.sign_masks[t]);
            part.phase_powers.push_back(observable.phase_powers[t]);
        }
        const auto own = self.run([&] { return self.terms_expectations_values(std::move(part)); });
        for (std::size_t i = 0; i < pass.size(); ++i)
            values[pass[i]] = own[i].real();
        if (PyErr_CheckSignals() != 0) throw nb::python_error();
    }
    return values;
}

template <class T>
void bind_observables(nb::class_<BoundState<T>>& target) {
    using State = BoundState<T>;
    target
        .def(
            "expectation_value",
            [](State& self, const BoundObservable<T>& observable) {
                const Use use(self);
                self.require_readable();
                check_observable<T>(observable, self.readout_qubits());
                if (self.density_matrix || self.size < min_interrupted_size) {
                    WObservable<T> copy = observable;
                    return self.run([&] { return self.expectation_value(std::move(copy)); });
                }
                const std::vector<T> values = term_values<T>(self, observable);
                std::complex<T> total = 0;
                for (std::size_t t = 0; t < values.size(); ++t)
                    total += observable.coefficients[t] * values[t];
                return observable.constant + total;
            },
            nb::arg("observable"), "constant + sum over terms of coefficient * <P>.")
        .def(
            "terms_expectations_values",
            [](State& self, const BoundObservable<T>& observable) {
                const Use use(self);
                self.require_readable();
                check_observable<T>(observable, self.readout_qubits());
                if (self.density_matrix || self.size < min_interrupted_size) {
                    WObservable<T> copy = observable;
                    return self.run(
                        [&] { return self.terms_expectations_values(std::move(copy)); });
                }
                std::vector<std::complex<T>> products;
                for (const T value : term_values<T>(self, observable))
                    products.emplace_back(value);
                for (std::size_t t = 0; t < products.size(); ++t)
                    products[t] = cpu::cmul(observable.coefficients[t], products[t]);
                return products;
            },
            nb::arg("observable"), "coefficient * <P> of each term; the constant is left out.")
        .def(
            "evaluate_terms",
            [](State& self, const std::vector<BoundTerm<T>*>& terms, nb::handle nshots) {
                const Use use(self);
                self.require_readable();
                const auto shots = unsigned_argument(nshots, "nshots", 1ull << 48);
                if (shots == 0) raise(PyExc_ValueError, "nshots = 0: expected at least one shot");
                std::vector<SimpleTerm<T>> copies;
                std::size_t longest = 0;
                const unsigned int qubits = self.readout_qubits();
                for (const BoundTerm<T>* const term : terms) {
                    if (!term) raise(PyExc_TypeError, "terms must not hold None");
                    for (const unsigned int qubit : term->qubits) {
                        if (qubit >= qubits)
                            raise(PyExc_IndexError, "terms: qubit %u, expected below %u", qubit,
                                  qubits);
                    }
                    longest = std::max(longest, term->qubits.size());
                    copies.push_back(*term);
                }
                require_memory(std::ldexp(double{sizeof(T)}, static_cast<int>(longest)),
                               "the distribution of a term");
                const Unlocked unlocked(self.size + shots >= min_unlocked_size);
                return self.evaluate_terms(std::move(copies), shots);
            },
            nb::arg("terms"), nb::arg("nshots"),
            "Estimates each term from `nshots` shots in its own basis: a list of (coefficient * "
            "mean,\ncoefficient * standard error). The state is rotated and rotated back.");
}

template <class T>
void bind_loading(nb::class_<BoundState<T>>& target) {
    using State = BoundState<T>;
    // Registers of both table members: the address first, the last `data_width` qubits the data.
    const auto data_width_of = [](nb::handle value, std::size_t qubits) {
        const auto width = unsigned_argument(value, "data_width");
        if (width > qubits) {
            raise(PyExc_ValueError, "data_width = %.200R: expected at most the %zu listed qubits",
                  value.ptr(), qubits);
        }
        return static_cast<unsigned int>(width);
    };
    target
        .def(
            "apply_state_preparation",
            [](State& self, nb::handle amplitudes, nb::handle qubits) {
                const Use use(self);
                self.require_amplitudes();
                const auto q = QubitArguments(self.nqubits).list(qubits, "qubits");
                const InputArray<std::complex<double>> values(amplitudes, "amplitudes",
                                                              self.amplitudes());
                values.require_count(1ull << q.size(), "2^m for m listed qubits");
                self.run([&] {
                    self.apply_state_preparation(const_cast<std::complex<double>*>(values.data()),
                                                 q);
                });
            },
            nb::arg("amplitudes"), nb::arg("qubits"),
            nb::sig("def apply_state_preparation(self, amplitudes: numpy.typing.ArrayLike, "
                    "qubits: collections.abc.Sequence[int]) -> None"),
            "Replaces the amplitudes on `qubits` by the 2^m given ones times the norm that was "
            "there. Input\nindex: the lowest-numbered listed qubit is bit 0. Nothing is "
            "normalised.")
        .def(
            "apply_binary_qram",
            [data_width_of](State& self, nb::handle words, nb::handle qubits,
                            nb::handle data_width) {
                const Use use(self);
                self.require_amplitudes();
                const auto q = QubitArguments(self.nqubits).list(qubits, "qubits");
                const unsigned int width = data_width_of(data_width, q.size());
                const InputArray<unsigned long long> table(words, "words", self.amplitudes());
                table.require_count(1ull << (q.size() - width), "one per address");
                self.run([&] { self.apply_binary_qram(table.data(), q, width); });
            },
            nb::arg("words"), nb::arg("qubits"), nb::arg("data_width"),
            nb::sig("def apply_binary_qram(self, words: numpy.typing.ArrayLike, "
                    "qubits: collections.abc.Sequence[int], data_width: int) -> None"),
            "Moves the amplitude of each address a from data value 0 to the low `data_width` bits "
            "of words[a].\nThe last `data_width` listed qubits are the data register, those before "
            "it the address; in both the\nfirst listed qubit is the least significant bit.")
        .def(
            "apply_qram",
            [data_width_of](State& self, nb::handle amplitudes, nb::handle qubits,
                            nb::handle data_width) {
                const Use use(self);
                self.require_amplitudes();
                const auto q = QubitArguments(self.nqubits).list(qubits, "qubits");
                const unsigned int width = data_width_of(data_width, q.size());
                const InputArray<std::complex<double>> table(amplitudes, "amplitudes",
                                                             self.amplitudes());
                table.require_count(1ull << q.size(), "2^data_width per address");
                self.run([&] { self.apply_qram(table.data(), q, width); });
            },
            nb::arg("amplitudes"), nb::arg("qubits"), nb::arg("data_width"),
            nb::sig("def apply_qram(self, amplitudes: numpy.typing.ArrayLike, "
                    "qubits: collections.abc.Sequence[int], data_width: int) -> None"),
            "Spreads the amplitude of each address a over the data values in proportion to the "
            "real "
            "parts of\nrow a of the table, normalised by row; registers as in "
            "`apply_binary_qram`.");
}

}  // namespace

template <class T>
void bind_state(nb::module_& module) {
    bind_generator<T>(module);
    const std::string name = std::string("PybindLinAlgStateVectorCPU") + precision_suffix<T>;
    nb::class_<BoundState<T>> target(
        module, name.c_str(), nb::is_weak_referenceable(),
        sizeof(T) == sizeof(float)
            ? "An n-qubit register of complex64 amplitudes, member for member as in C++."
            : "An n-qubit register of complex128 amplitudes, member for member as in C++.");
    bind_lifecycle(target);
    bind_gates(target);
    bind_readout(target);
    bind_observables(target);
    bind_loading(target);
}

template void bind_state<float>(nb::module_&);
template void bind_state<double>(nb::module_&);

}  // namespace pblinalg::python
