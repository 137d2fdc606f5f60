// Sampling: many shots share one scan of running sums, each getting what its own would have found.
#include "readout/sampling.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <pblinalg/state_vector_cpu.hpp>
#include <random>
#include <span>
#include <vector>

#include "core/parallel.hpp"
#include "readout/draws.hpp"
#include "readout/probabilities.hpp"

namespace pblinalg::cpu {
namespace {

/// From an element index to the outcome over listed qubits, four index bits at a time.
class OutcomeTable {
  public:
    OutcomeTable(unsigned int n, QubitSpan qubits) {
        std::array<Index, 64> outcome_bits{};
        if (qubits.empty()) {
            for (unsigned int q = 0; q < n; ++q)
                outcome_bits[q] = bit(n - 1 - q);
        } else {
            for (std::size_t j = 0; j < qubits.size(); ++j)
                outcome_bits[qubits[j] % 64] |= bit((qubits.size() - 1 - j) % 64);
        }
        for (const Index bits : outcome_bits)
            of_all_ones_ |= bits;
        digits_ = (n + 3) / 4;
        for (unsigned int d = 0; d < digits_; ++d) {
            for (unsigned int value = 1; value < 16; ++value) {
                const Index rest = table_[d][value & (value - 1)];
                table_[d][value] = rest | outcome_bits[4 * d + count_bits(lowest_bit(value) - 1)];
            }
        }
    }

    /// For an index below 2^n.
    Index operator()(Index index) const {
        Index outcome = 0;
        for (unsigned int d = 0; d < digits_; ++d)
            outcome |= table_[d][index >> 4 * d & 15];
        return outcome;
    }
    Index of_all_ones() const { return of_all_ones_; }

  private:
    unsigned int digits_;
    std::array<std::array<Index, 16>, 16> table_{};
    Index of_all_ones_ = 0;
};

/// sums[i] = sum + values[0] + ... + values[i], added one by one.
/// @return the last of them.
template <class T>
T add_running(const T* values, Index count, T sum, T* sums) {
    for (Index i = 0; i < count; ++i) {
        sum += values[i];
        sums[i] = sum;
    }
    return sum;
}

/// Running sums are kept at the start of every block and replayed for a page of blocks at once:
/// chains of additions that advance side by side hide each other's latency.
constexpr Index block_size = 128;
constexpr Index blocks_per_page = 8;
constexpr Index page_size = block_size * blocks_per_page;

/// The running sums of a view. The first element whose sum is at least u is found by running
/// maxima: the sums themselves fall where a matrix has negative diagonal entries, and a sum that is
/// NaN, which all later ones then are, compares with nothing.
template <class S>
class RunningSums {
  public:
    using T = typename S::proba_type;

    explicit RunningSums(const S& view) : view_(view) {
        const Index pages = (view.size + page_size - 1) / page_size;
        starts_.reserve(pages * blocks_per_page);
        maxima_.reserve(pages);
    }

    /// Scans on until some sum is at least `u` or all elements are added.
    void extend_to(T u) {
        alignas(64) T values[page_size];
        alignas(64) T sums[page_size];
        while (!reach(u) && maxima_.size() * page_size < view_.size) {
            const Index count = read_page(maxima_.size(), values);
            for (Index first = 0; first < page_size; first += block_size) {
                starts_.push_back(sum_);
                if (first >= count) continue;
                const Index length = std::min(block_size, count - first);
                sum_ = add_running(values + first, length, sum_, sums + first);
            }
            if (S::never_negative && sum_ >= maximum_) {
                maximum_ = sum_;
            } else {
                for (Index i = 0; i < count; ++i)
                    maximum_ = sums[i] > maximum_ ? sums[i] : maximum_;
            }
            maxima_.push_back(maximum_);
        }
    }

    /// True when a sum of at least `u` has been scanned.
    bool reach(T u) const { return maximum_ >= u; }

    /// The first page at or after `page` that holds a sum of at least `u`.
    Index find_page(Index page, T u) const {
        if (maxima_[page] >= u) return page;
        const auto first = maxima_.begin() + static_cast<std::ptrdiff_t>(page);
        return static_cast<Index>(std::lower_bound(first, maxima_.end(), u) - maxima_.begin());
    }

    /// Writes the running sums of the scanned `page`.
    void replay(Index page, T* sums) const {
        alignas(64) T values[page_size];
        const Index count = read_page(page, values);
        const T* const starts = starts_.data() + page * blocks_per_page;
        if (count < page_size) {
            add_running(values, count, starts[0], sums);
            return;
        }
        T running[blocks_per_page];
        std::copy_n(starts, blocks_per_page, running);
        for (Index i = 0; i < block_size; ++i) {
            for (Index b = 0; b < blocks_per_page; ++b) {
                running[b] += values[b * block_size + i];
                sums[b * block_size + i] = running[b];
            }
        }
    }

