// Inner products of two states that lie side by side in a window, row bit 0 telling them apart: the
// ket in even rows, the bra in odd ones. Sums are in double, lane by lane; what lanes weigh is
// dealt with once at the end. Part of kernels/circuit_kernels.cpp.
#pragma once

#include "kernels/circuit_kernels.hpp"
#include "kernels/unrolled.hpp"
#include "kernels/values.hpp"

namespace pblinalg::cpu {

/// @tparam V  a `Planar`.
template <class V, unsigned int row_bits>
class InnerProducts {
  public:
    /// One step on the vectors of a group.
    /// @param odd, on  rows, as for other steps.
    /// @param sums     V::lanes numbers, 64-byte aligned.
    PBLINALG_ALWAYS_INLINE static void add(const V* a, unsigned int action, unsigned int odd,
                                           unsigned int on, double* sums) {
        if (on == 0) return;
        constexpr auto controlled = StepForm::controlled;
        // clang-format off
#define PBLINALG_FLIPPED(kind, with_y)                                                            \
            case step_action(Action::kind, 1): return add_rows<1, with_y, false>(a, on, sums);    \
            case step_action(Action::kind, 2): return add_rows<2, with_y, false>(a, on, sums);    \
            case step_action(Action::kind, 4): return add_lanes<0, with_y>(a, on, sums);          \
            case step_action(Action::kind, 5): return add_lanes<1, with_y>(a, on, sums);          \
            case step_action(Action::kind, 6): return add_lanes<2, with_y>(a, on, sums);          \
            case step_action(Action::kind, 7): return add_lanes<3, with_y>(a, on, sums);          \
            case step_action(Action::kind, 1, controlled): return add_rows<1, with_y, true>(a, on, sums); \
            case step_action(Action::kind, 2, controlled): return add_rows<2, with_y, true>(a, on, sums);
        switch (action) {
            PBLINALG_FLIPPED(inner_x, false)
            PBLINALG_FLIPPED(inner_y, true)
            case step_action(Action::inner_parity, in_bit_1): return add_signed<in_bit_1>(a, odd, sums);
            case step_action(Action::inner_parity, in_bit_2): return add_signed<in_bit_2>(a, odd, sums);
            case step_action(Action::inner_parity, nowhere): return add_signed<nowhere>(a, odd, sums);
            case step_action(Action::inner_parity, otherwise): return add_chosen(a, odd, on, sums);
            case step_action(Action::inner_one, nowhere): return add_real(a, sums);
            default: __builtin_unreachable();
        }
#undef PBLINALG_FLIPPED
        // clang-format on
    }

    /// The value of a step from its sums.
    static double fold(const CircuitStep& step, const double* sums) {
        const unsigned int action = step.action / 32, place = step.action % 8;
        const bool y_in_lanes = action == static_cast<unsigned int>(Action::inner_y) && place >= 4;
        double total = 0;
        for (unsigned int lane = 0; lane < V::lanes; ++lane) {
            if (!(step.lane_mask >> lane & 1)) continue;
            bool negative = step.lane_pattern >> lane & 1;
            if (y_in_lanes) negative = !(lane >> (place - 4) & 1);
            total += negative ? -sums[lane] : sums[lane];
        }
        return total;
    }

  private:
    using Elements = decltype(V::re);
    static constexpr unsigned int n_rows = 1u << row_bits;
    static constexpr unsigned int n_kets = n_rows / 2;

    template <class Body>
    PBLINALG_ALWAYS_INLINE static void for_each_ket(const Body& body) {
        unrolled<n_kets>([&]<unsigned int k>()
                             __attribute__((always_inline)) { body.template operator()<2 * k>(); });
    }

    /// conj(bra) * ket, one part of it.
    template <bool real>
    PBLINALG_ALWAYS_INLINE static void add_part(Elements& sum, const V& bra, const V& ket) {
        if constexpr (real) {
            sum += bra.re * ket.re;
            sum += bra.im * ket.im;
        } else {
            sum += bra.re * ket.im;
            sum -= bra.im * ket.re;
        }
    }

