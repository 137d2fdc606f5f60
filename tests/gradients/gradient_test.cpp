// Adjoint gradients against finite differences of a textbook's expectation values in long double.
#include <algorithm>
#include <stdexcept>

#include "support/exact_reference.hpp"
#include "support/pauli_reference.hpp"

namespace pblinalg::test {
namespace {

using LongState = Amplitudes<long double>;
using Values = std::vector<double>;
using LongValues = std::vector<long double>;

/// A rotation exp(-i theta P / 2) about the Pauli string P, first letter most significant.
LongMatrix rotation(std::string_view letters, long double theta) {
    const std::size_t rows = std::size_t{1} << letters.size();
    const std::string by_bit(letters.rbegin(), letters.rend());
    LongMatrix m(rows * rows);
    for (std::size_t c = 0; c < rows; ++c) {
        LongMatrix column(rows);
        column[c] = 1;
        const LongMatrix image = apply_pauli_string(column, by_bit);
        for (std::size_t r = 0; r < rows; ++r)
            m[r * rows + c] =
                std::cos(theta / 2) * column[r] - LongComplex(0, std::sin(theta / 2)) * image[r];
    }
    return m;
}

/// What the row of the table says, for the gates that lists of these tests have.
LongMatrix textbook_matrix(const GateView& gate, const LongValues& angles) {
    const std::string_view formula = info(gate.kind).formula;
    const auto phase = [](long double angle) { return std::polar(1.0L, angle); };
    constexpr std::string_view opening = "exp(-i theta ";
    if (formula.starts_with(opening)) {
        const std::string_view rest = formula.substr(opening.size());
        return rotation(rest.substr(0, rest.find(' ')), angles[0]);
    }
    switch (gate.kind) {
        case GateKind::PH:
            return {1, 0, 0, phase(angles[0])};
        case GateKind::GPHASE:
            return {phase(angles[0])};
        case GateKind::U: {
            const long double c = std::cos(angles[0] / 2), s = std::sin(angles[0] / 2);
            return {c, -phase(angles[2]) * s, phase(angles[1]) * s,
                    phase(angles[1] + angles[2]) * c};
        }
        case GateKind::H:
            return {std::sqrt(0.5L), std::sqrt(0.5L), std::sqrt(0.5L), -std::sqrt(0.5L)};
        case GateKind::X:
            return {0, 1, 1, 0};
        case GateKind::Z:
            return {1, 0, 0, -1};
        case GateKind::T:
            return {1, 0, 0, phase(std::acos(-1.0L) / 4)};
        case GateKind::YtoZ: {
            const long double r = std::sqrt(0.5L);
            return {r, LongComplex(0, -r), r, LongComplex(0, r)};
        }
        case GateKind::SWAP:
            return {1, 0, 0, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 1};
        case GateKind::matrix:
            return {gate.values.begin(), gate.values.end()};
        case GateKind::diagonal: {
            const std::size_t rows = gate.values.size();
            LongMatrix m(rows * rows);
            for (std::size_t r = 0; r < rows; ++r)
                m[r * rows + r] = gate.values[r];
            return m;
        }
        default:
            ADD_FAILURE() << "no definition of " << info(gate.kind).name;
            return {1};
    }
}

LongState by_textbook(const GateList& list, LongState state, const LongValues& values) {
    for (const GateView gate : list) {
        LongValues angles;
        for (const Angle& angle : gate.angles)
            angles.push_back(angle.is_number()
                                 ? angle.offset
                                 : angle.offset + angle.scale * values[angle.parameter]);
        Qubits controls;
        for (unsigned int q = 0; q < 64; ++q) {
            if (gate.controls.mask >> q & 1) controls.push_back(q);
        }
        // A control that must be 0 is one that must be 1 in other words.
        const std::uint64_t flips = gate.controls.mask & ~gate.controls.values;
        LongState relabelled(state.size());
        for (std::size_t i = 0; i < state.size(); ++i)
            relabelled[i ^ flips] = state[i];
        const auto result =
            apply_textbook(relabelled, Qubits(gate.targets.begin(), gate.targets.end()), controls,
                           textbook_matrix(gate, angles));
        for (std::size_t i = 0; i < state.size(); ++i)
            state[i] = result[i ^ flips].value;
    }
    return state;
}

/// A Pauli sum by letters.
struct Terms {
    std::vector<std::pair<std::string, double>> strings;
    double constant = 0;

