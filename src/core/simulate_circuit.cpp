// The circuit driver: gate names to members.
#include <pblinalg/state_vector_cpu.hpp>
#include <stdexcept>

namespace pblinalg::cpu {

template <class T>
void PybindLinAlgStateVectorCPU<T>::simulate_circuit(PybindLinAlgWCircuit<T>& circuit) {
    for (std::size_t i = 0; i < circuit.gate_names.size(); ++i) {
        const std::string& name = circuit.gate_names[i];
        const std::vector<unsigned int>& qubits = circuit.gate_qubits[i];
        const std::vector<T>& params = circuit.gate_params[i];
        if (name == "H") {
            apply_H(qubits[0]);
        } else if (name == "X") {
            apply_X(qubits[0]);
        } else if (name == "Y") {
            apply_Y(qubits[0]);
        } else if (name == "Z") {
            apply_Z(qubits[0]);
        } else if (name == "RX") {
            apply_RX(qubits[0], params[0]);
        } else if (name == "RY") {
            apply_RY(qubits[0], params[0]);
        } else if (name == "RZ") {
            apply_RZ(qubits[0], params[0]);
        } else if (name == "PH") {
            apply_PH(qubits[0], params[0]);
        } else if (name == "T") {
            apply_T(qubits[0]);
        } else if (name == "CNOT") {
            apply_CNOT(qubits[0], qubits[1]);
        } else if (name == "SWAP") {
            apply_SWAP(qubits[0], qubits[1]);
        } else {
            throw std::invalid_argument("Gate " + name +
                                        " is not supported by the pybinded circuit");
        }
    }
}

template void PybindLinAlgStateVectorCPU<float>::simulate_circuit(PybindLinAlgWCircuit<float>&);
template void PybindLinAlgStateVectorCPU<double>::simulate_circuit(PybindLinAlgWCircuit<double>&);

}  // namespace pblinalg::cpu
