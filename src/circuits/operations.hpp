// Gates of a circuit in the form that planning needs: what a gate mixes, what merely selects, and
// how it runs on a part of the state. Which gates run together is decided in circuits/passes.hpp.
#pragma once

#include <complex>
#include <pblinalg/circuit.hpp>
#include <vector>

#include "kernels/circuit_kernels.hpp"

namespace pblinalg::cpu {

/// One gate on the qubits of a state or of a tile of it.
template <class T>
struct Operation {
    GateKind kind;
    unsigned int n_targets = 0;        ///< 0 for diagonal gates
    unsigned int targets[2] = {0, 0};  ///< qubits whose amplitudes it mixes or moves
    /// The gate acts where the parity of these index bits is 1: the control of a CNOT, the qubit of
    /// a diagonal gate, or both qubits of a diagonal gate between two CNOTs.
    Index selects = 0;
    Index state_selects = 0;  ///< for a gate on a tile: the same in the state's index, outside it
    bool inverted = false;    ///< acts where the parity is 0; without selecting bits everywhere
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

/// From the index bits of the state to those of a tile made of the `active` ones.
class Relocation {
  public:
    explicit Relocation(Index active);

    /// The operation seen from inside the tile. Its targets must be active.
    template <class T>
    Operation<T> operator()(const Operation<T>& operation) const;

  private:
    Index active_;
    unsigned char place_[64];  ///< bit of the tile's index for each active bit
};

/// Writes the steps of windows, one window after another.
template <class T>
class StepWriter {
  public:
    /// @param placements  begins with that of the amplitudes before the first window; each window
    ///                    that changes it appends another.
    StepWriter(unsigned int lane_bits, std::vector<CircuitStep<T>>& steps,
               std::vector<Placement>& placements)
        : lanes_(low_mask(lane_bits)), steps_(steps), placements_(placements) {}

    /// Begins a window of the `active` bits of a tile's index: all lane bits and some others.
    void begin(Index active);

    /// Appends the steps of a gate on a tile whose targets are active, and not among the bits that
    /// a gate renumbered in this window moves or is selected by.
    void append(const Operation<T>& operation);

    /// Takes in a permutation of whole vectors, none of whose bits are in lanes: they stay, and
    /// their numbers change.
    void renumber(const Operation<T>& operation);

  private:
    /// A bit of the amplitudes' numbers, as they are now, as a parity of those that the window
    /// began with.
    struct Parity {
        Index tile;
        Index state;
        bool inverted;
        Parity& operator^=(const Parity& other);
    };

    Parity selection(const Operation<T>& operation) const;
    void push(const Operation<T>& operation);
    void exchange_with_row(unsigned int lane_bit);

    Index lanes_;
    Index rows_ = 0;
    std::size_t first_ = 0;  ///< of the window
    bool renumbered_ = false;
    Parity numbers_[max_tile_bits];  ///< once renumbered
    std::vector<CircuitStep<T>>& steps_;
    std::vector<Placement>& placements_;
};

}  // namespace pblinalg::cpu
