// Operations are gathered into *entries*, each of which may take in later operations that can be
// moved back to it: past operations that have no bit in common with them, or only read the same
// bits. What becomes of an entry is decided at the end.
#include "circuits/simplify.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <numbers>
#include <utility>

#include "core/complex_math.hpp"

namespace pblinalg::cpu {
namespace {

using C = std::complex<double>;
using Matrix1 = std::array<C, 4>;
using Matrix2 = std::array<C, 16>;

constexpr std::uint32_t none = ~std::uint32_t{0};

/// Nothing is merged across multiples of this number of gates, so that stops find ends of gates.
constexpr std::uint32_t stretch = 256;

/// Diagonal gates in a stretch from which on it pays to gather their common phases in one of them.
constexpr std::size_t min_gathered = 3;

/// Diagonal entries looked at for one on the same bits.
constexpr std::size_t max_diagonals = 16;

bool is_diagonal_gate(const Operation& operation) {
    return operation.action == Action::Z || operation.action == Action::phase ||
           operation.action == Action::both;
}
bool is_on_one_qubit(const Operation& operation) {
    return operation.is_mixing() || (operation.action == Action::X && operation.selects == 0);
}
bool is_pair_matrix(const Operation& operation) {
    return operation.action == Action::matrix2 && operation.controls == 0;
}
bool same_controls(const Operation& a, const Operation& b) {
    return a.controls == b.controls && a.control_values == b.control_values;
}

template <class T>
C factor(const T* factors, unsigned int i) {
    return {double(factors[2 * i]), double(factors[2 * i + 1])};
}

/// The factors of a diagonal gate for even and odd parity.
template <class T>
std::array<C, 2> diagonal_of(Action action, bool inverted, const T* factors) {
    std::array<C, 2> diagonal = {1, -1};
    if (action != Action::Z) diagonal[1] = factor(factors, 1);
    if (action == Action::both) diagonal[0] = factor(factors, 0);
    if (inverted) std::swap(diagonal[0], diagonal[1]);
    return diagonal;
}

template <class T>
Matrix1 matrix_of(Action action, bool inverted, const T* factors) {
    constexpr double half = std::numbers::sqrt2 / 2;
    constexpr C i(0, 1);
    switch (action) {
        case Action::H:
            return {half, half, half, -half};
        case Action::X:
            return {0, 1, 1, 0};
        case Action::Y:
            return {0, -i, i, 0};
        case Action::YtoZ:
            return {half, -half * i, half, half * i};
        case Action::ZtoY:
            return {half, half, half * i, -half * i};
        case Action::RX:
            return {factor(factors, 0), factor(factors, 1), factor(factors, 1), factor(factors, 0)};
        case Action::RY:
            return {factor(factors, 0), -factor(factors, 1), factor(factors, 1),
                    factor(factors, 0)};
        case Action::matrix1:
            return {factor(factors, 0), factor(factors, 1), factor(factors, 2), factor(factors, 3)};
        default: {
            const auto diagonal = diagonal_of(action, inverted, factors);
            return {diagonal[0], 0, 0, diagonal[1]};
        }
    }
}

Matrix1 times(const Matrix1& a, const Matrix1& b) {
    return {a[0] * b[0] + a[1] * b[2], a[0] * b[1] + a[1] * b[3], a[2] * b[0] + a[3] * b[2],
            a[2] * b[1] + a[3] * b[3]};
}

/// Applies a term to the rows of a matrix of two qubits, the first one being the higher bit.
template <class T>
void apply(const typename Program<T>::Term& term, const T* factors, Matrix2& matrix) {
    using On = typename Program<T>::Term::On;
    const Matrix2 old = matrix;
    const auto row = [&](unsigned int r, unsigned int c) { return old[4 * r + c]; };
    if (term.on == On::parity) {
        const auto diagonal = diagonal_of(term.action, term.inverted, factors);
        for (unsigned int r = 0; r < 4; ++r) {
            for (unsigned int c = 0; c < 4; ++c)
                matrix[4 * r + c] = diagonal[r == 1 || r == 2] * row(r, c);
        }
    } else if (term.on == On::both || term.on == On::both_exchanged) {
        const auto place = [&](unsigned int r) {
            return term.on == On::both ? r : (r >> 1 | (r & 1) << 1);
        };
        for (unsigned int r = 0; r < 4; ++r) {
            for (unsigned int c = 0; c < 4; ++c) {
                matrix[4 * r + c] = 0;
                for (unsigned int k = 0; k < 4; ++k)
                    matrix[4 * r + c] += factor(factors, 4 * place(r) + place(k)) * row(k, c);
            }
        }
    } else {
        const Matrix1 m = matrix_of(term.action, term.inverted, factors);
        const unsigned int step = term.on == On::first ? 2 : 1;
        for (unsigned int r = 0; r < 4; ++r) {
            const bool high = r & step;
            for (unsigned int c = 0; c < 4; ++c)
                matrix[4 * r + c] =
                    m[2 * high] * row(r & ~step, c) + m[2 * high + 1] * row(r | step, c);
        }
    }
}

template <class T>
class Simplifier {
    using Product = typename Program<T>::Product;
    using Term = typename Program<T>::Term;
    using Form = typename Product::Form;

