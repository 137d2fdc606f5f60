// Running gate lists and circuit records: passes on every rank, exchanges between them.
#include <algorithm>
#include <cstdio>
#include <optional>
#include <stdexcept>

#include "circuits/simplify.hpp"
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

std::uint64_t digest_of(const ListRun& run) {
    Digest digest;
    digest.add(run.list.size());
    for (const GateView gate : run.list)
        add_gate(digest, gate);
    for (const double value : run.values)
        digest.add_number(value);
    digest.add(static_cast<std::uint64_t>(run.accuracy));
    return digest.value();
}

/// Of what ranks have to do alike.
template <class T>
std::uint64_t digest_of(const RankPlan& plan, const cpu::Program<T>& program) {
    Digest digest;
    for (const RankPass& pass : plan.passes) {
        for (const BitSwap& swap : pass.swaps) {
            digest.add(swap.local);
            digest.add(swap.rank);
        }
        for (const std::uint32_t i : pass.operations) {
            const cpu::Operation& operation = program.operations[i];
            digest.add(static_cast<std::uint64_t>(operation.action));
            digest.add(operation.target_bits);
            digest.add(operation.depends_on());
        }
    }
    return digest.value();
}

void require_values(const GateList& list, std::span<const double> values) {
    if (values.size() >= list.n_parameters()) return;
    throw std::invalid_argument(std::to_string(values.size()) + " values for " +
                                std::to_string(list.n_parameters()) + " parameters");
}

}  // namespace

template <class T>
const RankPass* StateVector<T>::State::run_passes(const RankPlan& plan,
                                                  const cpu::Program<T>& program, const T* factors,
                                                  Accuracy accuracy, const Callback& between) {
    std::optional<cpu::TeamScratch> buffer;
    together(comm(), [&] { buffer.emplace(1, exchange_buffer_bytes<T>(local_bits())); });
    for (const RankPass& pass : plan.passes) {
        exchange(comm(), amplitudes.get(), local_bits(), pass.swaps, layout.numbers, rank(),
                 static_cast<std::byte*>(buffer->of(0)));
        layout.apply(pass.swaps);
        const bool is_last = &pass == &plan.passes.back();
        const bool goes_on = all_go_on(comm(), [&] {
            cpu::Program<T> local;
            for (const std::uint32_t i : pass.operations) {
                const cpu::Operation& operation = program.operations[i];
                if (!renumber(operation, layout))
                    localise(operation, program, factors, layout, number(), local);
            }
            run_here(std::move(local), accuracy);
            return is_last || between(pass.reached.gates_done(program.operations, program.n_gates));
        });
        if (!goes_on) return &pass;
    }
    layout = plan.layout;
    return nullptr;
}

template <class T>
void StateVector<T>::State::run(cpu::Program<T>& program, const T* factors) {
    std::optional<RankPlan> plan;
    together(comm(), [&] { plan = plan_ranks(program, layout, Accuracy::exact); });
    run_passes(*plan, program, factors, Accuracy::exact, [](std::size_t) { return true; });
}

template <class T>
RunReport StateVector<T>::State::run(const ListRun& run, std::size_t first, std::size_t end,
                                     const Callback& between) {
    // Gates keep their numbers in the list, by which `bind` finds their angles.
    const auto lowered = [&](std::size_t last) {
        cpu::Program<T> program;
        program.nqubits = layout.n_qubits();
        program.n_gates = static_cast<std::uint32_t>(first);
        for (std::size_t i = first; i < last; ++i)
            cpu::lower(run.list[i], program);
        return program;
    };
    cpu::Program<T> program;
    std::optional<RankPlan> plan;
    together(comm(), [&] {
        program = lowered(end);
        if (run.accuracy == Accuracy::rounding) cpu::simplify(program);
        cpu::bind(program, run.list, run.values, program.factors.data());
        plan = plan_ranks(program, layout, run.accuracy);
    });
    // By rounding it follows from coefficients, too, and these from each rank's own C library.
    if (run.accuracy == Accuracy::rounding)
        require_same(comm(), digest_of(*plan, program), "what follows from the gate list");
    const RankPass* const last =
        run_passes(*plan, program, program.factors.data(), run.accuracy, between);
    if (!last) return {end, false};
    const std::size_t gates = last->reached.gates_begun(program.operations, program.n_gates);
    std::vector<unsigned int> names;
    together(comm(), [&] {
        cpu::Program<T> begun = lowered(gates);
        names = take_out_swaps(begun);
        program.operations = last->reached.rest(program.operations);
    });
    this->run(program, program.factors.data());
    layout.relabel(names);
    return {gates, true};
}

