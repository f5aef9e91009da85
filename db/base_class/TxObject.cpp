#include "db/base_class/TxObject.h"

#include <cstdint>
#include <cstring>
#include <string>

#include "base/CancelState.h"
#include "db/base_class/DBConnection.h"
#include "db/base_class/DBConnectionPool.h"
#include "db/base_class/DBDiagnostics.h"
#include "db/base_class/DBLibrary.h"
#include "db/base_class/DBTracer.h"

namespace {

/// Fetches the number that `text` selects. Returns 0, or the ODBC result of the step that failed;
/// `number` keeps its value when there is no row.
SQLRETURN fetch_number(SQLHANDLE hdbc, eas::Statement& statement, const std::string& text,
                       std::int32_t* number) {
    DBLibrary* odbc = DBLibrary::get();
    const auto failed = [&](SQLRETURN rc) {
        return rc != SQL_SUCCESS && eas::check_statement(rc, hdbc, statement.get()) != 0;
    };
    SQLRETURN rc =
        odbc->SQLBindCol(statement.get(), 1, SQL_C_LONG, number, sizeof *number, nullptr);
    if (failed(rc))
        return rc;
    rc = statement.execute(text);
    if (failed(rc))
        return rc;
    rc = odbc->SQLFetch(statement.get());
    return failed(rc) ? rc : SQLRETURN{SQL_SUCCESS};
}

/// A statement and its condition with one blank between, made with one allocation.
std::string with_condition(const char* stmt, const char* whereclause) {
    std::string text;
    text.reserve(std::strlen(stmt) + std::strlen(whereclause) + 1);
    return text.append(stmt).append(" ").append(whereclause);
}

}  // namespace

TxObject::TxObject(DBConnection* con, DBConnectionPool* pool) noexcept
    : _dbcon(con), _dbpool(pool), _checkincon(pool != nullptr) {}

// The destructor runs from here on, also when the rest of a constructor is left by an exception.
TxObject::TxObject(DBConnection* con) : TxObject(con, nullptr) {
    setAutoCommit(false);
}

TxObject::TxObject(DBConnectionPool* pool) : TxObject(pool->checkout(), pool) {
    setAutoCommit(false);
}

TxObject::~TxObject() {
    // A destructor cannot be left by a cancelled thread.
    const eas::DeferCancellation until_done;
    _hstmt.free();
    if (_checkincon)
        _dbpool->checkin(_dbcon);
}

int TxObject::commit() {
    return _dbcon == nullptr ? SQL_ERROR : _dbcon->commit();
}

int TxObject::rollback() {
    return _dbcon == nullptr ? SQL_ERROR : _dbcon->rollback();
}

int TxObject::setAutoCommit(bool on) {
    return _dbcon == nullptr ? SQL_ERROR : _dbcon->setAutoCommit(on);
}

bool TxObject::isAutoCommit() {
    return _dbcon != nullptr && _dbcon->isAutoCommit();
}

SQLRETURN TxObject::alloc(SQLHANDLE* out) {
    const SQLRETURN rc =
        _dbcon == nullptr ? SQLRETURN{SQL_ERROR} : _hstmt.allocate(_dbcon->getConnHandle());
    *out = _hstmt.get();
    return rc;
}

int TxObject::query(DBObj* o, const char* whereclause, bool printTrace) {
    return execSql(o->getSelectStatement(false).c_str(), Kind::query, o, whereclause, printTrace);
}

int TxObject::queryByKey(DBObj* rec) {
    return execSql(rec->getSelectStatement(true).c_str(), Kind::query, rec, nullptr, true);
}

int TxObject::update(DBObj* rec, const char* condition) {
    return execSql(rec->getUpdateStatement(false).c_str(), Kind::update, rec, condition, true);
}

int TxObject::updateByKey(DBObj* rec) {
    return execSql(rec->getUpdateStatement(true).c_str(), Kind::update, rec, nullptr, true);
}

int TxObject::insert(DBObj* rec, bool deleteFirst) {
    if (deleteFirst)
        delByKey(rec);
    return execSql(rec->getInsertStatement().c_str(), Kind::insert, rec, nullptr, true);
}

int TxObject::del(DBObj* rec, const char* condition) {
    return execSql(rec->getDeleteStatement(false).c_str(), Kind::del, rec, condition, true);
}

int TxObject::delByKey(DBObj* rec) {
    return execSql(rec->getDeleteStatement(true).c_str(), Kind::del, rec, nullptr, true);
}

int TxObject::execStmt(const char* sql) {
    return execSql(sql, Kind::stmt, nullptr, nullptr, true);
}

int TxObject::execQuery(const char* sql, SQLHANDLE* out) {
    const int rc = execSql(sql, Kind::open_query, nullptr, nullptr, true);
    *out = _hstmt.get();
    return rc;
}

