// Which bits a pass or window should have active: those with which it takes the most operations.
// What a pass then takes is decided in planner.hpp.
#pragma once

#include <span>
#include <vector>

#include "circuits/operations.hpp"

namespace pblinalg::cpu {

/// What kind of parts a planner plans for.
struct PartShape {
    unsigned int n_bits;      ///< index bits of the array that the circuit works on
    unsigned int part_bits;   ///< active bits of a pass, at most `n_bits`
    unsigned int always;      ///< lowest bits that are always active
    Index renumbered;         ///< bits that permutations may renumber
    std::size_t look_ahead;   ///< operations left out while more are looked at
    std::size_t max_length;   ///< operations in a pass
    bool keeps_order;         ///< of operations with arithmetic, even on different qubits
    std::size_t reach;        ///< operations looked at to choose the active bits
    unsigned int max_starts;  ///< sets that are grown and compared, 0: what is asked for first
    /// Renumberings move parts as a whole: they touch inactive bits alone.
    bool whole_parts = false;
    /// Of the sets that are compared, that one wins with which this pass and the next take the
    /// most.
    bool foresees = false;
    /// Active bits of the first pass, 0: they are chosen as those of the others.
    Index first_active = 0;

    /// A permutation of whole vectors, or of whole parts, may do without active targets.
    bool can_renumber(const Operation& operation, Index active) const {
        return can_renumber(operation) &&
               renumbers_with((operation.target_bits | operation.selects), active);
    }
    /// The two halves of that: what does not depend on the active bits, and what does.
    bool can_renumber(const Operation& operation) const {
        return operation.is_permutation() && operation.controls == 0 &&
               operation.state.controls == 0 &&
               !((operation.target_bits | operation.selects) & ~renumbered);
    }
    bool renumbers_with(Index bits, Index active) const { return !whole_parts || !(bits & active); }
};

/// Chooses active bits by growing sets: what each bit would add is counted in one look at all
/// operations, and the best one joins. Sets that begin with different bits are compared.
class ActiveSetChooser {
  public:
    explicit ActiveSetChooser(const PartShape& shape) : shape_(shape) {}

    /// @param upcoming  operations in order.
    /// @return `part_bits` bits, fewer where nothing is gained by more.
    Index choose(std::span<const Operation* const> upcoming);

    /// The sets that the last choice was made from.
    const std::vector<Index>& compared() const { return compared_; }

  private:
    /// What of an operation decides here.
    struct Ahead {
        Index targets;
        Index depends;
        bool arithmetic;
        bool alone;
        bool can_renumber;
    };
    /// Operations that larger sets have to be looked at for.
    struct Open {
        std::vector<Ahead> operations;
        std::vector<Index> needs;  ///< of each: bits that would have to be active, too
        unsigned int taken = 0;    ///< besides them, by every set
        bool settled = false;      ///< larger sets only take bits away from `needs`
    };

    /// Counts what the active bits take, and in `gain_` what one bit more would.
    /// @param open  receives what of `from`, which it may be, is open for sets that hold `active`.
    unsigned int look(Index active, const Open& from, Open& open);
    unsigned int look_at_needs(Index active, const Open& from, Open& open);
    bool stays_open(Index needs, unsigned int room);
    unsigned int grow(Index& active);
    Index first_come() const;
    Index best_gain(Index active) const;
    bool renumbers(const Ahead& operation, Index active) const {
        return operation.can_renumber &&
               shape_.renumbers_with(operation.targets | operation.depends, active);
    }

    PartShape shape_;
    Open ahead_, grown_;
    std::vector<Index> compared_;
    std::vector<Index> seen_;  ///< sets that have been grown from already
    unsigned int gain_[64] = {};
};

}  // namespace pblinalg::cpu
