// Fixed gates and one- and two-qubit matrices: every bit of every amplitude, on every placement,
// instruction set and split among workers.
#include "kernels/blocks/exact_blocks.hpp"
#include "support/gate_table.hpp"

namespace pblinalg::test {
namespace {

using cpu::Index;
using cpu::InstructionSet;

TEST(InstructionSets, RunTheCodeThatWasCompiledForThem) {
    EXPECT_TRUE(cpu::supports(InstructionSet::baseline));
    EXPECT_EQ(supported_instruction_sets().back(), cpu::active_instruction_set());
    for_each_instruction_set([] {
        const InstructionSet set = cpu::active_instruction_set();
        const int bytes = set == InstructionSet::avx512 ? 64
                          : set == InstructionSet::avx2 ? 32
                                                        : 16;
        const auto compiled = []<InstructionSet s>() { return cpu::compiled_register_bytes<s>(); };
        EXPECT_EQ(cpu::dispatch(compiled), bytes);
    });
}

template <class T>
class ExactGates : public ::testing::Test {
  protected:
    const std::vector<GateCase<T>> cases = all_gate_cases<T>();

    /// Compares one application by all instruction sets and the given worker requests.
    void check(const GateCase<T>& gate, const Qubits& targets, const OptionalQubits& controls,
               const Amplitudes<T>& before, std::initializer_list<int> requests = {1}) {
        Amplitudes<T> expected = before;
        gate.define(expected, targets, listed(controls));
        StateVector<T> state(qubits_of(before.size()));
        for_each_instruction_set([&] {
            for (const int request : requests) {
                state.set_num_threads(request);
                load(state, before);
                gate.apply(state, targets, controls);
                ASSERT_TRUE(same_bits(state, expected))
                    << gate.name << " on " << ::testing::PrintToString(targets) << " under "
                    << ::testing::PrintToString(listed(controls)) << ", workers " << request;
            }
        });
    }
};
TYPED_TEST_SUITE(ExactGates, Precisions);

TYPED_TEST(ExactGates, HaveTheDefinedBitsOnEveryPlacement) {
    for (unsigned int n = 1; n <= 6; ++n) {
        for (const Filling filling : all_fillings) {
            const auto before = filled<TypeParam>(std::size_t{1} << n, filling, n);
            for (const auto& gate : this->cases) {
                for_each_placement(n, gate.n_targets, gate.takes_controls ? 3 : 0,
                                   [&](const Qubits& targets, const Qubits& controls) {
                                       OptionalQubits given;
                                       if (!controls.empty()) given = controls;
                                       this->check(gate, targets, given, before);
                                   });
                if (this->HasFatalFailure()) return;
            }
        }
    }
}

TYPED_TEST(ExactGates, TakeAnEmptyControlListForNone) {
    const auto before = filled<TypeParam>(32, Filling::extremes);
    for (const auto& gate : this->cases) {
        if (gate.takes_controls)
            this->check(gate, gate.n_targets == 1 ? Qubits{1} : Qubits{3, 0}, Qubits{}, before);
    }
}

TYPED_TEST(ExactGates, SkipControlsAboveTheStateButCountThem) {
    const auto before = labelled<TypeParam>(128);
    for (const auto& gate : this->cases) {
        if (!gate.takes_controls) continue;
        for (const Qubits& controls : {Qubits{7}, Qubits{3, 9}, Qubits{8, 7}, Qubits{0, 7, 2}}) {
            this->check(gate, gate.n_targets == 1 ? Qubits{1} : Qubits{5, 1}, controls, before);
            this->check(gate, gate.n_targets == 1 ? Qubits{6} : Qubits{4, 6}, controls, before);
        }
    }
}

TYPED_TEST(ExactGates, HaveTheSameBitsForEveryWorkerCount) {
    const auto before = filled<TypeParam>(std::size_t{1} << 16, Filling::ordinary);
    for (const auto& gate : this->cases) {
        for (const Qubits& targets : {Qubits{15, 0, 7}, Qubits{2, 14, 9}}) {
            const Qubits used(targets.begin(), targets.begin() + gate.n_targets);
            this->check(gate, used, std::nullopt, before, {1, 2, 64, 0, -3});
        }
        if (gate.takes_controls)
            this->check(gate, gate.n_targets == 1 ? Qubits{9} : Qubits{1, 9}, Qubits{4}, before,
                        {1, 2});
        if (this->HasFatalFailure()) return;
    }
}

/// Runs the kernel of `Gate` with a team of any size, and with any cut of the groups in two.
template <class Gate, class T>
void check_splits(const std::string& name, const Qubits& targets, const Qubits& controls,
                  const std::vector<GateCase<T>>& cases, const Amplitudes<T>& factors = {}) {
    const auto gate = std::find_if(cases.begin(), cases.end(),
                                   [&](const auto& c) { return c.name.starts_with(name); });
    ASSERT_NE(gate, cases.end()) << name;
    const auto before = filled<T>(512, Filling::extremes);
    auto expected = before;
    gate->define(expected, targets, controls);
    constexpr bool mixes = Gate::n_targets > 0;
    cpu::GateWalk walk{{mixes ? targets : Qubits(), controls, 9}, {targets[0], targets.back()}};
    if (!mixes) walk.groups.require(targets[0]);
    StateVector<T> state(9);
    const auto block = [&](Index begin, Index end) {
        cpu::dispatch([&]<InstructionSet set>() {
            cpu::update_groups<set, Gate, T>(cpu::parts(state.state.get()), walk, begin, end,
                                             cpu::parts(factors.data()));
        });
    };
    for_each_instruction_set([&] {
        for (const int team : {2, 3, 5, 7}) {
            load(state, before);
            cpu::for_each_block_of_team(walk.groups.count, team, block);
            EXPECT_TRUE(same_bits(state, expected)) << gate->name << ", team of " << team;
        }
        for (Index cut = 0; cut <= walk.groups.count; ++cut) {
            load(state, before);
            block(cut, walk.groups.count);
            block(0, cut);
            ASSERT_TRUE(same_bits(state, expected)) << gate->name << ", cut at " << cut;
        }
    });
}

TYPED_TEST(ExactGates, HaveTheSameBitsForOddTeamsAndAnyCut) {
    using T = TypeParam;
    const auto m2 = filled<T>(4, Filling::ordinary, 5), m4 = filled<T>(16, Filling::ordinary, 5);
    for (const unsigned int q : {0u, 1u, 2u, 5u, 8u}) {
        check_splits<cpu::GateH, T>("H", {q}, {}, this->cases);
        check_splits<cpu::GateY, T>("Y", {q}, {3}, this->cases);
        check_splits<cpu::GateZtoY, T>("ZtoY", {q}, {7, 4}, this->cases);
        check_splits<cpu::GateT, T>("T", {q}, {}, this->cases);
        check_splits<cpu::GateZ, T>("Z", {q}, {3}, this->cases);
        check_splits<cpu::_Gate1QB<true>, T>("matrix ordinary on 1", {q}, {6}, this->cases, m2);
        check_splits<cpu::GateSWAP, T>("SWAP", {q, 3}, {}, this->cases);
        check_splits<cpu::GateISWAP, T>("ISWAP", {6, q}, {4}, this->cases);
        check_splits<cpu::GateHH, T>("HH", {q, 4}, {3}, this->cases);
        check_splits<cpu::_Gate2QB<true>, T>("matrix ordinary on 2", {3, q}, {}, this->cases, m4);
    }
}

TYPED_TEST(ExactGates, AreTheGatesOfTheTextbook) {
    const auto before = filled<TypeParam>(32, Filling::ordinary);
    for (const auto& gate : this->cases) {
        if (gate.textbook.empty()) continue;
        for_each_placement(
            5, gate.n_targets, gate.takes_controls ? 2 : 0, [&](const Qubits& t, const Qubits& c) {
                StateVector<TypeParam> state(5);
                load(state, before);
                gate.apply(state, t, c);
                ASSERT_TRUE(close_to(state, apply_textbook(before, t, c, gate.textbook), 4))
                    << gate.name << " on " << ::testing::PrintToString(t) << " under "
                    << ::testing::PrintToString(c);
            });
    }
}

TYPED_TEST(ExactGates, LeaveAmplitudesOfFreeRowsUnwritten) {
    // A NaN with a payload survives only where nothing is written.
    using T = TypeParam;
    const T payload = std::nan("99");
    StateVector<T> state(2), untouched(2);
    load(untouched, Amplitudes<T>(4, {payload, -payload}));
    load(state, Amplitudes<T>(4, {payload, -payload}));
    state.apply_PH(0, 1);
    state.apply_T(0);
    state.apply_S(0);
    EXPECT_EQ(std::memcmp(&state.state[0], &untouched.state[0], sizeof(std::complex<T>)), 0);
    EXPECT_EQ(std::memcmp(&state.state[2], &untouched.state[2], sizeof(std::complex<T>)), 0);
}

}  // namespace
}  // namespace pblinalg::test
