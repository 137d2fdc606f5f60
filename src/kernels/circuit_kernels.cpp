// Compiled like exact_kernels.cpp: once per instruction set, without contraction or automatic
// vectorisation, and without instantiating anything of the standard library. A second time for
// each set with contraction, for runs by rounding.
#include "kernels/circuit_kernels.hpp"

#include "gates/formulas.hpp"
#include "gates/matrix_formulas.hpp"
#include "kernels/inner_products.hpp"
#include "kernels/unrolled.hpp"
#include "kernels/values.hpp"
#include "kernels/walk_groups.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;
#ifdef PBLINALG_BY_ROUNDING
constexpr Accuracy this_accuracy = Accuracy::rounding;
#else
constexpr Accuracy this_accuracy = Accuracy::exact;
#endif

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

/// The rows of a group that a step concerns.
struct Selected {
    unsigned int odd;  ///< those whose selecting bits, lanes aside, have odd parity
    unsigned int on;   ///< those whose control bits, lanes aside, are as they must be
    PBLINALG_ALWAYS_INLINE unsigned int both() const { return odd & on; }
};

/// The factors of a step, loaded where they are used.
template <class V, class T>
struct FactorsAt {
    const T* parts;
    PBLINALG_ALWAYS_INLINE typename V::Factor operator[](unsigned int i) const {
        return {parts[2 * i], parts[2 * i + 1]};
    }
};

template <class Gate, class V, class T>
struct LoadedFactors {
    typename V::Factor of[Gate::n_factors + 1];
    PBLINALG_ALWAYS_INLINE explicit LoadedFactors(const T* factors) {
        for (unsigned int i = 0; i < Gate::n_factors; ++i)
            of[i] = FactorsAt<V, T>{factors}[i];
    }
};

template <class Gate, unsigned int place, class V, class T>
PBLINALG_ALWAYS_INLINE void mix(V* a, const T* factors) {
    const LoadedFactors<Gate, V, T> f(factors);
    for_each_pair<place>([&]<unsigned int r0, unsigned int r1>() __attribute__((always_inline)) {
        V pair[2] = {a[r0], a[r1]};
        Gate::update(pair, f.of);
        a[r0] = pair[0];
        a[r1] = pair[1];
    });
}

/// On row bit 0, where the controls say so.
template <class Gate, class V, class T>
PBLINALG_ALWAYS_INLINE void mix_controlled(V* a, const CircuitStep& step, const T* factors,
                                           Selected rows) {
    if (rows.on == 0) return;
    const LoadedFactors<Gate, V, T> f(factors);
    const typename V::Bits chosen = V::lanes_in(step.lane_mask);
    for_each_pair<0>([&]<unsigned int r0, unsigned int r1>() __attribute__((always_inline)) {
        if (!(rows.on >> r0 & 1)) return;
        V pair[2] = {a[r0], a[r1]};
        Gate::update(pair, f.of);
        a[r0] = V::select(chosen, pair[0], a[r0]);
        a[r1] = V::select(chosen, pair[1], a[r1]);
    });
}

/// A matrix on row bits `high` and `low`.
template <unsigned int high, unsigned int low, bool controlled, class V, class T>
PBLINALG_ALWAYS_INLINE void mix_two(V* a, const CircuitStep& step, const T* factors,
                                    Selected rows) {
    if (controlled && rows.on == 0) return;
    const FactorsAt<V, T> f{factors};
    const typename V::Bits chosen = V::lanes_in(step.lane_mask);
    for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
        if constexpr (high < row_bits && low < row_bits && !(r >> high & 1) && !(r >> low & 1)) {
            if (controlled && !(rows.on >> r & 1)) return;
            constexpr unsigned int at[] = {r, r | 1u << low, r | 1u << high,
                                           r | 1u << high | 1u << low};
            V quad[4] = {a[at[0]], a[at[1]], a[at[2]], a[at[3]]};
            _Gate2QB<true>::update(quad, f);
            for (unsigned int i = 0; i < 4; ++i)
                a[at[i]] = controlled ? V::select(chosen, quad[i], a[at[i]]) : quad[i];
        }
    });
}

/// X where `rows` says so.
template <unsigned int place, class V>
PBLINALG_ALWAYS_INLINE void flip(V* a, Selected rows) {
    const unsigned int flipped = rows.both();
    if (flipped == 0) return;
    for_each_pair<place>([&]<unsigned int r0, unsigned int r1>() __attribute__((always_inline)) {
        if (flipped >> r0 & 1) {
            const V old = a[r0];
            a[r0] = a[r1];
            a[r1] = old;
        }
    });
}

