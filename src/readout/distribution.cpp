// All outcomes of a marginal distribution in one pass, and the members that read probabilities.
#include "readout/distribution.hpp"

#include <algorithm>
#include <memory>
#include <numeric>
#include <pblinalg/state_vector_cpu.hpp>
#include <vector>

#include "core/parallel.hpp"
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
class TileWalk {
  public:
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
        outer_listed = above;
        outer_free = marginal.free & ~low_mask(run_bits);
        const Index run_listed = marginal.listed & low_mask(run_bits);
        const Index run_free = marginal.free & low_mask(run_bits);
        const Index outcomes_per_run = bit(count_bits(run_listed));
        for (Index e = 0; e < bit(count_bits(stream_mask)); ++e) {
            for (Index s = 0; s < outcomes_per_run; ++s) {
                outcome_offsets_.push_back(
                    static_cast<unsigned int>(e << run_bits | deposit_bits(s, run_listed)));
            }
        }
        for (Index f = 0; f < bit(count_bits(run_free)); ++f)
            free_offsets_.push_back(static_cast<unsigned int>(deposit_bits(f, run_free)));
    }

    unsigned int run_bits;
    Index stream_mask = 0;
    Index outer_listed;
    Index outer_free;

    Index n_outer_outcomes() const { return bit(count_bits(outer_listed)); }
    Index n_outer_free() const { return bit(count_bits(outer_free)); }
    Index outcomes_per_tile() const { return outcome_offsets_.size(); }
    OutcomeTile tile() const {
        return {outcome_offsets_.data(), outcome_offsets_.size(), free_offsets_.data(),
                free_offsets_.size()};
    }

  private:
    std::vector<unsigned int> outcome_offsets_;
    std::vector<unsigned int> free_offsets_;
};

/// Adds the elements of the outer pattern `outcome` and of the free patterns [begin, end) to the
/// sums of their outcomes.
template <class T, class S>
void add_tiles(const S& view, const TileWalk& walk, Index outcome, Index begin, Index end,
               T* sums) {
    alignas(64) T values[bit(tile_bits)];
    const OutcomeTile tile = walk.tile();
    const Index run = bit(walk.run_bits);
    walk_groups(walk.outer_free, deposit_bits(outcome, walk.outer_listed), begin, end,
                [&](Index base) {
                    T* to = values;
                    Index stream = 0;
                    do {
                        copy_probabilities(view, base | stream, run, to);
                        to += run;
                        stream = next_subset(stream, walk.stream_mask);
                    } while (stream != 0);
                    dispatch([&]<InstructionSet set>() {
                        add_by_outcome<set>(sums, static_cast<const T*>(values), tile);
                    });
                });
}

/// The sums of one worker, aligned for vectors.
template <class T>
class Sums {
  public:
    explicit Sums(Index count) : memory_(count + 64 / sizeof(T)) {}
    T* data() {
        const auto address = reinterpret_cast<std::uintptr_t>(memory_.data());
        return memory_.data() + (-address % 64) / sizeof(T);
    }

  private:
    std::vector<T> memory_;
};

/// With at least this many outer patterns for each worker the outcomes are shared out, else the
/// elements of every outcome.
constexpr Index min_outer_outcomes = 8;

/// Outer patterns whose sums are stored together. They differ in the highest listed index bits,
/// which lists in ascending order make the lowest bits of an outcome: stored one pattern at a time,
/// each sum would touch a cache line of its own.
constexpr unsigned int max_batch_bits = 4;