    PBLINALG_ALWAYS_INLINE static void keep(Elements part, double* sums) {
        using Wide = typename Register<double, sizeof(Elements)>::Elements;
        typedef Wide Aliasing __attribute__((may_alias));
        auto* const to = reinterpret_cast<Aliasing*>(sums);
        const auto add_to = [&](int place, Wide more) __attribute__((always_inline)) {
            const Wide old = to[place];
            to[place] = old + more;
        };
        if constexpr (sizeof(typename V::Real) == sizeof(double)) {
            add_to(0, part);
        } else {
            add_to(0, __builtin_convertvector(half<0>(part, HalfIota()), Wide));
            add_to(1, __builtin_convertvector(half<1>(part, HalfIota()), Wide));
        }
    }
    using HalfIota = std::make_integer_sequence<int, V::lanes / 2>;
    template <int which, int... E>
    PBLINALG_ALWAYS_INLINE static auto half(Elements all, std::integer_sequence<int, E...>) {
        return __builtin_shufflevector(all, all, (which * static_cast<int>(sizeof...(E)) + E)...);
    }

    /// Im <bra|X|ket>, or Y, on a row bit. Y is i X with a sign where the bit of the bra is 0.
    template <unsigned int place, bool with_y, bool controlled>
    PBLINALG_ALWAYS_INLINE static void add_rows(const V* a, unsigned int on, double* sums) {
        Elements from_0{}, from_1{};
        for_each_ket([&]<unsigned int r>() __attribute__((always_inline)) {
            if constexpr (place < row_bits && !(r >> place & 1)) {
                constexpr unsigned int other = r | 1u << place;
                if (controlled && !(on >> r & 1)) return;
                add_part<with_y>(from_1, a[r + 1], a[other]);
                add_part<with_y>(from_0, a[other + 1], a[r]);
            }
        });
        keep(with_y ? from_0 - from_1 : from_0 + from_1, sums);
    }

    template <unsigned int lane_bit, bool with_y>
    PBLINALG_ALWAYS_INLINE static void add_lanes(const V* a, unsigned int on, double* sums) {
        Elements sum{};
        for_each_ket([&]<unsigned int r>() __attribute__((always_inline)) {
            if (!(on >> r & 1)) return;
            add_part<with_y>(sum, a[r + 1], a[r].template flip_lane_bit<lane_bit>());
        });
        keep(sum, sums);
    }

    /// Im conj(bra) * ket with the sign of the parity, where all rows are on.
    template <RowsDiffer differ>
    PBLINALG_ALWAYS_INLINE static void add_signed(const V* a, unsigned int odd, double* sums) {
        Elements like_row_0{}, others{};
        for_each_ket([&]<unsigned int r>() __attribute__((always_inline)) {
            constexpr bool other = differ != nowhere && (r >> differ & 1);
            add_part<false>(other ? others : like_row_0, a[r + 1], a[r]);
        });
        constexpr typename V::Real signs[] = {1, -1};
        keep((like_row_0 - others) * signs[odd & 1], sums);
    }

    PBLINALG_ALWAYS_INLINE static void add_chosen(const V* a, unsigned int odd, unsigned int on,
                                                  double* sums) {
        Elements even_sum{}, odd_sum{};
        for_each_ket([&]<unsigned int r>() __attribute__((always_inline)) {
            if (!(on >> r & 1)) return;
            if (odd >> r & 1) {
                add_part<false>(odd_sum, a[r + 1], a[r]);
            } else {
                add_part<false>(even_sum, a[r + 1], a[r]);
            }
        });
        keep(even_sum - odd_sum, sums);
    }

    PBLINALG_ALWAYS_INLINE static void add_real(const V* a, double* sums) {
        Elements sum{};
        for_each_ket([&]<unsigned int r>()
                         __attribute__((always_inline)) { add_part<true>(sum, a[r + 1], a[r]); });
        keep(sum, sums);
    }
};

}  // namespace pblinalg::cpu
