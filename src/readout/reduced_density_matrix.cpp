// Reduced density matrices: amplitudes gathered into vectors over the listed qubits, whose outer
// products a kernel adds up.
#include <algorithm>
#include <pblinalg/reduced_density_matrix.hpp>

#include "core/aligned_array.hpp"
#include "core/parallel.hpp"
#include "kernels/outer_kernels.hpp"
#include "kernels/walk_groups.hpp"

namespace pblinalg {
namespace {

using namespace cpu;
using Sums = AlignedArray<std::complex<double>>;

/// Matrices of fewer rows are summed in pieces, each with sums of its own; in larger ones the rows
/// are shared out.
constexpr Index min_shared_rows = 512;
constexpr Index max_matrices = 64;
/// Elements of vectors gathered at a time.
constexpr Index gathered_elements = Index{1} << 16;

struct Reduction {
    Index kept = 0;              ///< index bits of the listed qubits
    Index others;                ///< all other ones
    Index dim;                   ///< values of the listed qubits
    Index padded;                ///< elements of a vector in memory
    std::vector<Index> offsets;  ///< index bits of each value of the listed qubits

    Reduction(unsigned int nqubits, const std::vector<unsigned int>& qubits)
        : dim(bit(static_cast<unsigned int>(qubits.size()))),
          padded((dim + outer_row_granule - 1) / outer_row_granule * outer_row_granule),
          offsets(dim) {
        for (Index value = 0; value < dim; ++value) {
            for (std::size_t j = 0; j < qubits.size(); ++j)
                offsets[value] |= (value >> (qubits.size() - 1 - j) & 1) << qubits[j];
        }
        kept = offsets[dim - 1];
        others = low_mask(nqubits) & ~kept;
    }

    Index n_vectors() const { return bit(count_bits(others)); }
    /// Rows that the kernel is asked for.
    Index rows() const { return (dim + outer_tile_rows - 1) / outer_tile_rows * outer_tile_rows; }
    Index vectors_at_once() const { return std::max<Index>(gathered_elements / padded, 1); }
    Sums new_matrix() const { return new_zeroed_array<std::complex<double>>(rows() * padded, 1); }
    Sums new_vectors() const {
        return new_zeroed_array<std::complex<double>>(vectors_at_once() * padded, 1);
    }
};

double* parts(const Sums& sums) {
    return reinterpret_cast<double*>(sums.get());
}

/// Adds the outer products of vectors [begin, end) to the tiles of rows of one worker.
template <class T>
void add_vectors(const std::complex<T>* amplitudes, const Reduction& reduction, Index begin,
                 Index end, Index first_tile, Index tile_stride, const Sums& vectors,
                 const Sums& matrix) {
    const Index padded = reduction.padded;
    for (Index first = begin; first < end; first += reduction.vectors_at_once()) {
        const Index last = std::min(end, first + reduction.vectors_at_once());
        double* to = parts(vectors);
        walk_groups(reduction.others, 0, first, last, [&](Index base) {
            for (Index value = 0; value < reduction.dim; ++value) {
                const std::complex<T> amplitude = amplitudes[base | reduction.offsets[value]];
                to[value] = amplitude.real();
                to[padded + value] = amplitude.imag();
            }
            to += 2 * padded;
        });
        dispatch([&]<InstructionSet set>() {
            add_outer_products<set>(parts(vectors), last - first, padded, reduction.rows(),
                                    first_tile, tile_stride, parts(matrix));
        });
    }
}

template <class T>
Sums sum_outer_products(const std::complex<T>* amplitudes, const Reduction& reduction,
                        int workers) {
    const Index n_vectors = reduction.n_vectors();
    if (reduction.dim >= min_shared_rows) {
        Sums matrix = reduction.new_matrix();
        run_team(workers, [&](int id, int team) {
            add_vectors(amplitudes, reduction, 0, n_vectors, static_cast<Index>(id),
                        static_cast<Index>(team), reduction.new_vectors(), matrix);
        });
        return matrix;
    }
    const Index amplitudes_read = n_vectors * reduction.dim;
    const Index pieces = std::clamp<Index>(amplitudes_read / piece_amplitudes, 1, max_matrices);
    std::vector<Sums> sums;
    for (Index p = 0; p < pieces; ++p)
        sums.push_back(reduction.new_matrix());
    const auto add_pieces = [&](Index first, Index last) {
        const Sums vectors = reduction.new_vectors();
        for (Index p = first; p < last; ++p) {
            const Block piece(n_vectors, p, pieces, 1);
            add_vectors(amplitudes, reduction, piece.begin, piece.end, 0, 1, vectors, sums[p]);
        }
    };
    for_each_block_of_team(pieces, workers, add_pieces, 1);
    const Index size = 2 * reduction.rows() * reduction.padded;
    for (Index p = 1; p < pieces; ++p) {
        for (Index i = 0; i < size; ++i)
            parts(sums[0])[i] += parts(sums[p])[i];
    }
    return std::move(sums[0]);
}

template <class T>
void reduce_pure(const std::complex<T>* amplitudes, const Reduction& reduction, int workers,
                 std::complex<double>* out) {
    const Sums sums = sum_outer_products(amplitudes, reduction, workers);
    const Index dim = reduction.dim;
    for (Index a = 0; a < dim; ++a) {
        const double* const row = parts(sums) + a * 2 * reduction.padded;
        for (Index b = 0; b < a; ++b) {
            out[a * dim + b] = {row[b], row[reduction.padded + b]};
            out[b * dim + a] = std::conj(out[a * dim + b]);
        }
        out[a * dim + a] = row[a];
    }
}

/// @param m  qubits of the density matrix.
template <class T>
void reduce_mixed(const std::complex<T>* entries, unsigned int m, const Reduction& reduction,
                  int workers, std::complex<double>* out) {
    const Index dim = reduction.dim;
    for_each_block_of_team(
        dim * dim, workers,
        [&](Index begin, Index end) {
            for (Index place = begin; place < end; ++place) {
                const Index row = reduction.offsets[place / dim];
                const Index column = reduction.offsets[place % dim];
                std::complex<double> sum = 0;
                walk_groups(reduction.others, 0, 0, reduction.n_vectors(), [&](Index base) {
                    sum += std::complex<double>(entries[(base | column) << m | base | row]);
                });
                out[place] = sum;
            }
        },
        1);
}

}  // namespace

template <class T>
void reduced_density_matrix(const PybindLinAlgStateVectorCPU<T>& state,
                            const std::vector<unsigned int>& qubits, std::complex<double>* out) {
    const unsigned int m = state.density_matrix ? state.nqubits / 2 : state.nqubits;
    const Reduction reduction(m, qubits);
    const int workers = workers_for(state.size, state.num_threads);
    if (state.density_matrix) {
        reduce_mixed(state.state.get(), m, reduction, workers, out);
    } else {
        reduce_pure(state.state.get(), reduction, workers, out);
    }
}

template void reduced_density_matrix<float>(const PybindLinAlgStateVectorCPU<float>&,
                                            const std::vector<unsigned int>&,
                                            std::complex<double>*);
template void reduced_density_matrix<double>(const PybindLinAlgStateVectorCPU<double>&,
                                             const std::vector<unsigned int>&,
                                             std::complex<double>*);

}  // namespace pblinalg
