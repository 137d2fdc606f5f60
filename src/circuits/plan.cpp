#include "circuits/plan.hpp"

#include <algorithm>
#include <exception>
#include <utility>

#include "circuits/planner.hpp"
#include "circuits/run_alone.hpp"
#include "core/complex_math.hpp"
#include "core/parallel.hpp"

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

/// Operations in one pass at the most.
constexpr std::size_t max_pass_length = 512;

/// How far planning looks for operations that fit. Where a pass costs much, a longer search pays,
/// and where gates on different qubits change places it finds more.
struct Search {
    std::size_t look_ahead;   ///< operations left out while more are looked at
    std::size_t reach;        ///< operations looked at to choose the active bits
    unsigned int max_starts;  ///< sets of active bits that are grown and compared
};

/// On fewer qubits a gate takes so little that records, which are planned for every run, would lose
/// more by comparing sets than they gain.
constexpr unsigned int min_compared_qubits = 18;

/// Runs from here on take so long that saving a pass is worth half as much planning again.
constexpr unsigned int min_foreseen_qubits = 24;

constexpr Search search_for_pass(const PlanShape& shape) {
    if (shape.accuracy == Accuracy::rounding) return {512, 1024, 6};
    return {64, 160, shape.nqubits < min_compared_qubits ? 0u : 4u};
}
constexpr Search search_for_window(const PlanShape& shape) {
    if (shape.accuracy == Accuracy::rounding) return {128, 160, 3};
    return {12, 48, shape.nqubits < min_compared_qubits ? 0u : 4u};
}

/// On smaller states a gate takes less time than its share of planning, with any instructions.
constexpr std::size_t min_planned_bytes = std::size_t{8} << 10;

/// What a pass by tiles costs at the least, in passes that read and write the whole state.
constexpr double cost_of_tiles = 2.5;

/// States from this size on are written around the caches.
constexpr std::size_t min_bytes_past_cache = std::size_t{64} << 20;

template <class T>
WindowShape window_shape_of(InstructionSet set) {
    switch (set) {
#if defined(__x86_64__)
        case InstructionSet::avx512:
            return window_shape<InstructionSet::avx512, T>();
        case InstructionSet::avx2:
            return window_shape<InstructionSet::avx2, T>();
#endif
        default:
            return window_shape<InstructionSet::baseline, T>();
    }
}

}  // namespace

template <class T>
int plan_workers(unsigned int nqubits, int requested) {
    return nqubits < min_parallel_qubits<T> ? 1 : get_num_threads(requested);
}

template <class T>
PlanShape plan_shape(unsigned int nqubits, int workers, Accuracy accuracy) {
    // A tile for each worker at least, none too small to be worth a pass.
    constexpr unsigned int min_shared_tile_bits = min_parallel_qubits<T> - 2;
    // By rounding the plan may not depend on the team.
    constexpr std::size_t usual_team = 4;
    const std::size_t team = accuracy == Accuracy::exact        ? team_size(workers)
                             : nqubits < min_parallel_qubits<T> ? 1
                                                                : usual_team;
    unsigned int bits = std::min(nqubits, tile_qubits<T>);
    while (bits > min_shared_tile_bits && (std::size_t{1} << (nqubits - bits)) < team)
        --bits;
    return {nqubits, bits, active_instruction_set(), accuracy};
}

template <class T>
bool pays_to_plan(unsigned int nqubits) {
    return (sizeof(std::complex<T>) << nqubits) >= min_planned_bytes;
}

template <class T>
unsigned int Plan<T>::lane_bits() const {
    return window_shape_of<T>(shape_.set).lane_bits;
}

/// Qubits as bits of the index that the plan works on.
template <class T>
Index Plan<T>::bits_in_shape(Index bits) const {
    return shape_.paired ? with_pair_bit(bits, lane_bits()) : bits;
}

template <class T>
Plan<T>::Plan(Program<T> program, const PlanShape& shape)
    : shape_(shape),
      program_(std::move(program)),
      tables_(nullptr, aligned_array_delete<std::complex<T>>) {
    fold_parity_diagonals(program_.operations);
    if (shape_.paired) {
        // Two states leave room for two targets only in windows of three row bits.
        const bool takes_two = window_shape_of<T>(shape_.set).row_bits > 2;
        for (Operation& operation : program_.operations) {
            operation = moved_bits(operation, [&](Index bits) { return bits_in_shape(bits); });
            operation.alone |= operation.action == Action::matrix2 && !takes_two;
        }
    }
    const auto& operations = program_.operations;
    if (shape_.nqubits < window_shape_of<T>(shape_.set).bits()) {
        Stage all;
        for (std::uint32_t i = 0; i < operations.size(); ++i)
            all.alone.push_back(i);
        all.reached.front = static_cast<std::uint32_t>(operations.size());
        if (!all.alone.empty()) stages_.push_back(std::move(all));
        return;
    }
    place_tables();
    if (shape_.tile_bits == shape_.nqubits) {
        plan_one_tile();
    } else {
        plan_passes();
    }
}

