// The circuit record, and its simulation against the members that its names stand for.
#include <omp.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
using Circuit = PybindLinAlgWCircuit<T>;

template <class T>
class Circuits : public ::testing::Test {
  protected:
    struct Gate {
        const char* name;
        bool has_angle;
        unsigned int n_qubits;
        std::function<void(StateVector<T>&, const Qubits& q, T angle)> apply;
    };
    using S = StateVector<T>;
    const std::vector<Gate> vocabulary{
        {"H", false, 1, [](S& s, const Qubits& q, T) { s.apply_H(q[0]); }},
        {"X", false, 1, [](S& s, const Qubits& q, T) { s.apply_X(q[0]); }},
        {"Y", false, 1, [](S& s, const Qubits& q, T) { s.apply_Y(q[0]); }},
        {"Z", false, 1, [](S& s, const Qubits& q, T) { s.apply_Z(q[0]); }},
        {"RX", true, 1, [](S& s, const Qubits& q, T angle) { s.apply_RX(q[0], angle); }},
        {"RY", true, 1, [](S& s, const Qubits& q, T angle) { s.apply_RY(q[0], angle); }},
        {"RZ", true, 1, [](S& s, const Qubits& q, T angle) { s.apply_RZ(q[0], angle); }},
        {"PH", true, 1, [](S& s, const Qubits& q, T angle) { s.apply_PH(q[0], angle); }},
        {"T", false, 1, [](S& s, const Qubits& q, T) { s.apply_T(q[0]); }},
        {"CNOT", false, 2, [](S& s, const Qubits& q, T) { s.apply_CNOT(q[0], q[1]); }},
        {"SWAP", false, 2, [](S& s, const Qubits& q, T) { s.apply_SWAP(q[0], q[1]); }},
    };

    /// States on which different shortcuts hold, some of them only in parts of the state.
    static std::vector<Amplitudes<T>> starts(unsigned int n, std::uint64_t seed) {
        const std::size_t size = std::size_t{1} << n;
        std::vector<Amplitudes<T>> states{Amplitudes<T>(size)};
        states[0][0] = 1;
        for (const Filling filling : all_fillings)
            states.push_back(filled<T>(size, filling, seed));
        for (const T special : {-T(0), std::numeric_limits<T>::infinity()}) {
            states.push_back(filled<T>(size, Filling::ordinary, seed));
            states.back()[seed * 7919 % size] = {special, T(0.5)};
        }
        return states;
    }

    /// Runs random gates through the driver and, one by one, through the members.
    void check_random_circuit(unsigned int n, int n_gates, const Amplitudes<T>& before,
                              std::uint64_t seed, int num_threads) {
        static constexpr T angles[] = {0, T(0.3), T(-1.7), T(3.141592653589793), T(1e-4)};
        std::mt19937_64 generator(seed);
        const auto below = [&](unsigned int n) {
            return static_cast<unsigned int>(generator() % n);
        };
        S by_circuit(n), by_members(n);
        load(by_circuit, before);
        load(by_members, before);
        by_circuit.set_num_threads(num_threads);
        Circuit<T> circuit(n);
        const auto add = [&](const Gate& gate, const Qubits& qubits) {
            const T angle =
                below(1000) == 0 ? std::numeric_limits<T>::infinity() : angles[below(5)];
            circuit.add_gate(gate.name, gate.has_angle ? std::vector<T>{angle} : std::vector<T>{},
                             qubits);
            gate.apply(by_members, qubits, angle);
        };
        for (int g = 0; g < n_gates; ++g) {
            // Half of the circuits mostly move amplitudes: X, CNOT, SWAP.
            static constexpr unsigned int permutations[] = {1, 9, 10};
            const bool moves = n > 1 && seed % 2 == 0 && below(4) > 0;
            const Gate& gate = vocabulary[moves ? permutations[below(3)] : below(n == 1 ? 9 : 11)];
            Qubits qubits{below(n)};
            if (gate.n_qubits == 2) qubits.push_back((qubits[0] + 1 + below(n - 1)) % n);
            add(gate, qubits);
            // CNOT, diagonal gates, the same CNOT: a diagonal on the parity of two qubits.
            if (std::string(gate.name) != "CNOT" || below(2) == 0) continue;
            for (unsigned int d = below(3) + 1; d > 0; --d) {
                static constexpr int diagonals[] = {3, 6, 7, 8};
                add(vocabulary[diagonals[below(4)]], {qubits[below(2)]});
            }
            add(gate, qubits);
        }
        by_circuit.simulate_circuit(circuit);
        const Amplitudes<T> expected(&by_members.state[0], &by_members.state[0] + before.size());
        EXPECT_TRUE(same_bits(by_circuit, expected))
            << n << " qubits, " << n_gates << " gates, seed " << seed << ", workers "
            << num_threads;
    }
};
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

