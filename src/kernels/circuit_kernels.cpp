// Compiled like exact_kernels.cpp: once per instruction set, without contraction or automatic
// vectorisation, and without instantiating anything of the standard library.
#include "kernels/circuit_kernels.hpp"

#include "kernels/unrolled.hpp"
#include "kernels/values.hpp"
#include "kernels/walk_groups.hpp"
#include "gates/formulas.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

/// Vectors of both parts that leave half of the registers to the arithmetic.
constexpr unsigned int row_bits = n_registers<this_set> == 32 ? 3 : 2;
constexpr unsigned int n_rows = 1u << row_bits;

/// Calls `body.operator()<r>()` for every row r.
template <class Body>
PBLINALG_ALWAYS_INLINE void for_each_row(const Body& body) {
    unrolled<n_rows>(body);
}

/// Calls `body.operator()<r0, r1>()` for every pair of rows that differ in row bit `place`.
template <unsigned int place, class Body>
PBLINALG_ALWAYS_INLINE void for_each_pair(const Body& body) {
    for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
        if constexpr (place < row_bits && !(r >> place & 1)) {
            body.template operator()<r, (r | 1u << place)>();
        }
    });
}

template <class Gate, unsigned int place, class V, class T>
PBLINALG_ALWAYS_INLINE void mix(V* a, const CircuitStep<T>& step) {
    typename V::Factor f[Gate::n_factors + 1];
    for (unsigned int i = 0; i < Gate::n_factors; ++i) {
        f[i] = typename V::Factor(step.factors[2 * i], step.factors[2 * i + 1]);
    }
    for_each_pair<place>([&]<unsigned int r0, unsigned int r1>() __attribute__((always_inline)) {
        V pair[2] = {a[r0], a[r1]};
        Gate::update(pair, f);
        a[r0] = pair[0];
        a[r1] = pair[1];
    });
}

/// X where `rows` says so.
template <unsigned int place, class V>
PBLINALG_ALWAYS_INLINE void flip(V* a, unsigned int rows) {
    for_each_pair<place>([&]<unsigned int r0, unsigned int r1>() __attribute__((always_inline)) {
        if (rows >> r0 & 1) {
            const V old = a[r0];
            a[r0] = a[r1];
            a[r1] = old;
        }
    });
}

/// Calls `body.operator()<r>(chosen)` for every row r with its selected lanes. Mostly they are the
/// same for all rows.
template <class V, class T, class Body>
PBLINALG_ALWAYS_INLINE void for_each_row_by_lane(const CircuitStep<T>& step, unsigned int rows,
                                                 const Body& body) {
    const auto lanes_of_row = [&](unsigned int r) __attribute__((always_inline)) {
        return V::lanes_in(step.lane_pattern ^ (0u - (rows >> r & 1)));
    };
    if (step.row_pattern == 0) {
        const typename V::Bits chosen = lanes_of_row(0);
        for_each_row([&]<unsigned int r>()
                         __attribute__((always_inline)) { body.template operator()<r>(chosen); });
    } else {
        for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
            body.template operator()<r>(lanes_of_row(r));
        });
    }
}

template <unsigned int place, class V, class T>
PBLINALG_ALWAYS_INLINE void flip_by_lane(V* a, const CircuitStep<T>& step, unsigned int rows) {
    for_each_row_by_lane<V>(
        step, rows, [&]<unsigned int r>(typename V::Bits chosen) __attribute__((always_inline)) {
            if constexpr (place < row_bits && !(r >> place & 1)) {
                constexpr unsigned int other = r | 1u << place;
                const V old = a[r];
                a[r] = V::select(chosen, a[other], old);
                a[other] = V::select(chosen, old, a[other]);
            }
        });
}

/// X on a lane bit.
template <unsigned int lane_bit, class V>
PBLINALG_ALWAYS_INLINE void flip_lanes(V* a, unsigned int rows) {
    for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
        if (rows >> r & 1) a[r] = a[r].template flip_lane_bit<lane_bit>();
    });
}

template <unsigned int lane_bit, class V, class T>
PBLINALG_ALWAYS_INLINE void flip_lanes_by_lane(V* a, const CircuitStep<T>& step,
                                               unsigned int rows) {
    for_each_row_by_lane<V>(
        step, rows, [&]<unsigned int r>(typename V::Bits chosen) __attribute__((always_inline)) {
            a[r] = V::select(chosen, a[r].template flip_lane_bit<lane_bit>(), a[r]);
        });
}

/// Exchanges a lane bit with row bit 0.
template <unsigned int lane_bit, class V>
PBLINALG_ALWAYS_INLINE void exchange(V* a) {
    for_each_pair<0>([&]<unsigned int r0, unsigned int r1>()
                         __attribute__((always_inline)) { V::transpose(a[r0], a[r1], lane_bit); });
}

/// A factor for each parity.
template <class V, class T>
PBLINALG_ALWAYS_INLINE void multiply(V* a, const CircuitStep<T>& step, unsigned int rows) {
    for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
        const T* const f = step.factors + 2 * (rows >> r & 1);
        a[r] = cmul(typename V::Factor(f[0], f[1]), a[r]);
    });
}

template <class V, class T>
PBLINALG_ALWAYS_INLINE void multiply_by_lane(V* a, const CircuitStep<T>& step, unsigned int rows) {
    using Factor = typename V::Factor;
    const T* const f = step.factors;
    const Factor even(f[0], f[1]), odd(f[2], f[3]);
    for_each_row_by_lane<V>(
        step, rows, [&]<unsigned int r>(typename V::Bits chosen) __attribute__((always_inline)) {
            a[r] = cmul(Factor::select(chosen, odd, even), a[r]);
        });
}

/// A diagonal gate that leaves amplitudes of even parity alone.
template <class Gate, class V, class T>
PBLINALG_ALWAYS_INLINE void multiply_odd(V* a, const CircuitStep<T>& step, unsigned int rows) {
    const typename V::Factor f(step.factors[2], step.factors[3]);
    for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
        if (rows >> r & 1) Gate::update(a + r, &f);
    });
}

template <class Gate, class V, class T>
PBLINALG_ALWAYS_INLINE void multiply_odd_by_lane(V* a, const CircuitStep<T>& step,
                                                 unsigned int rows) {
    const typename V::Factor f(step.factors[2], step.factors[3]);
    for_each_row_by_lane<V>(
        step, rows, [&]<unsigned int r>(typename V::Bits chosen) __attribute__((always_inline)) {
            V fresh = a[r];
            Gate::update(&fresh, &f);
            a[r] = V::select(chosen, fresh, a[r]);
        });
}

/// One step on the vectors of a group.
/// @param rows  returns the parity of the selecting bits that are not in lanes, by row.
template <class V, class T, class Rows>
PBLINALG_ALWAYS_INLINE void run_step(V* a, const CircuitStep<T>& step, const Rows& rows) {
    using Kind = GateKind;
    constexpr bool by_lane = true;
    constexpr auto action = step_action;
    // clang-format off
    switch (step.action) {
        case action(Kind::H, 0, false): return mix<GateH, 0>(a, step);
        case action(Kind::H, 1, false): return mix<GateH, 1>(a, step);
        case action(Kind::H, 2, false): return mix<GateH, 2>(a, step);
        case action(Kind::Y, 0, false): return mix<GateY, 0>(a, step);
        case action(Kind::Y, 1, false): return mix<GateY, 1>(a, step);
        case action(Kind::Y, 2, false): return mix<GateY, 2>(a, step);
        case action(Kind::RX, 0, false): return mix<GateRX, 0>(a, step);
        case action(Kind::RX, 1, false): return mix<GateRX, 1>(a, step);
        case action(Kind::RX, 2, false): return mix<GateRX, 2>(a, step);
        case action(Kind::RY, 0, false): return mix<GateRY, 0>(a, step);
        case action(Kind::RY, 1, false): return mix<GateRY, 1>(a, step);
        case action(Kind::RY, 2, false): return mix<GateRY, 2>(a, step);
        case action(Kind::X, 0, false): return flip<0>(a, rows());
        case action(Kind::X, 1, false): return flip<1>(a, rows());
        case action(Kind::X, 2, false): return flip<2>(a, rows());
        case action(Kind::X, 0, by_lane): return flip_by_lane<0>(a, step, rows());
        case action(Kind::X, 1, by_lane): return flip_by_lane<1>(a, step, rows());
        case action(Kind::X, 2, by_lane): return flip_by_lane<2>(a, step, rows());
        case action(Kind::X, 4, false): return flip_lanes<0>(a, rows());
        case action(Kind::X, 5, false): return flip_lanes<1>(a, rows());
        case action(Kind::X, 6, false): return flip_lanes<2>(a, rows());
        case action(Kind::X, 7, false): return flip_lanes<3>(a, rows());
        case action(Kind::X, 4, by_lane): return flip_lanes_by_lane<0>(a, step, rows());
        case action(Kind::X, 5, by_lane): return flip_lanes_by_lane<1>(a, step, rows());
        case action(Kind::X, 6, by_lane): return flip_lanes_by_lane<2>(a, step, rows());
        case action(Kind::X, 7, by_lane): return flip_lanes_by_lane<3>(a, step, rows());
        case action(Kind::SWAP, 0, false): return exchange<0>(a);
        case action(Kind::SWAP, 1, false): return exchange<1>(a);
        case action(Kind::SWAP, 2, false): return exchange<2>(a);
        case action(Kind::SWAP, 3, false): return exchange<3>(a);
        case action(Kind::RZ, 0, false): return multiply(a, step, rows());
        case action(Kind::RZ, 0, by_lane): return multiply_by_lane(a, step, rows());
        case action(Kind::PH, 0, false): return multiply_odd<GatePH<T>>(a, step, rows());
        case action(Kind::PH, 0, by_lane): return multiply_odd_by_lane<GatePH<T>>(a, step, rows());
        case action(Kind::T, 0, false): return multiply_odd<GateT>(a, step, rows());
        case action(Kind::T, 0, by_lane): return multiply_odd_by_lane<GateT>(a, step, rows());
        case action(Kind::Z, 0, false): return multiply_odd<GateZ>(a, step, rows());
        case action(Kind::Z, 0, by_lane): return multiply_odd_by_lane<GateZ>(a, step, rows());
        default: __builtin_unreachable();
    }
    // clang-format on
}

