// The conversions behind arguments.hpp.
#include "arguments.hpp"

#include <nanobind/operators.h>
#include <nanobind/stl/string.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <type_traits>

namespace pblinalg::python {
namespace {

/// `value` as an exact Python int, or null when it is none.
nb::object as_integer(nb::handle value) {
    if (PyBool_Check(value.ptr()) || !PyIndex_Check(value.ptr())) return nb::object();
    PyObject* const integer = PyNumber_Index(value.ptr());
    if (!integer) {
        // An array of any shape claims to be an index.
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw nb::python_error();
        PyErr_Clear();
    }
    return nb::steal(integer);
}

[[noreturn]] void raise_not_integer(nb::handle value, const char* name) {
    raise(PyExc_TypeError, "%s must be an integer, got %.200R of type %s", name, value.ptr(),
          Py_TYPE(value.ptr())->tp_name);
}

double as_double(nb::handle value, const char* name) {
    if (PyFloat_CheckExact(value.ptr())) return PyFloat_AS_DOUBLE(value.ptr());
    const bool real =
        PyFloat_Check(value.ptr()) || PyIndex_Check(value.ptr()) ||
        (Py_TYPE(value.ptr())->tp_as_number && Py_TYPE(value.ptr())->tp_as_number->nb_float);
    if (!real || PyBool_Check(value.ptr())) {
        raise(PyExc_TypeError, "%s must be a real number, got %.200R of type %s", name, value.ptr(),
              Py_TYPE(value.ptr())->tp_name);
    }
    const double number = PyFloat_AsDouble(value.ptr());
    if (number == -1.0 && PyErr_Occurred()) {
        if (!PyErr_ExceptionMatches(PyExc_OverflowError)) throw nb::python_error();
        PyErr_Clear();
        raise(PyExc_ValueError, "%s must be a finite number, got %.200R", name, value.ptr());
    }
    return number;
}

}  // namespace

void raise(PyObject* type, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    PyErr_FormatV(type, format, arguments);
    va_end(arguments);
    throw nb::python_error();
}

std::uint64_t unsigned_argument(nb::handle value, const char* name, std::uint64_t limit) {
    const nb::object held = PyLong_CheckExact(value.ptr()) ? nb::borrow(value) : as_integer(value);
    if (!held.is_valid()) raise_not_integer(value, name);
    int overflow = 0;
    const long long small = PyLong_AsLongLongAndOverflow(held.ptr(), &overflow);
    if (overflow == 0 && small >= 0 && static_cast<std::uint64_t>(small) <= limit)
        return static_cast<std::uint64_t>(small);
    if (overflow > 0 && limit > static_cast<std::uint64_t>(INT64_MAX)) {
        const std::uint64_t large = PyLong_AsUnsignedLongLong(held.ptr());
        if (!PyErr_Occurred() && large <= limit) return large;
        PyErr_Clear();
    }
    raise(PyExc_ValueError, "%s must lie between 0 and %llu, got %.200R", name,
          static_cast<unsigned long long>(limit), value.ptr());
}

int int_argument(nb::handle value, const char* name) {
    const nb::object held = as_integer(value);
    if (!held.is_valid()) raise_not_integer(value, name);
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(held.ptr(), &overflow);
    if (overflow != 0 || number < INT32_MIN || number > INT32_MAX) {
        raise(PyExc_ValueError, "%s must lie between %d and %d, got %.200R", name, INT32_MIN,
              INT32_MAX, value.ptr());
    }
    return static_cast<int>(number);
}

nb::tuple elements_of(nb::handle values, const char* name) {
    if (PyTuple_CheckExact(values.ptr())) return nb::borrow<nb::tuple>(values);
    const bool text = PyUnicode_Check(values.ptr()) || PyBytes_Check(values.ptr()) ||
                      PyByteArray_Check(values.ptr());
    if (text || PyDict_Check(values.ptr()) || !PySequence_Check(values.ptr())) {
        raise(PyExc_TypeError, "%s must be a list, tuple or array, got %.200R of type %s", name,
              values.ptr(), Py_TYPE(values.ptr())->tp_name);
    }
    PyObject* const tuple = PySequence_Tuple(values.ptr());
    if (!tuple) throw nb::python_error();
    return nb::steal<nb::tuple>(tuple);
}

std::vector<unsigned long long> unsigned_list(nb::handle values, const char* name,
                                              std::uint64_t limit) {
    std::vector<unsigned long long> result;
    const nb::tuple elements = elements_of(values, name);
    result.reserve(elements.size());
    for (const nb::handle element : elements)
        result.push_back(unsigned_argument(element, name, limit));
    return result;
}

template <class T>
T finite_argument(nb::handle value, const char* name) {
    const T number = static_cast<T>(as_double(value, name));
    if (!std::isfinite(number)) {
        raise(PyExc_ValueError, "%s must be a finite number (in %s), got %.200R", name,
              Element<T>::name, value.ptr());
    }
    return number;
}

template <class T>
T real_argument(nb::handle value, const char* name) {
    return static_cast<T>(as_double(value, name));
}

template <class T>
std::complex<T> complex_argument(nb::handle value, const char* name) {
    if (PyUnicode_Check(value.ptr()) || PyBool_Check(value.ptr())) {
        raise(PyExc_TypeError, "%s must be a complex number, got %.200R of type %s", name,
              value.ptr(), Py_TYPE(value.ptr())->tp_name);
    }
    const Py_complex parts = PyComplex_AsCComplex(value.ptr());
    if (parts.real == -1.0 && PyErr_Occurred()) {
        const bool range = PyErr_ExceptionMatches(PyExc_OverflowError);
        if (!range && !PyErr_ExceptionMatches(PyExc_TypeError)) throw nb::python_error();
        PyErr_Clear();
        raise(range ? PyExc_ValueError : PyExc_TypeError,
              "%s must be a finite complex number, got %.200R of type %s", name, value.ptr(),
              Py_TYPE(value.ptr())->tp_name);
    }
    const std::complex<T> number(static_cast<T>(parts.real), static_cast<T>(parts.imag));
    if (!std::isfinite(number.real()) || !std::isfinite(number.imag()))
        raise(PyExc_ValueError, "%s must be a finite complex number, got %.200R", name,
              value.ptr());
    return number;
}

std::string text_argument(nb::handle value, const char* name) {
    if (!PyUnicode_Check(value.ptr())) {
        raise(PyExc_TypeError, "%s must be a str, got %.200R of type %s", name, value.ptr(),
              Py_TYPE(value.ptr())->tp_name);
    }
    if (!PyUnicode_IS_ASCII(value.ptr()))
        raise(PyExc_ValueError, "%s must hold ASCII characters only, got %.200R", name,
              value.ptr());
    Py_ssize_t length = 0;
    const char* const text = PyUnicode_AsUTF8AndSize(value.ptr(), &length);
    if (!text) throw nb::python_error();
    return std::string(text, static_cast<std::size_t>(length));
}

bool bool_argument(nb::handle value, const char* name) {
    if (!PyBool_Check(value.ptr())) {
        raise(PyExc_TypeError, "%s must be True or False, got %.200R of type %s", name, value.ptr(),
              Py_TYPE(value.ptr())->tp_name);
    }
    return value.ptr() == Py_True;
}

Accuracy accuracy_argument(nb::handle accuracy) {
    std::string word;
    if (nb::try_cast(accuracy, word)) {
        if (word == "exact") return Accuracy::exact;
        if (word == "rounding") return Accuracy::rounding;
    }
    raise(PyExc_ValueError, "accuracy = %.200R: expected 'exact' or 'rounding'", accuracy.ptr());
}

unsigned int QubitArguments::add(nb::handle value, const char* name, Py_ssize_t position) {
    const nb::object held = PyLong_CheckExact(value.ptr()) ? nb::borrow(value) : as_integer(value);
    const std::string place =
        position < 0 || held.is_valid() ? std::string() : "[" + std::to_string(position) + "]";
    if (!held.is_valid()) raise_not_integer(value, (name + place).c_str());
    int overflow = 0;
    const long long qubit = PyLong_AsLongLongAndOverflow(held.ptr(), &overflow);
    if (overflow != 0 || qubit < 0 || qubit >= static_cast<long long>(nqubits_)) {
        if (nqubits_ == 0)
            raise(PyExc_IndexError, "%s = %.200R: there are no qubits", name, value.ptr());
        raise(PyExc_IndexError, "%s = %.200R: expected a qubit between 0 and %u", name, value.ptr(),
              nqubits_ - 1);
    }
    const std::uint64_t bit = std::uint64_t{1} << qubit;
    if (seen_ & bit) {
        raise(PyExc_ValueError, "%s = %.200R: the qubit is listed twice; expected distinct qubits",
              name, value.ptr());
    }
    seen_ |= bit;
    return static_cast<unsigned int>(qubit);
}

std::vector<unsigned int> QubitArguments::list(nb::handle values, const char* name) {
    std::vector<unsigned int> result;
    const nb::tuple elements = elements_of(values, name);
    const std::size_t count = elements.size();
    result.reserve(std::min<std::size_t>(count, nqubits_));
    for (std::size_t i = 0; i < count; ++i)
        result.push_back(add(PyTuple_GET_ITEM(elements.ptr(), static_cast<Py_ssize_t>(i)), name,
                             static_cast<Py_ssize_t>(i)));
    return result;
}

bool MemoryRange::overlaps(const void* other, std::size_t other_bytes) const {
    const std::less<const char*> before;
    const char* const a = static_cast<const char*>(begin);
    const char* const b = static_cast<const char*>(other);
    return bytes != 0 && other_bytes != 0 && before(a, b + other_bytes) && before(b, a + bytes);
}

bool Buffer::acquire(nb::handle object, const char* formats, std::size_t alignment, bool writable) {
    if (!PyObject_CheckBuffer(object.ptr())) return false;
    const int flags =
        PyBUF_C_CONTIGUOUS | PyBUF_FORMAT | (writable ? PyBUF_WRITABLE : PyBUF_SIMPLE);
    if (PyObject_GetBuffer(object.ptr(), &view_, flags) != 0) {
        PyErr_Clear();
        return false;
    }
    held_ = true;
    // Complex formats are spelled "Zf" and "Zd"; they are looked up here as "F" and "D".
    const char* const format = view_.format ? view_.format : "B";
    char code = '\0';
    if (std::strlen(format) == 1) code = format[0];
    if (std::strcmp(format, "Zf") == 0) code = 'F';
    if (std::strcmp(format, "Zd") == 0) code = 'D';
    const bool fits = code != '\0' && std::strchr(formats, code) != nullptr &&
                      reinterpret_cast<std::uintptr_t>(view_.buf) % alignment == 0 &&
                      view_.ndim > 0;
    if (!fits) release();
    return fits;
}

void Buffer::release() {
    if (held_) PyBuffer_Release(&view_);
    held_ = false;
}

template <class E>
InputArray<E>::InputArray(nb::handle values, const char* name, MemoryRange written) : name_(name) {
    if (buffer_.acquire(values, Element<E>::formats, alignof(E), false)) {
        if (!written.overlaps(buffer_.data(), buffer_.bytes())) return;
        buffer_.release();
    }
    const nb::module_ numpy = nb::module_::import_("numpy");
    nb::object converted;
    try {
        converted = numpy.attr("array")(values);
        const std::string kind = nb::cast<std::string>(converted.attr("dtype").attr("kind"));
        if (kind == "O" || kind == "b") raise(PyExc_TypeError, "dtype %s", kind.c_str());
        const bool words = std::is_same_v<E, unsigned long long>;
        if (words && kind == "i" &&
            PyObject_IsTrue(converted.attr("__lt__")(0).attr("any")().ptr()))
            raise(PyExc_ValueError, "negative numbers");
        const bool integers = kind == "i" || kind == "u";
        converted = converted.attr("astype")(
            Element<E>::name, nb::arg("order") = "C",
            nb::arg("casting") = words && integers ? "unsafe" : "same_kind");
    } catch (nb::python_error& error) {
        if (!error.matches(PyExc_TypeError) && !error.matches(PyExc_ValueError)) throw;
        raise(PyExc_TypeError,
              "%s must be an array of %s or convert to one without loss of kind: %.200R", name,
              Element<E>::name, error.value().ptr());
    }
    if (nb::cast<int>(converted.attr("ndim")) == 0)
        raise(PyExc_TypeError, "%s must be an array of %s, got %.200R", name, Element<E>::name,
              values.ptr());
    if (!buffer_.acquire(converted, Element<E>::formats, alignof(E), false))
        raise(PyExc_TypeError, "%s must be an array of %s", name, Element<E>::name);
}

template <class E>
void InputArray<E>::require_count(std::size_t count, const char* meaning) const {
    if (buffer_.count() == count) return;
    raise(PyExc_ValueError, "%s holds %zu elements; expected %zu (%s)", name_, buffer_.count(),
          count, meaning);
}

template <class E>
OutputArray<E>::OutputArray(nb::handle out, std::size_t count, MemoryRange read) {
    if (out.is_none()) {
        require_memory(static_cast<double>(count) * sizeof(E), "the array of results");
        object_ = nb::module_::import_("numpy").attr("empty")(count, Element<E>::name);
    } else {
        object_ = nb::borrow(out);
    }
    if (!buffer_.acquire(object_, Element<E>::formats, alignof(E), true)) {
        raise(PyExc_TypeError,
              "out must be a writable, aligned, C-contiguous array of %s, got an object of type %s",
              Element<E>::name, Py_TYPE(object_.ptr())->tp_name);
    }
    if (buffer_.count() != count) {
        raise(PyExc_ValueError, "out holds %zu elements; expected %zu", buffer_.count(), count);
    }
    if (read.overlaps(buffer_.data(), buffer_.bytes()))
        raise(PyExc_ValueError, "out overlaps the amplitudes it is computed from");
}

template <class C>
std::vector<C> matrix_argument(nb::handle matrix, std::size_t targets, const char* name) {
    const InputArray<C> entries(matrix, name);
    const Buffer& buffer = entries.buffer();
    const std::size_t rows = targets < 32 ? std::size_t{1} << targets : 0;
    const bool square = buffer.ndim() == 2 && buffer.extent(0) == rows && buffer.extent(1) == rows;
    const bool flat = buffer.ndim() == 1 && buffer.extent(0) == rows * rows;
    if (rows == 0 || !(square || flat)) {
        raise(PyExc_ValueError,
              "%s holds %zu entries in %d dimensions; expected a 2^%zu x 2^%zu matrix for %zu "
              "target qubits",
              name, buffer.count(), buffer.ndim(), targets, targets, targets);
    }
    require_memory(static_cast<double>(buffer.bytes()), "a copy of the matrix");
    return std::vector<C>(entries.data(), entries.data() + entries.count());
}

#define PBLINALG_INSTANTIATE(T)                                             \
    template T finite_argument<T>(nb::handle, const char*);                 \
    template T real_argument<T>(nb::handle, const char*);                   \
    template std::complex<T> complex_argument<T>(nb::handle, const char*);  \
    template class InputArray<std::complex<T>>;                             \
    template class OutputArray<T>;                                          \
    template class OutputArray<std::complex<T>>;                            \
    template std::vector<std::complex<T>> matrix_argument<std::complex<T>>( \
        nb::handle, std::size_t, const char*);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE
template class InputArray<double>;
template class InputArray<unsigned long long>;
template class OutputArray<unsigned long long>;

}  // namespace pblinalg::python
