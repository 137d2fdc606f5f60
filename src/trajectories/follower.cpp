#include "trajectories/follower.hpp"

#include <algorithm>
#include <cmath>
#include <map>
#include <pblinalg/reduced_density_matrix.hpp>
#include <pblinalg/run.hpp>
#include <stdexcept>
#include <string>

#include "core/parallel.hpp"
#include "readout/projection.hpp"

namespace pblinalg::cpu {
namespace {

/// Shots that are followed together at the most, so that memory does not grow with their number.
constexpr std::uint64_t batch_size = 1 << 20;

/// How far probabilities may be from adding up to 1.
constexpr double norm_tolerance = 0.01;

/// An outcome is certain when the other one has at most this probability: it would not be seen once
/// in 2^32 or 2^64 shots, and is what rounding leaves of an amplitude that should be 0.
template <class T>
constexpr double negligible = sizeof(T) == sizeof(float) ? 0x1p-32 : 0x1p-64;

/// Shots of a state that is none would look like results.
/// @param least  what usual operators may have left of it.
void require_norm(double total, double least) {
    if (total <= 1 + norm_tolerance && total >= least - norm_tolerance) return;
    throw std::domain_error("the probabilities of the state add up to " + std::to_string(total) +
                            "; expected 1 where qubits are read");
}

/// The trace of the product of two Hermitian matrices.
double trace_of_product(std::span<const std::complex<double>> a,
                        std::span<const std::complex<double>> b) {
    double trace = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        trace += a[i].real() * b[i].real() + a[i].imag() * b[i].imag();
    return trace;
}

}  // namespace

template <class T>
ShotFollower<T>::ShotFollower(ShotRun& run, State& state, bool looks, Reader reader)
    : run_(run),
      program_(run.program.steps()),
      root_(state),
      threads_(state.num_threads),
      looks_(looks),
      reader_(std::move(reader)) {}

template <class T>
void ShotFollower<T>::follow(std::uint64_t begin, std::uint64_t end) {
    for (first_ = begin; first_ < end; first_ += batch_size) {
        Shots shots(std::min(batch_size, end - first_));
        for (std::uint32_t i = 0; i < shots.size(); ++i)
            shots[i] = i;
        while (!shots.empty()) {
            root_.reset();
            Course course;
            course.bits.resize(program_.n_clbits);
            shots = follow_from(root_, std::move(course), std::move(shots),
                                std::max<std::size_t>(run_.options.max_states, 1) - 1);
        }
    }
}

/// Follows shots from a course on, whose state is `state`, on at most so many copies.
/// @return those for which there was no copy left: they are to be followed anew.
template <class T>
auto ShotFollower<T>::follow_from(State& state, Course course, Shots shots, std::size_t copies)
    -> Shots {
    Shots left;
    while (true) {
        if (!look()) return {};
        pass_by(course);
        if (course.step == program_.steps.size()) break;
        Branches branches = branches_of(state, course, std::move(shots));
        // All but the largest go first, on copies: each has at most half of the shots, so that
        // copies of copies are at most log2(shots).
        std::ranges::sort(branches, {}, [](const Branch& branch) { return branch.shots.size(); });
        for (std::size_t i = 0; i + 1 < branches.size(); ++i) {
            Shots& own = branches[i].shots;
            if (copies == 0) left.insert(left.end(), own.begin(), own.end());
            while (copies > 0 && !own.empty()) {
                std::unique_ptr<State> copy = copy_of(state);
                Course onward = course;
                take(*copy, onward, branches[i]);
                own = follow_from(*copy, std::move(onward), std::move(own), copies - 1);
                unused_.push_back(std::move(copy));
            }
        }
        take(state, course, branches.back());
        shots = std::move(branches.back().shots);
    }
    normalise(state, course);
    reader_(state, course, first_, shots);
    run_.done += shots.size();
    return left;
}

/// Goes past conditions and final measurements, where shots do not part.
template <class T>
void ShotFollower<T>::pass_by(Course& course) const {
    for (; course.step < program_.steps.size(); ++course.step) {
        const ShotStep& step = program_.steps[course.step];
        if (const auto* const condition = std::get_if<Condition>(&step)) {
            const bool holds = std::ranges::all_of(condition->bits, [&](ClassicalValue value) {
                return course.bits[value.clbit] == value.value;
            });
            // The loop adds the one that is missing.
            if (!holds) course.step = condition->otherwise - 1;
        } else if (run_.final_measurements[course.step]) {
            const auto& measurement = std::get<Measurement>(step);
            write_bit(course, measurement, false);
            course.deferred.push_back(&measurement);
        } else {
            return;
        }
    }
}

template <class T>
void ShotFollower<T>::write_bit(Course& course, const Measurement& measurement, bool value) const {
    course.bits[measurement.clbit] = value;
    std::erase_if(course.deferred,
                  [&](const Measurement* other) { return other->clbit == measurement.clbit; });
}

template <class T>
auto ShotFollower<T>::branches_of(State& state, Course& course, Shots shots) -> Branches {
    const ShotStep& step = program_.steps[course.step];
    if (const auto* const stretch = std::get_if<Stretch>(&step)) {
        if (course.undecided)
            return branches_of_channel(state, stretch->sites[course.site], std::move(shots));
        return branches_of_stretch(*stretch, course, std::move(shots));
    }
    if (course.least_weight < 1) normalise(state, course);
    if (const auto* const measurement = std::get_if<Measurement>(&step)) {
        return branches_of_outcome(state, measurement->qubit, measurement->draw,
                                   &measurement->error, std::move(shots));
    }
    const auto& reset = std::get<ResetStep>(step);
    return branches_of_outcome(state, reset.qubit, reset.draw, nullptr, std::move(shots));
}

/// What the channels draw up to the end of the stretch, or up to Kraus operators between which only
/// the state can decide.
template <class T>
auto ShotFollower<T>::branches_of_stretch(const Stretch& stretch, const Course& course,
                                          Shots shots) const -> Branches {
    Branches branches(1);
    if (course.site == stretch.sites.size()) {
        branches[0].shots = std::move(shots);
        return branches;
    }
    std::map<std::vector<Event>, Shots> disturbed;
    std::vector<Event> events;
    for (const std::uint32_t shot : shots) {
        const ShotDraws own = draws(shot);
        events.clear();
        for (std::size_t s = course.site; s < stretch.sites.size(); ++s) {
            const ChannelParts& parts = stretch.sites[s].channel.parts();
            const double draw = own.unit(stretch.sites[s].draw);
            if (draw >= parts.bound) continue;
            events.push_back({s, parts.is_mixture ? parts.operator_at(draw) : undecided});
            if (!parts.is_mixture) break;
        }
        (events.empty() ? branches[0].shots : disturbed[events]).push_back(shot);
    }
    if (branches[0].shots.empty()) branches.clear();
    for (auto& [drawn, own] : disturbed) {
        branches.emplace_back();
        branches.back().events = drawn;
        branches.back().shots = std::move(own);
    }
    return branches;
}

template <class T>
auto ShotFollower<T>::branches_of_channel(const State& state, const ChannelSite& site,
                                          Shots shots) const -> Branches {
    const ChannelParts& parts = site.channel.parts();
    const std::size_t rows = std::size_t{1} << parts.n_qubits;
    std::vector<std::complex<double>> matrix(rows * rows);
    reduced_density_matrix(state, site.qubits, matrix.data());
    double norm = 0;
    for (std::size_t r = 0; r < rows; ++r)
        norm += matrix[r * rows + r].real();
    Branches branches(parts.operators.size());
    double others = 0;
    std::vector<double> ends;
    for (std::size_t i = 0; i < branches.size(); ++i) {
        branches[i].choice = i;
        branches[i].weight = std::max(0.0, trace_of_product(parts.operators[i].effect, matrix));
        if (i != ChannelParts::usual) ends.push_back(others += branches[i].weight / norm);
    }
    for (const std::uint32_t shot : shots) {
        const auto end = std::ranges::upper_bound(ends, draws(shot).unit(site.draw));
        const auto place = static_cast<std::size_t>(end - ends.begin());
        // The usual operator, the first, has what the others leave.
        branches[place == ends.size() ? ChannelParts::usual : place + 1].shots.push_back(shot);
    }
    std::erase_if(branches, [](const Branch& branch) { return branch.shots.empty(); });
    return branches;
}

template <class T>
auto ShotFollower<T>::branches_of_outcome(State& state, unsigned int qubit, std::uint64_t draw,
                                          const ReadoutError* error, Shots shots) const
    -> Branches {
    T weights[2];
    state.get_distribution(weights, 0, {qubit});
    const double total = double{weights[0]} + weights[1];
    require_norm(total, 1);
    // A draw below it reads 1.
    double one = weights[1] / total;
    if (std::min(weights[0], weights[1]) <= negligible<T>) one = weights[1] > weights[0] ? 1 : 0;
    Branches branches(4);
    for (std::size_t i = 0; i < branches.size(); ++i) {
        branches[i].outcome = i & 1;
        branches[i].read = i >> 1;
        branches[i].weight = weights[!branches[i].outcome] != 0 ? weights[branches[i].outcome] : 0;
    }
    for (const std::uint32_t shot : shots) {
        const ShotDraws own = draws(shot);
        const bool outcome = own.unit(draw) < one;
        bool read = outcome;
        if (error) {
            const double wrong = outcome ? error->zero_for_one : error->one_for_zero;
            if (wrong > 0 && own.unit(draw + 1) < wrong) read = !read;
        }
        branches[outcome + 2 * read].shots.push_back(shot);
    }
    std::erase_if(branches, [](const Branch& branch) { return branch.shots.empty(); });
    return branches;
}

/// Moves a state and its course on, to the next place where shots may part.
template <class T>
void ShotFollower<T>::take(State& state, Course& course, const Branch& branch) {
    const ShotStep& step = program_.steps[course.step];
    if (const auto* const measurement = std::get_if<Measurement>(&step)) {
        collapse_to(state, measurement->qubit, branch);
        write_bit(course, *measurement, branch.read);
    } else if (const auto* const reset = std::get_if<ResetStep>(&step)) {
        collapse_to(state, reset->qubit, branch);
        move_to_zero(state.state.get(), state.size, {&reset->qubit, 1}, branch.outcome ? 1 : 0,
                     threads_);
    } else {
        const auto& stretch = std::get<Stretch>(step);
        if (!course.undecided) return run_stretch(state, stretch, course, branch.events);
        const ChannelSite& site = stretch.sites[course.site];
        std::vector<std::complex<double>> matrix =
            site.channel.parts().operators[branch.choice].matrix;
        const double scale = 1 / std::sqrt(branch.weight);
        for (std::complex<double>& entry : matrix)
            entry *= scale;
        run_gates(state, GateList().add_matrix(site.qubits, matrix));
        course.least_weight = 1;
        course.undecided = false;
        ++course.site;
        return;
    }
    ++course.step;
}

template <class T>
void ShotFollower<T>::run_stretch(State& state, const Stretch& stretch, Course& course,
                                  const std::vector<Event>& events) {
    if (stretch.least_weight < 1) {
        if (course.least_weight < least_kept_weight) normalise(state, course);
        course.least_weight *= stretch.least_weight;
    }
    course.undecided = !events.empty() && events.back().op == undecided;
    if (events.empty() && course.site == 0) {
        run_gates(state, stretch.undisturbed);
    } else {
        GateList gates;
        std::size_t next = course.site == 0 ? 0 : stretch.sites[course.site - 1].gates_before;
        auto event = events.begin();
        const std::size_t end = course.undecided ? events.back().site : stretch.sites.size();
        for (std::size_t s = course.site; s < end; ++s) {
            const ChannelSite& site = stretch.sites[s];
            while (next < site.gates_before)
                gates.append(stretch.gates[next++]);
            std::size_t op = ChannelParts::usual;
            if (event != events.end() && event->site == s) op = event++->op;
            append_operator(site.channel.parts().operators[op], site.qubits, gates);
        }
        const std::size_t last =
            course.undecided ? stretch.sites[end].gates_before : stretch.gates.size();
        while (next < last)
            gates.append(stretch.gates[next++]);
        run_gates(state, gates);
    }
    if (course.undecided) {
        course.site = events.back().site;
    } else {
        course.site = 0;
        ++course.step;
    }
}

template <class T>
void ShotFollower<T>::collapse_to(State& state, unsigned int qubit, const Branch& branch) const {
    if (branch.weight == 0) return;
    collapse(state.state.get(), state.size, {&qubit, 1}, branch.outcome ? 1 : 0,
             static_cast<T>(branch.weight), threads_);
}

template <class T>
void ShotFollower<T>::run_gates(State& state, const GateList& gates) {
    RunOptions options;
    options.accuracy = run_.options.accuracy;
    if (looks_ && run_.options.between)
        options.between_passes = [&](std::size_t) { return look(); };
    pblinalg::run(state, gates, run_.values, options);
}

/// Divides a state by its norm where usual operators may have taken from it, and sees that nothing
/// else has changed it.
template <class T>
void ShotFollower<T>::normalise(State& state, Course& course) const {
    std::complex<T>* const amplitudes = state.state.get();
    const T weight = outcome_weight(amplitudes, state.size, {}, 0, threads_);
    require_norm(weight, course.least_weight);
    if (course.least_weight == 1) return;
    collapse(amplitudes, state.size, {}, 0, weight, threads_);
    course.least_weight = 1;
}

/// False when the run is to stop.
template <class T>
bool ShotFollower<T>::look() {
    if (looks_ && run_.options.between && !run_.options.between(run_.done)) run_.stopped = true;
    return !run_.stopped;
}

template <class T>
auto ShotFollower<T>::copy_of(const State& state) -> std::unique_ptr<State> {
    std::unique_ptr<State> copy;
    if (unused_.empty()) {
        copy = std::make_unique<State>(0);
        copy->set_num_threads(threads_);
        // Grown with the workers set, each finds its amplitudes in the memory next to it.
        copy->resize(state.nqubits);
    } else {
        copy = std::move(unused_.back());
        unused_.pop_back();
    }
    for_each_block(state.size, state.size, threads_, [&](Index begin, Index end) {
        std::copy(state.state.get() + begin, state.state.get() + end, copy->state.get() + begin);
    });
    return copy;
}

template class ShotFollower<float>;
template class ShotFollower<double>;

}  // namespace pblinalg::cpu
