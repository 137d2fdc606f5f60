// Exact expectation values of Pauli sums, in the pieces of one process. Every rank sums a share of
// the tiles of a batch; blocks of a tile that lie on other ranks are sent to it. Of a piece that
// begins on one rank and ends on the next, the partial sums are handed on.
#include "observables/expectation.hpp"

#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>

#include "core/parallel.hpp"
#include "core/team_scratch.hpp"
#include "mpi/state.hpp"
#include "observables/tile_sums.hpp"

namespace pblinalg::mpi {

using cpu::bit;
using cpu::count_bits;
using cpu::TermTiles;

namespace {

enum Tag : int { blocks_tag, sums_tag, totals_tag };

/// Tiles of one piece that one rank sums one after the other.
struct Run {
    Index piece;
    Index begin;
    Index end;
};

/// How the tiles of a batch are shared out: the rank with number m sums the m-th of equal shares.
/// No piece is longer than a share, so each lies on two ranks at the most.
struct Shares {
    Shares(const TermTiles& tiles, unsigned int rank_bits)
        : bits(std::min(rank_bits, count_bits(tiles.count - 1))),
          count(tiles.count),
          size(tiles.count >> bits),
          pieces(std::max(tiles.pieces, bit(bits))) {}

    cpu::Block piece(Index p) const { return {count, p, pieces, 1}; }

    unsigned int bits;  ///< of the numbers of ranks that have a share
    Index count;
    Index size;
    Index pieces;
};

/// The share of one rank. What the next rank waits for comes first, what this one waits for last,
/// when the rank before has been through with it for long enough.
struct Share {
    Share(const Shares& shares, Index number)
        : begin(number * shares.size), end(begin + shares.size) {
        // Close to the piece that holds the first tile: pieces differ by one tile at the most.
        Index p = begin * shares.pieces / shares.count;
        while (shares.piece(p).begin > begin)
            --p;
        while (shares.piece(p).end <= begin)
            ++p;
        first_piece = p;
        head_end = shares.piece(p).begin < begin ? shares.piece(p).end : begin;
        while (p < shares.pieces && shares.piece(p).end <= end)
            ++p;
        end_piece = p;
        tail_begin = p < shares.pieces && shares.piece(p).begin < end ? shares.piece(p).begin : end;
    }

    bool has_head() const { return head_end > begin; }

    /// The tile that comes after `position` others.
    Index tile(Index position) const {
        const Index in_tail = end - tail_begin, before_head = end - head_end;
        if (position < in_tail) return tail_begin + position;
        return position < before_head ? head_end + (position - in_tail)
                                      : begin + (position - before_head);
    }

    /// The runs in this order.
    std::vector<Run> runs(const Shares& shares) const {
        std::vector<Run> list;
        if (tail_begin < end) list.push_back({end_piece, tail_begin, end});
        for (Index p = first_piece + has_head(); p < end_piece; ++p)
            list.push_back({p, shares.piece(p).begin, shares.piece(p).end});
        if (has_head()) list.push_back({first_piece, begin, head_end});
        return list;
    }

    Index begin;
    Index end;
    Index first_piece;  ///< pieces [first_piece, end_piece) end here
    Index end_piece;
    Index head_end;    ///< tiles before it end a piece of the rank before
    Index tail_begin;  ///< tiles from it on begin a piece that the next rank ends
};

/// The places in a tile of the blocks that one rank sends to another, the same for all its tiles.
struct Route {
    int partner;
    Share share;  ///< of the rank that gets them
    std::vector<Index> places;
    Index offset;  ///< of its blocks in a buffer, in blocks for one tile
};

}  // namespace

/// The sums of one batch over the ranks. What may fail does so in the constructor and in
/// `sum_local`, neither of which sends anything.
template <class T>
class StateVector<T>::State::BatchSums {
  public:
    /// @param tiles  must outlive the sums.
    BatchSums(State& state, const TermTiles& tiles)
        : state_(state),
          tiles_(tiles),
          shares_(tiles, state.layout.rank_bits),
          has_share_(state.number() < bit(shares_.bits)),
          share_(shares_, has_share_ ? state.number() : 0),
          local_block_bits_(state.local_bits() - tiles.block_bits),
          n_terms_(tiles.batch->n_terms()),
          sums_(tiles),
          tail_(sums_.partial().size()),
          values_((share_.end_piece - share_.first_piece) * n_terms_) {
        if (has_share_) runs_ = share_.runs(shares_);
        is_local_ = std::ranges::all_of(
            tiles.numbers, [&](Index number) { return number >> local_block_bits_ == 0; });
        if (is_local_) return;
        find_routes();
        chunk_ = std::min(shares_.size, std::max<Index>(max_blocks / tiles.numbers.size(), 1));
        requests_.resize(2 * (in_.size() + out_.size()));
        buffer_.emplace(1, 2 * chunk_ * (n_in_ + n_out_) * block_bytes());
    }

