// Two levels of the same idea. A *tile* holds the amplitudes that differ in the bits of a set of
// active qubits and fits into the second-level cache; a *block* is the same inside a tile and fits
// into the first-level cache. A pass at either level takes as many gates as it can from the front
// of the circuit:
//   - the targets of every gate must be active; diagonal gates and controls need not be, since an
//     inactive bit has one value throughout a tile;
//   - gates with arithmetic keep their order: even on disjoint qubits they do not commute to the
//     last bit; permutations overtake whatever they do not touch.
#include "core/circuit_passes.hpp"

#include <algorithm>
#include <cstring>
#include <span>

#include "core/parallel.hpp"
#include "core/team_scratch.hpp"
#include "kernels/gate_kernels.hpp"

namespace pblinalg::cpu {
namespace {

/// Sizes of tiles and blocks, as numbers of qubits: 512 KiB and 32 KiB.
template <class T>
inline constexpr unsigned int tile_qubits = sizeof(T) == 8 ? 15 : 16;
template <class T>
inline constexpr unsigned int block_qubits = sizeof(T) == 8 ? 11 : 12;

/// The lowest qubits that are active in every tile, so that tiles are made of runs of 1 KiB.
template <class T>
inline constexpr unsigned int run_qubits = sizeof(T) == 8 ? 6 : 7;

/// Gates in one pass at the most.
constexpr std::size_t max_pass_length = 512;
/// Gates left out while more are looked at: where a pass costs much, a longer search pays.
constexpr std::size_t pass_look_ahead = 64;
constexpr std::size_t window_look_ahead = 12;

/// Gates that run together, in order, on parts of an array that are made of the active bits.
template <class T>
struct Pass {
    Index active;
    std::vector<const Operation<T>*> operations;
};

/// Takes the gates of one pass after another from a circuit.
template <class T>
class Planner {
  public:
    /// @param operations   must outlive the planner and its passes.
    /// @param n_bits       index bits of the array that the circuit works on.
    /// @param part_bits    active bits of a pass, at most `n_bits`.
    /// @param always       lowest bits that are always active.
    Planner(std::span<const Operation<T>> operations, unsigned int n_bits, unsigned int part_bits,
            unsigned int always, std::size_t look_ahead)
        : operations_(operations),
          array_mask_(low_mask(n_bits)),
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
        moved_ = selected_ = 0;
        arithmetic_blocked_ = false;
        for (const Operation<T>* const operation : deferred_)
            take_or_leave(*operation, pass);
        while (front_ < operations_.size() && left_out_.size() < look_ahead_ &&
               pass.operations.size() < max_pass_length) {
            take_or_leave(operations_[front_++], pass);
        }
        // Unused room goes to the lowest bits: longer runs.
        for (; free_ > 0; --free_)
            pass.active |= lowest_bit(~pass.active);
        return true;
    }

    /// The bits of the array that tell the parts of a pass apart.
    Index inactive(const Pass<T>& pass) const { return array_mask_ & ~pass.active; }

