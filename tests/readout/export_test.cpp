// Exports: entries in caller order, dense and as maps, under thresholds of every kind.
#include "readout/export.hpp"

#include <memory>

#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class Export : public ::testing::Test {
  protected:
    using C = std::complex<T>;
    using Limits = std::numeric_limits<T>;
    static constexpr T infinity = Limits::infinity(), nan = Limits::quiet_NaN();
    static constexpr T thresholds[] = {0, T(0.5), 1, T(-0.5), infinity, -infinity, nan};
    static constexpr unsigned int qubit_counts[] = {0, 1, 2, 3, 7, 8, 9, 10, 13, 16};

    static T probability(C a) {
        if (std::isinf(a.real()) || std::isinf(a.imag())) return infinity;
        return std::fma(a.real(), a.real(), a.imag() * a.imag());
    }
    static T probability(T element) { return element; }

    /// Filled with ordinary, zero and extreme entries, some exactly at the threshold 0.5.
    static Amplitudes<T> mixture(unsigned int n) {
        auto amplitudes = filled<T>(std::size_t{1} << n, Filling::ordinary, n);
        const auto extremes = filled<T>(amplitudes.size(), Filling::extremes, n);
        for (std::size_t i = 0; i < amplitudes.size(); ++i) {
            if (i % 5 == 1) amplitudes[i] = extremes[i];
            if (i % 5 == 2) amplitudes[i] = i % 2 ? C(T(0.5), 0) : C(T(0.25), -T(0));
            if (i % 5 == 3) amplitudes[i] = C(-T(0), i % 2 ? T(0) : T(0.5));
        }
        return amplitudes;
    }

    static std::vector<T> diagonal_of(const Amplitudes<T>& matrix, unsigned int half) {
        const std::size_t rows = std::size_t{1} << half;
        std::vector<T> diagonal(rows);
        for (std::size_t r = 0; r < rows; ++r)
            diagonal[r] = matrix[r * (rows + 1)].real();
        return diagonal;
    }

    template <class V>
    static std::vector<V> expected_dense(const std::vector<V>& elements, T threshold) {
        const bool compares = elements.size() < 256 || threshold > 0;
        std::vector<V> out(elements.size());
        for (std::size_t k = 0; k < elements.size(); ++k) {
            const bool kept = !compares || probability(elements[k]) > threshold * threshold;
            out[reversed(k, qubits_of(elements.size()))] = kept ? elements[k] : V();
        }
        return out;
    }

    template <class V>
    static void check_map(const std::map<unsigned long long, V>* returned,
                          const std::vector<V>& elements, T threshold) {
        const std::unique_ptr<const std::map<unsigned long long, V>> map(returned);
        std::size_t n_kept = 0;
        for (std::size_t k = 0; k < elements.size(); ++k) {
            const auto entry = map->find(reversed(k, qubits_of(elements.size())));
            const bool kept =
                elements[k] != V() && probability(elements[k]) > threshold * threshold;
            ASSERT_EQ(entry != map->end(), kept) << "index " << k << ", threshold " << threshold;
            if (!kept) continue;
            EXPECT_TRUE(same_bits(entry->second, elements[k])) << "index " << k;
            ++n_kept;
        }
        EXPECT_EQ(map->size(), n_kept);
    }

    /// Calls `body(state, amplitudes, threshold)` for all sizes, worker requests and thresholds.
    template <class Body>
    static void for_each_export(const Body& body) {
        for (const unsigned int n : qubit_counts) {
            const auto amplitudes = mixture(n);
            StateVector<T> state(n);
            load(state, amplitudes);
            for (const int workers : {1, 2}) {
                state.set_num_threads(workers);
                for (const T threshold : thresholds) {
                    SCOPED_TRACE(::testing::Message() << n << " qubits, workers " << workers
                                                      << ", threshold " << threshold);
                    body(state, amplitudes, threshold);
                }
            }
        }
    }
};
TYPED_TEST_SUITE(Export, Precisions);

TYPED_TEST(Export, WritesAndMapsAmplitudesAndDiagonalsInCallerOrder) {
    this->for_each_export([this](auto& state, const auto& amplitudes, TypeParam threshold) {
        const auto expected = this->expected_dense(amplitudes, threshold);
        Amplitudes<TypeParam> out(amplitudes.size(), {7, 7});
        state.get_permuted_statevector(out.data(), threshold);
        EXPECT_TRUE(same_bits(out.data(), expected));
        out.assign(amplitudes.size(), {7, 7});
        state.get_permuted_density_matrix(out.data(), threshold);
        EXPECT_TRUE(same_bits(out.data(), expected));
        this->check_map(state.get_mapped_statevector(threshold), amplitudes, threshold);

        const auto diagonal = this->diagonal_of(amplitudes, state.nqubits / 2);
        std::vector<TypeParam> reals(diagonal.size(), 7);
        state.get_permuted_density_diag(reals.data(), threshold);
        EXPECT_TRUE(same_bits(reals.data(), this->expected_dense(diagonal, threshold)));
        this->check_map(state.get_mapped_density_diag(threshold), diagonal, threshold);
    });
}

// The tiles and the writes of outputs that no cache holds, in registers that a test can check.
TYPED_TEST(Export, CopiesTilesOfEverySideAroundTheCacheAndThroughItToAnyAddress) {
    using T = TypeParam;
    const auto copy = [this]<bool thresholded>(unsigned int n, unsigned int side_bits,
                                               bool streams) {
        const auto amplitudes = this->mixture(n);
        StateVector<T> room(n + 1);
        cpu::ReversalTiles tiles(n, side_bits);
        tiles.min_streamed_bytes = streams ? 0 : ~cpu::Index{0};
        const T threshold = thresholded ? T(0.5) : T(0);
        for_each_instruction_set([&] {
            for (const std::size_t offset : {1, 2, 8}) {
                std::complex<T>* const out = room.state.get() + offset;
                out[-1] = out[amplitudes.size()] = 7;
                cpu::copy_tiles<thresholded>(cpu::amplitude_view(amplitudes.data(), n), out, tiles,
                                             2, threshold * threshold);
                EXPECT_TRUE(same_bits(out, this->expected_dense(amplitudes, threshold)))
                    << n << " qubits, side bits " << side_bits << ", streams " << streams
                    << ", offset " << offset;
                EXPECT_TRUE(out[-1] == T(7) && out[amplitudes.size()] == T(7));
            }
        });
    };
    for (const auto& [n, side_bits] : {std::pair{8u, 4u}, {11u, 5u}, {16u, 8u}, {18u, 8u}}) {
        for (const bool streams : {false, true}) {
            copy.template operator()<false>(n, side_bits, streams);
            copy.template operator()<true>(n, side_bits, streams);
        }
    }
    EXPECT_EQ(cpu::ReversalTiles(20).side_bits, 8u);
}

}  // namespace
}  // namespace pblinalg::test
