// Compiled once per instruction set, PBLINALG_INSTRUCTION_SET naming it, with contraction of
// multiply and add. As in exact_blocks.cpp, nothing of the standard library may be instantiated.
#include "kernels/blocks/fused_blocks.hpp"

#include "kernels/blocks/unrolled.hpp"
#include "kernels/blocks/values.hpp"
#include "kernels/blocks/vector_walk.hpp"
#include "kernels/blocks/walk_groups.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

/// Steps of the walk that are multiplied together: each matrix entry, once in a register, serves
/// all of them. With `max_tile_rows` rows this fills the registers with accumulators.
constexpr int steps_at_once = this_set == InstructionSet::avx512 ? 4 : 2;
constexpr unsigned int max_tile_rows = 4;

/// Where a worker keeps what it needs, cut from its scratch.
template <class V, class T>
struct Scratch {
    T* matrix;       ///< the worker's copy: per tile of rows, column by column, one entry per row
    V* old;          ///< gathered amplitudes, [row][step], each followed by i times itself
    V* fresh;        ///< results, [step][row]
    Index* offsets;  ///< amplitudes from a step's base to the vector of each row

    static std::size_t bytes(unsigned int n_targets) {
        const std::size_t rows = std::size_t{1} << n_targets;
        return rows * rows * 2 * sizeof(T) + rows * steps_at_once * 3 * sizeof(V) +
               rows * sizeof(Index) + 64;
    }

    Scratch(void* memory, unsigned int n_targets) {
        const std::size_t rows = std::size_t{1} << n_targets;
        old = static_cast<V*>(memory);
        fresh = old + rows * steps_at_once * 2;
        matrix = reinterpret_cast<T*>(fresh + rows * steps_at_once);
        offsets = reinterpret_cast<Index*>(matrix + 2 * rows * rows);
    }
};

template <class T>
void pack_matrix(T* to, const T* matrix, Index rows, unsigned int tile_rows) {
    for (Index tile = 0; tile < rows; tile += tile_rows) {
        for (Index c = 0; c < rows; ++c) {
            for (unsigned int r = 0; r < tile_rows; ++r, to += 2) {
                to[0] = matrix[2 * ((tile + r) * rows + c)];
                to[1] = matrix[2 * ((tile + r) * rows + c) + 1];
            }
        }
    }
}

/// matrix * old for one tile of rows and `steps` steps: calls `put(r, s, value)` for each result.
/// @return whether a part of a result is NaN.
template <unsigned int tile_rows, int steps, class V, class T, class Put>
PBLINALG_ALWAYS_INLINE bool multiply_tile(const T* packed, const V* old, Index rows,
                                          const Put& put) {
    typename V::Elements sums[tile_rows][steps] = {};
    for (Index c = 0; c < rows; ++c, packed += 2 * tile_rows, old += 2 * steps) {
        for (unsigned int r = 0; r < tile_rows; ++r) {
            for (int s = 0; s < steps; ++s)
                sums[r][s] += packed[2 * r] * old[2 * s].v;
            for (int s = 0; s < steps; ++s)
                sums[r][s] += packed[2 * r + 1] * old[2 * s + 1].v;
        }
    }
    bool nan = false;
    for (int s = 0; s < steps; ++s) {
        for (unsigned int r = 0; r < tile_rows; r += 2)
            nan |= V::holds_nan({sums[r][s]}, {sums[r + 1][s]});
        for (unsigned int r = 0; r < tile_rows; ++r)
            put(r, s, V{sums[r][s]});
    }
    return nan;
}

/// Recomputes the step that `old` and `fresh` point at, lane by lane, with the full product.
template <int steps, class V, class T>
[[gnu::noinline, gnu::cold]] void redo_with_recovery(const T* matrix, const V* old, V* fresh,
                                                     Index rows) {
    using S = Scalar<this_set, T>;
    for (int lane = 0; lane < V::lanes; ++lane) {
        for (Index r = 0; r < rows; ++r) {
            S sum(0, 0);
            for (Index c = 0; c < rows; ++c) {
                const V& x = old[2 * steps * c];
                sum = sum + cmul(S::load(matrix + 2 * (r * rows + c)), x.lane(lane));
            }
            fresh[r].set_lane(lane, sum);
        }
    }
}

template <class V>
struct MatrixVectors : VectorWalk<V> {
    const MatrixWalk& walk;
    Index* offsets;
    Index target_bits = 0;          ///< union of the offsets
    unsigned int target_lanes = 0;  ///< lane bits that are targets
    Index row_bit_of_lane[4];       ///< for each of them, the bit of a row that it stands for

    MatrixVectors(const MatrixWalk& walk, Index* offsets)
        : VectorWalk<V>(walk.groups), walk(walk), offsets(offsets) {
        offsets[0] = 0;
        Index filled = 1;
        for (unsigned int p = walk.n_targets; p-- > 0; filled *= 2) {
            const Index target_bit = this->take_target(walk.targets[p]);
            target_bits |= target_bit;
            if (this->in_lanes(walk.targets[p])) {
                target_lanes |= 1u << walk.targets[p];
                row_bit_of_lane[walk.targets[p]] = filled;
            }
            for (Index r = 0; r < filled; ++r)
                offsets[filled + r] = offsets[r] | target_bit;
        }
    }

