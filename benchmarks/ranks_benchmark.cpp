// A state over ranks against one on rank 0 alone with as many workers, in turns. Started by mpirun;
// arguments: qubits, repeats.
#include <mpi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <pblinalg/mpi/state_vector.hpp>
#include <pblinalg/run.hpp>
#include <thread>

#include "gate_lists.hpp"

namespace {

/// Waits without using a processor.
void sleep_until_all_are_here() {
    MPI_Request request;
    MPI_Ibarrier(MPI_COMM_WORLD, &request);
    for (int done = 0; !done; MPI_Test(&request, &done, MPI_STATUS_IGNORE))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

template <class Work>
double seconds_of(const Work& work) {
    const double begin = MPI_Wtime();
    work();
    return MPI_Wtime() - begin;
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    using namespace pblinalg;
    using namespace pblinalg::benchmarks;
    MPI_Init(&argc, &argv);
    const auto n = static_cast<unsigned int>(argc > 1 ? std::atoi(argv[1]) : 26);
    const int repeats = argc > 2 ? std::atoi(argv[2]) : 5;
    {
        mpi::StateVector<double> spread(MPI_COMM_WORLD, n);
        const bool first = spread.rank() == 0;
        cpu::PybindLinAlgStateVectorCPU<double> whole(0);
        whole.set_num_threads(spread.ranks());
        if (first) {
            whole.resize(n);
            whole.reset();
        }
        struct Circuit {
            const char* name;
            AddLayers add;
            unsigned int layers;
        };
        for (const Circuit& circuit :
             {Circuit{"brickwork, 20 layers", add_brickwork, 20}, Circuit{"QFT", add_qft, 1}}) {
            GateList list;
            Source source;
            circuit.add(list, n, circuit.layers, source);
            for (const Accuracy accuracy : {Accuracy::exact, Accuracy::rounding}) {
                std::vector<double> over_ranks, alone, pass;
                for (int repeat = 0; repeat <= repeats; ++repeat) {
                    sleep_until_all_are_here();
                    const double here = seconds_of([&] {
                        spread.run(list, {}, {}, {}, accuracy);
                        MPI_Barrier(MPI_COMM_WORLD);
                    });
                    if (first) {
                        const double there =
                            seconds_of([&] { run(whole, list, {}, {.accuracy = accuracy}); });
                        const double four = seconds_of([&] { whole.apply_RX(3, 0.5); });
                        // The first round touches memory for the first time.
                        if (repeat > 0) {
                            over_ranks.push_back(here);
                            alone.push_back(there);
                            pass.push_back(four);
                        }
                    }
                }
                sleep_until_all_are_here();
                if (!first) continue;
                std::printf(
                    "%s%s, %u qubits: %d ranks x 1 worker %.3f s, 1 rank x %d workers %.3f s, "
                    "ratio %.2f; one RX %.3f s\n",
                    circuit.name, accuracy == Accuracy::exact ? "" : " by rounding", n,
                    spread.ranks(), median(over_ranks), spread.ranks(), median(alone),
                    median(over_ranks) / median(alone), median(pass));
            }
        }
    }
    MPI_Finalize();
}
