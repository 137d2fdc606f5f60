#include "circuits/step_writer.hpp"

#include <bit>
#include <cassert>
#include <utility>

namespace pblinalg::cpu {
namespace {

/// SWAP as CNOTs: calls `body` for each.
template <class Body>
void as_cnots(const Operation& swap, const Body& body) {
    const unsigned int a = swap.targets[0], b = swap.targets[1];
    body(cnot(a, b));
    body(cnot(b, a));
    body(cnot(a, b));
}

RowsDiffer rows_differ(const CircuitStep& step) {
    if (step.row_mask != 0xFF) return otherwise;
    for (unsigned int b = 0; b < 3; ++b) {
        const unsigned int of_bit = parity_pattern(bit(b)) & 0xFF;
        if (step.row_pattern == of_bit || step.row_pattern == (of_bit ^ 0xFF))
            return static_cast<RowsDiffer>(b);
    }
    return step.row_pattern == 0 || step.row_pattern == 0xFF ? nowhere : otherwise;
}

/// Z from which on one step for all pays.
constexpr std::size_t min_joined_signs = 4;

/// A polynomial of degree 2 in the bits of a tile's index, modulo 2.
struct Quadratic {
    Index partners[max_tile_bits] = {};  ///< of each bit, in products of two
    Index linear = 0;
    bool constant = false;

