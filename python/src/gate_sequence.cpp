// Recording and replaying of gate sequences.
#include "gate_sequence.hpp"

#include <algorithm>
#include <chrono>
#include <type_traits>

namespace pblinalg::python {
namespace {

constexpr const char* gate_names[] = {"H",    "X",        "Y",     "Z",      "S",
                                      "T",    "PH",       "RX",    "RY",     "RZ",
                                      "YtoZ", "ZtoY",     "CNOT",  "CCNOT",  "CSIGN",
                                      "SWAP", "SQRTSWAP", "ISWAP", "matrix", "phase_oracle"};

bool takes_angle(GateKind kind) {
    return kind == GateKind::PH || kind == GateKind::RX || kind == GateKind::RY ||
           kind == GateKind::RZ;
}

/// The gates that the library's circuit driver knows.
bool fits_record(const GateSequence::Gate& gate) {
    if (gate.controls != 0) return false;
    switch (gate.kind) {
        case GateKind::H:
        case GateKind::X:
        case GateKind::Y:
        case GateKind::Z:
        case GateKind::RX:
        case GateKind::RY:
        case GateKind::RZ:
        case GateKind::PH:
        case GateKind::T:
        case GateKind::CNOT:
        case GateKind::SWAP:
            return true;
        default:
            return false;
    }
}

/// Gates between two looks at pending signals: about half a second's work, and enough of them for
/// the library to gather many into one pass over memory.
std::size_t gates_per_piece(unsigned int nqubits) {
    return std::max<std::size_t>(16, (std::size_t{1} << 32) >> nqubits);
}

/// Single gates are followed by a look at pending signals when this time has passed.
constexpr std::chrono::milliseconds patience(20);

}  // namespace

const char* name_of(GateKind kind) {
    return gate_names[static_cast<std::size_t>(kind)];
}

GateSequence::Qubits GateSequence::targets(const Gate& gate) const {
    const auto first = qubits_.begin() + static_cast<std::ptrdiff_t>(gate.first_qubit);
    return Qubits(first, first + gate.targets);
}

GateSequence::Qubits GateSequence::controls(const Gate& gate) const {
    const auto first =
        qubits_.begin() + static_cast<std::ptrdiff_t>(gate.first_qubit) + gate.targets;
    return Qubits(first, first + gate.controls);
}

GateSequence::Matrix GateSequence::matrix(const Gate& gate) const {
    const auto first = values_.begin() + static_cast<std::ptrdiff_t>(gate.first_value);
    return Matrix(first, first + static_cast<std::ptrdiff_t>(gate.values));
}

std::vector<unsigned long long> GateSequence::marked(const Gate& gate) const {
    const auto first = marked_.begin() + static_cast<std::ptrdiff_t>(gate.first_value);
    return {first, first + static_cast<std::ptrdiff_t>(gate.values)};
}

bool GateSequence::has_angle(const Gate& gate) const {
    return takes_angle(gate.kind);
}

void GateSequence::add(GateKind kind, const Qubits& targets, const OptionalQubits& controls) {
    float_pieces_.clear();
    double_pieces_.clear();
    const auto n_controls = static_cast<unsigned int>(controls ? controls->size() : 0);
    gates_.push_back({kind, static_cast<unsigned int>(targets.size()), n_controls, qubits_.size(),
                      values_.size(), 0});
    qubits_.insert(qubits_.end(), targets.begin(), targets.end());
    if (controls) qubits_.insert(qubits_.end(), controls->begin(), controls->end());
}

void GateSequence::add(GateKind kind, const Qubits& targets, const OptionalQubits& controls,
                       double theta) {
    add(kind, targets, controls);
    gates_.back().values = 1;
    values_.emplace_back(theta, 0.0);
}

void GateSequence::add(GateKind kind, const Qubits& targets, const OptionalQubits& controls,
                       const Matrix& matrix) {
    add(kind, targets, controls);
    gates_.back().values = matrix.size();
    values_.insert(values_.end(), matrix.begin(), matrix.end());
}

void GateSequence::apply_phase_oracle(const std::vector<unsigned long long>& marked,
                                      const Qubits& qubits) {
    add(GateKind::phase_oracle, qubits, {});
    gates_.back().first_value = marked_.size();
    gates_.back().values = marked.size();
    marked_.insert(marked_.end(), marked.begin(), marked.end());
}

void GateSequence::extend(const GateSequence& other) {
    float_pieces_.clear();
    double_pieces_.clear();
    // Indices, not iterators: `other` may be this very sequence.
    const std::size_t count = other.gates_.size();
    for (std::size_t i = 0; i < count; ++i) {
        const Gate gate = other.gates_[i];
        const Qubits targets = other.targets(gate);
        const Qubits controls = other.controls(gate);
        if (gate.kind == GateKind::phase_oracle) {
            apply_phase_oracle(other.marked(gate), targets);
        } else {
            add(gate.kind, targets, controls, other.matrix(gate));
        }
    }
}

template <class T>
const GateSequence::Pieces<T>& GateSequence::pieces() {
    Pieces<T>& pieces = [this]() -> Pieces<T>& {
        if constexpr (std::is_same_v<T, float>) {
            return float_pieces_;
        } else {
            return double_pieces_;
        }
    }();
    if (!pieces.empty()) return pieces;
    const std::size_t longest = gates_per_piece(nqubits);
    for (std::size_t i = 0; i < gates_.size(); ++i) {
        const Gate& gate = gates_[i];
        if (!fits_record(gate)) {
            pieces.push_back({i, 1, nullptr});
            continue;
        }
        const bool joins = !pieces.empty() && pieces.back().record && pieces.back().count < longest;
        if (!joins) {
            pieces.push_back({i, 0, std::make_unique<PybindLinAlgWCircuit<T>>(nqubits)});
        }
        // Built in place: `add_gate` would copy each list twice.
        PybindLinAlgWCircuit<T>& record = *pieces.back().record;
        const unsigned int* const first = qubits_.data() + gate.first_qubit;
        record.gate_names.emplace_back(name_of(gate.kind));
        record.gate_qubits.emplace_back(first, first + gate.targets);
        record.gate_params.emplace_back();
        if (has_angle(gate)) record.gate_params.back().push_back(static_cast<T>(angle(gate)));
        ++pieces.back().count;
    }
    return pieces;
}

template <class T>
void GateSequence::apply_one(BoundState<T>& state, const Gate& gate) const {
    const unsigned int* const q = qubits_.data() + gate.first_qubit;
    const T theta = takes_angle(gate.kind) ? static_cast<T>(angle(gate)) : T(0);
    OptionalQubits controls;
    if (gate.controls != 0) controls = this->controls(gate);
    switch (gate.kind) {
        case GateKind::H:
            return state.apply_H(q[0], controls);
        case GateKind::X:
            return state.apply_X(q[0], controls);
        case GateKind::Y:
            return state.apply_Y(q[0], controls);
        case GateKind::Z:
            return state.apply_Z(q[0], controls);
        case GateKind::S:
            return state.apply_S(q[0], controls);
        case GateKind::T:
            return state.apply_T(q[0], controls);
        case GateKind::PH:
            return state.apply_PH(q[0], theta, controls);
        case GateKind::RX:
            return state.apply_RX(q[0], theta, controls);
        case GateKind::RY:
            return state.apply_RY(q[0], theta, controls);
        case GateKind::RZ:
            return state.apply_RZ(q[0], theta, controls);
        case GateKind::YtoZ:
            return state.apply_YtoZ(q[0], controls);
        case GateKind::ZtoY:
            return state.apply_ZtoY(q[0], controls);
        case GateKind::CNOT:
            return state.apply_CNOT(q[0], q[1]);
        case GateKind::CCNOT:
            return state.apply_CCNOT(q[0], q[1], q[2]);
        case GateKind::CSIGN:
            return state.apply_CSIGN(q[0], q[1]);
        case GateKind::SWAP:
            return state.apply_SWAP(q[0], q[1]);
        case GateKind::SQRTSWAP:
            return state.apply_SQRTSWAP(q[0], q[1]);
        case GateKind::ISWAP:
            return state.apply_ISWAP(q[0], q[1]);
        case GateKind::phase_oracle:
            return state.apply_phase_oracle(marked(gate), targets(gate));
        case GateKind::matrix:
            break;
    }
    const std::complex<double>* const first = values_.data() + gate.first_value;
    const typename BoundState<T>::Matrix matrix(first, first + gate.values);
    if (gate.targets == 1 && !controls) {
        state.apply_1qbit_gate(q[0], matrix);
    } else if (gate.targets == 1) {
        state.apply_1qbit_ctrl_gate(*controls, q[0], matrix);
    } else if (gate.targets == 2 && !controls) {
        state.apply_2qbit_gate(q[0], q[1], matrix);
    } else if (gate.targets == 2) {
        state.apply_2qbit_ctrl_gate(*controls, q[0], q[1], matrix);
    } else {
        // The controlled member, also without controls: it takes diagonals of any size.
        state.apply_nqbit_ctrl_gate(this->controls(gate), targets(gate), matrix);
    }
}

template <class T>
void GateSequence::run_pieces(BoundState<T>& state, const Pieces<T>& pieces, std::size_t& next) {
    const auto begin = std::chrono::steady_clock::now();
    while (next < pieces.size()) {
        const Piece<T>& piece = pieces[next++];
        if (piece.record) {
            state.simulate_circuit(*piece.record);
        } else {
            apply_one(state, gates_[piece.first]);
        }
        state.gates_applied += piece.count;
        // The clock is read once in a while only where gates are shorter than reading it.
        const bool look = state.size >= min_unlocked_size || next % 64 == 0;
        if (look && std::chrono::steady_clock::now() - begin > patience) return;
    }
}

template <class T>
void GateSequence::apply(BoundState<T>& state, const std::function<void(std::size_t)>& between) {
    const Pieces<T>& pieces = this->pieces<T>();
    std::size_t next = 0;
    while (next < pieces.size()) {
        {
            const Use use(state);
            state.require_amplitudes();
            if (state.nqubits != nqubits)
                raise(PyExc_ValueError, "the state has %u qubits; the gates were made for %u",
                      state.nqubits, nqubits);
            const Unlocked unlocked(state.size * gates_.size() >= min_unlocked_size);
            run_pieces(state, pieces, next);
        }
        between(next < pieces.size() ? pieces[next].first : gates_.size());
    }
}

template void GateSequence::apply<float>(BoundState<float>&,
                                         const std::function<void(std::size_t)>&);
template void GateSequence::apply<double>(BoundState<double>&,
                                          const std::function<void(std::size_t)>&);

}  // namespace pblinalg::python
