// The abstract base of every state vector: lifecycle calls and the random generator.
// The CPU implementation with its amplitudes, gates and readouts is in state_vector_cpu.hpp.
#pragma once

#include <optional>
#include <pblinalg/export.hpp>
#include <random>
#include <string>
#include <vector>

namespace pblinalg {

/// What a binding layer needs of a state vector without knowing its precision.
class PBLINALG_EXPORT PybindLinAlgStateVector {
  public:
    /// Always empty here; the names that count are those of the derived class.
    std::vector<std::string> named_ctrl_gates;
    /// The value that the generator was last seeded with from the clock. Nothing reads it back.
    unsigned int seed;
    /// The one generator behind every draw. Reseed it with `rng.seed(value)` for repeatable shots.
    std::mt19937_64 rng;

    virtual ~PybindLinAlgStateVector();

    /// Changes the qubit count.
    virtual void resize(unsigned int nqubits) = 0;
    /// Sets basis state 0, or loads the amplitudes found at the address `source`.
    virtual void reset(std::optional<unsigned long long> source = std::nullopt) = 0;
    /// Frees the amplitudes; the object stays usable.
    virtual void release_memory() = 0;
    /// Names of the gates that take control qubits.
    virtual std::vector<std::string>& get_named_ctrl_gates();

  protected:
    /// Seeds the generator from the clock.
    PybindLinAlgStateVector();
};

}  // namespace pblinalg
