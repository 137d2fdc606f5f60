// Serial kernel of circuits: runs a sequence of gates on one tile of amplitudes after another. A
// tile is copied into the second-level cache once for the whole sequence, and inside it a *group*
// of vectors into registers once for each *window* of gates. Planned in circuits/passes.cpp,
// windows written in circuits/operations.cpp.
#pragma once

#include "core/bits.hpp"
#include "core/instruction_set.hpp"

namespace pblinalg::cpu {

/// The gates of circuits, by formula.
enum class GateKind : unsigned char { H, X, Y, Z, RX, RY, RZ, T, PH, SWAP };

/// A gate and how it lies in a window, as one number to switch over.
///
/// @param place    H, Y, RX, RY: the row bit of the target. X: the row bit, or 4 + the lane bit.
///                 SWAP: the lane bit that is exchanged with row bit 0. Diagonal gates: 0.
/// @param by_lane  whether lanes of one vector differ in selecting bits (X and diagonal gates).
constexpr unsigned int step_action(GateKind kind, unsigned int place, bool by_lane = false) {
    return static_cast<unsigned int>(kind) * 16 + place + (by_lane ? 8 : 0);
}

/// Bit i is the parity of the bits of i under `mask`, for i < 16.
constexpr unsigned int parity_pattern(Index mask) {
    constexpr unsigned int of_bit[] = {0xAAAA, 0xCCCC, 0xF0F0, 0xFF00};
    unsigned int pattern = 0;
    for (unsigned int b = 0; b < 4; ++b) {
        if (mask & bit(b)) pattern ^= of_bit[b];
    }
    return pattern;
}

/// One gate on the vectors of a group. X and diagonal gates act on the amplitudes whose selecting
/// bits have odd parity; RZ multiplies the others, too. Selecting bits lie in lanes, in rows, or
/// outside the group, where they are one parity for all its amplitudes.
template <class T>
struct CircuitStep {
    T factors[4];                 ///< up to two coefficients as interleaved parts
    Index tile_selects;           ///< bits of the tile's index
    Index state_selects;          ///< bits of the state's index that tell tiles apart
    unsigned short lane_pattern;  ///< parity of the selecting lane bits, by lane
    unsigned char row_pattern;    ///< parity of the selecting row bits, by row
    unsigned char action;         ///< `step_action`
};

/// Bits of a tile's index at the most.
inline constexpr unsigned int max_tile_bits = 16;

/// Where the amplitudes of a tile lie in it. Amplitude i of the tile that begins at `base` in the
/// state lies at the exclusive or of `origin` and the places of the set bits of i and of base.
/// Gates that move whole vectors change this and leave the vectors where they are.
struct Placement {
    unsigned short of_tile_bit[max_tile_bits] = {};
    unsigned short of_state_bit[64] = {};
    unsigned short origin = 0;

    /// Every amplitude at its index.
    static constexpr Placement in_order() {
        Placement placement;
        for (unsigned int b = 0; b < max_tile_bits; ++b)
            placement.of_tile_bit[b] = static_cast<unsigned short>(1u << b);
        return placement;
    }
};

/// Gates that run together in registers, on groups of amplitudes that differ in `active` bits of
/// the tile's index: all lane bits, and `WindowShape::row_bits` others. Row bit b is the b-th
/// lowest of these.
struct CircuitWindow {
    Index active;
    unsigned int first_step;
    unsigned int last_step;
    unsigned int placement;  ///< number of the one that it finds
};

/// A sequence of gates on tiles of a state.
template <class T>
struct TilePass {
    Index active;    ///< bits of the state's index that count through a tile, the lowest among them
    Index inactive;  ///< the others: they tell tiles apart
    const CircuitWindow* windows;
    std::size_t n_windows;
    const CircuitStep<T>* steps;
    std::size_t n_steps;
    const Placement* placements;  ///< the last one is what the windows leave
    std::size_t n_placements;
    bool past_cache;  ///< the state is too large for the caches: results are written around them
};

/// Bytes between the real and the imaginary parts of a tile. Both lie a power of two apart
/// otherwise, and vectors of a group often do, so that all of them would fall into one set of the
/// first-level cache.
inline constexpr std::size_t parts_gap = 2048;

/// Bytes that `run_tiles` wants as 64-byte aligned scratch, per worker, for tiles of 2^tile_bits
/// amplitudes and sequences of up to `n_steps`.
template <class T>
constexpr std::size_t tile_scratch_bytes(unsigned int tile_bits, std::size_t n_steps) {
    return (2 * sizeof(T) << tile_bits) + parts_gap + n_steps;
}

/// Bits of a window: those inside one vector of `set`, and those that tell its vectors apart.
struct WindowShape {
    unsigned int lane_bits;
    unsigned int row_bits;
    unsigned int bits() const { return lane_bits + row_bits; }
};
template <InstructionSet set, class T>
WindowShape window_shape();

/// Runs `pass` on tiles [begin, end).
/// @param state     interleaved parts, 64-byte aligned.
/// @param shortcut  whether to try products without their zero parts first; cleared once a tile had
///                  to be done again with them, as its neighbours then likely would, too.
template <InstructionSet set, class T>
void run_tiles(T* state, const TilePass<T>& pass, Index begin, Index end, void* scratch,
               bool& shortcut);

}  // namespace pblinalg::cpu
