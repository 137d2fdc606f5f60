// The one parallel loop: a range cut into one contiguous block per worker; and the sums that do not
// depend on how many workers there are.
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

/// While one lives, the regions that its thread asks for run on that thread alone: it is one of
/// many that are busy already. What they compute does not change, since pieces of sums follow
/// requests.
class RegionsOnOneWorker {
  public:
    RegionsOnOneWorker() : before_(on_one_worker) { on_one_worker = true; }
    RegionsOnOneWorker(const RegionsOnOneWorker&) = delete;
    RegionsOnOneWorker& operator=(const RegionsOnOneWorker&) = delete;
    ~RegionsOnOneWorker() { on_one_worker = before_; }

    static bool here() { return on_one_worker; }

  private:
    static inline constinit thread_local bool on_one_worker = false;
    bool before_;
};

/// Calls `work(id, team)` on each worker of a region of `workers`, or of the runtime's default team
/// for 0 or less. Worker 0 is the caller, who does it all alone where one worker is asked for. The
/// first exception of `work` reaches the caller once all workers are done.
template <class Work>
void run_team(int workers, const Work& work) {
    if (workers == 1 || RegionsOnOneWorker::here()) return work(0, 1);
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

/// The workers to run a job over `amplitudes` on: get_num_threads(requested), or the caller alone.
inline int workers_for(Index amplitudes, int requested) {
    return amplitudes < min_parallel_amplitudes ? 1 : get_num_threads(requested);
}

/// The most workers that `run_team(workers, ...)` can start here.
inline std::size_t team_size(int workers) {
    if (RegionsOnOneWorker::here()) return 1;
    return static_cast<std::size_t>(workers > 0 ? workers : omp_get_max_threads());
}

/// Amplitudes in a piece of a sum: as many as make a job worth sharing.
inline constexpr Index piece_amplitudes = min_parallel_amplitudes;

/// Large sums have longer pieces instead, so that what their pieces return takes little memory.
inline constexpr Index max_pieces = 1024;

/// The pieces that a sum over `amplitudes` is taken in. Where one worker is asked for there is one:
/// the sum keeps its plain order. Any other request gets as many as the size says, whatever team
/// answers it, so that all of them round alike.
inline Index piece_count(Index amplitudes, int requested, Index length = piece_amplitudes) {
    return requested == 1 ? 1 : std::clamp<Index>(amplitudes / length, 1, max_pieces);
}

/// What `work(begin, end)` returns on each of `pieces` that together cover [0, count), in their
/// order, shared out among `workers` of `run_team`. Empty pieces leave `Result()`.
template <class Result, class Work>
std::vector<Result> results_of_pieces(Index count, Index pieces, int workers, const Work& work,
                                      Index granule = block_granule) {
    std::vector<Result> results(pieces);
    const auto work_on = [&](Index first, Index last) {
        for (Index p = first; p < last; ++p) {
            const Block piece(count, p, pieces, granule);
            if (piece.begin < piece.end) results[p] = work(piece.begin, piece.end);
        }
    };
    for_each_block_of_team(pieces, workers, work_on, 1);
    return results;
}

/// The sum of `work(begin, end)` over the pieces of [0, count), added up in their order.
template <class T, class Work>
T sum_over_pieces(Index count, Index amplitudes, int requested, const Work& work) {
    const Index pieces = piece_count(amplitudes, requested);
    if (pieces == 1) return count == 0 ? T(0) : work(Index{0}, count);
    T total = 0;
    const int workers = workers_for(amplitudes, requested);
    for (const T sum : results_of_pieces<T>(count, pieces, workers, work))
        total += sum;
    return total;
}

}  // namespace pblinalg::cpu
