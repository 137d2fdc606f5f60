#include "observables/pauli_batches.hpp"

#include <map>
#include <utility>

namespace pblinalg::cpu {

template <class T>
std::vector<TermGroup> group_terms(const WObservable<T>& observable) {
    std::map<std::pair<Index, bool>, TermGroup> groups;
    for (Index t = 0; t < observable.flip_masks.size(); ++t) {
        const Index flip = observable.flip_masks[t];
        const bool imaginary = observable.phase_powers[t] % 2 != 0;
        TermGroup& group = groups[{flip, imaginary}];
        group.flip = flip;
        group.imaginary = imaginary;
        group.sign_masks.push_back(observable.sign_masks[t]);
        group.terms.push_back(t);
    }
    std::vector<TermGroup> list;
    list.reserve(groups.size());
    for (auto& [key, group] : groups)
        list.push_back(std::move(group));
    return list;
}

std::vector<TermBatch> batch_groups(const std::vector<TermGroup>& groups, unsigned int block_bits) {
    std::vector<const TermGroup*> waiting;
    waiting.reserve(groups.size());
    for (const TermGroup& group : groups)
        waiting.push_back(&group);
    std::vector<TermBatch> batches;
    while (!waiting.empty()) {
        TermBatch& batch = batches.emplace_back();
        std::erase_if(waiting, [&](const TermGroup* group) {
            return batch.add(group, group->flip >> block_bits);
        });
    }
    return batches;
}

template std::vector<TermGroup> group_terms(const WObservable<float>&);
template std::vector<TermGroup> group_terms(const WObservable<double>&);

}  // namespace pblinalg::cpu
