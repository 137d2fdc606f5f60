// Reduced density matrices against their definition, and the same bits for every request.
#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class ReducedDensityMatrices : public ::testing::Test {};
TYPED_TEST_SUITE(ReducedDensityMatrices, Precisions);

using Matrix = std::vector<std::complex<double>>;

template <class T>
Matrix reduced(const StateVector<T>& state, const Qubits& qubits) {
    Matrix out(std::size_t{1} << 2 * qubits.size(), {7, 7});
    reduced_density_matrix(state, qubits, out.data());
    return out;
}

/// What the listed qubits read in an index, the first one most significant.
std::size_t value_of(std::size_t index, const Qubits& qubits) {
    std::size_t value = 0;
    for (const unsigned int qubit : qubits)
        value = value << 1 | (index >> qubit & 1);
    return value;
}

std::size_t mask_of(const Qubits& qubits) {
    std::size_t mask = 0;
    for (const unsigned int qubit : qubits)
        mask |= std::size_t{1} << qubit;
    return mask;
}

/// The trace over the unlisted of n qubits of the matrix `entry(row, column)`.
template <class Entry>
Matrix defined(unsigned int n, const Qubits& qubits, const Entry& entry) {
    const std::size_t dim = std::size_t{1} << qubits.size();
    const std::size_t mask = mask_of(qubits);
    std::vector<std::complex<long double>> sums(dim * dim);
    for (std::size_t row = 0; row < std::size_t{1} << n; ++row) {
        std::size_t listed = 0;
        do {
            const std::size_t column = (row & ~mask) | listed;
            sums[value_of(row, qubits) * dim + value_of(column, qubits)] += entry(row, column);
            listed = ((listed | ~mask) + 1) & mask;
        } while (listed != 0);
    }
    return {sums.begin(), sums.end()};
}

void expect_near(const Matrix& got, const Matrix& expected, double tolerance) {
    for (std::size_t i = 0; i < expected.size(); ++i)
        ASSERT_LE(std::abs(got[i] - expected[i]), tolerance) << "entry " << i;
}

TYPED_TEST(ReducedDensityMatrices, AreTracesOverTheOtherQubits) {
    using T = TypeParam;
    for (unsigned int n = 0; n <= 5; ++n) {
        const auto amplitudes = filled<T>(std::size_t{1} << n, Filling::ordinary, n + 1);
        StateVector<T> state(n);
        load(state, amplitudes);
        const auto entry = [&](std::size_t row, std::size_t column) {
            return std::complex<long double>(amplitudes[row]) *
                   std::conj(std::complex<long double>(amplitudes[column]));
        };
        const auto m = n / 2;
        const auto mixed_entry = [&](std::size_t row, std::size_t column) {
            return std::complex<long double>(amplitudes[column << m | row]);
        };
        for (unsigned int k = 0; k <= n; ++k) {
            for_each_placement(n, k, 0, [&](const Qubits& qubits, const Qubits&) {
                for_each_instruction_set(
                    [&] { expect_near(reduced(state, qubits), defined(n, qubits, entry), 1e-14); });
                if (n % 2 != 0 || mask_of(qubits) >> m) return;
                state.density_matrix = true;
                expect_near(reduced(state, qubits), defined(m, qubits, mixed_entry), 1e-14);
                state.density_matrix = false;
            });
        }
    }
}

TYPED_TEST(ReducedDensityMatrices, HaveTheSameBitsForEveryRequest) {
    using T = TypeParam;
    constexpr unsigned int n = 17;
    const auto amplitudes = filled<T>(std::size_t{1} << n, Filling::ordinary);
    StateVector<T> state(n);
    load(state, amplitudes);
    const auto entry = [&](std::size_t row, std::size_t column) {
        return std::complex<long double>(amplitudes[row]) *
               std::conj(std::complex<long double>(amplitudes[column]));
    };
    // In pieces, and by rows.
    for (const Qubits& qubits : {Qubits{16, 3, 8}, Qubits{0, 2, 4, 6, 8, 10, 12, 14, 16}}) {
        const Matrix expected = reduced(state, qubits);
        if (qubits.size() == 3) expect_near(expected, defined(n, qubits, entry), 1e-8);
        const std::size_t dim = std::size_t{1} << qubits.size();
        for (std::size_t a = 0; a < dim; ++a) {
            EXPECT_EQ(expected[a * (dim + 1)].imag(), 0);
            EXPECT_EQ(expected[a], std::conj(expected[a * dim]));
        }
        for_each_shared_request([&](int request) {
            state.set_num_threads(request);
            EXPECT_EQ(reduced(state, qubits), expected) << request << " threads";
        });
        state.set_num_threads(1);
    }
}

}  // namespace
}  // namespace pblinalg::test
