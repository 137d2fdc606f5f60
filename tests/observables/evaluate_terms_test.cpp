// Terms estimated from shots, against a plain simulation of the shots with the same generator.
#include "observables/evaluate_terms.hpp"

#include <algorithm>

#include "support/pauli_reference.hpp"
#include "support/readouts.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class EvaluateTerms : public ::testing::Test {};
TYPED_TEST_SUITE(EvaluateTerms, Precisions);

template <class T>
Amplitudes<T> normalised(unsigned int n, std::uint64_t seed) {
    Amplitudes<T> amplitudes = filled<T>(std::size_t{1} << n, Filling::ordinary, seed);
    const long double norm = norm_of(amplitudes);
    for (auto& a : amplitudes)
        a /= static_cast<T>(std::sqrt(norm));
    return amplitudes;
}

/// One draw, one scan and one score after the other, on a state in the term's basis.
template <class T>
std::pair<std::complex<T>, std::complex<T>> score(const StateVector<T>& rotated,
                                                  const Qubits& qubits, std::complex<T> coefficient,
                                                  unsigned long long nshots,
                                                  std::mt19937_64& generator) {
    std::vector<T> cumulative;
    for (std::size_t v = 0; v < std::size_t{1} << qubits.size(); ++v) {
        T sum = 0;
        for (std::size_t i = 0; i < rotated.size; ++i) {
            bool agrees = true;
            for (std::size_t j = 0; j < qubits.size(); ++j)
                agrees = agrees && (i >> qubits[j] & 1) == (v >> j & 1);
            const std::complex<T> a = rotated.state[i];
            if (agrees) sum += std::fma(a.real(), a.real(), a.imag() * a.imag());
        }
        cumulative.push_back(v == 0 ? sum : cumulative.back() + sum);
    }
    long long total = 0;
    for (unsigned long long s = 0; s < nshots; ++s) {
        const T u = std::ldexp(static_cast<T>(generator()), -64);
        const auto v = static_cast<std::size_t>(
            std::lower_bound(cumulative.begin(), cumulative.end(), u) - cumulative.begin());
        total += std::popcount(v) % 2 ? -1 : 1;
    }
    const T mean = static_cast<T>(total) / static_cast<T>(nshots);
    const T error =
        nshots < 2 ? T(0) : std::sqrt(std::fma(-mean, mean, T(1)) / static_cast<T>(nshots - 1));
    return {coefficient * mean, coefficient * error};
}

template <class T>
void rotate(StateVector<T>& state, const SimpleTerm<T>& term, bool back = false) {
    for (std::size_t k = 0; k < term.paulis.size(); ++k) {
        if (term.paulis[k] == 'X') state.apply_H(term.qubits[k]);
        if (term.paulis[k] != 'Y') continue;
        back ? state.apply_ZtoY(term.qubits[k]) : state.apply_YtoZ(term.qubits[k]);
    }
}

/// Evaluates `terms` on random states and expects to the bit what the reference finds for
/// `cleaned`, the same terms as they are to be understood.
template <class T>
void check_terms(unsigned int n, const std::vector<SimpleTerm<T>>& terms,
                 const std::vector<SimpleTerm<T>>& cleaned, unsigned long long nshots,
                 int workers) {
    const Amplitudes<T> amplitudes = normalised<T>(n, n);
    StateVector<T> state(n), reference(n);
    load(state, amplitudes);
    state.set_num_threads(workers);
    state.rng.seed(99);
    std::mt19937_64 generator(99);
    const auto estimates = state.evaluate_terms(terms, nshots);
    ASSERT_EQ(estimates.size(), terms.size());
    for (std::size_t t = 0; t < terms.size(); ++t) {
        SCOPED_TRACE(cleaned[t].paulis);
        // Each term sees the state as the term before it has left it.
        if (t == 0) load(reference, amplitudes);
        rotate(reference, cleaned[t]);
        auto before = generator;
        const auto expected =
            score(reference, cleaned[t].qubits, cleaned[t].coefficient, nshots, generator);
        EXPECT_TRUE(same_bits(estimates[t].first, expected.first));
        EXPECT_TRUE(same_bits(estimates[t].second, expected.second));
        // One term alone, on the rotated state, and from the distribution that this leaves behind.
        std::vector<T> buffer;
        auto again = before;
        EXPECT_EQ(cpu::evaluate_term(reference.state.get(), buffer, cleaned[t], nshots, again, n,
                                     workers),
                  estimates[t]);
        EXPECT_EQ(cpu::evaluate_term(buffer, cleaned[t].coefficient, nshots, before, workers),
                  estimates[t]);
        rotate(reference, cleaned[t], true);
    }
    EXPECT_TRUE(state.rng == generator) << "one draw per shot and term";
    for (std::size_t i = 0; i < amplitudes.size(); ++i) {
        EXPECT_NEAR(std::abs(state.state[i] - amplitudes[i]), 0,
                    20 * terms.size() * std::numeric_limits<T>::epsilon());
    }
}

TYPED_TEST(EvaluateTerms, EveryShotScoresAsItsOwnDrawSays) {
    using T = TypeParam;
    const std::vector<SimpleTerm<T>> terms = {
        {{0, 1, 2, 3, 4}, "XYZYX", {2, -1}}, {{4}, "X", {1, 0}},     {{3, 0}, "ZY", {T(0.5), 0}},
        {{2, 4, 1}, "YYX", {0, 1}},          {{1, 3}, "?Z", {1, 1}}, {{}, "", {3, 4}}};
    for (const int workers : {1, 2}) {
        for (const unsigned long long nshots : {1ull, 2ull, 7ull, 5000ull, 300000ull})
            check_terms(5, terms, terms, nshots, workers);
    }
    check_terms<T>(11, {{{10, 2, 7, 0, 5, 3, 9, 1, 8, 6, 4}, "ZZZZZZZZZZZ", 1}},
                   {{{10, 2, 7, 0, 5, 3, 9, 1, 8, 6, 4}, "ZZZZZZZZZZZ", 1}}, 4000, 2);
}

