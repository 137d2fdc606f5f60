// A gate's formula applied along its walk: vector by vector, or amplitude by amplitude where no
// whole vector fits. Included by the sources that are compiled once per instruction set.
#pragma once

#include <type_traits>

#include "gates/formulas.hpp"
#include "gates/matrix_formulas.hpp"
#include "kernels/exact_kernels.hpp"
#include "kernels/values.hpp"
#include "kernels/vector_walk.hpp"
#include "kernels/walk_groups.hpp"

namespace pblinalg::cpu {

/// The vectors of one step of a gate.
template <class Gate, class V>
struct GateVectors : VectorWalk<V> {
    const unsigned int* targets;
    Index offsets[Gate::n_rows];  ///< amplitudes from the base to the vector of local index r
    Index target_bits = 0;        ///< union of the offsets
    Index amplitudes;             ///< how many the whole gate touches
    bool has_lane_targets = false;

    PBLINALG_ALWAYS_INLINE explicit GateVectors(const GateWalk& walk)
        : VectorWalk<V>(walk.groups),
          targets(walk.targets),
          offsets{},
          amplitudes(walk.groups.count * Gate::n_rows) {
        for (unsigned int p = 0; p < Gate::n_targets; ++p) {
            has_lane_targets |= this->in_lanes(targets[p]);
            const Index target_bit = this->take_target(targets[p]);
            target_bits |= target_bit;
            for (unsigned int r = 0; r < Gate::n_rows; ++r) {
                if (r >> (Gate::n_targets - 1 - p) & 1) offsets[r] |= target_bit;
            }
        }
    }

    template <Ahead way>
    PBLINALG_ALWAYS_INLINE LinesAhead<V, way> lines_ahead(Index begin) const {
        return {this->free_mask, this->fixed_bits, target_bits, amplitudes, begin};
    }

    PBLINALG_ALWAYS_INLINE void transpose_targets(V* a) const {
        for (unsigned int p = 0; p < Gate::n_targets; ++p) {
            if (this->in_lanes(targets[p])) {
                this->transpose_target(a, targets[p], p, Gate::n_targets);
            }
        }
    }
};

/// The factors of a gate.
template <class Gate, class V>
struct Factors {
    typename V::Factor of[Gate::n_factors + 1];
};
template <class Gate, class V, class T>
PBLINALG_ALWAYS_INLINE Factors<Gate, V> load_factors(const T* factors) {
    Factors<Gate, V> f{};
    for (unsigned int i = 0; i < Gate::n_factors; ++i)
        f.of[i] = typename V::Factor(factors[2 * i], factors[2 * i + 1]);
    return f;
}

/// The gate on groups [begin, end), one amplitude at a time, with the full complex product.
template <class Gate, class S, class Memory, class T>
[[gnu::noinline]] void update_scalars(Memory memory, const GateWalk& walk, Index begin, Index end,
                                      const T* factors) {
    Index offsets[Gate::n_rows] = {};
    for (unsigned int r = 0; r < Gate::n_rows; ++r) {
        for (unsigned int p = 0; p < Gate::n_targets; ++p) {
            if (r >> (Gate::n_targets - 1 - p) & 1) offsets[r] |= bit(walk.targets[p]);
        }
    }
    const auto f = load_factors<Gate, S>(factors);
    walk_groups(walk.groups.free_mask, walk.groups.fixed_bits, begin, end, [&](Index base) {
        S a[Gate::n_rows];
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            if (Gate::touches(r)) a[r] = S::load(memory, base | offsets[r]);
        }
        Gate::update(a, f.of);
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            if (Gate::touches(r)) a[r].store(memory, base | offsets[r]);
        }
    });
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

/// The vectors of one step. Handed on by value, so that they stay in registers.
template <class Gate, class V>
struct Rows {
    V a[Gate::n_rows];
};

