// Adjoint gradients: one run forward, and one backward for each observable. What happens inside a
// backward run is in circuits/backward.cpp and circuits/plan.cpp.
#include <algorithm>
#include <cassert>
#include <pblinalg/gradient.hpp>

#include "circuits/backward.hpp"
#include "circuits/plan.hpp"
#include "circuits/plan_cache.hpp"
#include "circuits/simplify.hpp"
#include "core/complex_math.hpp"
#include "core/parallel.hpp"
#include "observables/pauli_operator.hpp"
#include "observables/pauli_sums.hpp"

namespace pblinalg {
namespace {

using cpu::Index;

/// Coefficients of a plan's run.
template <class T>
std::vector<T> bound_factors(const cpu::Program<T>& program, const GateList& list,
                             std::span<const double> values) {
    std::vector<T> factors = program.factors;
    cpu::bind(program, list, values, factors.data());
    return factors;
}

template <class T>
class Adjoint {
  public:
    using State = cpu::PybindLinAlgStateVectorCPU<T>;
    using Amplitudes = cpu::AlignedArray<std::complex<T>>;

    Adjoint(State& state, const GateList& list, std::span<const double> values,
            const RunOptions& options)
        : list_(list),
          plans_(list.plans()),
          inverse_(plans_->inverse_of(list)),
          values_(values),
          options_(options),
          // Smaller states are padded with zeros: they would not fill a window.
          nqubits_(std::max(state.nqubits, min_qubits)),
          workers_(cpu::plan_workers<T>(nqubits_ + 1, state.num_threads)),
          padded_(new_array(state.nqubits < min_qubits)),
          ket_(padded_ ? padded_.get() : state.state.get()),
          bra_(new_array(true)) {
        forward_ = plan(list, false, [&] {
            cpu::Program<T> program = cpu::lowered<T>(list, nqubits_);
            cpu::simplify(program);
            return program;
        });
        backward_ =
            plan(inverse_, true, [&] { return cpu::lowered_backward<T>(inverse_, nqubits_); });
        factors_ = bound_factors(backward_->program(), inverse_, values);
        if (padded_) std::copy_n(state.state.get(), state.size, ket_);
    }

    Index size() const { return cpu::bit(nqubits_); }
    std::complex<T>* ket() const { return ket_; }
    std::complex<T>* bra() const { return bra_.get(); }
    int workers() const { return workers_; }
    Amplitudes new_array(bool wanted) const {
        if (!wanted) return {nullptr, cpu::aligned_array_delete<std::complex<T>>};
        return cpu::new_zeroed_array<std::complex<T>>(size(), workers_);
    }

    /// @return false when stopped.
    bool run_forward() {
        const std::vector<T> factors = bound_factors(forward_->program(), list_, values_);
        forward_->run(ket_, workers_, factors.data(), between(0));
        return goes_on(list_.size());
    }

    /// Runs ket and bra backward and adds a row to the result, of value <bra|ket> + `constant`.
    bool run_backward(double constant, Gradient& gradient) {
        const std::size_t n_parameters = list_.n_parameters();
        const std::size_t before = (1 + gradient.values.size()) * list_.size();
        std::vector<double> products(backward_->program().inner_products.size());
        if (!backward_->run_paired(ket_, bra(), workers_, factors_.data(), between(before),
                                   products.data())) {
            return false;
        }
        gradient.values.push_back(products[0] + constant);
        gradient.jacobian.resize(gradient.values.size() * n_parameters);
        cpu::add_derivatives(backward_->program(), inverse_, values_, products,
                             gradient.jacobian.data() + gradient.jacobian.size() - n_parameters);
        return goes_on(before + list_.size());
    }

  private:
    static constexpr unsigned int min_qubits = 7;
    static_assert(cpu::bit(min_qubits) == cpu::min_pauli_sums_size);

    template <class Lowered>
    std::shared_ptr<const cpu::Plan<T>> plan(const GateList& list, bool paired,
                                             const Lowered& lowered) const {
        cpu::PlanShape shape = cpu::plan_shape<T>(nqubits_ + paired, workers_, Accuracy::rounding);
        shape.paired = paired;
        return list.plans()->plan<T>(
            shape, [&] { return std::make_shared<cpu::Plan<T>>(lowered(), shape); });
    }