/// Calls `body.operator()<r>(chosen)` for every row r with its selected lanes.
template <RowsDiffer differ, class V, class Body>
PBLINALG_ALWAYS_INLINE void for_each_row_by_lane(const CircuitStep& step, Selected rows,
                                                 const Body& body) {
    if (rows.on == 0) return;
    const auto lanes_of = [&](unsigned int odd, unsigned int on) __attribute__((always_inline)) {
        return V::lanes_in((step.lane_pattern ^ (0u - odd)) & step.lane_mask & (0u - on));
    };
    if constexpr (differ == otherwise) {
        for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
            body.template operator()<r>(lanes_of(rows.odd >> r & 1, rows.on >> r & 1));
        });
    } else {
        const unsigned int first = rows.odd & 1;
        const typename V::Bits of_row_0 = lanes_of(first, 1);
        const typename V::Bits of_others = differ == nowhere ? of_row_0 : lanes_of(first ^ 1, 1);
        for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
            constexpr bool other = differ != nowhere && (r >> differ & 1);
            body.template operator()<r>(other ? of_others : of_row_0);
        });
    }
}

/// X moves between rows, which have the same parity then: mostly all of them do.
template <class V, class Body>
PBLINALG_ALWAYS_INLINE void for_each_flipped_row_by_lane(const CircuitStep& step, Selected rows,
                                                         const Body& body) {
    if (step.row_pattern == 0 && step.row_mask == 0xFF) {
        for_each_row_by_lane<nowhere, V>(step, rows, body);
    } else {
        for_each_row_by_lane<otherwise, V>(step, rows, body);
    }
}

template <unsigned int place, class V>
PBLINALG_ALWAYS_INLINE void flip_by_lane(V* a, const CircuitStep& step, Selected rows) {
    for_each_flipped_row_by_lane<V>(
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
PBLINALG_ALWAYS_INLINE void flip_lanes(V* a, Selected rows) {
    const unsigned int flipped = rows.both();
    if (flipped == 0) return;
    for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
        if (flipped >> r & 1) a[r] = a[r].template flip_lane_bit<lane_bit>();
    });
}

template <unsigned int lane_bit, class V>
PBLINALG_ALWAYS_INLINE void flip_lanes_by_lane(V* a, const CircuitStep& step, Selected rows) {
    for_each_flipped_row_by_lane<V>(
        step, rows, [&]<unsigned int r>(typename V::Bits chosen) __attribute__((always_inline)) {
            a[r] = V::select(chosen, a[r].template flip_lane_bit<lane_bit>(), a[r]);
        });
}

/// Exchanges a lane bit with row bit 0.
template <unsigned int lane_bit, class V>
PBLINALG_ALWAYS_INLINE void exchange_lane(V* a) {
    for_each_pair<0>([&]<unsigned int r0, unsigned int r1>()
                         __attribute__((always_inline)) { V::transpose(a[r0], a[r1], lane_bit); });
}

/// Exchanges row bits p and q.
template <unsigned int p, unsigned int q, class V>
PBLINALG_ALWAYS_INLINE void exchange_rows(V* a) {
    for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
        if constexpr (q < row_bits && (r >> p & 1) && !(r >> q & 1)) {
            constexpr unsigned int other = r ^ (1u << p | 1u << q);
            const V old = a[r];
            a[r] = a[other];
            a[other] = old;
        }
    });
}

/// A factor for each parity.
template <RowsDiffer differ, class V, class T>
PBLINALG_ALWAYS_INLINE void multiply(V* a, const T* factors, Selected rows) {
    const FactorsAt<V, T> f{factors};
    if constexpr (differ == otherwise) {
        for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
            a[r] = cmul(f[rows.odd >> r & 1], a[r]);
        });
    } else {
        const unsigned int first = rows.odd & 1;
        const typename V::Factor of_row_0 = f[first], of_others = f[first ^ 1];
        for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
            constexpr bool other = differ != nowhere && (r >> differ & 1);
            a[r] = cmul(other ? of_others : of_row_0, a[r]);
        });
    }
}

/// The same where lanes of a vector differ.
template <RowsDiffer differ, class V, class T>
PBLINALG_ALWAYS_INLINE void multiply_by_lane(V* a, const CircuitStep& step, const T* factors,
                                             Selected rows) {
    using Factor = typename V::Factor;
    const FactorsAt<V, T> f{factors};
    const Factor even = f[0], odd = f[1];
    if constexpr (differ == otherwise) {
        for_each_row_by_lane<otherwise, V>(
            step,
            rows, [&]<unsigned int r>(typename V::Bits chosen) __attribute__((always_inline)) {
                a[r] = cmul(Factor::select(chosen, odd, even), a[r]);
            });
    } else {
        const typename V::Bits chosen = V::lanes_in(step.lane_pattern ^ (0u - (rows.odd & 1)));
        const Factor of_row_0 = Factor::select(chosen, odd, even);
        const Factor of_others = differ == nowhere ? of_row_0 : Factor::select(chosen, even, odd);
        for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
            constexpr bool other = differ != nowhere && (r >> differ & 1);
            a[r] = cmul(other ? of_others : of_row_0, a[r]);
        });
    }
}

