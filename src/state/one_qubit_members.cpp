// The one-qubit gate members: each computes its coefficients and calls its kernel.
#include <pblinalg/state_vector_cpu.hpp>

#include "apply/gates.hpp"
#include "apply/matrix.hpp"

namespace pblinalg::cpu {
namespace {

/// The listed controls, none when the optional is empty.
QubitSpan listed(const std::optional<std::vector<unsigned int>>& ctrls) {
    return ctrls ? QubitSpan(*ctrls) : QubitSpan();
}

}  // namespace

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_H(unsigned int qubit, OptionalQubits ctrls) {
    Template1QBGate<GateH>::apply_controlled(state.get(), qubit, nqubits, num_threads,
                                             listed(ctrls));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_X(unsigned int qubit, OptionalQubits ctrls) {
    Template1QBGate<GateX>::apply_controlled(state.get(), qubit, nqubits, num_threads,
                                             listed(ctrls));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_Y(unsigned int qubit, OptionalQubits ctrls) {
    Template1QBGate<GateY>::apply_controlled(state.get(), qubit, nqubits, num_threads,
                                             listed(ctrls));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_Z(unsigned int qubit, OptionalQubits ctrls) {
    TemplatePartialDiagGate<GateZ>::apply_controlled(state.get(), qubit, nqubits, num_threads,
                                                     listed(ctrls));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_S(unsigned int qubit, OptionalQubits ctrls) {
    TemplatePartialDiagGate<GateS>::apply_controlled(state.get(), qubit, nqubits, num_threads,
                                                     listed(ctrls));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_T(unsigned int qubit, OptionalQubits ctrls) {
    TemplatePartialDiagGate<GateT>::apply_controlled(state.get(), qubit, nqubits, num_threads,
                                                     listed(ctrls));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_PH(unsigned int qubit, T theta, OptionalQubits ctrls) {
    _TemplatePartialDiagGate<GatePH<T>, false>::apply_controlled(
        GatePH<T>(theta), state.get(), qubit, nqubits, num_threads, listed(ctrls));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_RX(unsigned int qubit, T theta, OptionalQubits ctrls) {
    const auto [stay, flip] = GateRX::factors(theta);
    Template1QBGate<GateRX>::apply_controlled(state.get(), qubit, nqubits, num_threads,
                                              listed(ctrls), stay, flip);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_RY(unsigned int qubit, T theta, OptionalQubits ctrls) {
    const auto [stay, flip] = GateRY::factors(theta);
    Template1QBGate<GateRY>::apply_controlled(state.get(), qubit, nqubits, num_threads,
                                              listed(ctrls), stay, flip);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_RZ(unsigned int qubit, T theta, OptionalQubits ctrls) {
    TemplateNamedDiagGate<GateRZ<T, true>, true>::apply_controlled(
        GateRZ<T, true>(theta), state.get(), qubit, nqubits, num_threads, listed(ctrls));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_YtoZ(unsigned int qubit, OptionalQubits ctrls) {
    Template1QBGate<GateYtoZ>::apply_controlled(state.get(), qubit, nqubits, num_threads,
                                                listed(ctrls));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_ZtoY(unsigned int qubit, OptionalQubits ctrls) {
    Template1QBGate<GateZtoY>::apply_controlled(state.get(), qubit, nqubits, num_threads,
                                                listed(ctrls));
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_1qbit_gate(unsigned int qubit, const Matrix& matrix) {
    apply_1qbit_ctrl_gate({}, qubit, matrix);
}

template <class T>
void PybindLinAlgStateVectorCPU<T>::apply_1qbit_ctrl_gate(const Qubits& controls,
                                                          unsigned int target,
                                                          const Matrix& matrix) {
    if (is_diagonal<T>(matrix, 2)) {
        const std::complex<T> diagonal[] = {matrix[0], matrix[3]};
        _DiagGate<true>::apply_controlled<T>(state.get(), QubitSpan(&target, 1), nqubits,
                                             num_threads, controls, diagonal);
    } else {
        _Gate1QB<true>::apply_controlled(state.get(), target, nqubits, num_threads, controls,
                                         matrix[0], matrix[1], matrix[2], matrix[3]);
    }
}

using Controls = std::optional<std::vector<unsigned int>>;
#define PBLINALG_INSTANTIATE(T)                                                                 \
    template void PybindLinAlgStateVectorCPU<T>::apply_H(unsigned int, Controls);               \
    template void PybindLinAlgStateVectorCPU<T>::apply_X(unsigned int, Controls);               \
    template void PybindLinAlgStateVectorCPU<T>::apply_Y(unsigned int, Controls);               \
    template void PybindLinAlgStateVectorCPU<T>::apply_Z(unsigned int, Controls);               \
    template void PybindLinAlgStateVectorCPU<T>::apply_S(unsigned int, Controls);               \
    template void PybindLinAlgStateVectorCPU<T>::apply_T(unsigned int, Controls);               \
    template void PybindLinAlgStateVectorCPU<T>::apply_PH(unsigned int, T, Controls);           \
    template void PybindLinAlgStateVectorCPU<T>::apply_RX(unsigned int, T, Controls);           \
    template void PybindLinAlgStateVectorCPU<T>::apply_RY(unsigned int, T, Controls);           \
    template void PybindLinAlgStateVectorCPU<T>::apply_RZ(unsigned int, T, Controls);           \
    template void PybindLinAlgStateVectorCPU<T>::apply_YtoZ(unsigned int, Controls);            \
    template void PybindLinAlgStateVectorCPU<T>::apply_ZtoY(unsigned int, Controls);            \
    template void PybindLinAlgStateVectorCPU<T>::apply_1qbit_gate(unsigned int, const Matrix&); \
    template void PybindLinAlgStateVectorCPU<T>::apply_1qbit_ctrl_gate(                         \
        const Qubits&, unsigned int, const Matrix&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
