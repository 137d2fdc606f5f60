// Compiled once per instruction set, PBLINALG_INSTRUCTION_SET naming it, without contraction of
// multiply and add and without automatic vectorisation, which would reorder or fuse operations.
// Nothing of the standard library may be instantiated here: the linker could keep a copy built for
// this set and run it on a processor without.
#include "kernels/exact_kernels.hpp"

#include "gates/formulas.hpp"
#include "gates/matrix_formulas.hpp"
#include "kernels/gate_vectors.hpp"

namespace pblinalg::cpu {
namespace {

using orb::core::iterator::GroupMasks;

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

}  // namespace

template <InstructionSet set, class Gate, class T>
void update_groups(T* state, const GateWalk& walk, Index begin, Index end, const T* factors) {
    using V = Vector<set, T>;
    const InterleavedMemory<T> memory{state};
    const GateVectors<Gate, V> vectors(walk);
    const VectorRange range(walk.groups, begin, end, vectors.group_bits);
    if (begin < range.begin) {
        update_scalars<Gate, Scalar<set, T>>(memory, walk, begin, range.begin, factors);
    }
    if (!range.empty()) {
        update_vectors(memory, vectors, range.first_step(), range.last_step(), factors);
    }
    if (range.end < end) {
        update_scalars<Gate, Scalar<set, T>>(memory, walk, range.end, end, factors);
    }
}

namespace {

/// The factors of a diagonal as whole vectors: one row of lanes per pattern of the target bits
/// above the lanes.
template <class V, class T>
class DiagonalRows {
  public:
    DiagonalRows(const T* diagonal, Index target_mask)
        : diagonal_(diagonal),
          lane_mask_(target_mask & (V::lanes - 1)),
          lane_count_bits_(count_bits(lane_mask_)),
          high_mask_(target_mask & ~Index{V::lanes - 1}),
          kept_(count_bits(high_mask_) <= kept_bits) {
        if (!kept_) return;
        for (Index pattern = 0; pattern < bit(count_bits(high_mask_)); ++pattern) {
            fill(pattern, rows_ + pattern * V::n_elements);
        }
    }

    /// The factors of the vector at amplitude index `base`.
    PBLINALG_ALWAYS_INLINE typename V::Factor at(Index base) {
        const Index pattern = extract_bits(base, high_mask_);
        T* const row = rows_ + (kept_ ? pattern * V::n_elements : 0);
        if (!kept_) fill(pattern, row);
        return V::factor_per_lane(V::load(row));
    }

  private:
    // 16 KiB of rows serve every diagonal of up to 8 qubits; larger ones build each row anew.
    static constexpr unsigned int kept_bits = 8;

    PBLINALG_ALWAYS_INLINE void fill(Index pattern, T* row) const {
        for (Index lane = 0; lane < V::lanes; ++lane) {
            const Index entry = (pattern << lane_count_bits_) | extract_bits(lane, lane_mask_);
            row[2 * lane] = diagonal_[2 * entry];
            row[2 * lane + 1] = diagonal_[2 * entry + 1];
        }
    }