TYPED_TEST(EvaluateTerms, DeliberatelyAnIdentityDropsTheLettersThatFollowButOneQubit) {
    using T = TypeParam;
    check_terms<T>(4, {{{0, 1, 2}, "XIZ", 1}, {{3, 1, 0, 2}, "IYIX", 1}, {{0, 1}, "II", 1}},
                   {{{0, 2}, "X", 1}, {{1, 2}, "", 1}, {{}, "", 1}}, 1000, 1);
}

TYPED_TEST(EvaluateTerms, AStateInTheBasisOfTheTermHasNoError) {
    using T = TypeParam;
    StateVector<T> state(2);
    state.reset();
    state.apply_X(1);
    const auto estimates =
        state.evaluate_terms({{{0, 1}, "ZZ", {2, 3}}, {{0}, "Z", 1}, {{1}, "I", {0, 1}}}, 1000);
    EXPECT_EQ(estimates[0].first, std::complex<T>(-2, -3));
    EXPECT_EQ(estimates[1].first, std::complex<T>(1));
    EXPECT_EQ(estimates[2].first, std::complex<T>(0, 1));
    for (const auto& [mean, error] : estimates)
        EXPECT_EQ(error, std::complex<T>());
    // The scores are counted exactly, also beyond 2^24 shots in single precision.
    EXPECT_EQ(state.evaluate_terms({{{1}, "Z", 1}}, 20000001)[0].first, std::complex<T>(-1));
}

TYPED_TEST(EvaluateTerms, ExtremeDrawsAndNoShots) {
    using T = TypeParam;
    StateVector<T> state(3);
    const auto mean = [&](const Qubits& qubits, unsigned long long nshots) {
        return state.evaluate_terms({{qubits, std::string(qubits.size(), 'Z'), 1}}, nshots)[0];
    };
    // All amplitudes are 0: draws above the whole distribution score -1.
    for (const Qubits& qubits : {Qubits{}, Qubits{1}, Qubits{0, 1, 2}})
        EXPECT_EQ(mean(qubits, 10).first, std::complex<T>(-1));
    state.reset();
    EXPECT_TRUE(std::isnan(mean({0}, 0).first.real()));
    EXPECT_EQ(mean({0}, 0).second, std::complex<T>());
    // A draw of 0 selects the first outcome, deliberately, possible or not.
    state.apply_X(1);
    script(state.rng, {0});
    EXPECT_EQ(mean({1}, 1).first, std::complex<T>(1));
    // Draws that round to 1 select the last possible outcome.
    state.apply_X(0);
    script(state.rng, std::vector<std::uint64_t>(300, ~0ull));
    EXPECT_EQ(mean({0, 1, 2}, 300).first, std::complex<T>(1));
}

// Entry (row, column) of a matrix is squared like an amplitude: the probabilities are those of the
// vectorised matrix, not of its diagonal.
TYPED_TEST(EvaluateTerms, DensityMatricesTurnRowsAndColumnsAndSquareEveryEntry) {
    using T = TypeParam;
    const std::complex<T> i(0, 1);
    const Amplitudes<T> y_up = {0.5, -i * T(0.5), i * T(0.5), 0.5};  // row-major
    StateVector<T> state(2);
    state.density_matrix = true;
    state.reset(reinterpret_cast<unsigned long long>(y_up.data()));
    state.rng.seed(3);
    EXPECT_EQ(state.evaluate_terms({{{0}, "Y", 1}}, 100)[0].first, std::complex<T>(1));
    for (const std::size_t entry : {0, 1, 2, 3})
        EXPECT_NEAR(std::abs(state.state[entry] - y_up[(entry % 2) * 2 + entry / 2]), 0, 1e-6);

    // diag(0.8, 0.2): outcomes weigh 0.64 and 0.04, and a draw above their sum scores -1.
    const Amplitudes<T> mixed = {T(0.8), 0, 0, T(0.2)};
    state.reset(reinterpret_cast<unsigned long long>(mixed.data()));
    std::mt19937_64 generator(3);
    state.rng.seed(3);
    const auto expected = score(state, {0}, std::complex<T>(1), 1000, generator);
    const auto estimate = state.evaluate_terms({{{0}, "Z", 1}}, 1000)[0];
    EXPECT_TRUE(same_bits(estimate.first, expected.first));
    EXPECT_TRUE(same_bits(estimate.second, expected.second));
    EXPECT_NEAR(estimate.first.real(), 0.64 - 0.36, 0.1);
}

TYPED_TEST(EvaluateTerms, RefusesTermsOfMoreThan61QubitsBeforeAnyWork) {
    using T = TypeParam;
    StateVector<T> state(2);
    state.reset_to_str("+0");
    const Amplitudes<T> before(state.state.get(), state.state.get() + state.size);
    const std::mt19937_64 generator = state.rng;
    const SimpleTerm<T> longer{Qubits(62, 0), std::string(62, 'Z'), 1};
    EXPECT_THROW(state.evaluate_terms({{{0}, "X", 1}, longer}, 5), std::length_error);
    EXPECT_TRUE(same_bits(state, before));
    EXPECT_TRUE(state.rng == generator);
    // Cleaning comes before the limit.
    SimpleTerm<T> cleaned{Qubits(62, 0), "I" + std::string(61, 'Z'), 1};
    cleaned.qubits.resize(2);
    EXPECT_NO_THROW(state.evaluate_terms({cleaned}, 5));
}

}  // namespace
}  // namespace pblinalg::test
