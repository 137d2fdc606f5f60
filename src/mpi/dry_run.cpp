#include <cmath>
#include <pblinalg/mpi/dry_run.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include "circuits/plan.hpp"
#include "circuits/simplify.hpp"
#include "mpi/checks.hpp"
#include "mpi/rank_plan.hpp"

namespace pblinalg::mpi {
namespace {

/// Whether `gate` needs the amplitudes of two ranks when the bits from `first` on tell ranks apart.
bool crosses(const GateView& gate, unsigned int first) {
    if (info(gate.kind).action == GateAction::multiplies) return false;
    for (const unsigned int target : gate.targets) {
        if (target >= first) return true;
    }
    return false;
}

}  // namespace

template <class T>
DryRun dry_run(const GateList& list, unsigned int n_qubits, unsigned int rank_bits,
               const Machine& machine, Accuracy accuracy) {
    if (n_qubits >= 64) {
        throw std::invalid_argument(std::to_string(n_qubits) + " qubits; expected fewer than 64");
    }
    require_qubits(n_qubits, rank_bits);
    require_runnable(list, n_qubits, rank_bits);
    cpu::Program<T> program;
    program.nqubits = n_qubits;
    for (const GateView gate : list)
        cpu::lower(gate, program);
    if (accuracy == Accuracy::rounding) cpu::simplify(program);
    Layout layout(n_qubits, rank_bits);
    const RankPlan plan = plan_ranks(program, layout, accuracy);
    const unsigned int local_bits = layout.local_bits();
    const double local_bytes = std::ldexp(sizeof(std::complex<T>), static_cast<int>(local_bits));

    DryRun result;
    result.rank_passes = plan.passes.size();
    for (const RankPass& pass : plan.passes) {
        if (!pass.swaps.empty()) {
            const double others = std::ldexp(1, static_cast<int>(pass.swaps.size())) - 1;
            const double bytes = local_bytes * pass.share_sent();
            ++result.traffic.exchanges;
            result.traffic.bytes += bytes;
            result.seconds += bytes / machine.network_bandwidth + others * machine.latency;
        }
        layout.apply(pass.swaps);
        cpu::Program<T> local;
        local.nqubits = local_bits;
        for (const std::uint32_t i : pass.operations) {
            const cpu::Operation& operation = program.operations[i];
            if (!renumber(operation, layout)) {
                localise(operation, program, program.factors.data(), layout,
                         layout.numbers.number_of(0), local);
            }
        }
        const auto counts =
            cpu::Plan<T>(std::move(local), cpu::plan_shape<T>(local_bits, 1, accuracy)).counts();
        result.memory_passes += counts.passes + counts.alone;
    }
    result.seconds +=
        static_cast<double>(result.memory_passes) * 2 * local_bytes / machine.memory_bandwidth;
    for (const GateView gate : list) {
        if (!crosses(gate, local_bits)) continue;
        ++result.gate_by_gate.exchanges;
        result.gate_by_gate.bytes += local_bytes / 2;
    }
    return result;
}

template DryRun dry_run<float>(const GateList&, unsigned int, unsigned int, const Machine&,
                               Accuracy);
template DryRun dry_run<double>(const GateList&, unsigned int, unsigned int, const Machine&,
                                Accuracy);

}  // namespace pblinalg::mpi
