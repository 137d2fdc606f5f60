// Counts and expectation values over shots, and how these are shared out among workers.
#include <algorithm>
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

/// Registers from this size on are worked on by all workers together.
constexpr unsigned int min_shared_qubits = 18;

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
        qubits.erase(std::ranges::unique(qubits).begin(), qubits.end());
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

/// Follows all shots, each worker with a reader of its own: `with_reader(use)` makes one and calls
/// `use(reader)`.
template <class T, class WithReader>
void follow_all(ShotRun& run, int workers, const WithReader& with_reader) {
    const std::uint64_t shots = run.options.shots;
    const bool shares_shots = run.program.nqubits() < min_shared_qubits;
    const int threads = shares_shots ? 1 : workers;
    const int followers = shares_shots
                              ? static_cast<int>(std::min<std::uint64_t>(
                                    cpu::team_size(workers), std::max<std::uint64_t>(shots, 1)))
                              : 1;
    cpu::run_team(followers, [&](int id, int team) {
        with_reader([&](const auto& reader) {
            const cpu::Block own(shots, static_cast<cpu::Index>(id), static_cast<cpu::Index>(team),
                                 1);
            ShotFollower<T>(run, threads, id == 0, reader).follow(own.begin, own.end);
        });
    });
}

}  // namespace

namespace cpu {

template <class T>
std::map<std::string, std::uint64_t> count_shots_on(const ShotProgram& program,
                                                    std::span<const double> values,
                                                    const ShotOptions& options, int workers) {
    ShotRun run{program, final_measurements(program.steps()), values, options};
    std::map<std::string, std::uint64_t> total;
    follow_all<T>(run, workers, [&](const auto& use) {
        BitCounter<T> counter(run);
        use(std::ref(counter));
#pragma omp critical(pblinalg_shots)
        for (const auto& [text, times] : counter.counts())
            total[text] += times;
    });
    return total;
}

template <class T>
std::vector<double> shot_expectations_on(const ShotProgram& program,
                                         const WObservable<T>& observable,
                                         std::span<const double> values, const ShotOptions& options,
                                         int workers) {
    // Measured qubits collapse before the observable sees them.
    ShotRun run{program, std::vector<bool>(program.steps().steps.size()), values, options};
    std::vector<double> results(options.shots);
    follow_all<T>(run, workers, [&](const auto& use) {
        use([&](auto& state, const Course&, std::uint64_t first, Offsets shots) {
            const double value{state.expectation_value(observable).real()};
            for (const std::uint32_t shot : shots)
                results[first + shot] = value;
        });
    });
    return results;
}

#define PBLINALG_INSTANTIATE(T)                                                                 \
    template std::map<std::string, std::uint64_t> count_shots_on<T>(                            \
        const ShotProgram&, std::span<const double>, const ShotOptions&, int);                  \
    template std::vector<double> shot_expectations_on<T>(                                       \
        const ShotProgram&, const WObservable<T>&, std::span<const double>, const ShotOptions&, \
        int);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace cpu

template <class T>
std::map<std::string, std::uint64_t> count_shots(const ShotProgram& program,
                                                 std::span<const double> values,
                                                 const ShotOptions& options) {
    return cpu::count_shots_on<T>(program, values, options, get_num_threads(options.threads));
}

template <class T>
std::vector<double> shot_expectations(const ShotProgram& program, const WObservable<T>& observable,
                                      std::span<const double> values, const ShotOptions& options) {
    return cpu::shot_expectations_on<T>(program, observable, values, options,
                                        get_num_threads(options.threads));
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