    const T* diagonal_;
    Index lane_mask_;
    unsigned int lane_count_bits_;
    Index high_mask_;
    bool kept_;
    alignas(64) T rows_[(std::size_t{1} << kept_bits) * V::n_elements];
};

template <class T>
[[gnu::noinline]] void multiply_diagonal_scalars(T* state, const GroupMasks& groups, Index begin,
                                                 Index end, const T* diagonal, Index target_mask) {
    using S = Scalar<this_set, T>;
    const InterleavedMemory<T> memory{state};
    walk_groups(groups.free_mask, groups.fixed_bits, begin, end, [&](Index index) {
        const S factor = S::load(diagonal + 2 * extract_bits(index, target_mask));
        cmul(factor, S::load(memory, index)).store(memory, index);
    });
}

}  // namespace

template <InstructionSet set, class T>
void multiply_diagonal(T* state, const GroupMasks& groups, Index begin, Index end,
                       const T* diagonal, Index target_mask) {
    using V = Vector<set, T>;
    using S = Scalar<set, T>;
    const VectorWalk<V> vectors(groups);
    const VectorRange range(groups, begin, end, vectors.group_bits);
    if (begin < range.begin) {
        multiply_diagonal_scalars(state, groups, begin, range.begin, diagonal, target_mask);
    }
    if (!range.empty()) {
        DiagonalRows<V, T> rows(diagonal, target_mask);
        const typename V::Bits chosen = vectors.chosen_lanes();
        walk_groups(vectors.free_mask, vectors.fixed_bits, range.first_step(), range.last_step(),
                    [&](Index base) {
                        T* const at = state + 2 * base;
                        const V old = V::load(at);
                        V fresh = cmul(rows.at(base), old);
                        if (V::holds_nan(fresh, fresh)) [[unlikely]] {
                            for (Index lane = 0; lane < V::lanes; ++lane) {
                                const Index entry = extract_bits(base | lane, target_mask);
                                const S product = cmul(S::load(diagonal + 2 * entry),
                                                       old.lane(static_cast<int>(lane)));
                                fresh.set_lane(static_cast<int>(lane), product);
                            }
                        }
                        V::select(chosen, fresh, old).store(at);
                    });
    }
    if (range.end < end) {
        multiply_diagonal_scalars(state, groups, range.end, end, diagonal, target_mask);
    }
}

template <InstructionSet set>
int compiled_register_bytes() {
#if defined(__AVX512F__)
    return 64;
#elif defined(__AVX2__)
    return 32;
#else
    return 16;
#endif
}

#define PBLINALG_INSTANTIATE_GATE(Gate, T) \
    template void update_groups<this_set, Gate, T>(T*, const GateWalk&, Index, Index, const T*);

#define PBLINALG_INSTANTIATE(T)                                                                 \
    PBLINALG_INSTANTIATE_GATE(GateH, T)                                                         \
    PBLINALG_INSTANTIATE_GATE(GateX, T)                                                         \
    PBLINALG_INSTANTIATE_GATE(GateY, T)                                                         \
    PBLINALG_INSTANTIATE_GATE(GateRX, T)                                                        \
    PBLINALG_INSTANTIATE_GATE(GateRY, T)                                                        \
    PBLINALG_INSTANTIATE_GATE(GateYtoZ, T)                                                      \
    PBLINALG_INSTANTIATE_GATE(GateZtoY, T)                                                      \
    PBLINALG_INSTANTIATE_GATE(_Gate1QB<true>, T)                                                \
    PBLINALG_INSTANTIATE_GATE(GateZ, T)                                                         \
    PBLINALG_INSTANTIATE_GATE(GateS, T)                                                         \
    PBLINALG_INSTANTIATE_GATE(GateT, T)                                                         \
    PBLINALG_INSTANTIATE_GATE(GateDiagonal, T)                                                  \
    PBLINALG_INSTANTIATE_GATE(GatePH<T>, T)                                                     \
    PBLINALG_INSTANTIATE_GATE(GateSWAP, T)                                                      \
    PBLINALG_INSTANTIATE_GATE(GateSQRTSWAP, T)                                                  \
    PBLINALG_INSTANTIATE_GATE(GateISWAP, T)                                                     \
    PBLINALG_INSTANTIATE_GATE(GateHH, T)                                                        \
    PBLINALG_INSTANTIATE_GATE(GateZtoYZtoYConj, T)                                              \
    PBLINALG_INSTANTIATE_GATE(GateYtoZYtoZConj, T)                                              \
    PBLINALG_INSTANTIATE_GATE(_Gate2QB<true>, T)                                                \
    template void multiply_diagonal<this_set, T>(T*, const GroupMasks&, Index, Index, const T*, \
                                                 Index);

PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
template int compiled_register_bytes<this_set>();

}  // namespace pblinalg::cpu
