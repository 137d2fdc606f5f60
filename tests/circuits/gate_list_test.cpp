// Gate lists: what they hold, and their runs against definitions written out gate by gate.
#include <omp.h>

#include <stdexcept>
#include <thread>

#include "circuits/gate_matrix.hpp"
#include "circuits/plan.hpp"
#include "circuits/simplify.hpp"
#include "support/exact_reference.hpp"
#include "support/random_lists.hpp"

namespace pblinalg::test {
namespace {

using Complex = std::complex<double>;
using Angles = std::vector<Angle>;

/// `m` on the amplitudes 0 and 1 of a group, or on those that exchanges mix.
template <class T>
Formula<T> matrix_formula(std::initializer_list<std::complex<T>> entries, std::size_t at = 0) {
    const Amplitudes<T> m(entries);
    return [=](std::complex<T>* a) {
        const auto a0 = a[at], a1 = a[at + 1];
        a[at] = m[0] * a0 + m[1] * a1;
        a[at + 1] = m[2] * a0 + m[3] * a1;
    };
}

/// Two pairs of a group of four, each as RX mixes it.
template <class T>
Formula<T> two_rotations(int a, int b, T theta, int c, int d, T other) {
    return [=](std::complex<T>* group) {
        for (const auto& [i, j, angle] : {std::tuple{a, b, theta}, {c, d, other}}) {
            std::complex<T> pair[] = {group[i], group[j]};
            Exact<T>::rx(angle)(pair);
            group[i] = pair[0];
            group[j] = pair[1];
        }
    };
}

template <class T>
RowFormula<T> phase_on_row(std::size_t row, std::complex<T> phase) {
    return [=](std::size_t r, std::complex<T>& a) { a = r == row ? phase * a : a; };
}

template <class T>
Formula<T> u_formula(double theta, double phi, double lambda) {
    using C = std::complex<T>;
    const double co = std::cos(theta / 2), s = std::sin(theta / 2);
    const auto times = [](double angle, double r) {
        return Complex(std::cos(angle) * r, std::sin(angle) * r);
    };
    return matrix_formula<T>(
        {C(Complex(co, 0)), C(-times(lambda, s)), C(times(phi, s)), C(times(phi + lambda, co))});
}

/// Applies a gate by its definition. Numbers only.
template <class T>
void define(Amplitudes<T>& state, const GateView& gate) {
    using C = std::complex<T>;
    using E = Exact<T>;
    const Qubits targets(gate.targets.begin(), gate.targets.end());
    Qubits controls;
    for (unsigned int q = 0; q < 64; ++q) {
        if (gate.controls.mask >> q & 1) controls.push_back(q);
    }
    // A control that must be 0 is one that must be 1 in other words.
    const std::uint64_t flips = gate.controls.mask & ~gate.controls.values;
    const auto relabel = [&] {
        Amplitudes<T> moved(state.size());
        for (std::size_t i = 0; i < state.size(); ++i)
            moved[i] = state[i ^ flips];
        state = moved;
    };
    const auto mix = [&](const Formula<T>& f) { apply_exactly<T>(state, targets, controls, f); };
    const auto multiply = [&](const RowFormula<T>& f) {
        apply_diagonal_exactly<T>(state, targets, controls, f);
    };
    const T half(0.5), c = E::c();
    const T theta = gate.angles.empty() ? T(0) : static_cast<T>(gate.angles[0].offset);
    const Amplitudes<T> values(gate.values.begin(), gate.values.end());
    relabel();
    // clang-format off
    switch (gate.kind) {
        case GateKind::H: mix(E::h); break;
        case GateKind::X: mix(E::x); break;
        case GateKind::Y: mix(E::y); break;
        case GateKind::Z: multiply(E::z); break;
        case GateKind::S: multiply(E::s); break;
        case GateKind::T: multiply(E::t); break;
        case GateKind::Sdg: multiply(phase_on_row<T>(1, C(0, -1))); break;
        case GateKind::Tdg: multiply(phase_on_row<T>(1, C(c, -c))); break;
        case GateKind::SX: mix(matrix_formula<T>({C(half, half), C(half, -half), C(half, -half), C(half, half)})); break;
        case GateKind::SXdg: mix(matrix_formula<T>({C(half, -half), C(half, half), C(half, half), C(half, -half)})); break;
        case GateKind::PH: multiply(E::ph(theta)); break;
        case GateKind::GPHASE: multiply(phase_on_row<T>(0, std::exp(C(0, 1) * theta))); break;
        case GateKind::RX: mix(E::rx(theta)); break;
        case GateKind::RY: mix(E::ry(theta)); break;
        case GateKind::RZ: multiply(E::rz(theta)); break;
        case GateKind::U: mix(u_formula<T>(gate.angles[0].offset, gate.angles[1].offset, gate.angles[2].offset)); break;
        case GateKind::YtoZ: mix(E::y_to_z); break;
        case GateKind::ZtoY: mix(E::z_to_y); break;
        case GateKind::SWAP: mix(E::swap); break;
        case GateKind::SQRTSWAP: mix(E::sqrt_swap); break;
        case GateKind::SQRTSWAPdg: mix(matrix_formula<T>({C(half, -half), C(half, half), C(half, half), C(half, -half)}, 1)); break;
        case GateKind::ISWAP: mix(E::iswap); break;
        case GateKind::ISWAPdg:
            mix([](C* a) {
                const C a1 = a[1], a2 = a[2];
                a[1] = C(0, -1) * a2;
                a[2] = C(0, -1) * a1;
            });
            break;
        case GateKind::RXX: mix(two_rotations(0, 3, theta, 1, 2, theta)); break;
        case GateKind::RYY: mix(two_rotations(0, 3, -theta, 1, 2, theta)); break;
        case GateKind::RZX: mix(two_rotations(0, 1, theta, 2, 3, -theta)); break;
        case GateKind::RZZ: multiply([f = E::rz(theta)](std::size_t row, C& a) { f(row == 1 || row == 2, a); }); break;
        case GateKind::matrix: apply_matrix_exactly(state, targets, controls, values); break;
        case GateKind::diagonal: multiply([&](std::size_t row, C& a) { a = values[row] * a; }); break;
        case GateKind::phase_oracle:
            multiply([&](std::size_t row, C& a) {
                if (std::ranges::count(gate.marked, row) > 0) a = E::negated(a);
            });
            break;
    }
    // clang-format on
    relabel();
}

template <class T>
Amplitudes<T> by_run(const GateList& list, const Amplitudes<T>& before, int workers = 1,
                     std::span<const double> values = {}) {
    StateVector<T> state(qubits_of(before.size()));
    load(state, before);
    state.set_num_threads(workers);
    EXPECT_EQ(run(state, list, values).gates_done, list.size());
    return amplitudes_of(state);
}

/// Gate by gate, each in a list and so in a plan of its own.
template <class T>
Amplitudes<T> one_by_one(const GateList& list, const Amplitudes<T>& before) {
    StateVector<T> state(qubits_of(before.size()));
    load(state, before);
    for (const GateView gate : list)
        run(state, GateList().append(gate));
    return amplitudes_of(state);
}

template <class T>
class GateLists : public ::testing::Test {};
TYPED_TEST_SUITE(GateLists, Precisions);

/// Runs `list` by all instruction sets and expects the bits of its gates' definitions.
template <class T>
void check_definitions(const GateList& list, const Amplitudes<T>& before, std::string_view what) {
    Amplitudes<T> expected = before;
    for (const GateView gate : list)
        define(expected, gate);
    for_each_instruction_set([&] {
        EXPECT_TRUE(same_bits(by_run(list, before).data(), expected))
            << what << " on " << qubits_of(before.size()) << " qubits";
    });
}

TYPED_TEST(GateLists, RunAsTheDefinitionsOfTheirGatesToTheLastBit) {
    using T = TypeParam;
    Dice dice(1);
    std::uint64_t seed = 0;
    // Below 6 or 7 qubits gates run alone, above in windows.
    for (unsigned int n = 0; n <= 9; ++n) {
        const auto before = [n](Filling filling, std::uint64_t own) {
            return filled<T>(std::size_t{1} << n, filling, own);
        };
        for (const GateInfo& gate : gate_table) {
            for (int repeat = 0; repeat < 12; ++repeat) {
                GateList list;
                if (dice.add(list, gate.kind, n))
                    check_definitions(list, before(all_fillings[repeat % 4], n), gate.name);
            }
        }
        if (n == 0) continue;
        for (const int n_gates : {3, 8, 30, 80}) {
            for (const Filling filling : all_fillings) {
                check_definitions(Dice(seed).list(n, n_gates), before(filling, seed), "a list");
                ++seed;
            }
        }
    }
    // Too many marked values for a controlled Z each.
    GateList oracle;
    std::vector<std::uint64_t> odd;
    for (std::uint64_t value = 1; value < 256; value += 2)
        odd.push_back(value);
    oracle.add_phase_oracle(odd, {4, 0, 8, 2, 5, 6, 1, 9}, Controls({7, 3}, 1));
    check_definitions(oracle, filled<T>(1024, Filling::ordinary), "an oracle");
}

TYPED_TEST(GateLists, RunAsTheirGatesInOrderAroundTheSizesOfCaches) {
    using T = TypeParam;
    std::uint64_t seed = 500;
    for (unsigned int n = 12; n <= 18; ++n) {
        for (const Filling filling : all_fillings) {
            const GateList list = Dice(seed).list(n, 90);
            const auto before = filled<T>(std::size_t{1} << n, filling, seed);
            const auto expected = one_by_one(list, before);
            omp_set_num_threads(n % 2 == 0 ? 3 : 5);
            for (const int workers : {1, 0}) {
                EXPECT_TRUE(same_bits(by_run(list, before, workers).data(), expected))
                    << n << " qubits, seed " << seed << ", workers " << workers;
            }
            ++seed;
        }
    }
    omp_set_num_threads(omp_get_num_procs());
    // Beyond the caches, where tiles are written around them.
    const unsigned int large = sizeof(T) == 8 ? 22 : 23;
    const GateList few = Dice(seed).list(large, 12);
    const auto start = filled<T>(std::size_t{1} << large, Filling::ordinary, seed);
    const auto end = one_by_one(few, start);
    for_each_instruction_set([&] { EXPECT_TRUE(same_bits(by_run(few, start, 2).data(), end)); });
    const GateList long_list = Dice(seed).list(17, 700);
    const auto before = filled<T>(std::size_t{1} << 17, Filling::ordinary, seed);
    for_each_instruction_set([&] {
        EXPECT_TRUE(same_bits(by_run(long_list, before, 2).data(), one_by_one(long_list, before)));
    });
}

TYPED_TEST(GateLists, NegateWhatManyZNegateTogether) {
    using T = TypeParam;
    for (const unsigned int n : {6u, 7u, 11u, 17u}) {
        Dice dice(n);
        GateList list;
        for (int g = 0; g < 60; ++g) {
            // Runs of Z between other gates, some of them on a parity.
            const unsigned int which = dice.below(16);
            const Qubits chosen = dice.qubits(n, 3);
            if (which < 2) {
                dice.add(list, which ? GateKind::X : GateKind::RX, n);
            } else if (which < 4) {
                const Controls opening({chosen[0]}, which == 2 ? 0 : ~std::uint64_t{0});
                list.add(GateKind::X, chosen[1], opening);
                list.add(GateKind::Z, chosen[1], Controls({chosen[2]}, dice.below(2) << chosen[2]));
                list.add(GateKind::X, chosen[1], opening);
            } else {
                dice.add(list, GateKind::Z, n);
            }
        }
        check_definitions(list, filled<T>(std::size_t{1} << n, Filling::signed_zeros, n), "Z");
    }
}

TYPED_TEST(GateLists, ApplyMatricesOfManyQubitsAsTheMembersDo) {
    using T = TypeParam;
    for (const unsigned int n : {5u, 9u, 13u}) {
        const auto before = filled<T>(std::size_t{1} << n, Filling::ordinary, n);
        const auto entries = filled<T>(64, Filling::ordinary, 3);
        const auto diag = filled<T>(std::size_t{1} << n, Filling::ordinary, 4);
        Qubits all(n);
        for (unsigned int q = 0; q < n; ++q)
            all[q] = (q + 3) % n;
        const std::vector<Complex> matrix(entries.begin(), entries.end());
        GateList list;
        list.add(GateKind::H, 0)
            .add_matrix({4, 0, 2}, matrix, {1})
            .add(GateKind::X, 3, Controls({0}));
        list.add_diagonal(all, std::vector<Complex>(diag.begin(), diag.end()));
        StateVector<T> state(n);
        load(state, before);
        state.apply_H(0);
        state.apply_nqbit_ctrl_gate({1}, {4, 0, 2}, entries);
        state.apply_CNOT(0, 3);
        auto expected = amplitudes_of(state);
        apply_diagonal_exactly<T>(expected, all, {},
                                  [&](std::size_t row, auto& a) { a = diag[row] * a; });
        EXPECT_TRUE(same_bits(by_run(list, before).data(), expected)) << n;
    }
}

TYPED_TEST(GateLists, FillInParametersWithoutANewPlan) {
    using T = TypeParam;
    const unsigned int n = 8;
    const auto before = filled<T>(std::size_t{1} << n, Filling::ordinary, 1);
    GateList list;
    const auto build = [&](GateList& to, const auto& angle) {
        for (const GateInfo& gate : gate_table) {
            if (gate.n_angles == 0) continue;
            Angles angles;
            for (unsigned int a = 0; a < gate.n_angles; ++a)
                angles.push_back(angle(a, 1.0 + a, 0.25));
            const Qubits targets{1, 6};
            to.add(gate.kind, QubitList(std::span(targets).first(gate.n_targets)), angles, {3});
        }
    };
    build(list, [](std::uint32_t p, double scale, double offset) {
        return Angle::of_parameter(p, scale, offset);
    });
    EXPECT_EQ(list.n_parameters(), 3u);
    const auto plans = list.plans();
    for (const std::vector<double>& values :
         {std::vector<double>{0.3, -1.1, 2.2}, std::vector<double>{-0.7, 0.0, 1.5}}) {
        GateList numbers;
        build(numbers, [&](std::uint32_t p, double scale, double offset) {
            return Angle(offset + scale * values[p]);
        });
        EXPECT_TRUE(same_bits(by_run(list, before, 1, values).data(), by_run(numbers, before)));
    }
    EXPECT_EQ(list.plans(), plans);
    list.add(GateKind::X, 0);
    EXPECT_NE(list.plans(), plans);
}

TYPED_TEST(GateLists, StopBetweenPassesWithExactlyTheFirstGatesDone) {
    using T = TypeParam;
    const unsigned int n = 17;
    const GateList mixed = Dice(77).list(n, 400);
    // Neighbouring CNOTs that cancel across the borders of gates.
    GateList cancelling;
    for (unsigned int i = 0; i < 8 * n; ++i) {
        const unsigned int q = i % n, other = (q + 1) % n;
        cancelling.add(GateKind::X, other, Controls({q})).add(GateKind::RXX, {q, other}, 0.1 * i);
        cancelling.add(GateKind::X, other, Controls({q}));
    }
    // Passes that end between the operations of one gate, and of five gates in one.
    GateList framed;
    for (unsigned int i = 0; i < 900; ++i) {
        framed.add(GateKind::X, 7, Controls({i % 7}));
        for (int d = 0; d < 3; ++d)
            framed.add(GateKind::RZ, 7, 0.1 * i);
        framed.append(framed[framed.size() - 4]);
        framed.add_phase_oracle(std::vector<std::uint64_t>{1, 2, 5}, {0, 1, 2});
    }
    for (const GateList& list : {mixed, cancelling, framed}) {
        const unsigned int size = list.n_qubits();
        const auto before = filled<T>(std::size_t{1} << size, Filling::ordinary, 1);
        for (const bool throws : {false, true}) {
            for (const int calls : {1, 2, 4}) {
                StateVector<T> state(size);
                load(state, before);
                std::vector<std::size_t> seen;
                RunOptions options;
                options.between_passes = [&](std::size_t done) {
                    seen.push_back(done);
                    if (static_cast<int>(seen.size()) < calls) return true;
                    if (throws) throw std::runtime_error("stop");
                    return false;
                };
                if (throws) {
                    EXPECT_THROW(run(state, list, {}, options), std::runtime_error);
                } else {
                    const RunReport report = run(state, list, {}, options);
                    EXPECT_FALSE(report.finished());
                    EXPECT_LE(seen.back(), report.gates_done);
                    EXPECT_LT(report.gates_done, list.size());
                    GateList first;
                    for (std::size_t i = 0; i < report.gates_done && i < list.size(); ++i)
                        first.append(list[i]);
                    EXPECT_TRUE(same_bits(state, one_by_one(first, before))) << calls;
                }
                EXPECT_EQ(static_cast<int>(seen.size()), calls);
                EXPECT_TRUE(std::ranges::is_sorted(seen));
            }
        }
    }
}

/// Layers on n qubits: `on_qubit` for each of them, then `on_pair` on neighbours, every `step`th.
template <class OnQubit, class OnPair>
GateList layered(unsigned int n, unsigned int layers, unsigned int step, const OnQubit& on_qubit,
                 const OnPair& on_pair) {
    GateList list;
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n; ++q)
            on_qubit(list, layer, q);
        for (unsigned int q = step == 2 ? layer % 2 : 0; q + 1 < n; q += step)
            on_pair(list, q, q + 1);
    }
    return list;
}

