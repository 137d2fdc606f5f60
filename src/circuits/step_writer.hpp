// The steps of windows: where the bits of an operation lie among lanes and rows, and which
// exchanges bring its targets into rows.
#pragma once

#include <complex>
#include <vector>

#include "circuits/operations.hpp"

namespace pblinalg::cpu {

/// What a tile pass runs, apart from the coefficients.
struct PassSteps {
    std::vector<CircuitWindow> windows;
    std::vector<CircuitStep> steps;
    std::vector<TileCondition> conditions;
    std::vector<TableLookup> lookups;
    std::vector<SignLookup> signs;
    std::vector<Placement> placements = {Placement::in_order()};
    std::vector<std::uint32_t> inner_products;  ///< numbers in the program, in order
};

/// A table as steps read it.
struct PlacedTable {
    static constexpr std::uint32_t nowhere = ~std::uint32_t{0};  ///< too large: not as steps
    Index bits = 0;                                              ///< of the state's index
    std::uint32_t values = 0;  ///< place of its rows in `TilePass::tables`
};

/// Writes the steps of windows, one window after another.
class StepWriter {
  public:
    /// @param active  bits of the state that a tile is made of.
    /// @param tables  by number.
    StepWriter(unsigned int lane_bits, Index active, const std::vector<PlacedTable>& tables,
               PassSteps& pass);

    /// Begins a window of the `active` bits of a tile's index: all lane bits and some others.
    void begin(Index active);

    /// Appends the steps of an operation on a tile whose targets are active, and not among the bits
    /// that one renumbered in this window moves or is selected by.
    void append(const Operation& operation);

    /// Ends the window.
    void end() { write_signs(); }

    /// Takes in a permutation of whole vectors, none of whose bits are in lanes: they stay, and
    /// their numbers change.
    void renumber(const Operation& operation);

  private:
    /// A bit of the amplitudes' numbers, as they are now, as a parity of those that the window
    /// began with.
    struct Parity {
        Index tile;
        Index state;
        bool inverted;
        Parity& operator^=(const Parity& other);
    };
    static constexpr unsigned int max_lane_bits = 4;
    static constexpr unsigned int max_exchanges = 8;  // four and their undoing

    Parity selection(const Operation& operation) const;
    void push(const Operation& operation);
    bool joins_signs(const Operation& operation) const;
    void write_signs();
    unsigned int place_of(unsigned int tile_bit) const;
    Index places_of(Index tile_bits) const;
    std::uint32_t lookup(const Operation& operation);
    void bring_to_row(unsigned int tile_bit, unsigned int row);
    void exchange(unsigned int action);
    void undo_exchanges();

    Index lanes_;
    unsigned int lane_bits_;
    const std::vector<PlacedTable>& tables_;
    PassSteps& pass_;
    unsigned char state_bit_[max_tile_bits] = {};  ///< of each tile bit

    Index rows_ = 0;
    std::size_t first_ = 0;  ///< step of the window
    bool renumbered_ = false;
    std::vector<Operation> signs_;   ///< Z that wait for others
    Parity numbers_[max_tile_bits];  ///< once renumbered
    /// The tile bit at each place: lanes, then rows. Exchanges change it for the time of an
    /// operation.
    unsigned char bit_at_[max_lane_bits + 3] = {};
    unsigned int exchanges_[max_exchanges] = {};
    unsigned int n_exchanges_ = 0;
};

}  // namespace pblinalg::cpu
