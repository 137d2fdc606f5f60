// The state vector over ranks against one process: every rank computes both. Started by mpirun with
// any number of ranks.
#include <mpi.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <pblinalg/mpi/dry_run.hpp>
#include <pblinalg/mpi/state_vector.hpp>

#include "support/random_lists.hpp"
#include "support/unitary_lists.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class OverRanks : public ::testing::Test {};
TYPED_TEST_SUITE(OverRanks, Precisions);

unsigned int rank_bits() {
    int size = 0;
    MPI_Comm_size(MPI_COMM_WORLD, &size);
    return static_cast<unsigned int>(std::countr_zero(static_cast<unsigned int>(size)));
}

/// One state spread over ranks and one that is not, with equal amplitudes.
template <class T>
struct Both {
    explicit Both(unsigned int n, Filling filling = Filling::ordinary, std::uint64_t seed = 1)
        : spread(MPI_COMM_WORLD, n), whole(n) {
        auto before = filled<T>(std::size_t{1} << n, filling, seed);
        whole.set_num_threads(0);
        whole.reset(reinterpret_cast<unsigned long long>(before.data()));
        spread.set_amplitudes(before);
    }
    void run(const GateList& list) {
        spread.run(list);
        pblinalg::run(whole, list);
    }
    /// In caller order.
    Amplitudes<T> expected() const {
        Amplitudes<T> amplitudes(whole.size);
        for (std::size_t i = 0; i < whole.size; ++i)
            amplitudes[reversed(i, whole.nqubits)] = whole.state[i];
        return amplitudes;
    }
    ::testing::AssertionResult same() { return same_bits(spread.gather().data(), expected()); }

    mpi::StateVector<T> spread;
    StateVector<T> whole;
};

/// A number from the environment: longer checks are asked for there.
int setting(const char* name, int otherwise) {
    const char* const text = std::getenv(name);
    return text ? std::atoi(text) : otherwise;
}

TYPED_TEST(OverRanks, RunsOfRandomListsGiveTheBitsAndShotsOfOneProcess) {
    using T = TypeParam;
    auto seed = static_cast<std::uint64_t>(setting("PBLINALG_SEED", 0));
    const auto most = static_cast<unsigned int>(setting("PBLINALG_MAX_QUBITS", 16));
    // More ranks than processors take long to agree.
    const unsigned int step = rank_bits() > 2 ? 3 : 1;
    std::vector<unsigned int> sizes;
    for (unsigned int n = std::max(4u, rank_bits() + 2); n < most; n += step)
        sizes.push_back(n);
    sizes.push_back(most);
    for (const unsigned int n : sizes) {
        for (const Filling filling : all_fillings) {
            for (const int n_gates : {5, 80}) {
                ++seed;
                // Of large states a few: one filling, then another.
                if (n > 12 && (n_gates == 5 || filling != all_fillings[n % 4])) continue;
                Both<T> both(n, filling, seed);
                // The second list finds the bits where the first one left them.
                for (int part = 0; part < 2; ++part) {
                    both.run(Dice(2 * seed + part).list(n, n_gates));
                    ASSERT_TRUE(both.same()) << n << " qubits, seed " << seed << ", part " << part;
                }
                const Qubits qubits = Dice(seed).qubits(n, 1 + n / 2);
                const T weight = both.whole.probability(0, Qubits{qubits[0]});
                if (!(weight > 0) || std::isinf(weight)) continue;
                both.spread.project({qubits[0]}, 0);
                both.whole.project({qubits[0]}, 0);
                both.spread.seed(seed);
                both.whole.rng.seed(seed);
                std::vector<unsigned long long> expected(100);
                both.whole.sample_subset(expected.data(), qubits, expected.size());
                EXPECT_TRUE(std::ranges::equal(both.spread.sample(100, qubits), expected))
                    << n << " qubits, seed " << seed;
            }
        }
    }
}

