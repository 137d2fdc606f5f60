// The worker count of a request, and the split of a range among workers.
#include "core/parallel.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <new>
#include <pblinalg/pblinalg.hpp>
#include <thread>
#include <vector>

namespace pblinalg {
namespace {

using cpu::Index;

TEST(WorkerCount, IsLimitedToTheHardwareFromAboveOnly) {
    const int hardware = static_cast<int>(std::thread::hardware_concurrency());
    for (const int request : {1, 2, 3, hardware, hardware + 1, 64, std::numeric_limits<int>::max()})
        EXPECT_EQ(get_num_threads(request), std::min(request, hardware));
    for (const int request : {0, -1, -64, std::numeric_limits<int>::min()})
        EXPECT_EQ(get_num_threads(request), request);
}

TEST(WorkerCount, IsStoredAsRequested) {
    cpu::PybindLinAlgStateVectorCPU<float> state(1);
    for (const int request : {0, -5, 64, 1}) {
        state.set_num_threads(request);
        EXPECT_EQ(state.num_threads, request);
    }
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
}  // namespace pblinalg
