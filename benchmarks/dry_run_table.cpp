// What circuits of 34 to 44 qubits send over the network on 16 to 16,384 ranks, from plans alone: a
// table in Markdown. Arguments: memory and network bandwidth of a rank in GB/s.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <pblinalg/mpi/dry_run.hpp>

#include "gate_lists.hpp"

int main(int argc, char** argv) {
    using namespace pblinalg;
    using namespace pblinalg::benchmarks;
    mpi::Machine machine;
    if (argc > 1) machine.memory_bandwidth = std::atof(argv[1]) * 1e9;
    if (argc > 2) machine.network_bandwidth = std::atof(argv[2]) * 1e9;
    struct Circuit {
        const char* name;
        AddLayers add;
        unsigned int layers;
    };
    const Circuit circuits[] = {{"brickwork, 20 layers", add_brickwork, 20},
                                {"QFT", add_qft, 1},
                                {"quantum volume, 20 layers", add_quantum_volume, 20},
                                {"ansatz, 20 layers", add_ansatz, 20}};
    std::printf(
        "| Circuit | Qubits | Ranks | GiB a rank | one a gate: exchanges | GiB sent | exact: "
        "exchanges | GiB sent | share | passes | seconds | by rounding: exchanges | GiB sent | "
        "share | passes | seconds |\n"
        "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n");
    constexpr double gib = 1 << 30;
    for (const Circuit& circuit : circuits) {
        for (const unsigned int n : {34u, 40u, 44u}) {
            GateList list;
            Source source;
            circuit.add(list, n, circuit.layers, source);
            for (const unsigned int p : {4u, 10u, 14u}) {
                const auto run = [&](Accuracy accuracy) {
                    return mpi::dry_run<double>(list, n, p, machine, accuracy);
                };
                const mpi::Traffic by_gate = run(Accuracy::exact).gate_by_gate;
                std::printf("| %s | %u | %u | %g | %zu | %.4g |", circuit.name, n, 1u << p,
                            std::ldexp(16, n - p) / gib, by_gate.exchanges, by_gate.bytes / gib);
                for (const Accuracy accuracy : {Accuracy::exact, Accuracy::rounding}) {
                    const mpi::DryRun found = run(accuracy);
                    std::printf(" %zu | %.4g | %.3f | %zu | %.3g |", found.traffic.exchanges,
                                found.traffic.bytes / gib, found.traffic.bytes / by_gate.bytes,
                                found.memory_passes, found.seconds);
                }
                std::printf("\n");
            }
        }
    }
}
