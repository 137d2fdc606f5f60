// After gate G(a) the derivative of <ket|bra> by an angle a is 2 Re <bra|G'(a) G(a)^-1|ket>, and
// G' G^-1 is a sum of Pauli operators where the controls say so, with S_P = Im <bra|P|ket>:
//   RX, RY     exp(-i a P / 2)               S_X, S_Y
//   both       exp(-i a Z / 2) on a parity   S_Z
//   phase      exp(i a (1 - Z) / 2)          S_Z - S_1
//   U = PH(phi) RY(theta) PH(lambda)         all four, turned by the angles
// The inverse list has the angles negated, and with them the derivatives.
#include "circuits/backward.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

namespace pblinalg::cpu {
namespace {

/// Appends the inner products of `operation`, which has an angle.
template <class T>
class InnerProductWriter {
  public:
    InnerProductWriter(Program<T>& program, const Operation& operation, std::uint32_t gate)
        : program_(program), operation_(operation), gate_(gate) {}

    void flip(Action action, double weight) {
        Operation& product = push(action, weight);
        product.targets[0] = operation_.targets[0];
        product.target_bits = operation_.target_bits;
    }
    void parity(Index selects, bool inverted, double weight) {
        Operation& product = push(Action::inner_parity, weight);
        product.selects = selects;
        product.inverted = inverted;
    }

  private:
    Operation& push(Action action, double weight) {
        Operation& product = program_.operations.emplace_back();
        product.action = action;
        product.controls = operation_.controls;
        product.control_values = operation_.control_values;
        product.data = static_cast<std::uint32_t>(program_.inner_products.size());
        program_.inner_products.push_back({gate_, weight});
        return product;
    }

    Program<T>& program_;
    const Operation& operation_;
    std::uint32_t gate_;
};

template <class T>
void append_inner_products(Program<T>& program, const Operation& operation, std::uint32_t gate,
                           double sign) {
    InnerProductWriter<T> to(program, operation, gate);
    switch (operation.action) {
        case Action::RX:
            return to.flip(Action::inner_x, -sign);
        case Action::RY:
            return to.flip(Action::inner_y, -sign);
        case Action::both:
            return to.parity(operation.selects, operation.inverted, -sign);
        case Action::phase:
            to.parity(operation.selects, operation.inverted, -sign);
            return to.parity(0, false, sign);
        case Action::matrix1:
            // `add_derivatives` weighs these.
            to.flip(Action::inner_x, 1);
            to.flip(Action::inner_y, 1);
            to.parity(operation.target_bits, false, 1);
            return to.parity(0, false, 1);
        default:
            return;
    }
}

/// Leaves out what commutes with all that follows: it changes no inner product.
void drop_unneeded(std::vector<Operation>& operations) {
    Index targets = 0, depends = 0;
    std::vector<bool> needed(operations.size());
    for (std::size_t i = operations.size(); i-- > 0;) {
        const Operation& operation = operations[i];
        needed[i] = operation.is_inner_product() || (operation.target_bits & (targets | depends)) ||
                    (operation.depends_on() & targets);
        if (!needed[i]) continue;
        targets |= operation.target_bits;
        depends |= operation.depends_on();
    }
    std::size_t kept = 0;
    std::uint32_t gates_before = Operation::inside_a_gate;
    for (std::size_t i = 0; i < operations.size(); ++i) {
        // The next operation finds the gates that a dropped one found.
        if (operations[i].gates_before != Operation::inside_a_gate)
            gates_before = operations[i].gates_before;
        if (!needed[i]) continue;
        operations[kept] = operations[i];
        operations[kept++].gates_before = std::exchange(gates_before, Operation::inside_a_gate);
    }
    operations.resize(kept);
}

}  // namespace

template <class T>
Program<T> lowered_backward(const GateList& inverse, unsigned int nqubits) {
    Program<T> program = lowered<T>(inverse, nqubits);
    std::vector<Operation> operations;
    std::swap(operations, program.operations);
    program.operations.reserve(operations.size() + program.bound.size() + 1);
    Operation& whole = program.operations.emplace_back();
    whole.action = Action::inner_one;
    whole.gates_before = 0;
    program.inner_products.push_back({0, 0});
    auto bound = program.bound.begin();
    std::uint32_t gate = 0;
    for (Operation& operation : operations) {
        if (operation.gates_before != Operation::inside_a_gate) gate = operation.gates_before;
        while (bound != program.bound.end() && bound->gate < gate)
            ++bound;
        if (bound != program.bound.end() && bound->gate == gate) {
            const std::size_t first = program.operations.size();
            append_inner_products(
                program, operation, gate,
                angle_sign(inverse[gate].kind, operation.factors - bound->factors));
            if (program.operations.size() > first)
                std::swap(program.operations[first].gates_before, operation.gates_before);
        }
        program.operations.push_back(operation);
    }
    drop_unneeded(program.operations);
    return program;
}

template <class T>
void add_derivatives(const Program<T>& program, const GateList& inverse,
                     std::span<const double> values, std::span<const double> inner_products,
                     double* gradient) {
    const auto add = [&](const Angle& angle, double derivative) {
        if (!angle.is_number()) gradient[angle.parameter] += angle.scale * derivative;
    };
    for (std::size_t i = 1; i < inner_products.size();) {
        const auto& [number, weight] = program.inner_products[i];
        const GateView gate = inverse[number];
        if (gate.kind != GateKind::U) {
            add(gate.angles[0], weight * inner_products[i++]);
            continue;
        }
        // The gate that ran forward is U(theta, phi, lambda).
        const double theta = -gate.angles[0].value(values), phi = -gate.angles[2].value(values);
        const double x = inner_products[i], y = inner_products[i + 1], z = inner_products[i + 2],
                     one = inner_products[i + 3];
        const double around = std::cos(phi) * x + std::sin(phi) * y;
        add(gate.angles[0], std::sin(phi) * x - std::cos(phi) * y);
        add(gate.angles[1], one - (std::cos(theta) * z + std::sin(theta) * around));
        add(gate.angles[2], one - z);
        i += 4;
    }
}

#define PBLINALG_INSTANTIATE(T)                                                                   \
    template Program<T> lowered_backward<T>(const GateList&, unsigned int);                       \
    template void add_derivatives<T>(const Program<T>&, const GateList&, std::span<const double>, \
                                     std::span<const double>, double*);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::cpu
