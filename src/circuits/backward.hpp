// The program of a backward run: the inverse of a list, with an inner product of bra and ket before
// each operation that has an angle from a parameter. How plans run it is in plan.hpp.
#pragma once

#include "circuits/lowering.hpp"

namespace pblinalg::cpu {

/// Operations that no inner product needs are left out. Inner product 0 is Re <bra|ket>.
/// @param inverse  of the list that ran forward.
template <class T>
Program<T> lowered_backward(const GateList& inverse, unsigned int nqubits);

/// Adds to gradient[p] the derivative by parameter p of <ket|bra> at the beginning of the backward
/// run, where the bra is a Hermitian operator on the ket.
/// @param inner_products  of a run of `program`.
template <class T>
void add_derivatives(const Program<T>& program, const GateList& inverse,
                     std::span<const double> values, std::span<const double> inner_products,
                     double* gradient);

}  // namespace pblinalg::cpu
