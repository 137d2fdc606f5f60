// Serial kernel of circuits: runs a sequence of gates on one block of amplitudes after another,
// each block copied into cache once for the whole sequence. Planned in core/circuit_passes.cpp.
#pragma once

#include "kernels/blocks/exact_blocks.hpp"
#include "kernels/gates.hpp"

namespace pblinalg::cpu {

/// The formulas that circuits use.
enum class GateKind : unsigned char { H, X, Y, Z, RX, RY, RZ, T, PH, SWAP };

/// Calls `body.operator()<Gate>()` for the gate of `kind`.
template <class T, class Body>
PBLINALG_ALWAYS_INLINE decltype(auto) visit_gate(GateKind kind, const Body& body) {
    switch (kind) {
        case GateKind::H:
            return body.template operator()<GateH>();
        case GateKind::X:
            return body.template operator()<GateX>();
        case GateKind::Y:
            return body.template operator()<GateY>();
        case GateKind::Z:
            return body.template operator()<GateZ>();
        case GateKind::RX:
            return body.template operator()<GateRX>();
        case GateKind::RY:
            return body.template operator()<GateRY>();
        case GateKind::RZ:
            return body.template operator()<GateDiagonal>();
        case GateKind::T:
            return body.template operator()<GateT>();
        case GateKind::PH:
            return body.template operator()<GatePH<T>>();
        default:
            return body.template operator()<GateSWAP>();
    }
}

/// One formula on one set of groups.
template <class T>
struct CircuitStep {
    GateWalk walk;
    T factors[4];  ///< up to two coefficients as interleaved parts
    GateKind kind;
};

/// One gate. Which of its steps run depends on index bits that are the same for a whole block: on
/// the parity of those that tell blocks apart and of those outside the array.
template <class T>
struct CircuitOperation {
    Index block_parity;     ///< bits of the array's index
    Index outer_parity;     ///< bits of the index of the array's first amplitude
    unsigned int steps[3];  ///< [steps[p], steps[p + 1]) run for parity p
};

/// A sequence of gates on blocks of 2^block_bits amplitudes.
template <class T>
struct BlockPass {
    unsigned int block_bits;
    Index active;  ///< bits of the array's index that count through a block, the lowest among them
    Index inactive;  ///< the others: they tell blocks apart
    const CircuitOperation<T>* operations;
    std::size_t n_operations;
    const CircuitStep<T>* steps;
};

/// Elements of `T` that `run_blocks` wants as 64-byte aligned scratch, per worker.
constexpr std::size_t block_scratch_elements(unsigned int block_bits) {
    return std::size_t{2} << block_bits;
}

/// Bits of a block that lie inside one vector of `set`.
template <InstructionSet set, class T>
unsigned int block_lane_bits();

/// Runs `pass` on blocks [begin, end) of `array`.
/// @param array       interleaved parts, 64-byte aligned.
/// @param outer_base  index of the array's first amplitude in the whole state.
/// @param shortcut    whether to try products without their zero parts first; cleared once a block
///                    had to be done again with them, as its neighbours then likely would, too.
template <InstructionSet set, class T>
void run_blocks(T* array, const BlockPass<T>& pass, Index outer_base, Index begin, Index end,
                T* scratch, bool& shortcut);

}  // namespace pblinalg::cpu
