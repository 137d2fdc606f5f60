#include "mpi/rank_plan.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <utility>

#include "circuits/planner.hpp"
#include "core/bit_placement.hpp"

namespace pblinalg::mpi {

using cpu::Action;
using cpu::bit;
using cpu::Operation;
using cpu::Pass;

namespace {

/// Operations between two chances to stop, at the most: so many that a pass over memory more does
/// not count.
constexpr std::size_t max_stretch = 1024;

/// How far planning looks: exchanges cost far more than any search.
struct Search {
    std::size_t look_ahead;   ///< operations left out while more are looked at
    std::size_t reach;        ///< operations looked at to choose the bits
    unsigned int max_starts;  ///< sets of bits that are compared
};
constexpr Search search_for(Accuracy accuracy) {
    if (accuracy == Accuracy::rounding) return {1024, 512, 16};
    return {512, 160, 4};
}
// Stops count on it that no pass leaves out more.
static_assert(search_for(Accuracy::exact).look_ahead <= max_stretch &&
              search_for(Accuracy::rounding).look_ahead <= max_stretch);

constexpr std::uint32_t never = ~std::uint32_t{0};

unsigned int first_bit(Index bits) {
    return static_cast<unsigned int>(std::countr_zero(bits));
}

/// For every bit the operations that have it as a target.
class Uses {
  public:
    Uses(std::span<const Operation> operations, unsigned int n_bits) : of_bit_(n_bits) {
        for (std::uint32_t i = 0; i < operations.size(); ++i) {
            for (Index rest = operations[i].target_bits; rest != 0; rest &= rest - 1)
                of_bit_[first_bit(rest)].push_back(i);
        }
    }

    /// The first one that is number `from` or later.
    std::uint32_t next(unsigned int bit, std::size_t from) const {
        const auto& uses = of_bit_[bit];
        const auto found = std::lower_bound(uses.begin(), uses.end(), from);
        return found == uses.end() ? never : *found;
    }

