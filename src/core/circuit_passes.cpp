// Two levels of the same idea. A *tile* holds the amplitudes that differ in the bits of a set of
// active qubits and fits into the second-level cache; a *block* is the same inside a tile and fits
// into the first-level cache. A pass at either level takes as many gates as it can from the front
// of the circuit:
//   - the targets of every gate must be active; diagonal gates and controls need not be, since an
//     inactive bit has one value throughout a tile;
//   - gates with arithmetic keep their order: even on disjoint qubits they do not commute to the
//     last bit; permutations overtake whatever they do not touch.
#include "core/circuit_passes.hpp"

#include <cstring>

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

/// Gates in one pass at the most, and gates looked at behind the first one left out.
constexpr std::size_t max_pass_length = 512;
constexpr std::size_t look_ahead = 64;

/// Gates that run together, seen from inside a tile of the active qubits.
template <class T>
struct Pass {
    Index active;
    std::vector<Operation<T>> operations;
};

/// Takes the gates of one pass after another from a circuit.
template <class T>
class Planner {
  public:
    /// @param n_bits       index bits of the array that the circuit works on.
    /// @param tile_bits    active bits of a tile, at most `n_bits`.
    /// @param always       lowest bits that are always active.
    Planner(std::vector<Operation<T>> operations, unsigned int n_bits, unsigned int tile_bits,
            unsigned int always)
        : operations_(std::move(operations)),
          n_bits_(n_bits),
          tile_bits_(tile_bits),
          always_(low_mask(always)) {}

    bool done() const { return front_ == operations_.size(); }

    /// The next gates that run in one pass, not yet relocated. At least one.
    Pass<T> next() {
        Pass<T> pass{always_, {}};
        std::vector<Operation<T>> left_out;
        bool arithmetic_blocked = false;
        Index moved = 0;     // bits that a gate left out does not leave as they are
        Index selected = 0;  // bits that one depends on without changing them
        std::size_t i = front_;
        for (; i < operations_.size() && pass.operations.size() < max_pass_length; ++i) {
            const Operation<T>& operation = operations_[i];
            const Index targets = operation.target_bits();
            const bool fits =
                !(targets & ~pass.active) || count_bits(pass.active | targets) <= tile_bits_;
            const bool commutes = !(targets & (moved | selected)) && !(operation.selects & moved) &&
                                  (operation.is_permutation() || !arithmetic_blocked);
            if (fits && commutes) {
                pass.active |= targets;
                pass.operations.push_back(operation);
                continue;
            }
            if (left_out.size() == look_ahead) break;
            left_out.push_back(operation);
            moved |= targets;
            selected |= operation.selects;
            arithmetic_blocked |= !operation.is_permutation();
        }
        front_ = i - left_out.size();
        std::copy(left_out.begin(), left_out.end(), operations_.begin() + front_);
        // Unused room goes to the lowest bits: longer runs.
        while (count_bits(pass.active) < tile_bits_)
            pass.active |= lowest_bit(~pass.active);
        return pass;
    }

    Index inactive(const Pass<T>& pass) const { return low_mask(n_bits_) & ~pass.active; }

  private:
    std::vector<Operation<T>> operations_;
    std::size_t front_ = 0;
    unsigned int n_bits_;
    unsigned int tile_bits_;
    Index always_;
};

/// A pass over the blocks of an array, with everything that its serial kernel reads.
template <class T>
struct CompiledPass {
    Index active;
    Index inactive;
    std::vector<CircuitOperation<T>> operations;
    std::vector<CircuitStep<T>> steps;

    BlockPass<T> view() const {
        return {count_bits(active), active,      inactive, operations.data(),
                operations.size(),  steps.data()};
    }
};

template <class T>
CompiledPass<T> compile(const Pass<T>& pass, Index inactive) {
    CompiledPass<T> compiled{pass.active, inactive, {}, {}};
    const unsigned int n_bits = count_bits(pass.active);
    compiled.operations.reserve(pass.operations.size());
    compiled.steps.reserve(2 * pass.operations.size());
    const Relocation relocate(pass.active);
    for (const Operation<T>& operation : pass.operations) {
        CircuitOperation<T> compiled_operation{0, operation.outer_selects, {}};
        const Operation<T> local = relocate(operation, compiled_operation.block_parity);
        const bool elsewhere = compiled_operation.block_parity | compiled_operation.outer_parity;
        const bool everywhere = !elsewhere && local.selects == 0;
        const auto n_steps = [&] { return static_cast<unsigned int>(compiled.steps.size()); };
        compiled_operation.steps[0] = n_steps();
        append_steps(local, n_bits, everywhere ? 1 : 0, compiled.steps);
        compiled_operation.steps[1] = n_steps();
        if (elsewhere) append_steps(local, n_bits, 1, compiled.steps);
        compiled_operation.steps[2] = n_steps();
        compiled.operations.push_back(compiled_operation);
    }
    return compiled;
}