    template <class T>
    WObservable<T> compiled() const {
        WObservable<T> observable{};
        for (const auto& [letters, weight] : strings)
            add_pauli_string<T>(observable, letters, T(weight));
        observable.constant = T(constant);
        return observable;
    }
    long double value(const LongState& state) const {
        long double sum = constant;
        for (const auto& [letters, weight] : strings)
            sum += weight * pauli_expectation(state, letters).real();
        return sum;
    }
};

Terms random_terms(unsigned int n, unsigned int count, std::uint64_t seed) {
    std::mt19937_64 generator(seed);
    Terms terms;
    terms.constant = 0.25;
    for (unsigned int t = 0; t < count; ++t)
        terms.strings.emplace_back(random_letters(n, "IXYZ", generator), 0.25 * (1 + t % 5));
    return terms;
}

/// The derivative by every value: five points, of which one more would change the 14th digit.
template <class Function>
LongValues differences(const Function& f, const Values& values) {
    const long double h = 1e-3L;
    LongValues gradient;
    for (std::size_t p = 0; p < values.size(); ++p) {
        const auto at = [&](int steps) {
            LongValues moved(values.begin(), values.end());
            moved[p] += steps * h;
            return f(moved);
        };
        gradient.push_back((45 * (at(1) - at(-1)) - 9 * (at(2) - at(-2)) + (at(3) - at(-3))) /
                           (60 * h));
    }
    return gradient;
}

template <class T>
void expect_close(const Values& got, const LongValues& expected, std::string_view what) {
    const long double tolerance = sizeof(T) == 8 ? 1e-9L : 1e-4L;
    ASSERT_EQ(got.size(), expected.size()) << what;
    long double largest = 1e-2L;
    for (const long double e : expected)
        largest = std::max(largest, std::abs(e));
    for (std::size_t p = 0; p < got.size(); ++p)
        EXPECT_NEAR(got[p], static_cast<double>(expected[p]),
                    static_cast<double>(tolerance * largest))
            << what << ", parameter " << p;
}

/// A normalised state.
template <class T>
Amplitudes<T> start(unsigned int n, std::uint64_t seed) {
    auto amplitudes = filled<T>(std::size_t{1} << n, Filling::ordinary, seed);
    const T norm = static_cast<T>(std::sqrt(norm_of(amplitudes)));
    for (auto& a : amplitudes)
        a /= norm;
    return amplitudes;
}

template <class T>
Gradient gradient_of(const GateList& list, const Amplitudes<T>& before,
                     std::span<const WObservable<T>> observables, const Values& values,
                     int workers = 1) {
    StateVector<T> state(qubits_of(before.size()));
    load(state, before);
    state.set_num_threads(workers);
    return value_and_gradient<T>(state, list, observables, values);
}

template <class T>
void check_gradient(const GateList& list, unsigned int n, std::string_view what) {
    Values values{0.9, -0.2, 1.7};
    values.resize(list.n_parameters());
    const Amplitudes<T> before = start<T>(n, n + 1);
    const Terms terms = random_terms(n, 6, n);
    const auto f = [&](const LongValues& at) {
        return terms.value(by_textbook(list, LongState(before.begin(), before.end()), at));
    };
    const LongValues expected = differences(f, values);
    const long double value = f(LongValues(values.begin(), values.end()));
    const WObservable<T> observable = terms.compiled<T>();
    for_each_instruction_set([&] {
        const Gradient got = gradient_of<T>(list, before, std::span(&observable, 1), values);
        expect_close<T>(got.values, {value}, what);
        expect_close<T>(got.jacobian, expected, what);
    });
}

template <class T>
class Gradients : public ::testing::Test {};
TYPED_TEST_SUITE(Gradients, Precisions);

/// Gates of every kind with an angle on random qubits, between others that mix.
class Dice {
  public:
    explicit Dice(std::uint64_t seed) : generator_(seed) {}
    unsigned int below(unsigned int n) { return static_cast<unsigned int>(generator_() % n); }