/// What a planner makes of a list on a state that two workers share.
template <class T>
typename cpu::Plan<T>::Counts counts_of(const GateList& list, unsigned int n, Accuracy accuracy) {
    cpu::Program<T> program;
    program.nqubits = n;
    for (const GateView gate : list)
        cpu::lower(gate, program);
    if (accuracy == Accuracy::rounding) cpu::simplify(program);
    return cpu::Plan<T>(std::move(program), cpu::plan_shape<T>(n, 2, accuracy)).counts();
}

TYPED_TEST(GateLists, TakeFewPassesOverTheState) {
    using T = TypeParam;
    const bool wide = sizeof(T) == 4;
    const auto cnot = [](GateList& list, auto q, auto r) {
        list.add(GateKind::X, r, Controls({q}));
    };
    const auto brickwork = [&](unsigned int n) {
        return layered(
            n, 20, 2,
            [](GateList& list, auto layer, auto q) {
                static constexpr GateKind axes[] = {GateKind::RX, GateKind::RY, GateKind::RZ};
                list.add(axes[(layer + q) % 3], q, 0.1 * layer + q);
            },
            cnot);
    };
    const GateList u3_cx = layered(
        24, 20, 1,
        [](GateList& list, auto, auto q) {
            list.add(GateKind::U, q, Angles{0.1, 0.2, 0.3});
        },
        cnot);
    const auto ansatz = [](unsigned int n, unsigned int layers) {
        return layered(
            n, layers, 1,
            [](GateList& list, auto, auto q) {
                list.add(GateKind::RY, q, 0.1).add(GateKind::RZ, q, 0.2);
            },
            [](GateList& list, auto q, auto r) { list.add(GateKind::Z, r, Controls({q})); });
    };
    GateList qft, ladder, ising, volume, toffoli;
    for (unsigned int target = 0; target < 24; ++target) {
        qft.add(GateKind::H, target);
        for (unsigned int control = target + 1; control < 24; ++control)
            qft.add(GateKind::PH, target, 0.1, Controls({control}));
    }
    for (unsigned int q = 0; q < 12; ++q)
        qft.add(GateKind::SWAP, {q, 23 - q});
    // Rotations about ZZ, written out: all that is left are diagonals, in one sweep.
    for (unsigned int q = 0; q + 1 < 24; ++q) {
        ladder.add(GateKind::X, q + 1, Controls({q})).add(GateKind::RZ, q + 1, 0.2);
        ladder.add(GateKind::X, q + 1, Controls({q}));
    }
    for (unsigned int step = 0; step < 10; ++step) {
        for (unsigned int q = 0; q + 1 < 24; ++q)
            ising.add(GateKind::RZZ, {q, q + 1}, 0.2);
        for (unsigned int q = 0; q < 24; ++q)
            ising.add(GateKind::RX, q, 0.3);
    }
    Dice dice(1);
    const auto entries = filled<double>(16, Filling::ordinary);
    for (unsigned int layer = 0; layer < 10; ++layer) {
        const Qubits order = dice.qubits(24, 24);
        for (unsigned int q = 0; q < 24; q += 2)
            volume.add_matrix({order[q], order[q + 1]},
                              std::vector<Complex>(entries.begin(), entries.end()));
        for (unsigned int q = 0; q < 20; ++q)
            toffoli.add(GateKind::H, q);
        for (unsigned int q = 0; q < 20; ++q) {
            const Qubits three = dice.qubits(20, 3);
            toffoli.add(GateKind::X, three[0], Controls({three[1], three[2]}));
        }
    }
    struct Limits {
        std::size_t passes, windows;  ///< the latter with vectors of 64 bytes
    };
    struct Case {
        const char* name;
        unsigned int n;
        GateList list;
        Limits exact[2], rounding[2];  ///< double, float
    };
    for (const Case& c : {
             Case{"brickwork", 24, brickwork(24), {{27, 100}, {26, 96}}, {{7, 60}, {6, 58}}},
             Case{"brickwork", 26, brickwork(26), {{30, 109}, {29, 105}}, {{9, 68}, {8, 66}}},
             Case{"u3_cx", 24, u3_cx, {{40, 140}, {38, 134}}, {{12, 104}, {12, 100}}},
             Case{"qft", 24, qft, {{5, 7}, {2, 7}}, {{5, 7}, {2, 7}}},
             Case{"ladder", 24, ladder, {{1, 1}, {1, 1}}, {{1, 1}, {1, 1}}},
             Case{"ising", 24, ising, {{20, 70}, {19, 67}}, {{5, 37}, {5, 36}}},
             Case{"volume", 24, volume, {{21, 94}, {19, 89}}, {{8, 56}, {7, 51}}},
             Case{"ansatz", 20, ansatz(20, 10), {{16, 57}, {15, 54}}, {{3, 30}, {3, 28}}},
             // In narrow windows the gates that most bits would take lie out of reach.
             Case{"ansatz", 24, ansatz(24, 40), {{80, 280}, {76, 268}}, {{17, 130}, {16, 118}}},
             Case{"toffoli", 20, toffoli, {{24, 105}, {22, 98}}, {{14, 70}, {15, 68}}},
         }) {
        for (const auto& [accuracy, limits] :
             {std::pair{Accuracy::exact, c.exact[wide]}, {Accuracy::rounding, c.rounding[wide]}}) {
            for_each_instruction_set([&, accuracy = accuracy, limits = limits] {
                const auto counts = counts_of<T>(c.list, c.n, accuracy);
                EXPECT_LE(counts.passes + counts.alone, limits.passes) << c.name << c.n;
                const bool widest = cpu::active_instruction_set() == cpu::InstructionSet::avx512;
                EXPECT_LE(counts.windows, widest ? limits.windows : 5 * limits.windows)
                    << c.name << c.n;
            });
        }
    }
}

