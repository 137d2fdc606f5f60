// The amplitudes of product states, by index. Writing them is left to the owner of the memory.
#pragma once

#include <complex>
#include <string_view>

#include "core/bits.hpp"
#include "core/complex_math.hpp"

namespace pblinalg::cpu {

/// What `reset_to_str` makes of a description: character k governs bit k of an index in caller
/// order.
template <class T>
class ProductState {
  public:
    ProductState(std::string_view description, unsigned int nqubits) {
        T factor = 1;
        Index fixed = 0;
        Index ones = 0;
        Index minus = 0;
        for (std::size_t k = 0; k < description.size(); ++k) {
            const char letter = description[k];
            // A character beyond the last qubit meets a bit that is 0 in every index.
            const Index place = k < nqubits ? bit(static_cast<unsigned int>(k)) : 0;
            if (letter == '0' || letter == '1') fixed |= place;
            if (letter == '1') ones |= place;
            if (letter == '1' && place == 0) fits_ = false;
            if (letter == '-') minus |= place;
            if (letter == '+' || letter == '-') factor *= inv_sqrt2<T>;
        }
        plus_value_ = {factor, T(0)};
        fixed_ = reverse_bits(fixed, nqubits);
        ones_ = reverse_bits(ones, nqubits);
        minus_ = reverse_bits(minus, nqubits);
    }

    std::complex<T> operator()(Index i) const {
        if (!fits_ || (i & fixed_) != ones_) return {};
        return count_bits(i & minus_) % 2 ? -plus_value_ : plus_value_;
    }

  private:
    std::complex<T> plus_value_;
    Index fixed_;
    Index ones_;
    Index minus_;
    bool fits_ = true;
};

}  // namespace pblinalg::cpu