  private:
    Index read_page(Index page, T* values) const {
        const Index count = std::min<Index>(page_size, view_.size);
        copy_probabilities(view_, page * page_size, count, values, (page + 1) * page_size);
        return count;
    }

    S view_;
    T sum_ = 0;
    T maximum_ = 0;
    std::vector<T> starts_;
    std::vector<T> maxima_;
};

struct Draw {
    std::uint64_t value;
    std::uint32_t shot;
};

/// Draws sorted coarsely: those of a later bucket are larger.
class DrawBuckets {
  public:
    explicit DrawBuckets(const std::vector<std::uint64_t>& draws) : draws_(draws.size()) {
        unsigned int bits = 0;
        while (draws.size() >> bits > mean_bucket && bits < max_bits)
            ++bits;
        ends_.assign(bit(bits) + 1, 0);
        const auto bucket_of = [bits](std::uint64_t value) { return value >> 1 >> (63 - bits); };
        for (const std::uint64_t value : draws)
            ++ends_[bucket_of(value) + 1];
        for (Index b = 1; b < ends_.size(); ++b)
            ends_[b] += ends_[b - 1];
        std::vector<std::uint32_t> next(ends_.begin(), ends_.end() - 1);
        for (std::size_t shot = 0; shot < draws.size(); ++shot) {
            draws_[next[bucket_of(draws[shot])]++] = {draws[shot],
                                                      static_cast<std::uint32_t>(shot)};
        }
    }

    Index count() const { return ends_.size() - 1; }

    /// The draws of one bucket in increasing order.
    std::span<const Draw> sorted(Index bucket) {
        const std::span<Draw> own(draws_.data() + ends_[bucket], draws_.data() + ends_[bucket + 1]);
        std::sort(own.begin(), own.end(),
                  [](const Draw& x, const Draw& y) { return x.value < y.value; });
        return own;
    }

  private:
    // Buckets that `std::sort` finishes by insertion alone.
    static constexpr std::size_t mean_bucket = 8;
    static constexpr unsigned int max_bits = 17;
    std::vector<std::uint32_t> ends_;
    std::vector<Draw> draws_;
};

/// Answers the draws of `buckets` [begin, end).
template <class S>
void answer_buckets(const S& view, const RunningSums<S>& sums, const OutcomeTable& outcome_of,
                    DrawBuckets& buckets, Index begin, Index end, unsigned long long* out) {
    using T = typename S::proba_type;
    constexpr Index none = ~Index{0};
    alignas(64) T page_sums[page_size];
    Index page = none;
    Index i = 0;
    for (Index b = begin; b < end; ++b) {
        for (const Draw& draw : buckets.sorted(b)) {
            const T u = unit_interval<T>(draw.value);
            if (!(u > 0)) {
                out[draw.shot] = outcome_of.of_all_ones();
            } else if (!sums.reach(u)) {
                out[draw.shot] = outcome_of(view.size - 1);
            } else {
                const Index found = sums.find_page(page == none ? 0 : page, u);
                if (found != page) {
                    page = found;
                    sums.replay(page, page_sums);
                    i = 0;
                }
                while (!(page_sums[i] >= u))
                    ++i;
                out[draw.shot] = outcome_of(page * page_size + i);
            }
        }
    }
}

/// For states with few elements: the running maxima of all, and for each of `guide_size` equal
/// parts of [0, 1) the first element that a draw in it can select.
template <class S>
class OutcomeGuide {
  public:
    using T = typename S::proba_type;
    static constexpr unsigned int guide_bits = 12;
    static constexpr Index guide_size = Index{1} << guide_bits;

    /// @param view  at most `guide_size` elements.
    explicit OutcomeGuide(const S& view) : size_(view.size) {
        copy_probabilities(view, 0, size_, maxima_, 0);
        add_running(maxima_, size_, T(0), maxima_);
        for (Index k = 0; k < size_; ++k) {
            const T before = k > 0 ? maxima_[k - 1] : T(0);
            maxima_[k] = maxima_[k] > before ? maxima_[k] : before;
        }
        Index element = 0;
        for (Index part = 0; part < guide_size; ++part) {
            element = find(element, static_cast<T>(part) / T(guide_size));
            first_[part] = static_cast<std::uint32_t>(element);
        }
    }

    Index select(std::uint64_t draw, T u) const {
        return find(first_[draw >> (64 - guide_bits)], u);
    }

  private:
    /// The first element at or after `element` whose sum is at least `u`, or the last element.
    Index find(Index element, T u) const {
        while (element + 1 < size_ && !(maxima_[element] >= u))
            ++element;
        return element;
    }

