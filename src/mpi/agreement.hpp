// What ranks have to agree on before they act: that nobody failed, that all were given the same.
// Every rank raises the error of the lowest one that has one, so that none waits for another.
#pragma once

#include <mpi.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <string>

namespace pblinalg::mpi {

/// Raises on every rank the error of the lowest one that has one. Its type is kept among those that
/// the library raises; others become std::runtime_error.
/// @return whether all ranks go on.
bool raise_together(MPI_Comm comm, std::exception_ptr own, bool goes_on = true);

/// Calls `work` on every rank, which tells whether to go on; see `raise_together`.
/// @return whether all ranks do.
template <class Work>
bool all_go_on(MPI_Comm comm, const Work& work) {
    std::exception_ptr failure;
    bool goes_on = true;
    try {
        goes_on = work();
    } catch (...) {
        failure = std::current_exception();
    }
    return raise_together(comm, failure, goes_on);
}

/// The same for work that has no answer.
template <class Work>
void together(MPI_Comm comm, const Work& work) {
    all_go_on(comm, [&] {
        work();
        return true;
    });
}

/// A number that differs for different sequences, all but certainly.
class Digest {
  public:
    void add(std::uint64_t word);
    template <class Range>
    void add_all(const Range& words) {
        add(words.size());
        for (const auto& word : words)
            add(static_cast<std::uint64_t>(word));
    }
    void add_number(double number);
    std::uint64_t value() const { return value_; }

  private:
    std::uint64_t value_ = 0x9E3779B97F4A7C15;
};

/// Errors: std::invalid_argument, "<what> differs between ranks", where it does.
void require_same(MPI_Comm comm, std::uint64_t value, const std::string& what);

/// Calls `send(begin, count)` for pieces of `count` elements: messages count by ints, and pieces
/// may be on their way at once.
template <class Send>
void in_messages(std::size_t count, const Send& send) {
    constexpr std::size_t longest = std::size_t{1} << 16;
    for (std::size_t begin = 0; begin < count; begin += longest)
        send(begin, static_cast<int>(std::min(longest, count - begin)));
}

/// A duplicate of a communicator, so that messages never meet those of the caller.
class Communicator {
  public:
    /// Errors: std::logic_error before MPI_Init or after MPI_Finalize.
    explicit Communicator(MPI_Comm comm);
    ~Communicator();
    Communicator(Communicator&& other) noexcept;
    Communicator& operator=(Communicator&& other) noexcept;

    MPI_Comm get() const { return comm_; }
    int rank() const { return rank_; }
    int size() const { return size_; }

  private:
    MPI_Comm comm_ = MPI_COMM_NULL;
    int rank_ = 0;
    int size_ = 1;
};

}  // namespace pblinalg::mpi
