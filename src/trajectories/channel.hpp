// A channel made ready for drawing: which operator is drawn when, and as which gates it acts.
#pragma once

#include <complex>
#include <pblinalg/gate_list.hpp>
#include <span>
#include <vector>

namespace pblinalg::cpu {

struct ChannelOperator {
    std::vector<std::complex<double>> matrix;
    /// K^dagger K, whose expectation value is the probability of K; row-major.
    std::vector<std::complex<double>> effect;
    /// It on qubits 0 to k-1: Pauli gates where that is what it is, else the matrix.
    GateList gates;
};

/// Most draws choose the *usual* operator: those of at least `bound`, whatever the state. Of a
/// mixture the others share [0, bound) by their probabilities; of Kraus operators, whose
/// probabilities depend on the state, a draw below `bound` is decided once the state is known.
struct ChannelParts {
    static constexpr std::size_t usual = 0;

    unsigned int n_qubits;
    bool is_mixture;
    std::vector<ChannelOperator> operators;
    /// Of a mixture: operator i > 0 is drawn in [ends[i - 1], ends[i]).
    std::vector<double> ends;
    double bound;

    /// The operator of a mixture that a draw below `bound` chooses.
    std::size_t operator_at(double draw) const;
};

/// Appends an operator of a channel on `qubits`.
void append_operator(const ChannelOperator& op, std::span<const unsigned int> qubits, GateList& to);

}  // namespace pblinalg::cpu
