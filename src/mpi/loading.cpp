// Product states, state preparation and QRAM over ranks: each rank runs what one process does on
// its own amplitudes, once the qubits that are written lie within ranks.
#include <algorithm>
#include <stdexcept>

#include "core/bit_placement.hpp"
#include "core/parallel.hpp"
#include "mpi/checks.hpp"
#include "mpi/state.hpp"
#include "oracles/product_state.hpp"
#include "oracles/qram.hpp"
#include "oracles/state_preparation.hpp"

namespace pblinalg::mpi {

using cpu::bit;

namespace {

void add_number(Digest& digest, std::complex<double> number) {
    digest.add_number(number.real());
    digest.add_number(number.imag());
}
void add_number(Digest& digest, unsigned long long number) {
    digest.add(number);
}

template <class Number>
std::uint64_t digest_of(std::span<const Number> numbers, std::span<const unsigned int> qubits,
                        unsigned int data_width) {
    Digest digest;
    digest.add_all(qubits);
    digest.add(data_width);
    for (const Number& number : numbers)
        add_number(digest, number);
    return digest.value();
}

/// A table as the rank at hand needs it: the rows of the addresses that agree with its number.
template <class Entry>
struct OwnTable {
    OwnTable(std::span<const Entry> table, std::size_t row_size,
             std::span<const unsigned int> address, const Layout& layout, Index number)
        : entries(table) {
        const Index fixed = layout.fixed_bits(number);
        cpu::BitPlacement place;
        Index own_row = 0;
        for (unsigned int j = 0; j < address.size(); ++j) {
            const unsigned int qubit = address[j];
            if (layout.is_local(qubit)) {
                place.add(static_cast<unsigned int>(places.size()), j);
                places.push_back(layout.place[qubit]);
            } else {
                own_row |= (fixed >> qubit & 1) << j;
            }
        }
        if (places.size() == address.size()) return;
        for (Index row = 0; row < bit(static_cast<unsigned int>(places.size())); ++row) {
            const auto from = table.subspan((own_row | place(row)) * row_size, row_size);
            copy.insert(copy.end(), from.begin(), from.end());
        }
        entries = copy;
    }

    std::vector<unsigned int> places;  ///< of the address qubits within the rank
    std::vector<Entry> copy;
    std::span<const Entry> entries;
};

}  // namespace

template <class T>
void StateVector<T>::reset_to_str(const std::string& description) {
    Digest digest;
    digest.add_all(description);
    require_same(state_->comm(), digest.value(), "the description");
    state_->layout = Layout(nqubits(), state_->layout.rank_bits);
    const cpu::ProductState<T> product(description, nqubits());
    const Index base = state_->number() << local_qubits();
    const Index size = state_->local_size();
    Amplitude* const amplitudes = state_->amplitudes.get();
    cpu::for_each_block(size, size, state_->num_threads, [=](Index begin, Index end) {
        for (Index i = begin; i < end; ++i)
            amplitudes[i] = product(base | i);
    });
}

template <class T>
void StateVector<T>::apply_state_preparation(std::span<const std::complex<double>> amplitudes,
                                             const Qubits& qubits) {
    together(state_->comm(), [&] {
        require_list_within(qubits, nqubits(), local_qubits());
        require_count(amplitudes.size(), bit(static_cast<unsigned int>(qubits.size())),
                      "amplitudes");
    });
    require_same(state_->comm(), digest_of(amplitudes, qubits, 0), "what to prepare");
    const Qubits places = state_->hold(qubits);
    together(state_->comm(), [&] {
        // The lowest-numbered qubit is bit 0 of an entry's number, and the lowest place here.
        const std::vector<unsigned int> by_place = state_->layout.qubits_by_place();
        Qubits numbers = qubits, sorted = places;
        std::ranges::sort(numbers);
        std::ranges::sort(sorted);
        cpu::BitPlacement entry_of;
        bool in_order = true;
        for (unsigned int j = 0; j < sorted.size(); ++j) {
            const auto at = std::ranges::find(numbers, by_place[sorted[j]]) - numbers.begin();
            entry_of.add(j, static_cast<unsigned int>(at));
            in_order = in_order && at == j;
        }
        std::vector<std::complex<double>> moved;
        moved.reserve(in_order ? 0 : amplitudes.size());
        for (Index i = 0; i < amplitudes.size() && !in_order; ++i)
            moved.push_back(amplitudes[entry_of(i)]);
        cpu::_state_preparation<T>(state_->amplitudes.get(),
                                   in_order ? amplitudes.data() : moved.data(), local_qubits(),
                                   places, state_->num_threads);
    });
}

template <class T>
template <class Entry, class Load>
void StateVector<T>::State::load_table(std::span<const Entry> table, const Qubits& qubits,
                                       unsigned int data_width, Index row_size, const char* name,
                                       const Load& load) {
    const std::span<const unsigned int> all = qubits;
    together(comm(), [&] {
        require_list(all, layout.n_qubits());
        if (data_width > all.size()) {
            throw std::invalid_argument("data_width = " + std::to_string(data_width) +
                                        ": expected at most the " + std::to_string(all.size()) +
                                        " listed qubits");
        }
        require_list_within(all.last(data_width), layout.n_qubits(), local_bits());
        require_count(table.size(), row_size << static_cast<unsigned int>(all.size() - data_width),
                      name);
    });
    require_same(comm(), digest_of(table, all, data_width), "what to load");
    const Qubits data = hold(all.last(data_width));
    together(comm(), [&] {
        OwnTable<Entry> own(table, row_size, all.first(all.size() - data_width), layout, number());
        own.places.insert(own.places.end(), data.begin(), data.end());
        load(amplitudes.get(), own.entries.data(), local_bits(), own.places, data_width,
             num_threads);
    });
}

template <class T>
void StateVector<T>::apply_binary_qram(std::span<const unsigned long long> words,
                                       const Qubits& qubits, unsigned int data_width) {
    state_->load_table(words, qubits, data_width, 1, "words", cpu::_binary_qram<T>);
}

template <class T>
void StateVector<T>::apply_qram(std::span<const std::complex<double>> amplitudes,
                                const Qubits& qubits, unsigned int data_width) {
    state_->load_table(amplitudes, qubits, data_width, bit(std::min(data_width, nqubits())),
                       "amplitudes", cpu::_qram<T>);
}

#define PBLINALG_INSTANTIATE(T)                                                                    \
    template void StateVector<T>::reset_to_str(const std::string&);                                \
    template void StateVector<T>::apply_state_preparation(std::span<const std::complex<double>>,   \
                                                          const Qubits&);                          \
    template void StateVector<T>::apply_binary_qram(std::span<const unsigned long long>,           \
                                                    const Qubits&, unsigned int);                  \
    template void StateVector<T>::apply_qram(std::span<const std::complex<double>>, const Qubits&, \
                                             unsigned int);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
