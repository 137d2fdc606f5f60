#include <algorithm>
#include <bit>
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

/// Guards `plans_` of all lists while runs make them.
std::mutex plans_mutex;

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
            std::vector<double> numbers;
            for (const Angle& angle : angles)
                numbers.push_back(angle.offset);
            const Values values = conjugated(gate_matrix(gate.kind, numbers));
            list.add_matrix(gate.targets, values, gate.controls);
            return;
        }
    }
    list.append(related);
}

}  // namespace

bool operator==(const GateView& a, const GateView& b) {
    return a.kind == b.kind && a.controls == b.controls &&
           std::ranges::equal(a.targets, b.targets) && std::ranges::equal(a.angles, b.angles) &&
           std::ranges::equal(a.values, b.values) && std::ranges::equal(a.marked, b.marked);
}

GateList::GateList() = default;
GateList::GateList(const GateList& other)
    : entries_(other.entries_),
      targets_(other.targets_),
      angles_(other.angles_),
      values_(other.values_),
      marked_(other.marked_),
      n_parameters_(other.n_parameters_),
      n_qubits_(other.n_qubits_) {
    // A first run of `other` in another thread may just make its plans.
    const std::lock_guard lock(plans_mutex);
    plans_ = other.plans_;
}
GateList::GateList(GateList&&) noexcept = default;
GateList& GateList::operator=(const GateList& other) {
    return *this = GateList(other);
}
GateList& GateList::operator=(GateList&&) noexcept = default;
GateList::~GateList() = default;

// Pools are filled before the entry that refers to them: what fails in between leaves the list as
// it was.
GateList::Entry& GateList::push(GateKind kind, QubitList targets, Controls controls) {
    const auto first = static_cast<std::uint32_t>(targets_.size());
    targets_.insert(targets_.end(), targets.begin(), targets.end());
    entries_.push_back({kind, static_cast<unsigned char>(targets.size()), first, 0, 0, controls});
    for (const unsigned int target : targets)
        n_qubits_ = std::max(n_qubits_, target + 1);
    n_qubits_ = std::max(n_qubits_, static_cast<unsigned int>(std::bit_width(controls.mask)));
    plans_.reset();
    return entries_.back();
}

GateList& GateList::add(GateKind kind, QubitList targets, std::span<const Angle> angles,
                        Controls controls) {
    const auto first = static_cast<std::uint32_t>(angles_.size());
    // Not insert: `angles` may lie in this very list.
    for (std::size_t i = 0; i < angles.size(); ++i) {
        const Angle angle = angles[i];
        angles_.push_back(angle);
        if (!angle.is_number()) n_parameters_ = std::max(n_parameters_, angle.parameter + 1);
    }
    push(kind, targets, controls).first_angle = first;
    return *this;
}

GateList& GateList::add_matrix(QubitList targets, std::span<const std::complex<double>> matrix,
                               Controls controls) {
    const auto first = static_cast<std::uint32_t>(values_.size());
    values_.insert(values_.end(), matrix.begin(), matrix.end());
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
    marked_.insert(marked_.end(), marked.begin(), marked.end());
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
    if (!empty()) list.n_qubits_ += by;
    list.plans_.reset();
    return list;
}

bool operator==(const GateList& a, const GateList& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

std::shared_ptr<PlanCache> GateList::plans() const {
    const std::lock_guard lock(plans_mutex);
    if (!plans_) plans_ = std::make_shared<PlanCache>();
    return plans_;
}

}  // namespace pblinalg