TYPED_TEST(OverRanks, ParametersRecordsAndWideMatricesRunAsInOneProcess) {
    using T = TypeParam;
    const unsigned int n = rank_bits() + 5;
    Both<T> both(n);
    GateList list;
    for (unsigned int q = 0; q < n; ++q)
        list.add(GateKind::RX, q, Angle::of_parameter(q % 2, 2, 0.1));
    list.add(GateKind::RZZ, {0, n - 1}, Angle::of_parameter(1));
    const double values[] = {0.3, -0.8};
    both.spread.run(list, values);
    pblinalg::run(both.whole, list, values);
    EXPECT_TRUE(both.same());

    PybindLinAlgWCircuit<T> record(n);
    for (unsigned int q = 0; q + 1 < n; ++q) {
        record.add_gate("RY", {T(0.2) * static_cast<T>(q)}, {q});
        record.add_gate("CNOT", {}, {n - 1, q});
        record.add_gate("SWAP", {}, {q, q + 1});
    }
    record.add_gate("FLIP", {}, {0});
    EXPECT_THROW(both.spread.run(record), std::invalid_argument);
    EXPECT_THROW(both.whole.simulate_circuit(record), std::invalid_argument);
    EXPECT_TRUE(both.same());

    // Their products are not defined to the last bit.
    GateList wide;
    const auto entries = filled<double>(64, Filling::ordinary, 3);
    wide.add_matrix({n - 1, 0, n - 2}, entries, Controls({1}));
    both.run(wide);
    const auto expected = both.expected();
    const auto got = both.spread.gather();
    for (std::size_t i = 0; i < got.size(); ++i)
        ASSERT_LT(std::abs(got[i] - expected[i]), 100 * std::numeric_limits<T>::epsilon());
}

/// A file name that all ranks agree on; all files that begin with it are removed at the end.
struct SharedFile {
    SharedFile() {
        long id = getpid();
        MPI_Bcast(&id, 1, MPI_LONG, 0, MPI_COMM_WORLD);
        path = (std::filesystem::temp_directory_path() / ("pblinalg_ranks_" + std::to_string(id)))
                   .string();
    }
    ~SharedFile() {
        MPI_Barrier(MPI_COMM_WORLD);
        for (const auto& found : all())
            std::filesystem::remove(found);
    }
    std::vector<std::string> all() const {
        std::vector<std::string> paths;
        const std::filesystem::path folder = std::filesystem::temp_directory_path();
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().string().starts_with(path)) paths.push_back(entry.path().string());
        }
        return paths;
    }
    std::string path;
};

TYPED_TEST(OverRanks, StopsLeaveTheFirstGatesDone) {
    using T = TypeParam;
    const unsigned int n = rank_bits() + 4;
    std::size_t stops = 0;
    for (std::uint64_t seed = 0; seed < 7; ++seed) {
        // The last one needs no exchange.
        const bool stays = seed == 6;
        const GateList list = stays ? Dice(seed).list(4, 4000) : Dice(seed).list(n, 60);
        if (stays) stops = 0;
        RunReport report{0, true};
        for (std::size_t calls = 1; report.stopped; ++calls) {
            Both<T> both(n, Filling::ordinary, seed);
            std::size_t called = 0, told = 0;
            // One rank alone wants to stop.
            const bool asks = both.spread.rank() == both.spread.ranks() - 1;
            report = both.spread.run(list, {}, {}, [&](std::size_t done) {
                EXPECT_GE(done, told);
                told = done;
                return ++called < calls || !asks;
            });
            ASSERT_LE(told, report.gates_done);
            ASSERT_EQ(report.stopped, report.gates_done < list.size());
            stops += report.stopped;
            GateList first, rest;
            for (std::size_t i = 0; i < list.size(); ++i)
                (i < report.gates_done ? first : rest).append(list[i]);
            pblinalg::run(both.whole, first);
            ASSERT_TRUE(both.same()) << report.gates_done << " gates, seed " << seed;
            both.run(rest);
            ASSERT_TRUE(both.same()) << "after " << report.gates_done << " gates, seed " << seed;
        }
    }
    EXPECT_GT(stops, 2u);
    if (rank_bits() == 0) return;
    // Between checkpoints there may be a single pass: these are asked after, too.
    const SharedFile file;
    Both<T> saved(n);
    const GateList list = Dice(4).list(n, 60);
    const auto at_once = [](std::size_t) { return false; };
    const RunReport report = saved.spread.run(list, {}, {file.path, 4}, at_once);
    EXPECT_TRUE(report.stopped && report.gates_done <= 4) << report.gates_done;
    // What one rank throws is raised on all, and none is out of step.
    Both<T> both(n);
    const int rank = both.spread.rank();
    EXPECT_THROW(both.spread.run(Dice(1).list(n, 60), {}, {},
                                 [=](std::size_t) -> bool {
                                     if (rank == 1) throw std::domain_error("no more");
                                     return true;
                                 }),
                 std::domain_error);
    both.spread.amplitudes(std::vector<std::uint64_t>{0});
}

/// The largest difference of an amplitude from those of `whole`.
template <class T>
double distance(Both<T>& both) {
    const auto got = both.spread.gather();
    return largest_difference(Amplitudes<T>(got.begin(), got.end()), both.expected());
}

