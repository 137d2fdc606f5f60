// Running gate lists and circuit records: passes on every rank, exchanges between them.
#include <algorithm>
#include <optional>
#include <stdexcept>

#include "core/team_scratch.hpp"
#include "mpi/checks.hpp"
#include "mpi/exchange.hpp"
#include "mpi/rank_plan.hpp"
#include "mpi/state.hpp"

namespace pblinalg::mpi {
namespace {

/// Gates of a record read before they are run; long records go in pieces of this length.
constexpr std::size_t piece_length = 1024;

void add_gate(Digest& digest, const GateView& gate) {
    digest.add(static_cast<std::uint64_t>(gate.kind));
    digest.add(gate.controls.mask);
    digest.add(gate.controls.values);
    digest.add_all(gate.targets);
    for (const Angle& angle : gate.angles) {
        digest.add_number(angle.offset);
        digest.add_number(angle.scale);
        digest.add(angle.parameter);
    }
    for (const std::complex<double>& value : gate.values) {
        digest.add_number(value.real());
        digest.add_number(value.imag());
    }
    digest.add_all(gate.marked);
}

std::uint64_t digest_of(const GateList& list, std::span<const double> values) {
    Digest digest;
    digest.add(list.size());
    for (const GateView gate : list)
        add_gate(digest, gate);
    for (const double value : values)
        digest.add_number(value);
    return digest.value();
}

void require_values(const GateList& list, std::span<const double> values) {
    if (values.size() >= list.n_parameters()) return;
    throw std::invalid_argument(std::to_string(values.size()) + " values for " +
                                std::to_string(list.n_parameters()) + " parameters");
}

}  // namespace

template <class T>
void StateVector<T>::State::run(cpu::Program<T>& program, const T* factors) {
    std::optional<RankPlan> plan;
    std::optional<cpu::TeamScratch> buffer;
    together(comm(), [&] {
        plan = plan_ranks(program, layout);
        buffer.emplace(1, exchange_buffer_bytes<T>(local_bits()));
    });
    for (const RankPass& pass : plan->passes) {
        exchange(comm(), amplitudes.get(), local_bits(), pass.swaps, layout.numbers, rank(),
                 static_cast<std::byte*>(buffer->of(0)));
        layout.apply(pass.swaps);
        together(comm(), [&] {
            cpu::Program<T> local;
            for (const std::uint32_t i : pass.operations) {
                const cpu::Operation& operation = program.operations[i];
                if (!renumber(operation, layout))
                    localise(operation, program, factors, layout, number(), local);
            }
            run_here(std::move(local), nullptr);
        });
    }
    layout = plan->layout;
}

template <class T>
void StateVector<T>::run(const GateList& list, std::span<const double> values,
                         const Checkpoint& checkpoint) {
    static_cast<void>(checkpoint);
    together(state_->comm(), [&] {
        require_runnable(list, nqubits(), state_->layout.rank_bits);
        require_values(list, values);
    });
    require_same(state_->comm(), digest_of(list, values), "the gate list");
    cpu::Program<T> program;
    program.nqubits = nqubits();
    together(state_->comm(), [&] {
        for (const GateView gate : list)
            cpu::lower(gate, program);
        cpu::bind(program, list, values, program.factors.data());
    });
    state_->run(program, program.factors.data());
}

template <class T>
void StateVector<T>::run(const PybindLinAlgWCircuit<T>& circuit) {
    const std::size_t n_gates = circuit.gate_names.size();
    Digest digest;
    for (std::size_t i = 0; i < n_gates; ++i) {
        digest.add_all(circuit.gate_names[i]);
        digest.add_all(circuit.gate_qubits[i]);
        for (const T angle : circuit.gate_params[i])
            digest.add_number(angle);
    }
    require_same(state_->comm(), digest.value(), "the circuit");
    for (std::size_t i = 0; i < n_gates;) {
        cpu::Program<T> program;
        program.nqubits = nqubits();
        bool known = true;
        together(state_->comm(), [&] {
            for (; i < n_gates && program.n_gates < piece_length && known; i += known)
                known = cpu::lower(circuit, i, program);
        });
        state_->run(program, program.factors.data());
        if (!known) {
            throw std::invalid_argument("Gate " + circuit.gate_names[i] +
                                        " is not supported by the pybinded circuit");
        }
    }
}

#define PBLINALG_INSTANTIATE(T)                                                          \
    template void StateVector<T>::State::run(cpu::Program<T>&, const T*);                \
    template void StateVector<T>::run(const GateList&, std::span<const double>,          \
                                      const Checkpoint&);                                \
    template void StateVector<T>::run(const PybindLinAlgWCircuit<T>&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
