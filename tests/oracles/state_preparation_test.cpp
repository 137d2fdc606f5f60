// State preparation to the last bit, against the definition written out group by group.
#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class StatePreparation : public ::testing::Test {};
TYPED_TEST_SUITE(StatePreparation, Precisions);

template <class T>
void prepare_exactly(Amplitudes<T>& state, const Amplitudes<double>& input, const Qubits& qubits) {
    const unsigned int n = qubits_of(state.size());
    std::size_t mask = 0;
    for (const unsigned int q : qubits)
        mask |= std::size_t{1} << q;
    for (std::size_t base = 0; base < state.size(); ++base) {
        if (base & mask) continue;
        T weight = 0;
        for (std::size_t j = 0; j < input.size(); ++j) {
            std::size_t i = base;
            for (std::size_t p = 0; p < qubits.size(); ++p)
                i |= (j >> (qubits.size() - 1 - p) & 1) << qubits[p];
            const T re = state[i].real(), im = state[i].imag();
            weight += std::isinf(re) || std::isinf(im) ? std::numeric_limits<T>::infinity()
                                                       : std::fma(re, re, im * im);
        }
        const T root = std::sqrt(weight);
        std::size_t pattern = 0;
        do {
            std::size_t s = 0, place = 1;
            for (unsigned int q = 0; q < n; ++q) {
                if (!(mask >> q & 1)) continue;
                if (pattern >> q & 1) s |= place;
                place *= 2;
            }
            state[base | pattern] = {static_cast<T>(input[s].real()) * root,
                                     static_cast<T>(input[s].imag()) * root};
            pattern = ((pattern | ~mask) + 1) & mask;
        } while (pattern != 0);
    }
}

template <class T>
void check(unsigned int n, const Qubits& qubits, Filling filling, int workers) {
    Amplitudes<T> expected = filled<T>(std::size_t{1} << n, filling, n);
    Amplitudes<double> input = filled<double>(std::size_t{1} << qubits.size(), filling, 3);
    StateVector<T> state(n);
    state.set_num_threads(workers);
    load(state, expected);
    state.apply_state_preparation(input.data(), qubits);
    prepare_exactly(expected, input, qubits);
    EXPECT_TRUE(same_bits(state, expected)) << ::testing::PrintToString(qubits);
}

TYPED_TEST(StatePreparation, EveryListOfQubitsInEveryOrder) {
    for_each_instruction_set([] {
        for (unsigned int n = 1; n <= 4; ++n) {
            for (unsigned int m = 0; m <= n; ++m) {
                for_each_placement(n, m, 0, [&](const Qubits& qubits, const Qubits&) {
                    for (const Filling filling : all_fillings)
                        check<TypeParam>(n, qubits, filling, 1);
                });
            }
        }
        check<TypeParam>(8, {6, 1}, Filling::ordinary, 1);
    });
}

TYPED_TEST(StatePreparation, LargeStatesOnSeveralWorkers) {
    const Qubits lists[] = {{},
                            {3, 15},
                            {15, 14, 0},
                            {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
                            {15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0},
                            {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}};
    for (const Qubits& qubits : lists) {
        for (const int workers : {1, 2, 0})
            check<TypeParam>(16, qubits, Filling::ordinary, workers);
    }
}

}  // namespace
}  // namespace pblinalg::test
