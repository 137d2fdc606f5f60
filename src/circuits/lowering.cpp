// Every gate comes to moves, which cost nothing, around operations that have a kernel:
//   RXX(a, b) = CNOT(a, b) RX(a) CNOT(a, b), since CNOT turns the pairs |00>, |11> and |01>, |10>
//   into pairs that differ in a alone; RYY the same, with the angle negated where b is 0 then;
//   SQRTSWAP likewise, as a 2x2 matrix where b is 1; RZZ, and the factors of ISWAP, go by parity;
//   RZX(a, b) is RX(b), with the angle negated where a is 1.
#include "circuits/lowering.hpp"

#include <algorithm>
#include <bit>
#include <string_view>

#include "apply/diagonal.hpp"
#include "apply/matrix.hpp"
#include "circuits/simplify.hpp"
#include "gates/formulas.hpp"

namespace pblinalg::cpu {
namespace {

/// Marked values up to which an oracle is one controlled Z for each.
constexpr std::size_t max_marked_steps = 64;

/// Puts together the operations of one gate.
template <class T>
class Lowering {
  public:
    // Copies of controls and operations would wait for the narrow stores that have just written
    // them, so controls go by reference and operations are filled in place.

    /// @param controls  must outlive the object.
    Lowering(Program<T>& program, const Controls& controls)
        : program_(program), controls_(controls) {}

    Operation& push(Action action) {
        Operation& operation = program_.operations.emplace_back();
        operation.action = action;
        if (first_) operation.gates_before = program_.n_gates;
        first_ = false;
        return operation;
    }

    void mix(Action action, unsigned int target, const Controls& controls,
             std::uint32_t factors = 0) {
        Operation& operation = push(action);
        operation.inverted = true;
        operation.targets[0] = static_cast<unsigned char>(target);
        operation.target_bits = bit(target);
        operation.factors = factors;
        control(operation, controls);
    }
    void mix(Action action, unsigned int target, std::uint32_t factors = 0) {
        mix(action, target, controls_, factors);
    }

    /// X where the controls say so: one of them as the selecting bit of a CNOT.
    void flip(unsigned int target, const Controls& controls) {
        Operation& operation = push(Action::X);
        operation.inverted = true;
        operation.targets[0] = static_cast<unsigned char>(target);
        operation.target_bits = bit(target);
        select_by_control(operation, controls);
    }

    /// CNOT without the gate's controls: it is undone by a later one.
    void frame(unsigned int control, unsigned int target) { flip(target, Controls({control})); }

    void swap(unsigned int a, unsigned int b) {
        if (controls_.mask == 0) {
            pair(Action::SWAP, a, b);
            return;
        }
        frame(b, a);
        flip(b, with(a));
        frame(b, a);
    }

    /// A factor, or -1, where the parity of `selects` is odd; everywhere without any.
    void multiply(Action action, Index selects, std::uint32_t factors = 0) {
        Operation& operation = push(action);
        operation.selects = selects;
        operation.factors = factors;
        if (selects == 0) {
            operation.inverted = true;
            select_by_control(operation, controls_);
        } else {
            control(operation, controls_);
        }
    }

    void table(std::vector<std::complex<T>> diag, Index bits) {
        program_.tables.push_back({bits, std::move(diag)});
        Operation& operation = push(Action::table);
        operation.selects = bits;
        operation.data = static_cast<std::uint32_t>(program_.tables.size() - 1);
        control(operation, controls_);
    }

    /// On two targets, the first listed one first.
    void pair(Action action, unsigned int a, unsigned int b, std::uint32_t factors = 0) {
        Operation& operation = push(action);
        operation.inverted = true;
        operation.targets[0] = static_cast<unsigned char>(a);
        operation.targets[1] = static_cast<unsigned char>(b);
        operation.target_bits = bit(a) | bit(b);
        operation.factors = factors;
        control(operation, controls_);
    }

