// What Python hands over, turned into the library's arguments and checked on the way. Every
// function here raises TypeError, ValueError, IndexError or MemoryError naming the argument, its
// value and what was expected; none of them touches a state.
#pragma once

#include <nanobind/nanobind.h>

#include <complex>
#include <cstdint>
#include <pblinalg/accuracy.hpp>
#include <string>
#include <vector>

namespace pblinalg::python {

namespace nb = nanobind;

/// Raises the Python exception `type`; the format is that of PyErr_Format (%R is a repr).
[[noreturn]] void raise(PyObject* type, const char* format, ...);

/// Stops with MemoryError when `bytes` exceed what the machine can still give, `reusable` bytes of
/// which the caller is about to free.
void require_memory(double bytes, const char* purpose, double reusable = 0);

/// Bytes that this process can still allocate: the smaller of the free memory and the room left
/// in its control group.
double available_memory();

/// An integer in [0, limit]. Booleans and floats are refused.
std::uint64_t unsigned_argument(nb::handle value, const char* name,
                                std::uint64_t limit = ~std::uint64_t{0});
/// An integer that fits into an int.
int int_argument(nb::handle value, const char* name);
/// A list, tuple or array of integers in [0, limit].
std::vector<unsigned long long> unsigned_list(nb::handle values, const char* name,
                                              std::uint64_t limit = ~std::uint64_t{0});
/// A finite real number; it must stay finite in the precision `T`.
template <class T>
T finite_argument(nb::handle value, const char* name);
/// Any real number, infinities and NaN included.
template <class T>
T real_argument(nb::handle value, const char* name);
/// A complex number whose parts are finite in the precision `T`.
template <class T>
std::complex<T> complex_argument(nb::handle value, const char* name);
/// Text made of ASCII characters.
std::string text_argument(nb::handle value, const char* name);
bool bool_argument(nb::handle value, const char* name);
/// "exact" or "rounding".
Accuracy accuracy_argument(nb::handle accuracy);

/// The elements of a list, tuple, range or array, in a tuple of their own, so that no Python code
/// run by their conversion can change them under our feet.
nb::tuple elements_of(nb::handle values, const char* name);

/// Collects the qubits of one call: each in range, none twice.
class QubitArguments {
  public:
    explicit QubitArguments(unsigned int nqubits) : nqubits_(nqubits) {}

    unsigned int one(nb::handle value, const char* name) {
        if (PyLong_CheckExact(value.ptr())) {
            int overflow = 0;
            const long qubit = PyLong_AsLongAndOverflow(value.ptr(), &overflow);
            const bool in_range =
                overflow == 0 && qubit >= 0 && qubit < static_cast<long>(nqubits_);
            if (in_range && !(seen_ >> qubit & 1)) {
                seen_ |= std::uint64_t{1} << qubit;
                return static_cast<unsigned int>(qubit);
            }
        }
        return add(value, name, -1);
    }
    std::vector<unsigned int> list(nb::handle values, const char* name);

  private:
    unsigned int add(nb::handle value, const char* name, Py_ssize_t position);

    unsigned int nqubits_;
    std::uint64_t seen_ = 0;
};

/// Elements that Python code passes between arrays and the library.
template <class E>
struct Element;
template <>
struct Element<float> {
    static constexpr const char* name = "float32";
    static constexpr const char* formats = "f";
};
template <>
struct Element<double> {
    static constexpr const char* name = "float64";
    static constexpr const char* formats = "d";
};
template <>
struct Element<std::complex<float>> {
    static constexpr const char* name = "complex64";
    static constexpr const char* formats = "F";
};
template <>
struct Element<std::complex<double>> {
    static constexpr const char* name = "complex128";
    static constexpr const char* formats = "D";
};
template <>
struct Element<unsigned long long> {
    static constexpr const char* name = "uint64";
    static constexpr const char* formats = "QL";
};

/// Memory that an alias of an amplitude array would touch.
struct MemoryRange {
    const void* begin = nullptr;
    std::size_t bytes = 0;

    bool overlaps(const void* other, std::size_t other_bytes) const;
};

/// A C-contiguous buffer, held for as long as this object lives.
class Buffer {
  public:
    Buffer() = default;
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer() { release(); }

    /// True when `object` now is held: C-contiguous, aligned, native, of one of the `formats`.
    bool acquire(nb::handle object, const char* formats, std::size_t alignment, bool writable);
    void release();

    void* data() const { return view_.buf; }
    std::size_t bytes() const { return static_cast<std::size_t>(view_.len); }
    std::size_t count() const { return bytes() / static_cast<std::size_t>(view_.itemsize); }
    int ndim() const { return view_.ndim; }
    std::size_t extent(int axis) const { return static_cast<std::size_t>(view_.shape[axis]); }

  private:
    Py_buffer view_ = {};
    bool held_ = false;
};

/// A read-only array argument. A C-contiguous array of exactly the element type is read in place;
/// anything else that NumPy turns into an array is converted, when the conversion is one of NumPy's
/// "same_kind" (integers to reals to complex numbers, and between precisions, never back).
template <class E>
class InputArray {
  public:
    /// An array that overlaps `written` is copied first.
    InputArray(nb::handle values, const char* name, MemoryRange written = {});

    /// Raises ValueError unless there are `count` elements; `meaning` says why.
    void require_count(std::size_t count, const char* meaning) const;
    const E* data() const { return static_cast<const E*>(buffer_.data()); }
    std::size_t count() const { return buffer_.count(); }
    const Buffer& buffer() const { return buffer_; }

  private:
    const char* name_;
    Buffer buffer_;
};

/// An array that the library writes: the caller's own `out`, or a new one when that is None.
template <class E>
class OutputArray {
  public:
    /// `out` has `count` elements of exactly the type E, C-contiguous, writable, and does not
    /// overlap `read`.
    OutputArray(nb::handle out, std::size_t count, MemoryRange read = {});

    E* data() const { return static_cast<E*>(buffer_.data()); }
    nb::object object() const { return object_; }

  private:
    nb::object object_;
    Buffer buffer_;
};

/// A gate matrix of 2^targets rows: two-dimensional, or its entries row by row.
template <class C>
std::vector<C> matrix_argument(nb::handle matrix, std::size_t targets, const char* name);

}  // namespace pblinalg::python