TYPED_TEST(OverRanks, RunsByRoundingAgreeWithExactOnes) {
    using T = TypeParam;
    const double angles[] = {0.3, -1.1, 0.9};
    std::size_t stops = 0;
    for (std::uint64_t seed = 0; seed < 12; ++seed) {
        const unsigned int n = rank_bits() + 4 + seed % 3 * 2;
        const bool is_long = seed % 3 == 2;
        GateList list;
        for (std::uint64_t part = 0; part < (is_long ? 4 : 1); ++part) {
            // On one rank, with gates in between that wait for an exchange.
            list.append(UnitaryDice(seed + part).list(is_long ? 3 : n, is_long ? 900 : 600, 3));
            if (is_long) list.add(GateKind::H, n - 1 - part % 2);
        }
        Both<T> both(n);
        both.spread.reset();
        both.whole.reset();
        std::size_t told = 0;
        const auto ask = [&](std::size_t done) {
            EXPECT_GE(done, told);
            told = done;
            return seed % 4 == 0 || both.spread.rank() != 0 || done < (is_long ? 300 : 40) * seed;
        };
        const RunReport report = both.spread.run(list, angles, {}, ask, Accuracy::rounding);
        ASSERT_GE(report.gates_done, told);
        stops += report.stopped;
        GateList first, rest;
        for (std::size_t i = 0; i < list.size(); ++i)
            (i < report.gates_done ? first : rest).append(list[i]);
        pblinalg::run(both.whole, first, angles);
        ASSERT_LE(distance(both), tolerance<T>) << n << " qubits, seed " << seed;
        both.spread.run(rest, angles, {}, {}, Accuracy::rounding);
        pblinalg::run(both.whole, rest, angles);
        ASSERT_LE(distance(both), tolerance<T>) << n << " qubits, seed " << seed;
    }
    EXPECT_TRUE(rank_bits() == 0 || stops > 2) << stops;

    const SharedFile file;
    const unsigned int n = rank_bits() + 4;
    const GateList list = UnitaryDice(1).list(n, 500);
    Both<T> both(n);
    both.spread.reset();
    both.whole.reset();
    const mpi::Checkpoint checkpoint{file.path, 200};
    const auto up_to_100 = [](std::size_t done) { return done < 100; };
    both.spread.run(list, {}, {file.path, 100}, up_to_100, Accuracy::rounding);
    EXPECT_THROW(both.spread.resume(list, {}, checkpoint), std::invalid_argument);
    both.spread.resume(list, {}, checkpoint, {}, Accuracy::rounding);
    pblinalg::run(both.whole, list);
    EXPECT_LE(distance(both), tolerance<T>);
    // A run of another list that stops before it has saved leaves that checkpoint, and one that
    // saves leaves its own alone.
    const auto saved = [&] {
        MPI_Barrier(MPI_COMM_WORLD);
        return file.all().size();
    };
    const GateList other = UnitaryDice(2).list(n, 300);
    if (rank_bits() > 0) {
        both.spread.run(other, {}, {file.path, 200}, [](std::size_t) { return false; });
        EXPECT_EQ(saved(), 2u);
        both.spread.resume(list, {}, checkpoint, {}, Accuracy::rounding);
        EXPECT_LE(distance(both), tolerance<T>);
    }
    both.spread.run(other, {}, {file.path, 200});
    EXPECT_EQ(saved(), 2u);
    EXPECT_THROW(both.spread.resume(list, {}, checkpoint, {}, Accuracy::rounding),
                 std::invalid_argument);
}

/// Small states are copied, from 17 qubits on sums are taken where the amplitudes are.
constexpr unsigned int readout_sizes[] = {8, 17};

TYPED_TEST(OverRanks, ProbabilitiesAndProjectionsHaveTheBitsOfOneProcess) {
    using T = TypeParam;
    for (const unsigned int n : readout_sizes) {
        Both<T> both(n);
        GateList scale;
        scale.add_diagonal({0, 1},
                           std::vector<std::complex<double>>(4, std::ldexp(1, -int(n) / 2)));
        both.run(scale.add(GateKind::H, n - 1).add(GateKind::SWAP, {0, n - 1}));
        const Qubits lists[] = {{}, {n - 1}, {0}, {2, n - 1, 5}, {n - 2, n - 1, 1, 0}};
        for (const Qubits& list : lists) {
            std::vector<T> expected(std::size_t{1} << list.size());
            both.whole.get_distribution(expected.data(), T(0), list);
            EXPECT_TRUE(same_bits(both.spread.distribution(list).data(), expected)) << n;
            const Qubits backwards(list.rbegin(), list.rend());
            for (const std::uint64_t outcome : {0, 1}) {
                EXPECT_TRUE(same_bits(both.spread.probability(outcome, list),
                                      both.whole.probability(outcome, backwards)))
                    << n << " qubits, " << list.size() << " listed, outcome " << outcome;
            }
        }
        both.spread.project({n - 1, 3}, 2);
        both.whole.project({n - 1, 3}, 2);
        EXPECT_TRUE(both.same());
        both.spread.project_then_reset({0, n - 2}, 3);
        both.whole.project_then_reset({0, n - 2}, 3);
        EXPECT_TRUE(both.same());
        EXPECT_THROW(both.spread.project({n - 2}, 1), std::domain_error);
        EXPECT_THROW(both.whole.project({n - 2}, 1), std::domain_error);
        EXPECT_TRUE(both.same());
    }
}

