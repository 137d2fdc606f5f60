// The plan of a program for one size of state: passes over tiles, and operations that run alone.
// Every amplitude gets the bits that it would get from the gates one by one.
#pragma once

#include <functional>

#include "circuits/lowering.hpp"
#include "circuits/planner.hpp"
#include "circuits/step_writer.hpp"
#include "core/aligned_array.hpp"
#include "core/team_scratch.hpp"

namespace pblinalg::cpu {

/// What a plan depends on besides the program.
struct PlanShape {
    unsigned int nqubits;
    unsigned int tile_bits;
    InstructionSet set;
    Accuracy accuracy;
    /// Two states side by side, by rounding: one of the qubits tells them apart.
    bool paired = false;
    friend bool operator==(const PlanShape&, const PlanShape&) = default;
};

/// The shape for 2^nqubits amplitudes on `workers`, as many as `run_team` is asked for.
template <class T>
PlanShape plan_shape(unsigned int nqubits, int workers, Accuracy accuracy = Accuracy::exact);

/// Workers that a state of 2^nqubits amplitudes pays for.
template <class T>
int plan_workers(unsigned int nqubits, int requested);

/// Whether a plan that runs once on 2^nqubits amplitudes takes less time, its making included, than
/// its operations alone.
template <class T>
bool pays_to_plan(unsigned int nqubits);

template <class T>
class Plan {
  public:
    Plan(Program<T> program, const PlanShape& shape);

    const PlanShape& shape() const { return shape_; }
    const Program<T>& program() const { return program_; }

    /// Passes over the state, and windows in them: what circuits cost.
    struct Counts {
        std::size_t passes = 0;
        std::size_t alone = 0;
        std::size_t windows = 0;
    };
    Counts counts() const;

    /// Runs all operations.
    /// @param factors  coefficients of this run.
    /// @param between  called between passes with the number of gates done; false stops.
    /// @return the number of gates done, exactly the first ones.
    std::size_t run(std::complex<T>* amplitudes, int workers, const T* factors,
                    const std::function<bool(std::size_t)>& between) const;

    /// The same on two states, of a paired shape. What they hold afterwards is not defined.
    /// @param inner_products  receives those of the program.
    /// @return false when stopped.
    bool run_paired(std::complex<T>* ket, std::complex<T>* bra, int workers, const T* factors,
                    const std::function<bool(std::size_t)>& between, double* inner_products) const;

  private:
    /// Either operations alone or a pass over tiles.
    struct Stage {
        std::vector<std::uint32_t> alone;
        Index active = 0;
        Index inactive = 0;
        PassSteps steps;
        Reached reached;  ///< what a stop finds after it
    };

    void place_tables();
    void plan_one_tile();
    void plan_passes();
    PassSteps compile(std::span<const Operation> local, Index active) const;
    unsigned int lane_bits() const;
    Index bits_in_shape(Index bits) const;
    TilePass<T> tile_pass(const Stage& stage, const T* factors) const;
    std::size_t scratch_bytes() const;
    void run_paired_pass(const Stage& stage, std::complex<T>* ket, std::complex<T>* bra,
                         int workers, const T* factors, const TeamScratch& scratch,
                         double* inner_products) const;
    void run_pass(const Stage& stage, std::complex<T>* amplitudes, int workers, const T* factors,
                  const TeamScratch& scratch) const;
    std::size_t finish_overtaken(const Stage& stage, std::complex<T>* amplitudes, int workers,
                                 const T* factors) const;

    PlanShape shape_;
    Program<T> program_;
    std::vector<PlacedTable> placed_;
    AlignedArray<std::complex<T>> tables_;
    std::vector<Stage> stages_;
};

}  // namespace pblinalg::cpu
