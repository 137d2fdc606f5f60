// Compiled like exact_blocks.cpp: once per instruction set, without contraction or automatic
// vectorisation, and without instantiating anything of the standard library.
#include "kernels/blocks/circuit_blocks.hpp"

#include "kernels/blocks/gate_vectors.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

template <class T>
using Exact = Planar<this_set, T, false>;

/// How a block was run: each way is exact where the one before it might not be.
enum class Way {
    shortcut,   ///< vectors, zero parts of coefficients left out
    products,   ///< vectors, plain products
    recovered,  ///< one amplitude at a time, products with recovery of infinities
};

template <Way way, class T>
PBLINALG_ALWAYS_INLINE void run_step(PlanarMemory<T> block, const CircuitStep<T>& step) {
    visit_gate<T>(step.kind, [&]<class Gate>() {
        const Index count = step.walk.groups.count;
        if constexpr (way == Way::recovered) {
            update_scalars<Gate, Scalar<this_set, T>>(block, step.walk, 0, count, step.factors);
        } else {
            constexpr bool drops = way == Way::shortcut && Gate::has_zero_products;
            const GateVectors<Gate, Planar<this_set, T, drops>> vectors(step.walk);
            update_vectors(block, vectors, 0, count >> vectors.group_bits, step.factors);
        }
    });
}

/// Copies a block in, parts apart. The walk is the block's: its active bits in the array.
template <class T>
void gather(const T* array, Index base, Index active, PlanarMemory<T> block, Index size) {
    using V = Exact<T>;
    const Index above_lanes = active & ~(Index{V::lanes} - 1);
    Index from = 0;
    for (Index to = 0; to < size; to += V::lanes) {
        V::deinterleave(array + 2 * (base | from)).store(block, to);
        from = next_subset(from, above_lanes);
    }
}

template <class T>
void scatter(T* array, Index base, Index active, PlanarMemory<T> block, Index size) {
    using V = Exact<T>;
    const Index above_lanes = active & ~(Index{V::lanes} - 1);
    Index to = 0;
    for (Index from = 0; from < size; from += V::lanes) {
        V::load(block, from).interleave(array + 2 * (base | to));
        to = next_subset(to, above_lanes);
    }
}

/// Runs the whole sequence on a fresh copy of the block.
/// @return false when the result might differ from the definition.
template <Way way, class T>
[[gnu::noinline]] bool run_sequence(const T* array, Index base, const BlockPass<T>& pass,
                                    Index outer_base, PlanarMemory<T> block) {
    const Index size = bit(pass.block_bits);
    gather(array, base, pass.active, block, size);
    for (std::size_t i = 0; i < pass.n_operations; ++i) {
        const CircuitOperation<T>& operation = pass.operations[i];
        const unsigned int parity = (count_bits(base & operation.block_parity) +
                                     count_bits(outer_base & operation.outer_parity)) &
                                    1;
        for (unsigned int s = operation.steps[parity]; s < operation.steps[parity + 1]; ++s) {
            run_step<way>(block, pass.steps[s]);
        }
    }
    // What went wrong on the way shows at the end: no gate turns NaN, an infinity or a wrong sign
    // of 0 into an ordinary number.
    using V = Exact<T>;
    if constexpr (way == Way::shortcut) return V::all_ordinary(block, size);
    if constexpr (way == Way::products) {
        for (Index i = 0; i < size; i += V::lanes) {
            if (V::holds_nan(V::load(block, i))) return false;
        }
    }
    return true;
}

}  // namespace

template <InstructionSet set, class T>
unsigned int block_lane_bits() {
    return Exact<T>::lane_bits;
}

template <InstructionSet set, class T>
void run_blocks(T* array, const BlockPass<T>& pass, Index outer_base, Index begin, Index end,
                T* scratch, bool& shortcut) {
    const Index size = bit(pass.block_bits);
    const PlanarMemory<T> block{scratch, scratch + size};
    walk_groups(pass.inactive, 0, begin, end, [&](Index base) {
        shortcut = shortcut && run_sequence<Way::shortcut>(array, base, pass, outer_base, block);
        if (!shortcut && !run_sequence<Way::products>(array, base, pass, outer_base, block)) {
            run_sequence<Way::recovered>(array, base, pass, outer_base, block);
        }
        scatter(array, base, pass.active, block, size);
    });
}

#define PBLINALG_INSTANTIATE(T)                           \
    template unsigned int block_lane_bits<this_set, T>(); \
    template void run_blocks<this_set, T>(T*, const BlockPass<T>&, Index, Index, Index, T*, bool&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)

}  // namespace pblinalg::cpu
