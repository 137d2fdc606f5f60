#include "core/circuit_operations.hpp"

#include <algorithm>

namespace pblinalg::cpu {
namespace {

template <class T>
Operation<T> mixing(GateKind kind, unsigned int target) {
    Operation<T> operation{.kind = kind};
    operation.n_targets = 1;
    operation.targets[0] = target;
    return operation;
}

template <class T>
Operation<T> diagonal(GateKind kind, unsigned int qubit) {
    Operation<T> operation{.kind = kind};
    operation.selects = bit(qubit);
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
std::optional<Operation<T>> read_operation(const PybindLinAlgWCircuit<T>& circuit, std::size_t i) {
    const std::string& name = circuit.gate_names[i];
    const std::vector<unsigned int>& qubits = circuit.gate_qubits[i];
    const std::vector<T>& params = circuit.gate_params[i];
    if (name == "H") return mixing<T>(GateKind::H, qubits[0]);
    if (name == "X") return mixing<T>(GateKind::X, qubits[0]);
    if (name == "Y") return mixing<T>(GateKind::Y, qubits[0]);
    if (name == "Z") return diagonal<T>(GateKind::Z, qubits[0]);
    if (name == "RX" || name == "RY") {
        const bool x = name == "RX";
        auto operation = mixing<T>(x ? GateKind::RX : GateKind::RY, qubits[0]);
        const auto factors = x ? GateRX::factors(params[0]) : GateRY::factors(params[0]);
        std::copy(factors.begin(), factors.end(), operation.factors);
        return operation;
    }
    if (name == "RZ") {
        auto operation = diagonal<T>(GateKind::PH, qubits[0]);
        const auto factors = GateRZ<T, true>(params[0]).diagonal;
        std::copy(factors.begin(), factors.end(), operation.factors);
        operation.multiplies_both = true;
        return operation;
    }
    if (name == "PH") {
        auto operation = diagonal<T>(GateKind::PH, qubits[0]);
        operation.factors[1] = GatePH<T>(params[0]).phase;
        return operation;
    }
    if (name == "T") return diagonal<T>(GateKind::T, qubits[0]);
    if (name == "CNOT") {
        auto operation = mixing<T>(GateKind::X, qubits[1]);
        operation.selects = bit(qubits[0]);
        return operation;
    }
    if (name == "SWAP") {
        auto operation = mixing<T>(GateKind::SWAP, qubits[0]);
        operation.n_targets = 2;
        operation.targets[1] = qubits[1];
        return operation;
    }
    return std::nullopt;
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

template <class T>
Operation<T> relocate(const Operation<T>& operation, Index active, Index& outside) {
    Operation<T> moved = operation;
    for (unsigned int p = 0; p < operation.n_targets; ++p) {
        moved.targets[p] = count_bits(active & low_mask(operation.targets[p]));
    }
    moved.selects = extract_bits(operation.selects, active);
    outside = operation.selects & ~active;
    return moved;
}

template <class T>
void append_steps(const Operation<T>& operation, unsigned int n_bits, unsigned int outside_parity,
                  std::vector<CircuitStep<T>>& steps) {
    using orb::core::iterator::GroupMasks;
    using orb::core::iterator::QubitSpan;
    const QubitSpan targets(operation.targets, operation.n_targets);
    const GroupMasks all(targets, {}, n_bits);

    const auto append = [&](const GroupMasks& groups, unsigned int row) {
        CircuitStep<T> step{
            {groups, {operation.targets[0], operation.targets[1]}}, {}, operation.kind};
        // A diagonal step multiplies by one factor, other gates read both.
        const std::complex<T>* const factors =
            operation.factors + (operation.is_diagonal() ? row : 0);
        const int n_factors = operation.is_diagonal() ? 1 : 2;
        for (int f = 0; f < n_factors; ++f) {
            step.factors[2 * f] = factors[f].real();
            step.factors[2 * f + 1] = factors[f].imag();
        }
        steps.push_back(step);
    };

    for (unsigned int row = operation.multiplies_both ? 0 : 1; row < 2; ++row) {
        // Local patterns of the selecting bits whose parity, with that outside, is `row`.
        const unsigned int n_selects = count_bits(operation.selects);
        for (Index pattern = 0; pattern < bit(n_selects); ++pattern) {
            if (((count_bits(pattern) + outside_parity) & 1) != row) continue;
            GroupMasks groups = all;
            groups.free_mask &= ~operation.selects;
            groups.fixed_bits = deposit_bits(pattern, operation.selects);
            groups.count >>= n_selects;
            append(groups, row);
        }
    }
}

#define PBLINALG_INSTANTIATE(T)                                                            \
    template std::optional<Operation<T>> read_operation<T>(const PybindLinAlgWCircuit<T>&, \
                                                           std::size_t);                   \
    template void fold_parity_diagonals<T>(std::vector<Operation<T>>&);                    \
    template Operation<T> relocate<T>(const Operation<T>&, Index, Index&);                 \
    template void append_steps<T>(const Operation<T>&, unsigned int, unsigned int,         \
                                  std::vector<CircuitStep<T>>&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
