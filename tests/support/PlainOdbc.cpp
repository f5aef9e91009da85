#include "tests/support/PlainOdbc.h"

#include <sql.h>
#include <sqlext.h>

#include <array>
#include <sstream>
#include <stdexcept>

namespace eas::test {
namespace {

/// The driver manager takes texts by pointers to writable bytes, but does not write them.
SQLCHAR* sql_text(const std::string& text) {
    return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text.c_str()));
}

std::string diagnostics(SQLSMALLINT type, SQLHANDLE handle) {
    std::string all;
    std::array<SQLCHAR, 6> state{};
    std::array<SQLCHAR, 1024> message{};
    SQLINTEGER native = 0;
    for (SQLSMALLINT i = 1; SQLGetDiagRec(type, handle, i, state.data(), &native, message.data(),
                                          message.size(), nullptr) == SQL_SUCCESS;
         ++i) {
        all += '[';
        all += reinterpret_cast<const char*>(state.data());
        all += "] ";
        all += reinterpret_cast<const char*>(message.data());
    }
    return all;
}

struct Handle {
    Handle(SQLSMALLINT handle_type, SQLHANDLE parent) : type(handle_type) {
        if (SQLAllocHandle(type, parent, &handle) != SQL_SUCCESS) {
            throw std::runtime_error("no ODBC handle");
        }
    }
    ~Handle() { SQLFreeHandle(type, handle); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    void check(SQLRETURN rc, const std::string& what) const {
        if (rc == SQL_SUCCESS || rc == SQL_SUCCESS_WITH_INFO || rc == SQL_NO_DATA)
            return;
        throw std::runtime_error(what + ": " + diagnostics(type, handle));
    }

    SQLSMALLINT type;
    SQLHANDLE handle = nullptr;
};

struct Environment : Handle {
    Environment() : Handle(SQL_HANDLE_ENV, nullptr) {
        const auto version = static_cast<SQLULEN>(SQL_OV_ODBC3);
        check(
            SQLSetEnvAttr(handle, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(version), 0),
            "ODBC 3");
    }
};

std::string value(const Handle& statement, SQLUSMALLINT column) {
    std::array<char, 4096> text{};
    SQLLEN length = 0;
    const SQLRETURN rc =
        SQLGetData(statement.handle, column, SQL_C_CHAR, text.data(), text.size(), &length);
    statement.check(rc == SQL_SUCCESS_WITH_INFO ? SQL_ERROR : rc, "SQLGetData");
    return length == SQL_NULL_DATA ? "NULL" : text.data();
}

}  // namespace

struct PlainOdbc::Handles {
    Environment environment;
    Handle connection{SQL_HANDLE_DBC, environment.handle};
};

PlainOdbc::PlainOdbc(const std::string& dsn, const std::string& user, const std::string& password)
    : handles_(std::make_unique<Handles>()) {
    const Handle& connection = handles_->connection;
    connection.check(SQLConnect(connection.handle, sql_text(dsn), SQL_NTS, sql_text(user),
                                static_cast<SQLSMALLINT>(user.size()), sql_text(password),
                                static_cast<SQLSMALLINT>(password.size())),
                     "SQLConnect");
}

PlainOdbc::~PlainOdbc() {
    SQLDisconnect(handles_->connection.handle);
}

std::vector<PlainOdbc::Row> PlainOdbc::run(const std::string& sql,
                                           const std::vector<std::string>& texts) {
    const Handle statement(SQL_HANDLE_STMT, handles_->connection.handle);
    SQLUSMALLINT position = 0;
    for (const std::string& text : texts) {
        const auto size = static_cast<SQLLEN>(text.size());
        statement.check(SQLBindParameter(statement.handle, ++position, SQL_PARAM_INPUT, SQL_C_CHAR,
                                         SQL_CHAR, 1024, 0, sql_text(text), size, nullptr),
                        "SQLBindParameter");
    }
    statement.check(SQLExecDirect(statement.handle, sql_text(sql), SQL_NTS), sql);
    SQLSMALLINT columns = 0;
    statement.check(SQLNumResultCols(statement.handle, &columns), sql);
    std::vector<Row> rows;
    while (columns > 0) {
        const SQLRETURN rc = SQLFetch(statement.handle);
        statement.check(rc, sql);
        if (rc == SQL_NO_DATA)
            break;
        Row& row = rows.emplace_back();
        for (SQLSMALLINT i = 1; i <= columns; ++i) {
            row.push_back(value(statement, static_cast<SQLUSMALLINT>(i)));
        }
    }
    return rows;
}

void PlainOdbc::run_script(const std::string& script) {
    std::istringstream lines(script);
    std::string line;
    std::string statement;
    while (std::getline(lines, line)) {
        if (line.compare(0, 2, "--") == 0)
            continue;
        statement += line + '\n';
        if (line.empty() || line.back() != ';')
            continue;
        statement.resize(statement.size() - 2);
        run(statement);
        statement.clear();
    }
}

std::int64_t PlainOdbc::number(const std::string& sql, const std::vector<std::string>& texts) {
    const std::vector<Row> rows = run(sql, texts);
    if (rows.size() != 1 || rows.front().size() != 1)
        throw std::runtime_error("not one number: " + sql);
    return std::stoll(rows.front().front());
}

}  // namespace eas::test
