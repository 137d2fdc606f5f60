// Compiled once per instruction set, PBLINALG_INSTRUCTION_SET naming it, with contraction of
// multiply and add. As in exact_kernels.cpp, nothing of the standard library may be instantiated.
#include "kernels/fused_kernels.hpp"

#include "kernels/unrolled.hpp"
#include "kernels/values.hpp"
#include "kernels/vector_walk.hpp"
#include "kernels/walk_groups.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

/// Two steps of the walk together, their parts apart: no product needs a shuffle.
template <class T>
using Pair = Planar<this_set, T, Products::plain>;

/// How many vectors an exchange of the target lanes concerns together.
constexpr unsigned int n_exchanged(unsigned int target_lanes) {
    return 1u << __builtin_popcount(target_lanes);
}

constexpr bool many_registers = n_registers<this_set> == 32;

/// Targets of the largest matrix whose sums of all rows stay in registers.
constexpr unsigned int max_targets_in_registers = many_registers ? 3 : 1;

/// Rows whose results are summed together: all that exchange lanes with each other, at least.
constexpr unsigned int rows_at_once(unsigned int target_lanes) {
    return n_exchanged(target_lanes) > 4 ? 8 : 4;
}

/// Pairs of steps that are multiplied together: each matrix entry, once in a register, serves all
/// of them. With the rows this fills half of the registers with sums.
constexpr int pairs_at_once(unsigned int target_lanes) {
    return many_registers && rows_at_once(target_lanes) == 4 ? 2 : 1;
}
constexpr int max_pairs_at_once = pairs_at_once(0);

/// Where a worker keeps what it needs, cut from its scratch.
template <class T>
struct Scratch {
    Pair<T>* old;           ///< gathered amplitudes, [row][pair]
    T* matrix;              ///< the worker's copy, its rows and columns in the order of the vectors
    Index* offsets;         ///< parts from a step's base to the vector of each row
    Index* rows_of_matrix;  ///< number in the caller's matrix of each row

    static std::size_t bytes(unsigned int n_targets) {
        const std::size_t rows = std::size_t{1} << n_targets;
        return rows * max_pairs_at_once * sizeof(Pair<T>) + rows * rows * 2 * sizeof(T) +
               rows * 2 * sizeof(Index);
    }

    Scratch(void* memory, unsigned int n_targets) {
        const std::size_t rows = std::size_t{1} << n_targets;
        old = static_cast<Pair<T>*>(memory);
        matrix = reinterpret_cast<T*>(old + rows * max_pairs_at_once);
        offsets = reinterpret_cast<Index*>(matrix + 2 * rows * rows);
        rows_of_matrix = offsets + rows;
    }
};

/// A step takes one vector per row. Rows are numbered with the lowest target as lowest bit, so
/// that those which exchange lanes with each other follow each other.
template <class V>
struct MatrixVectors : VectorWalk<V> {
    const MatrixWalk& walk;
    const Index* offsets;
    Index rows;
    Index target_bits = 0;          ///< union of the offsets
    unsigned int target_lanes = 0;  ///< lane bits that are targets

    template <class T>
    MatrixVectors(const MatrixWalk& walk, const Scratch<T>& scratch)
        : VectorWalk<V>(walk.groups), walk(walk), offsets(scratch.offsets), rows(1) {
        scratch.offsets[0] = 0;
        scratch.rows_of_matrix[0] = 0;
        unsigned int sorted[64];
        sort_targets(sorted);
        for (unsigned int i = 0; i < walk.n_targets; ++i, rows *= 2) {
            const unsigned int target = walk.targets[sorted[i]];
            const Index target_bit = this->take_target(target);
            target_bits |= target_bit;
            if (this->in_lanes(target)) target_lanes |= 1u << target;
            for (Index r = 0; r < rows; ++r) {
                scratch.offsets[rows + r] = scratch.offsets[r] | 2 * target_bit;
                scratch.rows_of_matrix[rows + r] =
                    scratch.rows_of_matrix[r] | bit(walk.n_targets - 1 - sorted[i]);
            }
        }
    }

  private:
    /// Positions in the list of targets, that of the lowest target first.
    void sort_targets(unsigned int* sorted) const {
        for (unsigned int p = 0; p < walk.n_targets; ++p) {
            unsigned int i = p;
            for (; i > 0 && walk.targets[sorted[i - 1]] > walk.targets[p]; --i)
                sorted[i] = sorted[i - 1];
            sorted[i] = p;
        }
    }
};