    bool is_plain() const { return target_lanes == 0 && !this->chooses_lanes(); }
};

/// Vectors that an exchange of `target_lanes` concerns together.
constexpr unsigned int n_exchanged(unsigned int target_lanes) {
    return 1u << __builtin_popcount(target_lanes);
}

/// Exchanges `lane_bit` with the bit of i that stands for it among vectors a[i]: one for each of
/// `target_lanes`, in their order.
template <unsigned int target_lanes, unsigned int lane_bit, class V>
PBLINALG_ALWAYS_INLINE void exchange_lane(V* a) {
    if constexpr (target_lanes >> lane_bit & 1) {
        constexpr unsigned int apart = n_exchanged(target_lanes & ((1u << lane_bit) - 1));
        unrolled<n_exchanged(target_lanes)>([&]<unsigned int i>() __attribute__((always_inline)) {
            if constexpr (!(i & apart)) V::transpose(a[i], a[i | apart], lane_bit);
        });
    }
}

/// Takes all rows from `load(r)` to `store(r, vector)`, the target lanes exchanged with the rows
/// that they stand for.
template <unsigned int target_lanes, class V, class Load, class Store>
PBLINALG_ALWAYS_INLINE void exchange_lanes(const MatrixVectors<V>& vectors, const Load& load,
                                           const Store& store) {
    constexpr unsigned int n_vectors = n_exchanged(target_lanes);
    const Index rows = Index{1} << vectors.walk.n_targets;
    Index offsets[n_vectors] = {};
    Index exchanged = 0;
    unsigned int filled = 1;
    for (unsigned int lane_bit = 0; lane_bit < V::lane_bits; ++lane_bit) {
        if (!(target_lanes >> lane_bit & 1)) continue;
        const Index row_bit = vectors.row_bit_of_lane[lane_bit];
        exchanged |= row_bit;
        for (unsigned int i = 0; i < filled; ++i)
            offsets[filled + i] = offsets[i] | row_bit;
        filled *= 2;
    }
    walk_groups((rows - 1) & ~exchanged, 0, 0, rows / n_vectors, [&](Index row) {
        V a[n_vectors];
        unrolled<n_vectors>([&]<unsigned int i>()
                                __attribute__((always_inline)) { a[i] = load(row | offsets[i]); });
        unrolled<V::lane_bits>([&]<unsigned int lane_bit>() __attribute__((always_inline)) {
            exchange_lane<target_lanes, lane_bit>(a);
        });
        unrolled<n_vectors>([&]<unsigned int i>()
                                __attribute__((always_inline)) { store(row | offsets[i], a[i]); });
    });
}

/// Calls `body.operator()<lanes>()` with the lane bits that are targets.
template <class V, class Body>
PBLINALG_ALWAYS_INLINE void visit_target_lanes(const MatrixVectors<V>& vectors, const Body& body) {
    unrolled<V::lanes>([&]<unsigned int lanes>() __attribute__((always_inline)) {
        if (vectors.target_lanes == lanes) body.template operator()<lanes>();
    });
}

/// Gathers, multiplies and stores `steps` steps of the walk.
/// @tparam plain  no target and no control lies inside a vector: results go straight to the state.
/// @param ahead   fetches as many vectors as are read here, in portions between the arithmetic:
///                only about ten lines can be under way.
template <unsigned int tile_rows, int steps, bool plain, class V, class T>
void multiply_steps(T* state, const MatrixVectors<V>& vectors, const Index* bases,
                    LinesAhead<V, Ahead::by_address>& ahead, const T* matrix,
                    const Scratch<V, T>& scratch) {
    const Index rows = Index{1} << vectors.walk.n_targets;
    const auto at = [&](int s, Index r) { return state + 2 * (bases[s] + vectors.offsets[r]); };
    const auto keep = [&](Index r, int s, V value) {
        scratch.old[2 * (steps * r + s)] = value;
        scratch.old[2 * (steps * r + s) + 1] = times_i(value);
    };
    if constexpr (plain) {
        for (Index r = 0; r < rows; ++r) {
            for (int s = 0; s < steps; ++s)
                keep(r, s, V::load(at(s, r)));
        }
    } else {
        visit_target_lanes(vectors, [&]<unsigned int lanes>() {
            for (int s = 0; s < steps; ++s) {
                exchange_lanes<lanes>(
                    vectors, [&](Index r) { return V::load(at(s, r)); },
                    [&](Index r, V value) { keep(r, s, value); });
            }
        });
    }
    bool nan = false;
    for (Index tile = 0; tile < rows; tile += tile_rows) {
        ahead.fetch(state, vectors.offsets, steps * tile_rows);
        nan |= multiply_tile<tile_rows, steps>(scratch.matrix + 2 * tile * rows, scratch.old, rows,
                                               [&](unsigned int r, int s, V value) {
                                                   if constexpr (plain)
                                                       value.store(at(s, tile + r));
                                                   if constexpr (!plain)
                                                       scratch.fresh[s * rows + tile + r] = value;
                                               });
    }
    if (plain && !nan) [[likely]]
        return;
    const typename V::Bits chosen = vectors.chosen_lanes();
    for (int s = 0; s < steps; ++s) {
        V* const fresh = scratch.fresh + s * rows;
        if (nan) [[unlikely]]
            redo_with_recovery<steps>(matrix, scratch.old + 2 * s, fresh, rows);
        if (vectors.chooses_lanes()) {
            for (Index r = 0; r < rows; ++r) {
                fresh[r] = V::select(chosen, fresh[r], scratch.old[2 * (steps * r + s)]);
            }
        }
    }
    visit_target_lanes(vectors, [&]<unsigned int lanes>() {
        for (int s = 0; s < steps; ++s) {
            const V* const fresh = scratch.fresh + s * rows;
            exchange_lanes<lanes>(
                vectors, [&](Index r) { return fresh[r]; },
                [&](Index r, V value) { value.store(at(s, r)); });
        }
    });
}

