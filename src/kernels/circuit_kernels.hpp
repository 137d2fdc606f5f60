// Serial kernel of circuits: runs a sequence of gates on one tile of amplitudes after another. A
// tile is copied into the second-level cache once for the whole sequence, and inside it a *group*
// of vectors into registers once for each *window* of gates. Planned in circuits/planner.cpp,
// windows written in circuits/step_writer.cpp.
#pragma once

#include <cstdint>
#include <pblinalg/accuracy.hpp>

#include "core/bits.hpp"
#include "core/instruction_set.hpp"

namespace pblinalg::cpu {

/// What an operation of a circuit does to its amplitudes, by formula. Gates that are not here are
/// made of several of these (circuits/lowering.cpp).
enum class Action : unsigned char {
    // Mix the amplitudes of a target.
    H,
    Y,
    RX,
    RY,
    YtoZ,
    ZtoY,
    matrix1,
    // Mix those of two targets.
    matrix2,
    // Move amplitudes.
    X,
    SWAP,
    // Multiply: by -1, by a factor where the parity of the selecting bits is 1, by a factor for
    // each parity, by a factor for each pattern of bits.
    Z,
    phase,
    both,
    table,
    // Steps alone: exchange a lane bit with row bit 0, or two row bits; several Z in one.
    exchange_lane,
    exchange_rows,
    signs,
    // Operations alone, which run on the whole state: a dense matrix, a phase oracle.
    dense,
    oracle,
    // On two states side by side, changing nothing: Im <bra|P|ket> for X or Y on a target or the
    // sign of the parity of the selecting bits, where the controls say so; Re <bra|ket>.
    inner_x,
    inner_y,
    inner_parity,
    inner_one,
};

/// How the conditions of a step lie.
enum class StepForm : unsigned char {
    plain,       ///< rows decide, if anything
    by_lane,     ///< lanes of one vector differ
    controlled,  ///< mixing under controls, and `both`: rows and lanes may differ
};

/// How the rows of a diagonal step differ in parity: in one row bit, not at all, or otherwise, or
/// because controls choose among them.
enum RowsDiffer : unsigned int { in_bit_0, in_bit_1, in_bit_2, nowhere, otherwise };

/// An action and how it lies in a window, as one number to switch over.
///
/// @param place  H to matrix1: the row bit of the target, 0 when controlled. X, inner_x, inner_y:
///               the row bit, or 4 + the lane bit. exchange_lane: the lane bit. exchange_rows: the
///               sum of both row bits less 1. Diagonal actions but tables and those under
///               `controlled`: `RowsDiffer`.
///               matrix2: `place_of_rows`, (1, 0) when controlled. Others: 0.
constexpr unsigned int step_action(Action action, unsigned int place,
                                   StepForm form = StepForm::plain) {
    return static_cast<unsigned int>(action) * 32 + static_cast<unsigned int>(form) * 8 + place;
}

/// The place of a matrix on two row bits, the first listed target's one first.
constexpr unsigned int place_of_rows(unsigned int first, unsigned int second) {
    return 2 * first + (second > first ? second - 1 : second);
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

/// Bit i is set when i has the bits `values` under `mask`, for i < 16.
constexpr unsigned int match_pattern(Index mask, Index values) {
    unsigned int pattern = 0xFFFF;
    for (unsigned int b = 0; b < 4; ++b) {
        if (mask & bit(b)) pattern &= parity_pattern(bit(b)) ^ (values & bit(b) ? 0 : 0xFFFF);
    }
    return pattern;
}

/// One operation on the vectors of a group. It acts on amplitudes that hold given values under a
/// mask of control bits; X and diagonal gates on those of them whose selecting bits have odd
/// parity, `both` on the others, too. All these bits lie in lanes, in rows, or outside the group,
/// where they are one truth for all its amplitudes.
struct CircuitStep {
    std::uint32_t factors = 0;       ///< place of its coefficients among those of the run
    std::uint32_t lookup = 0;        ///< number of the `TableLookup`, `SignLookup` or inner product
    std::uint16_t action = 0;        ///< `step_action`
    std::uint16_t tile_selects = 0;  ///< selecting bits of the tile's index
    std::uint16_t tile_controls = 0;   ///< control bits of the tile's index ...
    std::uint16_t control_values = 0;  ///< ... and what they must be
    std::uint16_t lane_pattern = 0;    ///< parity of the selecting lane bits, by lane
    std::uint16_t lane_mask = 0;       ///< whether the control bits in lanes are as they must be
    std::uint8_t row_pattern = 0;      ///< the same for rows
    std::uint8_t row_mask = 0;
};

/// What decides for whole tiles about a step: bits of the state's index.
struct TileCondition {
    Index selects;
    Index controls;
    Index values;
};

/// Pattern bits of a table at the most, those in lanes aside.
inline constexpr unsigned int max_table_bits = 10;

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

/// Which row of a table belongs to a vector: the exclusive or of `origin` and the columns of the
/// set bits of its tile index, and bit p of that flipped where the state bits `of_state[p]` of the
/// tile have odd parity.
struct TableLookup {
    std::uint16_t of_tile_bit[max_tile_bits] = {};
    Index of_state[max_table_bits] = {};
    std::uint16_t origin = 0;
    Index tile_bits = 0;  ///< those whose column is not 0
};

/// Which amplitudes several Z, each with one control at most, negate together: those where a
/// polynomial of degree 2 in the bits of the tile's index is odd.
struct SignLookup {
    /// What bits of the index outside the window add, four at a time: which of them to count in, as
    /// a mask, and from bits 16 and 24 on the row bits and the lane bits to count in.
    std::uint32_t of_tile_bits[max_tile_bits / 4][16] = {};
    std::uint16_t lanes_of_row[8] = {};  ///< odd lanes of each row where these bits are 0
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
    const CircuitStep* steps;
    const TileCondition* conditions;  ///< one per step
    std::size_t n_steps;
    const TableLookup* lookups;
    const SignLookup* signs;
    const Placement* placements;  ///< the last one is what the windows leave
    std::size_t n_placements;
    const T* factors;  ///< coefficients as interleaved parts
    const T* tables;   ///< by row of a table: real parts of a vector, then imaginary ones
    bool past_cache;   ///< the state is too large for the caches: results are written around them
    double* sums = nullptr;  ///< `sums_per_inner_product` of each, 64-byte aligned
};

/// Partial sums of an inner product; an unused rest stays 0.
inline constexpr unsigned int sums_per_inner_product = 16;

/// Bytes between the real and the imaginary parts of a tile. Both lie a power of two apart
/// otherwise, and vectors of a group often do, so that all of them would fall into one set of the
/// first-level cache.
inline constexpr std::size_t parts_gap = 2048;

/// A step on the tile at hand.
struct LiveStep {
    const CircuitStep* step;
    std::uint32_t parity;  ///< of the selecting state bits; of a table: their row
};

/// Bytes that `run_tiles` wants as 64-byte aligned scratch, per worker, for tiles of 2^tile_bits
/// amplitudes and passes of up to `n_steps` in `n_windows`.
template <class T>
constexpr std::size_t tile_scratch_bytes(unsigned int tile_bits, std::size_t n_steps,
                                         std::size_t n_windows) {
    return (2 * sizeof(T) << tile_bits) + parts_gap + n_steps * sizeof(LiveStep) +
           n_windows * sizeof(void*);  // where the steps of each begin
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
/// @param shortcut  whether to try products without their zero parts first: whether the tile before
///                  could have been done so. By rounding they are always left out.
template <InstructionSet set, class T, Accuracy accuracy = Accuracy::exact>
void run_tiles(T* state, const TilePass<T>& pass, Index begin, Index end, void* scratch,
               bool& shortcut);

/// Index bits with one more at the lowest place above the lanes: the bit that tells two states side
/// by side apart.
constexpr Index with_pair_bit(Index bits, unsigned int lane_bits) {
    const Index lanes = low_mask(lane_bits);
    return (bits & lanes) | (bits & ~lanes) << 1;
}
constexpr Index without_pair_bit(Index bits, unsigned int lane_bits) {
    const Index lanes = low_mask(lane_bits);
    return (bits & lanes) | (bits >> 1 & ~lanes);
}

/// Runs `pass` by rounding on tiles [begin, end) of two states, whose amplitudes lie side by side
/// in a tile. All bits of the pass are those of an index with the pair's bit, which is active.
/// @param keeps  whether to write the amplitudes back.
template <InstructionSet set, class T>
void run_paired_tiles(T* ket, T* bra, const TilePass<T>& pass, Index begin, Index end,
                      void* scratch, bool keeps);

/// Adds to results[i] the value of inner product i from its sums.
template <InstructionSet set, class T>
void fold_inner_products(const TilePass<T>& pass, double* results);

}  // namespace pblinalg::cpu
