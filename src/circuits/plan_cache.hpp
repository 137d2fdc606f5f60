// What a gate list keeps of its runs.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "circuits/plan.hpp"

namespace pblinalg {

/// The latest plans of a list, per precision and shape of state. Several threads may use it.
class PlanCache {
  public:
    /// The plan for `shape`, made by `make()` unless it is there.
    template <class T, class Make>
    std::shared_ptr<const cpu::Plan<T>> plan(const cpu::PlanShape& shape, const Make& make) {
        Plans<T>& plans = plans_of(T());
        const std::lock_guard lock(mutex_);
        for (const auto& plan : plans) {
            if (plan->shape() == shape) return plan;
        }
        if (plans.size() == max_plans) plans.erase(plans.begin());
        return plans.emplace_back(make());
    }

    /// The inverse of `list`, whose own plans are those of backward runs.
    const GateList& inverse_of(const GateList& list) {
        const std::lock_guard lock(mutex_);
        if (!inverse_) inverse_ = std::make_unique<const GateList>(list.inverse());
        return *inverse_;
    }

  private:
    template <class T>
    using Plans = std::vector<std::shared_ptr<const cpu::Plan<T>>>;
    /// A list runs on few sizes of states at a time.
    static constexpr std::size_t max_plans = 4;

    Plans<float>& plans_of(float) { return float_plans_; }
    Plans<double>& plans_of(double) { return double_plans_; }

    std::mutex mutex_;
    Plans<float> float_plans_;
    Plans<double> double_plans_;
    std::unique_ptr<const GateList> inverse_;
};

}  // namespace pblinalg
