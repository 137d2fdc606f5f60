// What the gate formulas compute with: one amplitude (Scalar) or a vector of them (Vector), for
// each instruction set. About the only file that knows how wide a register is.
// Every type carries its instruction set in its name, so that the linker never mixes two builds.
#pragma once

#include <cstring>
#include <utility>

#include "core/complex_math.hpp"
#include "kernels/instruction_set.hpp"
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace pblinalg::cpu {

/// One amplitude, with the full complex product.
template <InstructionSet set, class T>
struct Scalar {
    using Real = T;
    using Factor = Scalar;

    T re, im;

    Scalar() = default;
    PBLINALG_ALWAYS_INLINE Scalar(T re, T im) : re(re), im(im) {}

    PBLINALG_ALWAYS_INLINE static Scalar load(const T* from) { return {from[0], from[1]}; }
    PBLINALG_ALWAYS_INLINE void store(T* to) const {
        to[0] = re;
        to[1] = im;
    }

    /// The squared magnitude, with the infinity rule of core/complex_math.hpp.
    PBLINALG_ALWAYS_INLINE T norm() const {
        if (__builtin_isinf(re) || __builtin_isinf(im)) return T(__builtin_inf());
        return fused_multiply_add(re, re, im * im);
    }

    /// a * b + c with one rounding.
    PBLINALG_ALWAYS_INLINE static T fused_multiply_add(T a, T b, T c) {
        if constexpr (sizeof(T) == 4) return __builtin_fmaf(a, b, c);
        return __builtin_fma(a, b, c);
    }

    PBLINALG_ALWAYS_INLINE friend Scalar operator+(Scalar a, Scalar b) {
        return {a.re + b.re, a.im + b.im};
    }
    PBLINALG_ALWAYS_INLINE friend Scalar operator-(Scalar a, Scalar b) {
        return {a.re - b.re, a.im - b.im};
    }
    PBLINALG_ALWAYS_INLINE friend Scalar operator-(Scalar a) { return {-a.re, -a.im}; }
    PBLINALG_ALWAYS_INLINE friend Scalar scale(Scalar a, T by) { return {a.re * by, a.im * by}; }
    PBLINALG_ALWAYS_INLINE friend Scalar times_i(Scalar a) { return {-a.im, a.re}; }
    PBLINALG_ALWAYS_INLINE friend Scalar times_minus_i(Scalar a) { return {a.im, -a.re}; }
    PBLINALG_ALWAYS_INLINE friend Scalar cmul(Scalar f, Scalar a) {
        Scalar product;
        multiply(f.re, f.im, a.re, a.im, product.re, product.im);
        return product;
    }
};

/// Bytes of a vector register.
template <InstructionSet set>
inline constexpr int register_bytes = set == InstructionSet::avx512 ? 64
                                      : set == InstructionSet::avx2 ? 32
                                                                    : 16;

/// The vector types of one register: elements and same-sized integers for their bits.
template <class T, int bytes>
struct Register;
template <int bytes>
struct Register<double, bytes> {
    typedef double Elements __attribute__((vector_size(bytes)));
    typedef long long Bits __attribute__((vector_size(bytes)));
    static constexpr long long sign = static_cast<long long>(1ull << 63);
};
template <int bytes>
struct Register<float, bytes> {
    typedef float Elements __attribute__((vector_size(bytes)));
    typedef int Bits __attribute__((vector_size(bytes)));
    static constexpr int sign = static_cast<int>(1u << 31);
};

/// `lanes` amplitudes in one register, parts interleaved as in memory: re, im, re, im, ...
///
/// `cmul` here is the plain product alone. A product that needs recovery shows as NaN in both
/// parts, and a NaN survives every operation of a formula, so the caller checks the final values
/// (`holds_nan`) and redoes such vectors with Scalar.
template <InstructionSet set, class T>
struct Vector {
    using Real = T;
    static constexpr int bytes = register_bytes<set>;
    using Elements = typename Register<T, bytes>::Elements;
    using Bits = typename Register<T, bytes>::Bits;
    static constexpr int n_elements = bytes / static_cast<int>(sizeof(T));
    static constexpr int lanes = n_elements / 2;
    static constexpr unsigned int lane_bits = lanes == 8 ? 3 : lanes == 4 ? 2 : lanes == 2 ? 1 : 0;
    using Iota = std::make_integer_sequence<int, n_elements>;

    Elements v;

    /// A coefficient in every lane, the sign of the real part's subtraction folded in.
    struct Factor {
        Elements re;         ///< re, re, ...
        Elements signed_im;  ///< -im, +im, ...
        Factor() = default;
        PBLINALG_ALWAYS_INLINE Factor(T real, T imag)
            : re(real - Elements{}), signed_im(alternate(-imag, imag, Iota())) {}
        PBLINALG_ALWAYS_INLINE Factor(Elements re, Elements signed_im)
            : re(re), signed_im(signed_im) {}
    };

    PBLINALG_ALWAYS_INLINE static Vector load(const T* from) {
        return {*reinterpret_cast<const Aliasing*>(from)};
    }
    PBLINALG_ALWAYS_INLINE void store(T* to) const { *reinterpret_cast<Aliasing*>(to) = v; }

    PBLINALG_ALWAYS_INLINE friend Vector operator+(Vector a, Vector b) { return {a.v + b.v}; }
    PBLINALG_ALWAYS_INLINE friend Vector operator-(Vector a, Vector b) { return {a.v - b.v}; }
    PBLINALG_ALWAYS_INLINE friend Vector operator-(Vector a) {
        return a.flip_signs(Register<T, bytes>::sign - Bits{});
    }
    PBLINALG_ALWAYS_INLINE friend Vector scale(Vector a, T by) { return {a.v * by}; }
    PBLINALG_ALWAYS_INLINE friend Vector times_i(Vector a) {
        return a.swap_parts().flip_signs(sign_of_parts(0, Iota()));
    }
    PBLINALG_ALWAYS_INLINE friend Vector times_minus_i(Vector a) {
        return a.swap_parts().flip_signs(sign_of_parts(1, Iota()));
    }
    PBLINALG_ALWAYS_INLINE friend Vector cmul(const Factor& f, Vector a) {
        return {f.re * a.v + f.signed_im * a.swap_parts().v};
    }

    /// Factors that differ by lane, from as many interleaved complex numbers.
    PBLINALG_ALWAYS_INLINE static Factor factor_per_lane(Vector f) {
        const Elements im = f.pick([](int e) { return e | 1; }, Iota());
        return Factor(
            f.pick([](int e) { return e & ~1; }, Iota()),
            reinterpret_cast<Elements>(reinterpret_cast<Bits>(im) ^ sign_of_parts(0, Iota())));
    }

    PBLINALG_ALWAYS_INLINE Vector swap_parts() const {
        return {pick([](int e) { return e ^ 1; }, Iota())};
    }

    /// Element e of the result is element e ^ mask.
    template <int mask>
    PBLINALG_ALWAYS_INLINE Vector xor_elements() const {
        return {pick([](int e) { return e ^ mask; }, Iota())};
    }

    /// The squared magnitudes re*re + round(im*im), summed with one rounding, of the amplitudes of
    /// `low` and then of `high`. An infinite part next to a NaN shows as NaN here; the caller
    /// checks and redoes such vectors with `squared_magnitude`.
    PBLINALG_ALWAYS_INLINE static Vector plain_norms(Vector low, Vector high) {
        const Elements re = take_parts<0>(low, high, Iota());
        const Elements im = take_parts<1>(low, high, Iota());
        return {fused_multiply_add(re, re, im * im)};
    }

    /// Exchanges lane bit `lane_bit` with the bit that tells two vectors apart: afterwards `low`
    /// holds all amplitudes with that lane bit 0, `high` those with 1. Its own inverse.
    PBLINALG_ALWAYS_INLINE static void transpose(Vector& low, Vector& high, unsigned int lane_bit) {
        if constexpr (lane_bits > 0) {
            if (lane_bit == 0) return transpose_bit<0>(low, high, Iota());
        }
        if constexpr (lane_bits > 1) {
            if (lane_bit == 1) return transpose_bit<1>(low, high, Iota());
        }
        if constexpr (lane_bits > 2) {
            if (lane_bit == 2) return transpose_bit<2>(low, high, Iota());
        }
    }

    /// All bits set in the lanes whose number contains `lane_mask`.
    PBLINALG_ALWAYS_INLINE static Bits lanes_with(int lane_mask) {
        Bits chosen{};
        for (int e = 0; e < n_elements; ++e) {
            if (((e >> 1) & lane_mask) == lane_mask) chosen[e] = -1;
        }
        return chosen;
    }

    /// All bits set in the lanes whose bit of `lane_set` is 1.
    PBLINALG_ALWAYS_INLINE static Bits lanes_in(Index lane_set) {
        const Bits lane_bits = bits_of_lanes(Iota());
        return ((static_cast<int>(lane_set & (bit(lanes) - 1)) + Bits{}) & lane_bits) == lane_bits;
    }

    /// All bits set in the elements whose number has `pattern` under `mask`.
    PBLINALG_ALWAYS_INLINE static Bits elements_with(Index mask, Index pattern) {
        Bits chosen{};
        for (int e = 0; e < n_elements; ++e) {
            if ((static_cast<Index>(e) & mask) == pattern) chosen[e] = -1;
        }
        return chosen;
    }

    /// `fresh` where `chosen`, `old` elsewhere.
    PBLINALG_ALWAYS_INLINE static Vector select(Bits chosen, Vector fresh, Vector old) {
        return {reinterpret_cast<Elements>((reinterpret_cast<Bits>(fresh.v) & chosen) |
                                           (reinterpret_cast<Bits>(old.v) & ~chosen))};
    }

    /// True when any element of either vector is NaN.
    PBLINALG_ALWAYS_INLINE static bool holds_nan(Vector a, Vector b) {
#if defined(__AVX512F__)
        if constexpr (bytes == 64 && sizeof(T) == 8)
            return _mm512_cmp_pd_mask(__m512d(a.v), __m512d(b.v), _CMP_UNORD_Q) != 0;
        if constexpr (bytes == 64 && sizeof(T) == 4)
            return _mm512_cmp_ps_mask(__m512(a.v), __m512(b.v), _CMP_UNORD_Q) != 0;
#endif
#if defined(__AVX2__)
        if constexpr (bytes == 32 && sizeof(T) == 8)
            return _mm256_movemask_pd(_mm256_cmp_pd(__m256d(a.v), __m256d(b.v), _CMP_UNORD_Q));
        if constexpr (bytes == 32 && sizeof(T) == 4)
            return _mm256_movemask_ps(_mm256_cmp_ps(__m256(a.v), __m256(b.v), _CMP_UNORD_Q));
#endif
#if defined(__SSE2__)
        if constexpr (bytes == 16 && sizeof(T) == 8)
            return _mm_movemask_pd(_mm_cmpunord_pd(__m128d(a.v), __m128d(b.v)));
        if constexpr (bytes == 16 && sizeof(T) == 4)
            return _mm_movemask_ps(_mm_cmpunord_ps(__m128(a.v), __m128(b.v)));
#endif
        const Bits nan = (a.v != a.v) | (b.v != b.v);
        for (int e = 0; e < n_elements; ++e) {
            if (nan[e]) return true;
        }
        return false;
    }

  private:
    typedef Elements Aliasing __attribute__((may_alias));

    template <int... E>
    PBLINALG_ALWAYS_INLINE static Elements alternate(T even, T odd,
                                                     std::integer_sequence<int, E...>) {
        return Elements{(E & 1 ? odd : even)...};
    }

    /// The sign bit in every real part (`part` = 0) or imaginary part (1).
    template <int... E>
    PBLINALG_ALWAYS_INLINE static Bits sign_of_parts(int part, std::integer_sequence<int, E...>) {
        return Bits{((E & 1) == part ? Register<T, bytes>::sign : 0)...};
    }

    template <int... E>
    PBLINALG_ALWAYS_INLINE static Bits bits_of_lanes(std::integer_sequence<int, E...>) {
        return Bits{(1 << (E >> 1))...};
    }

    PBLINALG_ALWAYS_INLINE Vector flip_signs(Bits signs) const {
        return {reinterpret_cast<Elements>(reinterpret_cast<Bits>(v) ^ signs)};
    }

    /// a * b + c with one rounding.
    PBLINALG_ALWAYS_INLINE static Elements fused_multiply_add(Elements a, Elements b, Elements c) {
#if defined(__AVX512F__)
        if constexpr (bytes == 64 && sizeof(T) == 8)
            return Elements(_mm512_fmadd_pd(__m512d(a), __m512d(b), __m512d(c)));
        if constexpr (bytes == 64 && sizeof(T) == 4)
            return Elements(_mm512_fmadd_ps(__m512(a), __m512(b), __m512(c)));
#endif
#if defined(__FMA__)
        if constexpr (bytes == 32 && sizeof(T) == 8)
            return Elements(_mm256_fmadd_pd(__m256d(a), __m256d(b), __m256d(c)));
        if constexpr (bytes == 32 && sizeof(T) == 4)
            return Elements(_mm256_fmadd_ps(__m256(a), __m256(b), __m256(c)));
#endif
        for (int e = 0; e < n_elements; ++e)
            c[e] = Scalar<set, T>::fused_multiply_add(a[e], b[e], c[e]);
        return c;
    }

    /// The real (`part` = 0) or imaginary (1) parts of `low`, then those of `high`.
    template <int part, int... E>
    PBLINALG_ALWAYS_INLINE static Elements take_parts(Vector low, Vector high,
                                                      std::integer_sequence<int, E...>) {
        return __builtin_shufflevector(low.v, high.v, (2 * E + part)...);
    }

    /// Element e of the result is element source(e).
    template <class Source, int... E>
    PBLINALG_ALWAYS_INLINE Elements pick(Source, std::integer_sequence<int, E...>) const {
        return __builtin_shufflevector(v, v, Source()(E)...);
    }

    template <int lane_bit, int... E>
    PBLINALG_ALWAYS_INLINE static void transpose_bit(Vector& low, Vector& high,
                                                     std::integer_sequence<int, E...>) {
        constexpr int element_bit = 2 << lane_bit;
        const Elements zeros = __builtin_shufflevector(
            low.v, high.v, ((E & element_bit ? n_elements : 0) + (E & ~element_bit))...);
        const Elements ones = __builtin_shufflevector(
            low.v, high.v, ((E & element_bit ? n_elements : 0) + (E | element_bit))...);
        low.v = zeros;
        high.v = ones;
    }
};

}  // namespace pblinalg::cpu
