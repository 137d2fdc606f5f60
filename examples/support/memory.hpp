// Asks before a large job whether the machine has the memory for it, so that a register that is too
// large ends in a message and not in swapping or a killed process.
#pragma once

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>

#include "support/command_line.hpp"

namespace examples {

/// "1073741824 bytes (1.0 GiB)".
inline std::string describe_bytes(unsigned long long bytes) {
    static constexpr const char* units[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes);
    unsigned int unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(units); ++unit)
        value /= 1024;
    std::ostringstream text;
    text << bytes << " bytes";
    if (unit > 0)
        text << " (" << std::fixed << std::setprecision(1) << value << ' ' << units[unit] << ')';
    return text.str();
}

/// Bytes that this process can still take without swapping: what the system reports, or the limit
/// of the container if that is lower. Nothing where the system does not say.
inline std::optional<unsigned long long> available_bytes() {
    std::optional<unsigned long long> available;
    std::ifstream system("/proc/meminfo");
    for (std::string line; std::getline(system, line);) {
        unsigned long long kibibytes = 0;
        std::string name;
        if (std::istringstream(line) >> name >> kibibytes && name == "MemAvailable:")
            available = kibibytes * 1024;
    }
    unsigned long long limit = 0;
    if (std::ifstream("/sys/fs/cgroup/memory.max") >> limit)
        available = std::min(limit, available.value_or(limit));
    return available;
}

/// Throws `OutOfMemory` naming both numbers when `needed` bytes are more than are available.
inline void require_memory(const std::string& job, unsigned long long needed) {
    const std::optional<unsigned long long> available = available_bytes();
    if (!available || needed <= *available) return;
    throw OutOfMemory(job + " needs " + describe_bytes(needed) + " of memory, but only " +
                      describe_bytes(*available) + " are available");
}

}  // namespace examples
