// The steps of a shot program, as `ShotFollower` goes through them.
#pragma once

#include <pblinalg/shots.hpp>
#include <variant>
#include <vector>

#include "trajectories/channel.hpp"

namespace pblinalg::cpu {

/// States whose squared norm may have fallen below this are divided by it.
inline constexpr double least_kept_weight = 0x1p-40;

/// A channel between the gates of a stretch.
struct ChannelSite {
    Channel channel;
    std::vector<unsigned int> qubits;
    std::size_t gates_before;
    std::uint64_t draw;  ///< number of its draw
};

/// Gates with channels between them.
struct Stretch {
    GateList gates;
    std::vector<ChannelSite> sites;
    /// The gates with the usual operator of every channel. Most shots take it as it is, so that one
    /// plan serves them all.
    GateList undisturbed;
    /// Below the squared norm that usual operators, which are not divided by it, leave of a state.
    double least_weight = 1;
};

struct Measurement {
    unsigned int qubit;
    unsigned int clbit;
    ReadoutError error;
    std::uint64_t draw;  ///< numbers of two draws: the outcome, and whether it is read wrongly
};

struct ResetStep {
    unsigned int qubit;
    std::uint64_t draw;
};

/// Goes on at step `otherwise` unless all bits read their values.
struct Condition {
    std::vector<ClassicalValue> bits;
    std::size_t otherwise;
};

using ShotStep = std::variant<Stretch, Measurement, ResetStep, Condition>;

struct ShotSteps {
    unsigned int nqubits;
    unsigned int n_clbits;
    std::vector<ShotStep> steps;
    std::vector<std::size_t> open_conditions;
    /// Where the last condition that was closed goes on: no stretch before it takes more gates.
    std::size_t first_free = 0;
    std::uint64_t n_draws = 0;

    /// The stretch that takes the next gates or the next channel.
    Stretch& open_stretch(bool for_channel);
};

/// For each step whether it is a measurement after which nothing acts on the qubit and nothing
/// reads the bit: those of a shot are drawn together at its end.
std::vector<bool> final_measurements(const ShotSteps& program);

}  // namespace pblinalg::cpu
