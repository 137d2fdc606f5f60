// A state vector as Python holds it: the library's object plus what keeps it safe there. One call
// at a time, views of the amplitudes counted, the interpreter lock released while amplitudes are
// worked on, and no fork in the middle of that.
#pragma once

#include <nanobind/nanobind.h>

#include <atomic>
#include <pblinalg/pblinalg.hpp>

#include "arguments.hpp"
#include "circuits/lowering.hpp"

namespace pblinalg::python {

/// Registers below this size are worked on with the interpreter lock held: releasing it would cost
/// more than the work itself.
inline constexpr unsigned long long min_unlocked_size = 1ull << 14;

/// Calls that run without the interpreter lock, over all threads. A fork waits for them.
extern std::atomic<int> unlocked_calls;

/// Releases the interpreter lock for its lifetime, when `worthwhile`.
class Unlocked {
  public:
    explicit Unlocked(bool worthwhile) : worthwhile_(worthwhile) { release(); }
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;
    ~Unlocked() { take(); }

    /// Runs `work` with the lock.
    template <class Work>
    void locked(const Work& work) {
        struct Again {
            Unlocked& unlocked;
            ~Again() { unlocked.release(); }
        };
        take();
        const Again again{*this};
        work();
    }

  private:
    void release() {
        if (!worthwhile_) return;
        ++unlocked_calls;
        thread_ = PyEval_SaveThread();
    }
    void take() {
        if (!worthwhile_) return;
        // Before the lock is asked for: a fork holds the lock while it waits for this count.
        --unlocked_calls;
        PyEval_RestoreThread(thread_);
    }

    bool worthwhile_;
    PyThreadState* thread_ = nullptr;
};

/// What a call in progress marks on every object that it uses.
struct Shared {
    bool busy = false;
};

[[noreturn]] inline void raise_in_use() {
    raise(PyExc_RuntimeError, "the object is in use by another call; use one thread at a time");
}

/// Claims an object for one call: a second thread, or Python code run by the conversion of an
/// argument, gets RuntimeError instead of a torn object.
class Use {
  public:
    explicit Use(Shared& object) : object_(object) {
        if (object.busy) raise_in_use();
        object.busy = true;
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use() { object_.busy = false; }

  private:
    Shared& object_;
};

template <class T>
struct BoundState : cpu::PybindLinAlgStateVectorCPU<T>, Shared {
    using Base = cpu::PybindLinAlgStateVectorCPU<T>;
    using Real = T;

    using Base::Base;

    /// NumPy arrays that look at the amplitudes.
    unsigned int views = 0;
    /// Gates applied by gate lists since construction.
    unsigned long long gates_applied = 0;
    /// Room for the gate that is applied.
    cpu::Program<T> gate;

    MemoryRange amplitudes() const {
        return {this->state.get(), this->state ? this->size * sizeof(std::complex<T>) : 0};
    }
    unsigned int qubit_limit() const { return this->nqubits; }
    /// Qubits of the density matrix, or of the pure state.
    unsigned int readout_qubits() const {
        return this->density_matrix ? this->nqubits / 2 : this->nqubits;
    }

    void require_amplitudes() const {
        if (!this->state) {
            raise(PyExc_ValueError,
                  "the state vector holds no amplitudes after release_memory or a failed resize; "
                  "resize it first");
        }
    }
    void require_readable() const {
        require_amplitudes();
        if (this->density_matrix && this->nqubits % 2 != 0) {
            raise(PyExc_ValueError,
                  "a density matrix needs an even number of qubits, got nqubits = %u",
                  this->nqubits);
        }
    }

    /// Runs `work` on the amplitudes, without the interpreter lock when there are many. There may
    /// be none: a resize that failed leaves a qubit count without them.
    template <class Work>
    decltype(auto) run(const Work& work) const {
        require_amplitudes();
        const Unlocked unlocked(this->size >= min_unlocked_size);
        return work();
    }
};

/// The largest register whose amplitude indices and byte counts fit into 64 bits.
inline constexpr unsigned int max_qubits = 58;

}  // namespace pblinalg::python