TYPED_TEST(OverRanks, ShotsAreThoseOfOneProcess) {
    using T = TypeParam;
    for (const unsigned int n : readout_sizes) {
        Both<T> both(n);
        GateList list;
        list.add_diagonal({0}, std::vector<std::complex<double>>(2, std::ldexp(1.3, -int(n) / 2)));
        both.run(list.add(GateKind::H, n - 1).add(GateKind::H, 0));
        both.spread.seed(5);
        both.whole.rng.seed(5);
        for (const Qubits& qubits : {Qubits(), Qubits{n - 1, 2, 0}}) {
            for (const std::size_t shots : {std::size_t{1}, std::size_t{3000}}) {
                std::vector<unsigned long long> expected(shots);
                both.whole.sample_subset(expected.data(), qubits, shots);
                const auto got = both.spread.sample(shots, qubits);
                EXPECT_TRUE(std::ranges::equal(got, expected)) << n << " qubits";
            }
        }
        EXPECT_EQ(both.spread.measure({1, n - 1}), both.whole.measure({1, n - 1}));
        const int root = both.spread.ranks() - 1;
        EXPECT_EQ(both.spread.sample(3, {}, root).size(), both.spread.rank() == root ? 3u : 0u);
        both.whole.rng.discard(3);
        std::vector<unsigned long long> expected(3000);
        both.whole.sample(expected.data(), expected.size());
        const auto pieces = both.spread.sample_by_pieces(expected.size());
        // Sums in other pieces move the bounds between neighbours by as much as they round.
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            const auto got = static_cast<std::int64_t>(reversed(pieces[i], n));
            ASSERT_LE(std::abs(got - static_cast<std::int64_t>(reversed(expected[i], n))),
                      sizeof(T) == 8 ? 1 : 64);
        }
    }
}

TYPED_TEST(OverRanks, ExpectationValuesAreThoseOfOneProcess) {
    using T = TypeParam;
    const unsigned int p = rank_bits();
    struct Case {
        unsigned int n_qubits;
        unsigned int n_masks;  ///< that terms flip
        int n_terms;
        double one_amplitude = 1;  ///< is multiplied by this
    };
    // One process sums in as many pieces as groups of terms and the size say: some are fewer than
    // the ranks, some do not begin and end with them.
    for (const auto [n, n_masks, n_terms, factor] :
         {Case{9, 12, 12}, Case{17, 1, 1}, Case{17, 30, 70}, Case{18, 3, 9}, Case{18, 25, 60},
          Case{18, 20, 40, std::numeric_limits<double>::infinity()}}) {
        Both<T> both(n, Filling::ordinary, static_cast<std::uint64_t>(n_terms));
        GateList list;
        list.add_diagonal({0}, std::vector<std::complex<double>>(2, std::ldexp(1, -int(n) / 2)));
        // Qubits of the ranks' numbers change places among themselves and with others.
        for (unsigned int q = 0; q < p; ++q)
            list.add(GateKind::H, q).add(GateKind::X, n - 1 - q, Controls({n - 2 - q}));
        Qubits others;
        for (unsigned int q = 1; q < n; ++q)
            others.push_back(q);
        list.add_diagonal({0}, std::vector<std::complex<double>>{1, factor}, Controls(others));
        both.run(list.add(GateKind::X, n - 1).add(GateKind::SWAP, {0, n - 1}));
        std::mt19937_64 random(n + n_masks + 100 * setting("PBLINALG_SEED", 0));
        const std::uint64_t all = (std::uint64_t{1} << n) - 1;
        std::vector<std::uint64_t> masks = {random() & all};
        // Every second one lies within ranks; most of them are sums of a few.
        while (masks.size() < n_masks) {
            masks.push_back(masks.size() < 6
                                ? random() & random() & all >> (masks.size() % 2 ? p : 0)
                                : masks[random() % 6] ^ masks[random() % 6]);
        }
        WObservable<T> observable{{}, {}, {}, {}, T(0.25), 0};
        for (int t = 0; t < n_terms; ++t) {
            const std::uint64_t flips = masks[t % masks.size()], signs = random() & random() & all;
            observable.coefficients.push_back({T(t + 1), T(0.5)});
            observable.flip_masks.push_back(flips);
            observable.sign_masks.push_back(signs);
            observable.phase_powers.push_back(
                static_cast<unsigned int>(std::popcount(flips & signs)));
        }
        EXPECT_TRUE(same_bits(both.spread.expectation_value(observable),
                              both.whole.expectation_value(observable)))
            << n << " qubits, " << n_terms << " terms";
        EXPECT_TRUE(same_bits(both.spread.terms_expectations_values(observable).data(),
                              both.whole.terms_expectations_values(observable)))
            << n << " qubits, " << n_terms << " terms";
    }
}

