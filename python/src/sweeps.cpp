// Sweeps over parameter values, and reduced density matrices, on arrays that Python hands over.
#include <nanobind/nanobind.h>

#include <cmath>
#include <optional>

#include "gate_lists.hpp"
#include "parts.hpp"
#include "records.hpp"
#include "watch.hpp"

namespace pblinalg::python {
namespace {

/// An array that is written unless it is None.
template <class E>
class OptionalOutput {
  public:
    OptionalOutput(nb::handle out, std::size_t count) {
        if (!out.is_none()) array_.emplace(out, count);
    }
    E* data() const { return array_ ? array_->data() : nullptr; }

  private:
    std::optional<OutputArray<E>> array_;
};

template <class T>
std::vector<WObservable<T>> observables_argument(nb::handle observables, unsigned int nqubits) {
    std::vector<WObservable<T>> result;
    for (const nb::handle observable : elements_of(observables, "observables")) {
        if (!nb::isinstance<BoundObservable<T>>(observable)) {
            raise(PyExc_TypeError, "observables must be WObservable%s, got %.200R",
                  precision_suffix<T>, observable.ptr());
        }
        result.push_back(*nb::inst_ptr<BoundObservable<T>>(observable));
        check_observable(result.back(), nqubits);
    }
    return result;
}

template <class T>
void sweep(BoundGateList& gates, nb::handle values, nb::handle num_threads, nb::handle seed,
           nb::handle progress, nb::handle observables, nb::handle qubits, nb::handle n_shots,
           nb::handle accuracy, nb::handle expectations, nb::handle probabilities,
           nb::handle totals, nb::handle shots, nb::handle states) {
    const Reading reading(gates);
    Watch watch(progress);
    const std::size_t width = gates.names->list().size();
    Buffer rows;
    if (!rows.acquire(values, Element<double>::formats, alignof(double), false) ||
        rows.ndim() != 2 || rows.extent(1) != width) {
        raise(PyExc_ValueError,
              "values must be a C-contiguous array of float64 with a column for each of %zu "
              "parameters",
              width);
    }
    SweepValues sets;
    sets.values = {static_cast<const double*>(rows.data()), rows.count()};
    sets.n_rows = rows.extent(0);
    BatchOptions options;
    options.num_threads = int_argument(num_threads, "num_threads");
    options.seed = unsigned_argument(seed, "seed");
    options.accuracy = accuracy_argument(accuracy);

    const std::vector<WObservable<T>> records = observables_argument<T>(observables, gates.nqubits);
    SweepOutput<T> output;
    output.observables = records;
    output.qubits = QubitArguments(gates.nqubits).list(qubits, "qubits");
    output.n_shots = unsigned_argument(n_shots, "n_shots", std::uint64_t{1} << 48);
    const OptionalOutput<double> expectation_rows(expectations, sets.n_rows * records.size());
    const OptionalOutput<T> probability_rows(probabilities, sets.n_rows << output.qubits.size());
    const OptionalOutput<T> total_rows(totals, sets.n_rows);
    const OptionalOutput<unsigned long long> shot_rows(shots, sets.n_rows * output.n_shots);
    const OptionalOutput<std::complex<T>> state_rows(states, sets.n_rows << gates.nqubits);
    output.expectations = expectation_rows.data();
    output.probabilities = probability_rows.data();
    output.totals = total_rows.data();
    output.shots = shot_rows.data();
    output.states = state_rows.data();
    if (output.shots && output.qubits.empty())
        raise(PyExc_ValueError, "qubits is empty; expected one qubit at least for shots");

    // Made while this thread has the lock: another one may copy the list once it runs.
    gates.gates.plans();
    BatchReport report;
    {
        const double work = std::ldexp(static_cast<double>(sets.n_rows * (gates.gates.size() + 1)),
                                       static_cast<int>(gates.nqubits));
        Unlocked unlocked(work >= static_cast<double>(min_unlocked_size));
        options.between_jobs = [&](std::size_t done) { return watch.goes_on(done, unlocked); };
        report = run_sweep<T>(gates.nqubits, gates.gates, sets, output, options);
    }
    watch.finish(report.jobs_done);
}

template <class T>
nb::object reduced(BoundState<T>& state, nb::handle qubits) {
    const Use use(state);
    state.require_readable();
    const auto listed = QubitArguments(state.readout_qubits()).list(qubits, "qubits");
    const int entry_bits = 2 * static_cast<int>(listed.size());
    // The sums beside what comes out.
    require_memory(std::ldexp(2 * sizeof(std::complex<double>), entry_bits),
                   "a reduced density matrix");
    const std::size_t entries = std::size_t{1} << entry_bits;
    const OutputArray<std::complex<double>> result(nb::none(), entries);
    {
        const Unlocked unlocked(state.size >= min_unlocked_size);
        reduced_density_matrix(state, listed, result.data());
    }
    const std::size_t rows = std::size_t{1} << listed.size();
    return result.object().attr("reshape")(rows, rows);
}

}  // namespace

template <class T>
void bind_sweeps(nb::module_& module) {
    const std::string name = std::string("sweep_") + (sizeof(T) == 4 ? "float" : "double");
    const std::string signature =
        "def " + name +
        "(gates: GateList, values: numpy.typing.NDArray[numpy.float64], num_threads: int, "
        "seed: int, progress: collections.abc.Callable[[int], object] | None, "
        "observables: collections.abc.Sequence[typing.Any], "
        "qubits: collections.abc.Sequence[int], n_shots: int, "
        "accuracy: typing.Literal['exact', 'rounding'] = 'exact', "
        "expectations: numpy.typing.NDArray[typing.Any] | None = None, "
        "probabilities: numpy.typing.NDArray[typing.Any] | None = None, "
        "totals: numpy.typing.NDArray[typing.Any] | None = None, "
        "shots: numpy.typing.NDArray[typing.Any] | None = None, "
        "states: numpy.typing.NDArray[typing.Any] | None = None) -> None";
    module.def(
        name.c_str(), sweep<T>, nb::arg("gates"), nb::arg("values"), nb::arg("num_threads"),
        nb::arg("seed"), nb::arg("progress").none(), nb::arg("observables"), nb::arg("qubits"),
        nb::arg("n_shots"), nb::arg("accuracy") = "exact", nb::arg("expectations") = nb::none(),
        nb::arg("probabilities") = nb::none(), nb::arg("totals") = nb::none(),
        nb::arg("shots") = nb::none(), nb::arg("states") = nb::none(), nb::sig(signature.c_str()),
        "Runs the gates for each row of values and fills the arrays that are given, one row each.");
    module.def("reduced_density_matrix", reduced<T>, nb::arg("state"), nb::arg("qubits"),
               nb::sig(sizeof(T) == 4
                           ? "def reduced_density_matrix(state: PybindLinAlgStateVectorCPUFloat, "
                             "qubits: collections.abc.Sequence[int]) -> "
                             "numpy.typing.NDArray[numpy.complex128]"
                           : "def reduced_density_matrix(state: PybindLinAlgStateVectorCPUDouble, "
                             "qubits: collections.abc.Sequence[int]) -> "
                             "numpy.typing.NDArray[numpy.complex128]"),
               "The trace over all other qubits; the first listed qubit is the most significant "
               "bit of its indices.");
}

template void bind_sweeps<float>(nb::module_&);
template void bind_sweeps<double>(nb::module_&);

}  // namespace pblinalg::python
