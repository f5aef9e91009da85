// Executes SQL on one connection for the table records: takes a statement's text from the record,
// appends the caller's condition, binds, executes, and leaves a query open for fetching row by row.
//
// Neither the destructor nor any success commits; a failed statement rolls the transaction back by
// itself. An instance and its connection belong to one thread at a time. Functions return the ODBC
// result (0 success, 1 with information, 100 no data, negative errors), or -1 when there was
// nothing to execute.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include "db/base_class/DBObj.h"
#include "db/base_class/Statement.h"

class DBConnection;
class DBConnectionPool;

class TxObject {
  public:
    /// Uses the caller's connection and switches its autocommit off.
    explicit TxObject(DBConnection* con);
    /// Uses a connection of the pool, which goes back at the end; without one every call fails.
    explicit TxObject(DBConnectionPool* pool);
    virtual ~TxObject();
    TxObject(const TxObject&) = delete;
    TxObject& operator=(const TxObject&) = delete;

    int commit();
    int rollback();
    int setAutoCommit(bool on);
    bool isAutoCommit();
    [[nodiscard]] DBConnection* getConnection() const noexcept { return _dbcon; }

    /// Allocates a statement, closing an open one. It stays this object's. After a failure `out`
    /// holds -1 (all bits set).
    SQLRETURN alloc(SQLHANDLE* out);

    /// Runs the record's query and leaves it open for fetch(). Without diagnostics records in the
    /// trace log unless `printTrace`.
    int query(DBObj* o, const char* whereclause, bool printTrace);
    int queryByKey(DBObj* rec);
    int update(DBObj* rec, const char* condition);
    int updateByKey(DBObj* rec);
    /// `deleteFirst` deletes by key, which no table has: that is refused, and the insert goes on.
    int insert(DBObj* rec, bool deleteFirst);
    int del(DBObj* rec, const char* condition);
    int delByKey(DBObj* rec);

    /// Executes any text.
    int execStmt(const char* sql);
    /// Executes any text and leaves the statement open. It stays this object's; `out` is written
    /// after a failure, too.
    int execQuery(const char* sql, SQLHANDLE* out);

    /// Fetches the next row into the record that was queried. 100 after the last one: the statement
    /// is then closed.
    int fetch(DBObj* rec);
    /// Closes the open statement. Always 0.
    int close(DBObj* rec);

    /// How many rows a table has under a condition; -1 and other negative values may also be errors
    /// of ODBC.
    int count(const char* tbname, const char* whereclause);

  private:
    enum class Kind { query = 0, update = 1, insert = 2, del = 3, stmt = 4, open_query = 5 };

    TxObject(DBConnection* con, DBConnectionPool* pool) noexcept;

    int execSql(const char* stmt, Kind op, DBObj* o, const char* whereclause, bool printTrace);
    SQLRETURN open(SQLHANDLE hdbc);
    SQLRETURN run(const char* text, SQLHANDLE hdbc, Kind op, DBObj* o);

    DBConnection* _dbcon;
    DBConnectionPool* _dbpool;
    bool _checkincon;
    eas::Statement _hstmt;
};