TYPED_TEST(OverRanks, EstimatesAreThoseOfOneProcess) {
    using T = TypeParam;
    for (const unsigned int n : readout_sizes) {
        Both<T> both(n);
        GateList list;
        list.add_diagonal({0}, std::vector<std::complex<double>>(2, std::ldexp(1.2, -int(n) / 2)));
        both.run(list.add(GateKind::H, n - 1).add(GateKind::SWAP, {0, n - 1}));
        both.spread.seed(n);
        both.whole.rng.seed(n);
        Dice dice(n);
        std::vector<SimpleTerm<T>> terms = {{{}, "", T(2)}, {{n - 1, 0, 1}, "YIX", T(-1)}};
        for (unsigned int t = 0; t < 8; ++t) {
            SimpleTerm<T> term{dice.qubits(n, 1 + dice.below(7)), "", {T(t), T(1)}};
            // The qubits without a letter are read as they are.
            for (unsigned int k = dice.below(1 + term.qubits.size()); k > 0; --k)
                term.paulis += "XYZ"[dice.below(3)];
            terms.push_back(term);
        }
        for (const unsigned int shots : {1, 300}) {
            const auto expected = both.whole.evaluate_terms(terms, shots);
            const auto got = both.spread.evaluate_terms(terms, shots);
            ASSERT_EQ(got.size(), expected.size());
            for (std::size_t t = 0; t < got.size(); ++t) {
                EXPECT_TRUE(same_bits(got[t].first, expected[t].first) &&
                            same_bits(got[t].second, expected[t].second))
                    << n << " qubits, term " << t << ", " << shots << " shots";
            }
        }
        EXPECT_TRUE(both.same());
        EXPECT_EQ(both.spread.measure({1, n - 1}), both.whole.measure({1, n - 1}));
    }
}

TYPED_TEST(OverRanks, LoadsHaveTheBitsOfOneProcess) {
    using T = TypeParam;
    const unsigned int p = rank_bits();
    for (std::uint64_t seed = 0; seed < 40; ++seed) {
        Dice dice(seed);
        const unsigned int n = p + 2 + dice.below(7);
        Both<T> both(n, all_fillings[seed % 4], seed);
        // Comparisons leave the qubits in order, runs do not.
        both.run(dice.list(n, 15));
        const unsigned int width = dice.below(n - p + 1);
        const Qubits qubits = dice.qubits(n, width + dice.below(n - width + 1));
        auto values = filled<double>(std::size_t{1} << qubits.size(), Filling::ordinary, seed);
        // Rows of zeros are not normalised.
        std::fill_n(values.begin(), dice.below(static_cast<unsigned int>(values.size())), 0.0);
        std::vector<unsigned long long> words(values.size() >> width);
        for (auto& word : words)
            word = dice.below(1u << 20);
        both.spread.apply_qram(values, qubits, width);
        both.whole.apply_qram(values.data(), qubits, width);
        EXPECT_TRUE(both.same()) << "table, seed " << seed;
        both.run(dice.list(n, 5));
        both.spread.apply_binary_qram(words, qubits, width);
        both.whole.apply_binary_qram(words.data(), qubits, width);
        EXPECT_TRUE(both.same()) << "words, seed " << seed;
        const Qubits prepared = dice.qubits(n, width);
        auto amplitudes = filled<double>(std::size_t{1} << width, all_fillings[seed % 3], seed);
        both.run(dice.list(n, 5));
        both.spread.apply_state_preparation(amplitudes, prepared);
        both.whole.apply_state_preparation(amplitudes.data(), prepared);
        EXPECT_TRUE(both.same()) << "preparation, seed " << seed;
        std::string description;
        for (unsigned int k = dice.below(n + 2); k > 0; --k)
            description += k > n ? '+' : "01+-?"[dice.below(5)];
        both.run(dice.list(n, 5));
        both.spread.reset_to_str(description);
        both.whole.reset_to_str(description);
        EXPECT_TRUE(both.same()) << description;
    }
}

