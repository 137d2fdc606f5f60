// Two levels of the same idea. A *tile* holds the amplitudes that differ in the bits of a set of
// active qubits and fits into the second-level cache; a *window* is the same inside a tile, for the
// few vectors that fit into registers. A pass at either level takes as many gates as it can from
// the front of the circuit:
//   - the targets of every gate must be active; diagonal gates and controls need not be, since an
//     inactive bit has one value throughout;
//   - gates with arithmetic keep their order: even on disjoint qubits they do not commute to the
//     last bit; permutations overtake whatever they do not touch;
//   - in a window, permutations of whole vectors may do without active targets: the vectors get new
//     numbers and stay. What selects such a gate is no target for the rest of the window.
#include "circuits/passes.hpp"

#include <algorithm>
#include <span>

#include "core/parallel.hpp"
#include "core/team_scratch.hpp"
#include "apply/gates.hpp"

namespace pblinalg::cpu {
namespace {

/// The size of tiles as a number of qubits: 512 KiB.
template <class T>
inline constexpr unsigned int tile_qubits = sizeof(T) == 8 ? 15 : 16;

/// States of fewer qubits are faster on one worker.
template <class T>
inline constexpr unsigned int min_parallel_qubits = sizeof(T) == 8 ? 14 : 15;

/// The lowest qubits that are active in every tile, so that tiles are made of runs of 1 KiB.
template <class T>
inline constexpr unsigned int run_qubits = sizeof(T) == 8 ? 6 : 7;

/// Gates in one pass at the most.
constexpr std::size_t max_pass_length = 512;
/// Gates left out while more are looked at: where a pass costs much, a longer search pays.
constexpr std::size_t pass_look_ahead = 64;
constexpr std::size_t window_look_ahead = 12;

/// Gates that run together, in order, on parts of a state or tile that are made of the active bits.
template <class T>
struct Pass {
    struct Entry {
        const Operation<T>* operation;
        bool renumbers;  ///< changes the numbers of vectors and needs no active bits
    };
    Index active;
    std::vector<Entry> operations;
};

/// Takes the gates of one pass after another from a circuit.
template <class T>
class Planner {
  public:
    /// @param operations   must outlive the planner and its passes.
    /// @param n_bits       index bits of the array that the circuit works on.
    /// @param part_bits    active bits of a pass, at most `n_bits`.
    /// @param always       lowest bits that are always active.
    /// @param renumbered   bits that permutations may renumber.
    Planner(std::span<const Operation<T>> operations, unsigned int n_bits, unsigned int part_bits,
            unsigned int always, Index renumbered, std::size_t look_ahead)
        : operations_(operations),
          array_mask_(low_mask(n_bits)),
          renumbered_(renumbered),
          always_(low_mask(always)),
          room_(part_bits - always),
          look_ahead_(look_ahead) {}

    /// Replaces `pass` by the next gates that run in one pass, at least one.
    /// @return false when no gate is left.
    bool next(Pass<T>& pass) {
        if (left_out_.empty() && front_ == operations_.size()) return false;
        pass.active = always_;
        pass.operations.clear();
        std::swap(left_out_, deferred_);
        left_out_.clear();
        free_ = room_;
        moved_ = selected_ = turned_ = 0;
        arithmetic_blocked_ = false;
        for (const Operation<T>* const operation : deferred_)
            take_or_leave(*operation, pass);
        while (front_ < operations_.size() && left_out_.size() < look_ahead_ &&
               pass.operations.size() < max_pass_length) {
            take_or_leave(operations_[front_++], pass);
        }
        if (std::ranges::all_of(pass.operations, [&](const typename Pass<T>::Entry& entry) {
                return can_renumber(*entry.operation);
            })) {
            for (auto& entry : pass.operations)
                entry.renumbers = true;
        }
        // Unused room goes to the lowest bits: longer runs.
        for (; free_ > 0; --free_)
            pass.active |= lowest_bit(~pass.active);
        return true;
    }

