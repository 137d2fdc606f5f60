#include "trajectories/channel.hpp"

#include <algorithm>
#include <pblinalg/shots.hpp>

#include "core/bits.hpp"

namespace pblinalg {
namespace {

using cpu::bit;
using cpu::ChannelOperator;
using cpu::ChannelParts;
using cpu::count_bits;
using cpu::Index;
using Matrix = std::vector<std::complex<double>>;

/// K^dagger K.
Matrix effect_of(const Matrix& k, Index rows) {
    Matrix effect(k.size());
    for (Index r = 0; r < rows; ++r) {
        for (Index c = 0; c < rows; ++c) {
            for (Index i = 0; i < rows; ++i)
                effect[r * rows + c] += std::conj(k[i * rows + r]) * k[i * rows + c];
        }
    }
    return effect;
}

/// True when the matrix is the product of X on the bits of `flips`, Z on those of `signs` and Y on
/// those of both: Y is iXZ.
bool is_pauli_string(const Matrix& matrix, Index rows, Index flips, Index signs) {
    static constexpr std::complex<double> powers[] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}};
    for (Index r = 0; r < rows; ++r) {
        for (Index c = 0; c < rows; ++c) {
            const unsigned int power = count_bits(flips & signs) + 2 * count_bits(signs & c);
            const std::complex<double> entry = r == (c ^ flips) ? powers[power % 4] : 0;
            if (matrix[r * rows + c] != entry) return false;
        }
    }
    return true;
}

/// Channels of more qubits keep their matrices.
constexpr unsigned int max_pauli_qubits = 3;

GateList gates_of(const Matrix& matrix, unsigned int n_qubits) {
    GateList gates;
    const Index rows = bit(n_qubits);
    for (Index code = 0; n_qubits <= max_pauli_qubits && code < rows * rows; ++code) {
        const Index flips = code / rows;
        const Index signs = code % rows;
        if (!is_pauli_string(matrix, rows, flips, signs)) continue;
        for (unsigned int q = 0; q < n_qubits; ++q) {
            // The first qubit is the most significant bit.
            const bool flip = flips >> (n_qubits - 1 - q) & 1;
            const bool sign = signs >> (n_qubits - 1 - q) & 1;
            if (flip || sign) gates.add(flip ? sign ? GateKind::Y : GateKind::X : GateKind::Z, q);
        }
        return gates;
    }
    std::vector<unsigned int> qubits;
    for (unsigned int q = 0; q < n_qubits; ++q)
        qubits.push_back(q);
    gates.add_matrix(qubits, matrix);
    return gates;
}

/// At most so likely is it, in any state, that another operator than this one acts: the largest
/// eigenvalue of 1 - K^dagger K, bounded by its rows, which for damping is exact.
double bound_of_others(const ChannelOperator& op, Index rows) {
    double bound = 0;
    for (Index r = 0; r < rows; ++r) {
        double sum = 0;
        for (Index c = 0; c < rows; ++c)
            sum += std::abs((r == c ? 1.0 : 0.0) - op.effect[r * rows + c]);
        bound = std::max(bound, sum);
    }
    // What rounding may have taken off.
    constexpr double slack = 1e-12;
    // A norm that may shrink to nothing must be looked at.
    constexpr double largest = 0.999;
    return bound < largest ? bound + slack : 1;
}

std::vector<ChannelOperator> operators_of(Channel::Operators matrices, unsigned int n_qubits) {
    std::vector<ChannelOperator> operators;
    for (const Matrix& matrix : matrices) {
        operators.push_back({matrix, effect_of(matrix, bit(n_qubits)), gates_of(matrix, n_qubits)});
    }
    return operators;
}

}  // namespace

namespace cpu {

std::size_t ChannelParts::operator_at(double draw) const {
    const auto end = std::upper_bound(ends.begin() + 1, ends.end() - 1, draw);
    return static_cast<std::size_t>(end - ends.begin());
}

void append_operator(const ChannelOperator& op, std::span<const unsigned int> qubits,
                     GateList& to) {
    std::vector<unsigned int> targets;
    for (GateView gate : op.gates) {
        targets.clear();
        for (const unsigned int target : gate.targets)
            targets.push_back(qubits[target]);
        gate.targets = targets;
        to.append(gate);
    }
}

}  // namespace cpu

Channel Channel::mixture(unsigned int n_qubits, Operators unitaries,
                         std::span<const double> probabilities) {
    auto parts = std::make_shared<ChannelParts>();
    parts->n_qubits = n_qubits;
    parts->is_mixture = true;
    parts->operators = operators_of(unitaries, n_qubits);
    std::vector<double> weights(probabilities.begin(), probabilities.end());
    const auto usual = std::max_element(weights.begin(), weights.end()) - weights.begin();
    std::swap(weights[ChannelParts::usual], weights[static_cast<std::size_t>(usual)]);
    std::swap(parts->operators[ChannelParts::usual],
              parts->operators[static_cast<std::size_t>(usual)]);
    parts->ends.push_back(0);
    for (std::size_t i = 1; i < weights.size(); ++i)
        parts->ends.push_back(parts->ends.back() + weights[i]);
    parts->bound = parts->ends.back();
    return Channel(std::move(parts));
}

Channel Channel::kraus(unsigned int n_qubits, Operators operators) {
    auto parts = std::make_shared<ChannelParts>();
    parts->n_qubits = n_qubits;
    parts->is_mixture = false;
    parts->operators = operators_of(operators, n_qubits);
    const auto bound = [&](const ChannelOperator& op) {
        return bound_of_others(op, bit(n_qubits));
    };
    const auto usual =
        std::min_element(parts->operators.begin(), parts->operators.end(),
                         [&](const auto& a, const auto& b) { return bound(a) < bound(b); });
    std::iter_swap(parts->operators.begin(), usual);
    parts->bound = bound(parts->operators[ChannelParts::usual]);
    return Channel(std::move(parts));
}

unsigned int Channel::n_qubits() const {
    return parts_->n_qubits;
}

}  // namespace pblinalg
