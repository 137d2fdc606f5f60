// Terms of an observable grouped by what they read: those that flip the same bits, and of these the
// ones that find all they need in one tile of the state.
#pragma once

#include <algorithm>
#include <pblinalg/observable.hpp>
#include <vector>

#include "core/bits.hpp"

namespace pblinalg::cpu {

/// Two blocks and the products between them lie in the first-level cache.
template <class T>
inline constexpr unsigned int max_block_bits = sizeof(T) == sizeof(double) ? 9 : 10;

/// Blocks of a tile, which is read from memory once for all masks of a batch; a tile lies in the
/// second-level cache.
inline constexpr unsigned int max_spanned_bits = 6;

/// Terms that sum the same part of the same products.
struct TermGroup {
    Index flip;
    bool imaginary;
    std::vector<Index> sign_masks;
    std::vector<Index> terms;  ///< their positions in the observable
};

/// Groups whose flip masks, above the bits of a block, lie in the span of at most
/// `max_spanned_bits` masks. Blocks that differ by that span form a tile; the groups need nothing
/// outside of it.
class TermBatch {
  public:
    std::vector<const TermGroup*> groups;

    /// Takes `group` unless the span would grow too large. `high_flip` is its mask of block
    /// numbers.
    bool add(const TermGroup* group, Index high_flip) {
        for (const Index vector : span_) {
            if (high_flip & pivot(vector)) high_flip ^= vector;
        }
        if (high_flip != 0) {
            if (span_.size() == max_spanned_bits) return false;
            // Every pivot is kept the only vector with its bit.
            for (Index& vector : span_) {
                if (vector & pivot(high_flip)) vector ^= high_flip;
            }
            span_.push_back(high_flip);
            std::sort(span_.begin(), span_.end(),
                      [](Index a, Index b) { return pivot(a) < pivot(b); });
        }
        groups.push_back(group);
        return true;
    }

    Index n_terms() const {
        Index count = 0;
        for (const TermGroup* group : groups)
            count += group->terms.size();
        return count;
    }

    /// Block numbers of the tile relative to its first: entry j has bit b of j at pivot b.
    std::vector<Index> tile() const {
        std::vector<Index> numbers = {0};
        for (const Index vector : span_) {
            const std::size_t filled = numbers.size();
            for (std::size_t j = 0; j < filled; ++j)
                numbers.push_back(numbers[j] ^ vector);
        }
        return numbers;
    }

    /// The bits by which the blocks of a tile are told apart.
    Index pivots() const {
        Index mask = 0;
        for (const Index vector : span_)
            mask |= pivot(vector);
        return mask;
    }

  private:
    static Index pivot(Index vector) { return lowest_bit(vector); }

    std::vector<Index> span_;  ///< reduced, by increasing pivot
};

template <class T>
std::vector<TermGroup> group_terms(const WObservable<T>& observable);

/// @param groups  must outlive the batches.
std::vector<TermBatch> batch_groups(const std::vector<TermGroup>& groups, unsigned int block_bits);

}  // namespace pblinalg::cpu
