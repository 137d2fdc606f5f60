// Hands the jobs of a batch to the workers. That a job on one worker rounds like one on all of them
// is the business of core/parallel.hpp.
#include <algorithm>
#include <atomic>
#include <memory>
#include <pblinalg/batch.hpp>
#include <vector>

#include "core/parallel.hpp"

namespace pblinalg {
namespace {

using Callback = std::function<bool(std::size_t)>;

template <class T>
class Batch {
  public:
    Batch(std::size_t n_jobs, const std::function<void(const BatchJob<T>&)>& job,
          const BatchOptions& options)
        : n_jobs_(n_jobs), job_(job), options_(options) {}

    BatchReport run(unsigned int nqubits) {
        const int workers = nqubits < min_shared_batch_qubits ? workers_for_jobs() : 1;
        states_.resize(static_cast<std::size_t>(workers));
        if (workers == 1) {
            states_[0] = new_state(nqubits);
            run_in_order();
        } else {
            cpu::run_team(workers, [&](int id, int) {
                const cpu::RegionsOnOneWorker alone;
                states_[static_cast<std::size_t>(id)] = new_state(nqubits);
            });
            cpu::run_team(workers, [&](int id, int) {
                const cpu::RegionsOnOneWorker alone;
                // This team may have got more workers than the one before.
                if (State* const state = states_[static_cast<std::size_t>(id)].get())
                    run_side_by_side(*state, id == 0);
            });
        }
        return {done_, done_ < n_jobs_};
    }

  private:
    using State = cpu::PybindLinAlgStateVectorCPU<T>;

    int workers_for_jobs() const {
        const auto team = cpu::team_size(get_num_threads(options_.num_threads));
        return static_cast<int>(std::clamp<std::size_t>(n_jobs_, 1, team));
    }

    /// Its memory is touched first by those who will work on it.
    std::unique_ptr<State> new_state(unsigned int nqubits) const {
        auto state = std::make_unique<State>(0);
        state->num_threads = options_.num_threads;
        state->resize(nqubits);
        return state;
    }

    void run_in_order() {
        const Callback none;
        const Callback between_passes = [this](std::size_t) { return goes_on(); };
        for (std::size_t number = 0; number < n_jobs_ && !stopped_; ++number) {
            run_job(*states_[0], number, options_.between_jobs ? between_passes : none);
            if (stopped_) return;
            if (++done_ < n_jobs_) goes_on();
        }
    }

    /// Jobs begin in the order of their numbers, and what has begun is done to its end.
    void run_side_by_side(State& state, bool is_caller) {
        const Callback none;
        try {
            while (!stopped_) {
                const std::size_t number = next_++;
                if (number >= n_jobs_) return;
                run_job(state, number, none);
                if (++done_ < n_jobs_ && is_caller) goes_on();
            }
        } catch (...) {
            stopped_ = true;
            throw;
        }
    }

    void run_job(State& state, std::size_t number, const Callback& between_passes) {
        state.density_matrix = false;
        state.reset();
        state.rng.seed(seed_of_job(options_.seed, number));
        job_({number, state, between_passes, options_.accuracy});
    }

    bool goes_on() {
        if (options_.between_jobs && !options_.between_jobs(done_)) stopped_ = true;
        return !stopped_;
    }

    const std::size_t n_jobs_;
    const std::function<void(const BatchJob<T>&)>& job_;
    const BatchOptions& options_;
    std::vector<std::unique_ptr<State>> states_;
    std::atomic<std::size_t> next_ = 0;
    std::atomic<std::size_t> done_ = 0;
    std::atomic<bool> stopped_ = false;
};

}  // namespace

std::uint64_t seed_of_job(std::uint64_t seed, std::uint64_t number) {
    // Two rounds of a bijection that mixes all bits: numbers differ at first in few of them, and
    // seeds that people choose do, too.
    const auto mixed = [](std::uint64_t x) {
        x += 0x9e3779b97f4a7c15;
        x = (x ^ x >> 30) * 0xbf58476d1ce4e5b9;
        x = (x ^ x >> 27) * 0x94d049bb133111eb;
        return x ^ x >> 31;
    };
    return mixed(mixed(seed) ^ number);
}

template <class T>
BatchReport run_batch(unsigned int nqubits, std::size_t n_jobs,
                      const std::function<void(const BatchJob<T>&)>& job,
                      const BatchOptions& options) {
    return Batch<T>(n_jobs, job, options).run(nqubits);
}

template BatchReport run_batch<float>(unsigned int, std::size_t,
                                      const std::function<void(const BatchJob<float>&)>&,
                                      const BatchOptions&);
template BatchReport run_batch<double>(unsigned int, std::size_t,
                                       const std::function<void(const BatchJob<double>&)>&,
                                       const BatchOptions&);

}  // namespace pblinalg
