// A shot program followed through many shots at once: those that have drawn alike share a state.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <pblinalg/shots.hpp>
#include <pblinalg/state_vector_cpu.hpp>
#include <span>
#include <utility>
#include <vector>

#include "trajectories/shot_draws.hpp"
#include "trajectories/steps.hpp"

namespace pblinalg::cpu {

/// How far shots have come, and what they have read.
struct Course {
    std::size_t step = 0;
    std::size_t site = 0;     ///< channels of the stretch at `step` that are behind them
    bool undecided = false;   ///< Kraus operators of that site are to be drawn
    double least_weight = 1;  ///< below the squared norm of the state
    std::vector<bool> bits;
    std::vector<const Measurement*> deferred;  ///< to be drawn at the end, one for each bit
};

/// What the workers of one run share.
struct ShotRun {
    const ShotProgram& program;
    std::vector<bool> final_measurements;  ///< by step; none are deferred where a state is wanted
    std::span<const double> values;
    const ShotOptions& options;
    std::atomic<std::uint64_t> done = 0;
    std::atomic<bool> stopped = false;
};

/// What one worker does.
template <class T>
class ShotFollower {
  public:
    using State = PybindLinAlgStateVectorCPU<T>;
    /// Offsets from the first shot of a batch.
    using Shots = std::vector<std::uint32_t>;
    /// Told the state that shots end in, and the number of the first shot of the batch.
    using Reader = std::function<void(State&, const Course&, std::uint64_t first,
                                      std::span<const std::uint32_t>)>;

    /// @param state  on which shots begin; copies of it ask for as many workers.
    /// @param looks  calls `options.between`.
    ShotFollower(ShotRun& run, State& state, bool looks, Reader reader);

    /// Follows shots [begin, end) to their ends.
    void follow(std::uint64_t begin, std::uint64_t end);

  private:
    /// An operator that a channel has drawn, or `undecided`.
    struct Event {
        std::size_t site;
        std::size_t op;
        friend auto operator<=>(const Event&, const Event&) = default;
    };
    static constexpr std::size_t undecided = ~std::size_t{0};

    /// Shots that go the same way from a step.
    struct Branch {
        Shots shots;
        std::vector<Event> events;  ///< of a stretch
        std::size_t choice = 0;     ///< of an operator
        bool outcome = false;       ///< of a measurement or reset
        bool read = false;          ///< what the measurement writes
        /// The squared norm of what is kept; 0 where nothing is to be removed.
        double weight = 0;
    };
    using Branches = std::vector<Branch>;

    Shots follow_from(State& state, Course course, Shots shots, std::size_t copies);
    void pass_by(Course& course) const;
    void write_bit(Course& course, const Measurement& measurement, bool value) const;
    Branches branches_of(State& state, Course& course, Shots shots);
    Branches branches_of_stretch(const Stretch& stretch, const Course& course, Shots shots) const;
    Branches branches_of_channel(const State& state, const ChannelSite& site, Shots shots) const;
    Branches branches_of_outcome(State& state, unsigned int qubit, std::uint64_t draw,
                                 const ReadoutError* error, Shots shots) const;
    void take(State& state, Course& course, const Branch& branch);
    void run_stretch(State& state, const Stretch& stretch, Course& course,
                     const std::vector<Event>& events);
    void collapse_to(State& state, unsigned int qubit, const Branch& branch) const;
    void run_gates(State& state, const GateList& gates);
    void normalise(State& state, Course& course) const;
    bool look();

    ShotDraws draws(std::uint32_t shot) const {
        return ShotDraws(run_.options.seed, first_ + shot);
    }

    std::unique_ptr<State> copy_of(const State& state);

    ShotRun& run_;
    const ShotSteps& program_;
    State& root_;
    int threads_;
    bool looks_;
    Reader reader_;
    std::uint64_t first_ = 0;
    std::vector<std::unique_ptr<State>> unused_;
};

}  // namespace pblinalg::cpu