/// The same under controls.
template <class V, class T>
PBLINALG_ALWAYS_INLINE void multiply_controlled(V* a, const CircuitStep& step, const T* factors,
                                                Selected rows) {
    using Factor = typename V::Factor;
    const FactorsAt<V, T> f{factors};
    const Factor even = f[0], odd = f[1];
    const typename V::Bits on = V::lanes_in(step.lane_mask);
    for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
        if (!(rows.on >> r & 1)) return;
        const auto chosen = V::lanes_in(step.lane_pattern ^ (0u - (rows.odd >> r & 1)));
        a[r] = V::select(on, cmul(Factor::select(chosen, odd, even), a[r]), a[r]);
    });
}

/// The factor for odd parity. Z has none, and nothing may be read for it.
template <class Gate, class V, class T>
PBLINALG_ALWAYS_INLINE typename V::Factor factor_of_odd(const T* factors) {
    if constexpr (Gate::n_factors == 0) {
        return {};
    } else {
        return FactorsAt<V, T>{factors}[1];
    }
}

/// A diagonal gate that leaves amplitudes of even parity alone.
template <class Gate, RowsDiffer differ, class V, class T>
PBLINALG_ALWAYS_INLINE void multiply_odd(V* a, const T* factors, Selected rows) {
    const unsigned int multiplied = rows.both();
    if (multiplied == 0) return;
    const typename V::Factor f = factor_of_odd<Gate, V>(factors);
    if constexpr (differ == otherwise) {
        for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
            if (multiplied >> r & 1) Gate::update(a + r, &f);
        });
    } else {
        // Rows 0 and 1 << differ stand for all: no branch for every row.
        const auto rows_with = [&]<bool value>() __attribute__((always_inline)) {
            for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
                if constexpr (differ == nowhere || (r >> differ & 1) == value)
                    Gate::update(a + r, &f);
            });
        };
        if (differ == nowhere || (multiplied & 1)) {
            rows_with.template operator()<false>();
        } else {
            rows_with.template operator()<true>();
        }
    }
}

template <class Gate, RowsDiffer differ, class V, class T>
PBLINALG_ALWAYS_INLINE void multiply_odd_by_lane(V* a, const CircuitStep& step, const T* factors,
                                                 Selected rows) {
    const typename V::Factor f = factor_of_odd<Gate, V>(factors);
    for_each_row_by_lane<differ, V>(
        step, rows, [&]<unsigned int r>(typename V::Bits chosen) __attribute__((always_inline)) {
            V fresh = a[r];
            Gate::update(&fresh, &f);
            a[r] = V::select(chosen, fresh, a[r]);
        });
}

/// A factor per amplitude from a table, one row of it for each pattern of bits above the lanes.
/// @param row  of the group's first vector.
template <bool controlled, class V, class T>
PBLINALG_ALWAYS_INLINE void multiply_by_table(V* a, const CircuitStep& step, const T* table,
                                              const unsigned short* row_columns, Index row,
                                              Selected rows) {
    if (controlled && rows.on == 0) return;
    const typename V::Bits on = V::lanes_in(step.lane_mask);
    for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
        if (controlled && !(rows.on >> r & 1)) return;
        Index own = row;
        for (unsigned int b = 0; b < row_bits; ++b)
            own ^= r >> b & 1 ? row_columns[b] : 0;
        const V fresh = cmul(V::load_factor(table + own * (2 * V::lanes)), a[r]);
        a[r] = controlled ? V::select(on, fresh, a[r]) : fresh;
    });
}

/// Several Z.
/// @param index  of the group in the tile.
template <class V>
PBLINALG_ALWAYS_INLINE void flip_signs(V* a, const SignLookup& signs, Index index) {
    std::uint32_t added = 0;
    for (unsigned int q = 0; q < max_tile_bits / 4; ++q)
        added ^= signs.of_tile_bits[q][index >> 4 * q & 15];
    const unsigned int odd = 0u - has_odd_parity(added & index & 0xFFFF);
    const unsigned int odd_rows = odd ^ parity_pattern(added >> 16);
    const unsigned int odd_lanes = parity_pattern(added >> 24);
    for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
        const unsigned int lanes = signs.lanes_of_row[r] ^ odd_lanes ^ (0u - (odd_rows >> r & 1));
        a[r] = V::select(V::lanes_in(lanes), -a[r], a[r]);
    });
}

/// Bits of a tile's index as bits of the state's.
PBLINALG_ALWAYS_INLINE Index spread_bits(Index bits, const Index* of_bit) {
    Index spread = 0;
    for (; bits != 0; bits &= bits - 1)
        spread |= of_bit[__builtin_ctzll(bits)];
    return spread;
}

/// The exclusive or of the places of the set bits.
PBLINALG_ALWAYS_INLINE Index place_of(Index bits, const unsigned short* places) {
    Index place = 0;
    for (; bits != 0; bits &= bits - 1)
        place ^= places[__builtin_ctzll(bits)];
    return place;
}

