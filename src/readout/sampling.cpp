// Sampling: many shots share one scan of running sums, each getting what its own would have found.
#include "readout/sampling.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <pblinalg/state_vector_cpu.hpp>
#include <random>
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

constexpr unsigned int scan_bits = 8;
constexpr Index scan_size = Index{1} << scan_bits;

/// sums[i] = sum + values[0] + ... + values[i], added one by one.
template <class T>
T add_running(const T* values, Index count, T sum, T* sums) {
    for (Index i = 0; i < count; ++i) {
        sum += values[i];
        sums[i] = sum;
    }
    return sum;
}

/// The running sums of a view, kept at the borders of blocks of `scan_size` elements and replayed
/// inside a block on demand.
///
/// The first element whose sum is at least u is found by running maxima: the sums themselves fall
/// where a matrix has negative diagonal entries, and a sum that is NaN, which all later ones then
/// are, compares with nothing.
template <class S>
class RunningSums {
  public:
    using T = typename S::proba_type;

    explicit RunningSums(const S& view) : view_(view) {
        const Index blocks = (view.size + scan_size - 1) / scan_size;
        starts_.reserve(blocks);
        maxima_.reserve(blocks);
    }

    /// Scans on until some sum is at least `u` or all elements are added.
    void extend_to(T u) {
        while (!(maximum_ >= u) && starts_.size() * scan_size < view_.size) {
            starts_.push_back(sum_);
            alignas(64) T sums[scan_size];
            const Index count = replay(starts_.size() - 1, sums);
            sum_ = sums[count - 1];
            for (Index i = 0; i < count; ++i)
                maximum_ = sums[i] > maximum_ ? sums[i] : maximum_;
            maxima_.push_back(maximum_);
        }
    }

    /// The first block at or after `block` that holds a sum of at least `u`.
    Index find_block(Index block, T u) const {
        if (maxima_[block] >= u) return block;
        return static_cast<Index>(
            std::lower_bound(maxima_.begin() + static_cast<std::ptrdiff_t>(block), maxima_.end(),
                             u) -
            maxima_.begin());
    }

    bool reach(T u) const { return maximum_ >= u; }

    /// Writes the running sums of `block`.
    /// @return their number.
    Index replay(Index block, T* sums) const {
        alignas(64) T values[scan_size];
        const Index count = std::min(scan_size, Index{view_.size});
        copy_probabilities(view_, block * scan_size, count, values);
        add_running(values, count, starts_[block], sums);
        return count;
    }

  private:
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

/// Draws in increasing order of value, coarsely: those of a later bucket are larger.
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
        for (std::size_t shot = 0; shot < draws.size(); ++shot)
            draws_[next[bucket_of(draws[shot])]++] = {draws[shot],
                                                      static_cast<std::uint32_t>(shot)};
    }

    Index count() const { return ends_.size() - 1; }
    Draw* begin(Index bucket) { return draws_.data() + ends_[bucket]; }
    Draw* end(Index bucket) { return draws_.data() + ends_[bucket + 1]; }

  private:
    static constexpr std::size_t mean_bucket = 64;
    static constexpr unsigned int max_bits = 16;
    std::vector<std::uint32_t> ends_;
    std::vector<Draw> draws_;
};

/// Answers the draws of `buckets` [begin, end).
template <class S>
void answer_buckets(const S& view, const RunningSums<S>& sums, const OutcomeTable& outcome_of,
                    DrawBuckets& buckets, Index begin, Index end, unsigned long long* out) {
    using T = typename S::proba_type;
    constexpr Index none = ~Index{0};
    alignas(64) T block_sums[scan_size];
    Index block = none;
    Index i = 0;
    for (Index b = begin; b < end; ++b) {
        std::sort(buckets.begin(b), buckets.end(b),
                  [](const Draw& x, const Draw& y) { return x.value < y.value; });
        for (const Draw* draw = buckets.begin(b); draw != buckets.end(b); ++draw) {
            const T u = unit_interval<T>(draw->value);
            if (!(u > 0)) {
                out[draw->shot] = outcome_of.of_all_ones();
            } else if (!sums.reach(u)) {
                out[draw->shot] = outcome_of(view.size - 1);
            } else {
                const Index found = sums.find_block(block == none ? 0 : block, u);
                if (found != block) {
                    block = found;
                    sums.replay(block, block_sums);
                    i = 0;
                }
                while (!(block_sums[i] >= u))
                    ++i;
                out[draw->shot] = outcome_of(block * scan_size + i);
            }
        }
    }
}

/// Draws held at once, so that memory does not grow with the number of shots.
constexpr Index max_draws = Index{1} << 22;

}  // namespace

template <class RNG, sequence S>
void pick_shots_state(S view, unsigned long long* out, RNG& rng, unsigned long long nshots,
                      int num_threads, QubitSpan qubits) {
    using T = typename S::proba_type;
    const OutcomeTable outcome_of(view.nqubits, qubits);
    RunningSums<S> sums(view);
    std::vector<std::uint64_t> draws;
    for (Index first = 0; first < nshots; first += draws.size()) {
        draws.resize(std::min<Index>(max_draws, nshots - first));
        take_draws(rng, draws.data(), draws.size());
        const T largest = unit_interval<T>(*std::max_element(draws.begin(), draws.end()));
        std::optional<DrawBuckets> buckets;
        const int workers = std::max<Index>(view.size, draws.size()) < min_parallel_amplitudes
                                ? 1
                                : get_num_threads(num_threads);
        run_team(workers, [&](int id, int team) {
            if (id == 0) sums.extend_to(largest);
            if (id == team - 1) buckets.emplace(draws);
        });
        run_team(workers, [&](int id, int team) {
            const Block own(buckets->count(), static_cast<Index>(id), static_cast<Index>(team), 1);
            answer_buckets(view, sums, outcome_of, *buckets, own.begin, own.end, out + first);
        });
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
                                                       unsigned long long, int, QubitSpan);      \
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
