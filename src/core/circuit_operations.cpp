#include "core/circuit_operations.hpp"

#include <algorithm>
#include <bit>
#include <string_view>

namespace pblinalg::cpu {
namespace {

template <class T>
Operation<T> mixing(GateKind kind, unsigned int target) {
    return {.kind = kind, .n_targets = 1, .targets = {target, 0}};
}

template <class T>
Operation<T> diagonal(GateKind kind, unsigned int qubit) {
    return {.kind = kind, .selects = bit(qubit)};
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
    const Operation<T>& cnot = operations[first];
    const std::size_t end = std::min(operations.size(), first + fold_reach);
    for (std::size_t i = first + 1; i < end; ++i) {
        const Operation<T>& next = operations[i];
        if (is_cnot(next) && next.targets[0] == cnot.targets[0] && next.selects == cnot.selects) {
            return i;
        }
        const bool on_target = next.selects & cnot.target_bits();
        if (!next.is_diagonal() || (on_target && next.selects != cnot.target_bits())) return 0;
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
    if (name == "CNOT") {
        Operation<T> operation = mixing<T>(GateKind::X, qubits[1]);
        operation.selects = bit(qubits[0]);
        return append(operation);
    }
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
        const Operation<T> cnot = operations[i];
        for (++i; i < twin; ++i) {
            Operation<T> folded = operations[i];
            if (folded.selects & cnot.target_bits()) folded.selects ^= cnot.selects;
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
Operation<T> Relocation::operator()(const Operation<T>& operation, Index& outside) const {
    Operation<T> moved = operation;
    for (unsigned int p = 0; p < operation.n_targets; ++p) {
        moved.targets[p] = place_[operation.targets[p]];
    }
    moved.selects = 0;
    for (Index rest = operation.selects & active_; rest != 0; rest &= rest - 1) {
        moved.selects |= bit(place_[std::countr_zero(rest)]);
    }
    outside = operation.selects & ~active_;
    return moved;
}

template <class T>
void append_steps(const Operation<T>& operation, unsigned int n_bits, unsigned int outside_parity,
                  std::vector<CircuitStep<T>>& steps) {
    using orb::core::iterator::GroupMasks;
    using orb::core::iterator::QubitSpan;
    const QubitSpan targets(operation.targets, operation.n_targets);
    const GroupMasks all(targets, {}, n_bits);
    const auto append = [&](GateKind kind, const GroupMasks& groups, unsigned int target,
                            const std::complex<T>& f0, const std::complex<T>& f1) {
        steps.push_back({{groups, {target, operation.targets[1]}},
                         {f0.real(), f0.imag(), f1.real(), f1.imag()},
                         kind});
    };
    const std::complex<T>* const factors = operation.factors;
    const unsigned int n_selects = static_cast<unsigned int>(std::popcount(operation.selects));

    if (operation.multiplies_both() && n_selects == 1) {
        const auto qubit = static_cast<unsigned int>(std::countr_zero(operation.selects));
        GroupMasks groups = all;
        groups.take_out(qubit);
        append(GateKind::RZ, groups, qubit, factors[outside_parity], factors[1 - outside_parity]);
        return;
    }
    for (unsigned int row = operation.multiplies_both() ? 0 : 1; row < 2; ++row) {
        // Local patterns of the selecting bits whose parity, with that outside, is `row`.
        for (Index pattern = 0; pattern < bit(n_selects); ++pattern) {
            if (((std::popcount(pattern) + outside_parity) & 1) != row) continue;
            GroupMasks groups = all;
            groups.free_mask &= ~operation.selects;
            groups.fixed_bits = deposit_bits(pattern, operation.selects);
            groups.count >>= n_selects;
            if (operation.is_diagonal()) {
                // One row of a diagonal: a product with one factor.
                const bool product = operation.multiplies_both();
                append(product ? GateKind::PH : operation.kind, groups, 0, factors[row], {});
            } else {
                append(operation.kind, groups, operation.targets[0], factors[0], factors[1]);
            }
        }
    }
}

#define PBLINALG_INSTANTIATE(T)                                                         \
    template bool append_operation<T>(const PybindLinAlgWCircuit<T>&, std::size_t,      \
                                      std::vector<Operation<T>>&);                      \
    template void fold_parity_diagonals<T>(std::vector<Operation<T>>&);                 \
    template Operation<T> Relocation::operator()<T>(const Operation<T>&, Index&) const; \
    template void append_steps<T>(const Operation<T>&, unsigned int, unsigned int,      \
                                  std::vector<CircuitStep<T>>&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
