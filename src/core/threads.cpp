#include <algorithm>
#include <pblinalg/threads.hpp>
#include <thread>

namespace pblinalg {

int get_num_threads(int num_threads) {
    // The answer is known without asking the system, which takes microseconds.
    if (num_threads <= 1) return num_threads;
    return std::min(num_threads, static_cast<int>(std::thread::hardware_concurrency()));
}

}  // namespace pblinalg
