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

bool has_more_than_two(Index bits) {
    bits &= bits - 1;
    return (bits & (bits - 1)) != 0;
}

}  // namespace

unsigned int ActiveSetChooser::look(Index active) {
    // The bits that would have to be active, too, before an operation could ...
    Index before_change[64];  // ... change a qubit that it reads or mixes
    Index before_read[64];    // ... have a qubit read
    std::fill_n(before_change, shape_.n_bits, 0);
    std::fill_n(before_read, shape_.n_bits, 0);
    Index before_arithmetic = 0;
    std::ranges::fill(gain_, 0);
    unsigned int taken = 0;
    Index closed = ~low_mask(shape_.n_bits);  // what is on these bits waits for several bits
    for (const Ahead& operation : ahead_) {
        const Index targets = operation.targets;
        const Index depends = operation.depends;
        const Index missing = targets & ~active;
        Index needs = operation.arithmetic && shape_.keeps_order ? before_arithmetic : 0;
        for_each_bit(targets, [&](unsigned int b) { needs |= before_change[b]; });
        for_each_bit(depends, [&](unsigned int b) { needs |= before_read[b]; });
        const bool renumbered = missing != 0 && renumbers(operation, active);
        if (operation.alone) needs |= never;
        if (missing != 0 && !renumbered) needs |= missing;
        if (needs == 0) {
            ++taken;
            if (renumbered) {
                // What selects it is no target any more.
                for_each_bit(depends, [&](unsigned int b) { before_change[b] |= missing; });
            }
            continue;
        }
        if (operation.arithmetic) before_arithmetic |= needs;
        for_each_bit(targets, [&](unsigned int b) {
            before_change[b] |= needs;
            before_read[b] |= needs;
            if (has_more_than_two(before_read[b]) || (before_read[b] & never)) closed |= bit(b);
        });
        if (closed == ~Index{0}) break;
        for_each_bit(depends, [&](unsigned int b) { before_change[b] |= needs; });
        if ((needs & never) || has_more_than_two(needs)) continue;
        const unsigned int worth = (needs & (needs - 1)) == 0 ? full_worth : shared_worth;
        for_each_bit(needs, [&](unsigned int b) { gain_[b] += worth; });
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

/// @return 0 on the way of an earlier set.
Index ActiveSetChooser::grow(Index active) {
    while (count_bits(active) < shape_.part_bits) {
        if (std::ranges::find(seen_, active) != seen_.end()) return 0;
        seen_.push_back(active);
        look(active);
        const Index joins = best_gain(active);
        if (joins == 0) break;
        active |= joins;
    }
    return active;
}

/// Bits in the order in which operations ask for them.
Index ActiveSetChooser::first_come() const {
    Index active = low_mask(shape_.always);
    Index left_out_targets = 0, left_out_depends = 0;
    bool blocked = false;
    for (const Ahead& operation : ahead_) {
        const Index targets = operation.targets;
        const Index depends = operation.depends;
        if (operation.alone) break;
        if (!(targets & (left_out_targets | left_out_depends)) && !(depends & left_out_targets) &&
            !(operation.arithmetic && shape_.keeps_order && blocked)) {
            if (count_bits(active | targets) <= shape_.part_bits) {
                active |= targets;
                continue;
            }
            if (renumbers(operation, active)) continue;
        }
        blocked |= operation.arithmetic;
        left_out_targets |= targets;
        left_out_depends |= depends;
    }
    return active;
}

Index ActiveSetChooser::choose(std::span<const Operation* const> upcoming) {
    const Index always = low_mask(shape_.always);
    if (shape_.part_bits == shape_.n_bits) return low_mask(shape_.n_bits);
    ahead_.clear();
    for (const Operation* const operation : upcoming) {
        ahead_.push_back({operation->target_bits, operation->depends_on(),
                          !operation->is_permutation(), operation->alone,
                          shape_.can_renumber(*operation)});
    }
    Index best = first_come();
    if (shape_.max_starts == 0) return best;
    unsigned int most = look(best);
    if (most == upcoming.size()) return best;
    look(always);
    Index starts = 0;
    for (unsigned int i = 0; i < shape_.max_starts; ++i) {
        const Index start = best_gain(always | starts);
        if (start == 0) break;
        starts |= start;
    }
    seen_.clear();
    for_each_bit(starts, [&](unsigned int b) {
        const Index active = grow(always | bit(b));
        if (active == 0 || active == best) return;
        const unsigned int taken = look(active);
        if (taken > most) {
            most = taken;
            best = active;
        }
    });
    return best;
}

}  // namespace pblinalg::cpu
