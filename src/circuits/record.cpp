#include <pblinalg/circuit.hpp>

namespace pblinalg {

template <class T>
PybindLinAlgWCircuit<T>::PybindLinAlgWCircuit(unsigned int nqubits) : nqubits(nqubits) {}

template <class T>
void PybindLinAlgWCircuit<T>::add_gate(const std::string& name, const std::vector<T>& params,
                                       const std::vector<unsigned int>& qubits) {
    gate_names.push_back(name);
    gate_qubits.push_back(qubits);
    gate_params.push_back(params);
}

template <class T>
void PybindLinAlgWCircuit<T>::reset(unsigned int nqubits) {
    this->nqubits = nqubits;
    gate_names.clear();
    gate_qubits.clear();
    gate_params.clear();
}

template class PybindLinAlgWCircuit<float>;
template class PybindLinAlgWCircuit<double>;

}  // namespace pblinalg
