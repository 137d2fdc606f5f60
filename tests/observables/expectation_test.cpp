// Exact expectation values against Pauli matrices, on pure states and density matrices.
#include "observables/expectation.hpp"

#include "support/pauli_reference.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class Expectation : public ::testing::Test {};
TYPED_TEST_SUITE(Expectation, Precisions);

template <class T>
std::complex<T> coefficient_of(std::size_t t) {
    return {T(1) + T(t % 7) / 4, T(t % 3) - T(0.5)};
}

/// Compares every term and the total of `strings` on `amplitudes` with the textbook.
template <class T>
void check_strings(unsigned int n, const std::vector<std::string>& strings, int workers) {
    Amplitudes<T> amplitudes = filled<T>(std::size_t{1} << n, Filling::ordinary, n);
    const long double norm = norm_of(amplitudes);
    WObservable<T> observable{};
    observable.constant = {T(0.25), T(-3)};
    const LongMatrix vector(amplitudes.begin(), amplitudes.end());
    std::vector<LongComplex> expected;
    LongComplex total(observable.constant);
    for (const std::string& letters : strings) {
        const std::complex<T> c = coefficient_of<T>(expected.size());
        add_pauli_string(observable, letters, c);
        expected.push_back(LongComplex(c) * pauli_expectation(vector, letters).real());
        total += expected.back();
    }
    StateVector<T> state(n);
    state.set_num_threads(workers);
    load(state, amplitudes);
    const long double tolerance = 8 * std::numeric_limits<T>::epsilon() * norm;
    const auto values = state.terms_expectations_values(observable);
    ASSERT_EQ(values.size(), strings.size());
    for (std::size_t t = 0; t < values.size(); ++t) {
        EXPECT_NEAR(values[t].real(), expected[t].real(), tolerance) << strings[t];
        EXPECT_NEAR(values[t].imag(), expected[t].imag(), tolerance) << strings[t];
    }
    const std::complex<T> sum = state.expectation_value(observable);
    EXPECT_NEAR(sum.real(), total.real(), tolerance * strings.size());
    EXPECT_NEAR(sum.imag(), total.imag(), tolerance * strings.size());
    EXPECT_TRUE(same_bits(state, amplitudes));
}

TYPED_TEST(Expectation, EveryPauliStringOfUpToThreeQubits) {
    for (unsigned int n = 1; n <= 3; ++n) {
        std::vector<std::string> strings;
        for (unsigned int code = 0; code < 1u << 2 * n; ++code) {
            std::string letters;
            for (unsigned int q = 0; q < n; ++q)
                letters += "IXYZ"[code >> 2 * q & 3];
            strings.push_back(letters);
        }
        check_strings<TypeParam>(n, strings, 1);
    }
}

// 7 to 12 qubits: one block to several. Few and many terms per flip mask take different paths.
TYPED_TEST(Expectation, RandomStringsOnEveryInstructionSet) {
    std::mt19937_64 generator(5);
    for (const unsigned int n : {4u, 7u, 8u, 10u, 12u}) {
        for (const char* alphabet : {"IXYZ", "IZ", "XY"}) {
            std::vector<std::string> strings;
            for (int t = 0; t < 20; ++t)
                strings.push_back(random_letters(n, alphabet, generator));
            strings.resize(alphabet[1] == 'Z' ? 20 : 4);
            for_each_instruction_set([&] { check_strings<TypeParam>(n, strings, 2); });
        }
        std::vector<std::string> one = {random_letters(n, "XYZ", generator)};
        for_each_instruction_set([&] { check_strings<TypeParam>(n, one, 2); });
    }
}

// Twelve independent flip masks over 256 blocks: more than one batch of tiles.
TYPED_TEST(Expectation, ManyFlipMasksOnAnyNumberOfWorkers) {
    std::mt19937_64 generator(6);
    std::vector<std::string> strings;
    for (int t = 0; t < 12; ++t)
        strings.push_back(random_letters(17, "IXYZ", generator));
    for (const int workers : {1, 2})
        check_strings<TypeParam>(17, strings, workers);
}

TYPED_TEST(Expectation, RoundsAlikeForEveryRequestButOne) {
    using T = TypeParam;
    StateVector<T> state(20);
    load(state, filled<T>(state.size, Filling::ordinary));
    for (const bool density_matrix : {false, true}) {
        state.density_matrix = density_matrix;
        std::mt19937_64 generator(6);
        WObservable<T> observable{};
        observable.constant = {3, -2};
        EXPECT_EQ(state.expectation_value(observable), observable.constant);
        EXPECT_TRUE(state.terms_expectations_values(observable).empty());
        for (int t = 0; t < 100; ++t)
            add_pauli_string<T>(observable, random_letters(10, "IXYZ", generator), 1);
        const auto values_on = [&](int request) {
            state.set_num_threads(request);
            return state.terms_expectations_values(observable);
        };
        const auto shared = values_on(2);
        EXPECT_NE(values_on(1), shared);
        for_each_shared_request(
            [&](int request) { EXPECT_EQ(values_on(request), shared) << request; });
    }
}

