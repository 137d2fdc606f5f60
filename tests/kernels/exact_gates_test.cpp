// Fixed gates and one- and two-qubit matrices: every bit of every amplitude, on every placement,
// instruction set and split among workers.
#include "gates/formulas.hpp"
#include "kernels/exact_kernels.hpp"
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
#if defined(__x86_64__)
    for (const auto set : {InstructionSet::avx2, InstructionSet::avx512}) {
        if (!cpu::supports(set))
            std::printf("Compiled, but not run on this processor: %s\n", cpu::name_of(set));
    }
#endif
}

/// Correctly rounded: of the angle's half, then of the angle.
struct Coefficients {
    double angle, cos_half, sin_half, cos, sin;
};
constexpr Coefficients pinned[] = {
    {0.5, 0x1.f01549f7deea1p-1, 0x1.faaeed4f31577p-3, 0x1.c1528065b7d5p-1, 0x1.eaee8744b05fp-2},
    {2.75, 0x1.8e6f075a987d6p-3, 0x1.f6379d619369dp-1, -0x1.d93e294faed14p-1, 0x1.86d2239c183fbp-2},
    {-3.125, 0x1.0fd9d5c093df5p-7, -0x1.fffb7d3f3a253p-1, -0x1.ffedf51141634p-1,
     -0x1.0fd770a03e5aap-6},
    {100, 0x1.ee1006fc3fcfap-1, -0x1.0cabfe5fcdfc8p-2, 0x1.b981dbf665fdfp-1, -0x1.03425b78c4db8p-1},
    {1e5, -0x1.24e6a56dfd385p-6, -0x1.ffeb0da2bbf4dp-1, -0x1.ffac3841b3da7p-1,
     0x1.24daa9c527e96p-5},
};

