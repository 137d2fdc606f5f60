// Many independent runs of one size: small registers one run per worker, large ones one after
// another on all workers. What a run does is the caller's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <pblinalg/accuracy.hpp>
#include <pblinalg/export.hpp>
#include <pblinalg/state_vector_cpu.hpp>

namespace pblinalg {

/// One of the runs, as it is handed to the function that does it.
template <class T>
struct BatchJob {
    std::size_t number;  ///< counts from 0
    /// In basis state 0, its generator seeded with `seed_of_job`, its `num_threads` that of the
    /// batch. What a job leaves in it no other job sees; its qubit count stays.
    cpu::PybindLinAlgStateVectorCPU<T>& state;
    /// For the runs of a job (`RunOptions`), so that a stop reaches into long ones. When it has
    /// stopped a run, the job returns without a result.
    const std::function<bool(std::size_t)>& between_passes;
    /// That of the batch, for the runs of a job.
    Accuracy accuracy = Accuracy::exact;
};

struct BatchOptions {
    /// The requested worker count, as that of a state.
    int num_threads = 1;
    std::uint64_t seed = 0;
    /// Called on the calling thread with the number of jobs done so far, between jobs and, where a
    /// job has all workers, between the passes of its runs: return false to stop.
    std::function<bool(std::size_t)> between_jobs = {};
    /// How the runs of a sweep round, and what the jobs of a batch are told.
    Accuracy accuracy = Accuracy::exact;
};

/// What became of a batch.
struct BatchReport {
    /// Exactly the first `jobs_done` jobs are done; no other one has finished.
    std::size_t jobs_done = 0;
    bool stopped = false;
    bool finished() const { return !stopped; }
};

/// The seed of job `number` in a batch of `seed`. Jobs of one batch have different seeds.
PBLINALG_EXPORT std::uint64_t seed_of_job(std::uint64_t seed, std::uint64_t number);

/// Registers of fewer qubits run one job per worker.
inline constexpr unsigned int min_shared_batch_qubits = 18;

/// Calls `job` once for each number below `n_jobs`. Registers below `min_shared_batch_qubits` have
/// one state per worker, and jobs run side by side, each on the thread that calls it alone; larger
/// ones share one state, and jobs run in order, each on all workers. Either way a job computes the
/// same bits as on a state of its own with the same `num_threads`: sums are taken in the pieces
/// that go with that request, whoever adds them up.
///
/// @param job  called by several threads at once; it may throw.
/// Errors: std::bad_alloc before any job begins. The first exception of a job or of `between_jobs`
/// reaches the caller once the jobs that had begun are done; no other job begins.
template <class T>
PBLINALG_EXPORT BatchReport run_batch(unsigned int nqubits, std::size_t n_jobs,
                                      const std::function<void(const BatchJob<T>&)>& job,
                                      const BatchOptions& options = {});

extern template PBLINALG_EXPORT BatchReport
run_batch<float>(unsigned int, std::size_t, const std::function<void(const BatchJob<float>&)>&,
                 const BatchOptions&);
extern template PBLINALG_EXPORT BatchReport
run_batch<double>(unsigned int, std::size_t, const std::function<void(const BatchJob<double>&)>&,
                  const BatchOptions&);

}  // namespace pblinalg