    void add(GateList& list, GateKind kind, unsigned int n, std::uint32_t n_parameters) {
        Qubits qubits(n);
        for (unsigned int q = 0; q < n; ++q)
            qubits[q] = q;
        std::shuffle(qubits.begin(), qubits.end(), generator_);
        const unsigned int k = info(kind).n_targets;
        if (k > n) return;
        const unsigned int n_controls = below(std::min(n - k, 3u) + 1);
        const Controls controls(Qubits(qubits.begin() + k, qubits.begin() + k + n_controls),
                                generator_());
        std::vector<Angle> angles;
        for (unsigned int a = 0; a < info(kind).n_angles; ++a) {
            const double number = 0.1 * (1 + below(40));
            angles.push_back(n_parameters == 0 || below(5) == 0
                                 ? Angle(number)
                                 : Angle::of_parameter(below(n_parameters),
                                                       below(2) ? 1 : -0.5 * number, number));
        }
        list.add(kind, QubitList(std::span(qubits).first(k)), angles, controls);
    }

    GateList list(unsigned int n, unsigned int n_gates, std::uint32_t n_parameters) {
        using enum GateKind;
        static constexpr GateKind others[] = {H, X, Z, T, YtoZ, SWAP};
        std::vector<GateKind> with_angles;
        for (const GateInfo& gate : gate_table) {
            if (gate.n_angles > 0) with_angles.push_back(gate.kind);
        }
        GateList gates;
        while (gates.size() < n_gates) {
            const unsigned int size = static_cast<unsigned int>(with_angles.size());
            add(gates, below(3) ? with_angles[below(size)] : others[below(6)], n, n_parameters);
        }
        return gates;
    }

