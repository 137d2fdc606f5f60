// The export members.
#include "readout/export.hpp"

#include <pblinalg/state_vector_cpu.hpp>

namespace pblinalg::cpu {

template <class T>
void PybindLinAlgStateVectorCPU<T>::get_permuted_statevector(std::complex<T>* out,
                                                             const T& threshold) {
    _permute_and_copy_vector_no_simd(amplitude_view(state.get(), nqubits), out, threshold,
                                     num_threads);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::get_permuted_density_matrix(std::complex<T>* out,
                                                                const T& threshold) {
    get_permuted_statevector(out, threshold);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::get_permuted_density_diag(T* out, const T& threshold) {
    _permute_and_copy_vector_no_simd(diagonal_view(state.get(), nqubits), out, threshold,
                                     num_threads);
}

template <class T>
std::map<unsigned long long, std::complex<T>>*
PybindLinAlgStateVectorCPU<T>::get_mapped_statevector(const T& threshold) {
    return permute_and_map_vector<T, std::complex<T>>(amplitude_view(state.get(), nqubits),
                                                      threshold, num_threads);
}

template <class T>
std::map<unsigned long long, T>* PybindLinAlgStateVectorCPU<T>::get_mapped_density_diag(
    const T& threshold) {
    return permute_and_map_vector<T, T>(diagonal_view(state.get(), nqubits), threshold,
                                        num_threads);
}

#define PBLINALG_INSTANTIATE(T)                                                                \
    template void PybindLinAlgStateVectorCPU<T>::get_permuted_statevector(std::complex<T>*,    \
                                                                          const T&);           \
    template void PybindLinAlgStateVectorCPU<T>::get_permuted_density_matrix(std::complex<T>*, \
                                                                             const T&);        \
    template void PybindLinAlgStateVectorCPU<T>::get_permuted_density_diag(T*, const T&);      \
    template std::map<unsigned long long, std::complex<T>>*                                    \
    PybindLinAlgStateVectorCPU<T>::get_mapped_statevector(const T&);                           \
    template std::map<unsigned long long, T>*                                                  \
    PybindLinAlgStateVectorCPU<T>::get_mapped_density_diag(const T&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