  private:
    void take_or_leave(const Operation<T>& operation, Pass<T>& pass) {
        const Index targets = operation.target_bits();
        const Index fresh = targets & ~pass.active;
        // A gate has two targets at the most.
        const unsigned int n_fresh = fresh == 0 ? 0 : (fresh & (fresh - 1)) == 0 ? 1 : 2;
        const bool commutes = !(targets & (moved_ | selected_)) && !(operation.selects & moved_) &&
                              (operation.is_permutation() || !arithmetic_blocked_);
        if (n_fresh <= free_ && commutes && pass.operations.size() < max_pass_length) {
            pass.active |= targets;
            free_ -= n_fresh;
            pass.operations.push_back(&operation);
            return;
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
    Index always_;
    unsigned int room_;
    std::size_t look_ahead_;
    // Of the pass at hand:
    unsigned int free_ = 0;  ///< room left
    Index moved_ = 0;        ///< bits that a gate left out does not leave as they are
    Index selected_ = 0;     ///< bits that one depends on without changing them
    bool arithmetic_blocked_ = false;
};

/// The gates of a pass as its parts see them.
template <class T>
std::vector<Operation<T>> relocated(const Pass<T>& pass, Index Operation<T>::*outside) {
    std::vector<Operation<T>> local;
    local.reserve(pass.operations.size());
    const Relocation relocate(pass.active);
    for (const Operation<T>* const operation : pass.operations)
        local.push_back(relocate(*operation, outside));
    return local;
}

/// A pass over the blocks of an array, with everything that its serial kernel reads.
template <class T>
struct CompiledPass {
    Index active;
    Index inactive;
    std::vector<CircuitWindow> windows;
    std::vector<CircuitStep<T>> steps;

    BlockPass<T> view() const {
        return {count_bits(active), active,       inactive,    windows.data(),
                windows.size(),     steps.data(), steps.size()};
    }
    std::size_t scratch_bytes() const {
        return block_scratch_bytes<T>(count_bits(active), steps.size());
    }
};

template <class T>
WindowShape active_window_shape() {
    return dispatch([]<InstructionSet set>() { return window_shape<set, T>(); });
}

/// @param operations  as a block of the `active` bits sees them.
template <class T>
CompiledPass<T> compile(std::span<const Operation<T>> operations, Index active, Index inactive) {
    CompiledPass<T> compiled{active, inactive, {}, {}};
    compiled.steps.reserve(2 * operations.size());
    const WindowShape shape = active_window_shape<T>();
    Planner<T> planner(operations, count_bits(active), shape.bits(), shape.lane_bits,
                       window_look_ahead);
    StepWriter<T> writer(shape.lane_bits, compiled.steps);
    const auto n_steps = [&] { return static_cast<unsigned int>(compiled.steps.size()); };
    for (Pass<T> window; planner.next(window);) {
        const unsigned int first = n_steps();
        writer.begin(window.active);
        for (const Operation<T>* const operation : window.operations)
            writer.append(*operation);
        compiled.windows.push_back({window.active, first, n_steps()});
    }
    return compiled;
}

/// Calls `run(pass)` for one pass after another over the blocks of an array of 2^n_bits amplitudes.
template <class T, class Run>
void for_each_block_pass(std::span<const Operation<T>> operations, unsigned int n_bits,
                         const Run& run) {
    if (n_bits <= block_qubits<T>) {
        // One block is the whole array.
        for (; !operations.empty();
             operations = operations.subspan(std::min(max_pass_length, operations.size()))) {
            run(compile(operations.first(std::min(max_pass_length, operations.size())),
                        low_mask(n_bits), 0));
        }
        return;
    }
    Planner<T> planner(operations, n_bits, block_qubits<T>, active_window_shape<T>().lane_bits,
                       pass_look_ahead);
    for (Pass<T> pass; planner.next(pass);) {
        const std::vector<Operation<T>> local = relocated(pass, &Operation<T>::tile_selects);
        run(compile<T>(local, pass.active, planner.inactive(pass)));
    }
}

template <class T>
void run_pass(T* array, const CompiledPass<T>& pass, Index outer_base, Index begin, Index end,
              void* scratch, bool& shortcut) {
    dispatch([&]<InstructionSet set>() {
        run_blocks<set, T>(array, pass.view(), outer_base, begin, end, scratch, shortcut);
    });
}

/// A circuit on an array that stays in cache: block passes, their blocks shared by the workers.
template <class T>
void run_in_cache(std::complex<T>* amplitudes, unsigned int nqubits,
                  std::span<const Operation<T>> operations, int num_threads) {
    const Index size = bit(nqubits);
    const int workers = size < min_parallel_amplitudes ? 1 : get_num_threads(num_threads);
    for_each_block_pass<T>(operations, nqubits, [&](const CompiledPass<T>& pass) {
        const Index n_blocks = bit(count_bits(pass.inactive));
        const TeamScratch scratch(workers, pass.scratch_bytes());
        run_team(workers, [&](int id, int team) {
            const Index begin = n_blocks * id / team;
            const Index end = n_blocks * (id + 1) / team;
            bool shortcut = true;
            run_pass(parts(amplitudes), pass, 0, begin, end, scratch.of(id), shortcut);
        });
    });
}

/// Copies the amplitudes of a tile out of the state or back, run by run.
template <bool out, class T>
void copy_tile(std::complex<T>* amplitudes, Index base, Index active, std::complex<T>* tile) {
    // Active bits up to the first inactive one make contiguous runs.
    const unsigned int run_bits = static_cast<unsigned int>(__builtin_ctzll(~active));
    const std::size_t run_bytes = sizeof(std::complex<T>) << run_bits;
    const Index above_runs = active & ~low_mask(run_bits);
    Index offset = 0;
    for (Index i = 0; i < bit(count_bits(active)); i += bit(run_bits)) {
        std::complex<T>* const run = amplitudes + (base | offset);
        std::memcpy(out ? tile + i : run, out ? run : tile + i, run_bytes);
        offset = next_subset(offset, above_runs);
    }
}

/// One pass over the state, tile by tile.
template <class T>
void run_tiles(std::complex<T>* amplitudes, const Pass<T>& pass, Index inactive, int num_threads) {
    const unsigned int tile_bits = count_bits(pass.active);
    std::vector<CompiledPass<T>> block_passes;
    std::size_t scratch_bytes = 0;
    for_each_block_pass<T>(relocated(pass, &Operation<T>::state_selects), tile_bits,
                           [&](CompiledPass<T> block_pass) {
                               scratch_bytes = std::max(scratch_bytes, block_pass.scratch_bytes());
                               block_passes.push_back(std::move(block_pass));
                           });
    const Index n_tiles = bit(count_bits(inactive));
    const int workers = get_num_threads(num_threads);
    const TeamScratch tiles(workers, sizeof(std::complex<T>) << tile_bits);
    const TeamScratch blocks(workers, scratch_bytes);
    const TeamScratch flags(workers, block_passes.size() * sizeof(bool));
    run_team(workers, [&](int id, int team) {
        auto* const tile = static_cast<std::complex<T>*>(tiles.of(id));
        bool* const shortcuts = static_cast<bool*>(flags.of(id));
        std::fill_n(shortcuts, block_passes.size(), true);
        for (Index t = n_tiles * id / team; t < n_tiles * (id + 1) / team; ++t) {
            const Index base = deposit_bits(t, inactive);
            copy_tile<true>(amplitudes, base, pass.active, tile);
            for (std::size_t p = 0; p < block_passes.size(); ++p) {
                const Index n_blocks = bit(count_bits(block_passes[p].inactive));
                run_pass(parts(tile), block_passes[p], base, 0, n_blocks, blocks.of(id),
                         shortcuts[p]);
            }
            copy_tile<false>(amplitudes, base, pass.active, tile);
        }
    });
}

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

}  // namespace

template <class T>
void run_operations(std::complex<T>* amplitudes, unsigned int nqubits,
                    std::vector<Operation<T>> operations, int num_threads) {
    if (nqubits < active_window_shape<T>().bits()) {
        for (const Operation<T>& operation : operations) {
            run_alone(amplitudes, nqubits, operation, num_threads);
        }
        return;
    }
    fold_parity_diagonals(operations);
    if (nqubits <= tile_qubits<T>) {
        run_in_cache<T>(amplitudes, nqubits, operations, num_threads);
        return;
    }
    Planner<T> planner(operations, nqubits, tile_qubits<T>, run_qubits<T>, pass_look_ahead);
    for (Pass<T> pass; planner.next(pass);) {
        double alone = 0;
        for (const Operation<T>* const operation : pass.operations)
            alone += cost_alone(*operation);
        if (alone < cost_of_tiles) {
            for (const Operation<T>* const operation : pass.operations)
                run_alone(amplitudes, nqubits, *operation, num_threads);
        } else {
            run_tiles(amplitudes, pass, planner.inactive(pass), num_threads);
        }
    }
}

template void run_operations<float>(std::complex<float>*, unsigned int,
                                    std::vector<Operation<float>>, int);
template void run_operations<double>(std::complex<double>*, unsigned int,
                                     std::vector<Operation<double>>, int);

}  // namespace pblinalg::cpu
