// Compiled once per instruction set, PBLINALG_INSTRUCTION_SET naming it, without contraction of
// multiply and add and without automatic vectorisation, which would reorder or fuse operations.
// Nothing of the standard library may be instantiated here: the linker could keep a copy built for
// this set and run it on a processor without.
#include "kernels/blocks/exact_blocks.hpp"

#include "kernels/blocks/values.hpp"
#include "kernels/blocks/vector_walk.hpp"
#include "kernels/blocks/walk_groups.hpp"
#include "kernels/gates.hpp"
#include "kernels/reserved_names.hpp"

namespace pblinalg::cpu {
namespace {

using orb::core::iterator::GroupMasks;

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

template <class Gate, class T>
[[gnu::noinline]] void update_scalars(T* state, const GateWalk& walk, Index begin, Index end,
                                      const T* factors) {
    using S = Scalar<this_set, T>;
    Index offsets[Gate::n_rows] = {};
    for (unsigned int r = 0; r < Gate::n_rows; ++r) {
        for (unsigned int p = 0; p < Gate::n_targets; ++p) {
            if (r >> (Gate::n_targets - 1 - p) & 1) offsets[r] |= bit(walk.targets[p]);
        }
    }
    S f[Gate::n_factors + 1];
    for (unsigned int i = 0; i < Gate::n_factors; ++i)
        f[i] = S::load(factors + 2 * i);
    walk_groups(walk.groups.free_mask, walk.groups.fixed_bits, begin, end, [&](Index base) {
        S a[Gate::n_rows];
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            if (Gate::touches(r)) a[r] = S::load(state + 2 * (base | offsets[r]));
        }
        Gate::update(a, f);
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            if (Gate::touches(r)) a[r].store(state + 2 * (base | offsets[r]));
        }
    });
}

/// Recomputes one step lane by lane with the full complex product.
template <class Gate, class T, class V>
[[gnu::noinline, gnu::cold]] void redo_with_recovery(const V* old, V* fresh, const T* factors) {
    using S = Scalar<this_set, T>;
    S f[Gate::n_factors + 1];
    for (unsigned int i = 0; i < Gate::n_factors; ++i)
        f[i] = S::load(factors + 2 * i);
    for (int lane = 0; lane < V::lanes; ++lane) {
        S a[Gate::n_rows];
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            a[r] = S(old[r].v[2 * lane], old[r].v[2 * lane + 1]);
        }
        Gate::update(a, f);
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            fresh[r].v[2 * lane] = a[r].re;
            fresh[r].v[2 * lane + 1] = a[r].im;
        }
    }
}

template <class Gate, class V>
PBLINALG_ALWAYS_INLINE bool any_nan(const V* a) {
    if constexpr (Gate::n_rows == 1) return V::holds_nan(a[0], a[0]);
    if constexpr (Gate::n_rows == 2) return V::holds_nan(a[0], a[1]);
    if constexpr (Gate::n_rows == 4 && !Gate::touches(0)) return V::holds_nan(a[1], a[2]);
    if constexpr (Gate::n_rows == 4 && Gate::touches(0)) {
        return V::holds_nan(a[0], a[1]) || V::holds_nan(a[2], a[3]);
    }
}

/// The vectors of one step of a gate.
template <class Gate, class V>
struct GateVectors : VectorWalk<V> {
    const unsigned int* targets;
    Index offsets[Gate::n_rows];  ///< amplitudes from the base to the vector of local index r
    bool has_lane_targets = false;

    PBLINALG_ALWAYS_INLINE explicit GateVectors(const GateWalk& walk)
        : VectorWalk<V>(walk.groups), targets(walk.targets), offsets{} {
        for (unsigned int p = 0; p < Gate::n_targets; ++p) {
            has_lane_targets |= this->in_lanes(targets[p]);
            const Index target_bit = this->take_target(targets[p]);
            for (unsigned int r = 0; r < Gate::n_rows; ++r) {
                if (r >> (Gate::n_targets - 1 - p) & 1) offsets[r] |= target_bit;
            }
        }
    }
};

