// Counts and expectation values over shots, which are shared out as the jobs of a batch.
#include <algorithm>
#include <mutex>
#include <pblinalg/batch.hpp>
#include <thread>
#include <unordered_map>

#include "core/parallel.hpp"
#include "readout/draws.hpp"
#include "readout/sampling.hpp"
#include "readout/views.hpp"
#include "trajectories/follower.hpp"
#include "trajectories/run_shots.hpp"

namespace pblinalg {
namespace {

using cpu::Course;
using cpu::Measurement;
using cpu::ShotDraws;
using cpu::ShotFollower;
using cpu::ShotRun;
using Offsets = std::span<const std::uint32_t>;
using Counts = std::unordered_map<std::string, std::uint64_t>;

/// Adds what shots read at their ends: the bits of their course, and those that are drawn now.
template <class T>
class BitCounter {
  public:
    explicit BitCounter(const ShotRun& run) : run_(run) {}

    void operator()(cpu::PybindLinAlgStateVectorCPU<T>& state, const Course& course,
                    std::uint64_t first, Offsets shots) {
        std::string text(course.bits.size(), '0');
        for (std::size_t i = 0; i < text.size(); ++i)
            text[i] = course.bits[i] ? '1' : '0';
        if (course.deferred.empty()) {
            counts_[text] += shots.size();
            return;
        }
        std::vector<unsigned int> qubits;
        for (const Measurement* const measurement : course.deferred)
            qubits.push_back(measurement->qubit);
        std::ranges::sort(qubits);
        qubits.erase(std::unique(qubits.begin(), qubits.end()), qubits.end());
        const std::uint64_t n_draws = run_.program.steps().n_draws;
        draws_.clear();
        for (const std::uint32_t shot : shots)
            draws_.push_back(ShotDraws(run_.options.seed, first + shot)[n_draws]);
        outcomes_.resize(shots.size());
        cpu::MadeDraws made{draws_.data()};
        cpu::pick_shots_state(cpu::amplitude_view(state.state.get(), state.nqubits),
                              outcomes_.data(), made, shots.size(), state.num_threads, qubits);
        std::vector<std::size_t> places;  // of each deferred bit in an outcome
        for (const Measurement* const measurement : course.deferred) {
            const auto place = std::ranges::find(qubits, measurement->qubit) - qubits.begin();
            places.push_back(qubits.size() - 1 - static_cast<std::size_t>(place));
        }
        for (std::size_t i = 0; i < shots.size(); ++i) {
            const ShotDraws draws(run_.options.seed, first + shots[i]);
            for (std::size_t k = 0; k < places.size(); ++k) {
                const Measurement& measurement = *course.deferred[k];
                bool value = outcomes_[i] >> places[k] & 1;
                const double wrong =
                    value ? measurement.error.zero_for_one : measurement.error.one_for_zero;
                if (wrong > 0 && draws.unit(measurement.draw + 1) < wrong) value = !value;
                text[measurement.clbit] = value ? '1' : '0';
            }
            ++counts_[text];
        }
    }

    const Counts& counts() const { return counts_; }

  private:
    const ShotRun& run_;
    Counts counts_;
    std::vector<std::uint64_t> draws_;
    std::vector<unsigned long long> outcomes_;
};

/// As many shares of the shots as there are workers, where each takes one.
std::size_t shares_for(const ShotProgram& program, const ShotOptions& options) {
    if (program.nqubits() >= min_shared_batch_qubits) return 1;
    return cpu::team_size(get_num_threads(options.threads));
}

/// Follows all shots in so many shares. `follow(job, begin, end, looks)` follows those of one.
template <class T, class Follow>
void follow_all(ShotRun& run, std::size_t shares, const Follow& follow) {
    const std::uint64_t shots = run.options.shots;
    const std::size_t n_jobs = std::min<std::uint64_t>(shares, shots);
    const auto caller = std::this_thread::get_id();
    const auto job = [&](const BatchJob<T>& job) {
        const cpu::Block own(shots, job.number, n_jobs, 1);
        try {
            follow(job, own.begin, own.end, std::this_thread::get_id() == caller);
        } catch (...) {
            run.stopped = true;
            throw;
        }
    };
    BatchOptions options;
    options.num_threads = run.options.threads;
    run_batch<T>(run.program.nqubits(), n_jobs, job, options);
}

}  // namespace

namespace cpu {

template <class T>
std::map<std::string, std::uint64_t> count_shots_on(const ShotProgram& program,
                                                    std::span<const double> values,
                                                    const ShotOptions& options,
                                                    std::size_t shares) {
    ShotRun run{program, final_measurements(program.steps()), values, options};
    std::map<std::string, std::uint64_t> total;
    std::mutex mutex;
    follow_all<T>(run, shares, [&](const auto& job, auto begin, auto end, bool looks) {
        BitCounter<T> counter(run);
        ShotFollower<T>(run, job.state, looks, std::ref(counter)).follow(begin, end);
        const std::lock_guard lock(mutex);
        for (const auto& [text, times] : counter.counts())
            total[text] += times;
    });
    return total;
}

template <class T>
std::vector<double> shot_expectations_on(const ShotProgram& program,
                                         const WObservable<T>& observable,
                                         std::span<const double> values, const ShotOptions& options,
                                         std::size_t shares) {
    // Measured qubits collapse before the observable sees them.
    ShotRun run{program, std::vector<bool>(program.steps().steps.size()), values, options};
    std::vector<double> results(options.shots);
    follow_all<T>(run, shares, [&](const auto& job, auto begin, auto end, bool looks) {
        const auto read = [&](auto& state, const Course&, std::uint64_t first, Offsets shots) {
            const double value{state.expectation_value(observable).real()};
            for (const std::uint32_t shot : shots)
                results[first + shot] = value;
        };
        ShotFollower<T>(run, job.state, looks, read).follow(begin, end);
    });
    return results;
}

#define PBLINALG_INSTANTIATE(T)                                                                 \
    template std::map<std::string, std::uint64_t> count_shots_on<T>(                            \
        const ShotProgram&, std::span<const double>, const ShotOptions&, std::size_t);          \
    template std::vector<double> shot_expectations_on<T>(                                       \
        const ShotProgram&, const WObservable<T>&, std::span<const double>, const ShotOptions&, \
        std::size_t);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace cpu

template <class T>
std::map<std::string, std::uint64_t> count_shots(const ShotProgram& program,
                                                 std::span<const double> values,
                                                 const ShotOptions& options) {
    return cpu::count_shots_on<T>(program, values, options, shares_for(program, options));
}

template <class T>
std::vector<double> shot_expectations(const ShotProgram& program, const WObservable<T>& observable,
                                      std::span<const double> values, const ShotOptions& options) {
    return cpu::shot_expectations_on<T>(program, observable, values, options,
                                        shares_for(program, options));
}

#define PBLINALG_INSTANTIATE(T)                                           \
    template std::map<std::string, std::uint64_t> count_shots<T>(         \
        const ShotProgram&, std::span<const double>, const ShotOptions&); \
    template std::vector<double> shot_expectations<T>(                    \
        const ShotProgram&, const WObservable<T>&, std::span<const double>, const ShotOptions&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg
