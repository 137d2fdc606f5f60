#include "observables/tile_sums.hpp"

#include <algorithm>

#include "core/parallel.hpp"

namespace pblinalg::cpu {
namespace {

/// Products of amplitudes in a piece of a batch. Long enough for the fold of its sums not to count.
constexpr Index products_per_piece = 4 * piece_amplitudes;

}  // namespace

TermTiles::TermTiles(const TermBatch& batch, unsigned int n_qubits, unsigned int block_bits,
                     int requested)
    : batch(&batch),
      block_bits(block_bits),
      numbers(batch.tile()),
      free_mask(low_mask(n_qubits - block_bits) & ~batch.pivots()),
      count(bit(count_bits(free_mask))),
      products(bit(n_qubits) * batch.groups.size()),
      pieces(std::min(count, piece_count(products, requested, products_per_piece))) {}

template <class T>
TileSums<T>::TileSums(const TermTiles& tiles)
    : tiles_(&tiles), sums_(tiles.batch->n_terms()), scratch_(1) {
    const Index pivots = tiles.batch->pivots();
    for (const TermGroup* const group : tiles.batch->groups)
        partners_.push_back(extract_bits(group->flip >> tiles.block_bits, pivots));
}

template <class T>
void TileSums<T>::add(const T* const* blocks, Index first) {
    const unsigned int block_bits = tiles_->block_bits;
    const Index n_blocks = tiles_->numbers.size();
    TermSums* sums = sums_.data();
    for (std::size_t g = 0; g < partners_.size(); ++g) {
        const TermGroup& group = *tiles_->batch->groups[g];
        const Index partner = partners_[g];
        // Blocks j and j ^ partner give the same products but for a sign that is known: one of the
        // two is enough.
        const Index skipped = lowest_bit(partner);
        for (Index j = 0; j < n_blocks; ++j) {
            if (j & skipped) continue;
            const BlockPair<T> pair{blocks[j], blocks[j ^ partner], block_bits,
                                    first ^ tiles_->numbers[j], group.flip & low_mask(block_bits)};
            dispatch([&]<InstructionSet set>() {
                add_signed_products<set, T>(pair, group.imaginary, group.sign_masks.data(),
                                            group.terms.size(), sums->parts, scratch_[0].parts);
            });
        }
        sums += group.terms.size();
    }
}

template <class T>
void TileSums<T>::fold(T* values) const {
    const TermSums* sums = sums_.data();
    for (const TermGroup* group : tiles_->batch->groups) {
        for (const Index sign_mask : group->sign_masks) {
            const T sum = dispatch([&]<InstructionSet set>() {
                return fold_signed_sums<set, T>(sums->parts, sign_mask, group->imaginary);
            });
            *values++ = whole_sum(*group, sign_mask, sum);
            ++sums;
        }
    }
}

/// The sum over all indices, given that over one of each pair of blocks.
template <class T>
T TileSums<T>::whole_sum(const TermGroup& group, Index sign_mask, T sum) const {
    if (group.flip >> tiles_->block_bits == 0) return sum;
    const bool halves_add = (count_bits(group.flip & sign_mask) % 2 != 0) == group.imaginary;
    return halves_add ? sum + sum : sum - sum;
}

template class TileSums<float>;
template class TileSums<double>;

}  // namespace pblinalg::cpu