  public:
    explicit Simplifier(Program<T>& program) : program_(program) {}

    void run() {
        fold_parity_diagonals(program_.operations);
        input_ = std::move(program_.operations);
        program_.operations.clear();
        number_gates();
        next_.assign(input_.size(), none);
        find_bound();
        broken_.assign(program_.n_gates + 2, 0);
        std::uint32_t end_of_stretch = stretch;
        for (std::uint32_t i = 0; i < input_.size(); ++i) {
            if (gates_[i].first >= end_of_stretch) {
                begin_stretch();
                end_of_stretch = gates_[i].first / stretch * stretch + stretch;
            }
            add(i);
        }
        std::uint32_t stretch_of_last = 0;
        for (const Entry& entry : entries_) {
            const std::uint32_t own = gates_[entry.tail].last / stretch;
            if (own != stretch_of_last) gather_phases();
            stretch_of_last = own;
            write(entry);
        }
        gather_phases();
        mark_whole_gates();
    }

  private:
    enum class Kind : unsigned char { gone, one_qubit, diagonal, pair, other };
    struct Entry {
        Kind kind;
        std::uint32_t head, tail;  ///< of its operations
        Index targets, depends;
    };
    struct Gates {
        std::uint32_t first, last;
    };

    /// Which gates an operation belongs to.
    void number_gates() {
        gates_.resize(input_.size());
        std::uint32_t end = program_.n_gates;
        std::size_t group_end = input_.size();
        for (std::size_t i = input_.size(); i-- > 0;) {
            if (input_[i].gates_before == Operation::inside_a_gate) continue;
            for (std::size_t k = i; k < group_end; ++k)
                gates_[k] = {input_[i].gates_before, end - 1};
            group_end = i;
            end = input_[i].gates_before;
        }
    }

    void find_bound() {
        bound_.assign(program_.factors.size() + 1, false);
        for (std::size_t i = 0; i < program_.bound.size(); ++i)
            bound_[program_.bound[i].factors] = true;
    }
    /// RYY and RZX have a second rotation behind the first one.
    bool is_bound(const Operation& operation) const {
        return bound_[operation.factors] ||
               (operation.action == Action::RX && operation.factors >= 4 &&
                operation.controls != 0 && bound_[operation.factors - 4]);
    }

    void begin_stretch() {
        for (auto& history : histories_)
            history.clear();
        for (auto& diagonals : diagonals_)
            diagonals.clear();
    }