    /// The bits of the array that tell the parts of a pass apart.
    Index inactive(const Pass<T>& pass) const { return array_mask_ & ~pass.active; }

  private:
    bool can_renumber(const Operation<T>& operation) const {
        return operation.is_permutation() &&
               !((operation.target_bits() | operation.selects) & ~renumbered_);
    }

    void take_or_leave(const Operation<T>& operation, Pass<T>& pass) {
        const Index targets = operation.target_bits();
        const Index fresh = targets & ~pass.active;
        // A gate has two targets at the most.
        const unsigned int n_fresh = fresh == 0 ? 0 : (fresh & (fresh - 1)) == 0 ? 1 : 2;
        const bool commutes = !(targets & (moved_ | selected_)) && !(operation.selects & moved_) &&
                              (operation.is_permutation() || !arithmetic_blocked_);
        if (commutes && pass.operations.size() < max_pass_length) {
            if (n_fresh <= free_ && !(targets & turned_)) {
                pass.active |= targets;
                free_ -= n_fresh;
                pass.operations.push_back({&operation, false});
                return;
            }
            if (can_renumber(operation)) {
                // Amplitudes that differ in a selecting bit alone may now lie in other groups.
                turned_ |= operation.selects | (operation.n_targets == 2 ? targets : 0);
                pass.operations.push_back({&operation, true});
                return;
            }
        }
        left_out_.push_back(&operation);
        moved_ |= targets;
        selected_ |= operation.selects;
        arithmetic_blocked_ |= !operation.is_permutation();
    }

    std::span<const Operation<T>> operations_;
    std::size_t front_ = 0;  ///< the first gate not yet looked at
    std::vector<const Operation<T>*> left_out_;
    std::vector<const Operation<T>*> deferred_;  ///< left out by the pass before
    Index array_mask_;
    Index renumbered_;
    Index always_;
    unsigned int room_;
    std::size_t look_ahead_;
    // Of the pass at hand:
    unsigned int free_ = 0;  ///< room left
    Index moved_ = 0;        ///< bits that a gate left out does not leave as they are
    Index selected_ = 0;     ///< bits that one depends on without changing them
    Index turned_ = 0;       ///< bits that a renumbering keeps from being targets
    bool arithmetic_blocked_ = false;
};

/// A pass over tiles, with everything that its serial kernel reads.
template <class T>
struct CompiledPass {
    std::vector<CircuitWindow> windows;
    std::vector<CircuitStep<T>> steps;
    std::vector<Placement> placements = {Placement::in_order()};
};

/// Steps that a gate takes at the most.
constexpr std::size_t max_steps = 3;

template <class T>
WindowShape active_window_shape() {
    return dispatch([]<InstructionSet set>() { return window_shape<set, T>(); });
}

/// @param operations  as a tile of 2^tile_bits amplitudes sees them.
template <class T>
CompiledPass<T> compile(std::span<const Operation<T>> operations, unsigned int tile_bits) {
    CompiledPass<T> compiled;
    compiled.steps.reserve(max_steps * operations.size());
    const WindowShape shape = active_window_shape<T>();
    Planner<T> planner(operations, tile_bits, shape.bits(), shape.lane_bits,
                       low_mask(tile_bits) & ~low_mask(shape.lane_bits), window_look_ahead);
    StepWriter<T> writer(shape.lane_bits, compiled.steps, compiled.placements);
    const auto size = [](const auto& list) { return static_cast<unsigned int>(list.size()); };
    for (Pass<T> window; planner.next(window);) {
        const unsigned int first = size(compiled.steps);
        const unsigned int placement = size(compiled.placements) - 1;
        writer.begin(window.active);
        for (const auto& [operation, renumbers] : window.operations) {
            if (renumbers) {
                writer.renumber(*operation);
            } else {
                writer.append(*operation);
            }
        }
        const unsigned int last = size(compiled.steps);
        if (last > first) compiled.windows.push_back({window.active, first, last, placement});
    }
    return compiled;
}

/// Runs gates on the tiles of a state, in scratch memory that is allocated once for all passes.
template <class T>
class TileRunner {
  public:
    TileRunner(std::complex<T>* amplitudes, unsigned int nqubits, int num_threads)
        : amplitudes_(amplitudes),
          workers_(nqubits < min_parallel_qubits<T> ? 1 : get_num_threads(num_threads)),
          tile_bits_(choose_tile_bits(nqubits, team_size(workers_))),
          past_cache_((sizeof(std::complex<T>) << nqubits) >= min_bytes_past_cache),
          scratch_(workers_, tile_scratch_bytes<T>(tile_bits_, max_steps * max_pass_length)) {}

