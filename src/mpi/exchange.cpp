#include "mpi/exchange.hpp"

#include <algorithm>
#include <type_traits>

namespace pblinalg::mpi {

using cpu::bit;

namespace {

/// Pieces on their way at a time.
constexpr std::size_t n_slots = 4;

/// Pieces of this size stay in the second-level cache between network and memory.
constexpr std::size_t max_piece_bytes = std::size_t{1} << 17;

template <class T>
std::size_t piece_amplitudes(unsigned int local_bits) {
    const std::size_t bytes = (sizeof(std::complex<T>) << local_bits) / 16 / (2 * n_slots);
    return std::max<std::size_t>(std::min(bytes, max_piece_bytes) / sizeof(std::complex<T>), 1);
}

/// Calls `copy(index, place, length)` for runs of neighbours that together are elements [begin,
/// end) of those with the bits `fixed` outside of `free`. Both bounds are multiples of a power of
/// two that is their distance or more.
template <class Copy>
void for_each_run(Index free, Index fixed, Index begin, Index end, const Copy& copy) {
    const Index run = cpu::lowest_bit(~free);
    const Index length = std::min(run, end - begin);
    const Index count = (end - begin) / length;
    const Index steps = free & ~(run - 1);
    Index index = cpu::deposit_bits(begin, free);
    const auto copy_all = [&](auto fixed_length) {
        for (Index i = 0; i < count; ++i) {
            copy(index | fixed, i * fixed_length, fixed_length);
            index = cpu::next_subset(index, steps);
        }
    };
    // Short runs are copied by a few moves, not by a call.
    switch (length) {
        case 1:
            return copy_all(std::integral_constant<Index, 1>());
        case 2:
            return copy_all(std::integral_constant<Index, 2>());
        case 4:
            return copy_all(std::integral_constant<Index, 4>());
        default:
            return copy_all(length);
    }
}

}  // namespace

template <class T>
std::size_t exchange_buffer_bytes(unsigned int local_bits) {
    return 2 * n_slots * piece_amplitudes<T>(local_bits) * sizeof(std::complex<T>);
}

template <class T>
void exchange(MPI_Comm comm, std::complex<T>* amplitudes, unsigned int local_bits,
              std::span<const BitSwap> swaps, const RankNumbers& numbers, Index rank,
              std::byte* buffer) {
    if (swaps.empty()) return;
    const Index number = numbers.number_of(rank);
    Index local_mask = 0, rank_mask = 0, own_pattern = 0;
    for (std::size_t i = 0; i < swaps.size(); ++i) {
        local_mask |= bit(swaps[i].local);
        rank_mask |= bit(swaps[i].rank);
        own_pattern |= (number >> swaps[i].rank & 1) << i;
    }
    const auto local_bits_of = [&](Index pattern) {
        Index bits = 0;
        for (std::size_t i = 0; i < swaps.size(); ++i)
            bits |= (pattern >> i & 1) << swaps[i].local;
        return bits;
    };
    const auto rank_bits_of = [&](Index pattern) {
        Index bits = 0;
        for (std::size_t i = 0; i < swaps.size(); ++i)
            bits |= (pattern >> i & 1) << swaps[i].rank;
        return bits;
    };
    const Index free = cpu::low_mask(local_bits) & ~local_mask;
    const Index part = bit(cpu::count_bits(free));
    const Index piece = std::min<Index>(piece_amplitudes<T>(local_bits), part);
    const Index pieces_per_part = part / piece;
    const Index n_pieces = (bit(static_cast<unsigned int>(swaps.size())) - 1) * pieces_per_part;

    struct Slot {
        std::complex<T>* out;
        std::complex<T>* in;
        MPI_Request requests[2];
    };
    Slot slots[n_slots];
    auto* const memory = reinterpret_cast<std::complex<T>*>(buffer);
    for (std::size_t s = 0; s < n_slots; ++s)
        slots[s] = {memory + 2 * s * piece, memory + (2 * s + 1) * piece, {}};

    // Piece by piece, partners in an order in which both of a pair come to each other at once.
    const auto fixed_of = [&](Index p) {
        return local_bits_of(own_pattern ^ (p / pieces_per_part + 1));
    };
    const auto start = [&](Index p, Slot& slot) {
        const Index pattern = own_pattern ^ (p / pieces_per_part + 1);
        const auto partner =
            static_cast<int>(numbers.rank_of((number & ~rank_mask) | rank_bits_of(pattern)));
        const Index begin = p % pieces_per_part * piece;
        const auto bytes = static_cast<int>(piece * sizeof(std::complex<T>));
        MPI_Irecv(slot.in, bytes, MPI_BYTE, partner, 0, comm, &slot.requests[0]);
        for_each_run(free, fixed_of(p), begin, begin + piece,
                     [&](Index from, Index to, auto length) {
                         std::copy_n(amplitudes + from, +length, slot.out + to);
                     });
        MPI_Isend(slot.out, bytes, MPI_BYTE, partner, 0, comm, &slot.requests[1]);
    };
    const auto finish = [&](Index p, Slot& slot) {
        MPI_Waitall(2, slot.requests, MPI_STATUSES_IGNORE);
        const Index begin = p % pieces_per_part * piece;
        for_each_run(free, fixed_of(p), begin, begin + piece,
                     [&](Index to, Index from, auto length) {
                         std::copy_n(slot.in + from, +length, amplitudes + to);
                     });
    };
    for (Index p = 0; p < n_pieces + n_slots; ++p) {
        Slot& slot = slots[p % n_slots];
        if (p >= n_slots) finish(p - n_slots, slot);
        if (p < n_pieces) start(p, slot);
    }
}

#define PBLINALG_INSTANTIATE(T)                                                                   \
    template std::size_t exchange_buffer_bytes<T>(unsigned int);                                  \
    template void exchange<T>(MPI_Comm, std::complex<T>*, unsigned int, std::span<const BitSwap>, \
                              const RankNumbers&, Index, std::byte*);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
