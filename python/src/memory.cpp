// How much memory is left, so that a register that does not fit is refused before it is allocated.
// On systems without /proc nothing is known and nothing is refused.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <limits>
#include <string>

#include "arguments.hpp"

namespace pblinalg::python {
namespace {

constexpr double unknown = std::numeric_limits<double>::infinity();

/// Smaller requests are left to the allocator: reading /proc would cost more than they do.
constexpr double unchecked_bytes = 1 << 20;

double number_in(const std::string& path) {
    std::ifstream file(path);
    double number = unknown;
    file >> number;
    return file ? number : unknown;
}

/// The value of `wanted` in a file of "key value" lines, which may end in a unit.
double entry_of(const std::string& path, const std::string& wanted, double otherwise) {
    std::ifstream file(path);
    std::string key;
    double value = 0;
    while (file >> key >> value) {
        if (key == wanted) return value;
        file.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return otherwise;
}

double free_memory() {
    const auto bytes = [](const char* key) {
        return 1024 * entry_of("/proc/meminfo", key, unknown);
    };
    const double available = bytes("MemAvailable:");
    // In this mode the system promises no more than it can keep, whatever is in use.
    if (number_in("/proc/sys/vm/overcommit_memory") != 2) return available;
    return std::min(available, bytes("CommitLimit:") - bytes("Committed_AS:"));
}

/// Room below the limit of the address space (ulimit -v).
double room_in_address_space() {
    rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return unknown;
    const double pages = number_in("/proc/self/statm");
    if (pages == unknown) return unknown;
    return static_cast<double>(limit.rlim_cur) - pages * static_cast<double>(sysconf(_SC_PAGESIZE));
}

/// Room in the control group of this process; both generations of the interface.
double room_in_group() {
    double room = unknown;
    std::ifstream file("/proc/self/cgroup");
    for (std::string line; std::getline(file, line);) {
        const std::size_t first = line.find(':');
        const std::size_t second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) continue;
        const std::string controllers = line.substr(first + 1, second - first - 1);
        const bool unified = controllers.empty();
        if (!unified && controllers != "memory") continue;
        const std::string base = unified ? "/sys/fs/cgroup" : "/sys/fs/cgroup/memory";
        // Inside a container the path of the group may not be visible; its root then is the group.
        for (const std::string& group : {base + line.substr(second + 1), base}) {
            const double limit =
                number_in(group + (unified ? "/memory.max" : "/memory.limit_in_bytes"));
            const double used =
                number_in(group + (unified ? "/memory.current" : "/memory.usage_in_bytes"));
            if (limit == unknown || used == unknown) continue;
            // File pages that were not touched lately are given back before anything fails.
            const double cache = entry_of(group + "/memory.stat",
                                          unified ? "inactive_file" : "total_inactive_file", 0);
            room = std::min(room, limit - used + cache);
        }
    }
    return room;
}

}  // namespace

double available_memory() {
    return std::max(0.0, std::min({free_memory(), room_in_group(), room_in_address_space()}));
}

void require_memory(double bytes, const char* purpose, double reusable) {
    if (bytes < unchecked_bytes) return;
    const double available = available_memory() + reusable;
    if (bytes <= available) return;
    char text[256];
    std::snprintf(text, sizeof text,
                  "%s needs %.0f bytes (%.1f GiB); %.0f bytes (%.1f GiB) are available", purpose,
                  bytes, bytes / 0x1p30, available, available / 0x1p30);
    raise(PyExc_MemoryError, "%s", text);
}

}  // namespace pblinalg::python