/// One step on the vectors of a group.
/// @param index        of the group in the tile.
/// @param window_rows  the row bits of the window in the tile's index, lowest first.
template <class V, class T>
PBLINALG_ALWAYS_INLINE void run_step(V* a, const LiveStep& live, const TilePass<T>& pass,
                                     Index index, const unsigned char* window_rows) {
    const CircuitStep& step = *live.step;
    const T* const factors = pass.factors + step.factors;
    const auto rows = [&]() __attribute__((always_inline)) {
        const unsigned int parity = has_odd_parity(index & step.tile_selects) ^ live.parity;
        const bool on = ((index ^ step.control_values) & step.tile_controls) == 0;
        return Selected{step.row_pattern ^ (0u - parity), on ? step.row_mask : 0u};
    };
    const auto multiply_by = [&]<bool controlled>() __attribute__((always_inline)) {
        const TableLookup& lookup = pass.lookups[step.lookup];
        unsigned short columns[row_bits];
        for (unsigned int b = 0; b < row_bits; ++b)
            columns[b] = lookup.of_tile_bit[window_rows[b]];
        const Index row = live.parity ^ place_of(index & lookup.tile_bits, lookup.of_tile_bit);
        multiply_by_table<controlled>(a, step, pass.tables + step.factors, columns, row, rows());
    };
    constexpr auto by_lane = StepForm::by_lane;
    constexpr auto controlled = StepForm::controlled;
    constexpr auto action = [](Action kind, unsigned int place, StepForm form = StepForm::plain) {
        return step_action(kind, place, form);
    };
    // clang-format off
#define PBLINALG_MIXING(kind, Gate)                                                       \
        case action(Action::kind, 0): return mix<Gate, 0>(a, factors);                    \
        case action(Action::kind, 1): return mix<Gate, 1>(a, factors);                    \
        case action(Action::kind, 2): return mix<Gate, 2>(a, factors);                    \
        case action(Action::kind, 0, controlled): return mix_controlled<Gate>(a, step, factors, rows());
#define PBLINALG_DIAGONAL(differ)                                                                                      \
        case action(Action::both, differ): return multiply<differ>(a, factors, rows());                                \
        case action(Action::both, differ, by_lane): return multiply_by_lane<differ>(a, step, factors, rows());         \
        case action(Action::phase, differ): return multiply_odd<GatePH<T>, differ>(a, factors, rows());                \
        case action(Action::phase, differ, by_lane): return multiply_odd_by_lane<GatePH<T>, differ>(a, step, factors, rows()); \
        case action(Action::Z, differ): return multiply_odd<GateZ, differ>(a, factors, rows());                        \
        case action(Action::Z, differ, by_lane): return multiply_odd_by_lane<GateZ, differ>(a, step, factors, rows());
    switch (step.action) {
        PBLINALG_MIXING(H, GateH)
        PBLINALG_MIXING(Y, GateY)
        PBLINALG_MIXING(RX, GateRX)
        PBLINALG_MIXING(RY, GateRY)
        PBLINALG_MIXING(YtoZ, GateYtoZ)
        PBLINALG_MIXING(ZtoY, GateZtoY)
        PBLINALG_MIXING(matrix1, _Gate1QB<true>)
        case action(Action::matrix2, place_of_rows(0, 1)): return mix_two<0, 1, false>(a, step, factors, {});
        case action(Action::matrix2, place_of_rows(0, 2)): return mix_two<0, 2, false>(a, step, factors, {});
        case action(Action::matrix2, place_of_rows(1, 0)): return mix_two<1, 0, false>(a, step, factors, {});
        case action(Action::matrix2, place_of_rows(1, 2)): return mix_two<1, 2, false>(a, step, factors, {});
        case action(Action::matrix2, place_of_rows(2, 0)): return mix_two<2, 0, false>(a, step, factors, {});
        case action(Action::matrix2, place_of_rows(2, 1)): return mix_two<2, 1, false>(a, step, factors, {});
        case action(Action::matrix2, place_of_rows(1, 0), controlled): return mix_two<1, 0, true>(a, step, factors, rows());
        case action(Action::X, 0): return flip<0>(a, rows());
        case action(Action::X, 1): return flip<1>(a, rows());
        case action(Action::X, 2): return flip<2>(a, rows());
        case action(Action::X, 0, by_lane): return flip_by_lane<0>(a, step, rows());
        case action(Action::X, 1, by_lane): return flip_by_lane<1>(a, step, rows());
        case action(Action::X, 2, by_lane): return flip_by_lane<2>(a, step, rows());
        case action(Action::X, 4): return flip_lanes<0>(a, rows());
        case action(Action::X, 5): return flip_lanes<1>(a, rows());
        case action(Action::X, 6): return flip_lanes<2>(a, rows());
        case action(Action::X, 7): return flip_lanes<3>(a, rows());
        case action(Action::X, 4, by_lane): return flip_lanes_by_lane<0>(a, step, rows());
        case action(Action::X, 5, by_lane): return flip_lanes_by_lane<1>(a, step, rows());
        case action(Action::X, 6, by_lane): return flip_lanes_by_lane<2>(a, step, rows());
        case action(Action::X, 7, by_lane): return flip_lanes_by_lane<3>(a, step, rows());
        case action(Action::exchange_lane, 0): return exchange_lane<0>(a);
        case action(Action::exchange_lane, 1): return exchange_lane<1>(a);
        case action(Action::exchange_lane, 2): return exchange_lane<2>(a);
        case action(Action::exchange_lane, 3): return exchange_lane<3>(a);
        case action(Action::exchange_rows, 0): return exchange_rows<0, 1>(a);
        case action(Action::exchange_rows, 1): return exchange_rows<0, 2>(a);
        case action(Action::exchange_rows, 2): return exchange_rows<1, 2>(a);
        case action(Action::signs, 0): return flip_signs(a, pass.signs[step.lookup], index);
        PBLINALG_DIAGONAL(in_bit_0)
        PBLINALG_DIAGONAL(in_bit_1)
        PBLINALG_DIAGONAL(in_bit_2)
        PBLINALG_DIAGONAL(nowhere)
        PBLINALG_DIAGONAL(otherwise)
        case action(Action::both, 0, controlled): return multiply_controlled(a, step, factors, rows());
        case action(Action::table, 0): return multiply_by.template operator()<false>();
        case action(Action::table, 0, controlled): return multiply_by.template operator()<true>();
        default:
            if constexpr (this_accuracy == Accuracy::rounding) {
                const Selected selected = rows();
                return InnerProducts<V, row_bits>::add(a, step.action, selected.odd, selected.on,
                                                       pass.sums + step.lookup * sums_per_inner_product);
            }
            __builtin_unreachable();
    }
#undef PBLINALG_MIXING
#undef PBLINALG_DIAGONAL
    // clang-format on
}

