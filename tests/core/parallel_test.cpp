// The worker count of a request, the split of a range among workers, and sums in pieces.
#include "core/parallel.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <new>
#include <numeric>
#include <random>
#include <vector>

#include "support/processors.hpp"

namespace pblinalg {
namespace {

using cpu::Index;

TEST(WorkerCount, IsLimitedToTheProcessorsFromAboveOnly) {
    constexpr int most = std::numeric_limits<int>::max();
    for (const unsigned int limit : {8u, 1u, 0u}) {
        test::processors = limit;
        // Where their number is unknown there is one.
        for (const int request : {2, 8, 64, most})
            EXPECT_EQ(get_num_threads(request), limit == 8 ? std::min(request, 8) : 1);
        for (const int request : {1, 0, -1, -most})
            EXPECT_EQ(get_num_threads(request), request);
    }
    test::processors = 8;
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

TEST(Pieces, AreTheSameForEveryRequestButOne) {
    for (const Index amplitudes : {Index{0}, Index{100}, Index{640}, Index{1} << 40}) {
        EXPECT_EQ(cpu::piece_count(amplitudes, 1, 64), 1u);
        const Index pieces = std::clamp<Index>(amplitudes / 64, 1, cpu::max_pieces);
        test::for_each_shared_request(
            [&](int request) { EXPECT_EQ(cpu::piece_count(amplitudes, request, 64), pieces); });
    }
}

TEST(Pieces, AddUpToTheSameBitsOnEveryTeam) {
    std::vector<float> values(10 * cpu::piece_amplitudes + 77);
    std::mt19937 random(1);
    for (float& value : values)
        value = std::uniform_real_distribution<float>(-1, 1)(random);
    const auto sum = [&](Index begin, Index end) {
        return std::accumulate(values.data() + begin, values.data() + end, 0.0f);
    };
    for (const Index pieces : {1, 7, 64}) {
        const Index count = 64 * pieces - 5;
        const auto one = cpu::results_of_pieces<float>(count, pieces, 1, sum);
        for (const int workers : {2, 3, 5, 7, 0})
            EXPECT_EQ(cpu::results_of_pieces<float>(count, pieces, workers, sum), one);
    }
    const Index count = values.size();
    EXPECT_EQ(cpu::sum_over_pieces<float>(count, count, 1, sum), sum(0, count));
    float expected = 0;
    for (Index p = 0; p < 10; ++p) {
        const cpu::Block piece(count, p, 10);
        expected += sum(piece.begin, piece.end);
    }
    ASSERT_NE(expected, sum(0, count));
    test::for_each_shared_request([&](int request) {
        EXPECT_EQ(cpu::sum_over_pieces<float>(count, count, request, sum), expected) << request;
    });
}

}  // namespace
}  // namespace pblinalg
