// Running gate lists and circuit records: passes on every rank, exchanges between them.
#include <algorithm>
#include <cstdio>
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
void StateVector<T>::State::run(const GateList& list, std::span<const double> values,
                                std::size_t first, std::size_t end) {
    cpu::Program<T> program;
    program.nqubits = layout.n_qubits();
    together(comm(), [&] {
        // Gates keep their numbers in the list, by which `bind` finds their angles.
        program.n_gates = static_cast<std::uint32_t>(first);
        for (std::size_t i = first; i < end; ++i)
            cpu::lower(list[i], program);
        cpu::bind(program, list, values, program.factors.data());
    });
    run(program, program.factors.data());
}

template <class T>
void StateVector<T>::State::go_on(const GateList& list, std::span<const double> values,
                                  RunProgress progress, const Checkpoint& checkpoint,
                                  StateVector& owner) {
    if (checkpoint.every == 0) return run(list, values, progress.gates, list.size());
    while (progress.gates < list.size()) {
        const std::size_t end =
            std::min<std::size_t>(list.size(), progress.gates + checkpoint.every);
        run(list, values, progress.gates, end);
        const std::string older = progress.state;
        progress.gates = end;
        progress.state = checkpoint.path + "." + std::to_string(end) + ".npy";
        owner.save(progress.state);
        write_progress(communicator, checkpoint.path, progress);
        if (rank() == 0 && !older.empty()) std::remove(older.c_str());
    }
}

namespace {

/// What all ranks must have been given alike.
/// @return the digest of the list and its values.
template <class State>
std::uint64_t agree_on_run(const State& state, const GateList& list, std::span<const double> values,
                           const Checkpoint& checkpoint) {
    together(state.comm(), [&] {
        require_runnable(list, state.layout.n_qubits(), state.layout.rank_bits);
        require_values(list, values);
    });
    const std::uint64_t digest = digest_of(list, values);
    require_same(state.comm(), digest, "the gate list or its values");
    Digest of_checkpoint;
    of_checkpoint.add_all(checkpoint.path);
    of_checkpoint.add(checkpoint.every);
    require_same(state.comm(), of_checkpoint.value(), "the checkpoint");
    return digest;
}

}  // namespace

template <class T>
void StateVector<T>::run(const GateList& list, std::span<const double> values,
                         const Checkpoint& checkpoint) {
    const std::uint64_t digest = agree_on_run(*state_, list, values, checkpoint);
    state_->go_on(list, values, {0, digest, {}}, checkpoint, *this);
}

template <class T>
void StateVector<T>::resume(const GateList& list, std::span<const double> values,
                            const Checkpoint& checkpoint) {
    const std::uint64_t digest = agree_on_run(*state_, list, values, checkpoint);
    const RunProgress progress = read_progress(state_->communicator, checkpoint.path);
    if (progress.list != digest || progress.gates > list.size()) {
        throw std::invalid_argument(checkpoint.path +
                                    " belongs to a run of another list or of other values");
    }
    load(progress.state);
    state_->go_on(list, values, progress, checkpoint, *this);
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

#define PBLINALG_INSTANTIATE(T)                                                    \
    template void StateVector<T>::State::run(cpu::Program<T>&, const T*);          \
    template void StateVector<T>::run(const GateList&, std::span<const double>,    \
                                      const Checkpoint&);                          \
    template void StateVector<T>::resume(const GateList&, std::span<const double>, \
                                         const Checkpoint&);                       \
    template void StateVector<T>::run(const PybindLinAlgWCircuit<T>&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
