// What every table record stands on: the bitmap of the columns that take part in the next
// statement, their length/indicator slots, and the operations through which a transaction drives a
// record.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <array>
#include <bitset>
#include <cstdint>
#include <ostream>
#include <string>
#include <typeinfo>

/// Bit i: column i, counted from 0 in the table's column order.
using ColumnsBitMap = std::bitset<1024>;

/// Root of the record classes, with a reference count for those who share records.
class Obj {
  public:
    Obj() noexcept = default;
    Obj(const Obj&) noexcept {}  // a copy has no references yet
    Obj& operator=(const Obj&) noexcept { return *this; }
    virtual ~Obj();

    void increment() noexcept { ++_copyCount; }
    void decrement() noexcept { --_copyCount; }
    [[nodiscard]] std::uint32_t copyCount() const noexcept { return _copyCount; }

  protected:
    std::uint32_t _copyCount = 0;
};

class DBObj : public Obj {
  public:
    static constexpr int max_columns = 64;

    DBObj() noexcept;

    /// Binds the selected columns as result columns. Returns an ODBC code, -1 if none is selected.
    virtual SQLRETURN bind_col(SQLHANDLE hdbc, SQLHANDLE hstmt) = 0;
    /// Binds the selected columns as parameters. Returns an ODBC code, -1 if none is selected.
    virtual SQLRETURN bind_param(SQLHANDLE hdbc, SQLHANDLE hstmt) = 0;
    /// Fetches the next row into the record. Returns an ODBC code, SQL_NO_DATA after the last row.
    virtual SQLRETURN fetch_col(SQLHANDLE hdbc, SQLHANDLE hstmt) = 0;
    /// Prints the selected columns that are not null.
    virtual void dump(std::ostream& out) = 0;
    virtual const std::type_info& typeinfo() = 0;
    /// Statement texts over the selected columns, without a condition; here the empty string.
    virtual std::string getDeleteStatement(bool bykey);
    virtual std::string getInsertStatement();
    virtual std::string getUpdateStatement(bool bykey);
    virtual std::string getSelectStatement(bool bykey);

    /// Selects columns. Throws std::overflow_error if a bit above 63 is set; nothing changes then.
    void setBitMap(const ColumnsBitMap& columns) { _columns = columns.to_ulong(); }
    /// The bitmap with only column `column` (0 to 63) selected.
    static std::uint64_t exp(int column) noexcept { return std::uint64_t{1} << column; }

  protected:
    std::uint64_t _columns = 0;
    std::array<SQLLEN, max_columns> _ind;  ///< written by the driver on fetch; -1: null
};
