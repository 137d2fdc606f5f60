// Command lines for the examples: options with a value, --help, clear refusals, exit codes.
// What an example does with its options is its own; the memory check is in support/memory.hpp.
#pragma once

#include <charconv>
#include <exception>
#include <functional>
#include <iomanip>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace examples {

inline constexpr int exit_success = 0;
inline constexpr int exit_check_failed = 1;
inline constexpr int exit_bad_usage = 2;
inline constexpr int exit_out_of_memory = 3;

/// The command line asks for something that cannot be done; the message says what and why.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The job needs more memory than there is.
struct OutOfMemory : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The options of one program. Each is declared with the variable that receives its value, which
/// holds the default until then; options are given as `--name value` or `--name=value`.
class CommandLine {
  public:
    CommandLine(std::string program, std::string summary)
        : program_(std::move(program)), summary_(std::move(summary)) {}

    /// A whole number from `least` to `most`.
    template <class Integer>
    void add_integer(const std::string& name, const std::string& meaning, Integer& value,
                     Integer least, Integer most) {
        const auto read = [=, &value](const std::string& text) {
            Integer number{};
            const char* const end = text.data() + text.size();
            const auto [stop, error] = std::from_chars(text.data(), end, number);
            if (error != std::errc() || stop != end || number < least || number > most) {
                throw UsageError(name + " takes a whole number from " + std::to_string(least) +
                                 " to " + std::to_string(most) + ", not '" + text + "'");
            }
            value = number;
        };
        options_.push_back({name, "N", meaning + " (default " + std::to_string(value) + ")", read});
    }

    /// One of the listed words.
    void add_choice(const std::string& name, const std::string& meaning, std::string& value,
                    std::vector<std::string> choices) {
        std::string listed;
        for (const std::string& choice : choices)
            listed += (listed.empty() ? "" : "|") + choice;
        const auto read = [=, &value](const std::string& text) {
            for (const std::string& choice : choices) {
                if (text == choice) {
                    value = text;
                    return;
                }
            }
            throw UsageError(name + " takes " + listed + ", not '" + text + "'");
        };
        options_.push_back({name, listed, meaning + " (default " + value + ")", read});
    }

    /// Fills the declared variables.
    /// @return false when the user asked for help, which is then printed.
    bool read(const std::vector<std::string>& arguments) const {
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            std::string name = arguments[i];
            if (name == "--help" || name == "-h") {
                print_help();
                return false;
            }
            const std::size_t equals = name.find('=');
            const bool joined = name.starts_with("--") && equals != std::string::npos;
            if (joined) name.resize(equals);
            const Option& option = find(name);
            if (!joined && i + 1 == arguments.size()) throw UsageError(name + " needs a value");
            option.read(joined ? arguments[i].substr(equals + 1) : arguments[++i]);
        }
        return true;
    }

  private:
    struct Option {
        std::string name;
        std::string value;
        std::string meaning;
        std::function<void(const std::string&)> read;
    };

    const Option& find(const std::string& name) const {
        for (const Option& option : options_) {
            if (option.name == name) return option;
        }
        throw UsageError((name.starts_with('-') ? "unknown option '" : "unexpected argument '") +
                         name + "'");
    }

    void print_help() const {
        std::cout << "Usage: " << program_ << " [options]\n" << summary_ << "\n\nOptions:\n";
        for (const Option& option : options_) {
            std::cout << "  " << std::left << std::setw(28) << option.name + " " + option.value
                      << option.meaning << '\n';
        }
        std::cout << "  " << std::setw(28) << "--help"
                  << "show this text\n"
                  << "\nExit codes: " << exit_success << " the result agrees with theory, "
                  << exit_check_failed << " it does not, " << exit_bad_usage << " bad options, "
                  << exit_out_of_memory << " too little memory.\n";
    }

    std::string program_;
    std::string summary_;
    std::vector<Option> options_;
};

/// Runs `work(arguments)`, which returns an exit code, and turns what it throws into a message on
/// standard error and an exit code.
template <class Work>
int run_program(const std::string& program, int argc, char** argv, const Work& work) {
    const auto fail = [&](const std::string& message, int code) {
        std::cout.flush();
        std::cerr << program << ": " << message << '\n';
        return code;
    };
    try {
        const int code = work(std::vector<std::string>(argv + 1, argv + argc));
        std::cout.flush();
        return std::cout ? code : fail("cannot write the output", exit_check_failed);
    } catch (const UsageError& error) {
        return fail(std::string(error.what()) + "\nTry '" + program + " --help'.", exit_bad_usage);
    } catch (const OutOfMemory& error) {
        return fail(error.what(), exit_out_of_memory);
    } catch (const std::bad_alloc&) {
        return fail("the system refused the memory that this size needs", exit_out_of_memory);
    } catch (const std::exception& error) {
        return fail(error.what(), exit_check_failed);
    }
}

}  // namespace examples
