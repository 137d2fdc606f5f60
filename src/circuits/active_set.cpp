#include "circuits/active_set.hpp"

#include <algorithm>

namespace pblinalg::cpu {
namespace {

/// Stands for a bit that cannot become active: what waits for it waits for another pass.
constexpr Index never = bit(63);

/// What an operation is worth. One that waits for a single bit counts in full for that bit; for
/// each of two bits it counts a little, to tell which way to grow.
constexpr unsigned int full_worth = 8;
constexpr unsigned int shared_worth = 1;

}  // namespace

unsigned int ActiveSetChooser::look(std::span<const Operation* const> upcoming, Index active) {
    // The bits that would have to be active, too, before an operation could ...
    Index before_change[64] = {};  // ... change a qubit that it reads or mixes
    Index before_read[64] = {};    // ... have a qubit read
    Index before_arithmetic = 0;
    std::ranges::fill(gain_, 0);
    unsigned int taken = 0;
    Index closed = ~low_mask(shape_.n_bits);  // what is on these bits waits for several bits
    for (const Operation* const operation : upcoming) {
        const Index targets = operation->target_bits;
        const Index depends = operation->depends_on();
        const bool arithmetic = !operation->is_permutation();
        const Index missing = targets & ~active;
        Index needs = arithmetic && shape_.keeps_order ? before_arithmetic : 0;
        for_each_bit(targets, [&](unsigned int b) { needs |= before_change[b]; });
        for_each_bit(depends, [&](unsigned int b) { needs |= before_read[b]; });
        const bool renumbers = missing != 0 && shape_.can_renumber(*operation, active);
        if (operation->alone) needs |= never;
        if (missing != 0 && !renumbers) needs |= missing;
        if (needs == 0) {
            ++taken;
            if (renumbers) {
                // What selects it is no target any more.
                for_each_bit(depends, [&](unsigned int b) { before_change[b] |= missing; });
            }
            continue;
        }
        if (arithmetic) before_arithmetic |= needs;
        for_each_bit(targets, [&](unsigned int b) {
            before_change[b] |= needs;
            before_read[b] |= needs;
            if (count_bits(before_read[b]) > 2 || (before_read[b] & never)) closed |= bit(b);
        });
        if (closed == ~Index{0}) break;
        for_each_bit(depends, [&](unsigned int b) { before_change[b] |= needs; });
        if (needs & never) continue;
        const unsigned int n = count_bits(needs);
        if (n <= 2) {
            for_each_bit(needs,
                         [&](unsigned int b) { gain_[b] += n == 1 ? full_worth : shared_worth; });
        }
    }
    return taken;
}

Index ActiveSetChooser::best_gain(Index active) const {
    Index best = 0;
    unsigned int most = 0;
    for_each_bit(low_mask(shape_.n_bits) & ~active, [&](unsigned int b) {
        if (gain_[b] > most) {
            most = gain_[b];
            best = bit(b);
        }
    });
    return best;
}

Index ActiveSetChooser::grow(std::span<const Operation* const> upcoming, Index active) {
    while (count_bits(active) < shape_.part_bits) {
        look(upcoming, active);
        const Index joins = best_gain(active);
        if (joins == 0) break;
        active |= joins;
    }
    return active;
}

/// Bits in the order in which operations ask for them.
Index ActiveSetChooser::first_come(std::span<const Operation* const> upcoming) const {
    Index active = low_mask(shape_.always);
    Index left_out_targets = 0, left_out_depends = 0;
    bool blocked = false;
    for (const Operation* const operation : upcoming) {
        const Index targets = operation->target_bits;
        const Index depends = operation->depends_on();
        const bool arithmetic = !operation->is_permutation();
        if (operation->alone) break;
        if (!(targets & (left_out_targets | left_out_depends)) && !(depends & left_out_targets) &&
            !(arithmetic && shape_.keeps_order && blocked)) {
            if (count_bits(active | targets) <= shape_.part_bits) {
                active |= targets;
                continue;
            }
            if (shape_.can_renumber(*operation, active)) continue;
        }
        blocked |= arithmetic;
        left_out_targets |= targets;
        left_out_depends |= depends;
    }
    return active;
}

Index ActiveSetChooser::choose(std::span<const Operation* const> upcoming) {
    const Index always = low_mask(shape_.always);
    if (shape_.part_bits == shape_.n_bits) return low_mask(shape_.n_bits);
    Index best = first_come(upcoming);
    if (shape_.max_starts == 0) return best;
    unsigned int most = look(upcoming, best);
    if (most == upcoming.size()) return best;
    const auto compare = [&](Index active) {
        const unsigned int taken = look(upcoming, active);
        if (taken > most) {
            most = taken;
            best = active;
        }
    };
    look(upcoming, always);
    Index starts = 0;
    for (unsigned int i = 0; i < shape_.max_starts; ++i) {
        const Index start = best_gain(always | starts);
        if (start == 0) break;
        starts |= start;
    }
    for_each_bit(starts, [&](unsigned int b) { compare(grow(upcoming, always | bit(b))); });
    return best;
}

}  // namespace pblinalg::cpu
