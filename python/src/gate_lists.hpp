// What circuits of the upper level are made of: the library's gate list with the names of its
// parameters. Its gates come from the methods in gate_methods.cpp.
#pragma once

#include <memory>
#include <pblinalg/pblinalg.hpp>
#include <string>
#include <unordered_map>
#include <vector>

#include "bound_state.hpp"

namespace pblinalg::python {

/// A number that a run fills in, or offset + scale times it. Equal names mean the same number.
struct Parameter {
    std::string name;
    double scale = 1;
    double offset = 0;

    friend bool operator==(const Parameter&, const Parameter&) = default;
};

/// The parameters of a circuit, numbered in order of first use.
class ParameterNames {
  public:
    std::uint32_t number_of(const std::string& name) {
        const auto [entry, added] =
            numbers_.try_emplace(name, static_cast<std::uint32_t>(names_.size()));
        if (added) names_.push_back(name);
        return entry->second;
    }
    const std::vector<std::string>& list() const { return names_; }

  private:
    std::vector<std::string> names_;
    std::unordered_map<std::string, std::uint32_t> numbers_;
};

/// An angle that Python handed over, and the parameter that it names.
struct AngleArgument {
    Angle angle;
    const std::string* parameter = nullptr;
};

/// A finite number, in float32 when `single`, or a parameter.
AngleArgument angle_argument(nb::handle value, const char* name, bool single);

/// Controls and what they must read: `ctrl_state` is None, an integer or a string of 0 and 1, the
/// first listed control being the most significant bit.
Controls controls_argument(QubitArguments& qubits, nb::handle controls, nb::handle ctrl_state);
Controls controls_of(std::span<const unsigned int> controls, nb::handle ctrl_state);

struct BoundGateList : Shared {
    BoundGateList(unsigned int nqubits, std::shared_ptr<ParameterNames> names)
        : nqubits(nqubits), names(std::move(names)) {}
    BoundGateList(const BoundGateList&) = delete;
    BoundGateList& operator=(const BoundGateList&) = delete;

    void require_unused() const {
        if (busy) raise_in_use();
    }

    /// Appends a gate of the table whose arguments were checked.
    void add(GateKind kind, QubitList targets, std::span<const AngleArgument> angles,
             Controls controls);
    /// Appends the gates of `other`, which may be this list, its parameters by name.
    void extend(const BoundGateList& other);

    GateList gates;
    unsigned int nqubits;
    std::shared_ptr<ParameterNames> names;
    /// Calls in progress that only read; see `Reading`.
    unsigned int readers = 0;
};

/// Claims a list for calls that only read it, any number of which go together.
class Reading {
  public:
    explicit Reading(BoundGateList& list) : list_(list) {
        if (list.readers == 0) list.require_unused();
        list.busy = true;
        ++list.readers;
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;
    ~Reading() {
        if (--list_.readers == 0) list_.busy = false;
    }

  private:
    BoundGateList& list_;
};

/// The values of a run: one finite float64 for each parameter.
std::vector<double> values_argument(const BoundGateList& self, nb::handle values);

/// The gates of m qubits on the rows, qubits 0 to m-1, of a density matrix, each followed by its
/// complex conjugate on the columns, qubits m to 2m-1.
GateList on_both_sides(const GateList& gates, unsigned int m);

}  // namespace pblinalg::python
