#include "circuits/operations.hpp"

#include <algorithm>
#include <bit>
#include <string_view>
#include <utility>

#include "gates/formulas.hpp"

namespace pblinalg::cpu {
namespace {

template <class T>
Operation<T> mixing(GateKind kind, unsigned int target) {
    return {.kind = kind, .n_targets = 1, .targets = {target, 0}, .inverted = true};
}

template <class T>
Operation<T> diagonal(GateKind kind, unsigned int qubit) {
    return {.kind = kind, .selects = bit(qubit)};
}

template <class T>
Operation<T> cnot(unsigned int control, unsigned int target) {
    Operation<T> operation = mixing<T>(GateKind::X, target);
    operation.selects = bit(control);
    operation.inverted = false;
    return operation;
}

template <class T>
Operation<T> with_factors(Operation<T> operation, const std::array<std::complex<T>, 2>& factors) {
    std::copy(factors.begin(), factors.end(), operation.factors);
    return operation;
}

/// How far a CNOT looks for its twin.
constexpr std::size_t fold_reach = 16;

template <class T>
bool is_cnot(const Operation<T>& operation) {
    return operation.kind == GateKind::X && operation.selects != 0;
}

/// The index of the CNOT that undoes `operations[first]` with nothing but foldable diagonals in
/// between, or 0.
template <class T>
std::size_t find_twin(const std::vector<Operation<T>>& operations, std::size_t first) {
    const Operation<T>& opening = operations[first];
    const std::size_t end = std::min(operations.size(), first + fold_reach);
    for (std::size_t i = first + 1; i < end; ++i) {
        const Operation<T>& next = operations[i];
        if (is_cnot(next) && next.targets[0] == opening.targets[0] &&
            next.selects == opening.selects) {
            return i;
        }
        const bool on_target = next.selects & opening.target_bits();
        if (!next.is_diagonal() || (on_target && next.selects != opening.target_bits())) return 0;
    }
    return 0;
}

}  // namespace

template <class T>
bool append_operation(const PybindLinAlgWCircuit<T>& circuit, std::size_t i,
                      std::vector<Operation<T>>& operations) {
    const std::string_view name = circuit.gate_names[i];
    const unsigned int* const qubits = circuit.gate_qubits[i].data();
    const T* const params = circuit.gate_params[i].data();
    const auto append = [&](const Operation<T>& operation) {
        operations.push_back(operation);
        return true;
    };
    if (name == "H") return append(mixing<T>(GateKind::H, qubits[0]));
    if (name == "X") return append(mixing<T>(GateKind::X, qubits[0]));
    if (name == "Y") return append(mixing<T>(GateKind::Y, qubits[0]));
    if (name == "Z") return append(diagonal<T>(GateKind::Z, qubits[0]));
    if (name == "RX") {
        return append(with_factors(mixing<T>(GateKind::RX, qubits[0]), GateRX::factors(params[0])));
    }
    if (name == "RY") {
        return append(with_factors(mixing<T>(GateKind::RY, qubits[0]), GateRY::factors(params[0])));
    }
    if (name == "RZ") {
        return append(with_factors(diagonal<T>(GateKind::RZ, qubits[0]),
                                   GateRZ<T, true>(params[0]).diagonal));
    }
    if (name == "PH") {
        return append(with_factors<T>(diagonal<T>(GateKind::PH, qubits[0]),
                                      {T(1), GatePH<T>(params[0]).phase}));
    }
    if (name == "T") return append(diagonal<T>(GateKind::T, qubits[0]));
    if (name == "CNOT") return append(cnot<T>(qubits[0], qubits[1]));
    if (name == "SWAP") {
        Operation<T> operation = mixing<T>(GateKind::SWAP, qubits[0]);
        operation.n_targets = 2;
        operation.targets[1] = qubits[1];
        return append(operation);
    }
    return false;
}

template <class T>
void fold_parity_diagonals(std::vector<Operation<T>>& operations) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < operations.size(); ++i) {
        const std::size_t twin = is_cnot(operations[i]) ? find_twin(operations, i) : 0;
        if (twin == 0) {
            operations[kept++] = operations[i];
            continue;
        }
        const Operation<T> opening = operations[i];
        for (++i; i < twin; ++i) {
            Operation<T> folded = operations[i];
            if (folded.selects & opening.target_bits()) folded.selects ^= opening.selects;
            operations[kept++] = folded;
        }
    }
    operations.resize(kept);
}

Relocation::Relocation(Index active) : active_(active), place_{} {
    unsigned char place = 0;
    for (Index rest = active; rest != 0; rest &= rest - 1) {
        place_[std::countr_zero(rest)] = place++;
    }
}

template <class T>
Operation<T> Relocation::operator()(const Operation<T>& operation) const {
    Operation<T> moved = operation;
    for (unsigned int p = 0; p < operation.n_targets; ++p) {
        moved.targets[p] = place_[operation.targets[p]];
    }
    moved.selects = 0;
    for (Index rest = operation.selects & active_; rest != 0; rest &= rest - 1) {
        moved.selects |= bit(place_[std::countr_zero(rest)]);
    }
    moved.state_selects = operation.selects & ~active_;
    return moved;
}

