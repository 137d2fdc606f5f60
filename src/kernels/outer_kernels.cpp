// Compiled once per instruction set, PBLINALG_INSTRUCTION_SET naming it; products are fused into
// sums where the set can. As in exact_kernels.cpp, nothing of the standard library may be
// instantiated.
#include "kernels/outer_kernels.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

constexpr Index vector_bytes = this_set == InstructionSet::avx512 ? 64
                               : this_set == InstructionSet::avx2 ? 32
                                                                  : 16;
constexpr Index lanes = vector_bytes / sizeof(double);
typedef double Doubles __attribute__((vector_size(vector_bytes), may_alias));

PBLINALG_ALWAYS_INLINE const Doubles& at(const double* place) {
    return *reinterpret_cast<const Doubles*>(place);
}
PBLINALG_ALWAYS_INLINE Doubles& at(double* place) {
    return *reinterpret_cast<Doubles*>(place);
}

/// The sums of entries (row + i, column + lane).
PBLINALG_ALWAYS_INLINE void add_to_tile(const double* vectors, Index count, Index padded, Index row,
                                        Index column, double* matrix) {
    Doubles re[outer_tile_rows] = {};
    Doubles im[outer_tile_rows] = {};
    for (Index v = 0; v < count; ++v) {
        const double* const vector = vectors + v * 2 * padded;
        const Doubles b_re = at(vector + column);
        const Doubles b_im = at(vector + padded + column);
        for (Index i = 0; i < outer_tile_rows; ++i) {
            const double a_re = vector[row + i];
            const double a_im = vector[padded + row + i];
            re[i] += a_re * b_re;
            re[i] += a_im * b_im;
            im[i] += a_im * b_re;
            im[i] -= a_re * b_im;
        }
    }
    for (Index i = 0; i < outer_tile_rows; ++i) {
        double* const to = matrix + (row + i) * 2 * padded + column;
        at(to) += re[i];
        at(to + padded) += im[i];
    }
}

}  // namespace

template <InstructionSet set>
void add_outer_products(const double* vectors, Index count, Index padded, Index rows,
                        Index first_tile, Index tile_stride, double* matrix) {
    const Index step = tile_stride * outer_tile_rows;
    for (Index row = first_tile * outer_tile_rows; row < rows; row += step) {
        for (Index column = 0; column < row + outer_tile_rows; column += lanes)
            add_to_tile(vectors, count, padded, row, column, matrix);
    }
}

template void add_outer_products<this_set>(const double*, Index, Index, Index, Index, Index,
                                           double*);

}  // namespace pblinalg::cpu
