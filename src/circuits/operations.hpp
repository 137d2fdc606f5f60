// Gates of a circuit in the form that planning needs: what a gate mixes, what merely selects, and
// how it runs on a part of the state. Gates become operations in lowering.hpp; which operations run
// together is decided in planner.hpp.
#pragma once

#include <bit>
#include <vector>

#include "kernels/circuit_kernels.hpp"

namespace pblinalg::cpu {

/// Calls `body` with the number of each bit.
template <class Body>
void for_each_bit(Index bits, const Body& body) {
    for (; bits != 0; bits &= bits - 1)
        body(static_cast<unsigned int>(std::countr_zero(bits)));
}

/// One operation on the qubits of a state or of a tile of it. It acts on the amplitudes that hold
/// `control_values` under `controls`.
struct Operation {
    static constexpr std::uint32_t inside_a_gate = ~std::uint32_t{0};

    Action action = Action::H;
    /// Acts where the parity of the selecting bits is 0; without selecting bits everywhere.
    bool inverted = false;
    bool alone = false;                 ///< runs on the whole state only
    unsigned char targets[2] = {0, 0};  ///< of matrix2 and SWAP both, the first listed one first
    /// Bits whose amplitudes it mixes or moves; none for diagonal operations.
    Index target_bits = 0;
    /// X and diagonal operations act where the parity of these bits is 1: the control of a CNOT,
    /// the qubit of a diagonal gate, or both qubits of one between two CNOTs. The bits of a table.
    Index selects = 0;
    Index controls = 0;
    Index control_values = 0;
    /// For an operation on a tile: the same in the state's index, outside the tile.
    TileCondition state = {0, 0, 0};
    std::uint32_t factors = 0;  ///< place of its coefficients among those of a run
    std::uint32_t data = 0;     ///< number of its table, dense matrix, oracle or inner product
    /// The number of gates that are done before it, `inside_a_gate` where one is half done.
    std::uint32_t gates_before = inside_a_gate;

    Index depends_on() const { return selects | controls; }
    /// Moves amplitudes without arithmetic.
    bool is_permutation() const { return action == Action::X || action == Action::SWAP; }
    bool is_diagonal() const { return target_bits == 0; }
    bool is_inner_product() const { return action >= Action::inner_x; }
    bool is_mixing() const { return action <= Action::matrix1; }
    /// A diagonal operation that multiplies where the parity is 0, too.
    bool multiplies_all() const { return action == Action::both || action == Action::table; }
};

/// The operation on other bits: `move` maps a set of bits to as many.
template <class Move>
Operation moved_bits(Operation operation, const Move& move) {
    for (unsigned char& target : operation.targets)
        target = static_cast<unsigned char>(std::countr_zero(move(bit(target))));
    operation.target_bits = move(operation.target_bits);
    operation.selects = move(operation.selects);
    operation.controls = move(operation.controls);
    operation.control_values = move(operation.control_values);
    return operation;
}

/// X on `target` where `control` is 1.
Operation cnot(unsigned int control, unsigned int target);

/// Replaces CNOT(c, t), diagonal gates, CNOT(c, t) by the diagonal gates on the parity of c and t:
/// the same products on the same amplitudes, without the moves.
void fold_parity_diagonals(std::vector<Operation>& operations);

/// From the index bits of the state to those of a tile made of the `active` ones.
class Relocation {
  public:
    explicit Relocation(Index active);

    /// The operation seen from inside the tile. Its targets must be active.
    Operation operator()(const Operation& operation) const;

  private:
    Index local(Index bits) const;

    Index active_;
    unsigned char place_[64];  ///< bit of the tile's index for each active bit
};

}  // namespace pblinalg::cpu