    /// The pieces that this rank has as a whole, on all workers.
    void sum_local() {
        if (!is_local_ || !has_share_) return;
        const Index first = share_.first_piece + share_.has_head();
        const int workers = cpu::workers_for(tiles_.products >> shares_.bits, state_.num_threads);
        cpu::for_each_block_of_team(
            share_.end_piece - first, workers,
            [&](Index begin, Index end) {
                cpu::TileSums<T> sums(tiles_);
                for (Index p = first + begin; p < first + end; ++p) {
                    const cpu::Block piece = shares_.piece(p);
                    sums.clear();
                    for (Index tile = piece.begin; tile < piece.end; ++tile)
                        add_tile(sums, tile);
                    sums.fold(values_of(p));
                }
            },
            1);
    }

    /// The rest, with what other ranks have of it.
    void sum_with_others() {
        if (!is_local_) return sum_with_blocks();
        for (const Run& run : runs_) {
            if (ends_here(run) && begins_here(run)) continue;
            begin(run);
            for (Index tile = run.begin; tile < run.end; ++tile)
                add_tile(sums_, tile);
            end(run);
        }
    }

    /// Adds the sums of the pieces that end here to those of the terms, piece after piece.
    void add_to(T* values) const {
        if (!has_share_) return;
        const T* sum = values_.data();
        for (Index p = share_.first_piece; p < share_.end_piece; ++p) {
            for (const cpu::TermGroup* group : tiles_.batch->groups) {
                for (const Index t : group->terms)
                    values[t] += *sum++;
            }
        }
    }

    /// Waits until the next rank has taken over.
    void finish() { MPI_Wait(&handing_over_, MPI_STATUS_IGNORE); }

  private:
    /// Blocks of the tiles that are summed while the next ones are on their way: half a mebibyte.
    static constexpr Index max_blocks = 64;

    Index block_size() const { return bit(tiles_.block_bits); }
    std::size_t block_bytes() const { return block_size() * sizeof(Amplitude); }
    int rank_of(Index number) const {
        return static_cast<int>(state_.layout.numbers.rank_of(number));
    }
    Index owner(Index tile, Index place) const {
        return tiles_.block(tile, place) >> local_block_bits_;
    }
    const Amplitude* own_block(Index block) const {
        const Index here = block & cpu::low_mask(local_block_bits_);
        return state_.amplitudes.get() + (here << tiles_.block_bits);
    }
    T* values_of(Index piece) { return values_.data() + (piece - share_.first_piece) * n_terms_; }

    /// Who holds a place of a tile is the same for all tiles of a share: what tells these apart are
    /// bits within ranks.
    void find_routes() {
        const Index number = state_.number();
        const auto add = [](std::vector<Route>& routes, Route route, Index& n_blocks) {
            route.offset = n_blocks;
            n_blocks += route.places.size();
            routes.push_back(std::move(route));
        };
        std::map<Index, std::vector<Index>> sources;
        for (Index place = 0; has_share_ && place < tiles_.numbers.size(); ++place)
            sources[owner(share_.begin, place)].push_back(place);
        for (auto& [source, places] : sources) {
            if (source != number) add(in_, {rank_of(source), share_, std::move(places), 0}, n_in_);
        }
        for (Index other = 0; other < bit(shares_.bits); ++other) {
            std::vector<Index> places;
            for (Index place = 0; other != number && place < tiles_.numbers.size(); ++place) {
                if (owner(other * shares_.size, place) == number) places.push_back(place);
            }
            if (!places.empty())
                add(out_, {rank_of(other), Share(shares_, other), std::move(places), 0}, n_out_);
        }
    }