/// Calls `store(first, stride, n, sums, count)` with the sums of the outcomes first + i * stride +
/// s, i < n, s < count, at sums[i * count + s], until all are given; on several workers at once.
/// Outcomes are numbered by their compacted index bits.
template <class T, class S, class Store>
void sum_outcomes(const S& view, const Marginal& marginal, int num_threads, const Store& store) {
    const TileWalk walk(view.nqubits, marginal);
    const Index outer = walk.n_outer_outcomes();
    const Index per_tile = walk.outcomes_per_tile();
    const int workers = view.size < min_parallel_amplitudes ? 1 : get_num_threads(num_threads);
    if (workers == 1 || outer >= min_outer_outcomes * static_cast<Index>(std::max(workers, 1))) {
        const unsigned int outer_bits = count_bits(walk.outer_listed);
        const Index batch = bit(outer_bits < 2 * max_batch_bits ? 0 : max_batch_bits);
        const Index batches = outer / batch;
        run_team(workers, [&](int id, int team) {
            const Block own(batches, static_cast<Index>(id), static_cast<Index>(team), 1);
            Sums<T> sums(batch * per_tile);
            for (Index first = own.begin; first < own.end; ++first) {
                std::fill_n(sums.data(), batch * per_tile, T(0));
                for (Index i = 0; i < batch; ++i) {
                    add_tiles(view, walk, first + i * batches, 0, walk.n_outer_free(),
                              sums.data() + i * per_tile);
                }
                store(first * per_tile, batches * per_tile, batch, sums.data(), per_tile);
            }
        });
        return;
    }
    using OwnSums = std::unique_ptr<Sums<T>>;
    std::vector<OwnSums> sums_of = results_of_team<OwnSums>(workers, [&](int id, int team) {
        auto sums = std::make_unique<Sums<T>>(outer * per_tile);
        const Block own(walk.n_outer_free(), static_cast<Index>(id), static_cast<Index>(team), 1);
        for (Index outcome = 0; outcome < outer; ++outcome) {
            add_tiles(view, walk, outcome, own.begin, own.end, sums->data() + outcome * per_tile);
        }
        return sums;
    });
    T* const total = sums_of[0]->data();
    for (std::size_t w = 1; w < sums_of.size() && sums_of[w]; ++w) {
        for (Index s = 0; s < outer * per_tile; ++s)
            total[s] += sums_of[w]->data()[s];
    }
    store(0, 0, 1, total, outer * per_tile);
}

/// As `outcome_probabilities`, each sum passed through `keep` on its way out.
template <class S, class Keep>
void write_outcomes(const S& view, QubitSpan qubits, int num_threads, typename S::proba_type* out,
                    const Keep& keep) {
    using T = typename S::proba_type;
    const Marginal marginal(view.nqubits, qubits);
    if (count_bits(marginal.listed) < qubits.size()) {
        // Outcomes that disagree on a repeated qubit share the index bits of their union.
        std::vector<T> all(bit(count_bits(marginal.listed)));
        sum_outcomes<T>(view, marginal, num_threads,
                        [&](Index first, Index stride, Index n, const T* sums, Index count) {
                            for (Index i = 0; i < n; ++i)
                                std::copy_n(sums + i * count, count,
                                            all.data() + first + i * stride);
                        });
        for (Index v = 0; v < bit(static_cast<unsigned int>(qubits.size())); ++v)
            out[v] = keep(all[extract_bits(fixed_pattern(v, qubits), marginal.listed)]);
        return;
    }
    // Where the outcomes of a tile go relative to its first one.
    const unsigned int table_bits = std::min(count_bits(marginal.listed), tile_bits);
    std::vector<Index> places(bit(table_bits));
    for (Index s = 0; s < places.size(); ++s)
        places[s] = outcome_of(deposit_bits(s, marginal.listed), qubits);
    const auto place_of = [&](Index outcome) {
        return outcome_of(deposit_bits(outcome, marginal.listed), qubits);
    };
    sum_outcomes<T>(view, marginal, num_threads,
                    [&](Index first, Index stride, Index n, const T* sums, Index count) {
                        for (Index done = 0; done < count; done += places.size()) {
                            T* to[bit(max_batch_bits)];
                            for (Index i = 0; i < n; ++i)
                                to[i] = out + place_of(first + i * stride + done);
                            const Index end = std::min<Index>(count - done, places.size());
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
    return sum_over_blocks<T>(walk.count(), walk.count(), num_threads, [&](Index begin, Index end) {
        return sum_probabilities(view, walk, begin, end);
    });
}

template <sequence S>
void outcome_probabilities(S view, QubitSpan qubits, int num_threads, typename S::proba_type* out) {
    write_outcomes(view, qubits, num_threads, out, [](auto sum) { return sum; });
}

namespace {

/// The distributions read the list from its most significant bit.
std::vector<unsigned int> reversed(QubitSpan qubits) {
    return {qubits.rbegin(), qubits.rend()};
}

}  // namespace

template <class T, sequence_of_precision<T> S, bool>
void compute_marginal_distribution(S view, T* out, const T& threshold, QubitSpan qubits,
                                   int num_threads, unsigned long long) {
    const T limit = threshold * threshold;
    write_outcomes(view, reversed(qubits), num_threads, out,
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
    template void outcome_probabilities<S>(S, QubitSpan, int, T*);                            \
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