TEST(GateList, RunsAndIsCopiedOnSeveralThreads) {
    const GateList list = Dice(3).list(8, 40);
    const auto before = filled<double>(256, Filling::ordinary);
    const auto expected = one_by_one(list, before);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            const auto after = i % 2 ? by_run(GateList(list), before) : by_run(list, before);
            EXPECT_TRUE(same_bits(after.data(), expected));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST(GateList, InvertsAndConjugates) {
    const unsigned int n = 6;
    const auto near = [](const Amplitudes<double>& a, const Amplitudes<double>& b) {
        double worst = 0;
        for (std::size_t i = 0; i < a.size(); ++i)
            worst = std::max(worst, std::abs(a[i] - b[i]));
        return worst;
    };
    Dice dice(5);
    for (const GateInfo& gate : gate_table) {
        for (int repeat = 0; repeat < 8; ++repeat) {
            const auto before = filled<double>(std::size_t{1} << n, Filling::ordinary, 9);
            GateList list;
            if (gate.kind == GateKind::matrix) {
                list.add_matrix({3, 1}, gate_matrix(GateKind::ISWAP, {}), {0});
                list.add_matrix(2u, gate_matrix(GateKind::U, std::vector{0.3, 0.4, -0.8}));
            } else if (gate.kind == GateKind::diagonal) {
                list.add_diagonal({3, 1}, std::vector<Complex>{1, {0, 1}, -1, {0.6, 0.8}});
            } else {
                while (list.empty() || !std::isfinite(std::abs(by_run(list, before)[0])) ||
                       !std::isfinite(std::abs(by_run(list, before).back()))) {
                    list.clear();
                    dice.add(list, gate.kind, n);
                }
            }
            const auto after = by_run(list, before);
            EXPECT_LT(near(by_run(list.inverse(), after), before), 1e-12) << gate.name;
            auto conjugate_before = before, conjugate_after = after;
            for (auto* state : {&conjugate_before, &conjugate_after}) {
                for (Complex& a : *state)
                    a = std::conj(a);
            }
            EXPECT_LT(near(by_run(list.conjugate(), conjugate_before), conjugate_after), 1e-12)
                << gate.name;
        }
    }
}

TEST(GateList, GivesItsGatesBack) {
    GateList list;
    const std::vector<Complex> diagonal{1, -1, 1, 1};
    list.add(GateKind::H, 2).add(GateKind::RXX, {4, 1}, 0.5, {0});
    list.add_diagonal({5, 0}, diagonal).add_phase_oracle(std::vector<std::uint64_t>{3}, {1, 2});
    list.add(GateKind::U, 7, std::vector<Angle>{0.1, Angle::of_parameter(4), 0.3},
             Controls({3}, 0));
    EXPECT_EQ(list.size(), 5u);
    EXPECT_EQ(list.n_qubits(), 8u);
    EXPECT_EQ(list.n_parameters(), 5u);
    EXPECT_EQ(list[1].targets[0], 4u);
    EXPECT_EQ(list[1].angles[0], Angle(0.5));
    EXPECT_EQ(list[1].controls, Controls({0}));
    EXPECT_EQ(list[2].values[1], -1.0);
    EXPECT_EQ(list[3].marked[0], 3u);
    EXPECT_EQ(list[4].controls, Controls({3}, 0));

    GateList copy(list);
    EXPECT_EQ(copy, list);
    copy.append(copy);
    EXPECT_EQ(copy.size(), 10u);
    EXPECT_EQ(copy[8], list[3]);
    EXPECT_NE(copy, list);
    EXPECT_EQ(list.shifted(2).n_qubits(), 10u);
    EXPECT_EQ(list.shifted(2)[1], GateList().add(GateKind::RXX, {6, 3}, 0.5, {2})[0]);
    EXPECT_NE(GateList().add(GateKind::H, 0), GateList().add(GateKind::H, 0, Controls({1})));
    EXPECT_EQ(GateList().add(GateKind::H, 0).inverse(), GateList().add(GateKind::H, 0));
    for (const GateView gate : list) {
        GateList own;
        own.append(gate);
        for (int i = 0; i < 9; ++i)
            own.append(own[0]);
        EXPECT_EQ(own[9], gate);
    }
    EXPECT_EQ(GateList().add(GateKind::GPHASE, Qubits(), 0.1).shifted(2).n_qubits(), 0u);
    copy.clear();
    EXPECT_TRUE(copy.empty());
    EXPECT_EQ(copy.n_qubits(), 0u);
}

}  // namespace
}  // namespace pblinalg::test
