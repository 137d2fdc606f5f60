// Projection onto outcomes, with and without the return of the measured qubits to 0.
#include "readout/projection.hpp"

#include "support/readouts.hpp"

namespace pblinalg::test {
namespace {

/// Indices that read `outcome` on `qubits`, first listed qubit most significant.
bool reads(std::size_t index, const Qubits& qubits, std::uint64_t outcome) {
    for (std::size_t j = 0; j < qubits.size(); ++j) {
        if ((index >> qubits[j] & 1) != (outcome >> (qubits.size() - 1 - j) & 1)) return false;
    }
    return true;
}

/// What stays after dividing by the root of `sum`.
template <class T>
Amplitudes<T> projected(const Amplitudes<T>& before, const Qubits& qubits, std::uint64_t outcome,
                        T sum) {
    Amplitudes<T> after(before.size());
    const T root = std::sqrt(sum);
    for (std::size_t i = 0; i < before.size(); ++i) {
        const std::complex<T> kept = reads(i, qubits, outcome) ? before[i] : std::complex<T>();
        after[i] = {kept.real() / root, kept.imag() / root};
    }
    return after;
}

/// Every qubit that `qubits` lists set to 0.
template <class T>
Amplitudes<T> moved_to_zero(const Amplitudes<T>& before, const Qubits& qubits) {
    Amplitudes<T> after(before.size());
    for (std::size_t i = 0; i < before.size(); ++i) {
        std::size_t to = i;
        for (const unsigned int q : qubits)
            to &= ~(std::size_t{1} << q);
        if (before[i] != std::complex<T>()) after[to] = before[i];
    }
    return after;
}

template <class T>
class Projection : public ::testing::Test {};
TYPED_TEST_SUITE(Projection, Precisions);

TYPED_TEST(Projection, DividesWhatAgreesByTheRootOfItsProbability) {
    using T = TypeParam;
    using Limits = std::numeric_limits<T>;
    for_each_instruction_set([] {
        for (const unsigned int n : {1u, 2u, 3u, 4u, 5u, 6u, 10u}) {
            for (const Qubits& list : every_list(n)) {
                const std::uint64_t outcome = 0x5A6B % (std::uint64_t{1} << list.size());
                auto state = random_readout_state<T>(n, false);
                const T specials[] = {-T(0), Limits::denorm_min(), -Limits::min(),
                                      Limits::min() / 5};
                for (std::size_t i = 5; i < state->size; i += 6)
                    state->state[i].imag(specials[i / 6 % 4]);
                const Amplitudes<T> before = amplitudes_of(*state);
                T sum = 0;
                for (std::size_t i = 0; i < before.size(); ++i) {
                    if (reads(i, list, outcome)) sum += std::norm(before[i]);
                }
                const T weight =
                    cpu::outcome_weight(state->state.get(), state->size, list, outcome, 1);
                ASSERT_NEAR(weight, sum, 8 * Limits::epsilon());
                const Amplitudes<T> after = projected(before, list, outcome, weight);
                state->project(list, outcome);
                ASSERT_TRUE(same_bits(*state, after)) << ::testing::PrintToString(list);
                load(*state, before);
                state->project_then_reset(list, outcome);
                ASSERT_TRUE(same_bits(*state, moved_to_zero(after, list)));
            }
        }
    });
}

TYPED_TEST(Projection, RoundsAlikeForEveryRequestButOne) {
    using T = TypeParam;
    for (const Qubits& list : {Qubits{}, Qubits{0, 17}, Qubits{9, 3, 15}}) {
        const auto projected_on = [&](int request) {
            auto state = random_readout_state<T>(18, false);
            state->set_num_threads(request);
            state->project_then_reset(list, list.empty() ? 0 : 1);
            return amplitudes_of(*state);
        };
        const auto one = projected_on(1);
        const auto shared = projected_on(2);
        T total = 0;
        for (std::size_t i = 0; i < one.size(); ++i) {
            ASSERT_NEAR(std::abs(one[i] - shared[i]), 0, 1e-5) << i;
            total += std::norm(shared[i]);
        }
        EXPECT_NEAR(total, 1, 1e-3);
        for_each_shared_request([&](int request) {
            EXPECT_TRUE(same_bits(projected_on(request).data(), shared)) << request;
        });
    }
}

TYPED_TEST(Projection, RefusesAnImpossibleOutcomeAndLeavesZeros) {
    using T = TypeParam;
    for (const std::uint64_t outcome : {std::uint64_t{2}, std::uint64_t{0xFF06}}) {
        StateVector<T> state(3);
        state.reset();
        try {
            state.project_then_reset({2, 0, 1}, outcome);
            ADD_FAILURE() << "no exception";
        } catch (const std::domain_error& error) {
            EXPECT_EQ(error.what(), "Outcome " + std::to_string(outcome) +
                                        " on qubits (2, 0, 1) has probability zero.");
        }
        EXPECT_TRUE(same_bits(state, Amplitudes<T>(8)));
    }
    StateVector<T> zeros(2);
    EXPECT_THROW(zeros.project({}, 0), std::domain_error);
}

TYPED_TEST(Projection, DeliberatelyTakesTheBitsOfListAndOutcomeAsTheyCome) {
    using T = TypeParam;
    // A repeated qubit takes the union of its bits.
    auto state = random_readout_state<T>(2, false);
    state->project({1, 1}, 0b01);
    EXPECT_EQ(state->state[1], std::complex<T>());
    EXPECT_NE(state->state[2], std::complex<T>());
    // The whole outcome is tested for 0, with bits above the list.
    for (const std::uint64_t outcome : {0b100, 0}) {
        state = random_readout_state<T>(4, false);
        state->project_then_reset({1, 3}, outcome);
        EXPECT_EQ(same_bits(*state, Amplitudes<T>(16)), outcome != 0);
    }
}

TYPED_TEST(Projection, DeliberatelyDividesByInfinityAndNaN) {
    using T = TypeParam;
    using Limits = std::numeric_limits<T>;
    for_each_instruction_set([] {
        for (const T bad : {Limits::infinity(), Limits::quiet_NaN()}) {
            auto state = random_readout_state<T>(5, false);
            state->state[6] = {1, bad};
            const Amplitudes<T> before = amplitudes_of(*state);
            state->project({2}, 1);
            const T sum = std::isnan(bad) ? bad : Limits::infinity();
            EXPECT_TRUE(same_bits(*state, projected(before, {2}, 1, sum)));
        }
    });
}

TYPED_TEST(Projection, LeavesAmplitudesWhoseSquaresVanish) {
    using T = TypeParam;
    StateVector<T> state(2);
    Amplitudes<T> tiny(4, {std::numeric_limits<T>::min(), 0});
    load(state, tiny);
    EXPECT_THROW(state.project({0}, 1), std::domain_error);
    tiny[0] = tiny[2] = 0;
    EXPECT_TRUE(same_bits(state, tiny));
}

}  // namespace
}  // namespace pblinalg::test
