// Probabilities and marginal distributions against sums that test the bits of every index.
#include <memory>
#include <numeric>

#include "support/readouts.hpp"

namespace pblinalg::test {
namespace {

/// The sums over the elements that read each outcome on `qubits`, first listed qubit most
/// significant, in increasing index order.
template <class T>
std::vector<T> marginals(const std::vector<T>& elements, const Qubits& qubits) {
    std::vector<T> sums(std::size_t{1} << qubits.size());
    for (std::size_t i = 0; i < elements.size(); ++i) {
        std::size_t v = 0;
        for (const unsigned int q : qubits)
            v = 2 * v + (i >> q & 1);
        sums[v] += elements[i];
    }
    return sums;
}

/// Also compares the map of the same entries.
template <class T>
std::vector<T> read_distribution(StateVector<T>& state, const Qubits& qubits, T threshold = 0) {
    std::vector<T> got(std::size_t{1} << qubits.size(), T(-7));
    state.get_distribution(got.data(), threshold, qubits);
    if (got.size() > 1024) return got;
    std::map<unsigned long long, T> nonzero;
    for (std::size_t v = 0; v < got.size(); ++v) {
        if (got[v] != 0) nonzero[v] = got[v];
    }
    const std::unique_ptr<std::map<unsigned long long, T>> map(
        state.get_mapped_distribution(threshold, qubits));
    EXPECT_EQ(*map, nonzero);
    return got;
}

template <class T>
class Distribution : public ::testing::Test {};
TYPED_TEST_SUITE(Distribution, Precisions);

TYPED_TEST(Distribution, HasTheBitsOfTheSumInIndexOrderOnOneWorker) {
    using T = TypeParam;
    for_each_instruction_set([] {
        for (const bool density_matrix : {false, true}) {
            for (const unsigned int n : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 9u}) {
                auto state = random_readout_state<T>(density_matrix ? 2 * n : n, density_matrix);
                const std::vector<T> elements = probabilities(*state);
                for (const Qubits& list : every_list(n)) {
                    std::vector<T> expected = marginals(elements, list);
                    // The negative sums of a matrix do not exceed a threshold of 0.
                    for (T& sum : expected)
                        sum = std::max(sum, T(0));
                    EXPECT_EQ(read_distribution(*state, list), expected);
                }
            }
        }
    });
}

TYPED_TEST(Distribution, OfManyTilesMatchesForEveryWorkerCount) {
    using T = TypeParam;
    constexpr unsigned int n = 19;
    auto state = random_readout_state<T>(n, false);
    const std::vector<T> elements = probabilities(*state);
    const Qubits all = {9, 17, 3, 14, 0, 5, 11, 2, 18, 8, 15, 6, 1, 16, 12, 10, 4, 13, 7};
    for_each_instruction_set([&] {
        for (const Qubits& list :
             {Qubits{}, Qubits{0}, Qubits{15}, Qubits{13, 15}, Qubits{15, 3, 14, 12},
              Qubits{6, 7, 8, 9, 10, 11, 12, 13}, Qubits{12, 11, 15, 14, 13},
              Qubits{8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18},
              // A worker stores sums of several tiles.
              Qubits{14, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 12}, all}) {
            const std::vector<T> expected = marginals(elements, list);
            state->set_num_threads(1);
            EXPECT_EQ(read_distribution(*state, list), expected);
            state->set_num_threads(2);
            const std::vector<T> shared = read_distribution(*state, list);
            for (std::size_t v = 0; v < expected.size(); ++v) {
                const T slack = 8000 * std::numeric_limits<T>::epsilon();
                ASSERT_NEAR(shared[v], expected[v], slack * expected[v]) << v;
            }
            for_each_shared_request([&](int request) {
                state->set_num_threads(request);
                EXPECT_EQ(read_distribution(*state, list), shared) << request;
            });
        }
    });
}

TYPED_TEST(Distribution, DropsWhatDoesNotExceedTheSquaredThreshold) {
    using T = TypeParam;
    StateVector<T> state(2);
    const T values[] = {T(0.5), 0, T(0.25), std::numeric_limits<T>::quiet_NaN()};
    for (int i = 0; i < 4; ++i)
        state.state[i] = values[i];
    for (const T threshold : {T(0.25), T(-0.25)}) {
        EXPECT_EQ(read_distribution(state, {1, 0}, threshold), (std::vector<T>{T(0.25), 0, 0, 0}));
    }
    EXPECT_EQ(read_distribution(state, {1, 0}), (std::vector<T>{T(0.25), 0, T(0.0625), 0}));
}

TYPED_TEST(Distribution, OfARepeatedQubitDeliberatelySumsOnlyTheLowestFreeBits) {
    using T = TypeParam;
    auto state = random_readout_state<T>(4, false);
    const std::vector<T> e = probabilities(*state);
    // 2^(4-2) elements: free bits 0, 2 and 3, of which 3 stays 0. Bit 1 is the union of both.
    const auto sum = [&](std::size_t fixed) {
        return e[fixed] + e[fixed + 1] + e[fixed + 4] + e[fixed + 5];
    };
    EXPECT_EQ(read_distribution(*state, {1, 1}), (std::vector<T>{sum(0), sum(2), sum(2), sum(2)}));
    EXPECT_NEAR(state->probability(1, Qubits{1, 1}), sum(2), 1e-6);
}

template <class T>
class Probability : public ::testing::Test {};
TYPED_TEST_SUITE(Probability, Precisions);

TYPED_TEST(Probability, DeliberatelyReadsTheOutcomeFromItsLeastSignificantBit) {
    using T = TypeParam;
    for_each_instruction_set([] {
        for (const bool density_matrix : {false, true}) {
            for (const unsigned int n : {0u, 1u, 3u, 5u, 8u}) {
                auto state = random_readout_state<T>(density_matrix ? 2 * n : n, density_matrix);
                const std::vector<T> elements = probabilities(*state);
                for (const Qubits& list : every_list(n)) {
                    const std::vector<T> sums = marginals(elements, {list.rbegin(), list.rend()});
                    for (std::size_t v = 0; v < sums.size(); v += 1 + v / 3)
                        EXPECT_NEAR(state->probability(v, list), sums[v], 1e-5);
                }
            }
        }
    });
}

TYPED_TEST(Probability, RoundsAlikeForEveryRequestButOne) {
    using T = TypeParam;
    auto state = random_readout_state<T>(18, false);
    const std::vector<T> elements = probabilities(*state);
    for (const Qubits& list : {Qubits{}, Qubits{0}, Qubits{1, 16}}) {
        state->set_num_threads(2);
        const T shared = state->probability(1, list);
        const T expected = marginals(elements, {list.rbegin(), list.rend()})[list.empty() ? 0 : 1];
        EXPECT_NEAR(shared, expected, 1e-3 * expected);
        for_each_shared_request([&](int request) {
            state->set_num_threads(request);
            EXPECT_EQ(state->probability(1, list), shared) << request;
        });
    }
}

TYPED_TEST(Probability, OfAnInfiniteAmplitudeIsInfiniteEvenBesideNaN) {
    using T = TypeParam;
    for_each_instruction_set([] {
        auto state = random_readout_state<T>(6, false);
        const T infinity = std::numeric_limits<T>::infinity();
        state->state[21] = {std::numeric_limits<T>::quiet_NaN(), -infinity};
        EXPECT_EQ(state->probability(1, Qubits{4}), infinity);
        EXPECT_LT(state->probability(0, Qubits{4}), 100);
    });
}

TYPED_TEST(Probability, IgnoresOutcomeBitsAboveTheListAndReadsAllQubitsWithoutOne) {
    auto state = random_readout_state<TypeParam>(4, false);
    EXPECT_EQ(state->probability(0b10110, Qubits{3, 1}), state->probability(0b10, Qubits{3, 1}));
    EXPECT_EQ(state->probability(11), probabilities(*state)[11]);
    auto matrix = random_readout_state<TypeParam>(4, true);
    EXPECT_EQ(matrix->probability(2), matrix->state[10].real());
}

}  // namespace
}  // namespace pblinalg::test