/// One step without the products that are 0.
/// @return false, with nothing done, where they matter.
template <class Gate, class V, class F>
PBLINALG_ALWAYS_INLINE bool update_without_zeros(Rows<Gate, V>& rows, const F& f) {
    static_assert(Gate::n_rows == 2);
    using Short = typename V::WithoutZeros;
    Short a[] = {{rows.a[0].v}, {rows.a[1].v}};
    Gate::update(a, f.of);
    if (!Short::all_ordinary(a[0], a[1])) [[unlikely]]
        return false;
    rows = {{{a[0].v}, {a[1].v}}};
    return true;
}

/// One step, computed lane by lane with the full complex product.
template <class Gate, class V, class T>
[[gnu::noinline, gnu::cold]] Rows<Gate, V> update_with_recovery(Rows<Gate, V> rows,
                                                                const T* factors) {
    using S = typename V::ScalarValue;
    const auto f = load_factors<Gate, S>(factors);
    for (int lane = 0; lane < V::lanes; ++lane) {
        S a[Gate::n_rows];
        for (unsigned int r = 0; r < Gate::n_rows; ++r)
            a[r] = rows.a[r].lane(lane);
        Gate::update(a, f.of);
        for (unsigned int r = 0; r < Gate::n_rows; ++r)
            rows.a[r].set_lane(lane, a[r]);
    }
    return rows;
}

/// @tparam in_lanes   some target lies inside a vector.
/// @tparam chooses    some held bit lies inside a vector.
template <class Gate, bool in_lanes, bool chooses, Ahead way, class V, class T>
void update_vectors_on_way(typename V::Memory memory, const GateVectors<Gate, V>& walk, Index begin,
                           Index end, const T* factors) {
    constexpr auto moves = [](unsigned int r) { return in_lanes || Gate::touches(r); };

    const auto f = load_factors<Gate, V>(factors);
    const auto short_f = load_factors<Gate, typename V::WithoutZeros>(factors);
    // Given up at the first parts that are not ordinary: there will be more.
    bool shortcut = Gate::has_zero_products && V::tells_ordinary;
    const typename V::Bits chosen = walk.chosen_lanes();
    // Copies, which stores to the amplitudes cannot be suspected of changing.
    Index offsets[Gate::n_rows];
    for (unsigned int r = 0; r < Gate::n_rows; ++r)
        offsets[r] = walk.offsets[r];
    Index moved[Gate::n_rows];
    unsigned int n_moved = 0;
    for (unsigned int r = 0; r < Gate::n_rows; ++r) {
        if (moves(r)) moved[n_moved++] = offsets[r];
    }
    auto ahead = walk.template lines_ahead<way>(begin);
    const auto step = [&](Index base) __attribute__((always_inline)) {
        ahead.fetch(memory.parts, moved, n_moved);
        Rows<Gate, V> old{};
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            if (moves(r)) old.a[r] = V::load(memory, base + offsets[r]);
        }
        if constexpr (in_lanes) walk.transpose_targets(old.a);
        Rows<Gate, V> fresh = old;
        if constexpr (Gate::has_zero_products && V::tells_ordinary) {
            if (shortcut) shortcut = update_without_zeros(fresh, short_f);
        }
        if (!shortcut) {
            Gate::update(fresh.a, f.of);
            if constexpr (Gate::has_products) {
                if (any_nan<Gate>(fresh.a)) [[unlikely]]
                    fresh = update_with_recovery(old, factors);
            }
        }
        if constexpr (chooses) {
            for (unsigned int r = 0; r < Gate::n_rows; ++r) {
                if (moves(r)) fresh.a[r] = V::select(chosen, fresh.a[r], old.a[r]);
            }
        }
        if constexpr (in_lanes) walk.transpose_targets(fresh.a);
        for (unsigned int r = 0; r < Gate::n_rows; ++r) {
            if (moves(r)) fresh.a[r].store(memory, base + offsets[r]);
        }
    };
    walk_groups(walk.free_mask, walk.fixed_bits, begin, end, step);
}

