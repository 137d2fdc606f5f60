// The circuit record, and its simulation against the members that its names stand for.
#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>

#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
using Circuit = PybindLinAlgWCircuit<T>;

template <class T>
class Circuits : public ::testing::Test {};
TYPED_TEST_SUITE(Circuits, Precisions);

TYPED_TEST(Circuits, RecordCopiesOfWhatTheyAreGiven) {
    Circuit<TypeParam> circuit(3);
    EXPECT_EQ(circuit.nqubits, 3u);
    EXPECT_TRUE(circuit.gate_names.empty() && circuit.gate_qubits.empty() &&
                circuit.gate_params.empty());
    std::string name = "anything";
    std::vector<TypeParam> params{1, 2};
    Qubits qubits{7, 7};
    circuit.add_gate(name, params, qubits);
    circuit.add_gate("", {}, {});
    name = "changed";
    params.clear();
    qubits[0] = 0;
    EXPECT_EQ(circuit.gate_names, (std::vector<std::string>{"anything", ""}));
    EXPECT_EQ(circuit.gate_params, (std::vector<std::vector<TypeParam>>{{1, 2}, {}}));
    EXPECT_EQ(circuit.gate_qubits, (std::vector<Qubits>{{7, 7}, {}}));
    circuit.reset(5);
    EXPECT_EQ(circuit.nqubits, 5u);
    EXPECT_TRUE(circuit.gate_names.empty() && circuit.gate_qubits.empty() &&
                circuit.gate_params.empty());
}

TYPED_TEST(Circuits, RunAsListsOfTheSameGates) {
    using T = TypeParam;
    static constexpr T angles[] = {0, T(0.3), T(-1.7), T(3.141592653589793),
                                   std::numeric_limits<T>::infinity()};
    std::vector<GateInfo> known;
    std::ranges::copy_if(gate_table, std::back_inserter(known), &GateInfo::in_record);
    ASSERT_EQ(known.size(), 10u);
    for (const unsigned int n : {2u, 8u, 9u, 17u}) {
        std::mt19937_64 generator(n);
        Circuit<T> circuit(n);
        GateList list;
        // More gates than are read at a time.
        for (int g = 0; g < 1500; ++g) {
            const auto first = static_cast<unsigned int>(generator() % n);
            const Qubits qubits{first,
                                (first + 1 + static_cast<unsigned int>(generator() % (n - 1))) % n};
            const std::size_t which = generator() % 11;
            if (which == 10) {
                circuit.add_gate("CNOT", {}, qubits);
                list.add(GateKind::X, qubits[1], Controls({qubits[0]}));
                continue;
            }
            const GateInfo& gate = known[which];
            const T angle = angles[generator() % (g < 1400 ? 4 : 5)];
            const QubitList targets = std::span<const unsigned int>(qubits).first(gate.n_targets);
            circuit.add_gate(std::string(gate.name),
                             gate.n_angles ? std::vector<T>{angle} : std::vector<T>{}, qubits);
            gate.n_angles ? list.add(gate.kind, targets, angle) : list.add(gate.kind, targets);
        }
        const auto before = filled<T>(std::size_t{1} << n, Filling::rare_extremes, n);
        StateVector<T> by_circuit(n), by_list(n);
        load(by_circuit, before);
        load(by_list, before);
        by_circuit.set_num_threads(2);
        by_circuit.simulate_circuit(circuit);
        run(by_list, list);
        EXPECT_TRUE(same_bits(by_circuit, amplitudes_of(by_list)));
    }
}

TYPED_TEST(Circuits, TreatControlsThatTheStateDoesNotHaveAsTheMembersDo) {
    for (const unsigned int n : {3u, 8u, 17u}) {
        const auto before = labelled<TypeParam>(std::size_t{1} << n);
        StateVector<TypeParam> by_circuit(n), by_members(n);
        load(by_circuit, before);
        load(by_members, before);
        Circuit<TypeParam> circuit(9);  // of any count
        by_circuit.simulate_circuit(circuit);
        circuit.add_gate("H", {}, {1});
        circuit.add_gate("CNOT", {}, {n, 0});
        circuit.add_gate("CNOT", {}, {70, 1});
        circuit.add_gate("H", {}, {0});
        by_circuit.simulate_circuit(circuit);
        by_members.apply_H(1);
        by_members.apply_CNOT(n, 0);
        by_members.apply_CNOT(70, 1);
        by_members.apply_H(0);
        EXPECT_TRUE(same_bits(by_circuit, amplitudes_of(by_members)));
    }
}

TYPED_TEST(Circuits, StopAtUnknownNamesAndKeepWhatCameBefore) {
    for (const std::string name : {"S", "h", "", "RXX", "CSIGN", "Gate "}) {
        StateVector<TypeParam> state(2);
        state.reset();
        Circuit<TypeParam> circuit(2);
        circuit.add_gate("X", {}, {1});
        circuit.add_gate(name, {}, {});
        circuit.add_gate("X", {}, {0});
        try {
            state.simulate_circuit(circuit);
            ADD_FAILURE() << "\"" << name << "\" was accepted";
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(error.what(), "Gate " + name + " is not supported by the pybinded circuit");
        }
        EXPECT_TRUE(same_bits(state, {0, 0, 1, 0}));
    }
}

}  // namespace
}  // namespace pblinalg::test
