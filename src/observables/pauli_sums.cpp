// The walk of batches of terms over a state in memory. The sums of a batch are those of
// observables/tile_sums.hpp.
#include "observables/pauli_sums.hpp"

#include <algorithm>
#include <utility>

#include "apply/gates.hpp"
#include "core/parallel.hpp"
#include "observables/tile_sums.hpp"

namespace pblinalg::cpu {
namespace {

/// The sums of the terms of a batch over the tiles [begin, end) of a state in memory.
template <class T>
std::vector<T> sums_of_tiles(const T* state, const TermTiles& tiles, Index begin, Index end) {
    TileSums<T> sums(tiles);
    std::vector<T> values(tiles.batch->n_terms());
    const T* blocks[bit(max_spanned_bits)];
    Index first = deposit_bits(begin, tiles.free_mask);
    for (Index i = begin; i < end; ++i) {
        for (std::size_t j = 0; j < tiles.numbers.size(); ++j)
            blocks[j] = state + 2 * ((first ^ tiles.numbers[j]) << tiles.block_bits);
        sums.add(blocks, first);
        first = next_subset(first, tiles.free_mask);
    }
    sums.fold(values.data());
    return values;
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
        const TermTiles tiles(batch, size_bits, block_bits, num_threads);
        const auto sums_of = [&](Index begin, Index end) {
            return sums_of_tiles(parts(amplitudes), tiles, begin, end);
        };
        const int workers = workers_for(tiles.products, num_threads);
        for (const std::vector<T>& sums :
             results_of_pieces<std::vector<T>>(tiles.count, tiles.pieces, workers, sums_of, 1)) {
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
