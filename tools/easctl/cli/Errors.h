// How a command ends: the exit codes of easctl, and the exception that carries one to main.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace easctl {

enum class ExitCode : int {
    ok = 0,
    found = 1,     ///< a check found something, a part failed, or the result could not be written
    usage = 2,     ///< the command line is wrong
    input = 3,     ///< an input file is wrong; the message begins with "FILE:LINE: "
    database = 4,  ///< the data source cannot be reached, or refused a statement
    refused = 5,   ///< the library refused; the message names its return code
    node = 6,      ///< hardware, a kernel module or a privilege is missing
    interrupted = 130
};

/// What the code is called in the JSON output.
const char* name_of(ExitCode code) noexcept;

class Failure : public std::exception {
  public:
    /// `text` says what failed, with the file, line, DSN or field; `advice`, if any, what to do.
    Failure(ExitCode exit_code, std::string text, std::string advice = {})
        : code(exit_code), message(std::move(text)), hint(std::move(advice)) {}
    [[nodiscard]] const char* what() const noexcept override { return message.c_str(); }

    ExitCode code;
    std::string message;
    std::string hint;
};

}  // namespace easctl
