// What a long call does besides its work: it looks at pending signals once in a while and tells a
// Python function how far it has come.
#pragma once

#include <chrono>
#include <cstddef>
#include <exception>

#include "bound_state.hpp"

namespace pblinalg::python {

class Watch {
  public:
    /// @param progress  a function of the number done, or None.
    explicit Watch(nb::handle progress)
        : progress_(progress), last_(std::chrono::steady_clock::now()) {
        if (!progress.is_none() && !PyCallable_Check(progress.ptr()))
            raise(PyExc_TypeError, "progress must be callable or None, got %.200R", progress.ptr());
    }

    /// Between pieces of the work. False once a signal or the function has raised something.
    bool goes_on(std::size_t done, Unlocked& unlocked) {
        return goes_on(done, [&](const auto& look) { unlocked.locked(look); });
    }
    /// The same for a caller that has the interpreter lock.
    bool goes_on(std::size_t done) {
        return goes_on(done, [](const auto& look) { look(); });
    }

    /// At the end, with the interpreter lock: a last look, and what was raised goes to the caller.
    void finish(std::size_t done) {
        if (!raised_) look(done);
        if (raised_) std::rethrow_exception(raised_);
    }

  private:
    static constexpr std::chrono::milliseconds patience{20};

    template <class Locked>
    bool goes_on(std::size_t done, const Locked& locked) {
        if (std::chrono::steady_clock::now() - last_ < patience) return true;
        locked([&] { look(done); });
        last_ = std::chrono::steady_clock::now();
        return !raised_;
    }

    void look(std::size_t done) {
        try {
            if (PyErr_CheckSignals() != 0) throw nb::python_error();
            if (!progress_.is_none()) progress_(done);
        } catch (...) {
            raised_ = std::current_exception();
        }
    }

    nb::handle progress_;
    std::chrono::steady_clock::time_point last_;
    std::exception_ptr raised_;
};

}  // namespace pblinalg::python