    /// On the whole state only.
    void alone(Action action, Index targets, Index selects, std::size_t data) {
        Operation& operation = push(action);
        operation.inverted = true;
        operation.alone = true;
        operation.target_bits = targets;
        operation.selects = selects;
        operation.data = static_cast<std::uint32_t>(data);
        if (selects == 0) control(operation, controls_);
    }

    /// The gate's controls and one more qubit.
    Controls with(unsigned int qubit, bool value = true) const {
        Controls more = controls_;
        more.mask |= bit(qubit);
        if (value) more.values |= bit(qubit);
        return more;
    }

    std::uint32_t factors(std::initializer_list<std::complex<T>> values) {
        const auto first = static_cast<std::uint32_t>(program_.factors.size());
        for (const std::complex<T>& value : values) {
            program_.factors.push_back(value.real());
            program_.factors.push_back(value.imag());
        }
        return first;
    }

  private:
    static void control(Operation& operation, const Controls& controls) {
        operation.controls = controls.mask;
        operation.control_values = controls.values;
    }
    static void select_by_control(Operation& operation, const Controls& controls) {
        if (controls.mask == 0) return;
        operation.selects = lowest_bit(controls.mask);
        operation.inverted = !(controls.values & operation.selects);
        operation.controls = controls.mask & ~operation.selects;
        operation.control_values = controls.values & operation.controls;
    }

