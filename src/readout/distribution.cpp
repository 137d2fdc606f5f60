// All outcomes of a marginal distribution in one pass, and the members that read probabilities.
#include "readout/distribution.hpp"

#include <algorithm>
#include <memory>
#include <numeric>
#include <pblinalg/state_vector_cpu.hpp>
#include <vector>

#include "core/parallel.hpp"
#include "core/team_scratch.hpp"
#include "readout/probabilities.hpp"

namespace pblinalg::cpu {
namespace {

/// Which index bits select an outcome and which are summed over.
struct Marginal {
    Index listed = 0;  ///< bits of the listed qubits
    Index free;        ///< bits summed over

    Marginal(unsigned int n, QubitSpan qubits) {
        for (const unsigned int qubit : qubits)
            listed |= bit(qubit);
        const Index unlisted = low_mask(n) & ~listed;
        // The list's length alone says how many free bits count, the lowest ones.
        const std::size_t counted = n > qubits.size() ? n - qubits.size() : 0;
        free = counted < 64 ? deposit_bits(low_mask(static_cast<unsigned int>(counted)), unlisted)
                            : unlisted;
    }
};

/// The index bits that `outcome` fixes.
Index fixed_pattern(Index outcome, QubitSpan qubits) {
    Index pattern = 0;
    for (std::size_t j = 0; j < qubits.size(); ++j)
        pattern |= (outcome >> j & 1) << qubits[j];
    return pattern;
}

/// The outcome of which every listed qubit reads its bit of `index`.
Index outcome_of(Index index, QubitSpan qubits) {
    Index outcome = 0;
    for (std::size_t j = 0; j < qubits.size(); ++j)
        outcome |= (index >> qubits[j] & 1) << j;
    return outcome;
}

constexpr unsigned int tile_bits = 11;
constexpr unsigned int short_run_bits = 8;
/// Sums that advance side by side hide the latency of an addition.
constexpr unsigned int wanted_chain_bits = 3;

/// How the elements are visited: tile by tile, each read into the first-level cache as runs of
/// neighbours and added up there.
///
/// A tile is 2^run_bits neighbours for each pattern of `stream_mask`, listed bits above the run
/// that are taken in when the run itself holds too few outcomes. Tiles come in order of the free
/// bits for each pattern of the listed ones, so that every sum grows in index order. Outcomes are
/// numbered by their listed index bits, compacted.
struct TileWalk {
    unsigned int run_bits;
    Index run_listed;
    Index run_free;
    Index stream_mask = 0;
    Index outer_listed;
    Index outer_free;

    TileWalk(unsigned int n, const Marginal& marginal) : run_bits(std::min(n, tile_bits)) {
        Index above = marginal.listed & ~low_mask(run_bits);
        if (count_bits(marginal.listed & low_mask(run_bits)) < wanted_chain_bits && above != 0) {
            run_bits = short_run_bits;
            above = marginal.listed & ~low_mask(run_bits);
            unsigned int chains = count_bits(marginal.listed & low_mask(run_bits));
            for (; chains < wanted_chain_bits && above != 0; ++chains) {
                stream_mask |= lowest_bit(above);
                above &= above - 1;
            }
        }
        run_listed = marginal.listed & low_mask(run_bits);
        run_free = marginal.free & low_mask(run_bits);
        outer_listed = above;
        outer_free = marginal.free & ~low_mask(run_bits);
    }

    Index n_outer_outcomes() const { return bit(count_bits(outer_listed)); }
    Index n_outer_free() const { return bit(count_bits(outer_free)); }
    Index outcomes_per_tile() const {
        return bit(count_bits(run_listed) + count_bits(stream_mask));
    }
};

/// Where the values of each outcome lie in a tile.
class TileOffsets {
  public:
    explicit TileOffsets(const TileWalk& walk) {
        const Index outcomes_per_run = bit(count_bits(walk.run_listed));
        for (Index e = 0; e < bit(count_bits(walk.stream_mask)); ++e) {
            for (Index s = 0; s < outcomes_per_run; ++s) {
                of_outcome_[n_outcomes_++] = static_cast<unsigned int>(
                    e << walk.run_bits | deposit_bits(s, walk.run_listed));
            }
        }
        for (Index f = 0; f < bit(count_bits(walk.run_free)); ++f)
            of_free_[n_free_++] = static_cast<unsigned int>(deposit_bits(f, walk.run_free));
    }

    OutcomeTile tile() const { return {of_outcome_, n_outcomes_, of_free_, n_free_}; }