/// The exclusive or of the places of the set bits.
PBLINALG_ALWAYS_INLINE Index place_of(Index bits, const unsigned short* places) {
    Index place = 0;
    for (; bits != 0; bits &= bits - 1)
        place ^= places[__builtin_ctzll(bits)];
    return place;
}

/// Follows a walk over a tile from place to place.
class PlaceWalk {
  public:
    /// @param base  of the tile in the state.
    PBLINALG_ALWAYS_INLINE PlaceWalk(const Placement& placement, Index base, Index free_mask)
        : free_mask_(free_mask), place_(placement.origin ^ place_of(base, placement.of_state_bit)) {
        // The walk counts: every step sets one free bit and clears all below it.
        unsigned short flips = 0;
        for (Index rest = free_mask; rest != 0; rest &= rest - 1) {
            const int b = __builtin_ctzll(rest);
            flips ^= placement.of_tile_bit[b];
            flips_[b] = flips;
        }
    }

    PBLINALG_ALWAYS_INLINE Index place() const { return place_; }

    /// From the step at `index` to the next one; from the last one anywhere.
    PBLINALG_ALWAYS_INLINE void advance(Index index) {
        const Index set = next_subset(index, free_mask_) & ~index;
        place_ ^= flips_[__builtin_ctzll(set | bit(max_tile_bits))];
    }

  private:
    Index free_mask_;
    Index place_;
    unsigned short flips_[max_tile_bits + 1] = {};
};

/// Tiles up to this size stay in the first-level cache.
constexpr std::size_t first_level_bytes = 32 << 10;

/// The gates of a window on one group of vectors after another.
/// @param base      of the tile in the state.
/// @param parities  of the selecting bits that tell tiles apart, by step.
/// @param inspects  whether to look at the results.
/// @return false when they might differ from the definition.
template <Products products, class T>
[[gnu::noinline]] bool run_window(PlanarMemory<T> tile, Index size, Index base,
                                  const TilePass<T>& pass, const CircuitWindow& window,
                                  const unsigned char* parities, bool inspects) {
    using V = Planar<this_set, T, products>;
    const Placement& placement = pass.placements[window.placement];
    Index offsets[n_rows] = {};
    Index rows_left = window.active & ~(Index{V::lanes} - 1);
    for (unsigned int row = 1; row < n_rows; row *= 2, rows_left &= rows_left - 1) {
        const Index place = place_of(lowest_bit(rows_left), placement.of_tile_bit);
        for (unsigned int r = 0; r < row; ++r)
            offsets[row + r] = offsets[r] ^ place;
    }
    const CircuitStep<T>* const first = pass.steps + window.first_step;
    const CircuitStep<T>* const last = pass.steps + window.last_step;
    const unsigned char* const window_parities = parities + window.first_step;
    const bool fetches = size * 2 * sizeof(T) > first_level_bytes;
    const Index free_mask = (size - 1) & ~window.active;
    PlaceWalk walk(placement, base, free_mask);
    typename V::Inspection inspection;
    walk_groups(
        free_mask, 0, 0,
        size >> count_bits(window.active), [&](Index index) __attribute__((always_inline)) {
            const Index place = walk.place();
            walk.advance(index);
            if (fetches) {
                // Strides hide the next group from the processor.
                const Index next = walk.place();
                for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
                    __builtin_prefetch(tile.re + (next ^ offsets[r]), 1);
                    __builtin_prefetch(tile.im + (next ^ offsets[r]), 1);
                });
            }
            V a[n_rows];
            for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
                a[r] = V::load(tile, place ^ offsets[r]);
            });
            for (const CircuitStep<T>* step = first; step != last; ++step) {
                run_step(
                    a, *step, [&]() __attribute__((always_inline)) {
                        const unsigned int parity = has_odd_parity(index & step->tile_selects) ^
                                                    window_parities[step - first];
                        return step->row_pattern ^ (0u - parity);
                    });
            }
            if (inspects) {
                for_each_row([&]<unsigned int r>()
                                 __attribute__((always_inline)) { inspection.look_at(a[r]); });
            }
            for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
                a[r].store(tile, place ^ offsets[r]);
            });
        });
    return inspection.passed();
}

