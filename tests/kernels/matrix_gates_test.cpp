// Matrices on any number of targets, against the textbook, and the diagonal path that they share
// with other gates. One- and two-qubit matrices have defined bits: exact_gates_test.cpp.
#include <stdexcept>

#include "gates/matrix_formulas.hpp"
#include "support/exact_reference.hpp"
#include "support/textbook_reference.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class MatrixGates : public ::testing::Test {
  protected:
    /// Compares with the textbook within the rounding of a sum of 2^k products.
    static void check(const Amplitudes<T>& before, const Qubits& targets, const Qubits& controls,
                      const Amplitudes<T>& matrix, int num_threads = 1) {
        const LongMatrix exact(matrix.begin(), matrix.end());
        const auto expected = apply_textbook(before, targets, controls, exact);
        StateVector<T> state(qubits_of(before.size()));
        state.set_num_threads(num_threads);
        for_each_instruction_set([&] {
            load(state, before);
            if (controls.empty()) {
                state.apply_nqbit_gate(targets, matrix);
            } else {
                state.apply_nqbit_ctrl_gate(controls, targets, matrix);
            }
            ASSERT_TRUE(close_to(state, expected, 2 + static_cast<double>(1 << targets.size())))
                << ::testing::PrintToString(targets) << " under "
                << ::testing::PrintToString(controls);
        });
    }

    static Amplitudes<T> random_matrix(std::size_t k) {
        return filled<T>(std::size_t{1} << 2 * k, Filling::ordinary, k);
    }

    /// `diagonal` with -0 beside it.
    static Amplitudes<T> diagonal_matrix(const Amplitudes<T>& diagonal) {
        Amplitudes<T> matrix(diagonal.size() * diagonal.size(), {-T(0), -T(0)});
        for (std::size_t r = 0; r < diagonal.size(); ++r)
            matrix[r * (diagonal.size() + 1)] = diagonal[r];
        return matrix;
    }
};
TYPED_TEST_SUITE(MatrixGates, Precisions);

TYPED_TEST(MatrixGates, AreTheTextbookMatricesOnEveryPlacement) {
    for (unsigned int n = 1; n <= 5; ++n) {
        const auto before = filled<TypeParam>(std::size_t{1} << n, Filling::ordinary);
        for (unsigned int k = 1; k <= std::min(n, 3u); ++k) {
            const auto matrix = this->random_matrix(k);
            for_each_placement(n, k, 2, [&](const Qubits& targets, const Qubits& controls) {
                this->check(before, targets, controls, matrix);
            });
        }
    }
}

TYPED_TEST(MatrixGates, AreTheTextbookMatricesUpToSevenTargets) {
    const auto before = filled<TypeParam>(512, Filling::ordinary);
    const Qubits orders[] = {{0, 1, 2, 3, 4, 5, 6}, {8, 7, 6, 5, 4, 3, 2}, {3, 8, 0, 5, 1, 7, 4}};
    for (std::size_t k = 3; k <= 7; ++k) {
        const auto matrix = this->random_matrix(k);
        for (const Qubits& order : orders) {
            const Qubits targets(order.begin(), order.begin() + k);
            const unsigned int other = order[0] == 0 ? 8 : order[0] == 8 ? 0 : 2;
            this->check(before, targets, {}, matrix);
            this->check(before, targets, {other}, matrix);
        }
    }
}

TYPED_TEST(MatrixGates, SplitAmongWorkers) {
    const auto before = filled<TypeParam>(std::size_t{1} << 14, Filling::ordinary);
    for (const int workers : {1, 2, 0}) {
        this->check(before, {13, 0, 6}, {}, this->random_matrix(3), workers);
        this->check(before, {1, 12, 11, 3}, {2}, this->random_matrix(4), workers);
    }
}

TYPED_TEST(MatrixGates, RecoverInfinitiesOfProducts) {
    using T = TypeParam;
    const T infinity = std::numeric_limits<T>::infinity();
    auto before = filled<T>(128, Filling::ordinary);
    before[5] = {infinity, 0};
    before[77] = {-infinity, infinity};
    before[101] = {std::numeric_limits<T>::quiet_NaN(), 1};
    for (const Qubits& targets : {Qubits{0, 1, 2}, Qubits{6, 3, 1, 5}, Qubits{4, 0, 6, 2, 5}}) {
        this->check(before, targets, {}, this->random_matrix(targets.size()));
        auto matrix = this->random_matrix(targets.size());
        matrix[3] = {infinity, -infinity};
        this->check(before, targets, {}, matrix);
        // A NaN beside a diagonal is an entry.
        Amplitudes<T> diagonal(std::size_t{1} << targets.size(), T(2));
        matrix = this->diagonal_matrix(diagonal);
        matrix[matrix.size() - 2] = {0, std::numeric_limits<T>::quiet_NaN()};
        this->check(before, targets, {}, matrix);
    }
}