/// Writes tables in the form of lanes; those that are too large for a cache run alone.
template <class T>
void Plan<T>::place_tables() {
    if (program_.tables.empty()) return;
    const unsigned int lane_bits = this->lane_bits();
    const Index lanes = low_mask(lane_bits);
    std::size_t rows = 0;
    for (const DiagonalTable<T>& table : program_.tables) {
        const unsigned int row_bits = count_bits(table.bits & ~lanes);
        const std::size_t place = 2 * (rows << lane_bits);
        if (row_bits > max_table_bits || place >= PlacedTable::nowhere) {
            placed_.push_back({bits_in_shape(table.bits), PlacedTable::nowhere});
        } else {
            placed_.push_back({bits_in_shape(table.bits), static_cast<std::uint32_t>(place)});
            rows += std::size_t{1} << row_bits;
        }
    }
    for (Operation& operation : program_.operations) {
        if (operation.action == Action::table)
            operation.alone = placed_[operation.data].values == PlacedTable::nowhere;
    }
    tables_ = new_zeroed_array<std::complex<T>>(rows << lane_bits, 1);
    for (std::size_t t = 0; t < placed_.size(); ++t) {
        const DiagonalTable<T>& table = program_.tables[t];
        if (placed_[t].values == PlacedTable::nowhere) continue;
        T* to = parts(tables_.get()) + placed_[t].values;
        const Index lane_entries = table.bits & lanes;
        const unsigned int row_bits = count_bits(table.bits & ~lanes);
        for (Index row = 0; row < bit(row_bits); ++row, to += 2 << lane_bits) {
            for (Index lane = 0; lane <= lanes; ++lane) {
                const Index entry =
                    row << count_bits(lane_entries) | extract_bits(lane, lane_entries);
                to[lane] = table.diag[entry].real();
                to[lane + lanes + 1] = table.diag[entry].imag();
            }
        }
    }
}

/// @param local  the operations as a tile of the `active` bits of the state sees them.
template <class T>
PassSteps Plan<T>::compile(std::span<const Operation> local, Index active) const {
    const WindowShape shape = window_shape_of<T>(shape_.set);
    const unsigned int tile_bits = count_bits(active);
    const Search search = search_for_window(shape_);
    PassSteps compiled;
    compiled.steps.reserve(local.size() + local.size() / 2);
    compiled.conditions.reserve(compiled.steps.capacity());
    Planner planner(local, {.n_bits = tile_bits,
                            .part_bits = shape.bits(),
                            .always = shape.lane_bits + shape_.paired,
                            .renumbered = low_mask(tile_bits) & ~low_mask(shape.lane_bits),
                            .look_ahead = search.look_ahead,
                            .max_length = max_pass_length,
                            .keeps_order = shape_.accuracy == Accuracy::exact,
                            .reach = search.reach,
                            .max_starts = search.max_starts});
    StepWriter writer(shape.lane_bits, active, placed_, compiled);
    const auto size = [](const auto& list) { return static_cast<unsigned int>(list.size()); };
    for (Pass window; planner.next(window);) {
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
        writer.end();
        const unsigned int last = size(compiled.steps);
        if (last > first) compiled.windows.push_back({window.active, first, last, placement});
    }
    // Windows copy tiles, too.
    if (compiled.windows.empty()) compiled.windows.push_back({low_mask(shape.bits()), 0, 0, 0});
    return compiled;
}

