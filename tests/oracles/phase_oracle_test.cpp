// The phase oracle, index by index as it is defined.
#include <algorithm>

#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class PhaseOracle : public ::testing::Test {};
TYPED_TEST_SUITE(PhaseOracle, Precisions);

using Marked = std::vector<unsigned long long>;

template <class T>
void check(unsigned int n, const Marked& marked, const Qubits& qubits, int workers = 1) {
    Amplitudes<T> expected = labelled<T>(std::size_t{1} << n);
    StateVector<T> state(n);
    state.set_num_threads(workers);
    load(state, expected);
    state.apply_phase_oracle(marked, qubits);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        unsigned long long key = 0;
        for (const unsigned int q : qubits)
            key = key << 1 | (i >> q & 1);
        if (std::find(marked.begin(), marked.end(), key) == marked.end()) continue;
        std::complex<T>& a = expected[reversed(i, n)];
        a = {-a.real(), -a.imag()};
    }
    EXPECT_TRUE(same_bits(state, expected)) << n << " qubits, " << ::testing::PrintToString(qubits)
                                            << " " << ::testing::PrintToString(marked);
}

TYPED_TEST(PhaseOracle, EveryListAndSetOfValuesOfSmallStates) {
    for (unsigned int n = 0; n <= 3; ++n) {
        for (unsigned int m = 0; m <= n; ++m) {
            for_each_placement(n, m, 0, [&](const Qubits& qubits, const Qubits&) {
                for (unsigned int set = 0; set < 1u << (1u << m); ++set) {
                    Marked marked;
                    for (unsigned int v = 0; v < 1u << m; ++v) {
                        if (set >> v & 1) marked.push_back(v);
                    }
                    check<TypeParam>(n, marked, qubits);
                }
            });
        }
    }
}

TYPED_TEST(PhaseOracle, LongListsOnEveryInstructionSet) {
    std::mt19937_64 generator(4);
    const Qubits lists[] = {
        {0}, {9}, {4, 0, 9}, {9, 8, 7, 6, 5, 4, 3, 2, 1, 0}, {1, 3, 5, 7, 9}, {0, 2, 1, 6, 4, 8}};
    for_each_instruction_set([&] {
        for (const Qubits& qubits : lists) {
            for (const std::size_t length : {1, 5, 300}) {
                Marked marked(length);
                for (auto& value : marked)
                    value = generator() % (2ull << qubits.size());
                check<TypeParam>(10, marked, qubits);
            }
        }
    });
    Marked marked(5000);
    for (auto& value : marked)
        value = generator() % 65536;
    for (const int workers : {1, 2, 0})
        check<TypeParam>(16, marked, {3, 14, 2, 15, 0, 1, 13, 4, 12, 5, 11, 6, 10, 7, 9, 8},
                         workers);
}

TYPED_TEST(PhaseOracle, ValuesBeyondTheListNeverMatch) {
    check<TypeParam>(4, {1}, {});
    check<TypeParam>(7, {4, 5, 6, 7, 1ull << 63, ~0ull}, {2, 6});
    // A qubit at or above the state's count reads 0, one listed twice reads the same both times.
    check<TypeParam>(4, {0, 1, 2, 3, 9}, {1, 5, 2, 63});
    check<TypeParam>(3, {0b000, 0b101, 0b110, 0b011}, {1, 0, 1});
    Qubits many;
    for (unsigned int p = 0; p < 60; ++p)
        many.push_back(p % 7);
    check<TypeParam>(7, {0, ~0ull >> 4, 77}, many);
}

}  // namespace
}  // namespace pblinalg::test
