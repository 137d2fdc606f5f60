// Construction, resizing, release, the three ways to set a state, and the random generator.
#include <chrono>
#include <string>

#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class Lifecycle : public ::testing::Test {};
TYPED_TEST_SUITE(Lifecycle, Precisions);

const std::vector<std::string> controllable{"X", "Y", "Z", "H", "S", "T", "RX", "RY", "RZ", "PH"};

template <class T>
std::uint64_t address_of(const Amplitudes<T>& amplitudes) {
    return reinterpret_cast<std::uint64_t>(amplitudes.data());
}

TYPED_TEST(Lifecycle, StartsWithZerosAndOneWorker) {
    for (const unsigned int n : {0u, 1u, 3u, 10u, 17u}) {
        StateVector<TypeParam> state(n);
        EXPECT_EQ(state.nqubits, n);
        EXPECT_FALSE(state.density_matrix);
        EXPECT_EQ(state.num_threads, 1);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(state.state.get()) % 64, 0u);
        EXPECT_TRUE(same_bits(state, Amplitudes<TypeParam>(std::size_t{1} << n)));
    }
}

TYPED_TEST(Lifecycle, ListsControllableGatesInTheDerivedClassOnly) {
    StateVector<TypeParam> state(1);
    PybindLinAlgStateVector& base = state;
    EXPECT_EQ(state.get_named_ctrl_gates(), controllable);
    EXPECT_EQ(&base.get_named_ctrl_gates(), &state.named_ctrl_gates);
    EXPECT_TRUE(base.named_ctrl_gates.empty());
    EXPECT_EQ(&base.PybindLinAlgStateVector::get_named_ctrl_gates(), &base.named_ctrl_gates);
}

TYPED_TEST(Lifecycle, SeedsTheGeneratorFromTheClock) {
    const auto seconds = [] {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::seconds>(now).count();
    };
    const auto before = seconds();
    StateVector<TypeParam> state(1);
    const auto after = seconds();
    const auto low_half = state.seed & 0xffff;
    EXPECT_TRUE(low_half == (before & 0xffff) || low_half == (after & 0xffff));
    EXPECT_NE(state.seed, 0u);
    EXPECT_EQ(state.rng, std::mt19937_64(state.seed));
    state.rng();
    const std::mt19937_64 drawn_from = state.rng;
    state.reset();
    state.resize(2);
    EXPECT_EQ(state.rng, drawn_from);
}

TYPED_TEST(Lifecycle, ResizesByKeepingOrClearing) {
    const auto before = labelled<TypeParam>(16);
    StateVector<TypeParam> state(4);
    load(state, before);
    const auto* const memory = state.state.get();
    state.resize(4);
    EXPECT_TRUE(same_bits(state, before));
    state.resize(2);
    EXPECT_EQ(state.state.get(), memory);
    EXPECT_TRUE(same_bits(state, Amplitudes<TypeParam>(before.begin(), before.begin() + 4)));
    state.resize(0);
    EXPECT_TRUE(same_bits(state, Amplitudes<TypeParam>(before.begin(), before.begin() + 1)));
    state.resize(5);
    EXPECT_EQ(state.nqubits, 5u);
    EXPECT_TRUE(same_bits(state, Amplitudes<TypeParam>(32)));
}

TYPED_TEST(Lifecycle, KeepsTheNewCountsWhenGrowingFails) {
    for (const unsigned int n : {62u, 64u, 70u}) {
        StateVector<TypeParam> state(2);
        EXPECT_THROW(state.resize(n), std::bad_alloc);
        EXPECT_EQ(state.nqubits, n);
        EXPECT_EQ(state.size, n < 64 ? 1ull << n : ~0ull);
        EXPECT_EQ(state.state, nullptr);
        state.release_memory();
        state.resize(1);
        EXPECT_TRUE(same_bits(state, Amplitudes<TypeParam>(2)));
        EXPECT_THROW(StateVector<TypeParam>{n}, std::bad_alloc);
    }
}

