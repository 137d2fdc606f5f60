// From gates to operations: what a gate of the table comes to, and its coefficients.
#pragma once

#include <complex>
#include <pblinalg/circuit.hpp>
#include <pblinalg/gate_list.hpp>

#include "circuits/operations.hpp"

namespace pblinalg::cpu {

/// A diagonal over several qubits.
template <class T>
struct DiagonalTable {
    Index bits;                         ///< of the state's index that choose an entry
    std::vector<std::complex<T>> diag;  ///< entry extract_bits(index, bits) is that of `index`
};

/// A matrix of more than two qubits.
template <class T>
struct DenseMatrix {
    std::vector<unsigned int> qubits;
    std::vector<std::complex<T>> entries;
};

struct PhaseOracle {
    std::vector<unsigned int> qubits;
    std::vector<unsigned long long> marked;
};

/// Operations with everything that they refer to.
template <class T>
struct Program {
    /// Coefficients that follow from the parameters of a run.
    struct Bound {
        std::uint32_t gate;
        std::uint32_t factors;
    };

    /// What the derivative by the angle of a gate takes from an inner product: `weight` times it.
    /// The weights of U follow from its angles.
    struct InnerProduct {
        std::uint32_t gate;
        double weight;
    };
    /// Coefficients of an operation that stands for several (simplify.hpp).
    struct Product {
        enum class Form : unsigned char {
            rotation_x,
            rotation_y,
            diagonal,
            ratio,  ///< a diagonal divided by its first entry
            matrix1,
            matrix2,
        };
        Form form;
        std::uint32_t factors;  ///< where they go
        std::uint32_t first_term, last_term;
    };
    /// A factor of a product, in the order of gates.
    struct Term {
        /// The targets of the product that it acts on; or its first entry on all amplitudes.
        enum class On : unsigned char { first, second, both, both_exchanged, parity, all };
        Action action;
        bool inverted;
        On on;
        std::uint32_t factors;
    };

    unsigned int nqubits = 0;
    std::uint32_t n_gates = 0;
    std::vector<Operation> operations;
    std::vector<T> factors;  ///< as interleaved parts
    std::vector<Bound> bound;
    std::vector<Product> products;
    std::vector<Term> terms;
    std::vector<DiagonalTable<T>> tables;
    std::vector<DenseMatrix<T>> dense;
    std::vector<PhaseOracle> oracles;
    std::vector<InnerProduct> inner_products;  ///< of backward runs

    /// Forgets all gates and keeps the memory.
    void clear();
};

/// Appends a gate. Parametrised coefficients are left for `bind`.
template <class T>
void lower(const GateView& gate, Program<T>& program);

/// All gates of a list.
template <class T>
Program<T> lowered(const GateList& list, unsigned int nqubits);

/// The sign with which the angle of a gate enters those of its operations whose coefficients are
/// `place` behind the gate's first.
constexpr double angle_sign(GateKind kind, std::uint32_t place) {
    return (kind == GateKind::RYY || kind == GateKind::RZX) && place == 0 ? -1 : 1;
}

/// Appends gate `i` of a record.
/// @return false, with nothing appended, for a name that records do not know.
template <class T>
bool lower(const PybindLinAlgWCircuit<T>& record, std::size_t i, Program<T>& program);

/// Writes the coefficients that depend on parameters, and the products of merged operations.
/// @param factors  those of the program.
template <class T>
void bind(const Program<T>& program, const GateList& list, std::span<const double> values,
          T* factors);

}  // namespace pblinalg::cpu