template <class T>
void Plan<T>::plan_passes() {
    const std::vector<Operation>& operations = program_.operations;
    const Search search = search_for_pass(shape_);
    Planner planner(operations,
                    {.n_bits = shape_.nqubits,
                     .part_bits = shape_.tile_bits,
                     .always = run_qubits<T> + shape_.paired,
                     .renumbered = 0,
                     .look_ahead = search.look_ahead,
                     .max_length = max_pass_length,
                     .keeps_order = shape_.accuracy == Accuracy::exact,
                     .reach = search.reach,
                     .max_starts = search.max_starts,
                     .foresees = shape_.accuracy == Accuracy::rounding && !shape_.paired &&
                                 shape_.nqubits >= min_foreseen_qubits});
    const auto number = [&](const Operation* operation) {
        return static_cast<std::uint32_t>(operation - operations.data());
    };
    std::vector<Operation> local;
    for (Pass pass; planner.next(pass);) {
        Stage& stage = stages_.emplace_back();
        double alone = 0;
        for (const auto& entry : pass.operations)
            alone += cost_alone(*entry.operation);
        if (pass.alone || (alone < cost_of_tiles && !shape_.paired)) {
            for (const auto& entry : pass.operations)
                stage.alone.push_back(number(entry.operation));
        } else {
            const Relocation relocate(pass.active);
            local.clear();
            for (const auto& entry : pass.operations)
                local.push_back(relocate(*entry.operation));
            stage.active = pass.active;
            stage.inactive = planner.inactive(pass);
            stage.steps = compile(local, pass.active);
        }
        stage.reached = planner.reached();
    }
}

/// Passes over a state that is one tile: as many operations at a time as one pass takes.
template <class T>
void Plan<T>::plan_one_tile() {
    const std::span<const Operation> operations = program_.operations;
    for (std::size_t i = 0; i < operations.size();) {
        Stage& stage = stages_.emplace_back();
        std::size_t end = i;
        while (end < operations.size() && end - i < max_pass_length && !operations[end].alone)
            ++end;
        if (end == i) {
            stage.alone.push_back(static_cast<std::uint32_t>(end++));
        } else {
            stage.active = low_mask(shape_.nqubits);
            stage.steps = compile(operations.subspan(i, end - i), stage.active);
        }
        stage.reached.front = static_cast<std::uint32_t>(end);
        i = end;
    }
}

template <class T>
typename Plan<T>::Counts Plan<T>::counts() const {
    Counts counts;
    for (const Stage& stage : stages_) {
        counts.alone += stage.alone.size();
        counts.passes += stage.alone.empty();
        counts.windows += stage.steps.windows.size();
    }
    return counts;
}

template <class T>
TilePass<T> Plan<T>::tile_pass(const Stage& stage, const T* factors) const {
    const PassSteps& steps = stage.steps;
    return {
        .active = stage.active,
        .inactive = stage.inactive,
        .windows = steps.windows.data(),
        .n_windows = steps.windows.size(),
        .steps = steps.steps.data(),
        .conditions = steps.conditions.data(),
        .n_steps = steps.steps.size(),
        .lookups = steps.lookups.data(),
        .signs = steps.signs.data(),
        .placements = steps.placements.data(),
        .n_placements = steps.placements.size(),
        .factors = factors,
        .tables = parts(tables_.get()),
        .past_cache = (sizeof(std::complex<T>) << shape_.nqubits) >= min_bytes_past_cache,
    };
}

template <class T>
void Plan<T>::run_pass(const Stage& stage, std::complex<T>* amplitudes, int workers,
                       const T* factors, const TeamScratch& scratch) const {
    const TilePass<T> pass = tile_pass(stage, factors);
    const Index n_tiles = bit(count_bits(stage.inactive));
    run_team(workers, [&](int id, int team) {
        const Block tiles(n_tiles, static_cast<Index>(id), static_cast<Index>(team), 1);
        bool shortcut = true;
        const auto run = [&]<Accuracy accuracy>() {
            dispatch([&]<InstructionSet set>() {
                run_tiles<set, T, accuracy>(parts(amplitudes), pass, tiles.begin, tiles.end,
                                            scratch.of(id), shortcut);
            });
        };
        if (shape_.accuracy == Accuracy::rounding) {
            run.template operator()<Accuracy::rounding>();
        } else {
            run.template operator()<Accuracy::exact>();
        }
    });
}

template <class T>
std::size_t Plan<T>::scratch_bytes() const {
    std::size_t bytes = 0;
    for (const Stage& stage : stages_) {
        if (!stage.alone.empty()) continue;
        bytes = std::max(bytes, tile_scratch_bytes<T>(shape_.tile_bits, stage.steps.steps.size(),
                                                      stage.steps.windows.size()));
    }
    return (bytes + 63) / 64 * 64;
}

