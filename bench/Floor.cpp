#include "bench/Floor.h"

#include <array>
#include <cstdio>
#include <stdexcept>

namespace eas::bench {
namespace {

SQLCHAR* sql_text(const char* text) {
    return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text));
}

void check(SQLRETURN rc, const char* call) {
    if (!SQL_SUCCEEDED(rc))
        throw std::runtime_error(call);
}

class Connection {
  public:
    Connection() {
        check(SQLAllocHandle(SQL_HANDLE_ENV, nullptr, &env_), "environment");
        const auto version = static_cast<SQLULEN>(SQL_OV_ODBC3);
        SQLSetEnvAttr(env_, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(version), 0);
        check(SQLAllocHandle(SQL_HANDLE_DBC, env_, &dbc_), "connection");
        check(SQLConnect(dbc_, sql_text("easdb"), SQL_NTS, sql_text(""), 0, sql_text(""), 0),
              "SQLConnect");
    }
    ~Connection() {
        SQLDisconnect(dbc_);
        SQLFreeHandle(SQL_HANDLE_DBC, dbc_);
        SQLFreeHandle(SQL_HANDLE_ENV, env_);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void begin() {
        const auto off = static_cast<SQLULEN>(SQL_AUTOCOMMIT_OFF);
        SQLSetConnectAttr(dbc_, SQL_ATTR_AUTOCOMMIT, reinterpret_cast<SQLPOINTER>(off), SQL_NTS);
    }
    void end(SQLSMALLINT how) { check(SQLEndTran(SQL_HANDLE_DBC, dbc_, how), "SQLEndTran"); }
    [[nodiscard]] SQLHANDLE handle() const { return dbc_; }

  private:
    SQLHANDLE env_ = nullptr;
    SQLHANDLE dbc_ = nullptr;
};

class Statement {
  public:
    explicit Statement(const Connection& connection) {
        check(SQLAllocHandle(SQL_HANDLE_STMT, connection.handle(), &handle_), "statement");
    }
    ~Statement() { SQLFreeHandle(SQL_HANDLE_STMT, handle_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    void execute(const char* text) {
        check(SQLExecDirect(handle_, sql_text(text), SQL_NTS), "SQLExecDirect");
    }
    void bind(SQLSMALLINT type, void* field, SQLLEN size) {
        ++column_;
        SQLBindCol(handle_, column_, type, field, size, &indicators_[column_]);
    }
    void parameter(SQLSMALLINT value, SQLSMALLINT type, void* field, SQLULEN size = 0,
                   SQLLEN length = 0) {
        SQLBindParameter(handle_, ++column_, SQL_PARAM_INPUT, value, type, size, 0, field, length,
                         nullptr);
    }
    std::int64_t fetch_all() {
        std::int64_t rows = 0;
        SQLRETURN rc = SQL_SUCCESS;
        while (SQL_SUCCEEDED(rc = SQLFetch(handle_)))
            ++rows;
        if (rc != SQL_NO_DATA)
            throw std::runtime_error("SQLFetch");
        return rows;
    }

  private:
    SQLHANDLE handle_ = nullptr;
    SQLUSMALLINT column_ = 0;
    std::array<SQLLEN, 16> indicators_;
};

void bind_row(Statement& statement, TagRow& row) {
    statement.bind(SQL_C_CHAR, row.tag, sizeof row.tag);
    statement.bind(SQL_C_CHAR, row.user, sizeof row.user);
    statement.bind(SQL_C_LONG, &row.default_frequency, 4);
    statement.bind(SQL_C_CHAR, row.cluster, sizeof row.cluster);
    statement.bind(SQL_C_LONG, &row.frequency, 4);
    statement.bind(SQL_C_CHAR, row.job, sizeof row.job);
    statement.bind(SQL_C_DOUBLE, &row.power, 8);
    statement.bind(SQL_C_DOUBLE, &row.saving, 8);
    statement.bind(SQL_C_LONG, &row.time, 4);
    statement.bind(SQL_C_DOUBLE, &row.degradation, 8);
    statement.bind(SQL_C_SBIGINT, &row.created, 8);
}

void text_parameter(Statement& statement, char* field, std::size_t size, const std::string& text) {
    const int length = std::snprintf(field, size, "%s", text.c_str());
    statement.parameter(SQL_C_CHAR, SQL_CHAR, field, size - 1, length);
}

void insert(const Connection& connection, const Which& which, int index, TagRow& row) {
    Statement statement(connection);
    row.default_frequency = default_frequency;
    row.frequency = 1200000 + index * 100000;
    row.power = 200.0 + index;
    row.saving = row.degradation = 0.01 * index;
    row.time = 1000 - index;
    row.created = 1700000000;
    text_parameter(statement, row.tag, sizeof row.tag, which.tag);
    text_parameter(statement, row.user, sizeof row.user, which.user);
    statement.parameter(SQL_C_LONG, SQL_INTEGER, &row.default_frequency);
    text_parameter(statement, row.cluster, sizeof row.cluster, which.cluster);
    statement.parameter(SQL_C_LONG, SQL_INTEGER, &row.frequency);
    text_parameter(statement, row.job, sizeof row.job, "1234567.0");
    statement.parameter(SQL_C_DOUBLE, SQL_DOUBLE, &row.power);
    statement.parameter(SQL_C_DOUBLE, SQL_DOUBLE, &row.saving);
    statement.parameter(SQL_C_LONG, SQL_INTEGER, &row.time);
    statement.parameter(SQL_C_DOUBLE, SQL_DOUBLE, &row.degradation);
    statement.parameter(SQL_C_SBIGINT, SQL_BIGINT, &row.created);
    statement.execute(
        "insert into TQVN_EnergyPolicyTag (energy_tag_name,user_name,default_frequency,"
        "cluster_name,frequency,job_id,predict_power,energy_saving_pct,predict_elapse_time,"
        "perf_degrad_pct,create_time) values (?,?,?,?,?,?,?,?,?,?,?)");
}

std::int64_t read_tags(Connection& connection, const std::string& condition, TagRow& row) {
    connection.begin();
    Statement statement(connection);
    statement.execute(("select * from TQVN_EnergyPolicyTag " + condition).c_str());
    bind_row(statement, row);
    return statement.fetch_all();
}

}  // namespace

std::string Which::condition() const {
    std::string text = " where cluster_name=\"" + cluster + "\"";
    if (!user.empty())
        text += " and user_name=\"" + user + "\"";
    text += " and default_frequency=" + std::to_string(default_frequency);
    if (!tag.empty())
        text += " and energy_tag_name=\"" + tag + "\"";
    return text;
}

std::int64_t floor_query(const Which& which) {
    TagRow row;
    Connection connection;
    const std::int64_t rows = read_tags(connection, which.condition(), row);
    connection.end(SQL_ROLLBACK);
    return rows;
}

void floor_generate(const Which& which) {
    TagRow row;
    Connection connection;
    read_tags(connection, which.condition(), row);
    connection.end(SQL_ROLLBACK);
    connection.begin();
    for (int i = 0; i < frequencies_per_tag; ++i)
        insert(connection, which, i, row);
    connection.end(SQL_COMMIT);
}

void floor_remove(const Which& which) {
    TagRow row;
    Connection connection;
    read_tags(connection, which.condition(), row);
    connection.begin();
    {
        Statement statement(connection);
        statement.execute(("delete from TQVN_EnergyPolicyTag  " + which.condition()).c_str());
    }
    connection.end(SQL_COMMIT);
}

std::int64_t floor_initialise(const std::string& cluster) {
    std::int32_t frequency = 0;
    std::int32_t of_default = 0;
    char name[41];
    std::array<double, 6> factors;
    Connection connection;
    connection.begin();
    std::int64_t rows = 0;
    {
        Statement statement(connection);
        statement.execute(("select * from TQVN_EnergyCoEfficients  where cluster_name=\"" +
                           cluster + "\" and default_frequency=" +
                           std::to_string(default_frequency) + " order by frequency asc")
                              .c_str());
        statement.bind(SQL_C_LONG, &frequency, 4);
        statement.bind(SQL_C_LONG, &of_default, 4);
        statement.bind(SQL_C_CHAR, name, sizeof name);
        for (double& factor : factors)
            statement.bind(SQL_C_DOUBLE, &factor, 8);
        rows = statement.fetch_all();
    }
    connection.end(SQL_ROLLBACK);
    return rows;
}

}  // namespace eas::bench
