// What the gate formulas compute with: one amplitude (Scalar) or a vector of them, interleaved
// (Vector) or as two vectors of parts (Planar), for each instruction set.
// Every type carries its instruction set in its name, so that the linker never mixes two builds.
#pragma once

#include <cstring>
#include <utility>

#include "core/complex_math.hpp"
#include "core/instruction_set.hpp"
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace pblinalg::cpu {

/// Amplitudes with their parts interleaved, as the state keeps them: re, im, re, im, ...
template <class T>
struct InterleavedMemory {
    T* parts;
};

/// Amplitudes with their real and imaginary parts in arrays of their own.
template <class T>
struct PlanarMemory {
    T* re;
    T* im;
};

/// One amplitude, with the full complex product.
template <InstructionSet set, class T>
struct Scalar {
    using Real = T;
    using Factor = Scalar;

    T re, im;

    Scalar() = default;
    PBLINALG_ALWAYS_INLINE Scalar(T re, T im) : re(re), im(im) {}

    PBLINALG_ALWAYS_INLINE static Scalar load(const T* from) { return {from[0], from[1]}; }
    PBLINALG_ALWAYS_INLINE static Scalar load(InterleavedMemory<T> from, Index index) {
        return load(from.parts + 2 * index);
    }
    PBLINALG_ALWAYS_INLINE void store(InterleavedMemory<T> to, Index index) const {
        to.parts[2 * index] = re;
        to.parts[2 * index + 1] = im;
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
    PBLINALG_ALWAYS_INLINE friend Scalar divide(Scalar a, T by) { return {a.re / by, a.im / by}; }
    PBLINALG_ALWAYS_INLINE friend Scalar times_i(Scalar a) { return {-a.im, a.re}; }
    PBLINALG_ALWAYS_INLINE friend Scalar times_minus_i(Scalar a) { return {a.im, -a.re}; }
    PBLINALG_ALWAYS_INLINE friend Scalar cmul(Scalar f, Scalar a) {
        Scalar product;
        multiply(f.re, f.im, a.re, a.im, product.re, product.im);
        return product;
    }
    PBLINALG_ALWAYS_INLINE friend Scalar cmul_real(Scalar f, Scalar a) { return cmul(f, a); }
    PBLINALG_ALWAYS_INLINE friend Scalar cmul_imaginary(Scalar f, Scalar a) { return cmul(f, a); }
};

/// Bytes of a vector register.
template <InstructionSet set>
inline constexpr int register_bytes = set == InstructionSet::avx512 ? 64
                                      : set == InstructionSet::avx2 ? 32
                                                                    : 16;

/// Vector registers of the processor.
template <InstructionSet set>
inline constexpr int n_registers =
#if defined(__aarch64__)
    32;
#else
    set == InstructionSet::avx512 ? 32 : 16;
#endif

constexpr unsigned int log2_of(int power_of_two) {
    return static_cast<unsigned int>(__builtin_ctz(static_cast<unsigned int>(power_of_two)));
}

/// The vector types of one register: elements and same-sized integers for their bits.
template <class T, int bytes>
struct Register;
template <int bytes>
struct Register<double, bytes> {
    typedef double Elements __attribute__((vector_size(bytes)));
    typedef long long Bits __attribute__((vector_size(bytes)));
    using Lane = long long;
    static constexpr Lane sign = static_cast<Lane>(1ull << 63);
};
template <int bytes>
struct Register<float, bytes> {
    typedef float Elements __attribute__((vector_size(bytes)));
    typedef int Bits __attribute__((vector_size(bytes)));
    using Lane = int;
    static constexpr Lane sign = static_cast<Lane>(1u << 31);
};

/// True when any element of either register is NaN.
template <class T, int bytes>
PBLINALG_ALWAYS_INLINE bool any_nan(typename Register<T, bytes>::Elements a,
                                    typename Register<T, bytes>::Elements b) {
#if defined(__AVX512F__)
    if constexpr (bytes == 64 && sizeof(T) == 8)
        return _mm512_cmp_pd_mask(__m512d(a), __m512d(b), _CMP_UNORD_Q) != 0;
    if constexpr (bytes == 64 && sizeof(T) == 4)
        return _mm512_cmp_ps_mask(__m512(a), __m512(b), _CMP_UNORD_Q) != 0;
#endif
#if defined(__AVX2__)
    if constexpr (bytes == 32 && sizeof(T) == 8)
        return _mm256_movemask_pd(_mm256_cmp_pd(__m256d(a), __m256d(b), _CMP_UNORD_Q));
    if constexpr (bytes == 32 && sizeof(T) == 4)
        return _mm256_movemask_ps(_mm256_cmp_ps(__m256(a), __m256(b), _CMP_UNORD_Q));
#endif
#if defined(__SSE2__)
    if constexpr (bytes == 16 && sizeof(T) == 8)
        return _mm_movemask_pd(_mm_cmpunord_pd(__m128d(a), __m128d(b)));
    if constexpr (bytes == 16 && sizeof(T) == 4)
        return _mm_movemask_ps(_mm_cmpunord_ps(__m128(a), __m128(b)));
#endif
    const typename Register<T, bytes>::Bits nan = (a != a) | (b != b);
    for (int e = 0; e < bytes / static_cast<int>(sizeof(T)); ++e) {
        if (nan[e]) return true;
    }
    return false;
}

/// `a` where all bits are chosen, `b` where none are.
template <class Bits, class Elements>
PBLINALG_ALWAYS_INLINE Elements choose_elements(Bits chosen, Elements a, Elements b) {
    return chosen ? a : b;
}

template <class Bits, int... E>
PBLINALG_ALWAYS_INLINE Bits number_elements(std::integer_sequence<int, E...>) {
    return Bits{E...};
}

template <int element_bit, class Elements, int... E>
PBLINALG_ALWAYS_INLINE void exchange_element_bit(Elements& low, Elements& high,
                                                 std::integer_sequence<int, E...>) {
    constexpr int n_elements = sizeof...(E);
    const Elements zeros = __builtin_shufflevector(
        low, high, ((E & element_bit ? n_elements : 0) + (E & ~element_bit))...);
    const Elements ones = __builtin_shufflevector(
        low, high, ((E & element_bit ? n_elements : 0) + (E | element_bit))...);
    low = zeros;
    high = ones;
}

/// Exchanges bit `lane_bit` of the lane number, a lane being `per_lane` elements, with the bit that
/// tells `low` from `high`.
template <int per_lane, int n_elements, class Elements>
PBLINALG_ALWAYS_INLINE void exchange_bit(Elements& low, Elements& high, unsigned int lane_bit) {
    using Iota = std::make_integer_sequence<int, n_elements>;
    constexpr unsigned int lane_bits = log2_of(n_elements / per_lane);
    if constexpr (lane_bits > 0) {
        if (lane_bit == 0) return exchange_element_bit<per_lane>(low, high, Iota());
    }
    if constexpr (lane_bits > 1) {
        if (lane_bit == 1) return exchange_element_bit<2 * per_lane>(low, high, Iota());
    }
    if constexpr (lane_bits > 2) {
        if (lane_bit == 2) return exchange_element_bit<4 * per_lane>(low, high, Iota());
    }
    if constexpr (lane_bits > 3) {
        if (lane_bit == 3) return exchange_element_bit<8 * per_lane>(low, high, Iota());
    }
}

/// What vectors do about products that are more than four multiplications and two sums.
enum class Products {
    /// Products with a part that is known to be 0 are left out of RX and RY. That changes nothing
    /// but signs of parts that are 0, and what becomes of infinities and NaN. A wrong sign of 0
    /// only ever makes other wrong signs of 0, and infinities stay, so the caller looks at the
    /// final parts (`all_ordinary`, `Inspection`).
    without_zeros,
    plain,      ///< exact unless a final part is NaN
    recovered,  ///< exact
    /// As the rounding allows: without zero parts, and summed so that the compiler can fuse.
    fused,
};

constexpr bool leaves_out_zeros(Products products) {
    return products == Products::without_zeros || products == Products::fused;
}

/// `lanes` amplitudes in one register, parts interleaved as in memory: re, im, re, im, ...
///
/// Products here are never recovered. One that needs it shows as NaN in both parts, and a NaN
/// survives every operation of a formula, so the caller checks the final values (`holds_nan`) and
/// redoes such vectors with Scalar.
template <InstructionSet set, class T, Products products = Products::plain>
struct Vector {
    using Real = T;
    using Memory = InterleavedMemory<T>;
    using ScalarValue = Scalar<set, T>;
    using WithoutZeros = Vector<set, T, Products::without_zeros>;
    static constexpr int bytes = register_bytes<set>;
    using Elements = typename Register<T, bytes>::Elements;
    using Bits = typename Register<T, bytes>::Bits;
    static constexpr int n_elements = bytes / static_cast<int>(sizeof(T));
    static constexpr int lanes = n_elements / 2;
    static constexpr unsigned int lane_bits = log2_of(lanes);
    using Iota = std::make_integer_sequence<int, n_elements>;

    Elements v;

    /// A coefficient in every lane, the sign of the real part's subtraction folded in.
    struct Factor {
        Elements re;         ///< re, re, ...
        Elements signed_im;  ///< -im, +im, ...
        Factor() = default;
        PBLINALG_ALWAYS_INLINE Factor(T real, T imag)
            : re(real - Elements{}),
              signed_im(Vector{imag - Elements{}}.flip_signs(sign_of_parts(0, Iota())).v) {}
        PBLINALG_ALWAYS_INLINE Factor(Elements re, Elements signed_im)
            : re(re), signed_im(signed_im) {}
        PBLINALG_ALWAYS_INLINE static Factor select(Bits chosen, const Factor& a, const Factor& b) {
            return {choose_elements(chosen, a.re, b.re),
                    choose_elements(chosen, a.signed_im, b.signed_im)};
        }
    };

    PBLINALG_ALWAYS_INLINE static Vector load(const T* from) {
        return {*reinterpret_cast<const Aliasing*>(from)};
    }
    PBLINALG_ALWAYS_INLINE static Vector load(Memory from, Index index) {
        return load(from.parts + 2 * index);
    }
    PBLINALG_ALWAYS_INLINE void store(T* to) const { *reinterpret_cast<Aliasing*>(to) = v; }
    PBLINALG_ALWAYS_INLINE void store(Memory to, Index index) const { store(to.parts + 2 * index); }

    /// As `load` and `store` for addresses that are aligned as single parts.
    PBLINALG_ALWAYS_INLINE static Vector load_unaligned(const T* from) {
        return {*reinterpret_cast<const Unaligned*>(from)};
    }
    /// Stores to memory, 16-byte aligned, that will not be read soon: its lines are not fetched.
    PBLINALG_ALWAYS_INLINE void store_past_cache(T* to) const {
#if defined(__AVX512F__)
        if (bytes == 64 && reinterpret_cast<std::uintptr_t>(to) % 64 == 0) {
            return _mm512_stream_si512(reinterpret_cast<__m512i*>(to),
                                       reinterpret_cast<__m512i>(v));
        }
#endif
#if defined(__SSE2__)
        __m128i pieces[bytes / 16];
        std::memcpy(pieces, &v, bytes);
        for (int i = 0; i < bytes / 16; ++i)
            _mm_stream_si128(reinterpret_cast<__m128i*>(to) + i, pieces[i]);
#else
        store_unaligned(to);
#endif
    }
    /// Makes such stores visible to other workers, before they are told that a result is there.
    PBLINALG_ALWAYS_INLINE static void finish_past_cache() {
#if defined(__SSE2__)
        _mm_sfence();
#endif
    }

    PBLINALG_ALWAYS_INLINE void store_unaligned(T* to) const {
        *reinterpret_cast<Unaligned*>(to) = v;
    }

    PBLINALG_ALWAYS_INLINE ScalarValue lane(int i) const {
        return {v[2 * i], v[2 * i + 1]};
    }
    PBLINALG_ALWAYS_INLINE void set_lane(int i, ScalarValue a) {
        v[2 * i] = a.re;
        v[2 * i + 1] = a.im;
    }

    PBLINALG_ALWAYS_INLINE friend Vector operator+(Vector a, Vector b) {
        return {a.v + b.v};
    }
    PBLINALG_ALWAYS_INLINE friend Vector operator-(Vector a, Vector b) {
        return {a.v - b.v};
    }
    PBLINALG_ALWAYS_INLINE friend Vector operator-(Vector a) {
        return a.flip_signs(Register<T, bytes>::sign - Bits{});
    }
    PBLINALG_ALWAYS_INLINE friend Vector scale(Vector a, T by) {
        return {a.v * by};
    }
    PBLINALG_ALWAYS_INLINE friend Vector divide(Vector a, T by) {
        return {a.v / by};
    }
    PBLINALG_ALWAYS_INLINE friend Vector times_i(Vector a) {
        return a.swap_parts().flip_signs(sign_of_parts(0, Iota()));
    }
    PBLINALG_ALWAYS_INLINE friend Vector times_minus_i(Vector a) {
        return a.swap_parts().flip_signs(sign_of_parts(1, Iota()));
    }
    PBLINALG_ALWAYS_INLINE friend Vector cmul(const Factor& f, Vector a) {
        return {f.re * a.v + f.signed_im * a.swap_parts().v};
    }
    PBLINALG_ALWAYS_INLINE friend Vector cmul_real(const Factor& f, Vector a) {
        if constexpr (products != Products::without_zeros) return cmul(f, a);
        return {f.re * a.v};
    }
    PBLINALG_ALWAYS_INLINE friend Vector cmul_imaginary(const Factor& f, Vector a) {
        if constexpr (products != Products::without_zeros) return cmul(f, a);
        return {f.signed_im * a.swap_parts().v};
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

    /// As `plain_norms` for the amplitudes of one vector, each norm in both parts of its lane.
    PBLINALG_ALWAYS_INLINE static Vector plain_norm_pairs(Vector a) {
        const Vector squares{a.v * a.v};
        const Vector sums{fused_multiply_add(a.v, a.v, squares.swap_parts().v)};
        return {sums.pick([](int e) { return e & ~1; }, Iota())};
    }

    /// All bits set in the elements that are greater than `limit`.
    PBLINALG_ALWAYS_INLINE static Bits exceeds(Vector a, T limit) {
        return a.v > limit;
    }

    /// Whether elements are anything but 0, from their bits or those of several joined.
    PBLINALG_ALWAYS_INLINE static bool any_magnitude(Bits bits) {
        bits &= ~(Register<T, bytes>::sign - Bits{});
        std::uint64_t words[bytes / 8], any = 0;
        std::memcpy(words, &bits, bytes);
        for (const std::uint64_t word : words)
            any |= word;
        return any != 0;
    }

    /// Exchanges lane bit `lane_bit` with the bit that tells two vectors apart: afterwards `low`
    /// holds all amplitudes with that lane bit 0, `high` those with 1. Its own inverse.
    PBLINALG_ALWAYS_INLINE static void transpose(Vector& low, Vector& high, unsigned int lane_bit) {
        exchange_bit<2, n_elements>(low.v, high.v, lane_bit);
    }

    /// All bits set in the lanes whose number has the bits `value` under `mask`.
    PBLINALG_ALWAYS_INLINE static Bits lanes_where(Index mask, Index value) {
        using Lane = typename Register<T, bytes>::Lane;
        const Bits lane_numbers = number_elements<Bits>(Iota()) >> 1;
        return (lane_numbers & static_cast<Lane>(mask)) == static_cast<Lane>(value);
    }

    /// All bits set in the lanes whose bit of `lane_set` is 1.
    PBLINALG_ALWAYS_INLINE static Bits lanes_in(Index lane_set) {
        const Bits lane_bits = bits_of_lanes(Iota());
        return ((static_cast<int>(lane_set & (bit(lanes) - 1)) + Bits{}) & lane_bits) == lane_bits;
    }

    /// All bits set in the elements whose number has the bits `value` under `mask`.
    PBLINALG_ALWAYS_INLINE static Bits elements_where(Index mask, Index value) {
        using Lane = typename Register<T, bytes>::Lane;
        return (number_elements<Bits>(Iota()) & static_cast<Lane>(mask)) ==
               static_cast<Lane>(value);
    }

    /// `fresh` where `chosen`, `old` elsewhere.
    PBLINALG_ALWAYS_INLINE static Vector select(Bits chosen, Vector fresh, Vector old) {
        return {choose_elements(chosen, fresh.v, old.v)};
    }

    /// True when any part of either vector is NaN.
    PBLINALG_ALWAYS_INLINE static bool holds_nan(Vector a, Vector b) {
        return any_nan<T, bytes>(a.v, b.v);
    }

    /// Whether `all_ordinary` costs less than the products that it allows to leave out.
    static constexpr bool tells_ordinary = bytes == 64;

    /// True when no part of either vector is 0, infinite or NaN.
    PBLINALG_ALWAYS_INLINE static bool all_ordinary(Vector a, Vector b) {
#if defined(__AVX512F__)
        constexpr int zero_infinite_or_nan = 0x9F;
        if constexpr (bytes == 64 && sizeof(T) == 8)
            return _kortestz_mask8_u8(_mm512_fpclass_pd_mask(__m512d(a.v), zero_infinite_or_nan),
                                      _mm512_fpclass_pd_mask(__m512d(b.v), zero_infinite_or_nan));
        if constexpr (bytes == 64 && sizeof(T) == 4)
            return _kortestz_mask16_u8(_mm512_fpclass_ps_mask(__m512(a.v), zero_infinite_or_nan),
                                       _mm512_fpclass_ps_mask(__m512(b.v), zero_infinite_or_nan));
#endif
        // 0 / 0 is NaN, and so is an infinity minus itself.
        return !holds_nan({(a.v - a.v) / a.v}, {(b.v - b.v) / b.v});
    }

  private:
    typedef Elements Aliasing __attribute__((may_alias));
    typedef Elements Unaligned __attribute__((may_alias, aligned(sizeof(T))));

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
};

/// `lanes` amplitudes in two registers, one of real and one of imaginary parts: no product needs a
/// shuffle. For blocks of amplitudes in cache, which are checked as a whole before they are stored
/// back, so that no product is checked on its own.
template <InstructionSet set, class T, Products products>
struct Planar {
    using Real = T;
    using Memory = PlanarMemory<T>;
    static constexpr int bytes = register_bytes<set>;
    using Elements = typename Register<T, bytes>::Elements;
    using Bits = typename Register<T, bytes>::Bits;
    static constexpr int lanes = bytes / static_cast<int>(sizeof(T));
    static constexpr unsigned int lane_bits = log2_of(lanes);
    using Iota = std::make_integer_sequence<int, lanes>;

    Elements re, im;

    /// A coefficient in every lane.
    struct Factor {
        Elements re, im;
        Factor() = default;
        PBLINALG_ALWAYS_INLINE Factor(T real, T imag)
            : re(real - Elements{}), im(imag - Elements{}) {}
        PBLINALG_ALWAYS_INLINE static Factor select(Bits chosen, const Factor& a, const Factor& b) {
            Factor mixed;
            mixed.re = choose_elements(chosen, a.re, b.re);
            mixed.im = choose_elements(chosen, a.im, b.im);
            return mixed;
        }
    };

    PBLINALG_ALWAYS_INLINE static Planar load(Memory from, Index index) {
        return {*reinterpret_cast<const Aliasing*>(from.re + index),
                *reinterpret_cast<const Aliasing*>(from.im + index)};
    }
    PBLINALG_ALWAYS_INLINE void store(Memory to, Index index) const {
        *reinterpret_cast<Aliasing*>(to.re + index) = re;
        *reinterpret_cast<Aliasing*>(to.im + index) = im;
    }

    /// A factor per lane: all real parts, then all imaginary ones, 64-byte aligned.
    PBLINALG_ALWAYS_INLINE static Factor load_factor(const T* from) {
        const Planar parts = load({const_cast<T*>(from), const_cast<T*>(from) + lanes}, 0);
        Factor factor;
        factor.re = parts.re;
        factor.im = parts.im;
        return factor;
    }

    /// From and to `lanes` interleaved amplitudes.
    PBLINALG_ALWAYS_INLINE static Planar deinterleave(const T* from) {
        return deinterleave(*reinterpret_cast<const Aliasing*>(from),
                            *reinterpret_cast<const Aliasing*>(from + lanes), Iota());
    }
    template <bool past_cache>
    PBLINALG_ALWAYS_INLINE void interleave(T* to) const {
        const Vector<set, T> low{mix(0, Iota())}, high{mix(lanes / 2, Iota())};
        if constexpr (past_cache) {
            low.store_past_cache(to);
            high.store_past_cache(to + lanes);
        } else {
            low.store({to}, 0);
            high.store({to + lanes}, 0);
        }
    }

    /// From and to two vectors of interleaved amplitudes, in the order of lanes that costs least.
    PBLINALG_ALWAYS_INLINE static Planar of(Vector<set, T> low, Vector<set, T> high) {
        return {take_near<0>(low.v, high.v, Iota()), take_near<1>(low.v, high.v, Iota())};
    }
    PBLINALG_ALWAYS_INLINE void to(Vector<set, T>& low, Vector<set, T>& high) const {
        low.v = mix_near<0>(Iota());
        high.v = mix_near<1>(Iota());
    }

    PBLINALG_ALWAYS_INLINE friend Planar operator+(Planar a, Planar b) {
        return {a.re + b.re, a.im + b.im};
    }
    PBLINALG_ALWAYS_INLINE friend Planar operator-(Planar a, Planar b) {
        return {a.re - b.re, a.im - b.im};
    }
    PBLINALG_ALWAYS_INLINE friend Planar operator-(Planar a) { return {-a.re, -a.im}; }
    PBLINALG_ALWAYS_INLINE friend Planar scale(Planar a, T by) { return {a.re * by, a.im * by}; }
    PBLINALG_ALWAYS_INLINE friend Planar times_i(Planar a) { return {-a.im, a.re}; }
    PBLINALG_ALWAYS_INLINE friend Planar times_minus_i(Planar a) { return {a.im, -a.re}; }
    /// A product that waits for its sum: added to another one it takes a fused operation for each
    /// multiplication but the first.
    struct Pending {
        Factor f;
        Planar a;
        PBLINALG_ALWAYS_INLINE operator Planar() const {
            return {f.re * a.re - f.im * a.im, f.re * a.im + f.im * a.re};
        }
        PBLINALG_ALWAYS_INLINE friend Planar operator+(Planar sum, const Pending& next) {
            sum = {sum.re + next.f.re * next.a.re, sum.im + next.f.re * next.a.im};
            return {sum.re - next.f.im * next.a.im, sum.im + next.f.im * next.a.re};
        }
        PBLINALG_ALWAYS_INLINE friend Planar operator+(const Pending& first, const Pending& next) {
            return Planar(first) + next;
        }
    };
    PBLINALG_ALWAYS_INLINE friend auto cmul(const Factor& f, Planar a) {
        if constexpr (products == Products::fused) {
            return Pending{f, a};
        } else {
            return product_of(f, a);
        }
    }
    PBLINALG_ALWAYS_INLINE static Planar product_of(const Factor& f, Planar a) {
        Planar product{f.re * a.re - f.im * a.im, f.re * a.im + f.im * a.re};
        if constexpr (products == Products::recovered) {
            if (holds_nan(product)) [[unlikely]]
                product.recover(f, a);
        }
        return product;
    }
    PBLINALG_ALWAYS_INLINE friend Planar cmul_real(const Factor& f, Planar a) {
        if constexpr (!leaves_out_zeros(products)) return cmul(f, a);
        return {f.re * a.re, f.re * a.im};
    }
    PBLINALG_ALWAYS_INLINE friend Planar cmul_imaginary(const Factor& f, Planar a) {
        if constexpr (!leaves_out_zeros(products)) return cmul(f, a);
        return {-(f.im * a.im), f.im * a.re};
    }

    PBLINALG_ALWAYS_INLINE static bool holds_nan(Planar a) { return any_nan<T, bytes>(a.re, a.im); }

    /// Looks at final values: what they are tells whether they are exact.
    class Inspection {
      public:
        PBLINALG_ALWAYS_INLINE void look_at(Planar a) {
            // An infinity minus itself is NaN, and NaN stays in the sum.
            not_finite_ += (a.re - a.re) + (a.im - a.im);
            smallest_ = smaller(smallest_, smaller(a.re, a.im));
        }
        /// True when all parts were finite.
        PBLINALG_ALWAYS_INLINE bool finite() const {
            return !any_nan<T, bytes>(not_finite_, not_finite_);
        }
        /// True when, besides, none was 0.
        PBLINALG_ALWAYS_INLINE bool ordinary() const {
            // 0 / 0 is NaN.
            return !any_nan<T, bytes>(not_finite_, smallest_ / smallest_);
        }

      private:
        Elements not_finite_{};
        Elements smallest_ = T(1) - Elements{};
    };

    PBLINALG_ALWAYS_INLINE static void transpose(Planar& low, Planar& high, unsigned int lane_bit) {
        exchange_bit<1, lanes>(low.re, high.re, lane_bit);
        exchange_bit<1, lanes>(low.im, high.im, lane_bit);
    }
    /// Lane l of the result is lane l ^ 2^lane_bit. Bits that lanes do not have change nothing.
    template <unsigned int lane_bit>
    PBLINALG_ALWAYS_INLINE Planar flip_lane_bit() const {
        if constexpr (lane_bit >= lane_bits) return *this;
        return flip_lanes<(1 << lane_bit)>(Iota());
    }
    /// All bits set in the lanes whose bit of `lane_set` is 1.
    PBLINALG_ALWAYS_INLINE static Bits lanes_in(Index lane_set) {
        using Lane = typename Register<T, bytes>::Lane;
        const Bits lane_bits = bits_of_lanes(Iota());
        return ((static_cast<Lane>(lane_set) + Bits{}) & lane_bits) == lane_bits;
    }
    PBLINALG_ALWAYS_INLINE static Planar select(Bits chosen, Planar fresh, Planar old) {
        return {choose_elements(chosen, fresh.re, old.re),
                choose_elements(chosen, fresh.im, old.im)};
    }

  private:
    typedef Elements Aliasing __attribute__((may_alias));

    /// Redoes the product f * a lane by lane with the recovery of infinities.
    [[gnu::noinline, gnu::cold]] void recover(const Factor& f, const Planar& a) {
        for (int lane = 0; lane < lanes; ++lane) {
            const auto product = cmul(Scalar<set, T>(f.re[lane], f.im[lane]),
                                      Scalar<set, T>(a.re[lane], a.im[lane]));
            re[lane] = product.re;
            im[lane] = product.im;
        }
    }

    template <int mask, int... E>
    PBLINALG_ALWAYS_INLINE Planar flip_lanes(std::integer_sequence<int, E...>) const {
        if constexpr (mask >= lanes) return *this;
        return {__builtin_shufflevector(re, re, ((E ^ mask) % lanes)...),
                __builtin_shufflevector(im, im, ((E ^ mask) % lanes)...)};
    }

    template <int... E>
    PBLINALG_ALWAYS_INLINE static Bits bits_of_lanes(std::integer_sequence<int, E...>) {
        return Bits{(1 << E)...};
    }

    /// The smaller magnitude of each element.
    PBLINALG_ALWAYS_INLINE static Elements smaller(Elements a, Elements b) {
#if defined(__AVX512F__)
        constexpr int smaller_magnitude = 0b1010;
        if constexpr (bytes == 64 && sizeof(T) == 8)
            return Elements(_mm512_range_pd(__m512d(a), __m512d(b), smaller_magnitude));
        if constexpr (bytes == 64 && sizeof(T) == 4)
            return Elements(_mm512_range_ps(__m512(a), __m512(b), smaller_magnitude));
#endif
        const Bits without_sign = ~(Register<T, bytes>::sign - Bits{});
        const Elements left = reinterpret_cast<Elements>(reinterpret_cast<Bits>(a) & without_sign);
        const Elements right = reinterpret_cast<Elements>(reinterpret_cast<Bits>(b) & without_sign);
        return left < right ? left : right;
    }

    /// Elements in 16 bytes: shuffles that stay within these cost least.
    static constexpr int near = 16 / static_cast<int>(sizeof(T));

    /// In each 16 bytes: the parts 0 (real) or 1 (imaginary) of `low`, then those of `high`.
    template <int part, int... E>
    PBLINALG_ALWAYS_INLINE static Elements take_near(Elements low, Elements high,
                                                     std::integer_sequence<int, E...>) {
        return __builtin_shufflevector(
            low, high,
            (E / near * near + E % (near / 2) * 2 + part + (E % near < near / 2 ? 0 : lanes))...);
    }
    /// Undoes `take_near`: gives `low` (`which` = 0) or `high` (1).
    template <int which, int... E>
    PBLINALG_ALWAYS_INLINE Elements mix_near(std::integer_sequence<int, E...>) const {
        return __builtin_shufflevector(
            re, im, (E / near * near + E % near / 2 + which * (near / 2) + E % 2 * lanes)...);
    }

    template <int... E>
    PBLINALG_ALWAYS_INLINE static Planar deinterleave(Elements low, Elements high,
                                                      std::integer_sequence<int, E...>) {
        return {__builtin_shufflevector(low, high, 2 * E...),
                __builtin_shufflevector(low, high, 2 * E + 1 ...)};
    }
    template <int... E>
    PBLINALG_ALWAYS_INLINE Elements mix(int first, std::integer_sequence<int, E...>) const {
        if (first == 0) return __builtin_shufflevector(re, im, (E / 2 + (E & 1) * lanes)...);
        return __builtin_shufflevector(re, im, (lanes / 2 + E / 2 + (E & 1) * lanes)...);
    }
};

}  // namespace pblinalg::cpu