// i times a Pauli string has an imaginary mean: pure states drop it, density matrices keep it.
TYPED_TEST(Expectation, DeliberatelyOnlyDensityMatricesKeepImaginaryParts) {
    using T = TypeParam;
    WObservable<T> observable{};
    for (unsigned int power = 0; power < 8; ++power) {
        add_pauli_string<T>(observable, "X", 1);
        observable.phase_powers.back() = power;
    }
    StateVector<T> pure(1);
    pure.reset_to_str("+");
    StateVector<T> mixed(2);
    mixed.reset_to_str("++");
    mixed.density_matrix = true;
    const auto real_parts = pure.terms_expectations_values(observable);
    const auto full = mixed.terms_expectations_values(observable);
    const std::complex<T> powers[] = {1, {0, 1}, -1, {0, -1}};
    const T one = full[0].real();
    EXPECT_NEAR(one, 1, 1e-6);
    for (unsigned int power = 0; power < 8; ++power) {
        EXPECT_NEAR(real_parts[power].real(), powers[power % 4].real(), 1e-6);
        EXPECT_EQ(real_parts[power].imag(), 0);
        EXPECT_EQ(full[power], one * powers[power % 4]);
    }
    // The same far apart in memory, where only one of each two blocks is read.
    StateVector<T> large(12);
    load(large, filled<T>(4096, Filling::ordinary));
    for (auto& flips : observable.flip_masks)
        flips = 1u << 11;
    const auto far_apart = large.terms_expectations_values(observable);
    for (unsigned int power = 0; power < 8; ++power)
        EXPECT_EQ(far_apart[power].real(), far_apart[0].real() * powers[power % 4].real());
}

// The matrix is neither symmetric nor Hermitian, so that a transposition or a wrong sign shows.
TYPED_TEST(Expectation, DensityMatricesLoadedRowMajorGiveTheTrace) {
    using T = TypeParam;
    for (const unsigned int m : {1u, 2u, 3u, 5u}) {
        const std::size_t dim = std::size_t{1} << m;
        const Amplitudes<T> entries = filled<T>(dim * dim, Filling::ordinary, 20 + m);
        LongMatrix matrix(dim * dim);
        for (std::size_t row = 0; row < dim; ++row) {
            for (std::size_t column = 0; column < dim; ++column) {
                matrix[reversed(row, m) * dim + reversed(column, m)] =
                    LongComplex(entries[row * dim + column]);
            }
        }
        StateVector<T> state(2 * m);
        state.density_matrix = true;
        state.set_num_threads(2);
        state.reset(reinterpret_cast<unsigned long long>(entries.data()));

        std::mt19937_64 generator(m);
        WObservable<T> observable{};
        observable.constant = {1, 2};
        LongComplex total(observable.constant);
        std::vector<LongComplex> expected;
        for (std::size_t t = 0; t < 40; ++t) {
            const std::string letters = random_letters(m, t % 2 ? "IXYZ" : "YZ", generator);
            add_pauli_string(observable, letters, coefficient_of<T>(t));
            expected.push_back(LongComplex(coefficient_of<T>(t)) *
                               pauli_trace(matrix, dim, letters));
            total += expected.back();
        }
        const double tolerance = 50 * dim * std::numeric_limits<T>::epsilon();
        const auto values = state.terms_expectations_values(observable);
        for (std::size_t t = 0; t < values.size(); ++t) {
            EXPECT_NEAR(std::abs(LongComplex(values[t]) - expected[t]), 0, tolerance) << t;
        }
        EXPECT_NEAR(std::abs(LongComplex(state.expectation_value(observable)) - total), 0,
                    40 * tolerance);
    }
}

/// The defined sum of one term, with the standard's complex products.
template <class T>
std::complex<T> defined_sum(const Amplitudes<T>& a, const WObservable<T>& observable, std::size_t t,
                            bool density_matrix) {
    const std::complex<T> phases[] = {1, {0, 1}, -1, {0, -1}};
    const std::size_t dim = density_matrix ? std::size_t{1} << qubits_of(a.size()) / 2 : a.size();
    std::complex<T> sum = 0;
    for (std::size_t i = 0; i < dim; ++i) {
        const auto parity = std::popcount(observable.sign_masks[t] & i);
        const auto phase = phases[(observable.phase_powers[t] + 2u * parity) % 4];
        const std::size_t flipped = i ^ observable.flip_masks[t];
        sum += density_matrix ? a[flipped * dim + i] * phase
                              : std::complex<T>((a[i] * std::conj(a[flipped]) * phase).real());
    }
    return sum;
}

TYPED_TEST(Expectation, InfinitiesGiveWhatTheDefinedSumGives) {
    using T = TypeParam;
    constexpr T infinity = std::numeric_limits<T>::infinity();
    const std::complex<T> specials[] = {{infinity, 0},
                                        {infinity, -infinity},
                                        {1, infinity},
                                        {-infinity, 3},
                                        {std::numeric_limits<T>::quiet_NaN(), 1}};
    std::mt19937_64 generator(8);
    for (const auto special : specials) {
        // Infinities that meet zeros are what the recovery of products is for.
        Amplitudes<T> amplitudes = filled<T>(256, Filling::signed_zeros);
        amplitudes[77] = special;
        StateVector<T> state(8);
        load(state, amplitudes);
        for (const bool density_matrix : {false, true}) {
            state.density_matrix = density_matrix;
            WObservable<T> observable{};
            for (int t = 0; t < 12; ++t) {
                const char* const alphabet = t % 2 ? "IXYZ" : "IZ";
                add_pauli_string<T>(observable,
                                    random_letters(density_matrix ? 4 : 8, alphabet, generator), 1);
            }
            const auto values = state.terms_expectations_values(observable);
            for (std::size_t t = 0; t < values.size(); ++t) {
                const auto defined = defined_sum(amplitudes, observable, t, density_matrix);
                EXPECT_TRUE(density_matrix ? same_bits(values[t], defined)
                                           : same_bits(values[t].real(), defined.real()))
                    << special << " term " << t << ": " << values[t] << ", not " << defined;
            }
        }
    }
}

}  // namespace
}  // namespace pblinalg::test
