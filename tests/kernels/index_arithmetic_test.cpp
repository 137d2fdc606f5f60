// Which amplitudes a gate visits, in which order, and how they are split among workers.
#include <algorithm>
#include <array>
#include <atomic>
#include <stdexcept>

#include "core/parallel.hpp"
#include "kernels/diagonal.hpp"
#include "kernels/state_iterator.hpp"
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
    const Qubits targets{2, 0}, control{1}, target{0};
    const StateIterator pair(targets, {}, 3);
    EXPECT_EQ(pair.free_mask, 2u);
    EXPECT_EQ(pair.fixed_bits, 0u);
    EXPECT_EQ(pair.count, 2u);
    EXPECT_EQ(pair.n_offsets, 4u);
    EXPECT_EQ(pair.offsets, (std::vector<Index>{0, 1, 4, 5}));
    EXPECT_EQ(pair.base(0), 0u);
    EXPECT_EQ(pair.base(1), 2u);

    const StateIterator controlled(target, control, 3);
    EXPECT_EQ(controlled.free_mask, 4u);
    EXPECT_EQ(controlled.fixed_bits, 2u);
    EXPECT_EQ(controlled.count, 2u);
    EXPECT_EQ(controlled.base(0), 2u);
    EXPECT_EQ(controlled.base(1), 6u);

    const StateIterator whole(target, {}, 1);
    EXPECT_EQ(whole.free_mask, 0u);
    EXPECT_EQ(whole.count, 1u);
    EXPECT_EQ(whole.offsets, (std::vector<Index>{0, 1}));
}

TEST(StateIterator, SkipsAndCountsControlsAboveTheState) {
    const Qubits target{1}, controls{5, 0};
    const StateIterator groups(target, controls, 4);
    EXPECT_EQ(groups.free_mask, 0b1100u);
    EXPECT_EQ(groups.fixed_bits, 1u);
    EXPECT_EQ(groups.count, 2u);
}

TEST(StateIterator, TakesStatesWithoutQubits) {
    const StateIterator groups({}, {}, 0);
    EXPECT_EQ(groups.free_mask, 0u);
    EXPECT_EQ(groups.count, 1u);
    EXPECT_EQ(groups.offsets, std::vector<Index>{0});
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

TEST(SortedIndices, LeaveSlotsOfMissingEntriesAlone) {
    using Entry = std::complex<double>;
    std::array<Entry, 4> sorted{-1., -1., -1., -1.};
    cpu::fill_sorted_diag<Entry>(sorted.data(), Qubits{1, 0}, Amplitudes<double>{}, 3);
    EXPECT_EQ(sorted[0], -1.);
    cpu::fill_sorted_diag<Entry>(sorted.data(), Qubits{1, 0}, Amplitudes<double>{5., 6., 7.}, 3);
    EXPECT_EQ(sorted, (std::array<Entry, 4>{5., 6., 7., -1.}));
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

TEST(Split, CoversEveryIndexOnceInWholeGranules) {
    for (const Index count : {0, 1, 63, 64, 65, 128, 1000, 4097}) {
        for (Index team = 1; team <= 9; ++team) {
            Index next = 0;
            for (Index id = 0; id < team; ++id) {
                const cpu::Block block(count, id, team);
                EXPECT_EQ(block.begin, next);
                EXPECT_LE(block.begin, block.end);
                EXPECT_TRUE(block.begin % cpu::block_granule == 0 || block.begin == count);
                EXPECT_LE(block.end - block.begin,
                          (count / cpu::block_granule / team + 1) * cpu::block_granule);
                next = block.end;
            }
            EXPECT_EQ(next, count);
        }
    }
}

TEST(Split, HandsBlocksToTeamsOfAnyRequest) {
    for (const int workers : {-2, 0, 1, 2, 3, 5}) {
        std::vector<std::atomic<int>> visits(1000);
        const auto visit = [&](Index begin, Index end) {
            for (; begin < end; ++begin)
                ++visits[begin];
        };
        cpu::for_each_block_of_team(1000, workers, visit);
        cpu::for_each_block(1000, cpu::min_parallel_amplitudes, workers, visit);
        cpu::for_each_block(1000, 1, workers, visit);
        EXPECT_TRUE(std::all_of(visits.begin(), visits.end(), [](auto& v) { return v == 3; }));
    }
}

TEST(Split, PassesExceptionsOfWorkersOn) {
    for (const int workers : {1, 3}) {
        EXPECT_THROW(cpu::for_each_block_of_team(1000, workers,
                                                 [](Index, Index) { throw std::bad_alloc(); }),
                     std::bad_alloc);
    }
}

}  // namespace
}  // namespace pblinalg::test
