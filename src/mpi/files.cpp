// States in files: one .npy file in caller order, written and read by all ranks at once; and the
// checkpoints of runs, such a file beside a short text that names it and says how far the run was.
#include "mpi/files.hpp"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "mpi/state.hpp"

namespace pblinalg::mpi {

using cpu::bit;

namespace {

static_assert(std::endian::native == std::endian::little);

/// Bytes that a rank reads or writes in one call.
constexpr Index max_call_bytes = Index{1} << 28;

template <class T>
std::string header_of(unsigned int n_qubits) {
    std::string text = "{'descr': '<c" + std::to_string(sizeof(std::complex<T>)) +
                       "', 'fortran_order': False, 'shape': (" + std::to_string(bit(n_qubits)) +
                       ",), }";
    // The data begins at a multiple of 64; magic, version and length take ten bytes.
    text.append(63 - (10 + text.size()) % 64, ' ');
    text += '\n';
    std::string header("\x93NUMPY\x01\x00", 8);
    header += static_cast<char>(text.size() & 0xFF);
    header += static_cast<char>(text.size() >> 8);
    return header + text;
}

/// Where the amplitudes of a file begin.
/// Errors: std::runtime_error unless it holds 2^n_qubits amplitudes of `T`, all of them.
template <class T>
Index data_offset(const std::string& path, unsigned int n_qubits) {
    const auto fail = [&](const std::string& what) { throw std::runtime_error(path + " " + what); };
    std::ifstream file(path, std::ios::binary);
    if (!file) fail("cannot be read");
    unsigned char head[12] = {};
    file.read(reinterpret_cast<char*>(head), 8);
    if (!file || std::string(reinterpret_cast<char*>(head), 6) != "\x93NUMPY" || head[6] < 1 ||
        head[6] > 3) {
        fail("is no .npy file");
    }
    const std::size_t width = head[6] == 1 ? 2 : 4;
    file.read(reinterpret_cast<char*>(head + 8), static_cast<std::streamsize>(width));
    Index length = 0;
    for (std::size_t i = width; i-- > 0;)
        length = length << 8 | head[8 + i];
    if (!file || length > 65536) fail("is cut short");
    std::string text(length, ' ');
    file.read(text.data(), static_cast<std::streamsize>(length));
    if (!file) fail("is cut short");
    std::erase_if(text, [](char c) { return c == ' ' || c == '\n' || c == '"' || c == '\''; });
    const std::string type = "descr:<c" + std::to_string(sizeof(std::complex<T>)) + ",";
    const std::string shape = "shape:(" + std::to_string(bit(n_qubits)) + ",)";
    if (text.find(type) == std::string::npos || text.find(shape) == std::string::npos ||
        text.find("fortran_order:False") == std::string::npos) {
        fail("does not hold " + std::to_string(bit(n_qubits)) + " amplitudes of " +
             std::to_string(sizeof(std::complex<T>)) + " bytes: " + text);
    }
    const Index offset = 8 + width + length;
    if (std::filesystem::file_size(path) < offset + (sizeof(std::complex<T>) << n_qubits))
        fail("is cut short");
    return offset;
}

void require_same_path(MPI_Comm comm, const std::string& path) {
    Digest digest;
    digest.add_all(path);
    require_same(comm, digest.value(), "the path");
}

void check(int code, const std::string& path) {
    if (code == MPI_SUCCESS) return;
    char text[MPI_MAX_ERROR_STRING];
    int length = 0;
    MPI_Error_string(code, text, &length);
    throw std::runtime_error(path + ": " + std::string(text, static_cast<std::size_t>(length)));
}

/// Moves a rank's bytes from or to their place in a file, all ranks at once, by `call`.
template <class Call>
void in_calls(MPI_Comm comm, const std::string& path, char* data, Index bytes, Index offset,
              const Call& call) {
    for (Index done = 0; done < bytes; done += max_call_bytes) {
        const Index now = std::min(max_call_bytes, bytes - done);
        MPI_Status status;
        const int code = call(static_cast<MPI_Offset>(offset + done), data + done,
                              static_cast<int>(now), &status);
        together(comm, [&] {
            check(code, path);
            int count = 0;
            MPI_Get_count(&status, MPI_BYTE, &count);
            if (count != static_cast<int>(now)) throw std::runtime_error(path + " is cut short");
        });
    }
}

void rename_on_first_rank(MPI_Comm comm, bool first, const std::string& from,
                          const std::string& to) {
    together(comm, [&] {
        if (first) std::filesystem::rename(from, to);
    });
}

}  // namespace

template <class T>
void StateVector<T>::save(const std::string& path) {
    State& state = *state_;
    const bool first = rank() == 0;
    require_same_path(state.comm(), path);
    // Now a rank's amplitudes lie in the file as they lie in memory.
    state.sort_by_caller();
    const std::string unfinished = path + ".part";
    const std::string header = header_of<T>(nqubits());
    together(state.comm(), [&] {
        if (first) std::remove(unfinished.c_str());
    });
    MPI_File file = MPI_FILE_NULL;
    const int code = MPI_File_open(state.comm(), unfinished.c_str(),
                                   MPI_MODE_CREATE | MPI_MODE_WRONLY, MPI_INFO_NULL, &file);
    together(state.comm(), [&] { check(code, unfinished); });
    try {
        together(state.comm(), [&] {
            if (!first) return;
            check(MPI_File_write_at(file, 0, header.data(), static_cast<int>(header.size()),
                                    MPI_BYTE, MPI_STATUS_IGNORE),
                  unfinished);
        });
        const Index bytes = state.local_size() * sizeof(Amplitude);
        in_calls(state.comm(), unfinished, reinterpret_cast<char*>(state.amplitudes.get()), bytes,
                 header.size() + state.number() * bytes,
                 [&](MPI_Offset offset, char* data, int count, MPI_Status* status) {
                     return MPI_File_write_at_all(file, offset, data, count, MPI_BYTE, status);
                 });
        const int synced = MPI_File_sync(file);
        together(state.comm(), [&] { check(synced, unfinished); });
    } catch (...) {
        MPI_File_close(&file);
        if (first) std::remove(unfinished.c_str());
        throw;
    }
    MPI_File_close(&file);
    rename_on_first_rank(state.comm(), first, unfinished, path);
}

template <class T>
void StateVector<T>::load(const std::string& path) {
    State& state = *state_;
    require_same_path(state.comm(), path);
    Index offset = 0;
    together(state.comm(), [&] {
        if (rank() == 0) offset = data_offset<T>(path, nqubits());
    });
    MPI_Bcast(&offset, 1, MPI_UINT64_T, 0, state.comm());
    MPI_File file = MPI_FILE_NULL;
    const int code =
        MPI_File_open(state.comm(), path.c_str(), MPI_MODE_RDONLY, MPI_INFO_NULL, &file);
    together(state.comm(), [&] { check(code, path); });
    state.clear(false);
    for (unsigned int q = 0; q < nqubits(); ++q)
        state.layout.place[q] = nqubits() - 1 - q;
    const Index bytes = state.local_size() * sizeof(Amplitude);
    try {
        in_calls(state.comm(), path, reinterpret_cast<char*>(state.amplitudes.get()), bytes,
                 offset + state.number() * bytes,
                 [&](MPI_Offset at, char* data, int count, MPI_Status* status) {
                     return MPI_File_read_at_all(file, at, data, count, MPI_BYTE, status);
                 });
    } catch (...) {
        MPI_File_close(&file);
        throw;
    }
    MPI_File_close(&file);
}

std::string state_file(const std::string& path, const RunProgress& progress) {
    std::ostringstream name;
    name << path << '.' << std::hex << progress.list << '.' << std::dec << progress.gates << ".npy";
    return name.str();
}

void write_progress(const Communicator& communicator, const std::string& path,
                    const RunProgress& progress) {
    const bool first = communicator.rank() == 0;
    const std::string unfinished = path + ".part";
    together(communicator.get(), [&] {
        if (!first) return;
        std::ofstream file(unfinished);
        // Without its folder: both files may move to another one.
        const std::filesystem::path state(progress.state);
        file << "pblinalg run\ngates " << progress.gates << "\nlist " << progress.list << "\nstate "
             << state.filename().string() << '\n';
        file.flush();
        if (!file) throw std::runtime_error(unfinished + " cannot be written");
    });
    rename_on_first_rank(communicator.get(), first, unfinished, path);
}

namespace {

/// What a checkpoint says, or nothing for a text that is none.
std::optional<RunProgress> parse_progress(const std::string& text, const std::string& path) {
    RunProgress progress;
    std::istringstream file(text);
    std::string title, gates, list, state, name;
    std::getline(file, title);
    file >> gates >> progress.gates >> list >> progress.list >> state >> std::ws;
    std::getline(file, name);
    if (title != "pblinalg run" || gates != "gates" || list != "list" || state != "state" ||
        name.empty()) {
        return std::nullopt;
    }
    progress.state = (std::filesystem::path(path).parent_path() / name).string();
    return progress;
}

std::string content_of(const std::string& path) {
    std::ifstream file(path);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

}  // namespace

std::string saved_state(const std::string& path) {
    const auto progress = parse_progress(content_of(path), path);
    return progress ? progress->state : "";
}

RunProgress read_progress(const Communicator& communicator, const std::string& path) {
    std::string text;
    together(communicator.get(), [&] {
        if (communicator.rank() != 0) return;
        if (!std::ifstream(path)) throw std::runtime_error(path + " cannot be read");
        text = content_of(path);
    });
    auto length = static_cast<std::uint64_t>(text.size());
    MPI_Bcast(&length, 1, MPI_UINT64_T, 0, communicator.get());
    together(communicator.get(), [&] { text.resize(length); });
    MPI_Bcast(text.data(), static_cast<int>(length), MPI_CHAR, 0, communicator.get());
    RunProgress progress;
    together(communicator.get(), [&] {
        const auto found = parse_progress(text, path);
        if (!found) throw std::runtime_error(path + " is no checkpoint, or is cut short");
        progress = *found;
    });
    return progress;
}

#define PBLINALG_INSTANTIATE(T)                             \
    template void StateVector<T>::save(const std::string&); \
    template void StateVector<T>::load(const std::string&);
PBLINALG_INSTANTIATE(float)
PBLINALG_INSTANTIATE(double)
#undef PBLINALG_INSTANTIATE

}  // namespace pblinalg::mpi
