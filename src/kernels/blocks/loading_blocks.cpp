// Compiled once per instruction set, PBLINALG_INSTRUCTION_SET naming it, with the options of
// exact_blocks.cpp. As there, nothing of the standard library may be instantiated.
#include "kernels/blocks/loading_blocks.hpp"

#include "kernels/blocks/values.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

PBLINALG_ALWAYS_INLINE float square_root(float x) {
    return __builtin_sqrtf(x);
}
PBLINALG_ALWAYS_INLINE double square_root(double x) {
    return __builtin_sqrt(x);
}

/// @tparam count  number of bases; known to the compiler, so that the sums stay in registers.
template <unsigned int count, class T>
PBLINALG_ALWAYS_INLINE void sum_norms(const T* state, const Index* bases, const Index* offsets,
                                      Index n_offsets, T* sums) {
    T own[count] = {};
    for (Index j = 0; j < n_offsets; ++j) {
        for (unsigned int b = 0; b < count; ++b) {
            own[b] += Scalar<this_set, T>::load(state + 2 * (bases[b] | offsets[j])).norm();
        }
    }
    for (unsigned int b = 0; b < count; ++b)
        sums[b] = own[b];
}

}  // namespace

template <InstructionSet set, class T>
void norms_of_groups(const T* state, const Index* bases, unsigned int n_bases, const Index* offsets,
                     Index n_offsets, T* roots) {
    if (n_bases == groups_at_once) {
        sum_norms<groups_at_once>(state, bases, offsets, n_offsets, roots);
    } else {
        for (unsigned int b = 0; b < n_bases; ++b) {
            sum_norms<1>(state, bases + b, offsets, n_offsets, roots + b);
        }
    }
    for (unsigned int b = 0; b < n_bases; ++b)
        roots[b] = square_root(roots[b]);
}

template <InstructionSet set, class T>
void write_groups(T* state, const Index* bases, unsigned int n_bases, Index mask,
                  const double* amplitudes, const T* roots, Index begin, Index end) {
    Index place = deposit_bits(begin, mask);
    for (Index s = begin; s < end; ++s) {
        const T re = static_cast<T>(amplitudes[2 * s]);
        const T im = static_cast<T>(amplitudes[2 * s + 1]);
        for (unsigned int b = 0; b < n_bases; ++b) {
            T* const at = state + 2 * (bases[b] | place);
            at[0] = re * roots[b];
            at[1] = im * roots[b];
        }
        place = next_subset(place, mask);
    }
}

template <InstructionSet set, class T>
void negate_marked(T* state, const Index* marks, Index chunk_mask, Index begin, Index end) {
    using V = Vector<set, T>;
    for (Index chunk = begin; chunk < end; ++chunk) {
        const Index marked = marks[extract_bits(chunk, chunk_mask)];
        if (marked == 0) continue;
        T* const at = state + 2 * chunk * marks_per_word;
        for (Index first = 0; first < marks_per_word; first += V::lanes) {
            const V old = V::load(at + 2 * first);
            V::select(V::lanes_in(marked >> first), -old, old).store(at + 2 * first);
        }
    }
}

#define PBLINALG_INSTANTIATE(T)                                                                    \
    template void norms_of_groups<this_set, T>(const T*, const Index*, unsigned int, const Index*, \
                                               Index, T*);                                         \
    template void write_groups<this_set, T>(T*, const Index*, unsigned int, Index, const double*,  \
                                            const T*, Index, Index);                               \
    template void negate_marked<this_set, T>(T*, const Index*, Index, Index, Index);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)

}  // namespace pblinalg::cpu
