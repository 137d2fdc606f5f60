#include "mpi/agreement.hpp"

#include <bit>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

namespace pblinalg::mpi {
namespace {

enum class Kind : int { memory, argument, domain, length, other };

/// Says who ran out of memory, on every rank.
class RankOutOfMemory : public std::bad_alloc {
  public:
    explicit RankOutOfMemory(int rank)
        : text_("rank " + std::to_string(rank) + " has not enough memory") {}
    const char* what() const noexcept override { return text_.c_str(); }

  private:
    std::string text_;
};

std::pair<Kind, std::string> describe(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::bad_alloc&) {
        return {Kind::memory, {}};
    } catch (const std::invalid_argument& error) {
        return {Kind::argument, error.what()};
    } catch (const std::domain_error& error) {
        return {Kind::domain, error.what()};
    } catch (const std::length_error& error) {
        return {Kind::length, error.what()};
    } catch (const std::exception& error) {
        return {Kind::other, error.what()};
    } catch (...) {
        return {Kind::other, "unknown error"};
    }
}

}  // namespace

bool raise_together(MPI_Comm comm, std::exception_ptr own, bool goes_on) {
    int rank = 0;
    MPI_Comm_rank(comm, &rank);
    constexpr int nobody = std::numeric_limits<int>::max(), stopped = nobody - 1;
    const int mine = own ? rank : goes_on ? nobody : stopped;
    int first = nobody;
    MPI_Allreduce(&mine, &first, 1, MPI_INT, MPI_MIN, comm);
    if (first >= stopped) return first == nobody;
    std::pair<Kind, std::string> failure;
    if (rank == first) failure = describe(own);
    int head[] = {static_cast<int>(failure.first), static_cast<int>(failure.second.size())};
    MPI_Bcast(head, 2, MPI_INT, first, comm);
    std::string& text = failure.second;
    text.resize(static_cast<std::size_t>(head[1]));
    MPI_Bcast(text.data(), head[1], MPI_CHAR, first, comm);
    switch (static_cast<Kind>(head[0])) {
        case Kind::memory:
            throw RankOutOfMemory(first);
        case Kind::argument:
            throw std::invalid_argument(text);
        case Kind::domain:
            throw std::domain_error(text);
        case Kind::length:
            throw std::length_error(text);
        default:
            throw std::runtime_error(text);
    }
}

void Digest::add(std::uint64_t word) {
    value_ ^= word;
    value_ *= 0xFF51AFD7ED558CCD;
    value_ ^= value_ >> 32;
    value_ = std::rotl(value_ * 0xC4CEB9FE1A85EC53, 29);
}

void Digest::add_number(double number) {
    add(std::bit_cast<std::uint64_t>(number));
}

void require_same(MPI_Comm comm, std::uint64_t value, const std::string& what) {
    const std::uint64_t own[] = {value, ~value};
    std::uint64_t most[2];
    MPI_Allreduce(own, most, 2, MPI_UINT64_T, MPI_MAX, comm);
    if (most[0] != ~most[1]) throw std::invalid_argument(what + " differs between ranks");
}

Communicator::Communicator(MPI_Comm comm) {
    int started = 0, ended = 0;
    MPI_Initialized(&started);
    MPI_Finalized(&ended);
    if (!started || ended) throw std::logic_error("MPI is not running: call MPI_Init first");
    MPI_Comm_dup(comm, &comm_);
    // Nobody could go on after a lost message, whatever the caller's communicator does.
    MPI_Comm_set_errhandler(comm_, MPI_ERRORS_ARE_FATAL);
    MPI_Comm_rank(comm_, &rank_);
    MPI_Comm_size(comm_, &size_);
}

Communicator::~Communicator() {
    int ended = 0;
    MPI_Finalized(&ended);
    if (comm_ != MPI_COMM_NULL && !ended) MPI_Comm_free(&comm_);
}

Communicator::Communicator(Communicator&& other) noexcept
    : comm_(std::exchange(other.comm_, MPI_COMM_NULL)), rank_(other.rank_), size_(other.size_) {}

Communicator& Communicator::operator=(Communicator&& other) noexcept {
    std::swap(comm_, other.comm_);
    std::swap(rank_, other.rank_);
    std::swap(size_, other.size_);
    return *this;
}

}  // namespace pblinalg::mpi