    bool begins_here(const Run& run) const { return shares_.piece(run.piece).begin == run.begin; }
    bool ends_here(const Run& run) const { return shares_.piece(run.piece).end == run.end; }

    void begin(const Run& run) {
        sums_.clear();
        if (begins_here(run)) return;
        MPI_Recv(sums_.partial().data(), static_cast<int>(tail_.size()), mpi_type<T>(),
                 rank_of(state_.number() - 1), sums_tag, state_.comm(), MPI_STATUS_IGNORE);
    }

    void end(const Run& run) {
        if (ends_here(run)) return sums_.fold(values_of(run.piece));
        std::ranges::copy(sums_.partial(), tail_.begin());
        MPI_Isend(tail_.data(), static_cast<int>(tail_.size()), mpi_type<T>(),
                  rank_of(state_.number() + 1), sums_tag, state_.comm(), &handing_over_);
    }

    /// Adds a tile; blocks that are elsewhere have come to `received`, by route.
    void add_tile(cpu::TileSums<T>& sums, Index tile, Index in_chunk = 0,
                  const Amplitude* received = nullptr) const {
        const T* blocks[bit(cpu::max_spanned_bits)];
        for (Index place = 0; place < tiles_.numbers.size(); ++place)
            blocks[place] = cpu::parts(own_block(tiles_.block(tile, place)));
        for (const Route& route : in_) {
            Index at = route.offset * chunk_ + in_chunk * route.places.size();
            for (const Index place : route.places)
                blocks[place] = cpu::parts(received + at++ * block_size());
        }
        sums.add(blocks, tiles_.block(tile, 0));
    }

    /// Chunk after chunk, the same number on all ranks.
    void sum_with_blocks() {
        auto run = runs_.begin();
        start(0);
        for (Index first = 0; first < shares_.size; first += chunk_) {
            if (first + chunk_ < shares_.size) start(first + chunk_);
            const std::span<MPI_Request> requests = requests_of(first);
            MPI_Waitall(static_cast<int>(requests.size()), requests.data(), MPI_STATUSES_IGNORE);
            for (Index k = 0; has_share_ && k < chunk_ && first + k < shares_.size; ++k) {
                const Index tile = share_.tile(first + k);
                if (tile == run->begin) begin(*run);
                add_tile(sums_, tile, k, incoming(first));
                if (tile + 1 == run->end) end(*run++);
            }
        }
        buffer_.reset();
    }

    // Two chunks are on their way: buffers and requests come twice.
    Index slot(Index first) const { return first / chunk_ % 2; }
    Amplitude* incoming(Index first) const {
        return static_cast<Amplitude*>(buffer_->of(0)) +
               slot(first) * chunk_ * (n_in_ + n_out_) * block_size();
    }
    Amplitude* outgoing(Index first) const {
        return incoming(first) + chunk_ * n_in_ * block_size();
    }
    std::span<MPI_Request> requests_of(Index first) {
        const std::size_t count = in_.size() + out_.size();
        return {requests_.data() + slot(first) * count, count};
    }

    /// Sends and receives the blocks of the chunk of tiles that begins after `first` others.
    void start(Index first) {
        const Index count = std::min(chunk_, shares_.size - first);
        MPI_Request* request = requests_of(first).data();
        for (const Route& route : in_) {
            MPI_Irecv(incoming(first) + route.offset * chunk_ * block_size(),
                      static_cast<int>(count * route.places.size() * block_bytes()), MPI_BYTE,
                      route.partner, blocks_tag, state_.comm(), request++);
        }
        for (const Route& route : out_) {
            Amplitude* const begin = outgoing(first) + route.offset * chunk_ * block_size();
            Amplitude* to = begin;
            for (Index k = 0; k < count; ++k) {
                const Index tile = route.share.tile(first + k);
                for (const Index place : route.places)
                    to = std::copy_n(own_block(tiles_.block(tile, place)), block_size(), to);
            }
            MPI_Isend(begin, static_cast<int>(count * route.places.size() * block_bytes()),
                      MPI_BYTE, route.partner, blocks_tag, state_.comm(), request++);
        }
    }