/// Exchanges the target lanes of `n` vectors of consecutive rows with the rows' lowest bits.
template <unsigned int target_lanes, unsigned int n, class V>
PBLINALG_ALWAYS_INLINE void exchange_lanes(V* a) {
    unrolled<V::lane_bits>([&]<unsigned int lane_bit>() __attribute__((always_inline)) {
        if constexpr (target_lanes >> lane_bit & 1) {
            constexpr unsigned int apart = n_exchanged(target_lanes & ((1u << lane_bit) - 1));
            unrolled<n>([&]<unsigned int i>() __attribute__((always_inline)) {
                if constexpr (!(i & apart)) V::transpose(a[i], a[i | apart], lane_bit);
            });
        }
    });
}

/// Sums of consecutive rows. Handed on by value, so that they stay in registers.
template <unsigned int n, class T>
struct Rows {
    Pair<T> of[n];
};

/// Computes rows anew, lane by lane, with the full product.
/// @param entries  the matrix's, column by column.
/// @param old      amplitudes, those of a column `stride` after those of the one before.
template <unsigned int n, class T>
[[gnu::noinline, gnu::cold]] Rows<n, T> multiply_with_recovery(const T* entries, Index columns,
                                                               const Pair<T>* old, int stride) {
    using S = Scalar<this_set, T>;
    Rows<n, T> rows;
    for (unsigned int r = 0; r < n; ++r) {
        for (int lane = 0; lane < Pair<T>::lanes; ++lane) {
            S sum(0, 0);
            for (Index c = 0; c < columns; ++c) {
                const Pair<T>& x = old[static_cast<Index>(stride) * c];
                sum = sum + cmul(S::load(entries + 2 * (n * c + r)), S(x.re[lane], x.im[lane]));
            }
            rows.of[r].re[lane] = sum.re;
            rows.of[r].im[lane] = sum.im;
        }
    }
    return rows;
}

/// Fetches what the steps after the present ones will read.
template <class V, int steps>
class NextSteps {
  public:
    NextSteps(const MatrixVectors<V>& vectors, Index begin)
        : vectors_(vectors),
          near_(way_ahead(vectors.target_bits) == Ahead::by_address),
          useful_(Near::pays_for(vectors.walk.groups.count * vectors.rows)),
          lines_(vectors.free_mask, vectors.fixed_bits, vectors.target_bits,
                 vectors.walk.groups.count * vectors.rows, begin, lead(vectors)),
          next_(deposit_bits(begin, vectors.free_mask)) {
        advance();
    }

    /// To be called when the present steps change.
    PBLINALG_ALWAYS_INLINE void advance() {
        for (Index& base : bases_) {
            base = next_ | vectors_.fixed_bits;
            next_ = next_subset(next_, vectors_.free_mask);
        }
    }

    /// Fetches as many vectors as `n` rows have, of those rows or, if targets are near, in the
    /// order of addresses.
    template <class T>
    PBLINALG_ALWAYS_INLINE void fetch(const T* state, Index first_row, unsigned int n) {
        if (near_) return lines_.fetch(state, vectors_.offsets, n * steps);
        if (!useful_) return;
        for (Index r = first_row; r < first_row + n; ++r) {
            for (const Index base : bases_)
                __builtin_prefetch(state + 2 * base + vectors_.offsets[r], 1, 3);
        }
    }

  private:
    using Near = LinesAhead<V, Ahead::by_address>;

    /// Vectors that the present steps read, or that lie between their first and last ones.
    static Index lead(const MatrixVectors<V>& vectors) {
        Index span = 1;
        while (span <= vectors.target_bits)
            span *= 2;
        const Index between = span / V::lanes;
        return between > vectors.rows * steps ? between : vectors.rows * steps;
    }

    const MatrixVectors<V>& vectors_;
    bool near_;
    bool useful_;
    Near lines_;
    Index next_;
    Index bases_[steps];
};

/// No lane bit.
constexpr int none = -1;

