// The plan of a program for a state that is spread over ranks, with no amplitude touched: stretches
// of operations whose targets lie within ranks, and the exchanges between them. The third level of
// circuits/planner.hpp: a rank is a part like a tile.
#pragma once

#include <cstdint>

#include "circuits/lowering.hpp"
#include "circuits/planner.hpp"
#include "mpi/layout.hpp"

namespace pblinalg::mpi {

/// An exchange, if any, then operations that every rank runs by itself.
struct RankPass {
    std::vector<BitSwap> swaps;  ///< distinct bits
    std::vector<std::uint32_t> operations;
    cpu::Reached reached;  ///< what a stop finds after it

    /// Of the amplitudes of a rank.
    double share_sent() const;
};

struct RankPlan {
    std::vector<RankPass> passes;
    Layout layout;  ///< what the passes leave
};

/// Replaces SWAPs by new names of qubits in what follows.
/// @return by qubit: its name at the end.
template <class T>
std::vector<unsigned int> take_out_swaps(cpu::Program<T>& program);

/// Puts `program` into the form that ranks run and plans it.
///
/// Bits that exchanges bring in are those that targets need soonest, as many as a pass can use;
/// those that they send out are needed last. By rounding, gates on different qubits overtake each
/// other, so that passes are longer.
///
/// @param program  loses its SWAPs, which become new names of qubits; takes fewer targets in every
///                 operation than `layout` has bits within ranks.
template <class T>
RankPlan plan_ranks(cpu::Program<T>& program, const Layout& layout, Accuracy accuracy);

/// Follows an operation that renumbers ranks.
/// @return whether it is one: an X with its target on a bit of the numbers.
bool renumber(const cpu::Operation& operation, Layout& layout);

/// Appends what `operation` does within the rank with `number`, if anything: bits of the number are
/// constants in controls, parities and tables.
/// @param factors  coefficients of the run.
template <class T>
void localise(const cpu::Operation& operation, const cpu::Program<T>& program, const T* factors,
              const Layout& layout, Index number, cpu::Program<T>& local);

}  // namespace pblinalg::mpi