// The one part of a gate that the C library decides.
TEST(Coefficients, LieWithinOneUnitInTheLastPlaceOfTheirAngles) {
    const auto check = []<class T>(T) {
        const auto near = [](T got, double value) {
            const T exact = static_cast<T>(value);
            return std::nextafter(exact, T(-2)) <= got && got <= std::nextafter(exact, T(2));
        };
        for (const Coefficients& at : pinned) {
            const T theta = static_cast<T>(at.angle);
            const auto rx = cpu::GateRX::factors(theta);
            const auto ry = cpu::GateRY::factors(theta);
            const auto rz = cpu::GateRZ<T, true>(theta).diagonal;
            const std::complex<T> phase = cpu::GatePH<T>(theta).phase;
            EXPECT_TRUE(near(rx[0].real(), at.cos_half) && near(-rx[1].imag(), at.sin_half));
            EXPECT_TRUE(near(ry[0].real(), at.cos_half) && near(ry[1].real(), at.sin_half));
            EXPECT_TRUE(near(rz[1].real(), at.cos_half) && near(rz[1].imag(), at.sin_half));
            EXPECT_EQ(rz[0], std::conj(rz[1]));
            EXPECT_TRUE(near(phase.real(), at.cos) && near(phase.imag(), at.sin)) << theta;
        }
    };
    check(0.0f);
    check(0.0);
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

TYPED_TEST(ExactGates, TakeNoControlsAndSkipThoseAboveTheStateButCountThem) {
    const auto before = labelled<TypeParam>(128);
    for (const auto& gate : this->cases) {
        if (!gate.takes_controls) continue;
        for (const Qubits& controls :
             {Qubits{}, Qubits{7}, Qubits{3, 9}, Qubits{8, 7}, Qubits{0, 7, 2}}) {
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
            this->check(gate, used, std::nullopt, before, {1, 2, -1});
        }
        if (gate.takes_controls)
            this->check(gate, gate.n_targets == 1 ? Qubits{9} : Qubits{1, 9}, Qubits{4}, before,
                        {1, 2});
        if (this->HasFatalFailure()) return;
    }
}

/// Runs serial kernels on the groups of 9 qubits, for teams of any size and any cut in two.
template <class T>
struct Splits {
    const std::vector<GateCase<T>>& cases;

    /// @param block  calls the kernel of an instruction set for groups [begin, end).
    template <class Block>
    void check(const std::string& name, const Qubits& targets, const Qubits& controls, Index count,
               const Block& block) const {
        const auto gate = std::find_if(cases.begin(), cases.end(),
                                       [&](const auto& c) { return c.name.starts_with(name); });
        ASSERT_NE(gate, cases.end()) << name;
        const auto before = filled<T>(512, Filling::extremes);
        auto expected = before;
        gate->define(expected, targets, controls);
        StateVector<T> state(9);
        const auto run = [&](Index begin, Index end) {
            cpu::dispatch([&]<InstructionSet set>() {
                block.template operator()<set>(cpu::parts(state.state.get()), begin, end);
            });
        };
        for_each_instruction_set([&] {
            for (const int team : {3, 7}) {
                load(state, before);
                cpu::for_each_block_of_team(count, team, run);
                EXPECT_TRUE(same_bits(state, expected)) << gate->name << ", team of " << team;
            }
            for (Index cut = 0; cut <= count; ++cut) {
                load(state, before);
                run(cut, count);
                run(0, cut);
                ASSERT_TRUE(same_bits(state, expected)) << gate->name << ", cut at " << cut;
            }
        });
    }

    template <class Gate>
    void check_gate(const std::string& name, const Qubits& targets, const Qubits& controls,
                    const Amplitudes<T>& factors = {}) const {
        constexpr bool mixes = Gate::n_targets > 0;
        cpu::GateWalk walk{{mixes ? targets : Qubits(), controls, 9}, {targets[0], targets.back()}};
        if (!mixes) walk.groups.require(targets[0]);
        check(name, targets, controls, walk.groups.count,
              [&]<InstructionSet set>(T* state, Index begin, Index end) {
                  const T* const f = cpu::parts(factors.data());
                  cpu::update_groups<set, Gate, T>(state, walk, begin, end, f);
              });
    }
};

TYPED_TEST(ExactGates, HaveTheSameBitsForOddTeamsAndAnyCut) {
    using T = TypeParam;
    const Splits<T> splits{this->cases};
    const auto m2 = filled<T>(4, Filling::ordinary, 5), m4 = filled<T>(16, Filling::ordinary, 5);
    const auto d2 = filled<T>(4, Filling::ordinary, 8);
    for (const unsigned int q : {0u, 1u, 2u, 5u, 8u}) {
        splits.template check_gate<cpu::GateH>("H", {q}, {});
        splits.template check_gate<cpu::GateY>("Y", {q}, {3});
        splits.template check_gate<cpu::GateZtoY>("ZtoY", {q}, {7, 4});
        splits.template check_gate<cpu::GateT>("T", {q}, {});
        splits.template check_gate<cpu::GateZ>("Z", {q}, {3});
        splits.template check_gate<cpu::_Gate1QB<true>>("matrix on 1", {q}, {6}, m2);
        splits.template check_gate<cpu::GateSWAP>("SWAP", {q, 3}, {});
        splits.template check_gate<cpu::GateISWAP>("controlled ISWAP", {6, q}, {4});
        splits.template check_gate<cpu::GateHH>("HH", {q, 4}, {3});
        splits.template check_gate<cpu::_Gate2QB<true>>("matrix on 2", {3, q}, {}, m4);
        for (const Qubits& controls : {Qubits{}, Qubits{4}}) {
            const orb::core::iterator::GroupMasks groups({}, controls, 9);
            const std::complex<T> diagonal[] = {d2[0], d2[3]};
            splits.check("diagonal with -0 beside it on 1", {q}, controls, groups.count,
                         [&]<InstructionSet set>(T* state, Index begin, Index end) {
                             cpu::multiply_diagonal<set, T>(state, groups, begin, end,
                                                            cpu::parts(diagonal), cpu::bit(q));
                         });
        }
    }
}

// The definitions of other gates are those that tests of the Python package compare with matrices.
TYPED_TEST(ExactGates, OnPairsAreTheGateOnOneQubitAndItsConjugateOnTheOther) {
    using T = TypeParam;
    using E = Exact<T>;
    using Pair = std::pair<Formula<T>, Formula<T>>;
    for (const auto& [both, one] :
         {Pair{E::hh, E::h}, Pair{E::z_to_y_pair, E::z_to_y}, Pair{E::y_to_z_pair, E::y_to_z}}) {
        for (std::size_t column = 0; column < 4; ++column) {
            std::complex<T> pair[4] = {}, high[2] = {}, low[2] = {};
            pair[column] = high[column / 2] = low[column % 2] = 1;
            both(pair);
            one(high);
            one(low);
            for (std::size_t row = 0; row < 4; ++row)
                EXPECT_NEAR(std::abs(pair[row] - high[row / 2] * std::conj(low[row % 2])), 0, 1e-6);
        }
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
