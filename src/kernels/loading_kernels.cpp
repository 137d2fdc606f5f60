// Compiled once per instruction set, PBLINALG_INSTRUCTION_SET naming it, with the options of
// exact_kernels.cpp. As there, nothing of the standard library may be instantiated.
#include "kernels/loading_kernels.hpp"

#include "kernels/values.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

/// The squared magnitude; the test for infinities waits until a NaN calls for it.
template <class T>
PBLINALG_ALWAYS_INLINE T squared_norm(const T* at) {
    using S = Scalar<this_set, T>;
    const T plain = S::fused_multiply_add(at[0], at[0], at[1] * at[1]);
    return plain == plain ? plain : S::load(at).norm();
}

// In both, `count` is the number of bases, known to the compiler so that sums and roots stay in
// registers.

template <unsigned int count, class T>
PBLINALG_ALWAYS_INLINE void add_norms_of(const T* state, const Index* bases, const Index* offsets,
                                         Index n_offsets, T* sums) {
    T own[count];
    for (unsigned int b = 0; b < count; ++b)
        own[b] = sums[b];
    for (Index j = 0; j < n_offsets; ++j) {
        for (unsigned int b = 0; b < count; ++b)
            own[b] += squared_norm(state + 2 * (bases[b] | offsets[j]));
    }
    for (unsigned int b = 0; b < count; ++b)
        sums[b] = own[b];
}

template <unsigned int count, class T>
PBLINALG_ALWAYS_INLINE void write_scaled(T* state, const Index* bases, Index mask,
                                         const double* amplitudes, const T* roots, Index begin,
                                         Index end) {
    T own[count];
    T* at[count];
    for (unsigned int b = 0; b < count; ++b) {
        own[b] = roots[b];
        at[b] = state + 2 * bases[b];
    }
    Index place = deposit_bits(begin, mask);
    for (Index s = begin; s < end; ++s) {
        const T re = static_cast<T>(amplitudes[2 * s]);
        const T im = static_cast<T>(amplitudes[2 * s + 1]);
        for (unsigned int b = 0; b < count; ++b) {
            at[b][2 * place] = re * own[b];
            at[b][2 * place + 1] = im * own[b];
        }
        place = next_subset(place, mask);
    }
}

}  // namespace

template <InstructionSet set, class T>
void add_norms(const T* state, const Index* bases, unsigned int n_bases, const Index* offsets,
               Index n_offsets, T* sums) {
    if (n_bases == groups_at_once) {
        add_norms_of<groups_at_once>(state, bases, offsets, n_offsets, sums);
        return;
    }
    for (unsigned int b = 0; b < n_bases; ++b)
        add_norms_of<1>(state, bases + b, offsets, n_offsets, sums + b);
}

template <InstructionSet set, class T>
void write_groups(T* state, const Index* bases, unsigned int n_bases, Index mask,
                  const double* amplitudes, const T* roots, Index begin, Index end) {
    if (n_bases == groups_at_once) {
        write_scaled<groups_at_once>(state, bases, mask, amplitudes, roots, begin, end);
        return;
    }
    for (unsigned int b = 0; b < n_bases; ++b)
        write_scaled<1>(state, bases + b, mask, amplitudes, roots + b, begin, end);
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

#define PBLINALG_INSTANTIATE(T)                                                                   \
    template void add_norms<this_set, T>(const T*, const Index*, unsigned int, const Index*,      \
                                         Index, T*);                                              \
    template void write_groups<this_set, T>(T*, const Index*, unsigned int, Index, const double*, \
                                            const T*, Index, Index);                              \
    template void negate_marked<this_set, T>(T*, const Index*, Index, Index, Index);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)

}  // namespace pblinalg::cpu
