// What lists and sizes must be for a state over ranks; errors name what was expected.
#pragma once

#include <pblinalg/gate_list.hpp>
#include <span>
#include <string>

namespace pblinalg::mpi {

/// Amplitudes that a rank holds at the least, as bits: gates have up to two targets.
inline constexpr unsigned int min_local_bits = 2;

/// Errors: std::invalid_argument where 2^rank_bits ranks are too many for the qubits.
void require_qubits(unsigned int n_qubits, unsigned int rank_bits);

/// Errors: std::invalid_argument for qubits beyond `n_qubits` and for matrices on more qubits than
/// a rank holds.
void require_runnable(const GateList& list, unsigned int n_qubits, unsigned int rank_bits);

/// Errors: std::invalid_argument for a qubit that the state does not have and for one listed twice.
void require_list(std::span<const unsigned int> qubits, unsigned int n_qubits);
/// The same for qubits that are to be brought within ranks, which hold `local_bits`.
void require_list_within(std::span<const unsigned int> qubits, unsigned int n_qubits,
                         unsigned int local_bits);

/// Errors: std::invalid_argument for an array `name` of another number of elements.
void require_count(std::size_t count, std::size_t expected, const std::string& name);

}  // namespace pblinalg::mpi