    bool goes_on(std::size_t gates) {
        stopped_ = stopped_ || (options_.between_passes && !options_.between_passes(gates));
        return !stopped_;
    }
    std::function<bool(std::size_t)> between(std::size_t before) {
        if (!options_.between_passes) return {};
        return [this, before](std::size_t gates) { return goes_on(before + gates); };
    }

    const GateList& list_;
    std::shared_ptr<PlanCache> plans_;
    const GateList& inverse_;
    std::span<const double> values_;
    const RunOptions& options_;
    unsigned int nqubits_;
    int workers_;
    Amplitudes padded_;
    std::complex<T>* ket_;
    Amplitudes bra_;
    std::shared_ptr<const cpu::Plan<T>> forward_, backward_;
    std::vector<T> factors_;
    bool stopped_ = false;
};

constexpr auto stopped = [] {
    Gradient gradient;
    gradient.stopped = true;
    return gradient;
};

template <class T>
void copy_amplitudes(const std::complex<T>* from, std::complex<T>* to, Index size, int workers) {
    cpu::for_each_block_of_team(size, workers, [=](Index begin, Index end) {
        std::copy(from + begin, from + end, to + begin);
    });
}

}  // namespace

template <class T>
Gradient value_and_gradient(cpu::PybindLinAlgStateVectorCPU<T>& state, const GateList& list,
                            std::span<const WObservable<T>> observables,
                            std::span<const double> values, const RunOptions& options) {
    assert(list.n_qubits() <= state.nqubits && list.n_parameters() <= values.size());
    Gradient gradient;
    if (observables.empty()) return gradient;
    Adjoint<T> adjoint(state, list, values, options);
    const auto result = adjoint.new_array(observables.size() > 1);
    if (!adjoint.run_forward()) return stopped();
    if (result) copy_amplitudes(adjoint.ket(), result.get(), adjoint.size(), adjoint.workers());
    for (const WObservable<T>& observable : observables) {
        if (&observable != &observables.front())
            copy_amplitudes(result.get(), adjoint.ket(), adjoint.size(), adjoint.workers());
        cpu::apply_pauli_sum(adjoint.ket(), adjoint.bra(), observable, adjoint.size(),
                             adjoint.workers());
        if (!adjoint.run_backward(observable.constant.real(), gradient)) return stopped();
    }
    return gradient;
}

template <class T>
Gradient overlap_and_gradient(cpu::PybindLinAlgStateVectorCPU<T>& state, const GateList& list,
                              const cpu::PybindLinAlgStateVectorCPU<T>& target,
                              std::span<const double> values, const RunOptions& options) {
    assert(list.n_qubits() <= state.nqubits && target.nqubits == state.nqubits);
    Gradient gradient;
    Adjoint<T> adjoint(state, list, values, options);
    if (!adjoint.run_forward()) return stopped();
    using Sum = std::complex<double>;
    const Index pieces = cpu::piece_count(target.size, 0);
    const std::complex<T>* const ket = adjoint.ket();
    const std::complex<T>* const wanted = target.state.get();
    Sum overlap = 0;
    for (const Sum& part : cpu::results_of_pieces<Sum>(
             target.size, pieces, adjoint.workers(), [=](Index begin, Index end) {
                 Sum sum = 0;
                 for (Index i = begin; i < end; ++i)
                     sum += cpu::cmul(Sum(std::conj(wanted[i])), Sum(ket[i]));
                 return sum;
             })) {
        overlap += part;
    }
    // |target><target| is the observable.
    std::complex<T>* const bra = adjoint.bra();
    const std::complex<T> scale(overlap);
    cpu::for_each_block_of_team(target.size, adjoint.workers(), [=](Index begin, Index end) {
        for (Index i = begin; i < end; ++i)
            bra[i] = cpu::cmul(scale, wanted[i]);
    });
    if (!adjoint.run_backward(0, gradient)) return stopped();
    return gradient;
}

#define PBLINALG_INSTANTIATE(T)                                                                   \
    template Gradient value_and_gradient<T>(cpu::PybindLinAlgStateVectorCPU<T>&, const GateList&, \
                                            std::span<const WObservable<T>>,                      \
                                            std::span<const double>, const RunOptions&);          \
    template Gradient overlap_and_gradient<T>(                                                    \
        cpu::PybindLinAlgStateVectorCPU<T>&, const GateList&,                                     \
        const cpu::PybindLinAlgStateVectorCPU<T>&, std::span<const double>, const RunOptions&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg
