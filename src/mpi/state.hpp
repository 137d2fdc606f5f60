// What a rank holds of a state, and how its qubits are arranged for readouts that want them in order.
#pragma once

#include <pblinalg/mpi/state_vector.hpp>
#include <random>

#include "circuits/lowering.hpp"
#include "core/aligned_array.hpp"
#include "mpi/agreement.hpp"
#include "mpi/layout.hpp"

namespace pblinalg::mpi {

template <class T>
struct StateVector<T>::State {
    State(MPI_Comm comm, unsigned int nqubits);

    MPI_Comm comm() const { return communicator.get(); }
    auto rank() const { return static_cast<Index>(communicator.rank()); }
    Index number() const { return layout.numbers.number_of(rank()); }
    unsigned int local_bits() const { return layout.local_bits(); }
    Index local_size() const { return cpu::bit(local_bits()); }

    /// |0...0>, or zeros everywhere.
    void clear(bool basis_state_0 = true);
    /// Runs the operations of `program`, which is one of n qubits and loses its SWAPs.
    void run(cpu::Program<T>& program, const T* factors);
    /// Runs a program of the bits of this rank, on this rank alone.
    void run_here(cpu::Program<T> program, const T* factors);
    /// Brings `qubits`, n - p of them, within ranks.
    void bring_in(Index qubits);
    /// As `bring_in`, the lowest of them on bit 0 and so on, and likewise the others in the numbers
    /// of ranks.
    void sort(Index qubits);
    /// Every amplitude at its index: the rank with number r holds the r-th block.
    void sort() { sort(cpu::low_mask(local_bits())); }

    Communicator communicator;
    Layout layout;
    cpu::AlignedArray<std::complex<T>> amplitudes;
    int num_threads = 1;
    std::mt19937_64 rng;
};

}  // namespace pblinalg::mpi