    /// Adds what a Z with one control at most negates.
    void add(const Operation& z) {
        // (inverted + selects) * (1 + control + value), without the latter where there is none.
        const bool controlled = z.controls != 0;
        const bool without_control = !controlled || z.control_values == 0;
        if (without_control) linear ^= z.selects;
        constant ^= z.inverted && without_control;
        if (!controlled) return;
        if (z.inverted) linear ^= z.controls;
        const int control = std::countr_zero(z.controls);
        partners[control] ^= z.selects;
        for_each_bit(z.selects, [&](unsigned int b) { partners[b] ^= z.controls; });
    }
};

}  // namespace

StepWriter::Parity& StepWriter::Parity::operator^=(const Parity& other) {
    tile ^= other.tile;
    state ^= other.state;
    inverted ^= other.inverted;
    return *this;
}

StepWriter::StepWriter(unsigned int lane_bits, Index active, const std::vector<PlacedTable>& tables,
                       PassSteps& pass)
    : lanes_(low_mask(lane_bits)), lane_bits_(lane_bits), tables_(tables), pass_(pass) {
    for (unsigned int b = 0; active != 0; ++b, active &= active - 1)
        state_bit_[b] = static_cast<unsigned char>(std::countr_zero(active));
}

void StepWriter::begin(Index active) {
    rows_ = active & ~lanes_;
    first_ = pass_.steps.size();
    renumbered_ = false;
    unsigned int place = 0;
    for (Index rest = active; rest != 0; rest &= rest - 1)
        bit_at_[place++] = static_cast<unsigned char>(std::countr_zero(rest));
}

StepWriter::Parity StepWriter::selection(const Operation& operation) const {
    if (!renumbered_) return {operation.selects, operation.state.selects, operation.inverted};
    Parity parity{0, operation.state.selects, operation.inverted};
    for (Index rest = operation.selects; rest != 0; rest &= rest - 1)
        parity ^= numbers_[std::countr_zero(rest)];
    return parity;
}

void StepWriter::renumber(const Operation& operation) {
    write_signs();
    if (operation.action == Action::SWAP)
        return as_cnots(operation, [&](const Operation& part) { renumber(part); });
    if (!renumbered_) {
        renumbered_ = true;
        for (unsigned int b = 0; b < max_tile_bits; ++b)
            numbers_[b] = {bit(b), 0, false};
        const Placement unchanged = pass_.placements.back();
        pass_.placements.push_back(unchanged);
    }
    const unsigned int target = operation.targets[0];
    numbers_[target] ^= selection(operation);
    Placement& placement = pass_.placements.back();
    const unsigned short place = placement.of_tile_bit[target];
    for (Index rest = operation.selects; rest != 0; rest &= rest - 1)
        placement.of_tile_bit[std::countr_zero(rest)] ^= place;
    for (Index rest = operation.state.selects; rest != 0; rest &= rest - 1)
        placement.of_state_bit[std::countr_zero(rest)] ^= place;
    if (operation.inverted) placement.origin ^= place;
}

void StepWriter::append(const Operation& operation) {
    if (joins_signs(operation)) {
        signs_.push_back(operation);
        return;
    }
    // Z change places with one another to the last bit.
    if (operation.action != Action::Z) write_signs();
    if (operation.action == Action::SWAP)
        return as_cnots(operation, [&](const Operation& part) { append(part); });
    if (operation.action == Action::matrix2 && operation.controls == 0) {
        for (const unsigned int t : {0, 1}) {
            if (place_of(operation.targets[t]) >= lane_bits_) continue;
            // Lanes are exchanged with row 0: the other target makes room.
            if (place_of(operation.targets[1 - t]) == lane_bits_)
                exchange(step_action(Action::exchange_rows, 0));
            bring_to_row(operation.targets[t], 0);
        }
    } else if (operation.action == Action::matrix2) {
        bring_to_row(operation.targets[0], 1);
        bring_to_row(operation.targets[1], 0);
    } else if (operation.is_mixing() &&
               (operation.controls != 0 || (lanes_ & operation.target_bits))) {
        bring_to_row(operation.targets[0], 0);
    }
    push(operation);
    undo_exchanges();
}

bool StepWriter::joins_signs(const Operation& operation) const {
    return operation.action == Action::Z && !renumbered_ && operation.state.selects == 0 &&
           operation.state.controls == 0 && (operation.controls & (operation.controls - 1)) == 0;
}

/// Writes the Z that wait: one step for many, or one for each.
void StepWriter::write_signs() {
    if (signs_.empty()) return;
    if (signs_.size() < min_joined_signs) {
        for (const Operation& operation : signs_)
            push(operation);
        signs_.clear();
        return;
    }
    Quadratic form;
    for (const Operation& operation : signs_)
        form.add(operation);
    signs_.clear();
    const Index window = rows_ | lanes_;
    SignLookup signs;
    // Of two bits the lower one counts the higher one.
    for (unsigned int b = 0; b < max_tile_bits; ++b) {
        if (window & bit(b)) continue;
        const Index places = places_of(form.partners[b]);
        const auto added =
            static_cast<std::uint32_t>((form.partners[b] & ~low_mask(b)) | (form.linear & bit(b)) |
                                       (places >> lane_bits_) << 16 | (places & lanes_) << 24);
        for (unsigned int v = 0; v < 16; ++v) {
            if (v >> b % 4 & 1) signs.of_tile_bits[b / 4][v] ^= added;
        }
    }
    const unsigned int n_places = count_bits(window);
    Index counted[max_lane_bits + 3] = {};
    for (unsigned int p = 0; p < n_places; ++p) {
        const unsigned int b = bit_at_[p];
        counted[p] = (places_of(form.partners[b]) & ~low_mask(p)) | (form.linear >> b & 1) << p;
    }
    for (Index place = 0; place < bit(n_places); ++place) {
        Index added = 0;
        for_each_bit(place, [&](unsigned int p) { added ^= counted[p]; });
        const unsigned int odd = form.constant != has_odd_parity(added & place);
        signs.lanes_of_row[place >> lane_bits_] |=
            static_cast<std::uint16_t>(odd << (place & lanes_));
    }
    pass_.conditions.push_back({0, 0, 0});
    CircuitStep& step = pass_.steps.emplace_back();
    step.action = static_cast<std::uint16_t>(step_action(Action::signs, 0));
    step.lookup = static_cast<std::uint32_t>(pass_.signs.size());
    pass_.signs.push_back(signs);
}

/// The place of a bit of the window: lanes first, then rows.
unsigned int StepWriter::place_of(unsigned int tile_bit) const {
    assert((rows_ | lanes_) >> tile_bit & 1);
    unsigned int place = 0;
    while (bit_at_[place] != tile_bit)
        ++place;
    return place;
}

Index StepWriter::places_of(Index tile_bits) const {
    Index places = 0;
    for (Index rest = tile_bits & (rows_ | lanes_); rest != 0; rest &= rest - 1)
        places |= bit(place_of(static_cast<unsigned int>(std::countr_zero(rest))));
    return places;
}

void StepWriter::push(const Operation& operation) {
    const Parity selects = selection(operation);
    const Index outside = ~(rows_ | lanes_);
    const Index select_places = places_of(selects.tile);
    const Index control_places = places_of(operation.controls);
    const Index value_places = places_of(operation.control_values);
    // Written in place: a copy would wait for all the narrow stores.
    pass_.conditions.push_back({selects.state, operation.state.controls, operation.state.values});
    CircuitStep& step = pass_.steps.emplace_back();
    step.factors = operation.factors;
    step.tile_selects = static_cast<std::uint16_t>(selects.tile & outside);
    step.tile_controls = static_cast<std::uint16_t>(operation.controls & outside);
    step.control_values = static_cast<std::uint16_t>(operation.control_values & outside);
    step.lane_pattern = static_cast<std::uint16_t>(parity_pattern(select_places & lanes_));
    step.lane_mask =
        static_cast<std::uint16_t>(match_pattern(control_places & lanes_, value_places & lanes_));
    step.row_pattern = static_cast<std::uint8_t>(parity_pattern(select_places >> lane_bits_) ^
                                                 (selects.inverted ? ~0u : 0u));
    step.row_mask = static_cast<std::uint8_t>(
        match_pattern(control_places >> lane_bits_, value_places >> lane_bits_));

    const bool by_lane = step.lane_pattern != 0 || step.lane_mask != 0xFFFF;
    const bool controlled = operation.controls != 0;
    StepForm form = by_lane ? StepForm::by_lane : StepForm::plain;
    unsigned int place = 0;
    const auto place_of_target = [&] {
        const unsigned int bit_place = place_of(operation.targets[0]);
        return bit_place < lane_bits_ ? 4 + bit_place : bit_place - lane_bits_;
    };
    if (operation.is_inner_product()) {
        place = operation.is_diagonal() ? rows_differ(step) : place_of_target();
        form = controlled && place < 4 && !operation.is_diagonal() ? StepForm::controlled
                                                                   : StepForm::plain;
        step.lookup = static_cast<std::uint32_t>(pass_.inner_products.size());
        pass_.inner_products.push_back(operation.data);
    } else if (operation.action == Action::X) {
        place = place_of_target();
    } else if (!operation.is_diagonal()) {
        form = controlled ? StepForm::controlled : StepForm::plain;
        place = place_of(operation.targets[0]) - lane_bits_;
        if (operation.action == Action::matrix2)
            place = place_of_rows(place, place_of(operation.targets[1]) - lane_bits_);
    } else if (operation.action == Action::table) {
        form = controlled ? StepForm::controlled : StepForm::plain;
        step.lookup = lookup(operation);
        step.factors = tables_[operation.data].values;
    } else if (operation.action == Action::both && controlled) {
        form = StepForm::controlled;
    } else {
        place = rows_differ(step);
    }
    step.action = static_cast<std::uint16_t>(step_action(operation.action, place, form));
}

std::uint32_t StepWriter::lookup(const Operation& operation) {
    const Index bits = tables_[operation.data].bits;
    TableLookup lookup;
    // Lane bits are the lowest ones of the table, too: they choose within a row.
    unsigned int column = 0;
    const auto add = [&](const Parity& parity) {
        for (Index rest = parity.tile; rest != 0; rest &= rest - 1) {
            const int b = std::countr_zero(rest);
            lookup.of_tile_bit[b] =
                static_cast<std::uint16_t>(lookup.of_tile_bit[b] ^ 1u << column);
        }
        lookup.of_state[column] = parity.state;
        lookup.origin = static_cast<std::uint16_t>(
            lookup.origin ^ static_cast<unsigned int>(parity.inverted) << column);
        ++column;
    };
    for (Index rest = bits & ~lanes_; rest != 0; rest &= rest - 1) {
        const Index state_bit = lowest_bit(rest);
        if (operation.state.selects & state_bit) {
            add({0, state_bit, false});
            continue;
        }
        unsigned int b = 0;
        while (bit(state_bit_[b]) != state_bit)
            ++b;
        add(renumbered_ ? numbers_[b] : Parity{bit(b), 0, false});
    }
    for (unsigned int b = 0; b < max_tile_bits; ++b) {
        if (lookup.of_tile_bit[b] != 0) lookup.tile_bits |= bit(b);
    }
    // Rows of the window are added one by one.
    lookup.tile_bits &= ~rows_;
    pass_.lookups.push_back(lookup);
    return static_cast<std::uint32_t>(pass_.lookups.size() - 1);
}

void StepWriter::bring_to_row(unsigned int tile_bit, unsigned int row) {
    if (place_of(tile_bit) < lane_bits_)
        exchange(step_action(Action::exchange_lane, place_of(tile_bit)));
    const unsigned int now = place_of(tile_bit) - lane_bits_;
    if (now != row) exchange(step_action(Action::exchange_rows, now + row - 1));
}

/// Exchanges two places of the window, or takes back the exchange just before.
void StepWriter::exchange(unsigned int action) {
    unsigned int p = action % 8, q = lane_bits_;
    if (action / 32 == static_cast<unsigned int>(Action::exchange_rows)) {
        // The sum of both row bits less 1 tells which two.
        q = lane_bits_ + (p == 2 ? 1 : 0);
        p = lane_bits_ + (p == 0 ? 1 : 2);
    }
    std::swap(bit_at_[p], bit_at_[q]);
    assert(n_exchanges_ < max_exchanges);
    exchanges_[n_exchanges_++] = action;
    if (pass_.steps.size() > first_ && pass_.steps.back().action == action) {
        pass_.steps.pop_back();
        pass_.conditions.pop_back();
    } else {
        pass_.conditions.push_back({0, 0, 0});
        pass_.steps.emplace_back().action = static_cast<std::uint16_t>(action);
    }
}

void StepWriter::undo_exchanges() {
    const unsigned int n = n_exchanges_;
    for (unsigned int i = n; i-- > 0;)
        exchange(exchanges_[i]);
    n_exchanges_ = 0;
}

}  // namespace pblinalg::cpu