    /// The last entry on a bit, `none` in front of the first one.
    std::uint32_t last_on(unsigned int b) const {
        return histories_[b].empty() ? none : histories_[b].back();
    }
    /// The last entry that changes a bit.
    std::uint32_t last_change(unsigned int b) const {
        for (std::size_t i = histories_[b].size(); i-- > 0;) {
            if (entries_[histories_[b][i]].targets >> b & 1) return histories_[b][i];
        }
        return none;
    }
    /// The entry that is the last one on all the bits, or `none`.
    std::uint32_t last_on_all(Index bits) const {
        const std::uint32_t last = last_on(static_cast<unsigned int>(std::countr_zero(bits)));
        bool all = true;
        for_each_bit(bits, [&](unsigned int b) { all &= last_on(b) == last; });
        return all ? last : none;
    }
    /// The latest entry that changes one of the bits, or `none`.
    std::uint32_t latest_change(Index bits) const {
        std::uint32_t latest = none;
        for_each_bit(bits, [&](unsigned int b) {
            const std::uint32_t change = last_change(b);
            if (change != none && (latest == none || change > latest)) latest = change;
        });
        return latest;
    }

    void append(std::uint32_t entry, std::uint32_t i) {
        next_[entries_[entry].tail] = i;
        entries_[entry].tail = i;
    }

    void take_out(std::uint32_t entry) {
        Entry& gone = entries_[entry];
        gone.kind = Kind::gone;
        for_each_bit(gone.targets | gone.depends, [&](unsigned int b) {
            auto& history = histories_[b];
            history.erase(std::find(history.rbegin(), history.rend(), entry).base() - 1);
            std::erase(diagonals_[b], entry);
        });
    }

    void begin_entry(Kind kind, std::uint32_t i) {
        const Operation& operation = input_[i];
        const auto number = static_cast<std::uint32_t>(entries_.size());
        entries_.push_back({kind, i, i, operation.target_bits, operation.depends_on()});
        const Index bits = operation.target_bits | operation.depends_on();
        for_each_bit(bits, [&](unsigned int b) {
            histories_[b].push_back(number);
            if (operation.target_bits >> b & 1) diagonals_[b].clear();
        });
        if (kind == Kind::diagonal && bits != 0)
            diagonals_[std::countr_zero(bits)].push_back(number);
    }

    void add(std::uint32_t i) {
        const Operation& operation = input_[i];
        if (operation.alone || (operation.target_bits | operation.depends_on()) == 0)
            return begin_entry(Kind::other, i);
        if (is_on_one_qubit(operation)) {
            add_on_one_qubit(i);
        } else if (is_diagonal_gate(operation)) {
            add_diagonal(i);
        } else if (is_pair_matrix(operation)) {
            add_pair(i);
        } else if (!operation.is_permutation() || !undoes(i)) {
            begin_entry(Kind::other, i);
        }
    }

    void add_on_one_qubit(std::uint32_t i) {
        const Operation& operation = input_[i];
        const std::uint32_t last = last_on_all(operation.target_bits | operation.controls);
        if (last != none) {
            Entry& entry = entries_[last];
            const Operation& first = input_[entry.head];
            if (entry.kind == Kind::pair) {
                if (operation.controls == 0) return append(last, i);
                return begin_entry(Kind::one_qubit, i);
            }
            const bool same_bits =
                (entry.targets | entry.depends) == (operation.target_bits | operation.controls);
            const bool on_target =
                entry.kind == Kind::one_qubit
                    ? entry.targets == operation.target_bits
                    : entry.kind == Kind::diagonal && first.selects == operation.target_bits;
            if (same_bits && on_target && same_controls(first, operation)) {
                entry.kind = Kind::one_qubit;
                entry.targets = operation.target_bits;
                entry.depends = operation.controls;
                diagonals_[operation.targets[0]].clear();
                return append(last, i);
            }
        }
        begin_entry(Kind::one_qubit, i);
    }

