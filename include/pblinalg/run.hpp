// Running gate lists on state vectors.
#pragma once

#include <cstddef>
#include <functional>
#include <pblinalg/accuracy.hpp>
#include <pblinalg/gate_list.hpp>
#include <pblinalg/state_vector_cpu.hpp>
#include <span>

namespace pblinalg {

/// What a run does besides applying gates.
struct RunOptions {
    /// Called between passes over the state, on the calling thread, with the number of gates done
    /// so far, none of them later ones: return false to stop.
    std::function<bool(std::size_t)> between_passes = {};
    Accuracy accuracy = Accuracy::exact;
};

/// What became of a run.
struct RunReport {
    /// The state holds the effect of exactly the first `gates_done` gates.
    std::size_t gates_done = 0;
    bool finished() const { return !stopped; }
    bool stopped = false;
};

/// Applies the gates of a list in order, with the same bits as gate by gate unless
/// `options.accuracy` says otherwise, for every number of workers. Gates that fit together are applied to cache-sized parts of the state, one after
/// another; the plan of that is made once and kept with the list.
///
/// A stop takes effect once gates that later ones have overtaken are done, too: after one more pass
/// or two where runs are exact, after up to a thousand more gates where they are by rounding.
///
/// @param values  one per parameter of the list.
/// Errors: std::bad_alloc, before any amplitude changes but where a matrix of more than two qubits,
/// an oracle of many values or the end of a stopped run needs memory of its own. What
/// `between_passes` throws reaches the caller after the same steps as a stop.
template <class T>
PBLINALG_EXPORT RunReport run(cpu::PybindLinAlgStateVectorCPU<T>& state, const GateList& list,
                              std::span<const double> values = {}, const RunOptions& options = {});

extern template PBLINALG_EXPORT RunReport run<float>(cpu::PybindLinAlgStateVectorCPU<float>&,
                                                     const GateList&, std::span<const double>,
                                                     const RunOptions&);
extern template PBLINALG_EXPORT RunReport run<double>(cpu::PybindLinAlgStateVectorCPU<double>&,
                                                      const GateList&, std::span<const double>,
                                                      const RunOptions&);

}  // namespace pblinalg