template <unsigned int tile_rows, bool plain, class V, class T>
void multiply_vectors(T* state, const MatrixVectors<V>& vectors, Index begin, Index end,
                      const T* matrix, const Scratch<V, T>& scratch) {
    Index bases[steps_at_once];
    int waiting = 0;
    const Index rows = Index{1} << vectors.walk.n_targets;
    pack_matrix(scratch.matrix, matrix, rows, tile_rows);
    // Streams that are far apart come in fast enough for the arithmetic.
    const bool near = vectors.target_bits < bit(12);
    LinesAhead<V, Ahead::by_address> ahead(
        vectors.free_mask, vectors.fixed_bits, vectors.target_bits,
        near ? vectors.walk.groups.count * rows : 0, begin, rows * steps_at_once);
    walk_groups(vectors.free_mask, vectors.fixed_bits, begin, end, [&](Index base) {
        bases[waiting++] = base;
        if (waiting < steps_at_once) return;
        multiply_steps<tile_rows, steps_at_once, plain>(state, vectors, bases, ahead, matrix,
                                                        scratch);
        waiting = 0;
    });
    for (int s = 0; s < waiting; ++s) {
        multiply_steps<tile_rows, 1, plain>(state, vectors, bases + s, ahead, matrix, scratch);
    }
}

template <class T>
void multiply_scalars(T* state, const MatrixWalk& walk, Index begin, Index end, const T* matrix,
                      void* scratch) {
    using S = Scalar<this_set, T>;
    const Index rows = Index{1} << walk.n_targets;
    S* const old = static_cast<S*>(scratch);
    walk_groups(walk.groups.free_mask, walk.groups.fixed_bits, begin, end, [&](Index base) {
        for (Index r = 0; r < rows; ++r)
            old[r] = S::load(state + 2 * (base | walk.offsets[r]));
        for (Index r = 0; r < rows; ++r) {
            S sum(0, 0);
            for (Index c = 0; c < rows; ++c) {
                sum = sum + cmul(S::load(matrix + 2 * (r * rows + c)), old[c]);
            }
            sum.store(InterleavedMemory<T>{state}, base | walk.offsets[r]);
        }
    });
}

}  // namespace

template <InstructionSet set, class T>
std::size_t matrix_scratch_bytes(unsigned int n_targets) {
    return Scratch<Vector<set, T>, T>::bytes(n_targets);
}

template <InstructionSet set, class T>
void multiply_matrix(T* state, const MatrixWalk& walk, Index begin, Index end, const T* matrix,
                     void* memory) {
    using V = Vector<set, T>;
    const Scratch<V, T> scratch(memory, walk.n_targets);
    const MatrixVectors<V> vectors(walk, scratch.offsets);
    const VectorRange range(walk.groups, begin, end, vectors.group_bits);
    if (begin < range.begin) multiply_scalars(state, walk, begin, range.begin, matrix, memory);
    if (!range.empty()) {
        const Index first = range.first_step();
        const Index last = range.last_step();
        if (walk.n_targets == 1) {
            multiply_vectors<2, false>(state, vectors, first, last, matrix, scratch);
        } else if (vectors.is_plain()) {
            multiply_vectors<max_tile_rows, true>(state, vectors, first, last, matrix, scratch);
        } else {
            multiply_vectors<max_tile_rows, false>(state, vectors, first, last, matrix, scratch);
        }
    }
    if (range.end < end) multiply_scalars(state, walk, range.end, end, matrix, memory);
}

#define PBLINALG_INSTANTIATE(T)                                                               \
    template std::size_t matrix_scratch_bytes<this_set, T>(unsigned int);                     \
    template void multiply_matrix<this_set, T>(T*, const MatrixWalk&, Index, Index, const T*, \
                                               void*);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)

}  // namespace pblinalg::cpu
