// Where the index bits of a state lie that is spread over ranks: each qubit on a bit of the index
// within a rank, or on a bit of the rank's number. Ranks are renumbered linearly, so X and CNOT
// among such bits move no data. What data has to move is decided in rank_plan.hpp and done in
// exchange.hpp.
#pragma once

#include <span>
#include <vector>

#include "core/bits.hpp"

namespace pblinalg::mpi {

using cpu::Index;

/// The bits of listed qubits.
Index mask_of(std::span<const unsigned int> qubits);

/// Numbers of the ranks: number = a linear map of the rank, with some bits flipped. Both directions
/// are kept.
class RankNumbers {
  public:
    explicit RankNumbers(unsigned int bits);

    Index number_of(Index rank) const;
    Index rank_of(Index number) const;

    void flip(unsigned int bit) { flips_ ^= cpu::bit(bit); }
    /// Flips bit `target` of the numbers with bit `control` set.
    void add(unsigned int control, unsigned int target);
    /// Two bits of the numbers change places.
    void exchange(unsigned int a, unsigned int b);

    friend bool operator==(const RankNumbers&, const RankNumbers&) = default;

  private:
    std::vector<Index> rows_;     ///< bit b of a number is the parity of the rank under rows_[b]
    std::vector<Index> columns_;  ///< a number's bit b adds columns_[b] to the rank
    Index flips_ = 0;
};

/// A bit within a rank and one of the rank's number that change places.
struct BitSwap {
    unsigned int local;
    unsigned int rank;
    friend bool operator==(const BitSwap&, const BitSwap&) = default;
};

struct Layout {
    /// Qubit q on bit q: the highest ones tell ranks apart.
    Layout(unsigned int n_qubits, unsigned int rank_bits);

    unsigned int n_qubits() const { return static_cast<unsigned int>(place.size()); }
    unsigned int local_bits() const { return n_qubits() - rank_bits; }
    bool is_local(unsigned int qubit) const { return place[qubit] < local_bits(); }

    /// The qubits on bits within ranks.
    Index local_qubits() const;
    /// From bits of a state's index to those of an index within a rank; others are dropped.
    Index local_places(Index qubits) const;
    /// From bits of a state's index to those of a rank's number; others are dropped.
    Index rank_places(Index qubits) const;
    /// The bits that all amplitudes of the rank with `number` share in the state's index.
    Index fixed_bits(Index number) const;
    /// The qubit on each place.
    std::vector<unsigned int> qubits_by_place() const;

    void apply(std::span<const BitSwap> swaps);
    /// Qubit q becomes what qubit `from[q]` was.
    void relabel(std::span<const unsigned int> from);

    unsigned int rank_bits;
    std::vector<unsigned int> place;  ///< below `local_bits`, or `local_bits` + a bit of the number
    RankNumbers numbers;
};

}  // namespace pblinalg::mpi
