// Which amplitudes a gate visits, in which order, and which matrix row applies to each.
#include <array>
#include <stdexcept>

#include "apply/diagonal.hpp"
#include "core/state_iterator.hpp"
#include "support/exact_reference.hpp"

namespace pblinalg::test {
namespace {

using cpu::Index;
using orb::core::iterator::StateIterator;

TEST(BitMoves, FollowTheirBitwiseDefinitions) {
    std::mt19937_64 generator(3);
    for (int round = 0; round < 2000; ++round) {
        const Index x = generator(), mask = generator() & generator();
        Index deposited = 0, extracted = 0;
        unsigned int j = 0;
        for (unsigned int q = 0; q < 64; ++q) {
            if (!(mask >> q & 1)) continue;
            deposited |= (x >> j & 1) << q;
            extracted |= (x >> q & 1) << j++;
        }
        EXPECT_EQ(cpu::deposit_bits(x, mask), deposited);
        EXPECT_EQ(cpu::extract_bits(x, mask), extracted);
        const auto width = static_cast<unsigned int>(round % 65);
        EXPECT_EQ(cpu::reverse_bits(x, width), reversed(x, width));
        const Index next = cpu::deposit_bits(extracted + 1, mask);
        EXPECT_EQ(cpu::next_subset(x & mask, mask), next);
    }
    EXPECT_EQ(cpu::deposit_bits(~Index{0}, ~Index{0}), ~Index{0});
    EXPECT_EQ(cpu::extract_bits(~Index{0}, 0), 0u);
}

TEST(StateIterator, ListsOffsetsByMatrixRowAndBasesInOrder) {
    struct {
        Qubits targets, controls;
        unsigned int n;
        std::vector<Index> offsets, bases;
    } const cases[] = {
        {{2, 0}, {}, 3, {0, 1, 4, 5}, {0, 2}},
        {{0}, {1}, 3, {0, 1}, {2, 6}},
        {{0}, {}, 1, {0, 1}, {0}},
        {{}, {}, 0, {0}, {0}},
        {{1}, {2, 0}, 3, {0, 2}, {5}},
        // A control above the state fixes nothing but is counted.
        {{1}, {5, 0}, 4, {0, 2}, {1, 5}},
    };
    for (const auto& [targets, controls, n, offsets, bases] : cases) {
        const StateIterator groups(targets, controls, n);
        EXPECT_EQ(groups.n_offsets, offsets.size());
        EXPECT_EQ(groups.offsets, offsets);
        ASSERT_EQ(groups.count, bases.size());
        for (Index i = 0; i < groups.count; ++i)
            EXPECT_EQ(groups.base(i), bases[i]);
    }
    EXPECT_EQ(StateIterator(Qubits{1}, Qubits{5, 0}, 4).free_mask, 0b1100u);
    EXPECT_EQ(StateIterator(Qubits{1}, Qubits{5, 0}, 4).fixed_bits, 1u);
}

TEST(SortedIndices, GiveTheRowOfEverySlot) {
    using Rows = std::vector<std::uint32_t>;
    EXPECT_EQ(cpu::get_sorted_indices(Qubits{2, 0}, 5), (Rows{0, 1, 2, 3}));
    EXPECT_EQ(cpu::get_sorted_indices(Qubits{0, 2}, 5), (Rows{0, 2, 1, 3}));
    EXPECT_EQ(cpu::get_sorted_indices(Qubits{}, 0), Rows{0});
    EXPECT_EQ(cpu::get_sorted_indices(Qubits{4, 4}, 0), (Rows{3, 0, 0, 0}));
    EXPECT_EQ(cpu::gate_mask(Qubits{4, 1, 4}), 2u);
    Qubits many(62);
    EXPECT_THROW(cpu::get_sorted_indices(many, 1), std::length_error);
    many.resize(70);
    EXPECT_THROW(cpu::get_sorted_indices(many, 0), std::length_error);
}

TEST(SortedIndices, SortDiagonalsOfAnyListedOrder) {
    using Entry = std::complex<double>;
    for_each_placement(5, 3, 0, [](const Qubits& qubits, const Qubits&) {
        const Amplitudes<double> diagonal = labelled<double>(8);
        const Index mask = cpu::gate_mask(qubits);
        std::array<Entry, 8> sorted;
        cpu::fill_sorted_diag<Entry>(sorted.data(), qubits, diagonal, mask);
        for (Index i = 0; i < 32; ++i)
            EXPECT_EQ(sorted[cpu::extract_bits(i, mask)], diagonal[diagonal_row(i, qubits)]);
    });
}

TEST(FirstQubits, AreZeroOneAndTwo) {
    const auto none = cpu::contains_no_first_qubits<std::complex<float>>;
    const auto none_double = cpu::contains_no_first_qubits<std::complex<double>>;
    EXPECT_TRUE(none({}, {}));
    EXPECT_TRUE(none_double({3, 7}, {}));
    EXPECT_FALSE(none({3}, {2}));
    for (const unsigned int q : {0u, 1u, 2u})
        EXPECT_FALSE(none_double({5, q}, {4}));
}

}  // namespace
}  // namespace pblinalg::test
