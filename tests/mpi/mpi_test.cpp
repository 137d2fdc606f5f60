// The state vector over ranks against one process: every rank computes both. Started by mpirun with
// any number of ranks.
#include <mpi.h>

#include <pblinalg/mpi/state_vector.hpp>

#include "support/random_lists.hpp"

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

/// In caller order.
template <class T>
Amplitudes<T> exported(StateVector<T>& state) {
    Amplitudes<T> amplitudes(state.size);
    state.get_permuted_statevector(amplitudes.data(), T(-1));
    return amplitudes;
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
    ::testing::AssertionResult same() {
        Amplitudes<T> expected(whole.size);
        for (std::size_t i = 0; i < whole.size; ++i)
            expected[reversed(i, whole.nqubits)] = whole.state[i];
        const auto got = spread.gather();
        return same_bits(got.data(), expected);
    }

    mpi::StateVector<T> spread;
    StateVector<T> whole;
};

TYPED_TEST(OverRanks, RunsOfRandomListsGiveTheBitsOfOneProcess) {
    using T = TypeParam;
    std::uint64_t seed = 0;
    for (unsigned int n = std::max(4u, rank_bits() + 2); n <= 16; ++n) {
        for (const Filling filling : all_fillings) {
            for (const int n_gates : {5, 25, 120}) {
                Both<T> both(n, filling, seed);
                // The second list finds the bits where the first one left them.
                for (int part = 0; part < 2; ++part) {
                    both.run(Dice(2 * seed + part).list(n, n_gates));
                    ASSERT_TRUE(both.same()) << n << " qubits, seed " << seed << ", part " << part;
                }
                ++seed;
            }
        }
    }
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