    State& state_;
    const TermTiles& tiles_;
    Shares shares_;
    bool has_share_;
    Share share_;  ///< the first one on ranks that have none
    std::vector<Run> runs_;
    unsigned int local_block_bits_;
    Index n_terms_;
    bool is_local_;
    cpu::TileSums<T> sums_;
    std::vector<T> tail_;    ///< partial sums on their way to the next rank
    std::vector<T> values_;  ///< by piece that ends here, by term
    std::vector<Route> in_, out_;
    Index n_in_ = 0, n_out_ = 0;  ///< blocks for one tile
    Index chunk_ = 1;             ///< tiles whose blocks travel together
    std::optional<cpu::TeamScratch> buffer_;
    std::vector<MPI_Request> requests_;
    MPI_Request handing_over_ = MPI_REQUEST_NULL;
};

/// <P> of one term by its definition, in the pieces of one process.
template <class T>
T StateVector<T>::State::defined_term_value(const WObservable<T>& observable, std::size_t term) {
    const unsigned int l = local_bits(), block_bits = std::min(l, cpu::max_block_bits<T>);
    const Index flip = observable.flip_masks[term], signs = observable.sign_masks[term];
    const unsigned int power = observable.phase_powers[term];
    const Index pieces = cpu::piece_count(bit(layout.n_qubits()), in_pieces);
    const Index own_pieces = std::max<Index>(pieces >> layout.rank_bits, 1);
    const Index piece_size = local_size() / own_pieces, block_size = bit(block_bits);
    const int partner = static_cast<int>(layout.numbers.rank_of(number() ^ flip >> l));
    const Index low_flip = flip & cpu::low_mask(block_bits);
    const Index block_flip = flip & cpu::low_mask(l) & ~low_flip;
    std::vector<T> sums, all_sums;
    std::vector<Amplitude> received;
    together(comm(), [&] {
        sums.resize(own_pieces);
        all_sums.resize(own_pieces << layout.rank_bits);
        received.resize(block_size);
    });
    for (Index begin = 0; begin < local_size(); begin += block_size) {
        // The partner's block with the flipped number meets this one, and this rank's flipped one
        // the partner's.
        const Amplitude* const left = amplitudes.get() + begin;
        const Amplitude* right = amplitudes.get() + (begin ^ block_flip);
        if (flip >> l != 0) {
            const auto bytes = static_cast<int>(block_size * sizeof(Amplitude));
            MPI_Sendrecv(right, bytes, MPI_BYTE, partner, blocks_tag, received.data(), bytes,
                         MPI_BYTE, partner, blocks_tag, comm(), MPI_STATUS_IGNORE);
            right = received.data();
        }
        const Index first = number() << l | begin;
        for (Index i = 0; i < block_size; ++i) {
            sums[begin / piece_size] +=
                cpu::term_product(left[i], right[i ^ low_flip], power, signs & (first | i));
        }
    }
    const auto count = static_cast<int>(own_pieces);
    MPI_Allgather(sums.data(), count, mpi_type<T>(), all_sums.data(), count, mpi_type<T>(), comm());
    T total = 0;
    for (Index i = 0; i < bit(layout.rank_bits); ++i) {
        for (Index p = 0; p < own_pieces; ++p)
            total += all_sums[layout.numbers.rank_of(i) * own_pieces + p];
    }
    return total;
}

template <class T>
std::vector<T> StateVector<T>::State::term_values(const WObservable<T>& observable) {
    const unsigned int n = layout.n_qubits();
    const std::size_t n_terms = observable.flip_masks.size();
    Digest digest;
    digest.add_all(observable.flip_masks);
    digest.add_all(observable.sign_masks);
    digest.add_all(observable.phase_powers);
    const auto add = [&](std::complex<T> number) {
        digest.add_number(number.real());
        digest.add_number(number.imag());
    };
    std::ranges::for_each(observable.coefficients, add);
    add(observable.constant);
    require_same(comm(), digest.value(), "the observable");
    const unsigned int block_bits = cpu::max_block_bits<T>;
    std::vector<cpu::TermGroup> groups;
    std::vector<cpu::TermBatch> batches;
    std::vector<TermTiles> tiles;
    std::vector<T> values;
    Index fewest_pieces = cpu::piece_count(bit(n), in_pieces);
    together(comm(), [&] {
        for (std::size_t t = 0; t < n_terms; ++t) {
            if ((observable.flip_masks[t] | observable.sign_masks[t]) & ~cpu::low_mask(n)) {
                throw std::invalid_argument("term " + std::to_string(t) + " acts beyond the " +
                                            std::to_string(n) + " qubits");
            }
        }
        if (local_bits() < block_bits) return;
        groups = cpu::group_terms(observable);
        batches = cpu::batch_groups(groups, block_bits);
        for (const cpu::TermBatch& batch : batches) {
            tiles.emplace_back(batch, n, block_bits, in_pieces);
            fewest_pieces = std::min(fewest_pieces, tiles.back().pieces);
        }
        values.resize(n_terms);
    });
    if (local_bits() < block_bits ||
        (n <= max_copied_qubits && fewest_pieces < bit(layout.rank_bits))) {
        const auto copy = whole();
        together(comm(), [&] {
            WObservable<T> terms = observable;
            values = cpu::all_term_values(copy->state.get(), terms, copy->size, in_pieces);
        });
        return values;
    }
    sort();
    std::vector<std::unique_ptr<BatchSums>> sums;
    for (const TermTiles& own : tiles) {
        together(comm(), [&] {
            sums.push_back(std::make_unique<BatchSums>(*this, own));
            sums.back()->sum_local();
        });
        sums.back()->sum_with_others();
    }
    // In the order of the ranks' numbers.
    const auto rank_of = [&](Index number) {
        return static_cast<int>(layout.numbers.rank_of(number));
    };
    const Index last = bit(layout.rank_bits) - 1;
    const auto count = static_cast<int>(n_terms);
    if (number() > 0) {
        MPI_Recv(values.data(), count, mpi_type<T>(), rank_of(number() - 1), totals_tag, comm(),
                 MPI_STATUS_IGNORE);
    }
    for (const auto& batch : sums)
        batch->add_to(values.data());
    if (number() < last) {
        MPI_Send(values.data(), count, mpi_type<T>(), rank_of(number() + 1), totals_tag, comm());
    }
    for (const auto& batch : sums)
        batch->finish();
    MPI_Bcast(values.data(), count, mpi_type<T>(), rank_of(last), comm());
    for (std::size_t t = 0; t < n_terms; ++t) {
        values[t] = cpu::with_phase(values[t], observable.phase_powers[t]);
        if (!std::isfinite(values[t])) values[t] = defined_term_value(observable, t);
    }
    return values;
}

template <class T>
std::complex<T> StateVector<T>::expectation_value(const WObservable<T>& observable) {
    const std::vector<T> values = state_->term_values(observable);
    std::complex<T> total = 0;
    for (std::size_t t = 0; t < values.size(); ++t)
        total += observable.coefficients[t] * values[t];
    return observable.constant + total;
}

template <class T>
auto StateVector<T>::terms_expectations_values(const WObservable<T>& observable)
    -> std::vector<Amplitude> {
    const std::vector<T> values = state_->term_values(observable);
    std::vector<Amplitude> result;
    together(state_->comm(), [&] {
        for (std::size_t t = 0; t < values.size(); ++t)
            result.push_back(cpu::cmul(observable.coefficients[t], Amplitude(values[t])));
    });
    return result;
}

#define PBLINALG_INSTANTIATE(T)                                                        \
    template std::complex<T> StateVector<T>::expectation_value(const WObservable<T>&); \
    template std::vector<std::complex<T>> StateVector<T>::terms_expectations_values(   \
        const WObservable<T>&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
