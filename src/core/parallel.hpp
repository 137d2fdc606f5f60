// The one parallel loop: a range cut into one contiguous block per worker.
// What a worker does with its block is a serial function; which instruction set that runs on is
// chosen in core/instruction_set.hpp.
#pragma once

#include <omp.h>

#include <algorithm>
#include <exception>
#include <pblinalg/threads.hpp>
#include <vector>

#include "core/bits.hpp"

namespace pblinalg::cpu {

/// Below this many amplitudes one worker is faster than a parallel region, which costs several
/// microseconds to open and as much again to ask the system for its processor count.
inline constexpr Index min_parallel_amplitudes = Index{1} << 15;

/// Block boundaries are multiples of this, so that no vector of amplitudes is cut in two.
inline constexpr Index block_granule = 64;

/// The block [begin, end) of worker `id` out of `team` in [0, count).
struct Block {
    Index begin;
    Index end;

    Block(Index count, Index id, Index team, Index granule = block_granule) {
        const Index granules = (count + granule - 1) / granule;
        const Index share = granules / team;
        const Index longer = granules % team;
        begin = std::min(count, (id * share + std::min(id, longer)) * granule);
        end = std::min(count, begin + (share + (id < longer ? 1 : 0)) * granule);
    }
};

/// Calls `work(id, team)` on each worker of a region of `workers`, or of the runtime's default team
/// for 0 or less. One worker is the caller itself. The first exception of `work` reaches the caller
/// once all workers are done.
template <class Work>
void run_team(int workers, const Work& work) {
    if (workers == 1) return work(0, 1);
    std::exception_ptr failure;
    const auto guarded = [&] {
        try {
            work(omp_get_thread_num(), omp_get_num_threads());
        } catch (...) {
#pragma omp critical(pblinalg_failure)
            if (!failure) failure = std::current_exception();
        }
    };
    if (workers > 1) {
#pragma omp parallel num_threads(workers)
        guarded();
    } else {
#pragma omp parallel
        guarded();
    }
    if (failure) std::rethrow_exception(failure);
}

/// Calls `work(begin, end)` on blocks that together cover [0, count), one per worker of the team.
template <class Work>
void for_each_block_of_team(Index count, int workers, const Work& work,
                            Index granule = block_granule) {
    run_team(workers, [&](int id, int team) {
        const Block block(count, static_cast<Index>(id), static_cast<Index>(team), granule);
        if (block.begin < block.end) work(block.begin, block.end);
    });
}

/// Calls `work(begin, end)` on blocks that together cover [0, count), one per worker of a region of
/// `get_num_threads(requested)`. Jobs that touch few `amplitudes` run on the caller alone. A count
/// of jobs that are large each wants a `granule` of 1.
template <class Work>
void for_each_block(Index count, Index amplitudes, int requested, const Work& work,
                    Index granule = block_granule) {
    if (count == 0) return;
    if (amplitudes < min_parallel_amplitudes) return work(Index{0}, count);
    for_each_block_of_team(count, get_num_threads(requested), work, granule);
}

/// The most workers that `run_team(workers, ...)` can start.
inline std::size_t team_size(int workers) {
    return static_cast<std::size_t>(workers > 0 ? workers : omp_get_max_threads());
}

/// What `work(id, team)` returns on each worker of `run_team`, in the order of the workers, so that
/// what is made of it repeats from run to run. Workers that were not started leave `Result()`.
template <class Result, class Work>
std::vector<Result> results_of_team(int workers, const Work& work) {
    std::vector<Result> results(team_size(workers));
    run_team(workers,
             [&](int id, int team) { results[static_cast<std::size_t>(id)] = work(id, team); });
    return results;
}

/// What `work(begin, end)` returns on the blocks of `for_each_block`, in the order of the blocks.
template <class Result, class Work>
std::vector<Result> results_of_blocks(Index count, Index amplitudes, int requested,
                                      const Work& work) {
    const int workers = amplitudes < min_parallel_amplitudes ? 1 : get_num_threads(requested);
    return results_of_team<Result>(workers, [&](int id, int team) {
        const Block block(count, static_cast<Index>(id), static_cast<Index>(team));
        return block.begin < block.end ? work(block.begin, block.end) : Result();
    });
}

/// The sum of `work(begin, end)` over the blocks of `for_each_block`, in the order of the blocks.
template <class T, class Work>
T sum_over_blocks(Index count, Index amplitudes, int requested, const Work& work) {
    if (amplitudes < min_parallel_amplitudes) return count == 0 ? T(0) : work(Index{0}, count);
    T total = 0;
    for (const T sum : results_of_blocks<T>(count, amplitudes, requested, work))
        total += sum;
    return total;
}

}  // namespace pblinalg::cpu
