// Which vector instructions run: chosen once per process, switched on in `dispatch` alone.
// The code of each set is the same source (kernels/*.cpp), compiled once per set.
#pragma once

namespace pblinalg::cpu {

enum class InstructionSet {
    baseline,  ///< 16-byte vectors: SSE2 on x86-64, the plain vector unit elsewhere
    avx2,      ///< 32-byte vectors, with BMI2 and FMA
    avx512,    ///< 64-byte vectors, F, DQ, BW and VL
};

/// "baseline", "avx2" or "avx512".
const char* name_of(InstructionSet set);

/// True when this processor and its operating system run `set`.
bool supports(InstructionSet set);

/// The set in use: the widest supported one, unless a test asked for another.
InstructionSet active_instruction_set();

/// Makes `set`, which must be supported, the active one. For tests and benchmarks; not to be called
/// while another thread runs a kernel.
void set_instruction_set(InstructionSet set);

/// Calls `body.operator()<set>()` for the active set.
template <class Body>
[[gnu::always_inline]] inline decltype(auto) dispatch(const Body& body) {
    switch (active_instruction_set()) {
#if defined(__x86_64__)
        case InstructionSet::avx512:
            return body.template operator()<InstructionSet::avx512>();
        case InstructionSet::avx2:
            return body.template operator()<InstructionSet::avx2>();
#endif
        default:
            return body.template operator()<InstructionSet::baseline>();
    }
}

}  // namespace pblinalg::cpu