    void add_diagonal(std::uint32_t i) {
        const Operation& operation = input_[i];
        const Index bits = operation.depends_on();
        const std::uint32_t change = latest_change(bits);
        const auto& diagonals = diagonals_[std::countr_zero(bits)];
        const std::size_t oldest = diagonals.size() - std::min(diagonals.size(), max_diagonals);
        for (std::size_t d = diagonals.size(); d-- > oldest;) {
            const Operation& other = input_[entries_[diagonals[d]].head];
            if (other.selects == operation.selects && same_controls(other, operation) &&
                (change == none || diagonals[d] > change)) {
                return append(diagonals[d], i);
            }
        }
        if (change != none) {
            const Entry& entry = entries_[change];
            const bool on_target = entry.kind == Kind::one_qubit &&
                                   operation.selects == entry.targets &&
                                   same_controls(input_[entry.head], operation);
            const bool on_pair = entry.kind == Kind::pair && operation.controls == 0 &&
                                 (operation.selects & ~entry.targets) == 0;
            if (on_target || on_pair) return append(change, i);
        }
        begin_entry(Kind::diagonal, i);
    }

    void add_pair(std::uint32_t i) {
        const Operation& operation = input_[i];
        const std::uint32_t last = last_on_all(operation.target_bits);
        if (last != none && entries_[last].kind == Kind::pair) return append(last, i);
        std::uint32_t head = none, tail = none;
        for (const unsigned int target : operation.targets) {
            for (std::uint32_t before = last_on(target); before != none; before = last_on(target)) {
                const Entry entry = entries_[before];
                const bool joins =
                    (entry.kind == Kind::one_qubit || entry.kind == Kind::diagonal) &&
                    (entry.targets | entry.depends) == bit(target);
                if (!joins) break;
                take_out(before);
                // Before what was found so far, which is later or on the other qubit.
                next_[entry.tail] = head;
                head = entry.head;
                if (tail == none) tail = entry.tail;
            }
        }
        begin_entry(Kind::pair, i);
        if (head == none) return;
        next_[tail] = i;
        entries_.back().head = head;
    }

    /// A permutation that meets its own inverse takes it away.
    bool undoes(std::uint32_t i) {
        const Operation& operation = input_[i];
        const std::uint32_t last = last_on_all(operation.target_bits);
        if (last == none || entries_[last].kind != Kind::other) return false;
        const Operation& other = input_[entries_[last].head];
        const std::uint32_t change = latest_change(operation.depends_on());
        if (other.action != operation.action || other.target_bits != operation.target_bits ||
            other.selects != operation.selects || other.inverted != operation.inverted ||
            !same_controls(other, operation) || (change != none && change > last)) {
            return false;
        }
        take_out(last);
        leave_out({gates_[entries_[last].head].first, gates_[i].last});
        return true;
    }

    /// Operations of the gates are missing: no stop finds only some of them done.
    void leave_out(Gates gates) {
        ++broken_[gates.first + 1];
        --broken_[gates.last + 1];
    }

    // ---- What becomes of an entry ---------------------------------------------------------------

    /// Consecutive operations of an entry that make one.
    struct Segment {
        std::uint32_t first, end;  ///< among `members_`
        unsigned int cost;         ///< fused operations per amplitude, about
    };

    static unsigned int cost_of(Action action) {
        switch (action) {
            case Action::X:
                return 0;
            case Action::Z:
                return 1;
            case Action::Y:
            case Action::phase:
            case Action::both:
                return 2;
            case Action::matrix1:
                return 8;
            default:
                return 4;
        }
    }