TYPED_TEST(OverRanks, CopiesInnerProductsAndReducedMatricesAreThoseOfOneProcess) {
    using T = TypeParam;
    const unsigned int n = rank_bits() + 5;
    Both<T> both(n);
    both.run(Dice(5).list(n, 40));
    auto spread = both.spread.copy();
    const auto before = both.expected();
    both.run(GateList().add(GateKind::H, n - 1).add(GateKind::SWAP, {0, n - 1}));
    EXPECT_TRUE(same_bits(spread.gather().data(), before));
    const auto after = both.expected();
    std::complex<double> inner = 0;
    double norm = 0;
    for (std::size_t i = 0; i < before.size(); ++i) {
        inner += std::complex<double>(std::conj(after[i])) * std::complex<double>(before[i]);
        norm += std::norm(std::complex<double>(after[i]));
    }
    const double close = norm * (sizeof(T) == sizeof(float) ? 1e-6 : 1e-14);
    EXPECT_NEAR(std::abs(both.spread.inner(spread) - inner), 0, close);
    for (const Qubits& qubits : {Qubits{n - 1, 0, 2}, Qubits{}, Qubits{1, 0, 3, n - 1, 2}}) {
        std::vector<std::complex<double>> expected(std::size_t{1} << 2 * qubits.size());
        reduced_density_matrix(both.whole, qubits, expected.data());
        const auto matrix = both.spread.reduced_density_matrix(qubits);
        ASSERT_EQ(matrix.size(), expected.size());
        for (std::size_t i = 0; i < matrix.size(); ++i)
            EXPECT_NEAR(std::abs(matrix[i] - expected[i]), 0, close) << i;
    }
}

/// The first `size` ranks of the world; no communicator on the others.
struct FirstRanks {
    explicit FirstRanks(int size) {
        int rank = 0;
        MPI_Comm_rank(MPI_COMM_WORLD, &rank);
        MPI_Comm_split(MPI_COMM_WORLD, rank < size ? 0 : MPI_UNDEFINED, rank, &comm);
    }
    ~FirstRanks() {
        if (comm != MPI_COMM_NULL) MPI_Comm_free(&comm);
    }
    MPI_Comm comm = MPI_COMM_NULL;
};

TYPED_TEST(OverRanks, FilesPassBetweenNumbersOfRanks) {
    using T = TypeParam;
    const unsigned int n = rank_bits() + 4;
    Both<T> both(n, Filling::signed_zeros);
    both.run(Dice(3).list(n, 40));
    const SharedFile file;
    both.spread.save(file.path);
    EXPECT_TRUE(both.same());
    const FirstRanks few(std::max(1, both.spread.ranks() / 4));
    if (few.comm != MPI_COMM_NULL) {
        mpi::StateVector<T> other(few.comm, n);
        other.load(file.path);
        EXPECT_TRUE(same_bits(other.gather().data(), both.expected()));
    }
    mpi::StateVector<T> larger(MPI_COMM_WORLD, n + 1);
    EXPECT_THROW(larger.load(file.path), std::runtime_error);
    EXPECT_THROW(both.spread.load(file.path + "_of_nobody"), std::runtime_error);
    MPI_Barrier(MPI_COMM_WORLD);
    if (both.spread.rank() == 0)
        std::filesystem::resize_file(file.path, std::filesystem::file_size(file.path) - 1);
    MPI_Barrier(MPI_COMM_WORLD);
    EXPECT_THROW(both.spread.load(file.path), std::runtime_error);
    EXPECT_TRUE(both.same());
    EXPECT_THROW(both.spread.save("/nowhere/state.npy"), std::runtime_error);
}

TYPED_TEST(OverRanks, AmplitudesAreFoundWhereverTheyLie) {
    using T = TypeParam;
    const unsigned int n = rank_bits() + 4;
    Both<T> both(n, Filling::signed_zeros);
    both.run(Dice(8).list(n, 30));
    std::vector<std::uint64_t> indices;
    for (std::uint64_t i = 0; i < both.whole.size; ++i)
        indices.push_back(i * 5 % both.whole.size);
    const auto expected = both.expected();
    Amplitudes<T> chosen;
    for (const std::uint64_t i : indices)
        chosen.push_back(expected[i]);
    EXPECT_TRUE(same_bits(both.spread.amplitudes(indices).data(), chosen));
    EXPECT_THROW(both.spread.amplitudes(std::vector<std::uint64_t>{both.whole.size}),
                 std::invalid_argument);
    EXPECT_EQ(both.spread.gather(0).size(), both.spread.rank() == 0 ? both.whole.size : 0);
}