/// Multiplies the steps of a walk by a matrix.
/// @tparam n_targets     their number if the sums of all rows fit into registers, otherwise 0.
/// @tparam target_lanes  lane bits that are targets.
/// @tparam control       a lane bit that is a control, if any: two vectors of the state then give
///                       one of the product, so that half of the arithmetic is not in vain.
template <unsigned int n_targets, unsigned int target_lanes, class T, int control = none>
class MatrixProduct {
  public:
    MatrixProduct(T* state, const MatrixVectors<Vector<this_set, T>>& vectors,
                  const Scratch<T>& scratch, const T* matrix)
        : state_(state), vectors_(vectors), scratch_(scratch) {
        pack(matrix);
    }

    void multiply(Index begin, Index end) const {
        Next next(vectors_, begin);
        Index bases[steps];
        int waiting = 0;
        walk_groups(vectors_.free_mask, vectors_.fixed_bits, begin, end, [&](Index base) {
            bases[waiting++] = base;
            if (waiting < steps) return;
            next.advance();
            multiply_steps(bases, next);
            waiting = 0;
        });
        if (waiting == 0) return;
        // All is read before it is written, so that a step may be there more than once.
        for (int s = waiting; s < steps; ++s)
            bases[s] = bases[waiting - 1];
        multiply_steps(bases, next);
    }

  private:
    using V = Vector<this_set, T>;
    using P = Pair<T>;
    /// Rows that exchange lanes with each other.
    static constexpr unsigned int together = n_exchanged(target_lanes);
    static constexpr unsigned int tile_rows =
        n_targets > 0 ? 1u << n_targets : rows_at_once(target_lanes);
    static constexpr int pairs = n_targets > 0 ? 1 : pairs_at_once(target_lanes);
    static constexpr int joined = control == none ? 1 : 2;
    static constexpr int steps = 2 * pairs * joined;
    using Next = NextSteps<V, steps>;

    /// Copies the matrix: tile by tile of rows, in it column by column.
    void pack(const T* matrix) const {
        const Index rows = vectors_.rows;
        const Index* const row_of = scratch_.rows_of_matrix;
        T* to = scratch_.matrix;
        for (Index tile = 0; tile < rows; tile += tile_rows) {
            for (Index c = 0; c < rows; ++c) {
                const T* const column = matrix + 2 * row_of[c];
                for (Index r = tile; r < tile + tile_rows; ++r, to += 2) {
                    const T* const entry = column + 2 * row_of[r] * rows;
                    to[0] = entry[0];
                    to[1] = entry[1];
                }
            }
        }
    }

    /// Loads a vector of the product.
    PBLINALG_ALWAYS_INLINE V take(const Index* bases, Index offset) const {
        V a = V::load(state_ + 2 * bases[0] + offset);
        if constexpr (control != none) {
            V high = V::load(state_ + 2 * bases[1] + offset);
            V::transpose(a, high, control);
            return high;
        }
        return a;
    }

    /// Stores the vectors of one step's rows.
    PBLINALG_ALWAYS_INLINE void put(const Index* bases, const Index* offsets, V* fresh) const {
        T* const to = state_ + 2 * bases[0];
        if (vectors_.chooses_lanes()) {
            const typename V::Bits chosen = vectors_.chosen_lanes();
            unrolled<tile_rows>([&]<unsigned int r>() __attribute__((always_inline)) {
                fresh[r] = V::select(chosen, fresh[r], V::load(to + offsets[r]));
            });
        }
        unrolled<tile_rows>([&]<unsigned int r>() __attribute__((always_inline)) {
            fresh[r].store(to + offsets[r]);
        });
    }

    /// The same for vectors of two steps each. Other controls may leave some of their lanes alone.
    PBLINALG_ALWAYS_INLINE void put_joined(const Index* bases, const Index* offsets,
                                           const V* fresh) const {
        const typename V::Bits chosen = vectors_.chosen_lanes(bit(control));
        unrolled<tile_rows>([&]<unsigned int r>() __attribute__((always_inline)) {
            T* const to = state_ + 2 * bases[0] + offsets[r];
            T* const other = state_ + 2 * bases[1] + offsets[r];
            V low = V::load(to);
            V high = V::load(other);
            V::transpose(low, high, control);
            high = V::select(chosen, fresh[r], high);
            V::transpose(low, high, control);
            low.store(to);
            high.store(other);
        });
    }

