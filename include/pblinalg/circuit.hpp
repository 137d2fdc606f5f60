// The circuit record: gates collected one by one, applied by
// PybindLinAlgStateVectorCPU<T>::simulate_circuit.
#pragma once

#include <pblinalg/export.hpp>
#include <string>
#include <vector>

namespace pblinalg {

/// A list of gates, kept as three parallel lists of equal length.
///
/// The record stores what it is given and checks nothing: an unknown name or a qubit list that is
/// too short surfaces only when the circuit is simulated.
template <class T>
class PBLINALG_EXPORT PybindLinAlgWCircuit {
  public:
    /// Kept for the caller; simulation does not compare it with the state's qubit count.
    unsigned int nqubits;
    /// One name per gate, in order of addition.
    std::vector<std::string> gate_names;
    /// The qubits of each gate; a CNOT lists its control first.
    std::vector<std::vector<unsigned int>> gate_qubits;
    /// The angles of each gate in radians, empty for gates without one.
    std::vector<std::vector<T>> gate_params;

    explicit PybindLinAlgWCircuit(unsigned int nqubits);

    /// Appends one gate; the lists are copied.
    void add_gate(const std::string& name, const std::vector<T>& params,
                  const std::vector<unsigned int>& qubits);

    /// Empties the record and keeps its capacity.
    void reset(unsigned int nqubits);
};

extern template class PBLINALG_EXPORT PybindLinAlgWCircuit<float>;
extern template class PBLINALG_EXPORT PybindLinAlgWCircuit<double>;

}  // namespace pblinalg
