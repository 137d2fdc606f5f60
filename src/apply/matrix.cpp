#include "apply/matrix.hpp"

#include <algorithm>

#include "apply/gates.hpp"
#include "core/parallel.hpp"
#include "core/team_scratch.hpp"
#include "kernels/fused_kernels.hpp"

namespace pblinalg::cpu {

using orb::core::iterator::StateIterator;

template <class T>
void _apply_nqbit_gate(std::complex<T>* amplitudes, const StateIterator& iterator, QubitSpan qubits,
                       MatrixSpan<T> matrix, int nthreads) {
    const MatrixWalk walk{iterator, qubits.data(), static_cast<unsigned int>(qubits.size()),
                          iterator.offsets.data()};
    const Index work = iterator.count * iterator.n_offsets * iterator.n_offsets;
    const int workers = work < min_parallel_amplitudes ? 1 : get_num_threads(nthreads);
    dispatch([&]<InstructionSet set>() {
        const TeamScratch scratch(workers, matrix_scratch_bytes<set, T>(walk.n_targets));
        run_team(workers, [&](int id, int team) {
            const Block own(iterator.count, static_cast<Index>(id), static_cast<Index>(team));
            if (own.begin == own.end) return;
            multiply_matrix<set, T>(parts(amplitudes), walk, own.begin, own.end,
                                    parts(matrix.data()), scratch.of(id));
        });
    });
}

template <class T>
bool is_diagonal(MatrixSpan<T> matrix, Index rows) {
    for (Index r = 0; r < rows; ++r) {
        for (Index c = 0; c < rows; ++c) {
            const std::complex<T>& entry = matrix[r * rows + c];
            if (r != c && !(entry.real() == 0 && entry.imag() == 0)) return false;
        }
    }
    return true;
}

template <class T>
std::vector<std::complex<T>> diagonal_of(MatrixSpan<T> matrix, Index rows) {
    std::vector<std::complex<T>> diagonal(rows);
    for (Index r = 0; r < rows; ++r)
        diagonal[r] = matrix[r * (rows + 1)];
    return diagonal;
}

template <class T>
void apply_nbqbit_gate(std::complex<T>* amplitudes, QubitSpan qubits, QubitSpan controls,
                       MatrixSpan<T> matrix, unsigned long long nqbits, int nthreads) {
    _apply_nqbit_gate(amplitudes, StateIterator(qubits, controls, nqbits), qubits, matrix,
                      nthreads);
}

#define PBLINALG_INSTANTIATE(T)                                                               \
    template bool is_diagonal<T>(MatrixSpan<T>, Index);                                       \
    template std::vector<std::complex<T>> diagonal_of<T>(MatrixSpan<T>, Index);               \
    template void apply_nbqbit_gate<T>(std::complex<T>*, QubitSpan, QubitSpan, MatrixSpan<T>, \
                                       unsigned long long, int);                              \
    template void _apply_nqbit_gate<T>(std::complex<T>*, const StateIterator&, QubitSpan,     \
                                       MatrixSpan<T>, int);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
