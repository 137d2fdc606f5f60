// Probabilities of measurement outcomes on listed qubits: of one outcome, or of all in one pass.
#pragma once

#include <map>

#include "core/state_iterator.hpp"
#include "readout/views.hpp"

namespace pblinalg::cpu {

using orb::core::iterator::QubitSpan;

/// The probability of one outcome, bit j of which is the value of qubits[j]; bits above the list
/// are ignored. 2^(n-L) elements are summed for a list of L qubits, whether they are distinct or
/// not: of a list with a repeated qubit only the lowest free bits are counted through.
template <sequence S>
typename S::proba_type cumulative_probability(S view, unsigned long long outcome, QubitSpan qubits,
                                              int num_threads);

/// Writes the probabilities of all 2^L outcomes, bit j of an outcome being the value of qubits[j]:
/// the *first* listed qubit is the *least* significant.
///
/// Each sum is as in `cumulative_probability`. Where one worker is asked for it is taken in
/// increasing order of the element index, one addition after the other; else in pieces that are the
/// same for every other request.
/// Cost: one pass over the view. Nothing is allocated.
/// @param scratch  64-byte aligned memory of `outcome_scratch_bytes` for the same arguments.
template <sequence S>
void outcome_probabilities(S view, QubitSpan qubits, int num_threads, typename S::proba_type* out,
                           void* scratch);
template <sequence S>
std::size_t outcome_scratch_bytes(S view, QubitSpan qubits, int num_threads);

/// The pieces in whose sums `outcome_probabilities` takes those of every outcome: each holds the
/// elements with one value on the highest qubits that are not listed.
template <sequence S>
Index outcome_pieces(S view, QubitSpan qubits, int num_threads);

/// The dense distribution: out[v] = probability of v, the first listed qubit being the most
/// significant bit of v, or 0 when it is not strictly greater than threshold^2.
/// @tparam reserved  only `false` exists; the last argument is not read.
/// Errors: std::bad_alloc.
template <class T, sequence_of_precision<T> S, bool reserved = false>
void compute_marginal_distribution(S view, T* out, const T& threshold, QubitSpan qubits,
                                   int num_threads, unsigned long long = 0);

/// The entries of the dense distribution that are neither 0 nor NaN nor at most threshold^2. The
/// caller owns the map.
/// Errors: std::bad_alloc.
template <class T, sequence_of_precision<T> S>
std::map<unsigned long long, T>* map_marginal_distribution(S view, const T& threshold,
                                                           QubitSpan qubits, int num_threads);

#define PBLINALG_DECLARE(T, S)                                                                  \
    extern template T cumulative_probability<S>(S, unsigned long long, QubitSpan, int);         \
    extern template std::size_t outcome_scratch_bytes<S>(S, QubitSpan, int);                    \
    extern template Index outcome_pieces<S>(S, QubitSpan, int);                                 \
    extern template void outcome_probabilities<S>(S, QubitSpan, int, T*, void*);                \
    extern template void compute_marginal_distribution<T, S, false>(S, T*, const T&, QubitSpan, \
                                                                    int, unsigned long long);   \
    extern template std::map<unsigned long long, T>* map_marginal_distribution<T, S>(           \
        S, const T&, QubitSpan, int);
PBLINALG_DECLARE(float, SVSequence<std::complex<float>>)
PBLINALG_DECLARE(double, SVSequence<std::complex<double>>)
PBLINALG_DECLARE(float, DMDiagSequence<float>)
PBLINALG_DECLARE(double, DMDiagSequence<double>)
#undef PBLINALG_DECLARE

}  // namespace pblinalg::cpu
