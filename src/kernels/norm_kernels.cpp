// Compiled once per instruction set, PBLINALG_INSTRUCTION_SET naming it, without contraction of
// multiply and add: the one fused operation of a norm is written out. As in exact_kernels.cpp,
// nothing of the standard library may be instantiated.
#include "kernels/norm_kernels.hpp"

#include "kernels/values.hpp"
#include "kernels/walk_groups.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

/// One vector of norms covers `2 * lanes` neighbouring amplitudes.
template <class T>
using V = Vector<this_set, T>;

/// The norms of the `n_elements` amplitudes at `from`.
template <class T>
PBLINALG_ALWAYS_INLINE V<T> load_norms(const T* from) {
    V<T> norms = V<T>::plain_norms(V<T>::load(from), V<T>::load(from + V<T>::n_elements));
    if (V<T>::holds_nan(norms, norms)) [[unlikely]] {
        for (int e = 0; e < V<T>::n_elements; ++e)
            norms.v[e] = Scalar<this_set, T>::load(from + 2 * e).norm();
    }
    return norms;
}

}  // namespace

template <InstructionSet set, class T>
void square_magnitudes(const T* amplitudes, Index count, T* norms, const T* next) {
    constexpr Index width = V<T>::n_elements;
    constexpr Index line = 64 / sizeof(T);
    Index i = 0;
    for (; i + width <= count; i += width) {
        for (Index part = 0; part < 2 * width; part += line)
            __builtin_prefetch(next + 2 * i + part);
        load_norms(amplitudes + 2 * i).store(norms + i);
    }
    for (; i < count; ++i)
        norms[i] = Scalar<set, T>::load(amplitudes + 2 * i).norm();
}

template <InstructionSet set, class T>
T sum_square_magnitudes(const T* amplitudes, Index size, const IndexWalk& walk, Index begin,
                        Index end) {
    constexpr Index width = V<T>::n_elements;
    constexpr Index lane_mask = width - 1;
    T sum = 0;
    if (size < width) {
        walk_groups(walk.free_mask, walk.fixed_bits, begin, end,
                    [&](Index i) { sum += Scalar<set, T>::load(amplitudes + 2 * i).norm(); });
        return sum;
    }
    const unsigned int group_bits = count_bits(walk.free_mask & lane_mask);
    const typename V<T>::Bits chosen =
        V<T>::elements_where(~walk.free_mask & lane_mask, walk.fixed_bits & lane_mask);
    V<T> sums{};
    walk_groups(walk.free_mask & ~lane_mask, walk.fixed_bits & ~lane_mask, begin >> group_bits,
                end >> group_bits, [&](Index base) {
                    const V<T> norms = load_norms(amplitudes + 2 * base);
                    sums = sums + V<T>::select(chosen, norms, V<T>{});
                });
    for (Index e = 0; e < width; ++e)
        sum += sums.v[e];
    return sum;
}

namespace {

/// As `add_by_outcome` for `count` outcomes, whose sums stay in registers.
template <int count, class T>
PBLINALG_ALWAYS_INLINE void add_outcomes(T* sums, const T* values, const unsigned int* offsets,
                                         const OutcomeTile& tile) {
    T own[count];
    for (int s = 0; s < count; ++s)
        own[s] = sums[s];
    for (Index f = 0; f < tile.n_free; ++f) {
        const T* const at = values + tile.free_offsets[f];
        for (int s = 0; s < count; ++s)
            own[s] += at[offsets[s]];
    }
    for (int s = 0; s < count; ++s)
        sums[s] = own[s];
}

}  // namespace

template <InstructionSet set, class T>
void add_by_outcome(T* sums, const T* values, const OutcomeTile& tile) {
    constexpr Index width = V<T>::n_elements;
    const unsigned int* const offsets = tile.outcome_offsets;
    if (tile.n_outcomes >= width && offsets[width - 1] == width - 1) {
        // Neighbouring values belong to neighbouring outcomes.
        for (Index s = 0; s < tile.n_outcomes; s += width) {
            V<T> own = V<T>::load(sums + s);
            for (Index f = 0; f < tile.n_free; ++f)
                own = own + V<T>::load(values + offsets[s] + tile.free_offsets[f]);
            own.store(sums + s);
        }
    } else if (tile.n_outcomes >= 8) {
        for (Index s = 0; s < tile.n_outcomes; s += 8)
            add_outcomes<8>(sums + s, values, offsets + s, tile);
    } else if (tile.n_outcomes == 4) {
        add_outcomes<4>(sums, values, offsets, tile);
    } else if (tile.n_outcomes == 2) {
        add_outcomes<2>(sums, values, offsets, tile);
    } else {
        add_outcomes<1>(sums, values, offsets, tile);
    }
}

template <InstructionSet set, class T>
void divide_matching(T* amplitudes, Index size, const Selection& kept, Index begin, Index end,
                     T by) {
    using S = Scalar<set, T>;
    const T cleared = T(0) / by;
    if (size < V<T>::lanes) {
        const InterleavedMemory<T> memory{amplitudes};
        for (Index i = begin; i < end; ++i) {
            (kept.holds(i) ? divide(S::load(memory, i), by) : S(cleared, cleared)).store(memory, i);
        }
        return;
    }
    constexpr Index lane_mask = V<T>::lanes - 1;
    const Selection high{kept.mask & ~lane_mask, kept.pattern & ~lane_mask};
    const typename V<T>::Bits chosen =
        V<T>::lanes_where(kept.mask & lane_mask, kept.pattern & lane_mask);
    const V<T> none = V<T>{cleared - typename V<T>::Elements{}};
    for (Index i = begin; i < end; i += V<T>::lanes) {
        T* const at = amplitudes + 2 * i;
        if (high.holds(i)) {
            V<T>::select(chosen, divide(V<T>::load(at), by), none).store(at);
        } else {
            none.store(at);
        }
    }
}

#define PBLINALG_INSTANTIATE(T)                                                             \
    template void square_magnitudes<this_set, T>(const T*, Index, T*, const T*);            \
    template T sum_square_magnitudes<this_set, T>(const T*, Index, const IndexWalk&, Index, \
                                                  Index);                                   \
    template void add_by_outcome<this_set, T>(T*, const T*, const OutcomeTile&);            \
    template void divide_matching<this_set, T>(T*, Index, const Selection&, Index, Index, T);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)

}  // namespace pblinalg::cpu
