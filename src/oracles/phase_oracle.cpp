// The phase oracle's member; what it does to the array is in apply/phase_oracle.hpp.
#include "apply/phase_oracle.hpp"

#include <pblinalg/state_vector_cpu.hpp>

namespace pblinalg::cpu {

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_phase_oracle(
    const std::vector<unsigned long long>& marked, const Qubits& qubits) {
    negate_marked_values(state.get(), nqubits, marked, qubits, num_threads);
}

#define PBLINALG_INSTANTIATE(T)                                      \
    template void PybindLinAlgStateVectorCPU<T>::apply_phase_oracle( \
        const std::vector<unsigned long long>&, const Qubits&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
