#include "db/base_class/Statement.h"

#include <algorithm>
#include <utility>

#include "db/base_class/DBDiagnostics.h"
#include "db/base_class/DBLibrary.h"

namespace eas {

SQLRETURN Statement::bind_text(SQLUSMALLINT position, const std::string& value) {
    const SQLULEN column_size = std::max<SQLULEN>(1, value.size());
    return DBLibrary::get()->SQLBindParameter(get(), position, SQL_PARAM_INPUT, SQL_C_CHAR,
                                              SQL_VARCHAR, column_size, 0, odbc_text(value.c_str()),
                                              static_cast<SQLLEN>(value.size()), nullptr);
}

SQLRETURN Statement::execute(const char* text) {
    return DBLibrary::get()->SQLExecDirect(get(), odbc_text(text), SQL_NTS);
}

SQLRETURN Statement::fetch_rows(std::vector<Row>& rows) {
    const auto failed = [this](SQLRETURN rc) { return check(SQL_HANDLE_STMT, get(), rc) != 0; };
    SQLSMALLINT columns = 0;
    SQLRETURN rc = DBLibrary::get()->SQLNumResultCols(get(), &columns);
    if (failed(rc))
        return rc;
    if (columns == 0)
        return SQL_SUCCESS;
    std::vector<char> buffer(std::size_t{64} * 1024);
    while ((rc = DBLibrary::get()->SQLFetch(get())) != SQL_NO_DATA) {
        Row row;
        if (failed(rc) || (rc = fetch_row(columns, buffer, row)) != SQL_SUCCESS)
            return rc;
        rows.push_back(std::move(row));
    }
    return rc;
}

/// Reads the current row's columns into `row` until one fails.
SQLRETURN Statement::fetch_row(SQLSMALLINT columns, std::vector<char>& buffer, Row& row) {
    for (SQLUSMALLINT i = 1; i <= columns; ++i) {
        SQLLEN length = 0;
        const SQLRETURN rc = DBLibrary::get()->SQLGetData(
            get(), i, SQL_C_CHAR, buffer.data(), static_cast<SQLLEN>(buffer.size()), &length);
        if (check(SQL_HANDLE_STMT, get(), rc) != 0)
            return rc;
        row.push_back(length == SQL_NULL_DATA ? std::nullopt
                                              : std::optional<std::string>(buffer.data()));
    }
    return SQL_SUCCESS;
}

}  // namespace eas
