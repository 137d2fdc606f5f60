// Sweeps: the job of one row. How rows go over the workers is in batch.cpp.
#include <cassert>
#include <pblinalg/sweep.hpp>

namespace pblinalg {
namespace {

template <class T>
void read_row(cpu::PybindLinAlgStateVectorCPU<T>& state, std::size_t row,
              const SweepOutput<T>& output) {
    if (output.expectations) {
        double* to = output.expectations + row * output.observables.size();
        for (const WObservable<T>& observable : output.observables)
            *to++ = state.expectation_value(observable).real();
    }
    if (output.probabilities) {
        const std::size_t columns = std::size_t{1} << output.qubits.size();
        state.get_distribution(output.probabilities + row * columns, 0, output.qubits);
    }
    if (output.totals) state.get_distribution(output.totals + row, 0, {});
    if (output.shots) {
        state.sample_subset(output.shots + row * output.n_shots, output.qubits, output.n_shots);
    }
    if (output.states) state.get_permuted_statevector(output.states + row * state.size, 0);
}

}  // namespace

template <class T>
BatchReport run_sweep(unsigned int nqubits, const GateList& list, const SweepValues& values,
                      const SweepOutput<T>& output, const BatchOptions& options) {
    assert(values.n_rows == 0 || values.row(0).size() >= list.n_parameters());
    assert(!output.shots || !output.qubits.empty());
    return run_batch<T>(
        nqubits, values.n_rows,
        [&](const BatchJob<T>& job) {
            const RunOptions run_options{job.between_passes, job.accuracy};
            if (run(job.state, list, values.row(job.number), run_options).finished())
                read_row(job.state, job.number, output);
        },
        options);
}

template BatchReport run_sweep<float>(unsigned int, const GateList&, const SweepValues&,
                                      const SweepOutput<float>&, const BatchOptions&);
template BatchReport run_sweep<double>(unsigned int, const GateList&, const SweepValues&,
                                       const SweepOutput<double>&, const BatchOptions&);

}  // namespace pblinalg