    unsigned int tile_bits() const { return tile_bits_; }

    /// @param operations  up to `max_pass_length`, as a tile of the `active` bits sees them.
    void run(std::span<const Operation<T>> operations, Index active, Index inactive) const {
        const CompiledPass<T> compiled = compile(operations, tile_bits_);
        const TilePass<T> pass{active,
                               inactive,
                               compiled.windows.data(),
                               compiled.windows.size(),
                               compiled.steps.data(),
                               compiled.steps.size(),
                               compiled.placements.data(),
                               compiled.placements.size(),
                               past_cache_};
        const Index n_tiles = bit(count_bits(inactive));
        run_team(workers_, [&](int id, int team) {
            const Block tiles(n_tiles, static_cast<Index>(id), static_cast<Index>(team), 1);
            bool shortcut = true;
            dispatch([&]<InstructionSet set>() {
                run_tiles<set, T>(parts(amplitudes_), pass, tiles.begin, tiles.end, scratch_.of(id),
                                  shortcut);
            });
        });
    }

  private:
    static constexpr std::size_t min_bytes_past_cache = std::size_t{64} << 20;

    /// A tile for each worker at least, none too small to be worth a pass.
    static unsigned int choose_tile_bits(unsigned int nqubits, std::size_t workers) {
        constexpr unsigned int min_shared_tile_bits = min_parallel_qubits<T> - 2;
        unsigned int bits = std::min(nqubits, tile_qubits<T>);
        while (bits > min_shared_tile_bits && (std::size_t{1} << (nqubits - bits)) < workers)
            --bits;
        return bits;
    }

