#include "circuits/operations.hpp"

#include <algorithm>
#include <bit>

namespace pblinalg::cpu {
namespace {

/// How far a CNOT looks for its twin.
constexpr std::size_t fold_reach = 16;

bool is_cnot(const Operation& operation) {
    return operation.action == Action::X && operation.selects != 0 && operation.controls == 0;
}

/// The index of the CNOT that undoes `operations[first]` with nothing but foldable diagonals in
/// between, or 0.
std::size_t find_twin(const std::vector<Operation>& operations, std::size_t first) {
    const Operation& opening = operations[first];
    const std::size_t end = std::min(operations.size(), first + fold_reach);
    for (std::size_t i = first + 1; i < end; ++i) {
        const Operation& next = operations[i];
        if (is_cnot(next) && next.target_bits == opening.target_bits &&
            next.selects == opening.selects && next.inverted == opening.inverted) {
            return i;
        }
        const bool on_target = next.depends_on() & opening.target_bits;
        const bool folds =
            next.selects == opening.target_bits && !next.alone && next.action != Action::table;
        if (!next.is_diagonal() || (on_target && !folds)) return 0;
    }
    return 0;
}

}  // namespace

Operation cnot(unsigned int control, unsigned int target) {
    return {.action = Action::X,
            .targets = {static_cast<unsigned char>(target), 0},
            .target_bits = bit(target),
            .selects = bit(control)};
}

void fold_parity_diagonals(std::vector<Operation>& operations) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < operations.size(); ++i) {
        const std::size_t twin = is_cnot(operations[i]) ? find_twin(operations, i) : 0;
        if (twin == 0) {
            operations[kept++] = operations[i];
            continue;
        }
        const Operation opening = operations[i];
        std::uint32_t gates_before = opening.gates_before;
        for (++i; i < twin; ++i) {
            Operation folded = operations[i];
            if (folded.selects & opening.target_bits) {
                folded.selects ^= opening.selects;
                folded.inverted ^= opening.inverted;
                // A bit that a control holds selects nothing any more.
                const Index held = folded.selects & folded.controls;
                folded.inverted ^= has_odd_parity(held & folded.control_values);
                folded.selects &= ~held;
            }
            folded.gates_before = gates_before;
            gates_before = Operation::inside_a_gate;
            operations[kept++] = folded;
        }
        // Where nothing stays of the pair, the next operation finds the gates that it found.
        if (gates_before != Operation::inside_a_gate && twin + 1 < operations.size()) {
            std::uint32_t& next = operations[twin + 1].gates_before;
            next = next == Operation::inside_a_gate ? gates_before : next;
        }
    }
    operations.resize(kept);
}

Relocation::Relocation(Index active) : active_(active), place_{} {
    unsigned char place = 0;
    for (Index rest = active; rest != 0; rest &= rest - 1)
        place_[std::countr_zero(rest)] = place++;
}

Index Relocation::local(Index bits) const {
    Index result = 0;
    for (Index rest = bits & active_; rest != 0; rest &= rest - 1)
        result |= bit(place_[std::countr_zero(rest)]);
    return result;
}

Operation Relocation::operator()(const Operation& operation) const {
    Operation moved = operation;
    for (unsigned char& target : moved.targets)
        target = place_[target];
    moved.target_bits = local(operation.target_bits);
    moved.selects = local(operation.selects);
    moved.controls = local(operation.controls);
    moved.control_values = local(operation.control_values);
    moved.state = {operation.selects & ~active_, operation.controls & ~active_,
                   operation.control_values & ~active_};
    return moved;
}

}  // namespace pblinalg::cpu