/// Follows a walk over the amplitudes of a tile from place to place, where places are linear in the
/// bits of the amplitude's number.
template <class Place>
class PlaceWalk {
  public:
    /// @param of_bit  place of each bit of a number.
    PBLINALG_ALWAYS_INLINE PlaceWalk(const Place* of_bit, Place origin, Index free_mask)
        : free_mask_(free_mask), place_(origin) {
        // The walk counts: every step sets one free bit and clears all below it.
        Place flips = 0;
        for (Index rest = free_mask; rest != 0; rest &= rest - 1) {
            const int b = __builtin_ctzll(rest);
            flips ^= of_bit[b];
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
    Place flips_[max_tile_bits + 1] = {};
};

/// The place of amplitude 0 of the tile at `base`.
PBLINALG_ALWAYS_INLINE unsigned short origin_of(const Placement& placement, Index base) {
    return static_cast<unsigned short>(placement.origin ^ place_of(base, placement.of_state_bit));
}

/// Where the amplitudes of a window lie in the state, for one that reads or writes it itself.
template <class T>
struct StateSide {
    T* state = nullptr;  ///< none: the tile is read or written
    Index of_bit[max_tile_bits] = {};
    Index origin = 0;
};

/// Groups that are fetched from memory ahead of their turn.
constexpr int groups_ahead = 4;

/// Tiles up to this size stay in the first-level cache.
constexpr std::size_t first_level_bytes = 32 << 10;

/// What a window leaves, where it was looked at.
struct Seen {
    bool finite = true;
    bool ordinary = true;  ///< no 0 besides
};

/// The gates of a window on one group of vectors after another.
/// @param base      of the tile in the state.
/// @param first     the steps that this tile needs, up to `last`.
/// @param from      the state where the window reads it, and not the tile.
/// @param to        the same for writing.
/// @param inspects  whether to look at the results.
template <Products products, class T>
[[gnu::noinline]] Seen run_window(PlanarMemory<T> tile, Index size, Index base,
                                  const TilePass<T>& pass, const CircuitWindow& window,
                                  const LiveStep* first, const LiveStep* last,
                                  const StateSide<T>& from, const StateSide<T>& to, bool inspects) {
    using V = Planar<this_set, T, products>;
    const Placement& placement = pass.placements[window.placement];
    Index offsets[n_rows] = {}, from_offsets[n_rows] = {}, to_offsets[n_rows] = {};
    unsigned char window_rows[row_bits] = {};
    Index rows_left = window.active & ~(Index{V::lanes} - 1);
    for (unsigned int b = 0, row = 1; row < n_rows; ++b, row *= 2, rows_left &= rows_left - 1) {
        const int tile_bit = __builtin_ctzll(rows_left);
        window_rows[b] = static_cast<unsigned char>(tile_bit);
        for (unsigned int r = 0; r < row; ++r) {
            offsets[row + r] = offsets[r] ^ placement.of_tile_bit[tile_bit];
            from_offsets[row + r] = from_offsets[r] ^ from.of_bit[tile_bit];
            to_offsets[row + r] = to_offsets[r] ^ to.of_bit[tile_bit];
        }
    }
    const bool fetches = size * 2 * sizeof(T) > first_level_bytes;
    const Index free_mask = (size - 1) & ~window.active;
    PlaceWalk walk(placement.of_tile_bit, origin_of(placement, base), free_mask);
    PlaceWalk from_walk(from.of_bit, from.origin, free_mask);
    PlaceWalk to_walk(to.of_bit, to.origin, free_mask);
    PlaceWalk ahead = from_walk;
    Index index_ahead = 0;
    const auto fetch_ahead = [&]() __attribute__((always_inline)) {
        ahead.advance(index_ahead);
        index_ahead = next_subset(index_ahead, free_mask);
        for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
            const T* const vector = from.state + 2 * (ahead.place() ^ from_offsets[r]);
            __builtin_prefetch(vector);
            if (V::bytes == 64) __builtin_prefetch(vector + V::lanes);
        });
    };
    for (int i = 0; i < groups_ahead && from.state; ++i)
        fetch_ahead();
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
            if (from.state) {
                fetch_ahead();
                for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
                    a[r] = V::deinterleave(from.state + 2 * (from_walk.place() ^ from_offsets[r]));
                });
                from_walk.advance(index);
            } else {
                for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
                    a[r] = V::load(tile, place ^ offsets[r]);
                });
            }
            for (const LiveStep* live = first; live != last; ++live)
                run_step(a, *live, pass, index, window_rows);
            if (inspects) {
                for_each_row([&]<unsigned int r>()
                                 __attribute__((always_inline)) { inspection.look_at(a[r]); });
            }
            if (to.state) {
                for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
                    T* const vector = to.state + 2 * (to_walk.place() ^ to_offsets[r]);
                    if (pass.past_cache) {
                        a[r].template interleave<true>(vector);
                    } else {
                        a[r].template interleave<false>(vector);
                    }
                });
                to_walk.advance(index);
            } else {
                for_each_row([&]<unsigned int r>() __attribute__((always_inline)) {
                    a[r].store(tile, place ^ offsets[r]);
                });
            }
        });
    return {inspection.finite(), inspection.ordinary()};
}

