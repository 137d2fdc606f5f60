#include "core/complex_math.hpp"

namespace pblinalg::cpu {
namespace {

template <class T>
void clear_nan(T& part) {
    if (std::isnan(part)) part = std::copysign(T(0), part);
}

/// Shrinks an infinite number to the unit square, keeping its direction, so that the product with
/// the other factor stays finite.
template <class T>
bool box_infinity(T& re, T& im, T& other_re, T& other_im) {
    if (!std::isinf(re) && !std::isinf(im)) return false;
    re = std::copysign(std::isinf(re) ? T(1) : T(0), re);
    im = std::copysign(std::isinf(im) ? T(1) : T(0), im);
    clear_nan(other_re);
    clear_nan(other_im);
    return true;
}

}  // namespace

template <class T>
void recover_product(T a_re, T a_im, T b_re, T b_im, T& re, T& im) {
    const bool overflowed = std::isinf(a_re * b_re) || std::isinf(a_im * b_im) ||
                            std::isinf(a_re * b_im) || std::isinf(a_im * b_re);
    bool recovers = box_infinity(a_re, a_im, b_re, b_im);
    recovers = box_infinity(b_re, b_im, a_re, a_im) || recovers;
    if (!recovers && overflowed) {
        clear_nan(a_re);
        clear_nan(a_im);
        clear_nan(b_re);
        clear_nan(b_im);
        recovers = true;
    }
    if (!recovers) return;
    re = T(INFINITY) * (a_re * b_re - a_im * b_im);
    im = T(INFINITY) * (a_re * b_im + a_im * b_re);
}

template void recover_product<float>(float, float, float, float, float&, float&);
template void recover_product<double>(double, double, double, double, double&, double&);

}  // namespace pblinalg::cpu
