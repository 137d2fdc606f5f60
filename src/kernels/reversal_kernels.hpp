// Serial kernel of the dense export: amplitudes copied to the bit-reversed index, tile by tile.
// The split among workers and the small cases are in readout/export.hpp.
#pragma once

#include "core/instruction_set.hpp"
#include "core/state_iterator.hpp"

namespace pblinalg::cpu {

/// A square tile of 2^side_bits rows and columns. The top bits of an index number its row, the
/// lowest ones its column and those between them the tile. Reversed, rows and columns trade places:
/// the rows of one column lie side by side in the output.
struct ReversalTiles {
    // Runs of 256 amplitudes fill whole pages on both sides; the tile fits a second-level cache.
    static constexpr unsigned int max_side_bits = 8;
    static constexpr Index row_padding = 8;

    unsigned int nqubits;
    unsigned int side_bits;
    /// Outputs of this size are written past the caches, which could not hold them.
    Index min_streamed_bytes = Index{1} << 27;

    /// For at least 8 qubits. Small states keep a few tiles for the workers to share.
    explicit ReversalTiles(unsigned int nqubits)
        : ReversalTiles(nqubits, nqubits < 12   ? 4
                                 : nqubits < 20 ? (nqubits - 4) / 2
                                                : max_side_bits) {}
    /// @param side_bits  4 to `max_side_bits`, at most half of `nqubits`.
    ReversalTiles(unsigned int nqubits, unsigned int side_bits)
        : nqubits(nqubits), side_bits(side_bits) {}

    Index count() const { return bit(nqubits - 2 * side_bits); }

    /// Amplitudes of scratch for one tile. Its rows are a cache line longer than needed, so that
    /// those of one column do not compete for the same place in the cache.
    Index scratch_size() const { return bit(side_bits) * (bit(side_bits) + row_padding); }
};

/// out[rev(k)] = in[k] for the elements of tiles [begin, end). With `thresholded`, amplitudes whose
/// squared magnitude is not strictly greater than `limit` arrive as zeros.
/// @param in, out  interleaved parts of 2^nqubits amplitudes, aligned as std::complex<T>.
/// @param tile     scratch for `scratch_size` amplitudes, 64-byte aligned, one for each worker.
template <InstructionSet set, bool thresholded, class T>
void copy_reversed(const T* in, T* out, const ReversalTiles& tiles, Index begin, Index end, T limit,
                   T* tile);

}  // namespace pblinalg::cpu