  private:
    unsigned int of_outcome_[bit(tile_bits)];
    unsigned int of_free_[bit(tile_bits)];
    Index n_outcomes_ = 0;
    Index n_free_ = 0;
};

/// Adds the elements of the outer pattern `outcome` and of the free patterns [begin, end) to the
/// sums of their outcomes.
template <class T, class S>
void add_tiles(const S& view, const TileWalk& walk, const OutcomeTile& tile, Index outcome,
               Index begin, Index end, T* sums) {
    alignas(64) T values[bit(tile_bits)];
    const Index run = bit(walk.run_bits);
    const Index listed = deposit_bits(outcome, walk.outer_listed);
    walk_groups(walk.outer_free, listed, begin, end, [&](Index base) {
        const Index next_base = listed | next_subset(base & walk.outer_free, walk.outer_free);
        T* to = values;
        Index stream = 0;
        do {
            const Index next = next_subset(stream, walk.stream_mask);
            copy_probabilities(view, base | stream, run, to, next != 0 ? base | next : next_base);
            to += run;
            stream = next;
        } while (stream != 0);
        dispatch([&]<InstructionSet set>() {
            add_by_outcome<set>(sums, static_cast<const T*>(values), tile);
        });
    });
}

/// With at least this many outer patterns for each worker the outcomes are shared out, else the
/// pieces of every outcome.
constexpr Index min_outer_outcomes = 8;

/// Outer patterns whose sums are stored together. They differ in the highest listed index bits,
/// which lists in ascending order make the lowest bits of an outcome: stored one pattern at a time,
/// each sum would touch a cache line of its own.
constexpr unsigned int max_batch_bits = 4;

/// The sums of a piece have at least this many elements each, so that neither their memory nor
/// adding them up counts.
constexpr Index min_elements_per_sum = 16;

/// Who adds up what for all outcomes of a marginal, and the memory that it takes.
///
/// The elements of each outcome are added up in `pieces`, in index order within each; the sums of
/// the pieces are added in their order. How many there are depends on the request as in
/// `piece_count`, and on nothing else that depends on the machine.
template <class S>
struct OutcomePlan {
    using T = typename S::proba_type;

    Marginal marginal;
    TileWalk walk;
    Index outcomes;  ///< by compacted index bits
    Index pieces;
    int workers;
    bool shares_outcomes;
    Index batch = 1;      ///< outer patterns that a worker stores together
    bool repeats_qubits;  ///< the list's outcomes are not those of the index bits one to one

    OutcomePlan(const S& view, QubitSpan qubits, int requested)
        : marginal(view.nqubits, qubits),
          walk(view.nqubits, marginal),
          outcomes(walk.n_outer_outcomes() * walk.outcomes_per_tile()),
          pieces(std::min({piece_count(view.size, requested), walk.n_outer_free(),
                           std::max<Index>(view.size / min_elements_per_sum / outcomes, 1)})),
          workers(workers_for(view.size, requested)),
          shares_outcomes(pieces == 1 || workers == 1 ||
                          walk.n_outer_outcomes() >= min_outer_outcomes * team_size(workers)),
          repeats_qubits(count_bits(marginal.listed) < qubits.size()) {
        if (shares_outcomes && count_bits(walk.outer_listed) >= 2 * max_batch_bits)
            batch = bit(max_batch_bits);
    }

    /// Sums in a slice of memory: those of a worker's batch and of one piece of it, or those of one
    /// piece of all outcomes.
    Index slice() const {
        const Index sums = shares_outcomes ? (batch + 1) * walk.outcomes_per_tile() : outcomes;
        return (sums + line - 1) / line * line;
    }
    Index n_slices() const { return shares_outcomes ? team_size(workers) : pieces; }
    std::size_t scratch_bytes() const {
        return (n_slices() * slice() + (repeats_qubits ? outcomes : 0)) * sizeof(T);
    }