TYPED_TEST(Circuits, RunAsTheirMembersDoToTheLastBit) {
    std::uint64_t seed = 0;
    for (unsigned int n = 1; n <= 8; ++n) {
        // In short circuits special values stay few, in long ones they spread.
        for (const int n_gates : {3, 5, 8, 40, 150}) {
            for (const auto& before : this->starts(n, seed)) {
                for_each_instruction_set(
                    [&] { this->check_random_circuit(n, n_gates, before, seed++, 1); });
            }
        }
    }
    for_each_instruction_set(
        [&] { this->check_random_circuit(8, 20000, this->starts(8, seed)[1], seed, 1); });
}

TYPED_TEST(Circuits, RunAsTheirMembersDoAroundTheSizesOfCaches) {
    // Tiles have 15 or 16 qubits, and workers share states from 14 or 15 on.
    std::uint64_t seed = 1000;
    for (unsigned int n = 9; n <= 18; ++n) {
        for (const auto& before : this->starts(n, seed)) {
            // 0 asks for the default team.
            omp_set_num_threads(n % 2 == 0 ? 3 : 5);
            this->check_random_circuit(n, n < 16 ? 60 : 120, before, seed,
                                       static_cast<int>(seed % 3));
            ++seed;
        }
    }
    omp_set_num_threads(omp_get_num_procs());
    this->check_random_circuit(17, 0, this->starts(17, seed)[1], seed, 2);
    this->check_random_circuit(17, 3, this->starts(17, seed)[1], seed, 2);
}

TYPED_TEST(Circuits, RunAsTheirMembersDoOnStatesBeyondTheCaches) {
    const unsigned int n = sizeof(TypeParam) == 8 ? 22 : 23;
    const auto before = filled<TypeParam>(std::size_t{1} << n, Filling::ordinary, 7);
    for_each_instruction_set([&] { this->check_random_circuit(n, 25, before, 7, 2); });
}

TYPED_TEST(Circuits, PrepareABellState) {
    const TypeParam c = TypeParam(1) / std::sqrt(TypeParam(2));
    StateVector<TypeParam> state(2);
    state.reset();
    Circuit<TypeParam> circuit(9);
    state.simulate_circuit(circuit);
    EXPECT_TRUE(same_bits(state, {1, 0, 0, 0}));
    circuit.add_gate("H", {}, {0});
    circuit.add_gate("CNOT", {}, {0, 1});
    state.simulate_circuit(circuit);
    EXPECT_TRUE(same_bits(state, {c, 0, 0, c}));
}

TYPED_TEST(Circuits, TreatControlsThatTheStateDoesNotHaveAsTheMembersDo) {
    for (const unsigned int n : {3u, 8u, 17u}) {
        const auto before = labelled<TypeParam>(std::size_t{1} << n);
        StateVector<TypeParam> by_circuit(n), by_members(n);
        load(by_circuit, before);
        load(by_members, before);
        Circuit<TypeParam> circuit(n);
        circuit.add_gate("H", {}, {1});
        circuit.add_gate("CNOT", {}, {n, 0});
        circuit.add_gate("CNOT", {}, {70, 1});
        circuit.add_gate("H", {}, {0});
        by_circuit.simulate_circuit(circuit);
        by_members.apply_H(1);
        by_members.apply_CNOT(n, 0);
        by_members.apply_CNOT(70, 1);
        by_members.apply_H(0);
        EXPECT_TRUE(same_bits(
            by_circuit,
            Amplitudes<TypeParam>(&by_members.state[0], &by_members.state[0] + before.size())));
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