template <class T>
RunReport StateVector<T>::State::go_on(const ListRun& run, RunProgress progress,
                                       const Checkpoint& checkpoint, const Callback& between_passes,
                                       StateVector& owner) {
    // What the function throws stops as its answer does, and is raised once gates are whole.
    std::exception_ptr failure;
    const auto between = [&](std::size_t gates) {
        try {
            return !between_passes || between_passes(gates);
        } catch (...) {
            failure = std::current_exception();
            return false;
        }
    };
    bool goes_on = true;
    const std::size_t n_gates = run.list.size();
    // Kept until the next one stands, whichever run it is of.
    std::string older;
    if (checkpoint.every != 0) {
        together(comm(), [&] {
            if (rank() == 0) older = saved_state(checkpoint.path);
        });
    }
    while (goes_on && progress.gates < n_gates) {
        const std::size_t end =
            checkpoint.every == 0
                ? n_gates
                : std::min<std::size_t>(n_gates, progress.gates + checkpoint.every);
        const RunReport report = this->run(run, progress.gates, end, between);
        progress.gates = report.gates_done;
        goes_on = !report.stopped;
        if (progress.gates < end || checkpoint.every == 0) continue;
        progress.state = state_file(checkpoint.path, progress);
        owner.save(progress.state);
        write_progress(communicator, checkpoint.path, progress);
        if (rank() == 0 && !older.empty() && older != progress.state) std::remove(older.c_str());
        older = progress.state;
        if (goes_on && end < n_gates) goes_on = all_go_on(comm(), [&] { return between(end); });
    }
    raise_together(comm(), failure);
    return {progress.gates, progress.gates < n_gates};
}

namespace {

/// What all ranks must have been given alike.
/// @return the digest of the list and its values.
template <class State>
std::uint64_t agree_on_run(const State& state, const ListRun& run, const Checkpoint& checkpoint) {
    together(state.comm(), [&] {
        require_runnable(run.list, state.layout.n_qubits(), state.layout.rank_bits);
        require_values(run.list, run.values);
    });
    const std::uint64_t digest = digest_of(run);
    require_same(state.comm(), digest, "the gate list, its values or the accuracy");
    Digest of_checkpoint;
    of_checkpoint.add_all(checkpoint.path);
    of_checkpoint.add(checkpoint.every);
    require_same(state.comm(), of_checkpoint.value(), "the checkpoint");
    return digest;
}

}  // namespace

template <class T>
RunReport StateVector<T>::run(const GateList& list, std::span<const double> values,
                              const Checkpoint& checkpoint, const Callback& between_passes,
                              Accuracy accuracy) {
    const ListRun run{list, values, accuracy};
    const std::uint64_t digest = agree_on_run(*state_, run, checkpoint);
    return state_->go_on(run, {0, digest, {}}, checkpoint, between_passes, *this);
}

template <class T>
RunReport StateVector<T>::resume(const GateList& list, std::span<const double> values,
                                 const Checkpoint& checkpoint, const Callback& between_passes,
                                 Accuracy accuracy) {
    const ListRun run{list, values, accuracy};
    const std::uint64_t digest = agree_on_run(*state_, run, checkpoint);
    const RunProgress progress = read_progress(state_->communicator, checkpoint.path);
    if (progress.list != digest || progress.gates > list.size()) {
        throw std::invalid_argument(checkpoint.path +
                                    " belongs to a run of another list, of other values or of "
                                    "another accuracy");
    }
    load(progress.state);
    return state_->go_on(run, progress, checkpoint, between_passes, *this);
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
    together(state_->comm(), [&] {
        for (std::size_t i = 0; i < n_gates; ++i) {
            // A CNOT may have a control that the state does not have.
            const std::span<const unsigned int> qubits = circuit.gate_qubits[i];
            require_list(qubits.subspan(circuit.gate_names[i] == "CNOT"), nqubits());
        }
    });
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

#define PBLINALG_INSTANTIATE(T)                                                              \
    template void StateVector<T>::State::run(cpu::Program<T>&, const T*);                    \
    template RunReport StateVector<T>::run(const GateList&, std::span<const double>,         \
                                           const Checkpoint&, const Callback&, Accuracy);    \
    template RunReport StateVector<T>::resume(const GateList&, std::span<const double>,      \
                                              const Checkpoint&, const Callback&, Accuracy); \
    template void StateVector<T>::run(const PybindLinAlgWCircuit<T>&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
