#include "core/instruction_set.hpp"

#include <cassert>

namespace pblinalg::cpu {
namespace {

InstructionSet widest_supported() {
    if (supports(InstructionSet::avx512)) return InstructionSet::avx512;
    if (supports(InstructionSet::avx2)) return InstructionSet::avx2;
    return InstructionSet::baseline;
}

InstructionSet& active() {
    static InstructionSet set = widest_supported();
    return set;
}

}  // namespace

const char* name_of(InstructionSet set) {
    switch (set) {
        case InstructionSet::avx512:
            return "avx512";
        case InstructionSet::avx2:
            return "avx2";
        default:
            return "baseline";
    }
}

bool supports(InstructionSet set) {
    // The built-in asks both the processor and whether the operating system saves the registers.
    switch (set) {
#if defined(__x86_64__)
        case InstructionSet::avx512:
            return supports(InstructionSet::avx2) && __builtin_cpu_supports("avx512f") &&
                   __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512bw") &&
                   __builtin_cpu_supports("avx512vl");
        case InstructionSet::avx2:
            return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
                   __builtin_cpu_supports("bmi2");
#endif
        default:
            return set == InstructionSet::baseline;
    }
}

InstructionSet active_instruction_set() {
    return active();
}

void set_instruction_set(InstructionSet set) {
    assert(supports(set));
    active() = set;
}

}  // namespace pblinalg::cpu
