// A row of a table that is described once, as data: binding, fetching, statement texts and dumps of
// every record class are read off its list of columns. Knows no table. A record belongs to one
// thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "db/base_class/DBObj.h"

namespace eas {

enum class ColumnKind : std::uint8_t { int32, int64, real, text };

/// One column. It holds no pointer, so that a list of columns needs no relocation at load time.
struct Column {
    char name[24];  ///< the field is called the same, with a leading underscore
    ColumnKind kind;
    std::uint16_t size;    ///< bytes of the field; a text's terminating zero included
    std::uint16_t offset;  ///< of the field in the row
};

/// The column of a field of type Field at `offset`.
template <typename Field, std::size_t length>
constexpr Column column(const char (&name)[length], std::size_t offset) {
    static_assert(length <= sizeof(Column::name));
    static_assert(std::is_same_v<Field, std::int32_t> || std::is_same_v<Field, std::int64_t> ||
                  std::is_same_v<Field, double> ||
                  std::is_same_v<std::remove_extent_t<Field>, char>);
    Column made{};
    for (std::size_t i = 0; i < length; ++i)
        made.name[i] = name[i];
    made.kind = std::is_same_v<Field, std::int32_t>   ? ColumnKind::int32
                : std::is_same_v<Field, std::int64_t> ? ColumnKind::int64
                : std::is_same_v<Field, double>       ? ColumnKind::real
                                                      : ColumnKind::text;
    made.size = sizeof(Field);
    made.offset = static_cast<std::uint16_t>(offset);
    return made;
}

/// A table: its name and its columns, in the order in which "select *" delivers them.
struct Table {
    std::string_view name;
    const Column* columns;
    std::size_t count;
};

class TableRecord : public DBObj {
  public:
    // Each returns the ODBC result of its last call, or of the one that failed: the statement's
    // resources are then freed and the transaction is rolled back. With no column selected the
    // binds return -1.

    /// Result column k is the k-th selected column, whatever its place in the table.
    SQLRETURN bind_col(SQLHANDLE hdbc, SQLHANDLE hstmt) override;
    /// Texts are sent with the length they have now; no value is ever sent as null.
    SQLRETURN bind_param(SQLHANDLE hdbc, SQLHANDLE hstmt) override;
    /// Texts that are null become empty; numbers that are null keep what they were. After a failure
    /// the record holds whatever the driver wrote.
    SQLRETURN fetch_col(SQLHANDLE hdbc, SQLHANDLE hstmt) override;

    /// One line per selected column that is not null; no text when none is selected.
    void dump(std::ostream& out) override;

    /// The names of the selected columns with commas between them; their number goes to `count`.
    /// No table has key columns, so `includeKey` has no effect.
    std::string buildFieldString(int* count, bool includeKey) const;
    /// "name=?" of the selected columns with commas between them.
    std::string buildUpdateString() const;

    // No table has key columns: the texts by key are empty, and so refused on execution.
    std::string getDeleteStatement(bool bykey) override;
    std::string getInsertStatement() override;
    std::string getUpdateStatement(bool bykey) override;
    std::string getSelectStatement(bool bykey) override;

    [[nodiscard]] std::string getTableName() const { return std::string(table().name); }

    /// Selects every column.
    void selectAll() { _columns = all_columns(); }
    /// Empties the selected columns: no text, zero, not null. For records whose constructor leaves
    /// them as they are.
    void clear();

  protected:
    void dump_columns(std::ostream& out) const;

  private:
    [[nodiscard]] virtual Table table() const = 0;
    /// The first byte of the row that the columns' offsets count from.
    virtual char* row() = 0;
    [[nodiscard]] virtual const char* row() const = 0;

    [[nodiscard]] std::uint64_t all_columns() const {
        return exp(static_cast<int>(table().count)) - 1;
    }
    [[nodiscard]] bool selected(std::size_t i) const { return (_columns >> i & 1U) != 0; }
    template <typename Visit>
    void for_selected(const Visit& visit) const;
    template <typename Bind>
    SQLRETURN bind_selected(SQLHANDLE hdbc, SQLHANDLE hstmt, const Bind& bind);
    int append_fields(std::string& text, std::string_view after_each) const;
};

/// A record class of the row `Row`, whose fields are members of the record.
template <typename Row>
class RecordOf : public TableRecord, public Row {
    static_assert(std::is_standard_layout_v<Row>, "offsets of columns count from its first byte");

    char* row() final { return reinterpret_cast<char*>(static_cast<Row*>(this)); }
    [[nodiscard]] const char* row() const final {
        return reinterpret_cast<const char*>(static_cast<const Row*>(this));
    }
};

}  // namespace eas
