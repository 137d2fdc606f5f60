// The table of gates: what each gate is, stated once and read by everyone who handles gates by
// name. Their arithmetic is in src/gates/; lists of them are in gate_list.hpp.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace pblinalg {

// clang-format off
/// A gate of a gate list. The last three take their values from the list.
enum class GateKind : unsigned char {
    H, X, Y, Z, S, Sdg, T, Tdg, SX, SXdg, PH, RX, RY, RZ, U, YtoZ, ZtoY, GPHASE,
    SWAP, SQRTSWAP, SQRTSWAPdg, ISWAP, ISWAPdg, RXX, RYY, RZZ, RZX,
    matrix, diagonal, phase_oracle,
};
// clang-format on

/// What a gate does to amplitudes.
enum class GateAction : unsigned char {
    mixes,       ///< amplitudes of its targets with each other
    moves,       ///< amplitudes to other places, without arithmetic
    multiplies,  ///< every amplitude on its own: a diagonal matrix
};

/// How the gate of an inverse or conjugate matrix follows from a gate.
enum class GateRelation : unsigned char {
    same,       ///< it is the gate itself
    partner,    ///< it is `GateInfo::partner`
    negated,    ///< the gate with its angle negated
    by_angles,  ///< U: its three angles negated, for the inverse the last two exchanged, too; for
                ///< the conjugate the last two negated
    by_values,  ///< a gate with values of its own: these are transposed and conjugated
    as_matrix,  ///< no gate of the table: a `GateKind::matrix`
};

/// A row of the table.
struct GateInfo {
    GateKind kind;
    std::string_view name;
    unsigned char n_targets;  ///< 0 where each gate of the list has its own number, and for GPHASE
    unsigned char n_angles;
    GateAction action;
    GateRelation inverse;
    GateRelation conjugate;
    GateKind partner;
    /// Known to the circuit record by this name.
    bool in_record;
    /// The matrix, or what it is the exponential of; the first target is the most significant bit
    /// of a row number.
    std::string_view formula;
};