    void write(const Entry& entry) {
        if (entry.kind == Kind::gone) return;
        members_.clear();
        for (std::uint32_t i = entry.head; i != none; i = next_[i])
            members_.push_back(i);
        if (members_.size() == 1) return push(input_[entry.head], gates_[entry.head]);
        const std::span<const std::uint32_t> all(members_);
        if (entry.kind == Kind::diagonal) return push_diagonal(all);
        if (entry.kind == Kind::pair) return push_pair(all);
        segments_.clear();
        unsigned int cost = 0;
        for (std::uint32_t m = 0; m < members_.size(); ++m) {
            const Operation& operation = input_[members_[m]];
            if (segments_.empty() || !joins(input_[members_[m - 1]], operation))
                segments_.push_back({m, m, 0});
            Segment& segment = segments_.back();
            segment.end = m + 1;
            const unsigned int more = std::max(cost_of(operation.action), segment.cost);
            cost += more - segment.cost;
            segment.cost = more;
        }
        if (segments_.size() > 1 && cost >= cost_of(Action::matrix1)) return push_matrix(all);
        for (const Segment& segment : segments_) {
            const auto part = all.subspan(segment.first, segment.end - segment.first);
            const Operation& first = input_[part[0]];
            if (part.size() == 1) {
                push(first, gates_[part[0]]);
            } else if (is_diagonal_gate(first)) {
                push_diagonal(part);
            } else if (first.action == Action::RX || first.action == Action::RY) {
                push_rotation(part);
            } else {
                push_matrix(part);
            }
        }
    }

    /// Whether two neighbours make one of the same cost.
    static bool joins(const Operation& a, const Operation& b) {
        return a.action == b.action || (is_diagonal_gate(a) && is_diagonal_gate(b));
    }

    Gates gates_of(std::span<const std::uint32_t> members) const {
        Gates gates = gates_[members[0]];
        for (const std::uint32_t i : members) {
            gates.first = std::min(gates.first, gates_[i].first);
            gates.last = std::max(gates.last, gates_[i].last);
        }
        return gates;
    }

    void push(const Operation& operation, Gates gates) {
        program_.operations.push_back(operation);
        written_.push_back(gates);
    }

    /// The first member with the product of all as its coefficients.
    /// @return its place of `n` parts.
    Operation& push_product(std::span<const std::uint32_t> members, Form form, Action action,
                            std::size_t n) {
        Operation operation = input_[members[0]];
        operation.action = action;
        operation.factors = new_product(form, n);
        for (const std::uint32_t i : members) {
            const Operation& member = input_[i];
            program_.terms.push_back(
                {member.action, member.inverted, Term::On::first, member.factors});
        }
        program_.products.back().last_term = static_cast<std::uint32_t>(program_.terms.size());
        push(operation, gates_of(members));
        return program_.operations.back();
    }

    bool any_bound(std::span<const std::uint32_t> members) const {
        return std::ranges::any_of(members, [&](std::uint32_t i) { return is_bound(input_[i]); });
    }

    /// Takes the last operation back when it is the identity, whatever the values.
    void drop_identity(std::span<const std::uint32_t> members, const Matrix1& matrix) {
        constexpr double limit = 8 * std::numeric_limits<T>::epsilon();
        if (any_bound(members) || std::abs(matrix[0] - 1.0) > limit ||
            std::abs(matrix[3] - 1.0) > limit || std::abs(matrix[1]) > limit ||
            std::abs(matrix[2]) > limit) {
            return;
        }
        program_.operations.pop_back();
        leave_out(written_.back());
        written_.pop_back();
        program_.terms.resize(program_.products.back().first_term);
        program_.products.pop_back();
    }

    Matrix1 product_of(std::span<const std::uint32_t> members) const {
        Matrix1 matrix = {1, 0, 0, 1};
        for (const std::uint32_t i : members) {
            const Operation& member = input_[i];
            matrix = times(
                matrix_of(member.action, member.inverted, program_.factors.data() + member.factors),
                matrix);
        }
        return matrix;
    }

    void push_diagonal(std::span<const std::uint32_t> members) {
        const bool keeps_even = std::ranges::all_of(members, [&](std::uint32_t i) {
            return input_[i].action != Action::both && !input_[i].inverted;
        });
        push_product(members, Form::diagonal, keeps_even ? Action::phase : Action::both, 4)
            .inverted = false;
        drop_identity(members, product_of(members));
    }

