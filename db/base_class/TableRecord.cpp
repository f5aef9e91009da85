#include "db/base_class/TableRecord.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "db/base_class/DBDiagnostics.h"
#include "db/base_class/DBLibrary.h"

namespace eas {
namespace {

/// How a kind of column crosses ODBC.
struct OdbcTypes {
    SQLSMALLINT value;      ///< of the field
    SQLSMALLINT parameter;  ///< of the column
};

/// In the order of ColumnKind.
constexpr std::array<OdbcTypes, 4> odbc_types{{
    {SQL_C_LONG, SQL_INTEGER},
    {SQL_C_SBIGINT, SQL_BIGINT},
    {SQL_C_DOUBLE, SQL_DOUBLE},
    {SQL_C_CHAR, SQL_CHAR},
}};

constexpr OdbcTypes types_of(const Column& column) {
    return odbc_types.at(static_cast<std::size_t>(column.kind));
}

/// What a field's name is filled up with in a dump, to its width.
constexpr std::string_view label_blanks = "                          ";
static_assert(label_blanks.size() == 26);

template <typename Number>
Number number_at(const char* field) {
    Number number;
    std::memcpy(&number, field, sizeof number);
    return number;
}

void print_field(std::ostream& out, ColumnKind kind, const char* field) {
    switch (kind) {
        case ColumnKind::int32:
            out << std::int64_t{number_at<std::int32_t>(field)};
            break;
        case ColumnKind::int64:
            out << number_at<std::int64_t>(field);
            break;
        case ColumnKind::real:
            out << number_at<double>(field);
            break;
        case ColumnKind::text:
            out << field;
            break;
    }
}

}  // namespace

/// Calls visit(column, its number) for the selected columns in table order.
template <typename Visit>
void TableRecord::for_selected(const Visit& visit) const {
    const Table all = table();
    for (std::size_t i = 0; i < all.count; ++i) {
        if (selected(i))
            visit(all.columns[i], i);
    }
}

/// Calls bind(column, its number, position) for the selected columns until one fails.
template <typename Bind>
SQLRETURN TableRecord::bind_selected(SQLHANDLE hdbc, SQLHANDLE hstmt, const Bind& bind) {
    if (_columns == 0)
        return SQL_ERROR;
    const Table all = table();
    SQLUSMALLINT position = 0;
    for (std::size_t i = 0; i < all.count; ++i) {
        if (!selected(i))
            continue;
        const SQLRETURN rc = bind(all.columns[i], i, ++position);
        if (rc != SQL_SUCCESS && check_statement(rc, hdbc, hstmt) != 0)
            return rc;
    }
    return SQL_SUCCESS;
}

SQLRETURN TableRecord::bind_col(SQLHANDLE hdbc, SQLHANDLE hstmt) {
    // A driver writes an indicator only for what it has bound.
    for_selected([this](const Column&, std::size_t i) { _ind[i] = 0; });
    return bind_selected(
        hdbc, hstmt, [&](const Column& column, std::size_t i, SQLUSMALLINT position) {
            return DBLibrary::get()->SQLBindCol(hstmt, position, types_of(column).value,
                                                row() + column.offset, column.size, &_ind[i]);
        });
}

SQLRETURN TableRecord::bind_param(SQLHANDLE hdbc, SQLHANDLE hstmt) {
    return bind_selected(
        hdbc, hstmt, [&](const Column& column, std::size_t, SQLUSMALLINT position) {
            const OdbcTypes types = types_of(column);
            char* field = row() + column.offset;
            const bool is_text = column.kind == ColumnKind::text;
            const SQLULEN column_size = is_text ? column.size - 1U : 0U;
            const std::size_t length = is_text ? ::strnlen(field, column.size) : 0U;
            return DBLibrary::get()->SQLBindParameter(hstmt, position, SQL_PARAM_INPUT, types.value,
                                                      types.parameter, column_size, 0, field,
                                                      static_cast<SQLLEN>(length), nullptr);
        });
}

SQLRETURN TableRecord::fetch_col(SQLHANDLE hdbc, SQLHANDLE hstmt) {
    const SQLRETURN rc = DBLibrary::get()->SQLFetch(hstmt);
    if (rc != SQL_SUCCESS && check_statement(rc, hdbc, hstmt) != 0)
        return rc;
    if (!SQL_SUCCEEDED(rc))
        return rc;
    for_selected([this](const Column& column, std::size_t i) {
        if (column.kind == ColumnKind::text && _ind[i] == SQL_NULL_DATA)
            row()[column.offset] = '\0';
    });
    return rc;
}

void TableRecord::clear() {
    for_selected([this](const Column& column, std::size_t i) {
        std::memset(row() + column.offset, 0, column.size);
        _ind[i] = 0;
    });
}

void TableRecord::dump(std::ostream& out) {
    if (_columns != 0)
        dump_columns(out);
}

void TableRecord::dump_columns(std::ostream& out) const {
    out << "\n\n==> " << table().name << " record \n" << std::flush;
    for_selected([&](const Column& column, std::size_t i) {
        if (_ind[i] == SQL_NULL_DATA)
            return;
        const std::string_view name = column.name;
        out << "_" << name << label_blanks.substr(std::min(label_blanks.size(), 1 + name.size()))
            << "= ";
        print_field(out, column.kind, row() + column.offset);
        out << "\n" << std::flush;
    });
}

/// Appends the selected columns' names, each with `after_each`; returns how many they are.
int TableRecord::append_fields(std::string& text, std::string_view after_each) const {
    int count = 0;
    for_selected([&](const Column& column, std::size_t) {
        if (count++ != 0)
            text += ',';
        text += column.name;
        text += after_each;
    });
    return count;
}

std::string TableRecord::buildFieldString(int* count, bool /*includeKey*/) const {
    std::string text;
    *count = append_fields(text, {});
    return text;
}

std::string TableRecord::buildUpdateString() const {
    std::string text;
    append_fields(text, "=?");
    return text;
}

std::string TableRecord::getSelectStatement(bool bykey) {
    if (bykey || _columns == 0)
        return {};
    std::string text = "select ";
    // By value: bits beyond the last column count as all columns, too.
    if (_columns >= all_columns()) {
        text += '*';
    } else {
        append_fields(text, {});
    }
    return text.append(" from ").append(table().name);
}

std::string TableRecord::getInsertStatement() {
    if (_columns == 0)
        return {};
    std::string text = "insert into ";
    text.append(table().name).append(" (");
    const int count = append_fields(text, {});
    text += ") values (";
    for (int i = 1; i < count; ++i)
        text += "?,";
    return text += "?)";
}

std::string TableRecord::getUpdateStatement(bool bykey) {
    if (bykey)
        return {};
    std::string text = "update ";
    text.append(table().name).append(" set ");
    append_fields(text, "=?");
    return text;
}

std::string TableRecord::getDeleteStatement(bool bykey) {
    if (bykey)
        return {};
    // The blank at the end stays, though the condition follows after one of its own.
    return std::string("delete from ").append(table().name).append(" ");
}

}  // namespace eas
