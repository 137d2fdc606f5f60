// Gates of a circuit in the form that planning needs: what a gate mixes, what merely selects, and
// how it runs on a part of the state. Which gates run together is decided in circuit_passes.hpp.
#pragma once

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
    /// A diagonal gate that multiplies where the parity is 0, too, by factors[0].
    bool multiplies_both() const { return kind == GateKind::RZ; }
};

/// Appends gate `i` of a circuit.
/// @return false, with nothing appended, for a name that circuits do not know.
template <class T>
bool append_operation(const PybindLinAlgWCircuit<T>& circuit, std::size_t i,
                      std::vector<Operation<T>>& operations);

/// Replaces CNOT(c, t), diagonal gates, CNOT(c, t) by the diagonal gates on the parity of c and t:
/// the same products on the same amplitudes, without the moves.
template <class T>
void fold_parity_diagonals(std::vector<Operation<T>>& operations);

/// From the index bits of an array to those of a tile made of the `active` ones.
class Relocation {
  public:
    explicit Relocation(Index active);

    /// The operation seen from inside the tile. Its targets must be active; selecting bits that are
    /// not go to `outside`.
    template <class T>
    Operation<T> operator()(const Operation<T>& operation, Index& outside) const;

  private:
    Index active_;
    unsigned char place_[64];  ///< bit of the tile's index for each active bit
};

/// Appends the steps that run `operation` on an array of `n_bits`, given the parity of its
/// selecting bits outside.
template <class T>
void append_steps(const Operation<T>& operation, unsigned int n_bits, unsigned int outside_parity,
                  std::vector<CircuitStep<T>>& steps);

}  // namespace pblinalg::cpu