/// @tparam in_lanes   some target lies inside a vector.
/// @tparam chooses    some control lies inside a vector.
template <class Gate, bool in_lanes, bool chooses, class T, class V>
void update_vectors(T* state, const GateVectors<Gate, V>& walk, Index begin, Index end,
                    const T* factors) {
    const auto transpose_targets = [&](V* a) {
        for (unsigned int p = 0; p < Gate::n_targets; ++p) {
            if (walk.in_lanes(walk.targets[p])) {
                walk.transpose_target(a, walk.targets[p], p, Gate::n_targets);
            }
        }
    };
    constexpr auto moves = [](unsigned int r) { return in_lanes || Gate::touches(r); };

    typename V::Factor f[Gate::n_factors + 1];
    for (unsigned int i = 0; i < Gate::n_factors; ++i) {
        f[i] = typename V::Factor(factors[2 * i], factors[2 * i + 1]);
    }
    const typename V::Bits chosen = V::lanes_with(walk.control_lanes);
    walk_groups(walk.free_mask, walk.fixed_bits, begin, end, [&](Index base) {
        T* const at = state + 2 * base;
        V old[Gate::n_rows];
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            if (moves(r)) old[r] = V::load(at + 2 * walk.offsets[r]);
        }
        if constexpr (in_lanes) transpose_targets(old);
        V fresh[Gate::n_rows];
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            if (moves(r)) fresh[r] = old[r];
        }
        Gate::update(fresh, f);
        if constexpr (Gate::has_products) {
            if (any_nan<Gate>(fresh)) [[unlikely]] {
                for (unsigned int r = 0; r < Gate::n_rows; ++r) {
                    if (!moves(r)) fresh[r] = old[r] = V{};
                }
                redo_with_recovery<Gate>(old, fresh, factors);
            }
        }
        if constexpr (chooses) {
            for (unsigned int r = 0; r < Gate::n_rows; ++r) {
                if (moves(r)) fresh[r] = V::select(chosen, fresh[r], old[r]);
            }
        }
        if constexpr (in_lanes) transpose_targets(fresh);
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            if (moves(r)) fresh[r].store(at + 2 * walk.offsets[r]);
        }
    });
}

}  // namespace

template <InstructionSet set, class Gate, class T>
void update_groups(T* state, const GateWalk& walk, Index begin, Index end, const T* factors) {
    using V = Vector<set, T>;
    const GateVectors<Gate, V> vectors(walk);
    const VectorRange range(walk.groups, begin, end, vectors.group_bits);
    if (begin < range.begin) update_scalars<Gate>(state, walk, begin, range.begin, factors);
    if (!range.empty()) {
        const Index first = range.first_step();
        const Index last = range.last_step();
        const bool in_lanes = vectors.has_lane_targets;
        const bool chooses = vectors.control_lanes != 0;
        if (!in_lanes && !chooses) {
            update_vectors<Gate, false, false>(state, vectors, first, last, factors);
        } else if (!in_lanes) {
            update_vectors<Gate, false, true>(state, vectors, first, last, factors);
        } else if (!chooses) {
            update_vectors<Gate, true, false>(state, vectors, first, last, factors);
        } else {
            update_vectors<Gate, true, true>(state, vectors, first, last, factors);
        }
    }
    if (range.end < end) update_scalars<Gate>(state, walk, range.end, end, factors);
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
    walk_groups(groups.free_mask, groups.fixed_bits, begin, end, [&](Index index) {
        const S factor = S::load(diagonal + 2 * extract_bits(index, target_mask));
        cmul(factor, S::load(state + 2 * index)).store(state + 2 * index);
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
        const typename V::Bits chosen = V::lanes_with(vectors.control_lanes);
        walk_groups(vectors.free_mask, vectors.fixed_bits, range.first_step(), range.last_step(),
                    [&](Index base) {
                        T* const at = state + 2 * base;
                        const V old = V::load(at);
                        V fresh = cmul(rows.at(base), old);
                        if (V::holds_nan(fresh, fresh)) [[unlikely]] {
                            for (Index lane = 0; lane < V::lanes; ++lane) {
                                const Index entry = extract_bits(base | lane, target_mask);
                                const S product = cmul(S::load(diagonal + 2 * entry),
                                                       S(old.v[2 * lane], old.v[2 * lane + 1]));
                                fresh.v[2 * lane] = product.re;
                                fresh.v[2 * lane + 1] = product.im;
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
