// The sums of a batch of terms over tiles of the state: which blocks make up a tile, in which
// pieces the tiles are summed, and the partial sums on the way. Where the blocks come from is the
// caller's business: observables/pauli_sums.cpp walks a state in memory.
#pragma once

#include <span>
#include <vector>

#include "kernels/pauli_kernels.hpp"
#include "observables/pauli_batches.hpp"

namespace pblinalg::cpu {

/// The tiles of a batch over a state, in the order in which they are summed.
struct TermTiles {
    /// @param batch      must outlive the tiles.
    /// @param n_qubits   of the whole state.
    /// @param requested  workers; see `piece_count`.
    TermTiles(const TermBatch& batch, unsigned int n_qubits, unsigned int block_bits,
              int requested);

    /// The number of the block that a tile has at a place.
    Index block(Index tile, Index place) const {
        return deposit_bits(tile, free_mask) ^ numbers[place];
    }

    const TermBatch* batch;
    unsigned int block_bits;
    std::vector<Index> numbers;  ///< of a tile's blocks, relative to its first
    Index free_mask;             ///< bits of a block's number that tell tiles apart
    Index count;
    Index products;  ///< formed in all
    Index pieces;    ///< of [0, count), cut with a granule of 1; their sums are added in order
};

/// The sums of all terms of a batch over some tiles, one after the other.
template <class T>
class TileSums {
  public:
    /// @param tiles  must outlive the sums.
    explicit TileSums(const TermTiles& tiles);

    /// Adds the tile whose first block has number `first`; `blocks` lists where its blocks lie.
    void add(const T* const* blocks, Index first);
    /// Writes one value per term, group by group.
    void fold(T* values) const;
    void clear() { std::ranges::fill(partial(), T(0)); }
    /// What further tiles add to: handed to another object, it carries on there.
    std::span<T> partial() { return {sums_[0].parts, sums_.size() * sums_per_term<T>}; }

  private:
    struct alignas(64) TermSums {
        T parts[sums_per_term<T>] = {};
    };
    struct alignas(64) Scratch {
        T parts[2 << max_block_bits<T>];
    };

    T whole_sum(const TermGroup& group, Index sign_mask, T sum) const;

    const TermTiles* tiles_;
    std::vector<Index> partners_;  ///< by group: block j meets block j ^ partner
    std::vector<TermSums> sums_;
    std::vector<Scratch> scratch_;
};

/// The real part of value * i^power, given the part of the value that counts.
template <class T>
T with_phase(T value, unsigned int power) {
    return power % 4 == 1 || power % 4 == 2 ? -value : value;
}

}  // namespace pblinalg::cpu
