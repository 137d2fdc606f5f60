// The extension module: what the machine offers, and how a fork is survived. The classes are bound
// in records.cpp, state.cpp, gate_lists.cpp and gate_methods.cpp, sweeps and reduced density
// matrices in sweeps.cpp, gradients in gradients.cpp.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>
#include <omp.h>
#include <pthread.h>
#include <unistd.h>

#include <pblinalg/batch.hpp>
#include <pblinalg/version.hpp>
#include <thread>

#include "bound_state.hpp"
#include "core/instruction_set.hpp"
#include "parts.hpp"

namespace pblinalg::python {

std::atomic<int> unlocked_calls{0};

namespace {

/// The OpenMP runtime keeps its workers between calls; a forked child inherits the list of them but
/// not the threads, and would wait for them for ever. So they are sent home before a fork, once
/// calls in progress on other threads have come out of the library.
void prepare_fork() {
    while (unlocked_calls.load() > 0)
        usleep(100);
    omp_pause_resource_all(omp_pause_soft);
}

}  // namespace

void bind_machine(nb::module_& module) {
    module.def(
        "get_num_threads",
        [](nb::handle num_threads) {
            return get_num_threads(int_argument(num_threads, "num_threads"));
        },
        nb::arg("num_threads"), nb::sig("def get_num_threads(num_threads: int) -> int"),
        "Workers that one parallel region gets for a request of `num_threads`.");
    module.def(
        "contains_no_first_qubits",
        [](nb::handle qubits, nb::handle ctrls) {
            QubitArguments arguments(64);
            const auto q = arguments.list(qubits, "qubits");
            const auto c = arguments.list(ctrls, "ctrls");
            return cpu::contains_no_first_qubits<std::complex<double>>(q, c);
        },
        nb::arg("qubits"), nb::arg("ctrls"),
        nb::sig("def contains_no_first_qubits(qubits: collections.abc.Sequence[int], "
                "ctrls: collections.abc.Sequence[int]) -> bool"),
        "True when no qubit and no control is 0, 1 or 2.");
    module.def("available_memory", available_memory,
               "Bytes that this process can still allocate; infinite where that is not known.");
    module.def(
        "require_memory",
        [](double bytes, const std::string& purpose) { require_memory(bytes, purpose.c_str()); },
        nb::arg("bytes"), nb::arg("purpose"),
        "MemoryError unless this process can still allocate that many bytes.");
    module.def(
        "require_finite",
        [](nb::handle value, const std::string& name, bool single) {
            if (single) {
                finite_argument<float>(value, name.c_str());
            } else {
                finite_argument<double>(value, name.c_str());
            }
        },
        nb::arg("value").none(), nb::arg("name"), nb::arg("single") = false,
        nb::sig("def require_finite(value: object, name: str, single: bool = False) -> None"),
        "TypeError unless the value is a real number, ValueError unless it is finite in float64, "
        "or "
        "in\nfloat32 when `single`; both say `name`.");
    module.def(
        "hardware_threads", [] { return std::max(1u, std::thread::hardware_concurrency()); },
        "Processors that this machine offers.");
    module.def(
        "instruction_set", [] { return cpu::name_of(cpu::active_instruction_set()); },
        "The vector instructions in use: baseline, avx2 or avx512.");
    module.def(
        "seed_of_job",
        [](nb::handle seed, nb::handle number) {
            return seed_of_job(unsigned_argument(seed, "seed"),
                               unsigned_argument(number, "number"));
        },
        nb::arg("seed"), nb::arg("number"),
        nb::sig("def seed_of_job(seed: int, number: int) -> int"),
        "The seed of one of many runs: a different one for each number.");
    module.attr("version") = version();
}

}  // namespace pblinalg::python

NB_MODULE(_core, module) {
    namespace python = pblinalg::python;
    module.doc() = "The library's classes in both precisions, every argument checked.";
    pthread_atfork(python::prepare_fork, nullptr, nullptr);
    python::bind_machine(module);
    python::bind_records<float>(module);
    python::bind_records<double>(module);
    python::bind_state<float>(module);
    python::bind_state<double>(module);
    python::bind_gate_lists(module);
    python::bind_gradients(module);
    python::bind_gate_methods(module);
    python::bind_sweeps<float>(module);
    python::bind_sweeps<double>(module);
}
