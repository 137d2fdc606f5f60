// Dense matrices on any number of targets, and the test that finds the diagonal ones.
#pragma once

#include "gates/matrix_formulas.hpp"

namespace pblinalg::cpu {

/// True when every off-diagonal entry of the row-major `rows` x `rows` matrix compares equal to 0.
/// -0 does, NaN does not.
template <class T>
bool is_diagonal(MatrixSpan<T> matrix, Index rows);

/// The `rows` diagonal entries of a row-major matrix.
template <class T>
std::vector<std::complex<T>> diagonal_of(MatrixSpan<T> matrix, Index rows);

/// Multiplies every group of amplitudes by `matrix`.
/// @param qubits    k targets, k >= 1; the first one is the most significant bit of a row number.
/// @param controls  only groups whose control bits are all 1 change.
/// @param matrix    4^k row-major entries.
/// Errors: std::bad_alloc before any amplitude changes.
template <class T>
void apply_nbqbit_gate(std::complex<T>* amplitudes, QubitSpan qubits, QubitSpan controls,
                       MatrixSpan<T> matrix, unsigned long long nqbits, int nthreads);

/// The same on the groups of `iterator`, those of the targets `qubits` under any controls.
template <class T>
void _apply_nqbit_gate(std::complex<T>* amplitudes,
                       const orb::core::iterator::StateIterator& iterator, QubitSpan qubits,
                       MatrixSpan<T> matrix, int nthreads);

#define PBLINALG_DECLARE(T)                                                              \
    extern template bool is_diagonal<T>(MatrixSpan<T>, Index);                           \
    extern template std::vector<std::complex<T>> diagonal_of<T>(MatrixSpan<T>, Index);   \
    extern template void apply_nbqbit_gate<T>(std::complex<T>*, QubitSpan, QubitSpan,    \
                                              MatrixSpan<T>, unsigned long long, int);   \
    extern template void _apply_nqbit_gate<T>(std::complex<T>*,                          \
                                              const orb::core::iterator::StateIterator&, \
                                              QubitSpan, MatrixSpan<T>, int);
PBLINALG_DECLARE(float)
PBLINALG_DECLARE(double)
#undef PBLINALG_DECLARE

}  // namespace pblinalg::cpu
