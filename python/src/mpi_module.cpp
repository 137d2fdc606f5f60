// The extension module of states over MPI ranks. Circuits and observables are those of `_core`,
// which is imported first; arguments are checked by the classes above and by the library.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/complex.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <pblinalg/mpi/dry_run.hpp>
#include <pblinalg/mpi/state_vector.hpp>

#include "gate_lists.hpp"
#include "records.hpp"
#include "watch.hpp"

namespace pblinalg::python {
namespace {

template <class V>
using Array = nb::ndarray<const V, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
using Values = Array<double>;

/// An array that owns what the library returned.
template <class V>
nb::ndarray<nb::numpy, V, nb::ndim<1>> owned(std::vector<V>&& values) {
    auto* const kept = new std::vector<V>(std::move(values));
    const nb::capsule owner(kept, [](void* p) noexcept { delete static_cast<std::vector<V>*>(p); });
    return {kept->data(), {kept->size()}, owner};
}

template <class V>
std::span<const V> span_of(const Array<V>& values) {
    return {values.data(), values.size()};
}

/// Runs gates; this rank's signals and what its `progress` raises stop them on all.
/// @return the error of this rank, or None: the ranks have to tell each other.
template <class Run>
nb::object watched(BoundGateList& list, nb::handle progress, const Run& run) {
    const Reading reading(list);
    Watch watch(progress);
    const RunReport report = run([&](std::size_t done) { return watch.goes_on(done); });
    try {
        watch.finish(report.gates_done);
    } catch (nb::python_error& error) {
        error.restore();
        PyObject *type, *value, *traceback;
        PyErr_Fetch(&type, &value, &traceback);
        PyErr_NormalizeException(&type, &value, &traceback);
        const auto owned_type = nb::steal(type), owned_traceback = nb::steal(traceback);
        if (traceback) PyException_SetTraceback(value, traceback);
        return nb::steal(value);
    }
    return nb::none();
}

template <class T>
void bind_ranks(nb::module_& module, const char* name) {
    using State = mpi::StateVector<T>;
    using Qubits = std::vector<unsigned int>;
    nb::class_<State>(module, name)
        .def("__init__",
             [](State* self, int comm, unsigned int nqubits, int num_threads) {
                 new (self) State(MPI_Comm_f2c(comm), nqubits, num_threads);
             })
        .def_prop_ro("nqubits", &State::nqubits)
        .def_prop_ro("local_qubits", &State::local_qubits)
        .def("copy", &State::copy)
        .def("set_num_threads", &State::set_num_threads)
        .def("seed", &State::seed)
        .def("reset", &State::reset)
        .def("set_amplitudes",
             [](State& self, const Array<std::complex<T>>& amplitudes) {
                 self.set_amplitudes(span_of(amplitudes));
             })
        .def("reset_to_str", &State::reset_to_str)
        .def("apply_state_preparation",
             [](State& self, const Array<std::complex<double>>& amplitudes, const Qubits& qubits) {
                 self.apply_state_preparation(span_of(amplitudes), qubits);
             })
        .def("apply_binary_qram",
             [](State& self, const Array<unsigned long long>& words, const Qubits& qubits,
                unsigned int data_width) {
                 self.apply_binary_qram(span_of(words), qubits, data_width);
             })
        .def("apply_qram",
             [](State& self, const Array<std::complex<double>>& table, const Qubits& qubits,
                unsigned int data_width) { self.apply_qram(span_of(table), qubits, data_width); })
        .def(
            "run",
            [](State& self, BoundGateList& list, const Values& values, const std::string& path,
               std::size_t every, nb::handle progress, nb::handle accuracy) {
                return watched(list, progress, [&](const auto& between) {
                    return self.run(list.gates, span_of(values), {path, every}, between,
                                    accuracy_argument(accuracy));
                });
            },
            nb::arg("list"), nb::arg("values"), nb::arg("path"), nb::arg("every"),
            nb::arg("progress").none(), nb::arg("accuracy"))
        .def(
            "resume",
            [](State& self, BoundGateList& list, const Values& values, const std::string& path,
               std::size_t every, nb::handle progress, nb::handle accuracy) {
                return watched(list, progress, [&](const auto& between) {
                    return self.resume(list.gates, span_of(values), {path, every}, between,
                                       accuracy_argument(accuracy));
                });
            },
            nb::arg("list"), nb::arg("values"), nb::arg("path"), nb::arg("every"),
            nb::arg("progress").none(), nb::arg("accuracy"))
        .def("amplitudes",
             [](State& self, const std::vector<std::uint64_t>& indices) {
                 return owned(self.amplitudes(indices));
             })
        .def("gather", [](State& self, int root) { return owned(self.gather(root)); })
        .def(
            "get_distribution",
            [](State& self, const Qubits& qubits, nb::handle) {
                return owned(self.distribution(qubits));
            },
            nb::arg("qubits"), nb::arg("out") = nb::none())
        .def("probability",
             [](State& self, std::uint64_t outcome, Qubits qubits) {
                 // The lower level lists the least significant qubit first.
                 std::ranges::reverse(qubits);
                 return self.probability(outcome, qubits);
             })
        .def("inner", &State::inner)
        .def("reduced_density_matrix",
             [](State& self, const Qubits& qubits) {
                 return owned(self.reduced_density_matrix(qubits));
             })
        .def("sample",
             [](State& self, std::uint64_t shots, const Qubits& qubits, int root, bool by_pieces) {
                 return owned(by_pieces ? self.sample_by_pieces(shots, qubits, root)
                                        : self.sample(shots, qubits, root));
             })
        .def("measure", &State::measure)
        .def("measure_by_pieces", &State::measure_by_pieces)
        .def("project", &State::project)
        .def("project_then_reset", &State::project_then_reset)
        .def("expectation_value",
             [](State& self, const BoundObservable<T>& observable) {
                 return self.expectation_value(observable);
             })
        .def("terms_expectations_values",
             [](State& self, const BoundObservable<T>& observable) {
                 return self.terms_expectations_values(observable);
             })
        .def("evaluate_terms",
             [](State& self, const std::vector<BoundTerm<T>*>& terms, std::uint64_t shots) {
                 std::vector<SimpleTerm<T>> copies;
                 for (const BoundTerm<T>* const term : terms)
                     copies.push_back(*term);
                 return self.evaluate_terms(std::move(copies), shots);
             })
        .def("save", &State::save)
        .def("load", &State::load);
}

nb::dict as_dict(const mpi::DryRun& run) {
    nb::dict result;
    result["exchanges"] = run.traffic.exchanges;
    result["bytes_sent"] = run.traffic.bytes;
    result["rank_passes"] = run.rank_passes;
    result["memory_passes"] = run.memory_passes;
    result["seconds"] = run.seconds;
    result["gate_by_gate_exchanges"] = run.gate_by_gate.exchanges;
    result["gate_by_gate_bytes"] = run.gate_by_gate.bytes;
    return result;
}

}  // namespace
}  // namespace pblinalg::python

NB_MODULE(_mpi, module) {
    namespace python = pblinalg::python;
    nanobind::module_::import_("pblinalg._core");
    module.doc() = "States over MPI ranks, for pblinalg.mpi.";
    python::bind_ranks<float>(module, "StateVectorFloat");
    python::bind_ranks<double>(module, "StateVectorDouble");
    module.def(
        "dry_run", [](python::BoundGateList& list, unsigned int rank_bits, bool single,
                      double memory, double network, double latency, nanobind::handle accuracy) {
            const python::Reading reading(list);
            const pblinalg::mpi::Machine machine{memory, network, latency};
            const auto how = python::accuracy_argument(accuracy);
            return python::as_dict(single ? pblinalg::mpi::dry_run<float>(list.gates, list.nqubits,
                                                                          rank_bits, machine, how)
                                          : pblinalg::mpi::dry_run<double>(
                                                list.gates, list.nqubits, rank_bits, machine, how));
        });
}
