// The arithmetic of every gate, stated once and generic over the value it works on: one amplitude
// (kernels/values.hpp: Scalar) or a vector of amplitudes of different groups (Vector).
// The order of operations is part of the interface: results are reproducible to the last bit.
// The kernels that walk the state with these formulas are in apply/gates.hpp; the general
// matrices are in gates/matrix_formulas.hpp.
#pragma once

#include <array>
#include <complex>

#include "core/bits.hpp"
#include "core/complex_math.hpp"

namespace pblinalg::cpu {

/// What a kernel must know of a gate.
/// @tparam Targets   qubits whose amplitudes mix; a gate of 0 targets multiplies an amplitude.
/// @tparam Factors   complex coefficients handed over with each call.
/// @tparam Products  true when complex products occur, whose infinities may need recovery.
/// @tparam Rows      bit r is set when local index r is read and written.
template <unsigned int Targets, unsigned int Factors, bool Products,
          unsigned int Rows = (1u << (1u << Targets)) - 1>
struct GateShape {
    static constexpr unsigned int n_targets = Targets;
    static constexpr unsigned int n_rows = 1u << Targets;
    static constexpr unsigned int n_factors = Factors;
    static constexpr bool has_products = Products;
    /// True when some coefficients are real or imaginary, known as such to the formula.
    static constexpr bool has_zero_products = false;
    PBLINALG_ALWAYS_INLINE static constexpr bool touches(unsigned int row) {
        return (Rows >> row) & 1;
    }
};

// In every `update`, a[r] is the amplitude of local index r (first listed target is the most
// significant bit) and f[i] is coefficient i. `cmul_real` and `cmul_imaginary` are `cmul` by a
// coefficient whose other part is 0, whose products a value type may leave out.

/// [[1, 1], [1, -1]] / sqrt(2).
struct GateH : GateShape<1, 0, false> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        const V sum = a[0] + a[1];
        const V difference = a[0] - a[1];
        a[0] = scale(sum, inv_sqrt2<typename V::Real>);
        a[1] = scale(difference, inv_sqrt2<typename V::Real>);
    }
};

/// [[0, 1], [1, 0]].
struct GateX : GateShape<1, 0, false> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        const V a0 = a[0];
        a[0] = a[1];
        a[1] = a0;
    }
};

/// [[0, -i], [i, 0]].
struct GateY : GateShape<1, 0, false> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        const V a0 = a[0];
        a[0] = times_minus_i(a[1]);
        a[1] = times_i(a0);
    }
};

/// [[f0, f1], [f1, f0]] with f0 = cos(theta/2), f1 = -i sin(theta/2).
struct GateRX : GateShape<1, 2, true> {
    static constexpr bool has_zero_products = true;

    template <class T>
    static std::array<std::complex<T>, 2> factors(T theta) {
        const T half = theta * T(0.5);
        return {std::complex<T>(std::cos(half), 0), std::complex<T>(0, -std::sin(half))};
    }

    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor* f) {
        const V a0 = a[0];
        const V a1 = a[1];
        a[0] = cmul_real(f[0], a0) + cmul_imaginary(f[1], a1);
        a[1] = cmul_imaginary(f[1], a0) + cmul_real(f[0], a1);
    }
};

/// [[f0, -f1], [f1, f0]] with f0 = cos(theta/2), f1 = sin(theta/2).
struct GateRY : GateShape<1, 2, true> {
    static constexpr bool has_zero_products = true;

    template <class T>
    static std::array<std::complex<T>, 2> factors(T theta) {
        const T half = theta * T(0.5);
        return {std::complex<T>(std::cos(half), 0), std::complex<T>(std::sin(half), 0)};
    }

    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor* f) {
        const V a0 = a[0];
        const V a1 = a[1];
        a[0] = cmul_real(f[0], a0) - cmul_real(f[1], a1);
        a[1] = cmul_real(f[1], a0) + cmul_real(f[0], a1);
    }
};

/// [[1, -i], [1, i]] / sqrt(2).
struct GateYtoZ : GateShape<1, 0, true> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        using Real = typename V::Real;
        const V left = scale(a[0], inv_sqrt2<Real>);
        const V right = cmul(typename V::Factor(Real(0), inv_sqrt2<Real>), a[1]);
        a[0] = left - right;
        a[1] = left + right;
    }
};

/// [[1, 1], [i, -i]] / sqrt(2).
struct GateZtoY : GateShape<1, 0, true> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        using Real = typename V::Real;
        const V sum = a[0] + a[1];
        const V difference = a[0] - a[1];
        a[0] = scale(sum, inv_sqrt2<Real>);
        a[1] = cmul(typename V::Factor(Real(0), inv_sqrt2<Real>), difference);
    }
};

// ---- Diagonal gates whose row 0 is 1: only amplitudes of row 1 reach the formula ----------------

/// diag(1, -1).
struct GateZ : GateShape<0, 0, false> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        a[0] = -a[0];
    }
};

/// diag(1, i); a full complex product, as its signed zeros show.
struct GateS : GateShape<0, 0, true> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        using Real = typename V::Real;
        a[0] = cmul(typename V::Factor(Real(0), Real(1)), a[0]);
    }
};

/// diag(1, (1 + i) / sqrt(2)).
struct GateT : GateShape<0, 0, true> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        using Real = typename V::Real;
        a[0] = cmul(typename V::Factor(inv_sqrt2<Real>, inv_sqrt2<Real>), a[0]);
    }
};

