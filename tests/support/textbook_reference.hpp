// Row-major 2^k x 2^k matrices, applied in long double.
// Tells whether a result is right; whether its last bit is, exact_reference.hpp tells.
#pragma once

#include "support/states.hpp"

namespace pblinalg::test {

using LongComplex = std::complex<long double>;
using LongMatrix = std::vector<LongComplex>;

/// An amplitude and the sum of magnitudes that it was added up from; 0 when it was not touched.
struct TextbookAmplitude {
    LongComplex value;
    long double magnitude;
};

/// Entry (i, j) of the whole operator is m[row of i][row of j] where i and j agree outside the
/// targets and all controls are 1.
template <class T>
std::vector<TextbookAmplitude> apply_textbook(const Amplitudes<T>& state, const Qubits& targets,
                                              const Qubits& controls, const LongMatrix& m) {
    const std::size_t k = targets.size();
    const std::size_t rows = std::size_t{1} << k;
    std::vector<TextbookAmplitude> result(state.size());
    for (std::size_t i = 0; i < state.size(); ++i) {
        result[i] = {LongComplex(state[i]), 0};
        bool active = true;
        for (const unsigned int c : controls)
            active = active && (i >> c & 1);
        if (!active) continue;
        std::size_t row = 0;
        for (const unsigned int target : targets)
            row = 2 * row + (i >> target & 1);
        result[i] = {0, std::numeric_limits<long double>::min()};
        for (std::size_t c = 0; c < rows; ++c) {
            std::size_t j = i;
            for (std::size_t p = 0; p < k; ++p) {
                const std::size_t target_bit = std::size_t{1} << targets[p];
                j = (c >> (k - 1 - p) & 1) ? j | target_bit : j & ~target_bit;
            }
            const LongComplex a(state[j]);
            result[i].value += m[row * rows + c] * a;
            result[i].magnitude += std::abs(m[row * rows + c]) * std::abs(a);
        }
    }
    return result;
}

/// Within `ulps` units in the last place of the summed magnitudes; infinities and NaN must agree,
/// and amplitudes that were not touched to the last bit.
template <class T>
::testing::AssertionResult close_to(const StateVector<T>& got,
                                    const std::vector<TextbookAmplitude>& expected,
                                    long double ulps) {
    const auto close = [&](T part, long double wanted, long double magnitude) {
        if (magnitude == 0 || !std::isfinite(wanted)) return same_bits(part, T(wanted));
        return std::abs(part - wanted) <= ulps * std::numeric_limits<T>::epsilon() * magnitude;
    };
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const auto& [value, magnitude] = expected[i];
        if (close(got.state[i].real(), value.real(), magnitude) &&
            close(got.state[i].imag(), value.imag(), magnitude)) {
            continue;
        }
        return ::testing::AssertionFailure() << std::scientific << "index " << i << ": "
                                             << got.state[i] << " instead of " << value;
    }
    return ::testing::AssertionSuccess();
}

}  // namespace pblinalg::test
