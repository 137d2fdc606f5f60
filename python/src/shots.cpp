// Shot programs: what circuits with channels, measurements, resets and conditions run as.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <algorithm>

#include "gate_lists.hpp"
#include "parts.hpp"
#include "records.hpp"
#include "watch.hpp"

namespace pblinalg::python {
namespace {

struct BoundProgram : Shared {
    BoundProgram(unsigned int nqubits, unsigned int n_clbits) : program(nqubits, n_clbits) {}

    ShotProgram program;
    std::size_t open_conditions = 0;
    std::uint32_t n_parameters = 0;
};

std::vector<std::complex<double>> operator_argument(nb::handle matrix, std::size_t n_qubits) {
    return matrix_argument<std::complex<double>>(matrix, n_qubits, "operators");
}

double probability_argument(nb::handle value, const char* name) {
    const double probability = finite_argument<double>(value, name);
    if (probability < 0 || probability > 1)
        raise(PyExc_ValueError, "%s = %R: expected a value between 0 and 1", name, value.ptr());
    return probability;
}

/// Runs `work(values, options)` with what Python says about a run.
template <class Work>
auto run_program(BoundProgram& self, nb::handle values, nb::handle shots, nb::handle seed,
                 nb::handle threads, nb::handle max_states, nb::handle by_rounding,
                 nb::handle progress, const Work& work) {
    const Use use(self);
    if (self.open_conditions > 0)
        raise(PyExc_ValueError, "%zu conditions are not closed", self.open_conditions);
    const InputArray<double> numbers(values, "values");
    if (numbers.count() < self.n_parameters) {
        raise(PyExc_ValueError, "values holds %zu elements; the gates have %u parameters",
              numbers.count(), self.n_parameters);
    }
    ShotOptions options;
    options.shots = unsigned_argument(shots, "shots", 1ull << 48);
    options.seed = unsigned_argument(seed, "seed");
    options.threads = int_argument(threads, "threads");
    options.max_states = unsigned_argument(max_states, "max_states");
    if (bool_argument(by_rounding, "by_rounding")) options.accuracy = Accuracy::rounding;
    Watch watch(progress);
    const auto result = [&] {
        Unlocked unlocked(true);
        options.between = [&](std::uint64_t done) { return watch.goes_on(done, unlocked); };
        return work(std::span(numbers.data(), numbers.count()), options);
    }();
    watch.finish(options.shots);
    return result;
}

template <class T>
nb::dict count_bits_of_shots(BoundProgram& self, nb::handle values, nb::handle shots,
                             nb::handle seed, nb::handle threads, nb::handle max_states,
                             nb::handle by_rounding, nb::handle progress) {
    const auto counts =
        run_program(self, values, shots, seed, threads, max_states, by_rounding, progress,
                    [&](std::span<const double> numbers, const ShotOptions& options) {
                        return count_shots<T>(self.program, numbers, options);
                    });
    nb::dict result;
    for (const auto& [text, times] : counts)
        result[nb::str(text.data(), text.size())] = times;
    return result;
}

template <class T>
nb::object expectations_of_shots(BoundProgram& self, const BoundObservable<T>& observable,
                                 nb::handle values, nb::handle shots, nb::handle seed,
                                 nb::handle threads, nb::handle max_states, nb::handle by_rounding,
                                 nb::handle progress) {
    check_observable<T>(observable, self.program.nqubits());
    const auto found =
        run_program(self, values, shots, seed, threads, max_states, by_rounding, progress,
                    [&](std::span<const double> numbers, const ShotOptions& options) {
                        return shot_expectations<T>(self.program, observable, numbers, options);
                    });
    const OutputArray<double> result(nb::none(), found.size());
    std::ranges::copy(found, result.data());
    return result.object();
}

void bind_channel(nb::module_& module) {
    nb::class_<Channel>(module, "ShotChannel",
                        "A channel as `ShotProgram` takes it; nothing is checked but shapes.")
        .def(
            "__init__",
            [](Channel* self, nb::handle n_qubits, nb::handle operators, nb::handle weights) {
                const auto count =
                    static_cast<unsigned int>(unsigned_argument(n_qubits, "n_qubits", 6));
                std::vector<std::vector<std::complex<double>>> matrices;
                for (const nb::handle matrix : elements_of(operators, "operators"))
                    matrices.push_back(operator_argument(matrix, count));
                if (matrices.empty()) raise(PyExc_ValueError, "operators: expected at least one");
                if (weights.is_none()) {
                    new (self) Channel(Channel::kraus(count, matrices));
                    return;
                }
                std::vector<double> probabilities;
                for (const nb::handle weight : elements_of(weights, "probabilities"))
                    probabilities.push_back(probability_argument(weight, "probabilities"));
                if (probabilities.size() != matrices.size())
                    raise(PyExc_ValueError, "%zu probabilities; expected %zu, one per operator",
                          probabilities.size(), matrices.size());
                new (self) Channel(Channel::mixture(count, matrices, probabilities));
            },
            nb::arg("n_qubits"), nb::arg("operators"), nb::arg("probabilities") = nb::none(),
            nb::sig("def __init__(self, n_qubits: int, operators: "
                    "collections.abc.Sequence[numpy.typing.ArrayLike], probabilities: "
                    "collections.abc.Sequence[float] | None = None) -> None"));
}

}  // namespace

void bind_shots(nb::module_& module) {
    bind_channel(module);
    nb::class_<BoundProgram> target(
        module, "ShotProgram",
        "Gates, channels, measurements, resets and conditions, followed through many shots.");
    target
        .def(
            "__init__",
            [](BoundProgram* self, nb::handle nqubits, nb::handle n_clbits) {
                const auto qubits = unsigned_argument(nqubits, "nqubits", max_qubits);
                const auto clbits = unsigned_argument(n_clbits, "n_clbits", 1u << 20);
                new (self) BoundProgram(static_cast<unsigned int>(qubits),
                                        static_cast<unsigned int>(clbits));
            },
            nb::arg("nqubits"), nb::arg("n_clbits"),
            nb::sig("def __init__(self, nqubits: int, n_clbits: int) -> None"))
        .def(
            "add_gates",
            [](BoundProgram& self, BoundGateList& list, nb::handle begin, nb::handle end) {
                const Use use(self);
                const Reading reading(list);
                const std::size_t size = list.gates.size();
                if (list.gates.n_qubits() > self.program.nqubits()) {
                    raise(PyExc_ValueError, "gates act on %u qubits; the program has %u",
                          list.gates.n_qubits(), self.program.nqubits());
                }
                const std::size_t last = end.is_none() ? size : unsigned_argument(end, "end", size);
                const std::size_t first = unsigned_argument(begin, "begin", last);
                self.n_parameters = std::max(self.n_parameters, list.gates.n_parameters());
                self.program.add_gates(list.gates, first, last);
            },
            nb::arg("gates"), nb::arg("begin") = 0, nb::arg("end") = nb::none(),
            nb::sig("def add_gates(self, gates: GateList, begin: int = 0, end: int | None = None) "
                    "-> None"),
            "Appends gates [begin, end) of a list.")
        .def(
            "add_channel",
            [](BoundProgram& self, const Channel& channel, nb::handle qubits) {
                const Use use(self);
                const auto listed = QubitArguments(self.program.nqubits()).list(qubits, "qubits");
                if (listed.size() != channel.n_qubits()) {
                    raise(PyExc_ValueError, "%zu qubits; the channel acts on %u", listed.size(),
                          channel.n_qubits());
                }
                self.program.add_channel(channel, listed);
            },
            nb::arg("channel"), nb::arg("qubits"),
            nb::sig("def add_channel(self, channel: ShotChannel, qubits: "
                    "collections.abc.Sequence[int]) -> None"),
            "Appends a channel.")
        .def(
            "add_measurement",
            [](BoundProgram& self, nb::handle qubit, nb::handle clbit, nb::handle one_for_zero,
               nb::handle zero_for_one) {
                const Use use(self);
                const unsigned int q = QubitArguments(self.program.nqubits()).one(qubit, "qubit");
                if (self.program.n_clbits() == 0)
                    raise(PyExc_IndexError, "clbit: the program has no classical bits");
                const auto c = unsigned_argument(clbit, "clbit", self.program.n_clbits() - 1);
                const ReadoutError error{probability_argument(one_for_zero, "one_for_zero"),
                                         probability_argument(zero_for_one, "zero_for_one")};
                self.program.add_measurement(q, static_cast<unsigned int>(c), error);
            },
            nb::arg("qubit"), nb::arg("clbit"), nb::arg("one_for_zero") = 0.0,
            nb::arg("zero_for_one") = 0.0,
            nb::sig("def add_measurement(self, qubit: int, clbit: int, one_for_zero: float = 0.0, "
                    "zero_for_one: float = 0.0) -> None"),
            "Appends a measurement that reads 0 as 1, and 1 as 0, with the given probabilities.")
        .def(
            "add_reset",
            [](BoundProgram& self, nb::handle qubit) {
                const Use use(self);
                self.program.add_reset(QubitArguments(self.program.nqubits()).one(qubit, "qubit"));
            },
            nb::arg("qubit"), nb::sig("def add_reset(self, qubit: int) -> None"),
            "Appends a return to |0>.")
        .def(
            "begin_condition",
            [](BoundProgram& self, nb::handle clbits, nb::handle values) {
                const Use use(self);
                const auto read = unsigned_list(values, "values", 1);
                std::vector<ClassicalValue> bits;
                if (self.program.n_clbits() > 0) {
                    for (const auto clbit :
                         unsigned_list(clbits, "clbits", self.program.n_clbits() - 1))
                        bits.push_back({static_cast<unsigned int>(clbit), false});
                }
                if (bits.size() != read.size()) {
                    raise(PyExc_ValueError, "%zu clbits and %zu values; expected equally many",
                          bits.size(), read.size());
                }
                for (std::size_t i = 0; i < bits.size(); ++i)
                    bits[i].value = read[i] != 0;
                self.program.begin_condition(bits);
                ++self.open_conditions;
            },
            nb::arg("clbits"), nb::arg("values"),
            nb::sig("def begin_condition(self, clbits: collections.abc.Sequence[int], values: "
                    "collections.abc.Sequence[int]) -> None"),
            "What follows happens where every bit reads its value.")
        .def(
            "end_condition",
            [](BoundProgram& self) {
                const Use use(self);
                if (self.open_conditions == 0)
                    raise(PyExc_ValueError, "end_condition: no condition is open");
                self.program.end_condition();
                --self.open_conditions;
            },
            "Ends what `begin_condition` began.");
#define PBLINALG_BIND(FUNCTION, NAME, DOC, ...)                                                  \
    target.def(NAME, FUNCTION, __VA_ARGS__ nb::arg("values"), nb::arg("shots"), nb::arg("seed"), \
               nb::arg("threads"), nb::arg("max_states"), nb::arg("by_rounding"),                \
               nb::arg("progress") = nb::none(), DOC)
    const char* const count_doc =
        "How often the classical bits read what, the first bit leftmost. `progress` is told the "
        "shots that are\nthrough once in a while.";
    const char* const expectation_doc =
        "The expectation value on the state that each shot ends in, as float64.";
    PBLINALG_BIND(count_bits_of_shots<float>, "count_float", count_doc, );
    PBLINALG_BIND(count_bits_of_shots<double>, "count_double", count_doc, );
    PBLINALG_BIND(expectations_of_shots<float>, "expectations_float", expectation_doc,
                  nb::arg("observable"), );
    PBLINALG_BIND(expectations_of_shots<double>, "expectations_double", expectation_doc,
                  nb::arg("observable"), );
#undef PBLINALG_BIND
}

}  // namespace pblinalg::python