    /// Reads `n` rows of two steps: calls `keep.operator()<r>(amplitudes)` for row first + r.
    template <unsigned int n, class Keep>
    PBLINALG_ALWAYS_INLINE void take_rows(const Index* bases, Index first, const Keep& keep) const {
        V a[2][n];
        unrolled<2>([&]<unsigned int s>() __attribute__((always_inline)) {
            unrolled<n>([&]<unsigned int r>() __attribute__((always_inline)) {
                a[s][r] = take(bases + s * joined, vectors_.offsets[first + r]);
            });
            exchange_lanes<target_lanes, n>(a[s]);
        });
        unrolled<n>([&]<unsigned int r>() __attribute__((always_inline)) {
            keep.template operator()<r>(P::of(a[0][r], a[1][r]));
        });
    }

    PBLINALG_ALWAYS_INLINE static bool holds_nan(const Rows<tile_rows, T>& rows) {
        bool nan = false;
        unrolled<tile_rows>([&]<unsigned int r>() __attribute__((always_inline)) {
            nan |= P::holds_nan(rows.of[r]);
        });
        return nan;
    }

    /// Stores the new amplitudes of a tile of two steps.
    PBLINALG_ALWAYS_INLINE void put_tile(const Index* bases, Index first,
                                         const Rows<tile_rows, T>& fresh) const {
        V a[2][tile_rows];
        unrolled<tile_rows>([&]<unsigned int r>() __attribute__((always_inline)) {
            fresh.of[r].to(a[0][r], a[1][r]);
        });
        const Index* const offsets = vectors_.offsets + first;
        unrolled<2>([&]<unsigned int s>() __attribute__((always_inline)) {
            exchange_lanes<target_lanes, tile_rows>(a[s]);
            if constexpr (control == none) {
                put(bases + s, offsets, a[s]);
            } else {
                put_joined(bases + 2 * s, offsets, a[s]);
            }
        });
    }

    /// Adds one column of a tile, times its amplitudes `x[0 .. pairs)`, to the sums of each pair.
    PBLINALG_ALWAYS_INLINE static void add_column(Rows<tile_rows, T>* sums, const T* entries,
                                                  const P* x) {
        unrolled<tile_rows * pairs>([&]<unsigned int i>() __attribute__((always_inline)) {
            P& sum = sums[i % pairs].of[i / pairs];
            sum.re += entries[i / pairs * 2] * x[i % pairs].re;
            sum.im += entries[i / pairs * 2] * x[i % pairs].im;
        });
        unrolled<tile_rows * pairs>([&]<unsigned int i>() __attribute__((always_inline)) {
            P& sum = sums[i % pairs].of[i / pairs];
            sum.re -= entries[i / pairs * 2 + 1] * x[i % pairs].im;
            sum.im += entries[i / pairs * 2 + 1] * x[i % pairs].re;
        });
    }

    PBLINALG_ALWAYS_INLINE static void clear(Rows<tile_rows, T>* sums) {
        unrolled<tile_rows * pairs>([&]<unsigned int i>() __attribute__((always_inline)) {
            sums[i % pairs].of[i / pairs] = P{};
        });
    }

    /// Copies the old amplitudes of the steps and calls `use(c)` for each column that is there.
    template <class Use>
    PBLINALG_ALWAYS_INLINE void gather(const Index* bases, const Use& use) const {
        for (Index c = 0; c < vectors_.rows; c += together) {
            P* const old = scratch_.old + c * pairs;
            unrolled<pairs>([&]<unsigned int p>() __attribute__((always_inline)) {
                take_rows<together>(
                    bases + 2 * p * joined,
                    c, [&]<unsigned int r>(P x) __attribute__((always_inline)) {
                        old[r * pairs + p] = x;
                    });
            });
            for (Index r = 0; r < together; ++r)
                use(c + r);
        }
    }

    /// Multiplies with the sums of all rows in registers, while the columns come in.
    PBLINALG_ALWAYS_INLINE void multiply_in_registers(const Index* bases, Next& next) const {
        Rows<tile_rows, T> sums;
        clear(&sums);
        unrolled<tile_rows / together>([&]<unsigned int i>() __attribute__((always_inline)) {
            constexpr unsigned int first = i * together;
            // Only about ten lines can be under way, so that they come in two portions.
            constexpr unsigned int half = tile_rows / 2;
            if constexpr (first % half == 0)
                next.fetch(state_, first, together > half ? together : half);
            P old[together];
            take_rows<together>(
                bases,
                first, [&]<unsigned int r>(P x) __attribute__((always_inline)) { old[r] = x; });
            unrolled<together>([&]<unsigned int r>() __attribute__((always_inline)) {
                add_column(&sums, scratch_.matrix + 2 * tile_rows * (first + r), old + r);
            });
        });
        if (holds_nan(sums)) [[unlikely]] {
            gather(bases, [](Index) {});
            sums = multiply_with_recovery<tile_rows>(scratch_.matrix, tile_rows, scratch_.old, 1);
        }
        put_tile(bases, 0, sums);
    }