TEST(DryRuns, CountExchangesOfKnownCircuits) {
    const unsigned int n = 40;
    GateList brickwork, mixing;
    for (unsigned int layer = 0; layer < 20; ++layer) {
        for (unsigned int q = 0; q < n; ++q) {
            brickwork.add(std::array{GateKind::RX, GateKind::RY, GateKind::RZ}[(layer + q) % 3], q,
                          0.3);
            mixing.add(GateKind::RY, q, 0.3);
        }
        for (unsigned int q = layer % 2; q + 1 < n; q += 2)
            brickwork.add(GateKind::X, q + 1, Controls({q}));
    }
    const mpi::Traffic moved = mpi::dry_run<double>(brickwork, n, 10).traffic;
    EXPECT_LE(moved.exchanges, 16u);
    EXPECT_LT(moved.bytes, std::ldexp(1, 38));
    // Each pass takes 30 of the 800 gates.
    EXPECT_EQ(mpi::dry_run<float>(mixing, n, 10).traffic.exchanges, 26u);
    // Chances to stop are none to exchange.
    GateList staying;
    staying.add(GateKind::H, n - 1);
    for (unsigned int i = 0; i < 3000; ++i)
        staying.add(GateKind::RX, i % 3, 0.3);
    EXPECT_EQ(mpi::dry_run<float>(staying, n, 10).traffic.exchanges, 1u);
    const auto by_rounding = [&](const GateList& list) {
        return mpi::dry_run<double>(list, n, 10, {}, Accuracy::rounding).traffic.exchanges;
    };
    EXPECT_EQ(by_rounding(brickwork), 1u);
    EXPECT_EQ(by_rounding(mixing), 1u);
}

TEST(DryRuns, SayWhatIsSentAndHowLongItTakes) {
    GateList list;
    list.add(GateKind::H, 19).add(GateKind::H, 18).add(GateKind::Z, 17).add(GateKind::H, 0);
    const double local = 16 << 16;
    const mpi::DryRun run = mpi::dry_run<double>(list, 20, 4, {1e9, 1e6, 0.5});
    EXPECT_EQ(run.traffic.exchanges, 1u);
    EXPECT_EQ(run.traffic.bytes, local * 3 / 4);
    EXPECT_EQ(run.gate_by_gate.exchanges, 2u);
    EXPECT_EQ(run.gate_by_gate.bytes, local);
    EXPECT_EQ(run.memory_passes, 1u);
    EXPECT_DOUBLE_EQ(run.seconds, local * 3 / 4 / 1e6 + 3 * 0.5 + 2 * local / 1e9);
}

