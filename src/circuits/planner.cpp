#include "circuits/planner.hpp"

#include <algorithm>
#include <utility>

namespace pblinalg::cpu {

std::size_t Reached::gates_done(std::span<const Operation> operations, std::size_t n_gates) const {
    std::size_t first = left_out.empty() ? front : left_out.front();
    if (first == operations.size()) return n_gates;
    while (first > 0 && operations[first].gates_before == Operation::inside_a_gate)
        --first;
    return operations[first].gates_before;
}

std::size_t Reached::end_of_gate(std::span<const Operation> operations) const {
    std::size_t end = front;
    while (end < operations.size() && operations[end].gates_before == Operation::inside_a_gate)
        ++end;
    return end;
}

std::vector<Operation> Reached::rest(std::span<const Operation> operations) const {
    std::vector<Operation> list;
    for (const std::uint32_t i : left_out)
        list.push_back(operations[i]);
    for (std::size_t i = front; i < end_of_gate(operations); ++i)
        list.push_back(operations[i]);
    return list;
}

std::size_t Reached::gates_begun(std::span<const Operation> operations, std::size_t n_gates) const {
    const std::size_t end = end_of_gate(operations);
    return end == operations.size() ? n_gates : operations[end].gates_before;
}

bool Planner::next(Pass& pass) {
    if (!next(pass, shape_.reach)) return false;
    // The active bits may be those that operations too far ahead ask for.
    return !pass.operations.empty() || next(pass, 0);
}

/// @param reach  operations looked at to choose the active bits, all those left out besides.
bool Planner::next(Pass& pass, std::size_t reach) {
    if (left_out_.empty() && front_ == operations_.size()) return false;
    if (front_ == 0 && shape_.first_active != 0) {
        fill(pass, shape_.first_active);
        return true;
    }
    upcoming_ = left_out_;
    for (std::size_t i = front_; i < operations_.size() && upcoming_.size() < reach; ++i)
        upcoming_.push_back(&operations_[i]);
    Index active = chooser_.choose(upcoming_);
    if (shape_.foresees && chooser_.compared().size() > 1) active = choose_with_foresight();
    fill(pass, active);
    return true;
}

/// Of the sets compared, the one with which two passes take the most.
Index Planner::choose_with_foresight() const {
    Index best = chooser_.compared().front();
    std::size_t most = 0;
    for (const Index active : chooser_.compared()) {
        Planner trial(*this);
        trial.shape_.foresees = false;
        Pass pass;
        trial.fill(pass, active);
        if (pass.operations.empty()) continue;
        std::size_t taken = pass.operations.size();
        // To need no second pass counts, too.
        taken += trial.next(pass) ? pass.operations.size() : 1;
        if (taken > most) {
            most = taken;
            best = active;
        }
    }
    return best;
}

/// Takes as many operations as run with the `active` bits.
void Planner::fill(Pass& pass, Index active) {
    pass.active = active;
    pass.operations.clear();
    pass.alone = false;
    std::swap(left_out_, deferred_);
    left_out_.clear();
    left_out_targets_ = left_out_depends_ = renumbered_depends_ = renumbered_targets_ = 0;
    arithmetic_blocked_ = false;
    for (const Operation* const operation : deferred_)
        take_or_leave(*operation, pass);
    while (front_ < operations_.size() && left_out_.size() < shape_.look_ahead && !pass.alone &&
           pass.operations.size() < shape_.max_length) {
        take_or_leave(operations_[front_++], pass);
    }
    if (std::ranges::all_of(pass.operations, [&](const Pass::Entry& entry) {
            return shape_.can_renumber(*entry.operation, pass.active);
        })) {
        for (auto& entry : pass.operations)
            entry.renumbers = true;
    }
    // Unused room goes to the lowest bits: longer runs.
    while (count_bits(pass.active) < shape_.part_bits)
        pass.active |= lowest_bit(~pass.active);
}

Reached Planner::reached(std::span<const Pass::Entry> waiting) const {
    const auto number = [&](const Operation* operation) {
        return static_cast<std::uint32_t>(operation - operations_.data());
    };
    Reached reached{{}, static_cast<std::uint32_t>(front_)};
    if (!waiting.empty()) reached.front = number(waiting.front().operation);
    for (const Operation* const operation : left_out_) {
        if (number(operation) < reached.front) reached.left_out.push_back(number(operation));
    }
    // What nothing has overtaken yet is as good as not looked at.
    while (!reached.left_out.empty() && reached.left_out.back() + 1 == reached.front) {
        reached.left_out.pop_back();
        --reached.front;
    }
    return reached;
}

bool Planner::take(const Operation& operation, Pass& pass) {
    const Index targets = operation.target_bits;
    const bool commutes = !(targets & (left_out_targets_ | left_out_depends_)) &&
                          !(operation.depends_on() & left_out_targets_) &&
                          (operation.is_permutation() || !arithmetic_blocked_);
    if (!commutes || pass.alone || pass.operations.size() >= shape_.max_length) return false;
    if (operation.alone) {
        if (!pass.operations.empty()) return false;
        pass.alone = true;
        pass.operations.push_back({&operation, false});
        return true;
    }
    const bool fits = count_bits(pass.active | targets) <= shape_.part_bits;
    // The target of an X needs no look at `renumbered_depends_` when it renumbers: it was inactive
    // with no room left, so no later operation can make it active.
    if (fits && !(targets & renumbered_depends_) && !(operation.controls & renumbered_targets_)) {
        pass.active |= targets;
        pass.operations.push_back({&operation, false});
        return true;
    }
    if (!shape_.can_renumber(operation, pass.active)) return false;
    if (!shape_.whole_parts) {
        // Amplitudes that differ in a selecting bit alone may now lie in other groups.
        renumbered_depends_ |= operation.selects | (operation.action == Action::SWAP ? targets : 0);
        renumbered_targets_ |= targets;
    }
    pass.operations.push_back({&operation, true});
    return true;
}

void Planner::take_or_leave(const Operation& operation, Pass& pass) {
    if (take(operation, pass)) return;
    left_out_.push_back(&operation);
    left_out_targets_ |= operation.target_bits;
    left_out_depends_ |= operation.depends_on();
    arithmetic_blocked_ |= shape_.keeps_order && !operation.is_permutation();
}

}  // namespace pblinalg::cpu
