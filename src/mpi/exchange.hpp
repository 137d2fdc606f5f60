// Moving amplitudes between ranks: any set of bits within ranks changes places with as many bits of
// the ranks' numbers at once.
#pragma once

#include <mpi.h>

#include <complex>
#include <span>

#include "mpi/layout.hpp"

namespace pblinalg::mpi {

/// Bytes of memory beside the amplitudes that an exchange takes, at most 1/16 of theirs but where a
/// rank holds fewer than 128 amplitudes.
template <class T>
std::size_t exchange_buffer_bytes(unsigned int local_bits);

/// Does the `swaps`, all on distinct bits, on the 2^local_bits amplitudes of this rank; collective.
///
/// With k swaps every rank has 2^k - 1 partners; each amplitude is sent at most once, from one
/// piece of the buffer to another while earlier ones are put in place.
///
/// @param numbers  those of the ranks, before and after.
/// @param buffer   64-byte aligned, of `exchange_buffer_bytes`.
template <class T>
void exchange(MPI_Comm comm, std::complex<T>* amplitudes, unsigned int local_bits,
              std::span<const BitSwap> swaps, const RankNumbers& numbers, Index rank,
              std::byte* buffer);

}  // namespace pblinalg::mpi
