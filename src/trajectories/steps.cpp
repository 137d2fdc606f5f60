#include "trajectories/steps.hpp"

#include "core/bits.hpp"

namespace pblinalg {
namespace cpu {
namespace {

/// Gates of a stretch with channels: few enough that making a list with what was drawn, and a plan
/// for it, concerns few gates besides, and that shots part late; enough for full passes.
constexpr std::size_t stretch_length = 128;

Index qubits_of(const GateList& gates) {
    Index mask = 0;
    for (const GateView gate : gates) {
        mask |= gate.controls.mask;
        for (const unsigned int qubit : gate.targets)
            mask |= bit(qubit);
    }
    return mask;
}

}  // namespace

Stretch& ShotSteps::open_stretch(bool for_channel) {
    // A condition that has just ended must not reach into what follows.
    const bool joins = !steps.empty() && std::holds_alternative<Stretch>(steps.back()) &&
                       steps.size() != first_free;
    if (joins) {
        Stretch& last = std::get<Stretch>(steps.back());
        const bool has_room =
            last.gates.size() < stretch_length || last.sites.empty() != for_channel;
        if (has_room && last.least_weight >= least_kept_weight) return last;
    }
    return std::get<Stretch>(steps.emplace_back(Stretch()));
}

std::vector<bool> final_measurements(const ShotSteps& program) {
    std::vector<bool> final(program.steps.size());
    std::vector<bool> read(program.n_clbits);
    Index acted = 0;
    for (std::size_t i = program.steps.size(); i-- > 0;) {
        const ShotStep& step = program.steps[i];
        if (const auto* const stretch = std::get_if<Stretch>(&step)) {
            acted |= qubits_of(stretch->gates);
            for (const ChannelSite& site : stretch->sites) {
                for (const unsigned int qubit : site.qubits)
                    acted |= bit(qubit);
            }
        } else if (const auto* const measurement = std::get_if<Measurement>(&step)) {
            final[i] = !(acted >> measurement->qubit & 1) && !read[measurement->clbit];
        } else if (const auto* const reset = std::get_if<ResetStep>(&step)) {
            acted |= bit(reset->qubit);
        } else {
            for (const ClassicalValue& value : std::get<Condition>(step).bits)
                read[value.clbit] = true;
        }
    }
    return final;
}

}  // namespace cpu

using cpu::ShotSteps;
using cpu::Stretch;

ShotProgram::ShotProgram(unsigned int nqubits, unsigned int n_clbits)
    : steps_(std::make_unique<ShotSteps>()) {
    steps_->nqubits = nqubits;
    steps_->n_clbits = n_clbits;
}

ShotProgram::ShotProgram(ShotProgram&&) noexcept = default;
ShotProgram& ShotProgram::operator=(ShotProgram&&) noexcept = default;
ShotProgram::~ShotProgram() = default;

ShotProgram& ShotProgram::add_gates(const GateList& gates, std::size_t begin, std::size_t end) {
    if (begin == 0 && end == gates.size() && end > 0) {
        Stretch& stretch = steps_->open_stretch(false);
        if (stretch.gates.empty() && stretch.sites.empty()) {
            // Copies share the plans of their list from here on.
            gates.plans();
            stretch.gates = stretch.undisturbed = gates;
            return *this;
        }
    }
    for (std::size_t i = begin; i < end; ++i) {
        Stretch& stretch = steps_->open_stretch(false);
        stretch.gates.append(gates[i]);
        stretch.undisturbed.append(gates[i]);
    }
    return *this;
}

ShotProgram& ShotProgram::add_channel(const Channel& channel, QubitList qubits) {
    Stretch& stretch = steps_->open_stretch(true);
    const cpu::ChannelParts& parts = channel.parts();
    stretch.sites.push_back({channel, std::vector<unsigned int>(qubits.begin(), qubits.end()),
                             stretch.gates.size(), steps_->n_draws++});
    append_operator(parts.operators[parts.usual], stretch.sites.back().qubits, stretch.undisturbed);
    if (!parts.is_mixture && parts.bound < 1) stretch.least_weight *= 1 - parts.bound;
    return *this;
}

ShotProgram& ShotProgram::add_measurement(unsigned int qubit, unsigned int clbit,
                                          ReadoutError error) {
    steps_->steps.emplace_back(cpu::Measurement{qubit, clbit, error, steps_->n_draws});
    steps_->n_draws += 2;
    return *this;
}

ShotProgram& ShotProgram::add_reset(unsigned int qubit) {
    steps_->steps.emplace_back(cpu::ResetStep{qubit, steps_->n_draws++});
    return *this;
}

ShotProgram& ShotProgram::begin_condition(std::span<const ClassicalValue> bits) {
    steps_->open_conditions.push_back(steps_->steps.size());
    steps_->steps.emplace_back(cpu::Condition{{bits.begin(), bits.end()}, 0});
    return *this;
}

ShotProgram& ShotProgram::end_condition() {
    const std::size_t begin = steps_->open_conditions.back();
    steps_->open_conditions.pop_back();
    steps_->first_free = steps_->steps.size();
    std::get<cpu::Condition>(steps_->steps[begin]).otherwise = steps_->first_free;
    return *this;
}

unsigned int ShotProgram::nqubits() const {
    return steps_->nqubits;
}

unsigned int ShotProgram::n_clbits() const {
    return steps_->n_clbits;
}

}  // namespace pblinalg
