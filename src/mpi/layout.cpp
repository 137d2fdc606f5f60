#include "mpi/layout.hpp"

#include <bit>
#include <utility>

namespace pblinalg::mpi {

using cpu::bit;

Index mask_of(std::span<const unsigned int> qubits) {
    Index mask = 0;
    for (const unsigned int qubit : qubits)
        mask |= bit(qubit);
    return mask;
}

RankNumbers::RankNumbers(unsigned int bits) {
    for (unsigned int b = 0; b < bits; ++b) {
        rows_.push_back(bit(b));
        columns_.push_back(bit(b));
    }
}

Index RankNumbers::number_of(Index rank) const {
    Index number = flips_;
    for (unsigned int b = 0; b < rows_.size(); ++b) {
        if (cpu::has_odd_parity(rank & rows_[b])) number ^= bit(b);
    }
    return number;
}

Index RankNumbers::rank_of(Index number) const {
    Index rank = 0;
    for (Index rest = number ^ flips_; rest != 0; rest &= rest - 1)
        rank ^= columns_[static_cast<unsigned int>(std::countr_zero(rest))];
    return rank;
}

void RankNumbers::add(unsigned int control, unsigned int target) {
    rows_[target] ^= rows_[control];
    columns_[control] ^= columns_[target];
    if (flips_ & bit(control)) flips_ ^= bit(target);
}

void RankNumbers::exchange(unsigned int a, unsigned int b) {
    add(a, b);
    add(b, a);
    add(a, b);
}

Layout::Layout(unsigned int n_qubits, unsigned int rank_bits)
    : rank_bits(rank_bits), place(n_qubits), numbers(rank_bits) {
    for (unsigned int q = 0; q < n_qubits; ++q)
        place[q] = q;
}

Index Layout::local_qubits() const {
    Index qubits = 0;
    for (unsigned int q = 0; q < place.size(); ++q) {
        if (is_local(q)) qubits |= bit(q);
    }
    return qubits;
}

Index Layout::local_places(Index qubits) const {
    Index places = 0;
    for (; qubits != 0; qubits &= qubits - 1) {
        const auto qubit = static_cast<unsigned int>(std::countr_zero(qubits));
        if (is_local(qubit)) places |= bit(place[qubit]);
    }
    return places;
}

Index Layout::rank_places(Index qubits) const {
    Index places = 0;
    for (; qubits != 0; qubits &= qubits - 1) {
        const auto qubit = static_cast<unsigned int>(std::countr_zero(qubits));
        if (!is_local(qubit)) places |= bit(place[qubit] - local_bits());
    }
    return places;
}

Index Layout::fixed_bits(Index number) const {
    Index index = 0;
    for (unsigned int q = 0; q < place.size(); ++q) {
        if (!is_local(q) && number >> (place[q] - local_bits()) & 1) index |= bit(q);
    }
    return index;
}

std::vector<unsigned int> Layout::qubits_by_place() const {
    std::vector<unsigned int> qubits(place.size());
    for (unsigned int q = 0; q < place.size(); ++q)
        qubits[place[q]] = q;
    return qubits;
}

void Layout::apply(std::span<const BitSwap> swaps) {
    const std::vector<unsigned int> qubits = qubits_by_place();
    for (const BitSwap& swap : swaps)
        std::swap(place[qubits[swap.local]], place[qubits[local_bits() + swap.rank]]);
}

void Layout::relabel(std::span<const unsigned int> from) {
    const std::vector<unsigned int> before = place;
    for (unsigned int q = 0; q < place.size(); ++q)
        place[q] = before[from[q]];
}

}  // namespace pblinalg::mpi