  private:
    std::mt19937_64 generator_;
};

TYPED_TEST(Gradients, AreThoseOfEveryGateWithAnAngle) {
    Dice dice(1);
    for (const GateInfo& gate : gate_table) {
        if (gate.n_angles == 0) continue;
        for (const unsigned int n : {1u, 2u, 4u, 8u}) {
            if (gate.n_targets > n) continue;
            GateList list = dice.list(n, n, 0);
            for (int repeat = 0; repeat < 3; ++repeat) {
                dice.add(list, gate.kind, n, 3);
                list.append(dice.list(n, 3, 0));
            }
            check_gradient<TypeParam>(list, n, gate.name);
        }
    }
}

TYPED_TEST(Gradients, AreThoseOfLongListsOnManyTiles) {
    Dice dice(2);
    const double c = 0.6, s = 0.8;
    for (const auto& [n, n_gates] : {std::pair{3u, 40u}, {7u, 120u}, {10u, 60u}, {13u, 16u}}) {
        GateList list = dice.list(n, n_gates / 2, 3);
        // These run on the whole state, or from tables.
        list.add_matrix({2, 0, 1},
                        std::vector<std::complex<double>>{
                            c, -s, 0, 0, 0, 0, 0,      0, s, c, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,
                            0, 0,  0, 0, 0, 0, {0, 1}, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0,
                            0, 1,  0, 0, 0, 0, 0,      0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1, 0});
        list.add_diagonal({n - 1, 0}, std::vector<std::complex<double>>{1, {c, s}, -1, {0, 1}},
                          {1});
        list.add_matrix(
            {1, n - 1},
            std::vector<std::complex<double>>{c, 0, 0, -s, 0, {0, 1}, 0, 0, 0, 0, 1, 0, s, 0, 0, c},
            Controls({0}, 0));
        list.append(dice.list(n, n_gates / 2, 3));
        check_gradient<TypeParam>(list, n, std::to_string(n) + " qubits");
    }
}

TYPED_TEST(Gradients, OfSeveralObservablesAreThoseOfEach) {
    using T = TypeParam;
    const unsigned int n = 9;
    const GateList list = Dice(3).list(n, 50, 4);
    const Values values{0.3, 0.6, -0.8, 1.9};
    const auto before = start<T>(n, 2);
    std::vector<WObservable<T>> observables;
    for (const unsigned int count : {40u, 1u, 0u})
        observables.push_back(random_terms(n, count, count).compiled<T>());
    const Gradient together = gradient_of<T>(list, before, observables, values);
    Values each, rows;
    for (const auto& observable : observables) {
        const Gradient own = gradient_of<T>(list, before, std::span(&observable, 1), values);
        each.insert(each.end(), own.values.begin(), own.values.end());
        rows.insert(rows.end(), own.jacobian.begin(), own.jacobian.end());
    }
    EXPECT_EQ(together.values, each);
    EXPECT_EQ(together.jacobian, rows);
    EXPECT_EQ(rows.size(), 12u);
    EXPECT_EQ(each[2], 0.25);
}

TYPED_TEST(Gradients, DoNotDependOnTheWorkers) {
    using T = TypeParam;
    for (const unsigned int n : {15u, 17u}) {
        const GateList list = Dice(n).list(n, 150, 5);
        const auto before = start<T>(n, 2);
        const WObservable<T> observable = random_terms(n, 12, n).compiled<T>();
        const Values values{0.3, 0.6, -0.8, 1.9, 0.1};
        const Gradient one = gradient_of<T>(list, before, std::span(&observable, 1), values);
        for (const int workers : {2, 3, 0}) {
            const Gradient more =
                gradient_of<T>(list, before, std::span(&observable, 1), values, workers);
            EXPECT_EQ(more.values, one.values) << workers;
            EXPECT_EQ(more.jacobian, one.jacobian) << workers;
        }
    }
}

TYPED_TEST(Gradients, OfTheOverlapWithAState) {
    using T = TypeParam;
    for (const unsigned int n : {2u, 8u}) {
        const GateList list = Dice(n).list(n, 30, 3);
        const auto before = start<T>(n, 1), wanted = start<T>(n, 2);
        const auto f = [&](const LongValues& at) {
            const LongState after = by_textbook(list, LongState(before.begin(), before.end()), at);
            LongComplex overlap = 0;
            for (std::size_t i = 0; i < after.size(); ++i)
                overlap += std::conj(LongComplex(wanted[i])) * after[i];
            return std::norm(overlap);
        };
        const Values values{0.3, 0.6, -0.8};
        StateVector<T> state(n), target(n);
        load(state, before);
        load(target, wanted);
        const Gradient got = overlap_and_gradient<T>(state, list, target, values);
        expect_close<T>(got.values, {f({0.3L, 0.6L, -0.8L})}, "overlap");
        expect_close<T>(got.jacobian, differences(f, values), "overlap");
    }
}

TYPED_TEST(Gradients, StopWhereTheyAreTold) {
    using T = TypeParam;
    const unsigned int n = 17;
    const GateList list = Dice(4).list(n, 200, 5);
    const Values values(5, 0.5);
    const WObservable<T> observable = random_terms(n, 3, 1).compiled<T>();
    std::vector<std::size_t> seen;
    RunOptions options;
    std::size_t limit = 2 * list.size();
    options.between_passes = [&](std::size_t gates) {
        seen.push_back(gates);
        if (gates == 1) throw std::runtime_error("stop");
        return gates < limit;
    };
    StateVector<T> state(n);
    const auto run = [&](std::size_t until) {
        limit = until;
        seen.clear();
        state.reset();
        return value_and_gradient<T>(state, list, std::span(&observable, 1), values, options);
    };
    EXPECT_FALSE(run(~std::size_t{0}).stopped);
    EXPECT_TRUE(std::ranges::is_sorted(seen));
    EXPECT_EQ(seen.back(), 2 * list.size());
    const std::vector<std::size_t> all = seen;
    for (const std::size_t until : all) {
        EXPECT_TRUE(run(until).stopped) << until;
        EXPECT_EQ(seen.back(), until);
    }
}

}  // namespace
}  // namespace pblinalg::test
