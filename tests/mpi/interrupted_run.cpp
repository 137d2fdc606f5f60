// A run with checkpoints that loses a rank, and the one that goes on from there:
//   interrupted_run killed FILE    the last rank ends itself once there is a checkpoint
//   interrupted_run endless FILE   runs again and again
//   interrupted_run resumed FILE   exits with 0 when the outcome has the bits of a whole run
#include <mpi.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <pblinalg/mpi/state_vector.hpp>
#include <string>
#include <thread>

int main(int argc, char** argv) {
    using namespace pblinalg;
    MPI_Init(&argc, &argv);
    if (argc != 3) return 2;
    const std::string path = argv[2];
    const unsigned int n = 12;
    GateList list;
    for (unsigned int i = 0; i < 4000; ++i) {
        list.add(GateKind::RX, i * 7 % n, Angle::of_parameter(i % 2));
        list.add(GateKind::X, (i + 5) % n, Controls({i % n}));
    }
    const double values[] = {0.3, 1.1};
    const mpi::Checkpoint checkpoint{path, 100};
    int status = 0;
    {
        mpi::StateVector<float> state(MPI_COMM_WORLD, n);
        if (std::string(argv[1]) == "killed") {
            if (state.rank() == state.ranks() - 1) {
                std::thread([&] {
                    while (!std::filesystem::exists(path))
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                    std::raise(SIGKILL);
                }).detach();
            }
            state.run(list, values, checkpoint);
        } else if (std::string(argv[1]) == "endless") {
            for (;;)
                state.run(list, values, checkpoint);
        } else {
            state.resume(list, values, checkpoint);
            mpi::StateVector<float> whole(MPI_COMM_WORLD, n);
            whole.run(list, values);
            const auto got = state.gather(), expected = whole.gather();
            status = std::memcmp(got.data(), expected.data(), got.size() * sizeof got[0]) != 0;
        }
    }
    MPI_Finalize();
    return status;
}
