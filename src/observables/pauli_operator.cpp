#include "observables/pauli_operator.hpp"

#include <algorithm>

#include "core/complex_math.hpp"
#include "core/instruction_set.hpp"
#include "core/parallel.hpp"
#include "kernels/pauli_kernels.hpp"
#include "observables/pauli_batches.hpp"

namespace pblinalg::cpu {

template <class T>
void apply_pauli_sum(const std::complex<T>* from, std::complex<T>* to,
                     const WObservable<T>& observable, unsigned long long size, int num_threads) {
    const unsigned int size_bits = count_bits(size - 1);
    const unsigned int block_bits = std::min(size_bits, max_block_bits<T>);
    const Index block_parts = Index{2} << block_bits;
    const std::vector<TermGroup> groups = group_terms(observable);
    std::vector<TermBatch> batches = batch_groups(groups, block_bits);
    if (batches.empty()) batches.emplace_back();
    // With their phases i^power the weights are real, or all of a group are multiples of i.
    std::vector<std::vector<T>> weights(groups.size());
    for (std::size_t g = 0; g < groups.size(); ++g) {
        for (const Index t : groups[g].terms) {
            const T weight = observable.coefficients[t].real();
            weights[g].push_back(observable.phase_powers[t] % 4 < 2 ? weight : -weight);
        }
    }
    for (const TermBatch& batch : batches) {
        const bool first_batch = &batch == &batches.front();
        const std::vector<Index> tile = batch.tile();
        const Index pivots = batch.pivots();
        const Index free_mask = low_mask(size_bits - block_bits) & ~pivots;
        const auto add_to_block = [&](Index first, Index j) {
            T* const block = parts(to) + (first ^ tile[j]) * block_parts;
            if (first_batch) std::fill_n(block, block_parts, T(0));
            for (const TermGroup* group : batch.groups) {
                const Index partner = extract_bits(group->flip >> block_bits, pivots);
                const Index source = first ^ tile[j ^ partner];
                const SignedTerms<T> terms{
                    block_bits,
                    group->flip & low_mask(block_bits),
                    group->imaginary,
                    group->sign_masks.data(),
                    weights[static_cast<std::size_t>(group - groups.data())].data(),
                    group->terms.size()};
                dispatch([&]<InstructionSet set>() {
                    add_signed_amplitudes<set, T>(parts(from) + source * block_parts, source, block,
                                                  terms);
                });
            }
        };
        for_each_block(
            bit(count_bits(free_mask)), size, num_threads,
            [&](Index begin, Index end) {
                Index first = deposit_bits(begin, free_mask);
                for (Index i = begin; i < end; ++i, first = next_subset(first, free_mask)) {
                    for (Index j = 0; j < tile.size(); ++j)
                        add_to_block(first, j);
                }
            },
            1);
    }
}

#define PBLINALG_INSTANTIATE(T)                                                \
    template void apply_pauli_sum<T>(const std::complex<T>*, std::complex<T>*, \
                                     const WObservable<T>&, unsigned long long, int);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
