// Runs the built easctl as a person would, and says what it printed and how it ended.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace eas::test {

struct ToolRun {
    int code = -1;  ///< the exit code; 128 + signal when a signal ended it
    std::string out;
    std::string err;
};

/// `arguments` follow the program's name. Standard input is a pipe that holds `input`; the
/// environment is the test's. There is no terminal unless something is `typed` there. A run of more
/// than a minute is ended and fails the test.
ToolRun run_easctl(const std::vector<std::string>& arguments, const std::string& input = {},
                   const std::string& typed = {});

/// The document that a command prints with --json; it must end with this code.
nlohmann::json document_of(std::vector<std::string> arguments, int code = 0);

struct Expectation {
    std::vector<std::string> arguments;
    int code;
    std::string shown;  // on standard output or error
};
void expect_all(const std::vector<Expectation>& rows);

/// Compares all that the commands of tests/tools/`name`.transcript print with what stands there.
void expect_transcript(const std::string& name);

/// The modes of files bind what is started from here on, although root starts it.
void let_file_modes_bind();

}  // namespace eas::test
