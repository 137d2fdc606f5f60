// One gate list with many sets of parameter values, and what is read from each state at its end.
#pragma once

#include <complex>
#include <cstddef>
#include <pblinalg/batch.hpp>
#include <pblinalg/export.hpp>
#include <pblinalg/gate_list.hpp>
#include <pblinalg/observable.hpp>
#include <pblinalg/run.hpp>
#include <span>
#include <vector>

namespace pblinalg {

/// A matrix of parameter values, row-major, one set a row.
struct SweepValues {
    std::span<const double> values;  ///< n_rows equally long rows
    std::size_t n_rows = 0;

    std::span<const double> row(std::size_t r) const {
        const std::size_t length = values.size() / n_rows;
        return values.subspan(r * length, length);
    }
};

/// Where a sweep writes what it reads; nothing is read for a null pointer. Arrays are row-major,
/// belong to the caller and have one row per set of values.
template <class T>
struct SweepOutput {
    std::span<const WObservable<T>> observables = {};
    /// Real parts of the expectation values, one column per observable.
    double* expectations = nullptr;
    /// Of probabilities and shots, the first listed being the most significant bit of an outcome.
    std::vector<unsigned int> qubits = {};
    T* probabilities = nullptr;  ///< 2^L columns for L listed qubits
    std::size_t n_shots = 0;
    unsigned long long* shots = nullptr;  ///< n_shots columns; at least one qubit is listed
    T* totals = nullptr;                  ///< one column: what all probabilities add up to
    std::complex<T>* states = nullptr;    ///< 2^n columns, qubit 0 the most significant bit
};

/// Runs the list on a state of `nqubits` for each row, as a batch does its jobs: row r of a sweep
/// gets the bits of a run and readouts on a state of its own with the same `num_threads` and
/// `accuracy`, whose generator was seeded with `seed_of_job(options.seed, r)`. How the list goes
/// through memory is planned once.
///
/// After a stop the rows below `jobs_done` are written, those behind them partly or not at all.
/// Errors: std::bad_alloc; what is written by then is not defined.
template <class T>
PBLINALG_EXPORT BatchReport run_sweep(unsigned int nqubits, const GateList& list,
                                      const SweepValues& values, const SweepOutput<T>& output,
                                      const BatchOptions& options = {});

extern template PBLINALG_EXPORT BatchReport run_sweep<float>(unsigned int, const GateList&,
                                                             const SweepValues&,
                                                             const SweepOutput<float>&,
                                                             const BatchOptions&);
extern template PBLINALG_EXPORT BatchReport run_sweep<double>(unsigned int, const GateList&,
                                                              const SweepValues&,
                                                              const SweepOutput<double>&,
                                                              const BatchOptions&);

}  // namespace pblinalg