template <class T>
using Plain = Planar<this_set, T, Products::plain>;

/// Copies a tile in, parts apart. The walk is the tile's: its active bits in the state.
template <class T>
void gather(const T* state, Index base, Index active, PlanarMemory<T> tile, Index size) {
    using V = Plain<T>;
    const Index above_lanes = active & ~(Index{V::lanes} - 1);
    Index from = 0;
    for (Index to = 0; to < size; to += V::lanes) {
        V::deinterleave(state + 2 * (base | from)).store(tile, to);
        from = next_subset(from, above_lanes);
    }
}

/// Copies a tile back.
template <bool past_cache, class T>
void scatter(T* state, Index base, Index active, PlanarMemory<T> tile, Index size,
             const Placement& placement) {
    using V = Plain<T>;
    constexpr Index lane_mask = Index{V::lanes} - 1;
    PlaceWalk walk(placement, base, (size - 1) & ~lane_mask);
    Index to = 0;
    for (Index from = 0; from < size; from += V::lanes) {
        V::load(tile, walk.place()).template interleave<past_cache>(state + 2 * (base | to));
        walk.advance(from);
        to = next_subset(to, active & ~lane_mask);
    }
}

/// Runs the whole sequence on a fresh copy of the tile.
/// @return false when the result might differ from the definition.
template <Products products, class T>
[[gnu::noinline]] bool run_sequence(const T* state, Index base, const TilePass<T>& pass,
                                    const unsigned char* parities, PlanarMemory<T> tile,
                                    Index size) {
    gather(state, base, pass.active, tile, size);
    // What went wrong on the way shows at the end: no gate turns NaN, an infinity or a wrong sign
    // of 0 into an ordinary number.
    bool passed = true;
    for (std::size_t w = 0; w < pass.n_windows; ++w) {
        const bool last = w + 1 == pass.n_windows;
        passed = run_window<products>(tile, size, base, pass, pass.windows[w], parities, last);
    }
    return passed;
}

}  // namespace

template <InstructionSet set, class T>
WindowShape window_shape() {
    return {Plain<T>::lane_bits, row_bits};
}

template <InstructionSet set, class T>
void run_tiles(T* state, const TilePass<T>& pass, Index begin, Index end, void* scratch,
               bool& shortcut) {
    const Index size = bit(count_bits(pass.active));
    T* const parts = static_cast<T*>(scratch);
    const PlanarMemory<T> tile{parts, parts + size + parts_gap / sizeof(T)};
    auto* const parities = reinterpret_cast<unsigned char*>(tile.im + size);
    walk_groups(pass.inactive, 0, begin, end, [&](Index base) {
        for (std::size_t s = 0; s < pass.n_steps; ++s)
            parities[s] = has_odd_parity(base & pass.steps[s].state_selects);
        const auto run = [&]<Products products>() {
            return run_sequence<products>(state, base, pass, parities, tile, size);
        };
        shortcut = shortcut && run.template operator()<Products::without_zeros>();
        if (!shortcut && !run.template operator()<Products::plain>()) {
            run.template operator()<Products::recovered>();
        }
        const Placement& placement = pass.placements[pass.n_placements - 1];
        if (pass.past_cache) {
            scatter<true>(state, base, pass.active, tile, size, placement);
        } else {
            scatter<false>(state, base, pass.active, tile, size, placement);
        }
    });
    if (pass.past_cache) Vector<this_set, T>::finish_past_cache();
}

#define PBLINALG_INSTANTIATE(T)                       \
    template WindowShape window_shape<this_set, T>(); \
    template void run_tiles<this_set, T>(T*, const TilePass<T>&, Index, Index, void*, bool&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)

}  // namespace pblinalg::cpu