template <class T>
using Plain = Planar<this_set, T, Products::plain>;

/// Whether a tile holds nothing but zeros.
template <class T>
bool is_zero(const T* state, Index base, Index active) {
    using V = Vector<this_set, T>;
    typename V::Bits seen{};
    const Index above_lanes = active & ~(Index{V::lanes} - 1);
    Index at = 0;
    do {
        seen |= reinterpret_cast<typename V::Bits>(V::load(state + 2 * (base | at)).v);
        at = next_subset(at, above_lanes);
    } while (at != 0 && (at & 0xFF || !V::any_magnitude(seen)));
    return !V::any_magnitude(seen);
}

/// Copies a tile back.
template <bool past_cache, class T>
void scatter(T* state, Index base, Index active, PlanarMemory<T> tile, Index size,
             const Placement& placement) {
    using V = Plain<T>;
    constexpr Index lane_mask = Index{V::lanes} - 1;
    PlaceWalk walk(placement.of_tile_bit, origin_of(placement, base), (size - 1) & ~lane_mask);
    Index to = 0;
    for (Index from = 0; from < size; from += V::lanes) {
        V::load(tile, walk.place()).template interleave<past_cache>(state + 2 * (base | to));
        walk.advance(from);
        to = next_subset(to, active & ~lane_mask);
    }
}

/// Copies a tile of two states in, vector by vector.
template <class T>
void gather_pair(const T* ket, const T* bra, Index base, Index active, PlanarMemory<T> tile,
                 Index size) {
    using V = Plain<T>;
    const Index above_lanes = active & ~(Index{V::lanes} - 1);
    Index from = base;
    for (Index to = 0; to < size; to += 2 * V::lanes) {
        V::deinterleave(ket + 2 * from).store(tile, to);
        V::deinterleave(bra + 2 * from).store(tile, to + V::lanes);
        from = base | next_subset(from, above_lanes);
    }
}

/// Copies them back.
template <bool past_cache, class T>
void scatter_pair(T* ket, T* bra, Index base, Index active, PlanarMemory<T> tile, Index size,
                  const Placement& placement, Index paired_base) {
    using V = Plain<T>;
    const Index above_lanes = active & ~(Index{V::lanes} - 1);
    const Index walked = (size - 1) & ~(2 * Index{V::lanes} - 1);
    PlaceWalk walk(placement.of_tile_bit, origin_of(placement, paired_base), walked);
    Index to = base, from = 0;
    for (Index i = 0; i < size; i += 2 * V::lanes) {
        const Index place = walk.place();
        V::load(tile, place).template interleave<past_cache>(ket + 2 * to);
        V::load(tile, place ^ V::lanes).template interleave<past_cache>(bra + 2 * to);
        walk.advance(from);
        from = next_subset(from, walked);
        to = base | next_subset(to, above_lanes);
    }
}

