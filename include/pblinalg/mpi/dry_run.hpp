// What a run over ranks would do, from the plan alone: for any number of qubits and ranks, without
// their memory and without MPI.
#pragma once

#include <cstdint>
#include <pblinalg/accuracy.hpp>
#include <pblinalg/export.hpp>
#include <pblinalg/gate_list.hpp>

namespace pblinalg::mpi {

/// What predictions of time rest on, in bytes and seconds.
struct Machine {
    double memory_bandwidth = 40e9;   ///< of a rank, reads and writes of a pass over its memory
    double network_bandwidth = 10e9;  ///< of a rank, each way
    double latency = 5e-6;            ///< of a message
};

/// Exchanges, and what each rank sends in them.
struct Traffic {
    std::size_t exchanges = 0;
    double bytes = 0;
};

struct DryRun {
    Traffic traffic;
    std::size_t rank_passes = 0;    ///< stretches of gates, after each of which ranks may stop
    std::size_t memory_passes = 0;  ///< reads and writes of all of a rank's amplitudes
    double seconds = 0;             ///< network and memory one after the other
    /// The same list with one exchange of half of the amplitudes for every gate that mixes or moves
    /// amplitudes of a qubit among the highest, those that tell ranks apart.
    Traffic gate_by_gate;
};

/// @tparam T      precision of the amplitudes.
/// @param n_qubits  below 64.
/// @param rank_bits  p of 2^p ranks, at most n_qubits - 2.
/// Errors: std::invalid_argument for other numbers, for qubits that the list has beyond them, and
/// for matrices on more than n_qubits - rank_bits qubits.
template <class T>
PBLINALG_EXPORT DryRun dry_run(const GateList& list, unsigned int n_qubits, unsigned int rank_bits,
                               const Machine& machine = {}, Accuracy accuracy = Accuracy::exact);

extern template PBLINALG_EXPORT DryRun dry_run<float>(const GateList&, unsigned int, unsigned int,
                                                      const Machine&, Accuracy);
extern template PBLINALG_EXPORT DryRun dry_run<double>(const GateList&, unsigned int, unsigned int,
                                                       const Machine&, Accuracy);

}  // namespace pblinalg::mpi
