// The complex arithmetic that fixes bits: the product with infinity recovery, the norm, 1/sqrt(2).
// Vector code repeats only the plain part of the product (kernels/values.hpp) and comes
// back here when a product went wrong.
#pragma once

#include <cmath>
#include <complex>

#include "core/bits.hpp"

namespace pblinalg::cpu {

/// T(1) / sqrt(T(2)). In double this is one unit in the last place below sqrt(0.5).
template <class T>
inline constexpr T inv_sqrt2 = T(0x1.6a09e667f3bccp-1);
template <>
inline constexpr float inv_sqrt2<float> = 0x1.6a09e6p-1f;

/// The product that replaces (re, im) = NaN, NaN: infinite factors keep their direction
/// (ISO C, annex G.5.1, example 1).
template <class T>
void recover_product(T a_re, T a_im, T b_re, T b_im, T& re, T& im);

extern template void recover_product<float>(float, float, float, float, float&, float&);
extern template void recover_product<double>(double, double, double, double, double&, double&);

/// a * b, unfused, redone by the recovery when both parts came out NaN.
template <class T>
PBLINALG_ALWAYS_INLINE void multiply(T a_re, T a_im, T b_re, T b_im, T& re, T& im) {
    re = a_re * b_re - a_im * b_im;
    im = a_re * b_im + a_im * b_re;
    if (re != re && im != im) [[unlikely]]
        recover_product(a_re, a_im, b_re, b_im, re, im);
}

template <class T>
inline std::complex<T> cmul(std::complex<T> a, std::complex<T> b) {
    T re, im;
    multiply(a.real(), a.imag(), b.real(), b.imag(), re, im);
    return {re, im};
}

/// Amplitudes as the interleaved parts that serial kernels work on.
template <class T>
T* parts(std::complex<T>* amplitudes) {
    return reinterpret_cast<T*>(amplitudes);
}
template <class T>
const T* parts(const std::complex<T>* amplitudes) {
    return reinterpret_cast<const T*>(amplitudes);
}

/// The squared magnitude: infinite when a part is, else re*re fused onto im*im.
template <class T>
inline T squared_magnitude(std::complex<T> a) {
    if (std::isinf(a.real()) || std::isinf(a.imag())) return INFINITY;
    return std::fma(a.real(), a.real(), a.imag() * a.imag());
}

}  // namespace pblinalg::cpu