template <class Gate, bool in_lanes, bool chooses, class V, class T>
void update_vectors_of_shape(typename V::Memory memory, const GateVectors<Gate, V>& walk,
                             Index begin, Index end, const T* factors) {
    // The one companion of a target inside vectors is never far.
    constexpr bool always_near = Gate::n_targets == 0 || (Gate::n_targets == 1 && in_lanes);
    // In the order of addresses come all vectors of a step.
    constexpr bool takes_all = in_lanes || Gate::touches(0);
    if constexpr (!always_near) {
        if (!takes_all || way_ahead(walk.target_bits) == Ahead::by_stream) {
            return update_vectors_on_way<Gate, in_lanes, chooses, Ahead::by_stream>(
                memory, walk, begin, end, factors);
        }
    }
    if constexpr (takes_all) {
        update_vectors_on_way<Gate, in_lanes, chooses, Ahead::by_address>(memory, walk, begin, end,
                                                                          factors);
    }
}

/// One step of a diagonal whose lanes with `target_lane` in their number have the second factor.
template <class V, class T>
[[gnu::noinline, gnu::cold]] Rows<GateDiagonal, V> multiply_lanes_with_recovery(
    Rows<GateDiagonal, V> rows, Index target_lane, const T* factors) {
    const auto f = load_factors<GateDiagonal, typename V::ScalarValue>(factors);
    for (V& a : rows.a) {
        for (int lane = 0; lane < V::lanes; ++lane)
            a.set_lane(lane, cmul(f.of[lane & target_lane ? 1 : 0], a.lane(lane)));
    }
    return rows;
}

/// A diagonal on a target inside a vector: a factor of its own in every lane, and no exchange.
template <bool chooses, class V, class T>
void multiply_lanes(typename V::Memory memory, const GateVectors<GateDiagonal, V>& walk,
                    Index begin, Index end, const T* factors) {
    const auto f = load_factors<GateDiagonal, V>(factors);
    const Index target_lane = bit(walk.targets[0]);
    const typename V::Factor factor =
        V::Factor::select(V::lanes_where(target_lane, target_lane), f.of[1], f.of[0]);
    const typename V::Bits chosen = walk.chosen_lanes();
    const Index offsets[] = {0, walk.offsets[1]};
    auto ahead = walk.template lines_ahead<Ahead::by_address>(begin);
    walk_groups(walk.free_mask, walk.fixed_bits, begin, end, [&](Index base) {
        ahead.fetch(memory.parts, offsets, 2);
        const Rows<GateDiagonal, V> old{V::load(memory, base), V::load(memory, base + offsets[1])};
        Rows<GateDiagonal, V> fresh{cmul(factor, old.a[0]), cmul(factor, old.a[1])};
        if (any_nan<GateDiagonal>(fresh.a)) [[unlikely]]
            fresh = multiply_lanes_with_recovery(old, target_lane, factors);
        for (unsigned int r = 0; r < 2; ++r) {
            if constexpr (chooses) fresh.a[r] = V::select(chosen, fresh.a[r], old.a[r]);
            fresh.a[r].store(memory, base + offsets[r]);
        }
    });
}

/// The gate on the steps [begin, end) of its vector walk.
template <class Gate, class V, class T>
void update_vectors(typename V::Memory memory, const GateVectors<Gate, V>& walk, Index begin,
                    Index end, const T* factors) {
    const bool chooses = walk.chooses_lanes();
    if constexpr (std::is_same_v<Gate, GateDiagonal>) {
        if (walk.has_lane_targets) {
            if (chooses) return multiply_lanes<true>(memory, walk, begin, end, factors);
            return multiply_lanes<false>(memory, walk, begin, end, factors);
        }
    } else if constexpr (Gate::n_targets > 0) {
        if (walk.has_lane_targets && chooses) {
            return update_vectors_of_shape<Gate, true, true>(memory, walk, begin, end, factors);
        }
        if (walk.has_lane_targets) {
            return update_vectors_of_shape<Gate, true, false>(memory, walk, begin, end, factors);
        }
    }
    if (chooses) {
        return update_vectors_of_shape<Gate, false, true>(memory, walk, begin, end, factors);
    }
    update_vectors_of_shape<Gate, false, false>(memory, walk, begin, end, factors);
}

}  // namespace pblinalg::cpu
