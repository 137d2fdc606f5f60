// Moving the bits of an index to other places, in any order, a byte at a time.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "core/bits.hpp"

namespace pblinalg::cpu {

/// A map of bits: bit `from` of the argument becomes bit `to` of the result, all others are
/// dropped. One table look-up per byte of the argument in use.
class BitPlacement {
  public:
    void add(unsigned int from, unsigned int to) {
        while (tables_.size() <= from / 8)
            tables_.emplace_back();
        std::array<Index, 256>& table = tables_[from / 8];
        for (Index byte = 0; byte < 256; ++byte) {
            if (byte & bit(from % 8)) table[byte] |= bit(to);
        }
    }

    Index operator()(Index x) const {
        Index placed = 0;
        for (const std::array<Index, 256>& table : tables_) {
            placed |= table[x & 0xFF];
            x >>= 8;
        }
        return placed;
    }

    /// Bit p of the argument to the place `qubits[p]`.
    static BitPlacement scatter(std::span<const unsigned int> qubits) {
        BitPlacement placement;
        for (unsigned int p = 0; p < qubits.size(); ++p)
            placement.add(p, qubits[p]);
        return placement;
    }

    /// Bit `qubits[p]` of the argument to place p.
    static BitPlacement gather(std::span<const unsigned int> qubits) {
        BitPlacement placement;
        for (unsigned int p = 0; p < qubits.size(); ++p)
            placement.add(qubits[p], p);
        return placement;
    }

  private:
    std::vector<std::array<Index, 256>> tables_;
};

}  // namespace pblinalg::cpu
