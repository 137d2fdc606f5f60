// Which operations run together. Two levels of the same idea: a *tile* holds the amplitudes that
// differ in the bits of a set of active qubits and fits into the second-level cache; a *window* is
// the same inside a tile, for the few vectors that fit into registers. A pass at either level takes
// as many operations as it can from the front of the circuit, with the active qubits that let it
// take the most:
//   - the targets of every operation must be active; diagonal ones and controls need not be, since
//     an inactive bit has one value throughout;
//   - permutations overtake whatever they do not touch. So do operations with arithmetic, where
//     runs are by rounding; exact ones keep their order, since even on disjoint qubits they do not
//     commute to the last bit;
//   - in a window, permutations of whole vectors may do without active targets: the vectors get new
//     numbers and stay. What selects such an operation is no target for the rest of the window, and
//     what it changes no control.
#pragma once

#include "circuits/active_set.hpp"

namespace pblinalg::cpu {

/// Operations that run together, in order, on parts of a state or tile that are made of the active
/// bits.
struct Pass {
    struct Entry {
        const Operation* operation;
        bool renumbers;  ///< changes the numbers of vectors and needs no active bits
    };
    Index active = 0;
    std::vector<Entry> operations;
    bool alone = false;  ///< its one operation runs on the whole state only
};

/// How far the passes up to one have come.
struct Reached {
    /// Operations before `front` are done, but for those left out, which stand in order.
    std::vector<std::uint32_t> left_out;
    std::uint32_t front = 0;

    /// The gates that are done, none of the later ones counted.
    std::size_t gates_done(std::span<const Operation> operations, std::size_t n_gates) const;
    /// What is left of all gates that have begun.
    std::vector<Operation> rest(std::span<const Operation> operations) const;
    /// The gates that are done once that is.
    std::size_t gates_begun(std::span<const Operation> operations, std::size_t n_gates) const;

  private:
    std::size_t end_of_gate(std::span<const Operation> operations) const;
};

/// Takes the operations of one pass after another from a circuit.
class Planner {
  public:
    /// @param operations  must outlive the planner and its passes.
    Planner(std::span<const Operation> operations, const PartShape& shape)
        : operations_(operations), shape_(shape), chooser_(shape) {}

    /// Replaces `pass` by the next operations that run in one pass, at least one.
    /// @return false when none is left.
    bool next(Pass& pass);

    /// The bits of the array that tell the parts of a pass apart.
    Index inactive(const Pass& pass) const { return low_mask(shape_.n_bits) & ~pass.active; }

    /// @param waiting  the last operations of the last pass, when they are not to be counted yet;
    ///                 none that an earlier pass left out.
    Reached reached(std::span<const Pass::Entry> waiting = {}) const;

    /// Operations that the passes so far left out, in order; all others before `front` are done.
    std::span<const Operation* const> left_out() const { return left_out_; }
    std::size_t front() const { return front_; }

  private:
    bool next(Pass& pass, std::size_t reach);
    void fill(Pass& pass, Index active);
    Index choose_with_foresight() const;
    bool take(const Operation& operation, Pass& pass);
    void take_or_leave(const Operation& operation, Pass& pass);

    std::span<const Operation> operations_;
    PartShape shape_;
    ActiveSetChooser chooser_;
    std::size_t front_ = 0;  ///< the first operation not yet looked at
    std::vector<const Operation*> left_out_;
    std::vector<const Operation*> deferred_;  ///< left out by the pass before
    std::vector<const Operation*> upcoming_;
    // Of the pass at hand:
    Index left_out_targets_ = 0;
    Index left_out_depends_ = 0;    ///< bits that an operation left out reads without changing them
    Index renumbered_depends_ = 0;  ///< bits that a renumbering keeps from being targets
    Index renumbered_targets_ = 0;  ///< bits that a renumbering keeps from being controls
    bool arithmetic_blocked_ = false;
};

}  // namespace pblinalg::cpu