TEST(Faults, ReachEveryRankAsTheSameError) {
    using State = mpi::StateVector<double>;
    const auto text_of = [](const auto& work) -> std::string {
        try {
            work();
        } catch (const std::invalid_argument& error) {
            return std::string("argument: ") + error.what();
        } catch (const std::bad_alloc& error) {
            return std::string("memory: ") + error.what();
        }
        return "nothing";
    };
    const unsigned int p = rank_bits();
    State state(MPI_COMM_WORLD, p + 3);
    const int last = state.ranks() - 1;
    const bool here = state.rank() == last;
    GateList list;
    list.add(GateKind::RX, 0, here ? 0.5 : 0.25);
    GateList beyond, wide;
    beyond.add(GateKind::H, p + 3);
    wide.add_matrix({0, 1, 2, p + 2}, std::vector<std::complex<double>>(256, 1.0));
    const double value[] = {here ? 0.0 : 1.0};
    GateList parametrised;
    parametrised.add(GateKind::RX, 0, Angle::of_parameter(0));
    const std::vector<std::complex<double>> plus = {0.6, 0.8}, minus = {0.6, -0.8};
    const std::vector<unsigned long long> ones = {1, 1}, twos = {2, 2};
    struct {
        std::string text;
        std::function<void()> work;
        int least_ranks = 1;
    } const cases[] = {
        {"argument: the gate list, its values or the accuracy differs between ranks",
         [&] { state.run(list); }, 2},
        {"argument: the gate list, its values or the accuracy differs between ranks",
         [&] { state.run(parametrised, value); }, 2},
        {"argument: the gate list, its values or the accuracy differs between ranks",
         [&] {
             state.run(GateList().add(GateKind::X, 0), {}, {}, {},
                       here ? Accuracy::rounding : Accuracy::exact);
         },
         2},
        {"argument: 0 values for 1 parameters", [&] { state.run(parametrised); }},
        {"argument: the list acts on qubit " + std::to_string(p + 3) + "; the state has " +
             std::to_string(p + 3) + " qubits",
         [&] { state.run(beyond); }},
        {"argument: gate 0 is a matrix on 4 qubits; a rank has 3", [&] { state.run(wide); },
         p > 0 ? 1 : 99},
        {"argument: " + std::to_string(p + 1) + " qubits are too few for 2^" + std::to_string(p) +
             " ranks; expected at least " + std::to_string(p + 2),
         [&] { State(MPI_COMM_WORLD, p + 1); }},
        {"argument: the number of qubits differs between ranks",
         [&] { State(MPI_COMM_WORLD, p + 4 + here); }, 2},
        {"argument: 4 qubits are listed; a rank has 3",
         [&] {
             state.reduced_density_matrix({0, 1, 2, p + 2});
         },
         p > 0 ? 1 : 99},
        {"argument: qubit 1 is listed twice",
         [&] {
             state.distribution({1, 0, 1});
         }},
        {"argument: qubit 63 of a state of " + std::to_string(p + 3) + " qubits",
         [&] { state.project({63}, 0); }},
        {"argument: the description differs between ranks",
         [&] { state.reset_to_str(here ? "1" : "0"); }, 2},
        {"argument: what to prepare differs between ranks",
         [&] { state.apply_state_preparation(here ? minus : plus, {0}); }, 2},
        {"argument: what to prepare differs between ranks",
         [&] { state.apply_state_preparation(plus, {here}); }, 2},
        {"argument: 4 qubits are listed; a rank has 3",
         [&] {
             state.apply_state_preparation(std::vector<std::complex<double>>(16), {0, 1, 2, p + 2});
         },
         p > 0 ? 1 : 99},
        {"argument: amplitudes holds 2 elements; expected 4",
         [&] {
             state.apply_state_preparation(plus, {0, 1});
         }},
        {"argument: what to load differs between ranks",
         [&] {
             state.apply_binary_qram(here ? ones : twos, {0, 1, 2}, 2);
         },
         2},
        {"argument: words holds 2 elements; expected 4",
         [&] {
             state.apply_binary_qram(ones, {0, 1, 2}, 1);
         }},
        {"argument: amplitudes holds 2 elements; expected 4",
         [&] {
             state.apply_qram(plus, {0, 1}, 1);
         }},
        {"argument: data_width = 2: expected at most the 1 listed qubits",
         [&] { state.apply_qram(plus, {0}, 2); }},
        {"argument: the terms or the number of shots differs between ranks",
         [&] {
             state.evaluate_terms({{{0}, here ? "X" : "Y", 1.0}}, 1);
         },
         2},
        {"argument: the terms or the number of shots differs between ranks",
         [&] {
             state.evaluate_terms({{{0}, "X", 1.0}}, 1 + here);
         },
         2},
        {"argument: a term has 2 letters; expected at most one for each of its 1 qubits",
         [&] {
             state.evaluate_terms({{{0}, "XX", 1.0}}, 1);
         }},
        {"argument: qubit 1 is listed twice",
         [&] {
             state.evaluate_terms({{{1, 1}, "XX", 1.0}}, 1);
         }},
        {"memory: rank 0 has not enough memory", [&] { State(MPI_COMM_WORLD, 63); }},
    };
    for (const auto& [text, work, least_ranks] : cases) {
        if (state.ranks() < least_ranks) continue;
        EXPECT_EQ(text_of(work), text);
    }
    if (last >= 2) {
        const FirstRanks three(3);
        if (three.comm != MPI_COMM_NULL) {
            EXPECT_EQ(text_of([&] { State(three.comm, 20); }),
                      "argument: the number of ranks is 3; expected a power of two");
        }
    }
#if !defined(__SANITIZE_ADDRESS__)
    rlimit before;
    getrlimit(RLIMIT_AS, &before);
    if (here) {
        const rlimit low{std::size_t{1} << 28, before.rlim_max};
        setrlimit(RLIMIT_AS, &low);
    }
    EXPECT_EQ(text_of([&] { State(MPI_COMM_WORLD, p + 25); }),
              "memory: rank " + std::to_string(last) + " has not enough memory");
    setrlimit(RLIMIT_AS, &before);
#endif
    // Nothing was applied meanwhile, and nobody is out of step.
    EXPECT_EQ(state.gather()[0], 1.0);
}

}  // namespace
}  // namespace pblinalg::test

int main(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    ::testing::InitGoogleTest(&argc, argv);
    int rank = 0;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    if (rank != 0) {
        auto& listeners = ::testing::UnitTest::GetInstance()->listeners();
        delete listeners.Release(listeners.default_result_printer());
    }
    int failed = RUN_ALL_TESTS();
    MPI_Allreduce(MPI_IN_PLACE, &failed, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
    MPI_Finalize();
    return failed;
}
