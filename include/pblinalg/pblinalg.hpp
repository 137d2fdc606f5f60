// Everything that pblinalg offers.
#pragma once

#include <pblinalg/batch.hpp>
#include <pblinalg/circuit.hpp>
#include <pblinalg/export.hpp>
#include <pblinalg/gate_list.hpp>
#include <pblinalg/gates.hpp>
#include <pblinalg/gradient.hpp>
#include <pblinalg/observable.hpp>
#include <pblinalg/reduced_density_matrix.hpp>
#include <pblinalg/run.hpp>
#include <pblinalg/state_vector.hpp>
#include <pblinalg/state_vector_cpu.hpp>
#include <pblinalg/sweep.hpp>
#include <pblinalg/threads.hpp>
#include <pblinalg/version.hpp>