/// All passes over the blocks of an array of 2^n_bits amplitudes.
template <class T>
std::vector<CompiledPass<T>> plan_blocks(std::vector<Operation<T>> operations,
                                         unsigned int n_bits) {
    const unsigned int lane_bits =
        dispatch([]<InstructionSet set>() { return block_lane_bits<set, T>(); });
    const unsigned int block_bits = std::min(n_bits, block_qubits<T>);
    Planner<T> planner(std::move(operations), n_bits, block_bits, lane_bits);
    std::vector<CompiledPass<T>> passes;
    while (!planner.done()) {
        const Pass<T> pass = planner.next();
        passes.push_back(compile(pass, planner.inactive(pass)));
    }
    return passes;
}

template <class T>
void run_pass(T* array, const CompiledPass<T>& pass, Index outer_base, Index begin, Index end,
              T* scratch, bool& shortcut) {
    dispatch([&]<InstructionSet set>() {
        run_blocks<set, T>(array, pass.view(), outer_base, begin, end, scratch, shortcut);
    });
}

/// A circuit on an array that stays in cache: block passes, their blocks shared by the workers.
template <class T>
void run_in_cache(std::complex<T>* amplitudes, unsigned int nqubits,
                  std::vector<Operation<T>> operations, int num_threads) {
    const Index size = bit(nqubits);
    const int workers = size < min_parallel_amplitudes ? 1 : get_num_threads(num_threads);
    for (const CompiledPass<T>& pass : plan_blocks(std::move(operations), nqubits)) {
        const Index n_blocks = bit(count_bits(pass.inactive));
        const TeamScratch scratch(workers,
                                  block_scratch_elements(count_bits(pass.active)) * sizeof(T));
        run_team(workers, [&](int id, int team) {
            const Index begin = n_blocks * id / team;
            const Index end = n_blocks * (id + 1) / team;
            bool shortcut = true;
            run_pass(parts(amplitudes), pass, 0, begin, end, static_cast<T*>(scratch.of(id)),
                     shortcut);
        });
    }
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
    std::vector<Operation<T>> local;
    local.reserve(pass.operations.size());
    const Relocation relocate(pass.active);
    for (const Operation<T>& operation : pass.operations) {
        Index outside = 0;
        local.push_back(relocate(operation, outside));
        local.back().outer_selects = outside;
    }
    const unsigned int tile_bits = count_bits(pass.active);
    const std::vector<CompiledPass<T>> block_passes = plan_blocks(std::move(local), tile_bits);
    const Index n_tiles = bit(count_bits(inactive));
    const int workers = get_num_threads(num_threads);
    const TeamScratch tiles(workers, sizeof(std::complex<T>) << tile_bits);
    const TeamScratch blocks(workers, block_scratch_elements(block_qubits<T>) * sizeof(T));
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
                run_pass(parts(tile), block_passes[p], base, 0, n_blocks,
                         static_cast<T*>(blocks.of(id)), shortcuts[p]);
            }
            copy_tile<false>(amplitudes, base, pass.active, tile);
        }
    });
}

/// One gate on the whole state.
template <class T>
void run_alone(std::complex<T>* amplitudes, unsigned int nqubits, const Operation<T>& operation,
               int num_threads) {
    std::vector<CircuitStep<T>> steps;
    append_steps(operation, nqubits, operation.selects == 0 ? 1 : 0, steps);
    for (const CircuitStep<T>& step : steps) {
        visit_gate<T>(step.kind, [&]<class Gate>() {
            const auto* const factors = reinterpret_cast<const std::complex<T>*>(step.factors);
            update_all_groups<Gate, T>(amplitudes, step.walk, num_threads, {factors, 2});
        });
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
    // Two bits above the lanes give every target inside a vector its companion.
    constexpr unsigned int min_block_qubits = 6;
    if (nqubits < min_block_qubits) {
        for (const Operation<T>& operation : operations) {
            run_alone(amplitudes, nqubits, operation, num_threads);
        }
        return;
    }
    fold_parity_diagonals(operations);
    if (nqubits <= tile_qubits<T>) {
        run_in_cache(amplitudes, nqubits, std::move(operations), num_threads);
        return;
    }
    Planner<T> planner(std::move(operations), nqubits, tile_qubits<T>, run_qubits<T>);
    while (!planner.done()) {
        const Pass<T> pass = planner.next();
        double alone = 0;
        for (const Operation<T>& operation : pass.operations)
            alone += cost_alone(operation);
        if (alone < cost_of_tiles) {
            for (const Operation<T>& operation : pass.operations) {
                run_alone(amplitudes, nqubits, operation, num_threads);
            }
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
