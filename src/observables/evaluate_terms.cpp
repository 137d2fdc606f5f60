// The estimates of terms: rotation, cumulative distribution, shots and their statistics.
// Marginal probabilities come from readout/distribution.hpp, draws from readout/draws.hpp.
#include "observables/evaluate_terms.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <pblinalg/state_vector_cpu.hpp>
#include <stdexcept>

#include "apply/gates.hpp"
#include "core/parallel.hpp"
#include "core/team_scratch.hpp"
#include "readout/distribution.hpp"
#include "readout/draws.hpp"

namespace pblinalg::cpu {
namespace {

template <class T>
using Estimate = std::pair<std::complex<T>, std::complex<T>>;
using Qubits = std::vector<unsigned int>;

constexpr std::size_t max_term_qubits = 61;

/// What one term's estimate works in. It is allocated before the first rotation, so that a failure
/// leaves every amplitude as it was.
class Workspace {
  public:
    std::vector<std::uint64_t> draws;
    std::vector<Index> slice_starts;
    TeamScratch sums;

    Workspace(unsigned long long nshots, Index most_outcomes, std::size_t sum_bytes)
        : draws(std::min<Index>(nshots, shots_at_once)), sums(1, sum_bytes) {
        slice_starts.reserve(n_slices(most_outcomes, nshots) + 1);
    }

    /// Equal slices of the unit interval by which outcomes are found.
    static Index n_slices(Index outcomes, unsigned long long nshots) {
        Index slices = 1;
        while (slices < std::min<Index>({outcomes, nshots, max_slices}))
            slices *= 2;
        return slices;
    }

  private:
    /// Shots whose draws are held in memory at once.
    static constexpr Index shots_at_once = Index{1} << 18;
    // Few enough for slice boundaries to be exact in single precision.
    static constexpr Index max_slices = Index{1} << 20;
};

/// Finds outcomes in a cumulative distribution: the unit interval is cut into equal slices, and a
/// draw is sought among the outcomes where its slice begins and ends.
template <class T>
class OutcomeFinder {
  public:
    OutcomeFinder(const std::vector<T>& cumulative, Index nshots, std::vector<Index>& starts)
        : cumulative_(cumulative), starts_(starts) {
        Index slices = Workspace::n_slices(cumulative.size(), nshots);
        n_slices_ = static_cast<T>(slices);
        const bool ordered =
            std::is_sorted(cumulative.begin(), cumulative.end()) && !std::isnan(cumulative.back());
        if (!ordered || slices == 1) slices = 0;
        starts_.clear();
        Index outcome = 0;
        for (Index s = 0; s <= slices && slices > 0; ++s) {
            const T start = static_cast<T>(s) / n_slices_;
            while (outcome < cumulative.size() && cumulative[outcome] < start)
                ++outcome;
            starts_.push_back(outcome);
        }
    }

    /// The first outcome whose cumulative probability is not below `draw`, or their number.
    Index operator()(T draw) const {
        const auto begin = cumulative_.begin();
        auto first = begin;
        auto last = cumulative_.end();
        if (!starts_.empty()) {
            // A draw of 1 belongs to the last slice.
            const Index slice =
                std::min(static_cast<Index>(draw * n_slices_), Index{starts_.size() - 2});
            first = begin + static_cast<std::ptrdiff_t>(starts_[slice]);
            last = begin + static_cast<std::ptrdiff_t>(starts_[slice + 1]);
        }
        return static_cast<Index>(std::lower_bound(first, last, draw) - begin);
    }