    Program<T>& program_;
    const Controls& controls_;
    bool first_ = true;
};

/// Parts of coefficients that follow from a gate's angles.
constexpr unsigned int n_angle_factors(GateKind kind) {
    using enum GateKind;
    return kind == U || kind == RYY || kind == RZX ? 8 : info(kind).n_angles == 0 ? 0 : 4;
}

/// Writes the coefficients that follow from the angles.
template <class T>
void write_factors(GateKind kind, const double* angles, T* to) {
    const auto write = [&](std::complex<T> value) {
        *to++ = value.real();
        *to++ = value.imag();
    };
    const auto theta = static_cast<T>(angles[0]);
    switch (kind) {
        case GateKind::RX:
        case GateKind::RXX:
            for (const auto& factor : GateRX::factors(theta))
                write(factor);
            return;
        case GateKind::RYY:
        case GateKind::RZX:
            for (const T angle : {-theta, theta}) {
                for (const auto& factor : GateRX::factors(angle))
                    write(factor);
            }
            return;
        case GateKind::RY:
            for (const auto& factor : GateRY::factors(theta))
                write(factor);
            return;
        case GateKind::RZ:
        case GateKind::RZZ:
            for (const auto& factor : GateRZ<T, true>(theta).diagonal)
                write(factor);
            return;
        case GateKind::PH:
        case GateKind::GPHASE:
            write(T(1));
            write(GatePH<T>(theta).phase);
            return;
        case GateKind::U:
            for (const auto& factor : GateU::factors(angles[0], angles[1], angles[2]))
                write(std::complex<T>(factor));
            return;
        default:
            return;
    }
}

/// The values of the listed qubits as bits of an index; the first one is the most significant bit.
Index place_bits(Index value, std::span<const unsigned int> qubits) {
    Index index = 0;
    for (std::size_t i = qubits.size(); i-- > 0; value >>= 1)
        index |= (value & 1) << qubits[i];
    return index;
}

Index bits_of(std::span<const unsigned int> qubits) {
    Index bits = 0;
    for (const unsigned int qubit : qubits)
        bits |= bit(qubit);
    return bits;
}

template <class T>
void lower_diagonal(Lowering<T>& to, std::span<const unsigned int> qubits,
                    const std::vector<std::complex<T>>& diag) {
    if (qubits.empty()) return to.multiply(Action::phase, 0, to.factors({T(1), diag[0]}));
    if (qubits.size() == 1) {
        to.multiply(Action::both, bit(qubits[0]), to.factors({diag[0], diag[1]}));
        return;
    }
    std::vector<std::complex<T>> sorted(diag.size());
    fill_sorted_diag<std::complex<T>>(sorted.data(), qubits, diag, bits_of(qubits));
    to.table(std::move(sorted), bits_of(qubits));
}

template <class T>
void lower_matrix(Lowering<T>& to, const GateView& gate, Program<T>& program) {
    std::vector<std::complex<T>> m(gate.values.begin(), gate.values.end());
    const Index rows = bit(static_cast<unsigned int>(gate.targets.size()));
    if (is_diagonal<T>(m, rows))
        return lower_diagonal<T>(to, gate.targets, diagonal_of<T>(m, rows));
    if (gate.targets.size() <= 2) {
        const auto factors = static_cast<std::uint32_t>(program.factors.size());
        for (const std::complex<T>& entry : m) {
            program.factors.push_back(entry.real());
            program.factors.push_back(entry.imag());
        }
        if (gate.targets.size() == 1) {
            to.mix(Action::matrix1, gate.targets[0], factors);
        } else {
            to.pair(Action::matrix2, gate.targets[0], gate.targets[1], factors);
        }
        return;
    }
    program.dense.push_back({{gate.targets.begin(), gate.targets.end()}, std::move(m)});
    to.alone(Action::dense, bits_of(gate.targets), 0, program.dense.size() - 1);
}

template <class T>
void lower_oracle(const GateView& gate, Program<T>& program) {
    const unsigned int width = static_cast<unsigned int>(gate.targets.size());
    std::vector<unsigned long long> marked;
    for (const std::uint64_t value : gate.marked) {
        if (width >= 64 || value < bit(width)) marked.push_back(value);
    }
    std::ranges::sort(marked);
    marked.erase(std::unique(marked.begin(), marked.end()), marked.end());
    Lowering<T> whole(program, gate.controls);
    if (gate.targets.empty()) {
        if (!marked.empty()) whole.multiply(Action::Z, 0);
    } else if (marked.size() <= max_marked_steps) {
        bool first = true;
        for (const unsigned long long value : marked) {
            Controls controls = gate.controls;
            controls.mask |= bits_of(gate.targets);
            controls.values |= place_bits(value, gate.targets);
            Lowering<T>(program, controls).multiply(Action::Z, 0);
            if (!first) program.operations.back().gates_before = Operation::inside_a_gate;
            first = false;
        }
    } else {
        // Controls are read as further bits of the value.
        std::vector<unsigned int> qubits;
        Index control_values = 0;
        for (Index rest = gate.controls.mask; rest != 0; rest &= rest - 1) {
            qubits.push_back(static_cast<unsigned int>(std::countr_zero(rest)));
            control_values = control_values << 1 | ((gate.controls.values & lowest_bit(rest)) != 0);
        }
        qubits.insert(qubits.end(), gate.targets.begin(), gate.targets.end());
        for (unsigned long long& value : marked)
            value |= control_values << width;
        const Index bits = bits_of(qubits);
        program.oracles.push_back({std::move(qubits), std::move(marked)});
        whole.alone(Action::oracle, 0, bits, program.oracles.size() - 1);
    }
}

/// A gate of the table whose coefficients, if it has angles, are at `factors`.
template <class T>
void lower_named(GateKind kind, const unsigned int* q, const Controls& controls,
                 std::uint32_t factors, Program<T>& program) {
    using C = std::complex<T>;
    const T half(0.5), diagonal = inv_sqrt2<T>;
    Lowering<T> to(program, controls);
    const auto phase = [&](C factor, Index selects) {
        to.multiply(Action::phase, selects, to.factors({C(1), factor}));
    };
    const auto between_frames = [&](const auto& body) {
        to.frame(q[0], q[1]);
        body();
        to.frame(q[0], q[1]);
    };
    switch (kind) {
        case GateKind::H:
            return to.mix(Action::H, q[0]);
        case GateKind::X:
            return to.flip(q[0], controls);
        case GateKind::Y:
            return to.mix(Action::Y, q[0]);
        case GateKind::Z:
            return to.multiply(Action::Z, bit(q[0]));
        case GateKind::S:
            return phase(C(0, 1), bit(q[0]));
        case GateKind::Sdg:
            return phase(C(0, -1), bit(q[0]));
        case GateKind::T:
            return phase(C(diagonal, diagonal), bit(q[0]));
        case GateKind::Tdg:
            return phase(C(diagonal, -diagonal), bit(q[0]));
        case GateKind::SX:
        case GateKind::SXdg: {
            const T sign = kind == GateKind::SX ? half : -half;
            const C stay(half, sign), cross(half, -sign);
            return to.mix(Action::matrix1, q[0], to.factors({stay, cross, cross, stay}));
        }
        case GateKind::PH:
            return to.multiply(Action::phase, bit(q[0]), factors);
        case GateKind::RX:
            return to.mix(Action::RX, q[0], factors);
        case GateKind::RY:
            return to.mix(Action::RY, q[0], factors);
        case GateKind::RZ:
            return to.multiply(Action::both, bit(q[0]), factors);
        case GateKind::U:
            return to.mix(Action::matrix1, q[0], factors);
        case GateKind::YtoZ:
            return to.mix(Action::YtoZ, q[0]);
        case GateKind::ZtoY:
            return to.mix(Action::ZtoY, q[0]);
        case GateKind::GPHASE:
            return to.multiply(Action::phase, 0, factors);
        case GateKind::SWAP:
            return to.swap(q[0], q[1]);
        case GateKind::SQRTSWAP:
        case GateKind::SQRTSWAPdg: {
            const T sign = kind == GateKind::SQRTSWAP ? half : -half;
            const C stay(half, sign), cross(half, -sign);
            return between_frames([&] {
                to.mix(Action::matrix1, q[0], to.with(q[1]),
                       to.factors({stay, cross, cross, stay}));
            });
        }
        case GateKind::ISWAP:
        case GateKind::ISWAPdg:
            to.swap(q[0], q[1]);
            return phase(C(0, kind == GateKind::ISWAP ? 1 : -1), bit(q[0]) | bit(q[1]));
        case GateKind::RXX:
            return between_frames([&] { to.mix(Action::RX, q[0], factors); });
        case GateKind::RYY:
            return between_frames([&] {
                to.mix(Action::RX, q[0], to.with(q[1], false), factors);
                to.mix(Action::RX, q[0], to.with(q[1], true), factors + 4);
            });
        case GateKind::RZX:
            to.mix(Action::RX, q[1], to.with(q[0], true), factors);
            return to.mix(Action::RX, q[1], to.with(q[0], false), factors + 4);
        case GateKind::RZZ:
            return to.multiply(Action::both, bit(q[0]) | bit(q[1]), factors);
        case GateKind::matrix:
        case GateKind::diagonal:
        case GateKind::phase_oracle:
            return;
    }
}

/// The letters of a short name as one number; other numbers, if any, for longer ones.
constexpr std::uint64_t packed(std::string_view name) {
    std::uint64_t key = name.size();
    for (std::size_t i = 0; i < name.size() && i < 7; ++i)
        key = key << 8 | static_cast<unsigned char>(name[i]);
    return key;
}

constexpr std::size_t n_record_gates =
    std::ranges::count_if(gate_table, [](const GateInfo& gate) { return gate.in_record; });

/// The gates that records know, CNOT aside.
struct RecordGate {
    std::uint64_t key;
    GateKind kind;
};
constexpr auto record_gates = [] {
    std::array<RecordGate, n_record_gates> gates{};
    std::size_t n = 0;
    for (const GateInfo& gate : gate_table) {
        if (gate.in_record) gates[n++] = {packed(gate.name), gate.kind};
    }
    return gates;
}();

std::optional<GateKind> record_gate(std::string_view name) {
    const std::uint64_t key = packed(name);
    for (const RecordGate& gate : record_gates) {
        if (gate.key == key) return gate.kind;
    }
    return std::nullopt;
}

template <class T>
std::uint32_t append_angle_factors(GateKind kind, const double* angles, Program<T>& program) {
    const auto first = static_cast<std::uint32_t>(program.factors.size());
    program.factors.resize(first + n_angle_factors(kind));
    write_factors(kind, angles, program.factors.data() + first);
    return first;
}

}  // namespace

template <class T>
void Program<T>::clear() {
    n_gates = 0;
    operations.clear();
    factors.clear();
    bound.clear();
    products.clear();
    terms.clear();
    tables.clear();
    dense.clear();
    oracles.clear();
}

template <class T>
void lower(const GateView& gate, Program<T>& program) {
    Lowering<T> to(program, gate.controls);
    switch (gate.kind) {
        case GateKind::matrix:
            lower_matrix(to, gate, program);
            break;
        case GateKind::diagonal:
            lower_diagonal<T>(to, gate.targets, {gate.values.begin(), gate.values.end()});
            break;
        case GateKind::phase_oracle:
            lower_oracle(gate, program);
            break;
        default: {
            double angles[3] = {};
            bool bound = false;
            for (std::size_t i = 0; i < gate.angles.size(); ++i) {
                angles[i] = gate.angles[i].offset;
                bound |= !gate.angles[i].is_number();
            }
            std::uint32_t factors = 0;
            if (!gate.angles.empty()) factors = append_angle_factors(gate.kind, angles, program);
            if (bound) program.bound.push_back({program.n_gates, factors});
            lower_named(gate.kind, gate.targets.data(), gate.controls, factors, program);
        }
    }
    ++program.n_gates;
}

template <class T>
Program<T> lowered(const GateList& list, unsigned int nqubits) {
    Program<T> program;
    program.nqubits = nqubits;
    program.operations.reserve(list.size() + list.size() / 4);
    program.factors.reserve(4 * list.size());
    for (const GateView gate : list)
        lower(gate, program);
    return program;
}

template <class T>
bool lower(const PybindLinAlgWCircuit<T>& record, std::size_t i, Program<T>& program) {
    const std::string_view name = record.gate_names[i];
    const unsigned int* qubits = record.gate_qubits[i].data();
    if (name == "CNOT") {
        const unsigned int control = qubits[0], target = qubits[1];
        if (control < program.nqubits) {
            Lowering<T>(program, {}).frame(control, target);
        } else {
            // A control that the state does not have leaves the lower half of the groups: those
            // whose highest bit, the target aside, is 0.
            const Index free_bits = low_mask(program.nqubits) & ~bit(target);
            const auto highest = static_cast<unsigned int>(std::bit_width(free_bits) - 1);
            if (free_bits != 0) Lowering<T>(program, {}).flip(target, Controls({highest}, 0));
        }
    } else {
        const std::optional<GateKind> kind = record_gate(name);
        if (!kind) return false;
        std::uint32_t factors = 0;
        if (info(*kind).n_angles != 0) {
            const double angle = record.gate_params[i][0];
            factors = append_angle_factors(*kind, &angle, program);
        }
        lower_named(*kind, qubits, {}, factors, program);
    }
    ++program.n_gates;
    return true;
}

template <class T>
void bind(const Program<T>& program, const GateList& list, std::span<const double> values,
          T* factors) {
    for (const auto& bound : program.bound) {
        const GateView gate = list[bound.gate];
        double angles[3] = {};
        for (std::size_t i = 0; i < gate.angles.size(); ++i)
            angles[i] = gate.angles[i].value(values);
        write_factors(gate.kind, angles, factors + bound.factors);
    }
    form_products(program, factors);
}

#define PBLINALG_INSTANTIATE(T)                                                       \
    template struct Program<T>;                                                       \
    template void lower<T>(const GateView&, Program<T>&);                             \
    template Program<T> lowered<T>(const GateList&, unsigned int);                    \
    template bool lower<T>(const PybindLinAlgWCircuit<T>&, std::size_t, Program<T>&); \
    template void bind<T>(const Program<T>&, const GateList&, std::span<const double>, T*);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
