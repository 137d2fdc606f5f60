// Probabilities of the elements of a view: runs of them, and sums over a walk, serially on the
// active instruction set.
#pragma once

#include "kernels/norm_kernels.hpp"
#include "kernels/walk_groups.hpp"
#include "readout/views.hpp"

namespace pblinalg::cpu {

/// out[i] = probability of element first + i, for i in [0, count).
/// @param next  the first element that will be read after these.
template <class T>
void copy_probabilities(const SVSequence<std::complex<T>>& view, Index first, Index count, T* out,
                        Index next) {
    dispatch([&]<InstructionSet set>() {
        square_magnitudes<set>(parts(view.amplitudes + first), count, out,
                               parts(view.amplitudes + next));
    });
}
template <class T>
void copy_probabilities(const DMDiagSequence<T>& view, Index first, Index count, T* out, Index) {
    for (Index i = 0; i < count; ++i)
        out[i] = view[first + i];
}

/// The sum, in no particular order, over steps [begin, end) of `walk`; see `sum_square_magnitudes`.
template <class T>
T sum_probabilities(const SVSequence<std::complex<T>>& view, const IndexWalk& walk, Index begin,
                    Index end) {
    return dispatch([&]<InstructionSet set>() {
        return sum_square_magnitudes<set>(parts(view.amplitudes), view.size, walk, begin, end);
    });
}
template <class T>
T sum_probabilities(const DMDiagSequence<T>& view, const IndexWalk& walk, Index begin, Index end) {
    T sum = 0;
    walk_groups(walk.free_mask, walk.fixed_bits, begin, end, [&](Index k) { sum += view[k]; });
    return sum;
}

}  // namespace pblinalg::cpu
