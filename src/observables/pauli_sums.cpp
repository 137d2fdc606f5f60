// The walk of a batch of terms over tiles of the state, and the fold of its sums. The products are
// summed in kernels/pauli_kernels.cpp.
#include "observables/pauli_sums.hpp"

#include <algorithm>
#include <utility>

#include "apply/gates.hpp"
#include "core/parallel.hpp"
#include "kernels/pauli_kernels.hpp"
#include "observables/pauli_batches.hpp"

namespace pblinalg::cpu {
namespace {

/// Partial sums of the groups of one batch, aligned for the widest vectors.
template <class T>
struct alignas(64) TermSums {
    T parts[sums_per_term<T>] = {};
};

template <class T>
struct alignas(64) Scratch {
    T parts[2 << max_block_bits<T>];
};

/// Products of amplitudes in a piece of a batch. Long enough for the fold of its sums not to count.
constexpr Index products_per_piece = 4 * piece_amplitudes;

/// The sums of the terms of one batch, group by group, over some of its tiles.
template <class T>
class TileSums {
  public:
    TileSums(const T* state, unsigned int block_bits, const TermBatch& batch)
        : state_(state),
          block_bits_(block_bits),
          batch_(batch),
          sums_(batch.n_terms()),
          scratch_(1) {}

    /// The sums over the tiles [begin, end).
    std::vector<T> of(const std::vector<Index>& tile, Index free_mask, Index begin, Index end) {
        const Index pivots = batch_.pivots();
        Index first = deposit_bits(begin, free_mask);
        for (Index i = begin; i < end; ++i) {
            add_tile(tile, pivots, first);
            first = next_subset(first, free_mask);
        }
        return folded();
    }

  private:
    void add_tile(const std::vector<Index>& tile, Index pivots, Index first) {
        TermSums<T>* sums = sums_.data();
        for (const TermGroup* group : batch_.groups) {
            const Index partner = extract_bits(group->flip >> block_bits_, pivots);
            // Blocks j and j ^ partner give the same products but for a sign that is known: one
            // of the two is enough.
            const Index skipped = lowest_bit(partner);
            for (Index j = 0; j < tile.size(); ++j) {
                if (j & skipped) continue;
                add_blocks(*group, first ^ tile[j], first ^ tile[j ^ partner], sums->parts);
            }
            sums += group->terms.size();
        }
    }

    void add_blocks(const TermGroup& group, Index left, Index right, T* sums) {
        const BlockPair<T> blocks{block(left), block(right), block_bits_, left,
                                  group.flip & low_mask(block_bits_)};
        dispatch([&]<InstructionSet set>() {
            add_signed_products<set, T>(blocks, group.imaginary, group.sign_masks.data(),
                                        group.terms.size(), sums, scratch_[0].parts);
        });
    }

    const T* block(Index number) const { return state_ + 2 * (number << block_bits_); }

    std::vector<T> folded() const {
        std::vector<T> values;
        values.reserve(sums_.size());
        const TermSums<T>* sums = sums_.data();
        for (const TermGroup* group : batch_.groups) {
            for (const Index sign_mask : group->sign_masks) {
                const T sum = dispatch([&]<InstructionSet set>() {
                    return fold_signed_sums<set, T>(sums->parts, sign_mask, group->imaginary);
                });
                values.push_back(whole_sum(*group, sign_mask, sum));
                ++sums;
            }
        }
        return values;
    }

    /// The sum over all indices, given that over one of each pair of blocks.
    T whole_sum(const TermGroup& group, Index sign_mask, T sum) const {
        if (group.flip >> block_bits_ == 0) return sum;
        const bool halves_add = (count_bits(group.flip & sign_mask) % 2 != 0) == group.imaginary;
        return halves_add ? sum + sum : sum - sum;
    }

    const T* state_;
    unsigned int block_bits_;
    const TermBatch& batch_;
    std::vector<TermSums<T>> sums_;
    std::vector<Scratch<T>> scratch_;
};

/// The real part of value * i^power, given the part of the value that counts.
template <class T>
T with_phase(T value, unsigned int power) {
    return power % 4 == 1 || power % 4 == 2 ? -value : value;
}

}  // namespace

template <class T>
std::vector<T> pauli_sums(const std::complex<T>* amplitudes, const WObservable<T>& observable,
                          unsigned long long size, int num_threads) {
    static_assert(min_pauli_sums_size == bit(min_pauli_block_bits));
    const unsigned int size_bits = count_bits(size - 1);
    const unsigned int block_bits = std::min(size_bits, max_block_bits<T>);
    const Index n_terms = observable.flip_masks.size();

    const std::vector<TermGroup> groups = group_terms(observable);
    const std::vector<TermBatch> batches = batch_groups(groups, block_bits);

    std::vector<T> values(n_terms);
    for (const TermBatch& batch : batches) {
        const std::vector<Index> tile = batch.tile();
        const Index free_mask = low_mask(size_bits - block_bits) & ~batch.pivots();
        const Index n_tiles = bit(count_bits(free_mask));
        const Index products = size * batch.groups.size();
        const Index pieces =
            std::min(n_tiles, piece_count(products, num_threads, products_per_piece));
        const auto sums_of = [&](Index begin, Index end) {
            return TileSums<T>(parts(amplitudes), block_bits, batch)
                .of(tile, free_mask, begin, end);
        };
        const int workers = workers_for(products, num_threads);
        for (const std::vector<T>& sums :
             results_of_pieces<std::vector<T>>(n_tiles, pieces, workers, sums_of, 1)) {
            Index k = 0;
            for (const TermGroup* group : batch.groups) {
                for (const Index t : group->terms)
                    values[t] += sums[k++];
            }
        }
    }
    for (Index t = 0; t < n_terms; ++t)
        values[t] = with_phase(values[t], observable.phase_powers[t]);
    return values;
}

template std::vector<float> pauli_sums<float>(const std::complex<float>*, const WObservable<float>&,
                                              unsigned long long, int);
template std::vector<double> pauli_sums<double>(const std::complex<double>*,
                                                const WObservable<double>&, unsigned long long,
                                                int);

template <class T>
std::vector<std::vector<unsigned long long>> passes_of_terms(const WObservable<T>& observable,
                                                             unsigned long long size) {
    const unsigned int block_bits = std::min(count_bits(size - 1), max_block_bits<T>);
    const std::vector<TermGroup> groups = group_terms(observable);
    std::vector<std::vector<unsigned long long>> passes;
    for (const TermBatch& batch : batch_groups(groups, block_bits)) {
        std::vector<unsigned long long>& pass = passes.emplace_back();
        for (const TermGroup* group : batch.groups)
            pass.insert(pass.end(), group->terms.begin(), group->terms.end());
        std::sort(pass.begin(), pass.end());
    }
    return passes;
}

template std::vector<std::vector<unsigned long long>> passes_of_terms<float>(
    const WObservable<float>&, unsigned long long);
template std::vector<std::vector<unsigned long long>> passes_of_terms<double>(
    const WObservable<double>&, unsigned long long);

}  // namespace pblinalg::cpu