/// SWAP as CNOTs: calls `body` for each.
template <class T, class Body>
void as_cnots(const Operation<T>& swap, const Body& body) {
    const unsigned int a = swap.targets[0], b = swap.targets[1];
    body(cnot<T>(a, b));
    body(cnot<T>(b, a));
    body(cnot<T>(a, b));
}

template <class T>
typename StepWriter<T>::Parity& StepWriter<T>::Parity::operator^=(const Parity& other) {
    tile ^= other.tile;
    state ^= other.state;
    inverted ^= other.inverted;
    return *this;
}

template <class T>
void StepWriter<T>::begin(Index active) {
    rows_ = active & ~lanes_;
    first_ = steps_.size();
    renumbered_ = false;
}

template <class T>
typename StepWriter<T>::Parity StepWriter<T>::selection(const Operation<T>& operation) const {
    if (!renumbered_) return {operation.selects, operation.state_selects, operation.inverted};
    Parity parity{0, operation.state_selects, operation.inverted};
    for (Index rest = operation.selects; rest != 0; rest &= rest - 1)
        parity ^= numbers_[std::countr_zero(rest)];
    return parity;
}

template <class T>
void StepWriter<T>::renumber(const Operation<T>& operation) {
    if (operation.kind == GateKind::SWAP) {
        return as_cnots(operation, [&](const Operation<T>& part) { renumber(part); });
    }
    if (!renumbered_) {
        renumbered_ = true;
        for (unsigned int b = 0; b < max_tile_bits; ++b)
            numbers_[b] = {bit(b), 0, false};
        const Placement unchanged = placements_.back();
        placements_.push_back(unchanged);
    }
    const unsigned int target = operation.targets[0];
    numbers_[target] ^= selection(operation);
    Placement& placement = placements_.back();
    const unsigned short place = placement.of_tile_bit[target];
    for (Index rest = operation.selects; rest != 0; rest &= rest - 1)
        placement.of_tile_bit[std::countr_zero(rest)] ^= place;
    for (Index rest = operation.state_selects; rest != 0; rest &= rest - 1)
        placement.of_state_bit[std::countr_zero(rest)] ^= place;
    if (operation.inverted) placement.origin ^= place;
}

template <class T>
void StepWriter<T>::append(const Operation<T>& operation) {
    const unsigned int target = operation.targets[0];
    if (operation.kind == GateKind::SWAP) {
        as_cnots(operation, [&](const Operation<T>& part) { append(part); });
    } else if (!operation.is_permutation() && !operation.is_diagonal() && (lanes_ & bit(target))) {
        // A target inside vectors changes places with the lowest row bit for the time.
        const auto row = static_cast<unsigned int>(std::countr_zero(rows_));
        Operation<T> moved = operation;
        moved.targets[0] = row;
        exchange_with_row(target);
        push(moved);
        exchange_with_row(target);
    } else {
        push(operation);
    }
}

template <class T>
void StepWriter<T>::push(const Operation<T>& operation) {
    const Parity selects = selection(operation);
    const unsigned int lane_pattern = parity_pattern(selects.tile & lanes_);
    const unsigned int row_pattern =
        parity_pattern(extract_bits(selects.tile, rows_)) ^ (selects.inverted ? ~0u : 0u);
    const unsigned int target = operation.targets[0];
    const unsigned int place = operation.is_diagonal()  ? 0
                               : (lanes_ & bit(target)) ? 4 + target
                                                        : count_bits(rows_ & low_mask(target));
    const std::complex<T>* const f = operation.factors;
    steps_.push_back({.factors = {f[0].real(), f[0].imag(), f[1].real(), f[1].imag()},
                      .tile_selects = selects.tile & ~(rows_ | lanes_),
                      .state_selects = selects.state,
                      .lane_pattern = static_cast<unsigned short>(lane_pattern),
                      .row_pattern = static_cast<unsigned char>(row_pattern),
                      .action = static_cast<unsigned char>(
                          step_action(operation.kind, place, lane_pattern != 0))});
}

template <class T>
void StepWriter<T>::exchange_with_row(unsigned int lane_bit) {
    const auto action = static_cast<unsigned char>(step_action(GateKind::SWAP, lane_bit));
    if (steps_.size() > first_ && steps_.back().action == action) {
        // The exchange before this one is undone.
        steps_.pop_back();
    } else {
        CircuitStep<T> step{};
        step.action = action;
        steps_.push_back(step);
    }
}

#define PBLINALG_INSTANTIATE(T)                                                    \
    template bool append_operation<T>(const PybindLinAlgWCircuit<T>&, std::size_t, \
                                      std::vector<Operation<T>>&);                 \
    template void fold_parity_diagonals<T>(std::vector<Operation<T>>&);            \
    template Operation<T> Relocation::operator()<T>(const Operation<T>&) const;    \
    template class StepWriter<T>;
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