// clang-format off
/// One row per gate, in the order of `GateKind`.
inline constexpr std::array gate_table = [] {
    using enum GateKind;
    using enum GateAction;
    using R = GateRelation;
    return std::to_array<GateInfo>({
        {H, "H", 1, 0, mixes, R::same, R::same, H, true, "[[1, 1], [1, -1]] / sqrt(2)"},
        {X, "X", 1, 0, moves, R::same, R::same, X, true, "[[0, 1], [1, 0]]"},
        {Y, "Y", 1, 0, mixes, R::same, R::as_matrix, Y, true, "[[0, -i], [i, 0]]"},
        {Z, "Z", 1, 0, multiplies, R::same, R::same, Z, true, "diag(1, -1)"},
        {S, "S", 1, 0, multiplies, R::partner, R::partner, Sdg, false, "diag(1, i)"},
        {Sdg, "Sdg", 1, 0, multiplies, R::partner, R::partner, S, false, "diag(1, -i)"},
        {T, "T", 1, 0, multiplies, R::partner, R::partner, Tdg, true, "diag(1, (1 + i) / sqrt(2))"},
        {Tdg, "Tdg", 1, 0, multiplies, R::partner, R::partner, T, false, "diag(1, (1 - i) / sqrt(2))"},
        {SX, "SX", 1, 0, mixes, R::partner, R::partner, SXdg, false, "[[1 + i, 1 - i], [1 - i, 1 + i]] / 2"},
        {SXdg, "SXdg", 1, 0, mixes, R::partner, R::partner, SX, false, "[[1 - i, 1 + i], [1 + i, 1 - i]] / 2"},
        {PH, "PH", 1, 1, multiplies, R::negated, R::negated, PH, true, "diag(1, e^(i theta))"},
        {RX, "RX", 1, 1, mixes, R::negated, R::negated, RX, true, "exp(-i theta X / 2)"},
        {RY, "RY", 1, 1, mixes, R::negated, R::same, RY, true, "exp(-i theta Y / 2)"},
        {RZ, "RZ", 1, 1, multiplies, R::negated, R::negated, RZ, true, "exp(-i theta Z / 2)"},
        {U, "U", 1, 3, mixes, R::by_angles, R::by_angles, U, false,
         "[[c, -e^(i lambda) s], [e^(i phi) s, e^(i (phi + lambda)) c]], c = cos(theta/2), s = sin(theta/2)"},
        {YtoZ, "YtoZ", 1, 0, mixes, R::partner, R::as_matrix, ZtoY, false, "[[1, -i], [1, i]] / sqrt(2)"},
        {ZtoY, "ZtoY", 1, 0, mixes, R::partner, R::as_matrix, YtoZ, false, "[[1, 1], [i, -i]] / sqrt(2)"},
        {GPHASE, "GPHASE", 0, 1, multiplies, R::negated, R::negated, GPHASE, false, "e^(i theta)"},
        {SWAP, "SWAP", 2, 0, moves, R::same, R::same, SWAP, true, "|ab> to |ba>"},
        {SQRTSWAP, "SQRTSWAP", 2, 0, mixes, R::partner, R::partner, SQRTSWAPdg, false,
         "rows 1 and 2 are (0, 1+i, 1-i, 0) / 2 and (0, 1-i, 1+i, 0) / 2"},
        {SQRTSWAPdg, "SQRTSWAPdg", 2, 0, mixes, R::partner, R::partner, SQRTSWAP, false,
         "rows 1 and 2 are (0, 1-i, 1+i, 0) / 2 and (0, 1+i, 1-i, 0) / 2"},
        {ISWAP, "ISWAP", 2, 0, mixes, R::partner, R::partner, ISWAPdg, false, "exp(i pi (XX + YY) / 4)"},
        {ISWAPdg, "ISWAPdg", 2, 0, mixes, R::partner, R::partner, ISWAP, false, "exp(-i pi (XX + YY) / 4)"},
        {RXX, "RXX", 2, 1, mixes, R::negated, R::negated, RXX, false, "exp(-i theta XX / 2)"},
        {RYY, "RYY", 2, 1, mixes, R::negated, R::negated, RYY, false, "exp(-i theta YY / 2)"},
        {RZZ, "RZZ", 2, 1, multiplies, R::negated, R::negated, RZZ, false, "exp(-i theta ZZ / 2)"},
        {RZX, "RZX", 2, 1, mixes, R::negated, R::negated, RZX, false, "exp(-i theta ZX / 2), Z on the first target"},
        {matrix, "matrix", 0, 0, mixes, R::by_values, R::by_values, matrix, false, "its values, row-major"},
        {diagonal, "diagonal", 0, 0, multiplies, R::by_values, R::by_values, diagonal, false, "diag(its values)"},
        {phase_oracle, "phase_oracle", 0, 0, multiplies, R::same, R::same, phase_oracle, false,
         "-1 where the targets hold a marked value, else 1"},
    });
}();
// clang-format on

constexpr const GateInfo& info(GateKind kind) {
    return gate_table[static_cast<std::size_t>(kind)];
}

/// The gate of that name, if there is one.
constexpr std::optional<GateKind> gate_named(std::string_view name) {
    for (const GateInfo& gate : gate_table) {
        if (gate.name == name) return gate.kind;
    }
    return std::nullopt;
}

/// Gates whose number of targets and values is their own.
constexpr bool has_values(GateKind kind) {
    return kind >= GateKind::matrix;
}

static_assert([] {
    for (std::size_t i = 0; i < gate_table.size(); ++i) {
        if (gate_table[i].kind != static_cast<GateKind>(i)) return false;
    }
    return gate_table.back().kind == GateKind::phase_oracle;
}());

}  // namespace pblinalg