/// The steps of every window that do something to the tile at `base`.
/// @param ends  receives the end of each window's steps.
template <class T>
void find_live_steps(const TilePass<T>& pass, Index base, LiveStep* live, LiveStep** ends) {
    for (std::size_t w = 0; w < pass.n_windows; ++w) {
        for (std::size_t s = pass.windows[w].first_step; s < pass.windows[w].last_step; ++s) {
            const TileCondition& condition = pass.conditions[s];
            if ((base ^ condition.values) & condition.controls) continue;
            std::uint32_t parity = has_odd_parity(base & condition.selects);
            if (pass.steps[s].action / 32 == static_cast<unsigned int>(Action::table)) {
                const TableLookup& lookup = pass.lookups[pass.steps[s].lookup];
                parity = lookup.origin;
                for (unsigned int p = 0; p < max_table_bits; ++p)
                    parity ^= std::uint32_t{has_odd_parity(base & lookup.of_state[p])} << p;
            }
            *live++ = {pass.steps + s, parity};
        }
        ends[w] = live;
    }
}

/// The bits of a tile's index as places, and back. For placements that lanes take no part in.
struct Unplaced {
    unsigned short of_place_bit[max_tile_bits] = {};

    explicit Unplaced(const Placement& placement) {
        // Column by column: what is done to the places to make them single bits.
        unsigned short places[max_tile_bits], numbers[max_tile_bits];
        for (unsigned int b = 0; b < max_tile_bits; ++b) {
            places[b] = placement.of_tile_bit[b];
            numbers[b] = static_cast<unsigned short>(1u << b);
        }
        for (unsigned int p = 0; p < max_tile_bits; ++p) {
            unsigned int pivot = p;
            while (!(places[pivot] >> p & 1))
                ++pivot;
            const unsigned short place = places[pivot], number = numbers[pivot];
            places[pivot] = places[p];
            numbers[pivot] = numbers[p];
            places[p] = place;
            numbers[p] = number;
            for (unsigned int b = 0; b < max_tile_bits; ++b) {
                if (b == p || !(places[b] >> p & 1)) continue;
                places[b] ^= place;
                numbers[b] ^= number;
            }
        }
        for (unsigned int p = 0; p < max_tile_bits; ++p)
            of_place_bit[p] = numbers[p];
    }
};

/// Runs the whole sequence on the tile at `base`, from the state into the tile; by rounding back
/// into the state, if that can be.
/// @param unplaced  of what the windows leave.
/// @param seen      receives what there is at the end.
/// @return whether the state has it.
template <Products products, class T>
[[gnu::noinline]] bool run_sequence(T* state, Index base, const TilePass<T>& pass,
                                    const Unplaced& unplaced, const LiveStep* live,
                                    const LiveStep* const* ends, PlanarMemory<T> tile, Index size,
                                    Seen& seen) {
    const Placement& left = pass.placements[pass.n_placements - 1];
    Index spread[max_tile_bits] = {};
    unsigned int n_bits = 0;
    for (Index rest = pass.active; rest != 0; rest &= rest - 1)
        spread[n_bits++] = rest & -rest;
    const StateSide<T> none;
    StateSide<T> from, to;
    // What went wrong on the way shows at the end: no gate turns NaN, an infinity or a wrong sign
    // of 0 into an ordinary number.
    bool first = true;
    for (std::size_t w = 0; w < pass.n_windows; ++w) {
        const bool last = w + 1 == pass.n_windows;
        if (live == ends[w] && !last) continue;
        const Placement& placement = pass.placements[pass.windows[w].placement];
        const unsigned short origin = origin_of(placement, base);
        if (first) {
            // The tile takes the amplitudes in order, so that places are numbers of the beginning.
            from.state = state;
            from.origin = base | spread_bits(origin, spread);
            for (unsigned int b = 0; b < n_bits; ++b)
                from.of_bit[b] = spread_bits(placement.of_tile_bit[b], spread);
        }
        // A window that reads the state may only write what it has read.
        if (last && products == Products::fused && (!first || pass.n_placements == 1)) {
            const auto number = [&](unsigned short place) {
                return spread_bits(place_of(place, unplaced.of_place_bit), spread);
            };
            to.state = state;
            to.origin = base | number(origin ^ origin_of(left, base));
            for (unsigned int b = 0; b < n_bits; ++b)
                to.of_bit[b] = number(placement.of_tile_bit[b]);
        }
        const bool inspects = last && products != Products::fused;
        seen = run_window<products>(tile, size, base, pass, pass.windows[w], live, ends[w],
                                    first ? from : none, to, inspects);
        live = ends[w];
        first = false;
    }
    return to.state != nullptr;
}

}  // namespace