    void push_rotation(std::span<const std::uint32_t> members) {
        const Action action = input_[members[0]].action;
        const bool x = action == Action::RX;
        push_product(members, x ? Form::rotation_x : Form::rotation_y, action, 4);
        drop_identity(members, product_of(members));
    }

    void push_matrix(std::span<const std::uint32_t> members) {
        Operation& operation = push_product(members, Form::matrix1, Action::matrix1, 8);
        for (const std::uint32_t i : members) {
            if (!is_on_one_qubit(input_[i])) continue;
            // A diagonal gate does not know its target.
            operation.targets[0] = input_[i].targets[0];
            operation.target_bits = input_[i].target_bits;
        }
        operation.inverted = true;
        operation.selects = 0;
        drop_identity(members, product_of(members));
    }

    void push_pair(std::span<const std::uint32_t> members) {
        using On = typename Term::On;
        std::uint32_t named = members[0];
        for (const std::uint32_t i : members) {
            if (is_pair_matrix(input_[i])) named = i;
        }
        const Operation matrix = input_[named];
        Operation& operation = push_product(members, Form::matrix2, Action::matrix2, 32);
        const std::uint32_t factors = operation.factors;
        operation = matrix;
        operation.factors = factors;
        const std::uint32_t first_term = program_.products.back().first_term;
        for (std::size_t m = 0; m < members.size(); ++m) {
            const Operation& member = input_[members[m]];
            On& on = program_.terms[first_term + m].on;
            const Index bits = member.target_bits | member.selects;
            if (is_pair_matrix(member)) {
                on = member.targets[0] == matrix.targets[0] ? On::both : On::both_exchanged;
            } else if (bits == matrix.target_bits) {
                on = On::parity;
            } else {
                on = bits == bit(matrix.targets[0]) ? On::first : On::second;
            }
        }
    }

    /// Diagonal gates with two phases multiply by their ratio only, half of the amplitudes; the
    /// last one of them by the first phases of all.
    void gather_phases() {
        using On = typename Term::On;
        std::vector<std::uint32_t> gathered;
        for (auto i = first_of_stretch_; i < program_.operations.size(); ++i) {
            const Operation& operation = program_.operations[i];
            if (operation.action != Action::both || operation.controls != 0) continue;
            const double size = std::abs(factor(program_.factors.data() + operation.factors, 0));
            // What follows from angles has size 1 whatever the values.
            if (std::abs(size - 1) < 1e-6) gathered.push_back(i);
        }
        first_of_stretch_ = static_cast<std::uint32_t>(program_.operations.size());
        if (gathered.size() < min_gathered) return;
        const std::uint32_t carrier = gathered.back();
        Gates gates = written_[carrier];
        for (const std::uint32_t i : gathered) {
            gates.first = std::min(gates.first, written_[i].first);
            gates.last = std::max(gates.last, written_[i].last);
        }
        leave_out(gates);
        std::vector<Term> terms;
        for (const std::uint32_t i : gathered) {
            Operation& operation = program_.operations[i];
            const bool last = i == carrier;
            terms.push_back({Action::both, last && operation.inverted, last ? On::first : On::all,
                             operation.factors});
            if (last) break;
            operation.action = Action::phase;
            const std::uint32_t own = operation.factors;
            operation.factors = new_product(Form::ratio, 4);
            program_.terms.push_back({Action::both, false, On::first, own});
            program_.products.back().last_term += 1;
        }
        Operation& operation = program_.operations[carrier];
        operation.inverted = false;
        operation.factors = new_product(Form::diagonal, 4);
        program_.terms.insert(program_.terms.end(), terms.begin(), terms.end());
        program_.products.back().last_term += static_cast<std::uint32_t>(terms.size());
    }

