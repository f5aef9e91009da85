// An ODBC connection of the tests' own, linked straight to the driver manager: what it sees and
// does owes nothing to the library under test. Failures throw std::runtime_error with the
// diagnostics.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace eas::test {

class PlainOdbc {
  public:
    /// A row's values as text; a null is the text "NULL".
    using Row = std::vector<std::string>;

    explicit PlainOdbc(const std::string& dsn, const std::string& user = {},
                       const std::string& password = {});
    ~PlainOdbc();
    PlainOdbc(const PlainOdbc&) = delete;
    PlainOdbc& operator=(const PlainOdbc&) = delete;

    /// Executes one statement, with `texts` as its parameters; each statement commits by itself.
    std::vector<Row> run(const std::string& sql, const std::vector<std::string>& texts = {});

    /// Executes each statement of a script: they end in ";" at a line's end; "--" starts a comment.
    void run_script(const std::string& script);

    /// The single number that a query gives.
    std::int64_t number(const std::string& sql, const std::vector<std::string>& texts = {});

  private:
    struct Handles;
    std::unique_ptr<Handles> handles_;
};

}  // namespace eas::test