    /// Multiplies a tile of rows at a time.
    PBLINALG_ALWAYS_INLINE void multiply_in_tiles(const Index* bases, Next& next) const {
        const Index rows = vectors_.rows;
        const T* entries = scratch_.matrix;
        for (Index tile = 0; tile < rows; tile += tile_rows) {
            next.fetch(state_, tile, tile_rows);
            Rows<tile_rows, T> sums[pairs];
            clear(sums);
            const auto add = [&](Index c) __attribute__((always_inline)) {
                add_column(sums, entries + 2 * tile_rows * c, scratch_.old + c * pairs);
            };
            if (tile == 0) {
                gather(bases, add);
            } else {
                for (Index c = 0; c < rows; ++c)
                    add(c);
            }
            unrolled<pairs>([&]<unsigned int p>() __attribute__((always_inline)) {
                if (holds_nan(sums[p])) [[unlikely]]
                    sums[p] =
                        multiply_with_recovery<tile_rows>(entries, rows, scratch_.old + p, pairs);
                put_tile(bases + 2 * p * joined, tile, sums[p]);
            });
            entries += 2 * tile_rows * rows;
        }
    }

    void multiply_steps(const Index* bases, Next& next) const {
        if constexpr (n_targets > 0) {
            multiply_in_registers(bases, next);
        } else {
            multiply_in_tiles(bases, next);
        }
    }

    T* state_;
    const MatrixVectors<V>& vectors_;
    const Scratch<T>& scratch_;
};

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

template <class V, class T>
void multiply_vectors(T* state, const MatrixVectors<V>& vectors, Index begin, Index end,
                      const T* matrix, const Scratch<T>& scratch) {
    unrolled<V::lanes>([&]<unsigned int lanes>() __attribute__((always_inline)) {
        if (vectors.target_lanes != lanes) return;
        const unsigned int n_targets = vectors.walk.n_targets;
        unrolled<max_targets_in_registers>([&]<unsigned int i>() __attribute__((always_inline)) {
            if constexpr (n_exchanged(lanes) <= 2u << i) {
                if (n_targets == i + 1)
                    MatrixProduct<i + 1, lanes, T>(state, vectors, scratch, matrix)
                        .multiply(begin, end);
            }
        });
        if (n_targets <= max_targets_in_registers) return;
        const auto run = [&]<int control>() {
            MatrixProduct<0, lanes, T, control>(state, vectors, scratch, matrix)
                .multiply(begin, end);
        };
        bool done = false;
        if constexpr (lanes == 0) {
            // With targets in lanes, too, there would be many kernels for few gates.
            unrolled<V::lane_bits>([&]<unsigned int b>() __attribute__((always_inline)) {
                if (lowest_bit(vectors.held_lane_bits) != bit(b)) return;
                // Joined vectors are those of lanes where the bit is 1.
                if (!(vectors.walk.groups.fixed_bits & bit(b))) return;
                run.template operator()<int{b}>();
                done = true;
            });
        }
        if (!done) run.template operator()<none>();
    });
}

}  // namespace

template <InstructionSet set, class T>
std::size_t matrix_scratch_bytes(unsigned int n_targets) {
    return Scratch<T>::bytes(n_targets);
}

template <InstructionSet set, class T>
void multiply_matrix(T* state, const MatrixWalk& walk, Index begin, Index end, const T* matrix,
                     void* memory) {
    using V = Vector<set, T>;
    const Scratch<T> scratch(memory, walk.n_targets);
    const MatrixVectors<V> vectors(walk, scratch);
    const VectorRange range(walk.groups, begin, end, vectors.group_bits);
    if (begin < range.begin) multiply_scalars(state, walk, begin, range.begin, matrix, memory);
    if (!range.empty()) {
        multiply_vectors(state, vectors, range.first_step(), range.last_step(), matrix, scratch);
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