    Index size_;
    alignas(64) T maxima_[guide_size];
    std::uint32_t first_[guide_size];
};

/// Takes `nshots` draws in chunks and calls `answer(draws, out)` for each chunk.
template <class RNG, class Answer>
void for_each_chunk(RNG& rng, unsigned long long nshots, Index chunk, unsigned long long* out,
                    const Answer& answer) {
    std::vector<std::uint64_t> draws;
    for (Index first = 0; first < nshots; first += draws.size()) {
        draws.resize(std::min<Index>(chunk, nshots - first));
        take_draws(rng, draws.data(), draws.size());
        answer(draws, out + first);
    }
}

/// Many shots of few elements: each is looked up by itself.
template <class RNG, class S>
void pick_by_guide(const S& view, unsigned long long* out, RNG& rng, unsigned long long nshots,
                   int num_threads, const OutcomeTable& outcome_of, Index chunk) {
    const OutcomeGuide<S> guide(view);
    for_each_chunk(rng, nshots, chunk, out, [&](const auto& draws, unsigned long long* own) {
        for_each_block(draws.size(), draws.size(), num_threads, [&](Index begin, Index end) {
            for (Index shot = begin; shot < end; ++shot) {
                const auto u = unit_interval<typename S::proba_type>(draws[shot]);
                own[shot] =
                    u > 0 ? outcome_of(guide.select(draws[shot], u)) : outcome_of.of_all_ones();
            }
        });
    });
}

/// Any other shots: one scan answers all of a chunk, in increasing order.
template <class RNG, class S>
void pick_by_scan(const S& view, unsigned long long* out, RNG& rng, unsigned long long nshots,
                  int num_threads, const OutcomeTable& outcome_of, Index chunk) {
    using T = typename S::proba_type;
    RunningSums<S> sums(view);
    for_each_chunk(rng, nshots, chunk, out, [&](const auto& draws, unsigned long long* own) {
        const T largest = unit_interval<T>(*std::max_element(draws.begin(), draws.end()));
        const Index work = std::max<Index>(view.size, draws.size());
        const int workers = workers_for(work, num_threads);
        std::optional<DrawBuckets> buckets;
        run_team(workers, [&](int id, int team) {
            if (id == 0) sums.extend_to(largest);
            if (id == team - 1) buckets.emplace(draws);
        });
        run_team(workers, [&](int id, int team) {
            const Block share(buckets->count(), static_cast<Index>(id), static_cast<Index>(team),
                              1);
            answer_buckets(view, sums, outcome_of, *buckets, share.begin, share.end, own);
        });
    });
}

}  // namespace

template <class RNG, sequence S>
void pick_shots_state(S view, unsigned long long* out, RNG& rng, unsigned long long nshots,
                      int num_threads, QubitSpan qubits, unsigned long long chunk) {
    const OutcomeTable outcome_of(view.nqubits, qubits);
    constexpr Index guide_size = OutcomeGuide<S>::guide_size;
    if (view.size <= guide_size && nshots >= guide_size) {
        pick_by_guide(view, out, rng, nshots, num_threads, outcome_of, chunk);
    } else {
        pick_by_scan(view, out, rng, nshots, num_threads, outcome_of, chunk);
    }
}

template <class RNG, sequence S>
unsigned long long pick_state(S view, RNG& rng, QubitSpan qubits) {
    unsigned long long outcome;
    pick_shots_state(view, &outcome, rng, 1, 1, qubits);
    return outcome;
}

#define PBLINALG_INSTANTIATE_VIEW(S)                                                             \
    template void pick_shots_state<std::mt19937_64, S>(S, unsigned long long*, std::mt19937_64&, \
                                                       unsigned long long, int, QubitSpan,       \
                                                       unsigned long long);                      \
    template unsigned long long pick_state<std::mt19937_64, S>(S, std::mt19937_64&, QubitSpan);
PBLINALG_INSTANTIATE_VIEW(SVSequence<std::complex<float>>)
PBLINALG_INSTANTIATE_VIEW(SVSequence<std::complex<double>>)
PBLINALG_INSTANTIATE_VIEW(DMDiagSequence<float>)
PBLINALG_INSTANTIATE_VIEW(DMDiagSequence<double>)
#undef PBLINALG_INSTANTIATE_VIEW

template <class T>
void PybindLinAlgStateVectorCPU<T>::sample(unsigned long long* out, unsigned long long nshots) {
    sample_subset(out, {}, nshots);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::sample_subset(unsigned long long* out, const Qubits& qubits,
                                                  unsigned long long nshots) {
    with_view(*this,
              [&](auto view) { pick_shots_state(view, out, rng, nshots, num_threads, qubits); });
}

template <class T>
unsigned long long PybindLinAlgStateVectorCPU<T>::measure(const Qubits& qubits) {
    return with_view(*this, [&](auto view) { return pick_state(view, rng, qubits); });
}

#define PBLINALG_INSTANTIATE(T)                                                                    \
    template void PybindLinAlgStateVectorCPU<T>::sample(unsigned long long*, unsigned long long);  \
    template void PybindLinAlgStateVectorCPU<T>::sample_subset(unsigned long long*, const Qubits&, \
                                                               unsigned long long);                \
    template unsigned long long PybindLinAlgStateVectorCPU<T>::measure(const Qubits&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