TYPED_TEST(MatrixGates, SkipControlsAboveTheStateButCountThem) {
    auto expected = labelled<TypeParam>(64);
    StateVector<TypeParam> state(6);
    load(state, expected);
    Amplitudes<TypeParam> shift(64);
    for (std::size_t r = 0; r < 8; ++r)
        shift[8 * r + (r + 1) % 8] = 1;
    state.apply_nqbit_ctrl_gate({9, 1}, {4, 0, 3}, shift);
    apply_exactly<TypeParam>(expected, {4, 0, 3}, {9, 1},
                             [](auto* a) { std::rotate(a, a + 1, a + 8); });
    EXPECT_TRUE(same_bits(state, expected));
}

TYPED_TEST(MatrixGates, ApplyDiagonalsExactly) {
    using T = TypeParam;
    for (const Filling filling : all_fillings) {
        const auto before = filled<T>(512, filling);
        for (const Qubits& qubits :
             {Qubits{}, Qubits{3}, Qubits{8, 0}, Qubits{1, 6, 2}, Qubits{7, 1, 4, 0, 8, 3, 5, 2},
              Qubits{2, 5, 2}, Qubits{4, 4}}) {
            const auto diagonal = filled<T>(std::size_t{1} << qubits.size(), filling, 9);
            const auto matrix = this->diagonal_matrix(diagonal);
            for (const Qubits& controls : {Qubits{}, Qubits{6}, Qubits{0, 11}}) {
                auto expected = before;
                apply_matrix_exactly(expected, qubits, controls, matrix);
                StateVector<T> state(9);
                for_each_instruction_set([&] {
                    load(state, before);
                    if (controls.empty()) state.apply_nqbit_gate(qubits, matrix);
                    if (!controls.empty()) state.apply_nqbit_ctrl_gate(controls, qubits, matrix);
                    EXPECT_TRUE(same_bits(state, expected)) << ::testing::PrintToString(qubits);
                });
            }
        }
    }
}

TYPED_TEST(MatrixGates, RefuseDiagonalsOnNineQubitsOnlyWithoutTheControlledMember) {
    using T = TypeParam;
    const Qubits qubits{9, 1, 2, 8, 0, 4, 5, 6, 7};
    const auto before = filled<T>(1024, Filling::ordinary);
    auto matrix = this->diagonal_matrix(filled<T>(512, Filling::ordinary, 2));
    StateVector<T> state(10);
    load(state, before);
    try {
        state.apply_nqbit_gate(qubits, matrix);
        ADD_FAILURE() << "not refused";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Diagonal is too large for _DiagGate");
    }
    EXPECT_TRUE(same_bits(state, before));

    auto expected = before;
    apply_matrix_exactly(expected, qubits, {}, matrix);
    state.apply_nqbit_ctrl_gate({}, qubits, matrix);
    EXPECT_TRUE(same_bits(state, expected));

    matrix[1] = T(0.5);
    this->check(before, qubits, {}, matrix);
}

TYPED_TEST(MatrixGates, TakeDiagonalsOfAnyLengthInTheDiagonalKernel) {
    using T = TypeParam;
    const auto before = filled<T>(512, Filling::ordinary);
    const Qubits qubits{7, 1, 4, 0, 8, 3, 5, 2};
    StateVector<T> state(9);
    const auto apply = [&](const Qubits& targets, std::size_t n_entries) {
        load(state, before);
        cpu::_DiagGate<true>::apply<T>(state.state.get(), targets, 9, 1, labelled<T>(n_entries));
    };
    EXPECT_NO_THROW(apply(qubits, 256));
    EXPECT_THROW(apply(qubits, 257), std::runtime_error);
    EXPECT_TRUE(same_bits(state, before));

    // More entries than the kernel keeps as rows of lanes: nine targets lie above the lanes of the
    // widest registers.
    const auto wide = filled<T>(std::size_t{1} << 14, Filling::ordinary);
    const Qubits twelve{9, 1, 13, 8, 0, 4, 5, 6, 12, 10, 2, 7};
    const auto factors = filled<T>(std::size_t{1} << 12, Filling::ordinary, 5);
    auto expected = wide;
    apply_diagonal_exactly<T>(expected, twelve, {11},
                              [&](std::size_t row, auto& a) { a = factors[row] * a; });
    StateVector<T> large(14);
    for_each_instruction_set([&] {
        load(large, wide);
        cpu::_DiagGate<true>::apply_controlled<T>(large.state.get(), twelve, 14, 2, Qubits{11},
                                                  factors);
        EXPECT_TRUE(same_bits(large, expected));
    });

    // Entries that the diagonal lacks count as 0.
    for (const std::size_t n_entries : {0, 1, 3}) {
        apply({2, 6}, n_entries);
        for (std::size_t i = 0; i < 512; ++i) {
            const std::size_t row = diagonal_row(i, {2, 6});
            const std::complex<T> factor = row < n_entries ? labelled<T>(4)[row] : 0;
            EXPECT_TRUE(same_bits(state.state[i], factor * before[i])) << n_entries << " " << i;
        }
    }
}

}  // namespace
}  // namespace pblinalg::test