    /// Begins a product of `n` parts without terms.
    std::uint32_t new_product(Form form, std::size_t n) {
        const auto factors = static_cast<std::uint32_t>(program_.factors.size());
        const auto term = static_cast<std::uint32_t>(program_.terms.size());
        program_.factors.resize(factors + n);
        program_.products.push_back({form, factors, term, term});
        return factors;
    }

    /// Between which operations there are whole gates done, none of the later ones begun.
    void mark_whole_gates() {
        const std::size_t n = program_.operations.size();
        std::vector<std::uint32_t> next(n + 1, program_.n_gates);
        for (std::size_t i = n; i-- > 0;)
            next[i] = std::min(next[i + 1], written_[i].first);
        for (std::size_t g = 1; g < broken_.size(); ++g)
            broken_[g] += broken_[g - 1];
        std::uint32_t done = 0;
        for (std::size_t i = 0; i < n; ++i) {
            const bool whole = done <= next[i] && broken_[next[i]] == 0;
            program_.operations[i].gates_before = whole ? next[i] : Operation::inside_a_gate;
            done = std::max(done, written_[i].last + 1);
        }
        // Nothing is done in front of the first one, whatever else is gone.
        if (n > 0) program_.operations[0].gates_before = gates_[0].first;
    }

    Program<T>& program_;
    std::vector<Operation> input_;
    std::vector<Gates> gates_;         ///< of the input
    std::vector<std::uint32_t> next_;  ///< the next one in an entry, of the input
    std::vector<bool> bound_;          ///< coefficients that depend on parameters
    std::vector<Entry> entries_;
    std::vector<std::uint32_t> histories_[64];  ///< entries on each bit
    std::vector<std::uint32_t> diagonals_[64];  ///< those that multiply, by their lowest bit
    std::vector<std::uint32_t> members_;
    std::vector<Segment> segments_;
    std::uint32_t first_of_stretch_ = 0;  ///< among the operations written
    std::vector<Gates> written_;          ///< of the operations written
    std::vector<int> broken_;  ///< changes of the number of gaps that cover a number of gates
};

}  // namespace

template <class T>
void simplify(Program<T>& program) {
    Simplifier<T>(program).run();
    form_products(program, program.factors.data());
}

template <class T>
void form_products(const Program<T>& program, T* factors) {
    using Form = typename Program<T>::Product::Form;
    for (const auto& product : program.products) {
        T* to = factors + product.factors;
        const auto write = [&](C value) {
            *to++ = static_cast<T>(value.real());
            *to++ = static_cast<T>(value.imag());
        };
        const std::span terms(program.terms.data() + product.first_term,
                              program.terms.data() + product.last_term);
        if (product.form == Form::matrix2) {
            Matrix2 matrix{};
            for (unsigned int r = 0; r < 4; ++r)
                matrix[5 * r] = 1;
            for (const auto& term : terms)
                apply<T>(term, factors + term.factors, matrix);
            for (const C value : matrix)
                write(value);
            continue;
        }
        Matrix1 matrix = {1, 0, 0, 1};
        for (const auto& term : terms) {
            const bool on_all = term.on == Program<T>::Term::On::all;
            const C first = factor(factors + term.factors, 0);
            matrix = times(on_all ? Matrix1{first, 0, 0, first}
                                  : matrix_of(term.action, term.inverted, factors + term.factors),
                           matrix);
        }
        switch (product.form) {
            case Form::rotation_x:
            case Form::rotation_y:
                write(matrix[0]);
                write(matrix[2]);
                break;
            case Form::diagonal:
                write(matrix[0]);
                write(matrix[3]);
                break;
            case Form::ratio:
                write(1);
                write(matrix[3] / matrix[0]);
                break;
            default:
                for (const C value : matrix)
                    write(value);
        }
    }
}

#define PBLINALG_INSTANTIATE(T)             \
    template void simplify<T>(Program<T>&); \
    template void form_products<T>(const Program<T>&, T*);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
