// QRAM loading to the last bit, against the definition written out address by address.
#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class Qram : public ::testing::Test {};
TYPED_TEST_SUITE(Qram, Precisions);

/// Bit p of `value` placed on qubits[p].
std::size_t placed(std::size_t value, const unsigned int* qubits, std::size_t width) {
    std::size_t index = 0;
    for (std::size_t p = 0; p < width; ++p)
        index |= (value >> p & 1) << qubits[p];
    return index;
}

/// Calls `body(address, source)` for the sources of all configurations of the other qubits.
template <class Body>
void for_each_source(std::size_t size, const Qubits& qubits, unsigned int width, const Body& body) {
    const std::size_t n_address = qubits.size() - width;
    std::size_t listed = 0;
    for (const unsigned int q : qubits)
        listed |= std::size_t{1} << q;
    for (std::size_t base = 0; base < size; ++base) {
        if (base & listed) continue;
        for (std::size_t a = 0; a < std::size_t{1} << n_address; ++a)
            body(a, base | placed(a, qubits.data(), n_address));
    }
}

template <class T>
void check(unsigned int n, const Qubits& qubits, unsigned int width, Filling filling,
           int workers = 1) {
    SCOPED_TRACE(::testing::PrintToString(qubits) + " width " + std::to_string(width));
    const Amplitudes<T> start = filled<T>(std::size_t{1} << n, filling, n);
    const unsigned int* const data = qubits.data() + (qubits.size() - width);
    const std::size_t n_addresses = std::size_t{1} << (qubits.size() - width);
    const std::size_t row = std::size_t{1} << width;
    StateVector<T> state(n);
    state.set_num_threads(workers);

    std::mt19937_64 generator(qubits.size());
    std::vector<unsigned long long> words(n_addresses);
    for (auto& word : words)
        word = generator();
    Amplitudes<T> expected = start;
    for_each_source(expected.size(), qubits, width, [&](std::size_t a, std::size_t source) {
        const std::complex<T> v = expected[source];
        expected[source] = 0;
        expected[source | placed(words[a], data, width)] = v;
    });
    load(state, start);
    state.apply_binary_qram(words.data(), qubits, width);
    EXPECT_TRUE(same_bits(state, expected));

    Amplitudes<double> table = filled<double>(n_addresses * row, filling, 7);
    // The squares of the last row vanish: nothing to divide by, so it is loaded as it is.
    for (std::size_t d = 0; d < row; ++d)
        table[(n_addresses - 1) * row + d].real(d == 0 ? std::numeric_limits<T>::min() : T(0));
    expected = start;
    for_each_source(expected.size(), qubits, width, [&](std::size_t a, std::size_t source) {
        std::complex<T> amplitude = expected[source];
        T sum = 0;
        for (std::size_t d = 0; d < row; ++d)
            sum += static_cast<T>(table[a * row + d].real() * table[a * row + d].real());
        const T root = std::sqrt(sum);
        if (sum > 0) amplitude = {amplitude.real() / root, amplitude.imag() / root};
        for (std::size_t d = 0; d < row; ++d) {
            const T x = static_cast<T>(table[a * row + d].real());
            expected[source | placed(d, data, width)] = {amplitude.real() * x,
                                                         amplitude.imag() * x};
        }
    });
    load(state, start);
    state.apply_qram(table.data(), qubits, width);
    EXPECT_TRUE(same_bits(state, expected));
}

TYPED_TEST(Qram, EveryRegisterOfSmallStates) {
    for (unsigned int n = 1; n <= 4; ++n) {
        for (unsigned int m = 0; m <= n; ++m) {
            for_each_placement(n, m, 0, [&](const Qubits& qubits, const Qubits&) {
                for (unsigned int width = 0; width <= m; ++width) {
                    for (const Filling filling : all_fillings)
                        check<TypeParam>(n, qubits, width, filling);
                }
            });
        }
    }
}

TYPED_TEST(Qram, LargeStatesOnSeveralWorkers) {
    const Qubits all = {3, 14, 2, 15, 0, 1, 13, 4, 12, 5, 11, 6, 10, 7, 9, 8};
    for (const int workers : {1, 2, 0}) {
        for (const unsigned int width : {0u, 1u, 9u, 13u, 16u})
            check<TypeParam>(16, all, width, Filling::ordinary, workers);
        check<TypeParam>(16, {15, 0, 7, 8, 3}, 2, Filling::ordinary, workers);
    }
}

}  // namespace
}  // namespace pblinalg::test
