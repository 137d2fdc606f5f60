// What runs by rounding save before planning: gates that undo each other, runs of gates on one
// qubit and on a pair as one matrix, diagonal gates on the same qubits as one. The gates that act
// are chosen once; products of coefficients are formed anew for every run with other values.
#pragma once

#include "circuits/lowering.hpp"

namespace pblinalg::cpu {

/// Replaces operations by fewer ones with the same effect up to rounding.
/// A stop finds whole gates between operations at least once in a thousand gates.
template <class T>
void simplify(Program<T>& program);

/// Forms the coefficients of merged operations from those of the gates.
/// @param factors  those of the program or of a run.
template <class T>
void form_products(const Program<T>& program, T* factors);

}  // namespace pblinalg::cpu
