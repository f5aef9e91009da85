// A statement that executes texts as they are and reads its rows as texts, or its one number. What
// a table record binds and fetches goes through get(). An instance belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "db/base_class/OdbcHandle.h"

namespace eas {

/// A text as ODBC takes it: by a pointer to bytes that are not written.
inline SQLCHAR* odbc_text(const char* text) {
    return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text));
}

class Statement : public OdbcHandle {
  public:
    using Row = std::vector<std::optional<std::string>>;  ///< a value that is null is empty

    Statement() noexcept : OdbcHandle(SQL_HANDLE_STMT) {}

    // Each needs a handle (allocate()) and returns the ODBC result.

    /// Sends `value`, which must live until the execution, for the parameter at `position`, from 1.
    SQLRETURN bind_text(SQLUSMALLINT position, const std::string& value);
    SQLRETURN execute(const char* text);
    SQLRETURN execute(const std::string& text) { return execute(text.c_str()); }
    /// Appends all rows to `rows`, each text cut to 64 KiB. SQL_NO_DATA after the last one, 0 when
    /// the statement has no columns. Any other result is that of the call that failed, which was
    /// checked: its diagnostics records are in the trace log.
    SQLRETURN fetch_rows(std::vector<Row>& rows);

  private:
    SQLRETURN fetch_row(SQLSMALLINT columns, std::vector<char>& buffer, Row& row);
};

}  // namespace eas