  private:
    std::vector<std::vector<std::uint32_t>> of_bit_;
};

/// Whether every rank can run `operation` by itself, or renumber ranks for it, when the bits
/// `local` lie within ranks.
bool runs_on(const Operation& operation, Index local) {
    if (!(operation.target_bits & ~local)) return true;
    return operation.is_permutation() && operation.controls == 0 &&
           !((operation.target_bits | operation.selects) & local);
}

}  // namespace

template <class T>
std::vector<unsigned int> take_out_swaps(cpu::Program<T>& program) {
    std::vector<unsigned int> name(program.nqubits);
    for (unsigned int q = 0; q < name.size(); ++q)
        name[q] = q;
    bool renamed = false;
    const auto rename = [&](Index bits) {
        Index result = 0;
        for (; bits != 0; bits &= bits - 1)
            result |= bit(name[first_bit(bits)]);
        return result;
    };
    const auto rename_list = [&](std::vector<unsigned int>& qubits) {
        for (unsigned int& qubit : qubits)
            qubit = name[qubit];
    };
    std::size_t kept = 0;
    std::uint32_t gates_before = Operation::inside_a_gate;  // of a SWAP that the next one follows
    for (const Operation& found : program.operations) {
        if (found.action == Action::SWAP) {
            if (found.gates_before != Operation::inside_a_gate) gates_before = found.gates_before;
            std::swap(name[found.targets[0]], name[found.targets[1]]);
            renamed = true;
            continue;
        }
        Operation& operation = program.operations[kept++];
        operation = found;
        if (found.gates_before == Operation::inside_a_gate) operation.gates_before = gates_before;
        gates_before = Operation::inside_a_gate;
        if (!renamed) continue;
        operation.target_bits = rename(found.target_bits);
        operation.controls = rename(found.controls);
        operation.control_values = rename(found.control_values);
        if (found.action == Action::table) {
            cpu::DiagonalTable<T>& table = program.tables[found.data];
            std::vector<unsigned int> places;
            const Index bits = rename(table.bits);
            for (Index rest = table.bits; rest != 0; rest &= rest - 1)
                places.push_back(cpu::count_bits(bits & cpu::low_mask(name[first_bit(rest)])));
            const auto place = cpu::BitPlacement::scatter(places);
            std::vector<std::complex<T>> diag(table.diag.size());
            for (Index entry = 0; entry < diag.size(); ++entry)
                diag[place(entry)] = table.diag[entry];
            table = {bits, std::move(diag)};
        }
        operation.selects = rename(found.selects);
        if (found.action == Action::dense) {
            rename_list(program.dense[found.data].qubits);
        } else if (found.action == Action::oracle) {
            rename_list(program.oracles[found.data].qubits);
        } else {
            for (unsigned char& target : operation.targets)
                target = static_cast<unsigned char>(name[target]);
        }
    }
    program.operations.resize(kept);
    return name;
}

namespace {

/// The bits to hold within ranks for `pass`: those it needs, and of those at hand the ones needed
/// soonest after it.
Index choose_local(const Pass& pass, Index at_hand, const Uses& uses, const cpu::Planner& planner) {
    Index needed = 0;
    bool stays = true, renumbered = false;
    for (const auto& [operation, renumbers] : pass.operations) {
        if (!renumbers) needed |= operation->target_bits;
        renumbered |= renumbers;
        stays &= runs_on(*operation, at_hand);
    }
    if (stays) return at_hand;
    // What renumbers rests on just these.
    if (renumbered) return pass.active;
    struct Candidate {
        std::uint32_t next;
        unsigned int bit;
    };
    Index waiting = 0;
    for (const Operation* const operation : planner.left_out())
        waiting |= operation->target_bits;
    std::vector<Candidate> candidates;
    for (Index rest = at_hand & ~needed; rest != 0; rest &= rest - 1) {
        const unsigned int own = first_bit(rest);
        candidates.push_back({waiting & bit(own) ? 0 : uses.next(own, planner.front()), own});
    }
    std::ranges::stable_sort(candidates, {}, &Candidate::next);
    candidates.resize(cpu::count_bits(at_hand) - cpu::count_bits(needed));
    for (const Candidate& candidate : candidates)
        needed |= bit(candidate.bit);
    return needed;
}

/// The exchange after which the bits `local` lie within ranks.
std::vector<BitSwap> swaps_to(Index local, const Layout& layout) {
    const Index at_hand = layout.local_qubits();
    std::vector<BitSwap> swaps;
    Index out = at_hand & ~local;
    for (Index in = local & ~at_hand; in != 0; in &= in - 1, out &= out - 1) {
        swaps.push_back(
            {layout.place[first_bit(out)], layout.place[first_bit(in)] - layout.local_bits()});
    }
    return swaps;
}

/// @param first  the bits that the first pass wants within ranks, 0: those with which it takes the
///               most operations.
RankPlan plan_passes(std::span<const Operation> operations, const Layout& layout,
                     const Search& search, bool keeps_order, Index first) {
    RankPlan plan{{}, layout};
    const Uses uses(operations, layout.n_qubits());
    cpu::Planner planner(operations, {.n_bits = layout.n_qubits(),
                                      .part_bits = layout.local_bits(),
                                      .always = 0,
                                      .renumbered = cpu::low_mask(layout.n_qubits()),
                                      .look_ahead = search.look_ahead,
                                      .max_length = std::numeric_limits<std::size_t>::max(),
                                      .keeps_order = keeps_order,
                                      .reach = search.reach,
                                      .max_starts = search.max_starts,
                                      .whole_parts = true,
                                      .foresees = !keeps_order,
                                      .first_active = first});
    for (Pass pass; planner.next(pass);) {
        std::vector<BitSwap> swaps =
            swaps_to(choose_local(pass, plan.layout.local_qubits(), uses, planner), plan.layout);
        plan.layout.apply(swaps);
        for (std::span<const Pass::Entry> rest = pass.operations; !rest.empty();) {
            const auto piece = rest.first(std::min(rest.size(), max_stretch));
            rest = rest.subspan(piece.size());
            RankPass& own = plan.passes.emplace_back();
            own.swaps = std::exchange(swaps, {});
            for (const auto& entry : piece) {
                own.operations.push_back(
                    static_cast<std::uint32_t>(entry.operation - operations.data()));
                renumber(*entry.operation, plan.layout);
            }
            own.reached = planner.reached(rest);
        }
    }
    return plan;
}

}  // namespace

double RankPass::share_sent() const {
    return 1 - std::ldexp(1.0, -static_cast<int>(swaps.size()));
}

template <class T>
RankPlan plan_ranks(cpu::Program<T>& program, const Layout& layout, Accuracy accuracy) {
    const std::vector<unsigned int> names = take_out_swaps(program);
    fold_parity_diagonals(program.operations);
    // Within a rank they find out for themselves what runs on the whole array only.
    for (Operation& operation : program.operations)
        operation.alone = false;
    const auto cost = [](const RankPlan& plan) {
        double sum = 0;
        for (const RankPass& pass : plan.passes)
            sum += pass.share_sent();
        return sum;
    };
    const auto plan = [&](Index first) {
        return plan_passes(program.operations, layout, search_for(accuracy),
                           accuracy == Accuracy::exact, first);
    };
    // A first pass on the bits at hand takes fewer operations, and no exchange.
    RankPlan best = plan(layout.local_qubits());
    if (RankPlan other = plan(0); cost(other) < cost(best)) best = std::move(other);
    best.layout.relabel(names);
    return best;
}

bool renumber(const Operation& operation, Layout& layout) {
    if (operation.action != Action::X || layout.is_local(operation.targets[0])) return false;
    const unsigned int target = layout.place[operation.targets[0]] - layout.local_bits();
    for (Index rest = layout.rank_places(operation.selects); rest != 0; rest &= rest - 1)
        layout.numbers.add(first_bit(rest), target);
    if (operation.inverted) layout.numbers.flip(target);
    return true;
}

namespace {

/// Coefficients of an action, as numbers.
unsigned int n_factors(Action action) {
    switch (action) {
        case Action::RX:
        case Action::RY:
        case Action::phase:
        case Action::both:
            return 4;
        case Action::matrix1:
            return 8;
        case Action::matrix2:
            return 32;
        default:
            return 0;
    }
}

template <class T>
std::uint32_t append_factors(cpu::Program<T>& program, const T* factors, unsigned int count) {
    const auto first = static_cast<std::uint32_t>(program.factors.size());
    program.factors.insert(program.factors.end(), factors, factors + count);
    return first;
}

/// A product with one factor.
template <class T>
std::uint32_t append_phase(cpu::Program<T>& program, std::complex<T> factor) {
    const T factors[] = {1, 0, factor.real(), factor.imag()};
    return append_factors(program, factors, 4);
}

/// Without selecting bits a control takes their place: the form that lowering gives.
void select_by_control(Operation& operation) {
    if (operation.controls == 0) return;
    operation.selects = cpu::lowest_bit(operation.controls);
    operation.inverted = !(operation.control_values & operation.selects);
    operation.controls &= ~operation.selects;
    operation.control_values &= operation.controls;
}

template <class T>
void localise_table(Operation operation, const cpu::DiagonalTable<T>& table, const Layout& layout,
                    Index number, cpu::Program<T>& local) {
    // Bits of an entry's number: those on places within the rank, in the order of these, and those
    // that the rank's number fixes.
    std::vector<unsigned int> free;
    Index fixed = 0;
    const Index places = layout.local_places(table.bits);
    free.resize(cpu::count_bits(places));
    unsigned int entry_bit = 0;
    for (Index rest = table.bits; rest != 0; rest &= rest - 1, ++entry_bit) {
        const unsigned int qubit = first_bit(rest);
        const unsigned int place = layout.place[qubit];
        if (layout.is_local(qubit)) {
            free[cpu::count_bits(places & cpu::low_mask(place))] = entry_bit;
        } else if (number >> (place - layout.local_bits()) & 1) {
            fixed |= bit(entry_bit);
        }
    }
    if (free.empty()) {
        operation.action = Action::phase;
        operation.selects = 0;
        operation.inverted = true;
        operation.factors = append_phase(local, table.diag[fixed]);
        select_by_control(operation);
    } else {
        const auto place = cpu::BitPlacement::scatter(free);
        std::vector<std::complex<T>> diag(bit(static_cast<unsigned int>(free.size())));
        for (Index entry = 0; entry < diag.size(); ++entry)
            diag[entry] = table.diag[fixed | place(entry)];
        operation.data = static_cast<std::uint32_t>(local.tables.size());
        local.tables.push_back({places, std::move(diag)});
    }
    local.operations.push_back(operation);
}

template <class T>
void localise_oracle(const Operation& operation, const cpu::PhaseOracle& oracle,
                     const Layout& layout, Index number, cpu::Program<T>& local) {
    const std::size_t width = oracle.qubits.size();
    cpu::PhaseOracle own;
    Index held = 0;
    Index values = 0;  // of the bits of a marked value that the rank's number holds
    Index kept = 0;
    for (std::size_t i = 0; i < width; ++i) {
        const unsigned int qubit = oracle.qubits[i];
        const Index value_bit = bit(static_cast<unsigned int>(width - 1 - i));
        if (layout.is_local(qubit)) {
            own.qubits.push_back(layout.place[qubit]);
            kept |= value_bit;
        } else {
            held |= value_bit;
            if (number >> (layout.place[qubit] - layout.local_bits()) & 1) values |= value_bit;
        }
    }
    for (const unsigned long long marked : oracle.marked) {
        if ((marked & held) == values) own.marked.push_back(cpu::extract_bits(marked, kept));
    }
    if (own.marked.empty()) return;
    Operation here = operation;
    here.gates_before = Operation::inside_a_gate;
    if (own.qubits.empty()) {
        here.action = Action::Z;
        here.selects = 0;
    } else {
        here.alone = true;
        here.selects = layout.local_places(operation.selects);
        here.data = static_cast<std::uint32_t>(local.oracles.size());
        local.oracles.push_back(std::move(own));
    }
    local.operations.push_back(here);
}

}  // namespace

template <class T>
void localise(const Operation& operation, const cpu::Program<T>& program, const T* factors,
              const Layout& layout, Index number, cpu::Program<T>& local) {
    if (operation.action == Action::oracle)
        return localise_oracle(operation, program.oracles[operation.data], layout, number, local);
    const Index held = layout.rank_places(operation.controls);
    if ((number & held) != layout.rank_places(operation.control_values)) return;
    Operation own = operation;
    own.gates_before = Operation::inside_a_gate;
    own.target_bits = layout.local_places(operation.target_bits);
    own.controls = layout.local_places(operation.controls);
    own.control_values = layout.local_places(operation.control_values);
    if (operation.action == Action::table) own.selects = layout.local_places(operation.selects);
    if (operation.action == Action::table)
        return localise_table(own, program.tables[operation.data], layout, number, local);
    if (operation.action == Action::dense) {
        cpu::DenseMatrix<T> matrix = program.dense[operation.data];
        for (unsigned int& qubit : matrix.qubits)
            qubit = layout.place[qubit];
        own.alone = true;
        own.data = static_cast<std::uint32_t>(local.dense.size());
        local.dense.push_back(std::move(matrix));
        local.operations.push_back(own);
        return;
    }
    const unsigned int n_targets = cpu::count_bits(operation.target_bits);
    for (unsigned int t = 0; t < n_targets; ++t)
        own.targets[t] = static_cast<unsigned char>(layout.place[operation.targets[t]]);
    own.selects = layout.local_places(operation.selects);
    own.inverted ^= cpu::has_odd_parity(number & layout.rank_places(operation.selects));
    const T* const coefficients = factors + operation.factors;
    if (operation.selects != 0 && own.selects == 0) {
        if (operation.multiplies_all()) {
            const T* const one = coefficients + (own.inverted ? 2 : 0);
            own.action = Action::phase;
            own.factors = append_phase(local, std::complex<T>(one[0], one[1]));
            own.inverted = true;
            select_by_control(own);
            local.operations.push_back(own);
            return;
        }
        if (!own.inverted) return;
        select_by_control(own);
    }
    own.factors = append_factors(local, coefficients, n_factors(operation.action));
    local.operations.push_back(own);
}

#define PBLINALG_INSTANTIATE(T)                                                                  \
    template std::vector<unsigned int> take_out_swaps<T>(cpu::Program<T>&);                      \
    template RankPlan plan_ranks<T>(cpu::Program<T>&, const Layout&, Accuracy);                  \
    template void localise<T>(const Operation&, const cpu::Program<T>&, const T*, const Layout&, \
                              Index, cpu::Program<T>&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
