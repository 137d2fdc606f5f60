#include <algorithm>
#include <bit>
#include <cassert>
#include <mutex>
#include <pblinalg/gate_list.hpp>
#include <utility>

#include "circuits/gate_matrix.hpp"
#include "circuits/plan_cache.hpp"

namespace pblinalg {
namespace {

using Values = std::vector<std::complex<double>>;

Values conjugated(std::span<const std::complex<double>> values) {
    Values result(values.begin(), values.end());
    for (std::complex<double>& value : result)
        value = std::conj(value);
    return result;
}

/// @param n_rows  of the row-major matrix.
Values transposed(const Values& matrix, std::size_t n_rows) {
    Values result(matrix.size());
    for (std::size_t r = 0; r < n_rows; ++r) {
        for (std::size_t c = 0; c < n_rows; ++c)
            result[c * n_rows + r] = matrix[r * n_rows + c];
    }
    return result;
}

enum class Wanted { inverse, conjugate };

void append_related(GateList& list, const GateView& gate, Wanted wanted) {
    const GateInfo& row = info(gate.kind);
    GateView related = gate;
    std::vector<Angle> angles(gate.angles.begin(), gate.angles.end());
    related.angles = angles;
    switch (wanted == Wanted::inverse ? row.inverse : row.conjugate) {
        case GateRelation::same:
            break;
        case GateRelation::partner:
            related.kind = row.partner;
            break;
        case GateRelation::negated:
            angles[0] = -angles[0];
            break;
        case GateRelation::by_angles:
            if (wanted == Wanted::inverse) {
                angles[0] = -angles[0];
                std::swap(angles[1], angles[2]);
            }
            angles[1] = -angles[1];
            angles[2] = -angles[2];
            break;
        case GateRelation::by_values: {
            Values values = conjugated(gate.values);
            if (wanted == Wanted::inverse && gate.kind == GateKind::matrix)
                values = transposed(values, std::size_t{1} << gate.targets.size());
            related.values = values;
            list.append(related);
            return;
        }
        case GateRelation::as_matrix: {
            // Gates with angles have their conjugates in the table.
            const Values values = conjugated(gate_matrix(gate.kind, {}));
            list.add_matrix(gate.targets, values, gate.controls);
            return;
        }
    }
    list.append(related);
}

/// Appends values that may lie in the pool itself.
template <class V>
void extend(std::vector<V>& pool, std::span<const V> values) {
    const std::size_t size = pool.size();
    std::vector<V> outgrown;
    if (pool.capacity() - size < values.size()) {
        outgrown.reserve(std::max(size + values.size(), 2 * pool.capacity()));
        outgrown.assign(pool.begin(), pool.end());
        pool.swap(outgrown);
    }
    pool.resize(size + values.size());
    std::ranges::copy(values, pool.begin() + static_cast<std::ptrdiff_t>(size));
}

/// Guards the plans of all lists.
std::mutex plans_mutex;

}  // namespace

bool operator==(const GateView& a, const GateView& b) {
    return a.kind == b.kind && a.controls == b.controls &&
           std::ranges::equal(a.targets, b.targets) && std::ranges::equal(a.angles, b.angles) &&
           std::ranges::equal(a.values, b.values) && std::ranges::equal(a.marked, b.marked);
}

GateList::GateList() = default;
GateList::GateList(const GateList&) = default;
GateList::GateList(GateList&&) noexcept = default;
GateList& GateList::operator=(const GateList& other) {
    return *this = GateList(other);
}
GateList& GateList::operator=(GateList&&) noexcept = default;
GateList::~GateList() = default;

GateList::Plans::Plans(const Plans& other) {
    const std::lock_guard lock(plans_mutex);
    cache = other.cache;
}

// Pools are filled before the entry that refers to them: what fails in between leaves the list as
// it was.
GateList::Entry& GateList::push(GateKind kind, QubitList targets, Controls controls) {
    const auto first = static_cast<std::uint32_t>(targets_.size());
    extend(targets_, std::span<const unsigned int>(targets));
    entries_.push_back({kind, static_cast<unsigned char>(targets.size()), first, 0, 0, controls});
    for (std::size_t i = first; i < targets_.size(); ++i)
        n_qubits_ = std::max(n_qubits_, targets_[i] + 1);
    n_qubits_ = std::max(n_qubits_, static_cast<unsigned int>(std::bit_width(controls.mask)));
    plans_ = {};
    return entries_.back();
}

GateList& GateList::add(GateKind kind, QubitList targets, std::span<const Angle> angles,
                        Controls controls) {
    assert(!has_values(kind) && targets.size() == info(kind).n_targets &&
           angles.size() == info(kind).n_angles);
    const auto first = static_cast<std::uint32_t>(angles_.size());
    extend(angles_, angles);
    push(kind, targets, controls).first_angle = first;
    for (std::size_t i = first; i < angles_.size(); ++i) {
        if (!angles_[i].is_number())
            n_parameters_ = std::max(n_parameters_, angles_[i].parameter + 1);
    }
    return *this;
}

GateList& GateList::add_matrix(QubitList targets, std::span<const std::complex<double>> matrix,
                               Controls controls) {
    const auto first = static_cast<std::uint32_t>(values_.size());
    extend(values_, matrix);
    Entry& entry = push(GateKind::matrix, targets, controls);
    entry.first_angle = first;
    entry.n_values = static_cast<std::uint32_t>(matrix.size());
    return *this;
}

GateList& GateList::add_diagonal(QubitList targets, std::span<const std::complex<double>> diagonal,
                                 Controls controls) {
    add_matrix(targets, diagonal, controls);
    entries_.back().kind = GateKind::diagonal;
    return *this;
}

GateList& GateList::add_phase_oracle(std::span<const std::uint64_t> marked, QubitList targets,
                                     Controls controls) {
    const auto first = static_cast<std::uint32_t>(marked_.size());
    extend(marked_, marked);
    Entry& entry = push(GateKind::phase_oracle, targets, controls);
    entry.first_angle = first;
    entry.n_values = static_cast<std::uint32_t>(marked.size());
    return *this;
}

GateList& GateList::append(GateView gate) {
    const QubitList targets(gate.targets);
    switch (gate.kind) {
        case GateKind::matrix:
            return add_matrix(targets, gate.values, gate.controls);
        case GateKind::diagonal:
            return add_diagonal(targets, gate.values, gate.controls);
        case GateKind::phase_oracle:
            return add_phase_oracle(gate.marked, targets, gate.controls);
        default:
            return add(gate.kind, targets, gate.angles, gate.controls);
    }
}

GateList& GateList::append(const GateList& other) {
    if (&other == this) return append(GateList(other));
    reserve(size() + other.size());
    for (const GateView gate : other)
        append(gate);
    return *this;
}

void GateList::clear() {
    *this = GateList();
}

void GateList::reserve(std::size_t n_gates) {
    // Growth stays geometric where lists are appended one by one.
    const auto reserve = [](auto& pool, std::size_t n) {
        if (n > pool.capacity()) pool.reserve(std::max(n, 2 * pool.capacity()));
    };
    reserve(entries_, n_gates);
    reserve(targets_, n_gates);
}

GateView GateList::operator[](std::size_t i) const {
    const Entry& entry = entries_[i];
    GateView gate{
        entry.kind, entry.controls, {targets_.data() + entry.first_target, entry.n_targets}, {}, {},
        {}};
    if (entry.kind == GateKind::phase_oracle) {
        gate.marked = {marked_.data() + entry.first_angle, entry.n_values};
    } else if (has_values(entry.kind)) {
        gate.values = {values_.data() + entry.first_angle, entry.n_values};
    } else {
        gate.angles = {angles_.data() + entry.first_angle, info(entry.kind).n_angles};
    }
    return gate;
}

GateList GateList::inverse() const {
    GateList list;
    list.reserve(size());
    for (std::size_t i = size(); i-- > 0;)
        append_related(list, (*this)[i], Wanted::inverse);
    return list;
}

GateList GateList::conjugate() const {
    GateList list;
    list.reserve(size());
    for (const GateView gate : *this)
        append_related(list, gate, Wanted::conjugate);
    return list;
}

GateList GateList::shifted(unsigned int by) const {
    GateList list(*this);
    for (unsigned int& target : list.targets_)
        target += by;
    for (Entry& entry : list.entries_) {
        entry.controls.mask <<= by;
        entry.controls.values <<= by;
    }
    if (n_qubits_ != 0) list.n_qubits_ += by;
    list.plans_ = {};
    return list;
}

bool operator==(const GateList& a, const GateList& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

std::shared_ptr<PlanCache> GateList::plans() const {
    const std::lock_guard lock(plans_mutex);
    if (!plans_.cache) plans_.cache = std::make_shared<PlanCache>();
    return plans_.cache;
}

}  // namespace pblinalg