/// diag(1, phase).
template <class T>
struct GatePH : GateShape<0, 1, true> {
    std::complex<T> phase;

    /// @param theta  angle in radians; phase = e^(i theta), NaN for an angle that is not finite.
    explicit GatePH(T theta) : phase(std::exp(std::complex<T>(T(0) * theta, theta))) {}

    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor* f) {
        a[0] = cmul(f[0], a[0]);
    }
};

/// diag(f0, f1), both rows multiplied.
struct GateDiagonal : GateShape<1, 2, true> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor* f) {
        a[0] = cmul(f[0], a[0]);
        a[1] = cmul(f[1], a[1]);
    }
};

/// diag(e^(-i theta/2), e^(i theta/2)), applied as a full diagonal. No other flag exists.
template <class T, bool>
struct GateRZ;
template <class T>
struct GateRZ<T, true> {
    std::array<std::complex<T>, 2> diagonal;

    explicit GateRZ(T theta) {
        const T half = theta * T(0.5);
        const T sine = std::sin(half);
        const T cosine = std::cos(half);
        diagonal = {std::complex<T>(cosine, -sine), std::complex<T>(cosine, sine)};
    }
};

/// The coefficients of any one-qubit gate as a 2x2 matrix, row-major, with a real first entry:
/// [[cos(theta/2), -e^(i lambda) sin(theta/2)],
///  [e^(i phi) sin(theta/2), e^(i (phi + lambda)) cos(theta/2)]].
struct GateU {
    static std::array<std::complex<double>, 4> factors(double theta, double phi, double lambda) {
        const double c = std::cos(theta * 0.5), s = std::sin(theta * 0.5);
        const double both = phi + lambda;
        return {std::complex<double>(c, 0),
                std::complex<double>(-(std::cos(lambda) * s), -(std::sin(lambda) * s)),
                std::complex<double>(std::cos(phi) * s, std::sin(phi) * s),
                std::complex<double>(std::cos(both) * c, std::sin(both) * c)};
    }
};

// ---- Two-qubit gates ----------------------------------------------------------------------------

struct GateSWAP : GateShape<2, 0, false, 0b0110> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        const V a1 = a[1];
        a[1] = a[2];
        a[2] = a1;
    }
};

/// The square root of SWAP whose rows 1 and 2 are (1+i, 1-i)/2 and (1-i, 1+i)/2.
struct GateSQRTSWAP : GateShape<2, 0, true, 0b0110> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        using Real = typename V::Real;
        const typename V::Factor stay(Real(0.5), Real(0.5));
        const typename V::Factor cross(Real(0.5), Real(-0.5));
        const V a1 = a[1];
        const V a2 = a[2];
        a[1] = cmul(stay, a1) + cmul(cross, a2);
        a[2] = cmul(cross, a1) + cmul(stay, a2);
    }
};

/// SWAP with a factor i on the swapped amplitudes.
struct GateISWAP : GateShape<2, 0, true, 0b0110> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        using Real = typename V::Real;
        const typename V::Factor i(Real(0), Real(1));
        const V a1 = a[1];
        a[1] = cmul(i, a[2]);
        a[2] = cmul(i, a1);
    }
};

// The paired basis changes act on a row qubit and its column partner of a density matrix: the gate
// on the first listed qubit, its complex conjugate on the second. 0.5 acts as a complex factor.

/// H on both.
struct GateHH : GateShape<2, 0, true> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        using Real = typename V::Real;
        const typename V::Factor half(Real(0.5), Real(0));
        const V a0 = a[0], a1 = a[1], a2 = a[2], a3 = a[3];
        a[0] = cmul(half, a0 + a1 + a2 + a3);
        a[1] = cmul(half, a0 - a1 + a2 - a3);
        a[2] = cmul(half, a0 + a1 - a2 - a3);
        a[3] = cmul(half, a0 - a1 - a2 + a3);
    }
};

/// ZtoY and its conjugate.
struct GateZtoYZtoYConj : GateShape<2, 0, true> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        using Real = typename V::Real;
        const typename V::Factor half(Real(0.5), Real(0));
        const typename V::Factor half_i(Real(0), Real(0.5));
        const V a0 = a[0], a1 = a[1], a2 = a[2], a3 = a[3];
        a[0] = cmul(half, a0 + a1 + a2 + a3);
        a[1] = cmul(half_i, a1 - a0 - a2 + a3);
        a[2] = cmul(half_i, a0 + a1 - a2 - a3);
        a[3] = cmul(half, a0 - a1 - a2 + a3);
    }
};

/// YtoZ and its conjugate, the inverse of GateZtoYZtoYConj. Products come first, then the sums.
struct GateYtoZYtoZConj : GateShape<2, 0, true> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor*) {
        using Real = typename V::Real;
        const typename V::Factor half(Real(0.5), Real(0));
        const typename V::Factor half_i(Real(0), Real(0.5));
        const V p0 = cmul(half, a[0]);
        const V p1 = cmul(half_i, a[1]);
        const V p2 = cmul(half_i, a[2]);
        const V p3 = cmul(half, a[3]);
        a[0] = p0 + p1 - p2 + p3;
        a[1] = p0 - p1 - p2 - p3;
        a[2] = p0 + p1 + p2 - p3;
        a[3] = p0 - p1 + p2 + p3;
    }
};

}  // namespace pblinalg::cpu
