// One operation on the whole state, without a plan.
#pragma once

#include "circuits/lowering.hpp"

namespace pblinalg::cpu {

/// Applies `operation` of `program` to the 2^nqubits amplitudes.
/// @param factors  coefficients of the run.
template <class T>
void run_alone(std::complex<T>* amplitudes, unsigned int nqubits, const Program<T>& program,
               const Operation& operation, const T* factors, int num_threads);

/// What that costs, in passes that read and write the whole state.
double cost_alone(const Operation& operation);

}  // namespace pblinalg::cpu