template <class T>
std::size_t Plan<T>::run(std::complex<T>* amplitudes, int workers, const T* factors,
                         const std::function<bool(std::size_t)>& between) const {
    const TeamScratch scratch(workers, scratch_bytes());
    for (const Stage& stage : stages_) {
        for (const std::uint32_t i : stage.alone) {
            run_alone(amplitudes, shape_.nqubits, program_, program_.operations[i], factors,
                      workers);
        }
        if (stage.alone.empty()) run_pass(stage, amplitudes, workers, factors, scratch);
        if (!between || &stage == &stages_.back()) continue;
        std::exception_ptr failure;
        bool goes_on = false;
        try {
            goes_on = between(stage.reached.gates_done(program_.operations, program_.n_gates));
        } catch (...) {
            failure = std::current_exception();
        }
        if (goes_on) continue;
        const std::size_t done = finish_overtaken(stage, amplitudes, workers, factors);
        if (failure) std::rethrow_exception(failure);
        return done;
    }
    return program_.n_gates;
}

/// Tiles are summed up in pieces, and these in their order: sums do not depend on the team.
template <class T>
void Plan<T>::run_paired_pass(const Stage& stage, std::complex<T>* ket, std::complex<T>* bra,
                              int workers, const T* factors, const TeamScratch& scratch,
                              double* inner_products) const {
    const std::vector<std::uint32_t>& numbers = stage.steps.inner_products;
    const std::size_t n_sums = numbers.size() * sums_per_inner_product;
    const Index n_tiles = bit(count_bits(stage.inactive));
    const Index n_pieces = std::min(n_tiles, max_pieces);
    std::vector<double> results(n_pieces * numbers.size());
    run_team(workers, [&](int id, int team) {
        TilePass<T> pass = tile_pass(stage, factors);
        pass.sums = static_cast<double*>(scratch.of(id));
        void* const tile = pass.sums + n_sums;
        const Block pieces(n_pieces, static_cast<Index>(id), static_cast<Index>(team), 1);
        for (Index p = pieces.begin; p < pieces.end; ++p) {
            std::fill_n(pass.sums, n_sums, 0.0);
            const Block tiles(n_tiles, p, n_pieces, 1);
            dispatch([&]<InstructionSet set>() {
                run_paired_tiles<set, T>(parts(ket), parts(bra), pass, tiles.begin, tiles.end, tile,
                                         &stage != &stages_.back());
                fold_inner_products<set, T>(pass, results.data() + p * numbers.size());
            });
        }
    });
    for (std::size_t r = 0; r < results.size(); ++r)
        inner_products[numbers[r % numbers.size()]] += results[r];
}

template <class T>
bool Plan<T>::run_paired(std::complex<T>* ket, std::complex<T>* bra, int workers, const T* factors,
                         const std::function<bool(std::size_t)>& between,
                         double* inner_products) const {
    std::size_t most = 0;
    for (const Stage& stage : stages_)
        most = std::max(most, stage.steps.inner_products.size());
    const TeamScratch scratch(workers,
                              most * sums_per_inner_product * sizeof(double) + scratch_bytes());
    std::fill_n(inner_products, program_.inner_products.size(), 0.0);
    for (const Stage& stage : stages_) {
        for (const std::uint32_t i : stage.alone) {
            const Operation operation = moved_bits(program_.operations[i], [&](Index bits) {
                return without_pair_bit(bits, lane_bits());
            });
            for (std::complex<T>* const amplitudes : {ket, bra})
                run_alone(amplitudes, shape_.nqubits - 1, program_, operation, factors, workers);
        }
        if (stage.alone.empty()) {
            run_paired_pass(stage, ket, bra, workers, factors, scratch, inner_products);
        }
        if (between && &stage != &stages_.back() &&
            !between(stage.reached.gates_done(program_.operations, program_.n_gates)))
            return false;
    }
    return true;
}

/// Does what is left of all gates that have begun.
/// @return their number.
template <class T>
std::size_t Plan<T>::finish_overtaken(const Stage& stage, std::complex<T>* amplitudes, int workers,
                                      const T* factors) const {
    Program<T> program(program_);
    program.operations = stage.reached.rest(program_.operations);
    Plan(std::move(program), shape_).run(amplitudes, workers, factors, {});
    return stage.reached.gates_begun(program_.operations, program_.n_gates);
}

#define PBLINALG_INSTANTIATE(T)                                    \
    template int plan_workers<T>(unsigned int, int);               \
    template PlanShape plan_shape<T>(unsigned int, int, Accuracy); \
    template bool pays_to_plan<T>(unsigned int);                   \
    template class Plan<T>;
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