template <InstructionSet set, class T>
WindowShape window_shape() {
    return {Plain<T>::lane_bits, row_bits};
}
template WindowShape window_shape<this_set, float>();
template WindowShape window_shape<this_set, double>();

template <InstructionSet set, class T, Accuracy accuracy>
void run_tiles(T* state, const TilePass<T>& pass, Index begin, Index end, void* scratch,
               bool& shortcut) {
    const Index size = bit(count_bits(pass.active));
    T* const parts = static_cast<T*>(scratch);
    const PlanarMemory<T> tile{parts, parts + size + parts_gap / sizeof(T)};
    auto* const live = reinterpret_cast<LiveStep*>(tile.im + size);
    auto* const ends = reinterpret_cast<LiveStep**>(live + pass.n_steps);
    const Placement& placement = pass.placements[pass.n_placements - 1];
    const Unplaced unplaced(placement);
    walk_groups(pass.inactive, 0, begin, end, [&](Index base) {
        // Gates keep it so, up to signs.
        if (accuracy == Accuracy::rounding && is_zero(state, base, pass.active)) return;
        find_live_steps(pass, base, live, ends);
        Seen seen;
        const auto run = [&]<Products products>() {
            return run_sequence<products>(state, base, pass, unplaced, live, ends, tile, size,
                                          seen);
        };
        if constexpr (accuracy == Accuracy::rounding) {
            if (run.template operator()<Products::fused>()) return;
        } else {
            bool done = false;
            if (shortcut) {
                run.template operator()<Products::without_zeros>();
                done = seen.ordinary;
            }
            if (!done) {
                run.template operator()<Products::plain>();
                shortcut = seen.ordinary;
                if (!seen.finite) run.template operator()<Products::recovered>();
            }
        }
        if (pass.past_cache) {
            scatter<true>(state, base, pass.active, tile, size, placement);
        } else {
            scatter<false>(state, base, pass.active, tile, size, placement);
        }
    });
    if (pass.past_cache) Vector<this_set, T>::finish_past_cache();
}

template <InstructionSet set, class T>
void run_paired_tiles(T* ket, T* bra, const TilePass<T>& pass, Index begin, Index end,
                      void* scratch, bool keeps) {
    const Index size = bit(count_bits(pass.active));
    T* const parts = static_cast<T*>(scratch);
    const PlanarMemory<T> tile{parts, parts + size + parts_gap / sizeof(T)};
    auto* const live = reinterpret_cast<LiveStep*>(tile.im + size);
    auto* const ends = reinterpret_cast<LiveStep**>(live + pass.n_steps);
    const Index active = without_pair_bit(pass.active, Plain<T>::lane_bits);
    const Placement& placement = pass.placements[pass.n_placements - 1];
    const StateSide<T> none;
    walk_groups(pass.inactive, 0, begin, end, [&](Index paired_base) {
        const Index base = without_pair_bit(paired_base, Plain<T>::lane_bits);
        find_live_steps(pass, paired_base, live, ends);
        gather_pair(ket, bra, base, active, tile, size);
        const LiveStep* first = live;
        for (std::size_t w = 0; w < pass.n_windows; first = ends[w++]) {
            if (first == ends[w]) continue;
            run_window<Products::fused>(tile, size, paired_base, pass, pass.windows[w], first,
                                        ends[w], none, none, false);
        }
        if (!keeps) return;
        if (pass.past_cache) {
            scatter_pair<true>(ket, bra, base, active, tile, size, placement, paired_base);
        } else {
            scatter_pair<false>(ket, bra, base, active, tile, size, placement, paired_base);
        }
    });
    if (pass.past_cache) Vector<this_set, T>::finish_past_cache();
}

template <InstructionSet set, class T>
void fold_inner_products(const TilePass<T>& pass, double* results) {
    using Products = InnerProducts<Planar<set, T, Products::fused>, row_bits>;
    for (std::size_t s = 0; s < pass.n_steps; ++s) {
        const CircuitStep& step = pass.steps[s];
        if (step.action < step_action(Action::inner_x, 0)) continue;
        results[step.lookup] +=
            Products::fold(step, pass.sums + step.lookup * sums_per_inner_product);
    }
}

#define PBLINALG_INSTANTIATE(T)                                                               \
    template void run_tiles<this_set, T, this_accuracy>(T*, const TilePass<T>&, Index, Index, \
                                                        void*, bool&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

#ifdef PBLINALG_BY_ROUNDING
#define PBLINALG_INSTANTIATE(T)                                                                  \
    template void run_paired_tiles<this_set, T>(T*, T*, const TilePass<T>&, Index, Index, void*, \
                                                bool);                                           \
    template void fold_inner_products<this_set, T>(const TilePass<T>&, double*);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE
#endif

}  // namespace pblinalg::cpu