/// Closes what is open and opens a statement. Not 0: there is none, and the caller gives up. An
/// earlier statement that the driver refuses to free does not stand in the way of the next one.
SQLRETURN TxObject::open(SQLHANDLE hdbc) {
    const SQLRETURN rc = _hstmt.allocate(hdbc);
    if (rc != SQL_SUCCESS && eas::check(SQL_HANDLE_DBC, hdbc, rc) != 0)
        return rc;
    return _hstmt.is_open() ? SQLRETURN{SQL_SUCCESS} : rc;
}

/// Binds as `op` asks for, executes and logs; the result is that of the execution.
SQLRETURN TxObject::run(const char* text, SQLHANDLE hdbc, Kind op, DBObj* o) {
    SQLRETURN bound = SQL_SUCCESS;
    if (op == Kind::update || op == Kind::insert)
        bound = o->bind_param(hdbc, _hstmt.get());
    const SQLRETURN rc = _hstmt.execute(text);
    if (SQL_SUCCEEDED(rc)) {
        eas::trace(eas::severity_debug, "Successfully executed: %s\n", text);
        // The query counts as executed; without its columns the statement goes, so that no fetch
        // takes stale fields for a row.
        if (op == Kind::query && !SQL_SUCCEEDED(o->bind_col(hdbc, _hstmt.get())))
            _hstmt.free();
    } else {
        eas::trace(eas::severity_debug, "Failed executing: %s (rc=%d)\n", text, rc);
    }
    // A bind that fails has rolled back. A row that is written all the same would be half of what
    // the transaction was to write: the failure is handed on, and takes it back.
    if (SQL_SUCCEEDED(rc) && !SQL_SUCCEEDED(bound))
        return bound;
    return rc;
}

int TxObject::execSql(const char* stmt, Kind op, DBObj* o, const char* whereclause,
                      bool printTrace) {
    if (stmt == nullptr) {
        eas::trace(eas::severity_error, "Statement to execute is NULL (SQL_ERROR)\n");
        return SQL_ERROR;
    }
    if (*stmt == '\0') {
        eas::trace(eas::severity_error, "Statement to execute is blank (SQL_ERROR)\n");
        return SQL_ERROR;
    }
    if (_dbcon == nullptr)
        return SQL_ERROR;
    SQLHANDLE hdbc = _dbcon->getConnHandle();
    if (const SQLRETURN rc = open(hdbc); rc != SQL_SUCCESS)
        return rc;

    const SQLRETURN rc = whereclause == nullptr
                             ? run(stmt, hdbc, op, o)
                             : run(with_condition(stmt, whereclause).c_str(), hdbc, op, o);
    if (rc != SQL_SUCCESS && eas::check_statement(rc, hdbc, _hstmt.get(), printTrace) != 0) {
        return rc;
    }
    // A statement that cannot be freed takes nothing back of what it did.
    if (op != Kind::query && op != Kind::open_query)
        _hstmt.free();
    return rc;
}

int TxObject::fetch(DBObj* rec) {
    if (_dbcon == nullptr)
        return SQL_ERROR;
    SQLHANDLE hdbc = _dbcon->getConnHandle();
    if (!_hstmt.is_open()) {
        eas::check_statement(SQL_INVALID_HANDLE, hdbc, _hstmt.get());
        return SQL_INVALID_HANDLE;
    }
    const SQLRETURN rc = rec->fetch_col(hdbc, _hstmt.get());
    if (rc == SQL_NO_DATA)
        _hstmt.free();
    return rc;
}

int TxObject::close(DBObj* /*rec*/) {
    _hstmt.free();
    return SQL_SUCCESS;
}

int TxObject::count(const char* tbname, const char* whereclause) {
    if (_dbcon == nullptr || tbname == nullptr)
        return SQL_ERROR;
    SQLHANDLE hdbc = _dbcon->getConnHandle();
    if (const SQLRETURN rc = open(hdbc); rc != SQL_SUCCESS)
        return rc;
    std::string text = std::string("select count(*) from ").append(tbname);
    if (whereclause != nullptr)
        text.append(" ").append(whereclause);

    std::int32_t rows = -1;
    const SQLRETURN rc = fetch_number(hdbc, _hstmt, text, &rows);
    // On every path: the statement is bound to a variable that ends here.
    const SQLRETURN freed = _hstmt.free();
    if (rc != SQL_SUCCESS)
        return rc;
    // The statement is gone, whatever the driver answered: ask the connection what went wrong.
    if (freed != SQL_SUCCESS && eas::check(SQL_HANDLE_DBC, hdbc, freed) != 0) {
        TransRollback(hdbc);
        return freed;
    }
    return rows;
}
