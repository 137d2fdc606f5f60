// Gates of a circuit in the form that planning needs: what a gate mixes, what merely selects, and
// how it runs on a part of the state. Which gates run together is decided in circuit_passes.hpp.
#pragma once

#include <optional>
#include <pblinalg/circuit.hpp>
#include <vector>

#include "kernels/blocks/circuit_blocks.hpp"

namespace pblinalg::cpu {

/// One gate on the qubits of an array: the state, or a tile of it.
template <class T>
struct Operation {
    GateKind kind;
    unsigned int n_targets = 0;        ///< 0 for diagonal gates
    unsigned int targets[2] = {0, 0};  ///< qubits whose amplitudes it mixes or moves
    /// The gate acts where the parity of these index bits is 1: the control of a CNOT, the qubit of
    /// a diagonal gate, or both qubits of a diagonal gate between two CNOTs. 0: it acts everywhere.
    Index selects = 0;
    /// The same for bits outside the array.
    Index outer_selects = 0;
    /// A diagonal gate that multiplies where the parity is 0, too, by factors[0].
    bool multiplies_both = false;
    std::complex<T> factors[2] = {};

    Index target_bits() const {
        Index bits = 0;
        for (unsigned int p = 0; p < n_targets; ++p)
            bits |= bit(targets[p]);
        return bits;
    }
    /// X, CNOT and SWAP move amplitudes without arithmetic.
    bool is_permutation() const { return kind == GateKind::X || kind == GateKind::SWAP; }
    bool is_diagonal() const { return n_targets == 0; }
};

/// Reads gate `i` of a circuit; nothing for a name that circuits do not know.
template <class T>
std::optional<Operation<T>> read_operation(const PybindLinAlgWCircuit<T>& circuit, std::size_t i);

/// Replaces CNOT(c, t), diagonal gates, CNOT(c, t) by the diagonal gates on the parity of c and t:
/// the same products on the same amplitudes, without the moves.
template <class T>
void fold_parity_diagonals(std::vector<Operation<T>>& operations);

/// The operation seen from a tile whose index is made of the bits `active`. Its targets must be
/// active. Selecting bits that are not go to `outside`.
template <class T>
Operation<T> relocate(const Operation<T>& operation, Index active, Index& outside);

/// Appends the steps that run `operation` on an array of `n_bits`, given the parity of its
/// selecting bits outside.
template <class T>
void append_steps(const Operation<T>& operation, unsigned int n_bits, unsigned int outside_parity,
                  std::vector<CircuitStep<T>>& steps);

}  // namespace pblinalg::cpu
