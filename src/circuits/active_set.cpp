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

/// Counts an operation that waits for the bits in `needs`. Of these a bit that joins the active
/// ones takes away itself alone.
/// @return false where `room` bits more cannot bring it near.
inline bool ActiveSetChooser::stays_open(Index needs, unsigned int room) {
    if (needs & never) return false;
    // With one bit missing when there is no more room, it still tells which bits are wanted.
    if (has_more_than_two(needs)) return count_bits(needs) <= room + 1;
    const unsigned int worth = (needs & (needs - 1)) == 0 ? full_worth : shared_worth;
    for_each_bit(needs, [&](unsigned int b) { gain_[b] += worth; });
    return true;
}

unsigned int ActiveSetChooser::look_at_needs(Index active, const Open& from, Open& open) {
    const unsigned int room = shape_.part_bits - count_bits(active);
    std::ranges::fill(gain_, 0);
    open.needs.resize(from.needs.size());
    Index* kept = open.needs.data();
    unsigned int taken = from.taken;
    for (const Index before : from.needs) {
        const Index needs = before & ~active;
        if (needs == 0) {
            ++taken;
        } else if (stays_open(needs, room)) {
            *kept++ = needs;
        }
    }
    open.needs.resize(static_cast<std::size_t>(kept - open.needs.data()));
    open.settled = true;
    return open.taken = taken;
}

unsigned int ActiveSetChooser::look(Index active, const Open& from, Open& open) {
    if (from.settled) return look_at_needs(active, from, open);
    // The bits that would have to be active, too, before an operation could ...
    Index before_change[64];  // ... change a qubit that it reads or mixes
    Index before_read[64];    // ... have a qubit read
    std::fill_n(before_change, shape_.n_bits, 0);
    std::fill_n(before_read, shape_.n_bits, 0);
    Index before_arithmetic = 0;
    std::ranges::fill(gain_, 0);
    const unsigned int room = shape_.part_bits - count_bits(active);
    unsigned int taken = from.taken, taken_for_good = from.taken;
    Index closed = ~low_mask(shape_.n_bits);  // what is on these bits waits for too many
    const std::size_t n = from.operations.size();
    open.operations.resize(n);
    open.needs.resize(n);
    open.settled = true;
    std::size_t kept = 0;
    const auto keep = [&](const Ahead& operation, Index needs) {
        open.operations[kept] = operation;
        open.needs[kept++] = needs;
        open.settled &= !operation.can_renumber;
    };
    for (std::size_t i = 0; i < n; ++i) {
        const Ahead operation = from.operations[i];
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
            // What selects it is no target any more.
            if (renumbered)
                for_each_bit(depends, [&](unsigned int b) { before_change[b] |= missing; });
            // With more active bits a whole part may no longer move.
            if (renumbered || shape_.whole_parts) {
                keep(operation, needs);
            } else {
                ++taken_for_good;
            }
            continue;
        }
        if (operation.arithmetic) before_arithmetic |= needs;
        for_each_bit(targets, [&](unsigned int b) {
            before_change[b] |= needs;
            before_read[b] |= needs;
        });
        for_each_bit(depends, [&](unsigned int b) { before_change[b] |= needs; });
        if (stays_open(needs, room)) {
            keep(operation, needs);
        } else {
            closed |= targets;
            if (closed == ~Index{0}) break;
        }
    }
    open.operations.resize(kept);
    open.needs.resize(kept);
    open.taken = taken_for_good;
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

/// Adds bits to a set.
/// @return what it takes in the end, 0 on the way of an earlier one.
unsigned int ActiveSetChooser::grow(Index& active) {
    for (const Open* from = &ahead_;; from = &grown_) {
        if (std::ranges::find(seen_, active) != seen_.end()) return 0;
        seen_.push_back(active);
        const unsigned int taken = look(active, *from, grown_);
        const Index joins = count_bits(active) < shape_.part_bits ? best_gain(active) : 0;
        if (joins == 0) return taken;
        active |= joins;
    }
}

/// Bits in the order in which operations ask for them.
Index ActiveSetChooser::first_come() const {
    Index active = low_mask(shape_.always);
    Index left_out_targets = 0, left_out_depends = 0;
    bool blocked = false;
    for (const Ahead& operation : ahead_.operations) {
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
    ahead_.operations.clear();
    ahead_.taken = 0;
    ahead_.settled = false;
    for (const Operation* const operation : upcoming) {
        ahead_.operations.push_back({operation->target_bits, operation->depends_on(),
                                     !operation->is_permutation(), operation->alone,
                                     shape_.can_renumber(*operation)});
    }
    Index best = first_come();
    compared_ = {best};
    if (shape_.max_starts == 0) return best;
    look(always, ahead_, ahead_);
    Index starts = 0;
    for (unsigned int i = 0; i < shape_.max_starts; ++i) {
        const Index start = best_gain(always | starts);
        if (start == 0) break;
        starts |= start;
    }
    unsigned int most = look(best, ahead_, grown_);
    if (most == upcoming.size()) return best;
    seen_.clear();
    for_each_bit(starts, [&](unsigned int b) {
        Index active = always | bit(b);
        const unsigned int taken = grow(active);
        if (taken > 0) compared_.push_back(active);
        if (taken > most) {
            most = taken;
            best = active;
        }
    });
    return best;
}

}  // namespace pblinalg::cpu
