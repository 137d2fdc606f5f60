// Serial kernel of reduced density matrices: sums of outer products of vectors with themselves.
// Where the vectors come from, and the split among workers, are in
// readout/reduced_density_matrix.cpp.
#pragma once

#include "core/bits.hpp"
#include "core/instruction_set.hpp"

namespace pblinalg::cpu {

/// Rows of a tile of the matrix, whose sums stay in registers.
inline constexpr Index outer_tile_rows = 4;
/// Elements of a row are a multiple of this; the last ones may be padding.
inline constexpr Index outer_row_granule = 8;

/// Adds v(a) conj(v(b)) over `count` vectors v to entry (a, b) of a matrix, for b up to a at the
/// least, in the tiles `first_tile`, `first_tile` + `tile_stride`, ... of its rows. Each entry gets
/// the sum over all vectors, formed in their order.
/// @param vectors  `count` times: `padded` real parts, then as many imaginary ones. 64-byte
/// aligned.
/// @param matrix   rows of the same form, 64-byte aligned; `rows` of them, a multiple of
///                 `outer_tile_rows`.
template <InstructionSet set>
void add_outer_products(const double* vectors, Index count, Index padded, Index rows,
                        Index first_tile, Index tile_stride, double* matrix);

}  // namespace pblinalg::cpu
