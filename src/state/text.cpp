// The text forms of a state vector.
#include <iostream>
#include <pblinalg/state_vector_cpu.hpp>
#include <sstream>

namespace pblinalg::cpu {

template <class T>
void PybindLinAlgStateVectorCPU<T>::print() {
    for (unsigned long long i = 0; i < size; ++i)
        std::cout << i << ": " << state[i] << std::endl;
}

template <class T>
std::string PybindLinAlgStateVectorCPU<T>::str() {
    // As std::complex is written, but part by part into a stream that passes a failed allocation
    // on; the stream inside that operator would leave amplitudes out instead.
    std::ostringstream text;
    text.exceptions(std::ios::badbit);
    for (unsigned long long i = 0; i < size; ++i)
        text << '(' << state[i].real() << ',' << state[i].imag() << ") ";
    return text.str();
}

template void PybindLinAlgStateVectorCPU<float>::print();
template void PybindLinAlgStateVectorCPU<double>::print();
template std::string PybindLinAlgStateVectorCPU<float>::str();
template std::string PybindLinAlgStateVectorCPU<double>::str();

}  // namespace pblinalg::cpu
