// Runs by rounding against exact runs of the same lists.
#include <omp.h>

#include "circuits/plan.hpp"
#include "circuits/simplify.hpp"
#include "support/processors.hpp"
#include "support/states.hpp"
#include "support/unitary_lists.hpp"

namespace pblinalg::test {
namespace {

using Complex = std::complex<double>;
using Angles = std::vector<Angle>;

template <class T>
Amplitudes<T> by_run(const GateList& list, const Amplitudes<T>& before, Accuracy accuracy,
                     std::span<const double> values = {}, int workers = 1) {
    StateVector<T> state(qubits_of(before.size()));
    load(state, before);
    state.set_num_threads(workers);
    EXPECT_EQ(run(state, list, values, {.accuracy = accuracy}).gates_done, list.size());
    return amplitudes_of(state);
}

template <class T>
class RunsByRounding : public ::testing::Test {};
TYPED_TEST_SUITE(RunsByRounding, Precisions);

TYPED_TEST(RunsByRounding, HaveDoneNothingInFrontOfTheirFirstOperation) {
    GateList list;
    list.add(GateKind::X, 1, Controls({0})).add(GateKind::H, 3).add(GateKind::H, 2);
    auto program = cpu::lowered<TypeParam>(list.add(GateKind::X, 1, Controls({0})), 4);
    cpu::simplify(program);
    ASSERT_EQ(program.operations.size(), 2u);
    EXPECT_EQ(program.operations[0].gates_before, 0u);
}

TYPED_TEST(RunsByRounding, AgreeWithExactOnesAfterAThousandGates) {
    using T = TypeParam;
    for (const unsigned int n : {1u, 2u, 3u, 5u, 6u, 7u, 8u, 10u, 14u, 16u, 17u, 18u}) {
        for (std::uint64_t seed = 10 * n; seed < 10 * n + (n < 12 ? 6 : 2); ++seed) {
            UnitaryDice dice(seed);
            const GateList list = dice.list(n, seed % 2 ? 1000 : 60, 3);
            const auto before = normalised<T>(n, seed);
            // The second values meet the plan of the first ones.
            for (const std::vector<double>& values :
                 {std::vector<double>{0.3, -1.1, 0.9}, std::vector<double>{1.3, 0.2, -2.1}}) {
                const auto exact = by_run(list, before, Accuracy::exact, values);
                for_each_instruction_set([&] {
                    const auto rounded = by_run(list, before, Accuracy::rounding, values);
                    EXPECT_LE(largest_difference(rounded, exact), tolerance<T>)
                        << n << " qubits, seed " << seed;
                    omp_set_num_threads(3);
                    EXPECT_TRUE(same_bits(rounded.data(),
                                          by_run(list, before, Accuracy::rounding, values, 0)));
                    omp_set_num_threads(omp_get_num_procs());
                });
            }
        }
    }
}

TYPED_TEST(RunsByRounding, MoveAmplitudesToTheBitAndKeepZeros) {
    using T = TypeParam;
    for (const unsigned int n : {7u, 9u, 17u}) {
        GateList list;
        for (unsigned int q = 0; q + 1 < n; ++q)
            list.add(GateKind::X, q + 1, Controls({q})).add(GateKind::SWAP, {q, (q + 3) % n});
        auto before = normalised<T>(n, 1);
        // Tiles of zeros among others.
        std::fill(before.begin() + static_cast<std::ptrdiff_t>(before.size() / 2), before.end(),
                  T(0));
        EXPECT_TRUE(same_bits(by_run(list, before, Accuracy::rounding).data(),
                              by_run(list, before, Accuracy::exact)))
            << n;
        list.add(GateKind::H, 0);
        EXPECT_LE(largest_difference(by_run(list, before, Accuracy::rounding),
                                     by_run(list, before, Accuracy::exact)),
                  tolerance<T>)
            << n;
    }
}

TYPED_TEST(RunsByRounding, StopWithTheFirstGatesDone) {
    using T = TypeParam;
    const unsigned int n = 17;
    const GateList list = UnitaryDice(3).list(n, 5000);
    const auto before = normalised<T>(n, 1);
    for (const int calls : {1, 3, 6}) {
        StateVector<T> state(n);
        load(state, before);
        RunOptions options{.accuracy = Accuracy::rounding};
        std::vector<std::size_t> seen;
        options.between_passes = [&](std::size_t done) {
            seen.push_back(done);
            return static_cast<int>(seen.size()) < calls;
        };
        const RunReport report = run(state, list, {}, options);
        EXPECT_FALSE(report.finished());
        EXPECT_LE(seen.back(), report.gates_done);
        EXPECT_LE(report.gates_done, seen.back() + 3000);
        GateList first;
        for (std::size_t i = 0; i < report.gates_done; ++i)
            first.append(list[i]);
        EXPECT_LE(largest_difference(amplitudes_of(state), by_run(first, before, Accuracy::exact)),
                  5 * tolerance<T>)
            << calls;
    }
}

/// Operations that are left of a list.
template <class T>
std::vector<cpu::Operation> simplified(const GateList& list) {
    cpu::Program<T> program;
    program.nqubits = list.n_qubits();
    for (const GateView gate : list)
        cpu::lower(gate, program);
    cpu::simplify(program);
    return program.operations;
}

TYPED_TEST(RunsByRounding, MergeNeighboursAndDropWhatUndoesItself) {
    using T = TypeParam;
    using K = GateKind;
    const Angle p = Angle::of_parameter(0);
    const auto list = [](const auto&... add) {
        GateList list;
        (add(list), ...);
        return list;
    };
    const auto gate = [](GateKind kind, const Qubits& targets, const Angles& angles = {},
                         Controls controls = {}) {
        return [=](GateList& list) { list.add(kind, targets, angles, controls); };
    };
    const std::vector<Complex> swap = {1, 0, 0, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 1};
    const auto matrix = [&](Qubits targets) {
        return [&swap, targets](GateList& list) { list.add_matrix(targets, swap); };
    };
    struct Case {
        const char* what;
        GateList list;
        std::size_t left;
    };
    const Case cases[] = {
        {"pairs",
         list(gate(K::H, {0}), gate(K::X, {1}, {}, {2}), gate(K::H, {0}), gate(K::X, {1}, {}, {2})),
         0},
        {"SWAP", list(gate(K::SWAP, {0, 1}), gate(K::RZ, {2}, {0.1}), gate(K::SWAP, {1, 0})), 1},
        {"another target",
         list(gate(K::X, {1}, {}, {2}), gate(K::X, {2}, {}, {1}), gate(K::X, {1}, {}, {2})), 3},
        {"a read between",
         list(gate(K::X, {1}, {}, {2}), gate(K::Z, {1}), gate(K::X, {1}, {}, {2})), 1},
        {"a change between",
         list(gate(K::X, {1}, {}, {2}), gate(K::H, {2}), gate(K::X, {1}, {}, {2})), 3},
        {"angles", list(gate(K::RX, {0}, {0.4}), gate(K::RX, {0}, {-0.4})), 0},
        {"parameters", list(gate(K::RX, {0}, {p}), gate(K::RX, {0}, {-0.4})), 1},
        {"phases", list(gate(K::S, {0}), gate(K::X, {1}, {}, {0}), gate(K::Sdg, {0})), 1},
        {"a rotation stays one", list(gate(K::X, {0}), gate(K::RX, {0}, {p})), 2},
        {"a run",
         list(gate(K::H, {0}), gate(K::RZ, {0}, {p}), gate(K::RY, {0}, {0.2}), gate(K::T, {0})), 1},
        {"controlled",
         list(gate(K::H, {0}, {}, {3}), gate(K::RY, {0}, {p}, {3}), gate(K::SX, {0}, {}, {3})), 1},
        {"other controls",
         list(gate(K::H, {0}, {}, {3}), gate(K::RY, {0}, {p}), gate(K::SX, {0}, {}, {3})), 3},
        {"a pair",
         list(gate(K::H, {0}), matrix({0, 4}), gate(K::RY, {4}, {p}), gate(K::RZZ, {0, 4}, {0.3}),
              matrix({4, 0})),
         1},
        {"half a pair", list(matrix({0, 4}), gate(K::RY, {4}, {p}, {0}), matrix({4, 0})), 3},
        {"parities",
         list(gate(K::RZZ, {0, 1}, {p}), gate(K::RZ, {0}, {p}), gate(K::RZZ, {1, 0}, {0.2})), 2},
    };
    for (const Case& c : cases)
        EXPECT_EQ(simplified<T>(c.list).size(), c.left) << c.what;
}

}  // namespace
}  // namespace pblinalg::test