    std::complex<T>* amplitudes_;
    int workers_;
    unsigned int tile_bits_;
    bool past_cache_;
    TeamScratch scratch_;
};

/// Calls `body.operator()<Gate>()` for the gate of `kind`.
template <class T, class Body>
void visit_gate(GateKind kind, const Body& body) {
    switch (kind) {
        case GateKind::H:
            return body.template operator()<GateH>();
        case GateKind::X:
            return body.template operator()<GateX>();
        case GateKind::Y:
            return body.template operator()<GateY>();
        case GateKind::Z:
            return body.template operator()<GateZ>();
        case GateKind::RX:
            return body.template operator()<GateRX>();
        case GateKind::RY:
            return body.template operator()<GateRY>();
        case GateKind::RZ:
            return body.template operator()<GateDiagonal>();
        case GateKind::T:
            return body.template operator()<GateT>();
        case GateKind::PH:
            return body.template operator()<GatePH<T>>();
        case GateKind::SWAP:
            return body.template operator()<GateSWAP>();
    }
}

/// One gate on the whole state.
template <class T>
void run_alone(std::complex<T>* amplitudes, unsigned int nqubits, const Operation<T>& operation,
               int num_threads) {
    using orb::core::iterator::GroupMasks;
    const Index selects = operation.selects;
    const GroupMasks all(QubitSpan(operation.targets, operation.n_targets), {}, nqubits);
    const auto run = [&](GateKind kind, const GroupMasks& groups, unsigned int target,
                         const std::complex<T>* factors) {
        const GateWalk walk{groups, {target, operation.targets[1]}};
        visit_gate<T>(kind, [&]<class Gate>() {
            update_all_groups<Gate, T>(amplitudes, walk, num_threads, {factors, 2});
        });
    };
    if (operation.multiplies_both() && count_bits(selects) == 1) {
        const auto qubit = static_cast<unsigned int>(__builtin_ctzll(selects));
        GroupMasks groups = all;
        groups.take_out(qubit);
        return run(GateKind::RZ, groups, qubit, operation.factors);
    }
    for (unsigned int parity = operation.multiplies_both() ? 0 : 1; parity < 2; ++parity) {
        for (Index pattern = 0; pattern < bit(count_bits(selects)); ++pattern) {
            if (has_odd_parity(pattern) != parity && selects != 0) continue;
            GroupMasks groups = all;
            groups.free_mask &= ~selects;
            groups.fixed_bits = deposit_bits(pattern, selects);
            groups.count >>= count_bits(selects);
            if (operation.is_diagonal()) {
                // One row of a diagonal: a product with one factor.
                const std::complex<T> factors[2] = {operation.factors[parity]};
                run(operation.multiplies_both() ? GateKind::PH : operation.kind, groups, 0,
                    factors);
            } else {
                run(operation.kind, groups, operation.targets[0], operation.factors);
            }
        }
    }
}

/// What a gate on its own costs, in passes that read and write the whole state.
template <class T>
double cost_alone(const Operation<T>& operation) {
    const bool half = operation.selects != 0 && !operation.multiplies_both();
    return half || operation.kind == GateKind::SWAP ? 0.5 : 1.0;
}

/// What a pass by tiles costs at the least, in the same measure.
constexpr double cost_of_tiles = 2.5;

/// A piece of a circuit on a state that is one tile.
template <class T>
void run_in_one_tile(const TileRunner<T>& tiles, std::span<const Operation<T>> operations,
                     unsigned int nqubits) {
    while (!operations.empty()) {
        const std::size_t length = std::min(operations.size(), max_pass_length);
        tiles.run(operations.first(length), low_mask(nqubits), 0);
        operations = operations.subspan(length);
    }
}

/// A piece of a circuit in passes over the tiles of a state.
template <class T>
void run_in_passes(const TileRunner<T>& tiles, std::span<const Operation<T>> operations,
                   std::complex<T>* amplitudes, unsigned int nqubits, int num_threads) {
    Planner<T> planner(operations, nqubits, tiles.tile_bits(), run_qubits<T>, 0, pass_look_ahead);
    std::vector<Operation<T>> local;
    for (Pass<T> pass; planner.next(pass);) {
        double alone = 0;
        for (const auto& entry : pass.operations)
            alone += cost_alone(*entry.operation);
        if (alone < cost_of_tiles) {
            for (const auto& entry : pass.operations)
                run_alone(amplitudes, nqubits, *entry.operation, num_threads);
            continue;
        }
        const Relocation relocate(pass.active);
        local.clear();
        for (const auto& entry : pass.operations)
            local.push_back(relocate(*entry.operation));
        tiles.run(local, pass.active, planner.inactive(pass));
    }
}

}  // namespace

template <class T>
void run_operations(std::complex<T>* amplitudes, unsigned int nqubits, int num_threads,
                    const std::function<void(std::vector<Operation<T>>&)>& append_piece) {
    std::vector<Operation<T>> operations;
    const auto next_piece = [&] {
        operations.clear();
        append_piece(operations);
        return !operations.empty();
    };
    if (nqubits < active_window_shape<T>().bits()) {
        while (next_piece()) {
            for (const Operation<T>& operation : operations)
                run_alone(amplitudes, nqubits, operation, num_threads);
        }
        return;
    }
    const TileRunner<T> tiles(amplitudes, nqubits, num_threads);
    while (next_piece()) {
        fold_parity_diagonals(operations);
        if (tiles.tile_bits() == nqubits) {
            run_in_one_tile<T>(tiles, operations, nqubits);
        } else {
            run_in_passes<T>(tiles, operations, amplitudes, nqubits, num_threads);
        }
    }
}

#define PBLINALG_INSTANTIATE(T)                                          \
    template void run_operations<T>(std::complex<T>*, unsigned int, int, \
                                    const std::function<void(std::vector<Operation<T>>&)>&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
