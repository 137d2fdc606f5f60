// Declarations of the parts of the extension module, one function per part.
#pragma once

#include <nanobind/nanobind.h>

namespace pblinalg::python {

template <class T>
void bind_records(nanobind::module_& module);
template <class T>
void bind_state(nanobind::module_& module);
template <class T>
void bind_sweeps(nanobind::module_& module);
void bind_gate_lists(nanobind::module_& module);
void bind_gradients(nanobind::module_& module);
void bind_gate_methods(nanobind::module_& module);
void bind_machine(nanobind::module_& module);

}  // namespace pblinalg::python
