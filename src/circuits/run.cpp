// Runs gate lists and circuit records.
#include <cassert>
#include <pblinalg/run.hpp>
#include <stdexcept>
#include <utility>

#include "circuits/gate_matrix.hpp"
#include "circuits/plan.hpp"
#include "circuits/plan_cache.hpp"
#include "circuits/run_alone.hpp"
#include "circuits/simplify.hpp"

namespace pblinalg {
namespace {

/// Gates of a record read before they are run; long records go in pieces of this length.
constexpr std::size_t piece_length = 1024;
/// The same where they are run one by one: few enough to stay in the first-level cache.
constexpr std::size_t unplanned_length = 64;

}  // namespace

template <class T>
RunReport run(cpu::PybindLinAlgStateVectorCPU<T>& state, const GateList& list,
              std::span<const double> values, const RunOptions& options) {
    assert(list.n_qubits() <= state.nqubits && list.n_parameters() <= values.size());
    const int workers = cpu::plan_workers<T>(state.nqubits, state.num_threads);
    const cpu::PlanShape shape = cpu::plan_shape<T>(state.nqubits, workers, options.accuracy);
    const auto plan = list.plans()->plan<T>(shape, [&] {
        cpu::Program<T> program = cpu::lowered<T>(list, state.nqubits);
        if (options.accuracy == Accuracy::rounding) cpu::simplify(program);
        return std::make_shared<cpu::Plan<T>>(std::move(program), shape);
    });
    const cpu::Program<T>& program = plan->program();
    std::vector<T> bound;
    if (!program.bound.empty()) {
        bound = program.factors;
        cpu::bind(program, list, values, bound.data());
    }
    const T* const factors = program.bound.empty() ? program.factors.data() : bound.data();
    const std::size_t done = plan->run(state.state.get(), workers, factors, options.between_passes);
    return {done, done < list.size()};
}

std::vector<std::complex<double>> gate_matrix(GateKind kind, std::span<const double> angles) {
    const unsigned int k = info(kind).n_targets;
    const unsigned int targets[] = {k - 1, 0};
    std::vector<Angle> listed(angles.begin(), angles.end());
    GateList list;
    list.add(kind, std::span(targets, k), listed);
    const cpu::Program<double> program = cpu::lowered<double>(list, k);
    const std::size_t rows = std::size_t{1} << k;
    std::vector<std::complex<double>> matrix(rows * rows);
    for (std::size_t c = 0; c < rows; ++c) {
        const auto column = cpu::new_zeroed_array<std::complex<double>>(rows, 1);
        column[c] = 1.0;
        for (const cpu::Operation& operation : program.operations)
            cpu::run_alone(column.get(), k, program, operation, program.factors.data(), 1);
        for (std::size_t r = 0; r < rows; ++r)
            matrix[r * rows + c] = column[r];
    }
    return matrix;
}

namespace cpu {

template <class T>
void PybindLinAlgStateVectorCPU<T>::simulate_circuit(PybindLinAlgWCircuit<T>& circuit) {
    const std::size_t n_gates = circuit.gate_names.size();
    const int workers = plan_workers<T>(nqubits, num_threads);
    const PlanShape shape = plan_shape<T>(nqubits, workers);
    const bool plans = pays_to_plan<T>(nqubits);
    const std::size_t length = plans ? piece_length : unplanned_length;
    Program<T> program;
    for (std::size_t i = 0; i < n_gates;) {
        program.clear();
        program.nqubits = nqubits;
        bool known = true;
        for (; i < n_gates && program.n_gates < length && known; i += known)
            known = lower(circuit, i, program);
        if (plans) {
            const Plan<T> plan(std::exchange(program, {}), shape);
            plan.run(state.get(), workers, plan.program().factors.data(), {});
        } else {
            for (const Operation& operation : program.operations)
                run_alone(state.get(), nqubits, program, operation, program.factors.data(),
                          workers);
        }
        if (!known) {
            throw std::invalid_argument("Gate " + circuit.gate_names[i] +
                                        " is not supported by the pybinded circuit");
        }
    }
}

template void PybindLinAlgStateVectorCPU<float>::simulate_circuit(PybindLinAlgWCircuit<float>&);
template void PybindLinAlgStateVectorCPU<double>::simulate_circuit(PybindLinAlgWCircuit<double>&);

}  // namespace cpu

template RunReport run<float>(cpu::PybindLinAlgStateVectorCPU<float>&, const GateList&,
                              std::span<const double>, const RunOptions&);
template RunReport run<double>(cpu::PybindLinAlgStateVectorCPU<double>&, const GateList&,
                               std::span<const double>, const RunOptions&);

}  // namespace pblinalg