  private:
    const std::vector<T>& cumulative_;
    T n_slices_;
    std::vector<Index>& starts_;  ///< outcome at which each slice begins; empty: search everything
};

}  // namespace

template <class T>
void clean(SimpleTerm<T>& term) {
    for (std::size_t p = term.paulis.size(); p-- > 0;) {
        if (term.paulis[p] != 'I') continue;
        term.paulis.erase(p);
        term.qubits.erase(term.qubits.begin() + static_cast<std::ptrdiff_t>(p));
    }
}

template <class T>
void require_estimable(const SimpleTerm<T>& term) {
    if (term.qubits.size() > max_term_qubits)
        throw std::length_error("a term has more than 61 qubits");
}

template <class T>
void basis_change(std::complex<T>* amplitudes, const SimpleTerm<T>& term, bool undo,
                  unsigned int num_qubits, int num_threads) {
    const auto apply = [&]<class Gate>(Gate, unsigned int qubit) {
        Template1QBGate<Gate>::apply_controlled(amplitudes, qubit, num_qubits, num_threads, {});
    };
    for_each_basis_gate(term, undo, [&](GateKind kind, unsigned int qubit) {
        if (kind == GateKind::H) apply(GateH(), qubit);
        if (kind == GateKind::YtoZ) apply(GateYtoZ(), qubit);
        if (kind == GateKind::ZtoY) apply(GateZtoY(), qubit);
    });
}

template <class T>
void basis_change_deterministic(std::complex<T>* amplitudes, const SimpleTerm<T>& term, bool undo,
                                unsigned int num_qubits, int num_threads) {
    const auto apply = [&]<class Gate>(Gate, unsigned int qubit) {
        Template2QBGate<Gate>::template apply_controlled<T>(
            amplitudes, qubit, qubit + num_qubits / 2, num_qubits, num_threads, {});
    };
    for_each_basis_gate(term, undo, [&](GateKind kind, unsigned int qubit) {
        if (kind == GateKind::H) apply(GateHH(), qubit);
        if (kind == GateKind::YtoZ) apply(GateYtoZYtoZConj(), qubit);
        if (kind == GateKind::ZtoY) apply(GateZtoYZtoYConj(), qubit);
    });
}

namespace {

/// Scores the shots of a cumulative distribution. Nothing is allocated.
template <class T, class RNG>
Estimate<T> score_shots(const std::vector<T>& cumulative, const std::complex<T>& coefficient,
                        unsigned long long nshots, RNG& rng, int num_threads,
                        Workspace& workspace) {
    const OutcomeFinder<T> find(cumulative, nshots, workspace.slice_starts);
    std::vector<std::uint64_t>& draws = workspace.draws;
    std::atomic<Index> n_odd = 0;
    for (Index done = 0; done < nshots; done += draws.size()) {
        const Index count = std::min<Index>(nshots - done, draws.size());
        take_draws(rng, draws.data(), count);
        for_each_block(count, count, num_threads, [&](Index begin, Index end) {
            Index own = 0;
            for (Index s = begin; s < end; ++s)
                own += static_cast<Index>(__builtin_parityll(find(unit_interval<T>(draws[s]))));
            n_odd += own;
        });
    }
    // +1 for an even number of set bits, -1 for an odd one.
    const auto score = static_cast<long long>(nshots) - 2 * static_cast<long long>(n_odd);
    const T mean = static_cast<T>(score) / static_cast<T>(nshots);
    T error = 0;
    if (nshots >= 2) error = std::sqrt(std::fma(-mean, mean, T(1)) / static_cast<T>(nshots - 1));
    return {coefficient * mean, coefficient * error};
}

/// Makes `cumulative` the distribution of `qubits`. It allocates only to grow.
template <class T>
void accumulate_outcomes(const std::complex<T>* amplitudes, const Qubits& qubits,
                         unsigned int num_qubits, int num_threads, std::vector<T>& cumulative,
                         Workspace& workspace) {
    cumulative.resize(bit(static_cast<unsigned int>(qubits.size())));
    outcome_probabilities(amplitude_view<T>(amplitudes, num_qubits), qubits, num_threads,
                          cumulative.data(), workspace.sums.of(0));
    for (std::size_t v = 1; v < cumulative.size(); ++v)
        cumulative[v] = cumulative[v - 1] + cumulative[v];
}

}  // namespace

template <class T, class RNG>
Estimate<T> evaluate_term(const std::vector<T>& buffer, const std::complex<T>& coefficient,
                          unsigned long long nshots, RNG& rng, int num_threads) {
    Workspace workspace(nshots, buffer.size(), 0);
    return score_shots(buffer, coefficient, nshots, rng, num_threads, workspace);
}

template <class T, class RNG>
Estimate<T> evaluate_term(std::complex<T>* amplitudes, std::vector<T>& buffer,
                          const SimpleTerm<T>& term, unsigned long long nshots, RNG& rng,
                          unsigned int num_qubits, int num_threads) {
    const auto view = amplitude_view<T>(amplitudes, num_qubits);
    Workspace workspace(nshots, bit(static_cast<unsigned int>(term.qubits.size())),
                        outcome_scratch_bytes(view, term.qubits, num_threads));
    accumulate_outcomes(amplitudes, term.qubits, num_qubits, num_threads, buffer, workspace);
    return score_shots(buffer, term.coefficient, nshots, rng, num_threads, workspace);
}

template <class T, class RNG>
std::vector<Estimate<T>> _evaluate_terms(std::complex<T>* amplitudes,
                                         const std::vector<SimpleTerm<T>>& terms,
                                         unsigned long long nshots, RNG& rng,
                                         unsigned int num_qubits, int num_threads,
                                         bool density_matrix) {
    const auto view = amplitude_view<T>(amplitudes, num_qubits);
    std::size_t longest = 0;
    std::size_t sum_bytes = 0;
    for (const SimpleTerm<T>& term : terms) {
        require_estimable(term);
        longest = std::max(longest, term.qubits.size());
        sum_bytes = std::max(sum_bytes, outcome_scratch_bytes(view, term.qubits, num_threads));
    }
    const Index most_outcomes = bit(static_cast<unsigned int>(longest));
    std::vector<T> buffer;
    buffer.reserve(most_outcomes);
    Workspace workspace(nshots, most_outcomes, sum_bytes);
    std::vector<Estimate<T>> estimates;
    estimates.reserve(terms.size());
    for (const SimpleTerm<T>& term : terms) {
        const auto rotate = [&](bool undo) {
            if (density_matrix) {
                basis_change_deterministic(amplitudes, term, undo, num_qubits, num_threads);
            } else {
                basis_change(amplitudes, term, undo, num_qubits, num_threads);
            }
        };
        rotate(false);
        accumulate_outcomes(amplitudes, term.qubits, num_qubits, num_threads, buffer, workspace);
        estimates.push_back(
            score_shots(buffer, term.coefficient, nshots, rng, num_threads, workspace));
        rotate(true);
    }
    return estimates;
}

template <class T>
std::vector<Estimate<T>> PybindLinAlgStateVectorCPU<T>::evaluate_terms(
    std::vector<SimpleTerm<T>> terms, unsigned long long nshots) {
    for (SimpleTerm<T>& term : terms)
        clean(term);
    return _evaluate_terms(state.get(), terms, nshots, rng, nqubits, num_threads, density_matrix);
}

#define PBLINALG_INSTANTIATE(T)                                                                    \
    template void clean<T>(SimpleTerm<T>&);                                                        \
    template void require_estimable<T>(const SimpleTerm<T>&);                                      \
    template void basis_change<T>(std::complex<T>*, const SimpleTerm<T>&, bool, unsigned int,      \
                                  int);                                                            \
    template void basis_change_deterministic<T>(std::complex<T>*, const SimpleTerm<T>&, bool,      \
                                                unsigned int, int);                                \
    template Estimate<T> evaluate_term<T, std::mt19937_64>(                                        \
        const std::vector<T>&, const std::complex<T>&, unsigned long long, std::mt19937_64&, int); \
    template Estimate<T> evaluate_term<T, std::mt19937_64>(                                        \
        std::complex<T>*, std::vector<T>&, const SimpleTerm<T>&, unsigned long long,               \
        std::mt19937_64&, unsigned int, int);                                                      \
    template std::vector<Estimate<T>> _evaluate_terms<T, std::mt19937_64>(                         \
        std::complex<T>*, const std::vector<SimpleTerm<T>>&, unsigned long long, std::mt19937_64&, \
        unsigned int, int, bool);                                                                  \
    template std::vector<Estimate<T>> PybindLinAlgStateVectorCPU<T>::evaluate_terms(               \
        std::vector<SimpleTerm<T>>, unsigned long long);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