TYPED_TEST(Lifecycle, ReleasesAndAllocatesAgain) {
    StateVector<TypeParam> state(4);
    state.density_matrix = true;
    state.release_memory();
    EXPECT_EQ(state.nqubits, 0u);
    EXPECT_EQ(state.size, 0u);
    EXPECT_EQ(state.state, nullptr);
    EXPECT_EQ(state.get_named_ctrl_gates(), controllable);
    state.resize(0);
    EXPECT_EQ(state.size, 0u);
    EXPECT_EQ(state.state, nullptr);
    state.release_memory();
    state.resize(3);
    EXPECT_TRUE(state.density_matrix);
    EXPECT_TRUE(same_bits(state, Amplitudes<TypeParam>(8)));
}

TYPED_TEST(Lifecycle, CopiesASourceFromCallerOrder) {
    for (const unsigned int n : {0u, 1u, 2u, 5u, 7u, 8u, 9u, 11u, 16u, 20u}) {
        const std::size_t size = std::size_t{1} << n;
        for (const auto& source :
             {labelled<TypeParam>(size), filled<TypeParam>(size, Filling::extremes)}) {
            Amplitudes<TypeParam> expected(size);
            for (std::size_t i = 0; i < size; ++i)
                expected[reversed(i, n)] = source[i];
            for (const int workers : {1, 2}) {
                StateVector<TypeParam> state(n);
                state.set_num_threads(workers);
                state.reset(address_of(source));
                EXPECT_TRUE(same_bits(state, expected)) << n << " qubits, workers " << workers;
            }
        }
    }
}

/// The product state that `description` names, index by index and letter by letter.
template <class T>
Amplitudes<T> product_state(unsigned int n, const std::string& description) {
    const T c = T(1) / std::sqrt(T(2));
    Amplitudes<T> amplitudes(std::size_t{1} << n);
    for (std::size_t i = 0; i < amplitudes.size(); ++i) {
        T magnitude = 1;
        bool present = true, negative = false;
        for (std::size_t k = 0; k < description.size(); ++k) {
            const bool one = k < n && (i >> (n - 1 - k) & 1);
            const char letter = description[k];
            if (letter == '0') present = present && !one;
            if (letter == '1') present = present && one;
            if (letter == '+' || letter == '-') magnitude *= c;
            if (letter == '-') negative = negative != one;
        }
        const std::complex<T> amplitude(magnitude, 0);
        if (present) amplitudes[i] = negative ? -amplitude : amplitude;
    }
    return amplitudes;
}

TYPED_TEST(Lifecycle, ResetsToProductStates) {
    using T = TypeParam;
    for (const unsigned int n : {0u, 1u, 4u, 16u}) {
        const auto before = filled<T>(std::size_t{1} << n, Filling::extremes);
        for (const int workers : {1, 2, 0, -1}) {
            StateVector<T> state(n);
            state.set_num_threads(workers);
            load(state, before);
            state.reset();
            EXPECT_TRUE(same_bits(state, product_state<T>(n, std::string(n, '0')))) << workers;
        }
        if (n == 16) continue;
        for (const char* description :
             {"", "0", "1", "-", "+", "10", "01+", "+-", "1-0+", "--", "-1+-", "----", "?x0", "- 1",
              "00001", "1111-", "----+", "01?1+"}) {
            for (const int workers : {1, 3, -2}) {
                StateVector<T> state(n);
                state.set_num_threads(workers);
                load(state, before);
                state.reset_to_str(description);
                EXPECT_TRUE(same_bits(state, product_state<T>(n, description)))
                    << n << " qubits, \"" << description << "\", workers " << workers;
            }
        }
    }
    StateVector<T> state(2);
    state.reset_to_str("10");
    EXPECT_TRUE(same_bits(state, {0, 0, 1, 0}));
    state.reset_to_str(std::string(80, '1'));
    EXPECT_TRUE(same_bits(state, Amplitudes<T>(4)));
    state.release_memory();
    EXPECT_NO_THROW(state.reset_to_str("+1"));
}

}  // namespace
}  // namespace pblinalg::test
