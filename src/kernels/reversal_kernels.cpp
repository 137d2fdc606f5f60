// Compiled once per instruction set, PBLINALG_INSTRUCTION_SET naming it, without contraction of
// multiply and add. As in exact_kernels.cpp, nothing of the standard library may be instantiated.
#include "kernels/reversal_kernels.hpp"

#include "kernels/values.hpp"

namespace pblinalg::cpu {
namespace {

constexpr InstructionSet this_set = InstructionSet::PBLINALG_INSTRUCTION_SET;

/// `old` with zeros for the amplitudes that do not exceed `limit`.
template <class T>
PBLINALG_ALWAYS_INLINE Vector<this_set, T> drop_small(Vector<this_set, T> old, T limit) {
    using V = Vector<this_set, T>;
    const V norms = V::plain_norm_pairs(old);
    if (!V::holds_nan(norms, norms)) return V::select(V::exceeds(norms, limit), old, V{});
    for (int lane = 0; lane < V::lanes; ++lane) {
        const Scalar<this_set, T> a = old.lane(lane);
        if (!(a.norm() > limit)) old.set_lane(lane, Scalar<this_set, T>(0, 0));
    }
    return old;
}

}  // namespace

template <InstructionSet set, bool thresholded, class T>
void copy_reversed(const T* in, T* out, const ReversalTiles& tiles, Index begin, Index end, T limit,
                   T* tile) {
    using V = Vector<set, T>;
    constexpr Index lanes = V::lanes;
    const unsigned int side_bits = tiles.side_bits;
    const unsigned int shift = tiles.nqubits - side_bits;
    const Index side = bit(side_bits);
    const Index row_size = 2 * (side + ReversalTiles::row_padding);
    // A column goes out in whole vectors of memory, from the first boundary of one onwards; the
    // last of them holds both of its ends. Off a boundary, streams would leave lines half written.
    constexpr Index amplitude_bytes = 2 * sizeof(T);
    const auto out_address = reinterpret_cast<std::uintptr_t>(out);
    const bool streams = bit(tiles.nqubits) * amplitude_bytes >= tiles.min_streamed_bytes &&
                         out_address % amplitude_bytes == 0;
    const Index head = streams ? -(out_address / amplitude_bytes) & (lanes - 1) : 0;
    for (Index t = begin; t < end; ++t) {
        // Rows enter in the order in which they leave.
        for (Index r = 0; r < side; ++r) {
            const T* const from = in + 2 * (reverse_bits(r, side_bits) << shift | t << side_bits);
            T* const row = tile + r * row_size;
            for (Index c = 0; c < side; c += lanes) {
                V values = V::load_unaligned(from + 2 * c);
                if constexpr (thresholded) values = drop_small(values, limit);
                values.store(row + 2 * c);
            }
        }
        const Index middle = reverse_bits(t, shift - side_bits) << side_bits;
        for (Index c = 0; c < side; c += lanes) {
            T* to[lanes];
            for (Index k = 0; k < lanes; ++k)
                to[k] = out + 2 * (reverse_bits(c + k, side_bits) << shift | middle);
            for (Index r = head; r < side + head; r += lanes) {
                V block[lanes];
                for (Index k = 0; k < lanes; ++k)
                    block[k] = V::load(tile + ((r + k) & (side - 1)) * row_size + 2 * c);
                for (unsigned int b = 0; b < V::lane_bits; ++b) {
                    for (Index k = 0; k < lanes; ++k) {
                        if (!(k >> b & 1)) V::transpose(block[k], block[k | bit(b)], b);
                    }
                }
                for (Index k = 0; k < lanes; ++k) {
                    if (r + lanes > side) {
                        for (Index j = 0; j < lanes; ++j) {
                            block[k].lane(static_cast<int>(j)).store({to[k]}, (r + j) & (side - 1));
                        }
                    } else if (streams) {
                        block[k].store_past_cache(to[k] + 2 * r);
                    } else {
                        block[k].store_unaligned(to[k] + 2 * r);
                    }
                }
            }
        }
    }
    if (streams) V::finish_past_cache();
}

#define PBLINALG_INSTANTIATE(T)                                                                \
    template void copy_reversed<this_set, false, T>(const T*, T*, const ReversalTiles&, Index, \
                                                    Index, T, T*);                             \
    template void copy_reversed<this_set, true, T>(const T*, T*, const ReversalTiles&, Index,  \
                                                   Index, T, T*);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)

}  // namespace pblinalg::cpu