  private:
    static constexpr Index line = 64 / sizeof(T);
};

/// Calls `store(first, stride, n, sums, count)` with the sums of the outcomes first + i * stride +
/// s, i < n, s < count, at sums[i * count + s], until all are given; on several workers at once.
/// Outcomes are numbered by their compacted index bits.
template <class S, class T, class Store>
void sum_outcomes(const S& view, const OutcomePlan<S>& plan, T* scratch, const Store& store) {
    const TileWalk& walk = plan.walk;
    const TileOffsets offsets(walk);
    const OutcomeTile tile = offsets.tile();
    const Index outer = walk.n_outer_outcomes();
    const Index per_tile = walk.outcomes_per_tile();
    const auto add_piece = [&](Index outcome, Index number, T* sums) {
        const Block piece(walk.n_outer_free(), number, plan.pieces, 1);
        add_tiles(view, walk, tile, outcome, piece.begin, piece.end, sums);
    };
    if (plan.shares_outcomes) {
        const Index batches = outer / plan.batch;
        run_team(plan.workers, [&](int id, int team) {
            T* const sums = scratch + static_cast<Index>(id) * plan.slice();
            T* const piece_sums = sums + plan.batch * per_tile;
            const Block own(batches, static_cast<Index>(id), static_cast<Index>(team), 1);
            for (Index first = own.begin; first < own.end; ++first) {
                std::fill_n(sums, plan.batch * per_tile, T(0));
                for (Index i = 0; i < plan.batch; ++i) {
                    T* const total = sums + i * per_tile;
                    add_piece(first + i * batches, 0, total);
                    for (Index p = 1; p < plan.pieces; ++p) {
                        std::fill_n(piece_sums, per_tile, T(0));
                        add_piece(first + i * batches, p, piece_sums);
                        for (Index s = 0; s < per_tile; ++s)
                            total[s] += piece_sums[s];
                    }
                }
                store(first * per_tile, batches * per_tile, plan.batch, sums, per_tile);
            }
        });
        return;
    }
    const auto add_pieces = [&](Index first, Index last) {
        for (Index p = first; p < last; ++p) {
            T* const sums = scratch + p * plan.slice();
            std::fill_n(sums, plan.outcomes, T(0));
            for (Index outcome = 0; outcome < outer; ++outcome)
                add_piece(outcome, p, sums + outcome * per_tile);
        }
    };
    for_each_block_of_team(plan.pieces, plan.workers, add_pieces, 1);
    const auto add_up = [&](Index begin, Index end) {
        for (Index p = 1; p < plan.pieces; ++p) {
            for (Index s = begin; s < end; ++s)
                scratch[s] += scratch[p * plan.slice() + s];
        }
        store(begin, 0, 1, scratch + begin, end - begin);
    };
    for_each_block_of_team(plan.outcomes, plan.workers, add_up, bit(tile_bits));
}

/// As `outcome_probabilities`, each sum passed through `keep` on its way out.
template <class S, class T, class Keep>
void write_outcomes(const S& view, QubitSpan qubits, const OutcomePlan<S>& plan, T* out, T* scratch,
                    const Keep& keep) {
    const Index listed = plan.marginal.listed;
    if (plan.repeats_qubits) {
        // Outcomes that disagree on a repeated qubit share the index bits of their union.
        T* const all = scratch + plan.n_slices() * plan.slice();
        sum_outcomes(view, plan, scratch,
                     [&](Index first, Index stride, Index n, const T* sums, Index count) {
                         for (Index i = 0; i < n; ++i)
                             std::copy_n(sums + i * count, count, all + first + i * stride);
                     });
        for (Index v = 0; v < bit(static_cast<unsigned int>(qubits.size())); ++v)
            out[v] = keep(all[extract_bits(fixed_pattern(v, qubits), listed)]);
        return;
    }
    const auto place_of = [&](Index outcome) {
        return outcome_of(deposit_bits(outcome, listed), qubits);
    };
    // Where the outcomes of a tile go relative to its first one.
    Index places[bit(tile_bits)];
    const Index n_places = bit(std::min(count_bits(listed), tile_bits));
    for (Index s = 0; s < n_places; ++s)
        places[s] = place_of(s);
    sum_outcomes(view, plan, scratch,
                 [&](Index first, Index stride, Index n, const T* sums, Index count) {
                     for (Index done = 0; done < count; done += n_places) {
                         T* to[bit(max_batch_bits)];
                         for (Index i = 0; i < n; ++i)
                             to[i] = out + place_of(first + i * stride + done);
                         const Index end = std::min(count - done, n_places);
                         for (Index s = 0; s < end; ++s) {
                             for (Index i = 0; i < n; ++i)
                                 to[i][places[s]] = keep(sums[i * count + done + s]);
                         }
                     }
                 });
}

}  // namespace

template <sequence S>
typename S::proba_type cumulative_probability(S view, unsigned long long outcome, QubitSpan qubits,
                                              int num_threads) {
    using T = typename S::proba_type;
    const IndexWalk walk{Marginal(view.nqubits, qubits).free, fixed_pattern(outcome, qubits)};
    return sum_over_pieces<T>(walk.count(), walk.count(), num_threads, [&](Index begin, Index end) {
        return sum_probabilities(view, walk, begin, end);
    });
}

template <sequence S>
std::size_t outcome_scratch_bytes(S view, QubitSpan qubits, int num_threads) {
    return OutcomePlan<S>(view, qubits, num_threads).scratch_bytes();
}

template <sequence S>
Index outcome_pieces(S view, QubitSpan qubits, int num_threads) {
    return OutcomePlan<S>(view, qubits, num_threads).pieces;
}

template <sequence S>
void outcome_probabilities(S view, QubitSpan qubits, int num_threads, typename S::proba_type* out,
                           void* scratch) {
    const OutcomePlan<S> plan(view, qubits, num_threads);
    write_outcomes(view, qubits, plan, out, static_cast<typename S::proba_type*>(scratch),
                   [](auto sum) { return sum; });
}

template <class T, sequence_of_precision<T> S, bool>
void compute_marginal_distribution(S view, T* out, const T& threshold, QubitSpan qubits,
                                   int num_threads, unsigned long long) {
    // The distributions read the list from its most significant bit.
    const std::vector<unsigned int> reversed(qubits.rbegin(), qubits.rend());
    const T limit = threshold * threshold;
    const OutcomePlan<S> plan(view, reversed, num_threads);
    const TeamScratch scratch(1, plan.scratch_bytes());
    write_outcomes(view, reversed, plan, out, static_cast<T*>(scratch.of(0)),
                   [limit](T sum) { return sum > limit ? sum : T(0); });
}

template <class T, sequence_of_precision<T> S>
std::map<unsigned long long, T>* map_marginal_distribution(S view, const T& threshold,
                                                           QubitSpan qubits, int num_threads) {
    std::vector<T> dense(bit(static_cast<unsigned int>(qubits.size())));
    compute_marginal_distribution(view, dense.data(), threshold, qubits, num_threads);
    auto map = std::make_unique<std::map<unsigned long long, T>>();
    for (Index v = 0; v < dense.size(); ++v) {
        // Keys come in order, so that each is appended at the end of the tree in constant time.
        if (dense[v] != 0) map->emplace_hint(map->end(), v, dense[v]);
    }
    return map.release();
}

#define PBLINALG_INSTANTIATE_VIEW(T, S)                                                       \
    template T cumulative_probability<S>(S, unsigned long long, QubitSpan, int);              \
    template std::size_t outcome_scratch_bytes<S>(S, QubitSpan, int);                         \
    template Index outcome_pieces<S>(S, QubitSpan, int);                                      \
    template void outcome_probabilities<S>(S, QubitSpan, int, T*, void*);                     \
    template void compute_marginal_distribution<T, S, false>(S, T*, const T&, QubitSpan, int, \
                                                             unsigned long long);             \
    template std::map<unsigned long long, T>* map_marginal_distribution<T, S>(S, const T&,    \
                                                                              QubitSpan, int);
PBLINALG_INSTANTIATE_VIEW(float, SVSequence<std::complex<float>>)
PBLINALG_INSTANTIATE_VIEW(double, SVSequence<std::complex<double>>)
PBLINALG_INSTANTIATE_VIEW(float, DMDiagSequence<float>)
PBLINALG_INSTANTIATE_VIEW(double, DMDiagSequence<double>)
#undef PBLINALG_INSTANTIATE_VIEW

template <class T>
T PybindLinAlgStateVectorCPU<T>::probability(const unsigned long long& outcome,
                                             OptionalQubits qubits) {
    return with_view(*this, [&](auto view) {
        if (!qubits) {
            qubits.emplace(view.nqubits);
            std::iota(qubits->begin(), qubits->end(), 0u);
        }
        return cumulative_probability(view, outcome, *qubits, num_threads);
    });
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::get_distribution(T* out, const T& threshold,
                                                     const Qubits& qubits) {
    with_view(*this, [&](auto view) {
        compute_marginal_distribution(view, out, threshold, qubits, num_threads);
    });
}

template <class T>
std::map<unsigned long long, T>* PybindLinAlgStateVectorCPU<T>::get_mapped_distribution(
    const T& threshold, const Qubits& qubits) {
    return with_view(*this, [&](auto view) {
        return map_marginal_distribution(view, threshold, qubits, num_threads);
    });
}

#define PBLINALG_INSTANTIATE(T)                                                                 \
    template T PybindLinAlgStateVectorCPU<T>::probability(const unsigned long long&,            \
                                                          OptionalQubits);                      \
    template void PybindLinAlgStateVectorCPU<T>::get_distribution(T*, const T&, const Qubits&); \
    template std::map<unsigned long long, T>*                                                   \
    PybindLinAlgStateVectorCPU<T>::get_mapped_distribution(const T&, const Qubits&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
