// The gate members on two and more qubits, and the predicate that binding layers ask of a gate.
#include <algorithm>
#include <pblinalg/state_vector_cpu.hpp>

#include "apply/gates.hpp"
#include "apply/matrix.hpp"

namespace pblinalg::cpu {

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_CNOT(unsigned int control, unsigned int target) {
    Template1QBGate<GateX>::apply_controlled(state.get(), target, nqubits, num_threads,
                                             QubitSpan(&control, 1));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_CCNOT(unsigned int control1, unsigned int control2,
                                                unsigned int target) {
    const unsigned int controls[] = {control1, control2};
    Template1QBGate<GateX>::apply_controlled(state.get(), target, nqubits, num_threads, controls);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_CSIGN(unsigned int q1, unsigned int q2) {
    TemplatePartialDiagGate<GateZ>::apply_controlled(state.get(), q2, nqubits, num_threads,
                                                     QubitSpan(&q1, 1));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_SWAP(unsigned int q1, unsigned int q2) {
    Template2QBGate<GateSWAP>::apply_controlled(state.get(), q1, q2, nqubits, num_threads, {});
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_SQRTSWAP(unsigned int q1, unsigned int q2) {
    Template2QBGate<GateSQRTSWAP>::apply_controlled(state.get(), q1, q2, nqubits, num_threads, {});
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_ISWAP(unsigned int q1, unsigned int q2) {
    Template2QBGate<GateISWAP>::apply_controlled(state.get(), q1, q2, nqubits, num_threads, {});
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_2qbit_gate(unsigned int q1, unsigned int q2,
                                                     const Matrix& matrix) {
    apply_2qbit_ctrl_gate({}, q1, q2, matrix);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_2qbit_ctrl_gate(const Qubits& controls, unsigned int q1,
                                                          unsigned int q2, const Matrix& matrix) {
    if (is_diagonal<T>(matrix, 4)) {
        const unsigned int qubits[] = {q1, q2};
        const std::complex<T> diagonal[] = {matrix[0], matrix[5], matrix[10], matrix[15]};
        _DiagGate<true>::apply_controlled<T>(state.get(), qubits, nqubits, num_threads, controls,
                                             diagonal);
    } else {
        _Gate2QB<true>::apply_controlled<T>(state.get(), q1, q2, nqubits, num_threads, controls,
                                            matrix);
    }
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_nqbit_gate(const Qubits& qubits, const Matrix& matrix) {
    const Index rows = bit(static_cast<unsigned int>(qubits.size()));
    if (is_diagonal<T>(matrix, rows)) {
        _DiagGate<true>::apply<T>(state.get(), qubits, nqubits, num_threads,
                                  diagonal_of<T>(matrix, rows));
    } else {
        apply_nbqbit_gate<T>(state.get(), qubits, {}, matrix, nqubits, num_threads);
    }
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_nqbit_ctrl_gate(const Qubits& controls,
                                                          const Qubits& qubits,
                                                          const Matrix& matrix) {
    const Index rows = bit(static_cast<unsigned int>(qubits.size()));
    if (is_diagonal<T>(matrix, rows)) {
        _DiagGate<true>::apply_controlled<T>(state.get(), qubits, nqubits, num_threads, controls,
                                             diagonal_of<T>(matrix, rows));
    } else {
        apply_nbqbit_gate<T>(state.get(), qubits, controls, matrix, nqubits, num_threads);
    }
}

template <class Amplitude>
bool contains_no_first_qubits(const std::vector<unsigned int>& qubits,
                              const std::vector<unsigned int>& ctrls) {
    const auto high = [](unsigned int qubit) { return qubit >= 3; };
    return std::all_of(qubits.begin(), qubits.end(), high) &&
           std::all_of(ctrls.begin(), ctrls.end(), high);
}

#define PBLINALG_INSTANTIATE(T)                                                                  \
    template void PybindLinAlgStateVectorCPU<T>::apply_CNOT(unsigned int, unsigned int);         \
    template void PybindLinAlgStateVectorCPU<T>::apply_CCNOT(unsigned int, unsigned int,         \
                                                             unsigned int);                      \
    template void PybindLinAlgStateVectorCPU<T>::apply_CSIGN(unsigned int, unsigned int);        \
    template void PybindLinAlgStateVectorCPU<T>::apply_SWAP(unsigned int, unsigned int);         \
    template void PybindLinAlgStateVectorCPU<T>::apply_SQRTSWAP(unsigned int, unsigned int);     \
    template void PybindLinAlgStateVectorCPU<T>::apply_ISWAP(unsigned int, unsigned int);        \
    template void PybindLinAlgStateVectorCPU<T>::apply_2qbit_gate(unsigned int, unsigned int,    \
                                                                  const Matrix&);                \
    template void PybindLinAlgStateVectorCPU<T>::apply_2qbit_ctrl_gate(                          \
        const Qubits&, unsigned int, unsigned int, const Matrix&);                               \
    template void PybindLinAlgStateVectorCPU<T>::apply_nqbit_gate(const Qubits&, const Matrix&); \
    template void PybindLinAlgStateVectorCPU<T>::apply_nqbit_ctrl_gate(                          \
        const Qubits&, const Qubits&, const Matrix&);                                            \
    template bool contains_no_first_qubits<std::complex<T>>(const std::vector<unsigned int>&,    \
                                                            const std::vector<unsigned int>&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
