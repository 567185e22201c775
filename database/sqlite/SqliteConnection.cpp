#include "database/sqlite/SqliteConnection.hpp"

#include <sqlite3.h>

namespace tessaron::database::sqlite {
namespace {

/// Of the virtual machine, between two looks at the clock: some ten microseconds.
constexpr int K_STEPS_BETWEEN_LOOKS = 1000;

constexpr char K_TOO_LONG[] = "the database took too long";

/// What a connection that nobody sees is safer with.
void harden(sqlite3* handle) {
    sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_FKEY, 1, nullptr);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    // A quoted name of no column must not be taken for a text.
    sqlite3_db_config(handle, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
}

} // namespace

void SqliteConnection::Close::operator()(sqlite3* handle) const {
    sqlite3_close(handle);
}

int SqliteConnection::is_over(void* deadline) {
    return Clock::now() >= *static_cast<Clock::time_point const*>(deadline) ? 1 : 0;
}

SqliteConnection::SqliteConnection(std::string const& path, std::chrono::milliseconds busy_timeout,
                                   Clock::time_point deadline)
    : deadline_(deadline) {
    sqlite3* handle = nullptr;
    int const result = sqlite3_open_v2(path.c_str(), &handle,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    handle_.reset(handle);
    if (result != SQLITE_OK) {
        fail(result);
    }
    harden(handle);
    sqlite3_busy_timeout(handle, static_cast<int>(busy_timeout.count()));
    sqlite3_progress_handler(handle, K_STEPS_BETWEEN_LOOKS, is_over,
                             const_cast<Clock::time_point*>(&deadline_));
}

void SqliteConnection::execute(char const* sql) {
    int const result = sqlite3_exec(native(), sql, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) {
        fail(result);
    }
}

std::int64_t SqliteConnection::changed_rows() const {
    return sqlite3_changes64(native());
}

void SqliteConnection::fail(int result) const {
    if (result == SQLITE_INTERRUPT) {
        throw SqliteTimeout(K_TOO_LONG);
    }
    throw SqliteError(native() != nullptr ? sqlite3_errmsg(native()) : sqlite3_errstr(result));
}

void FreeSqliteValue::operator()(sqlite3_value* value) const {
    sqlite3_value_free(value);
}

void SqliteStatement::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

SqliteStatement::SqliteStatement(SqliteConnection& connection, std::string const& sql)
    : connection_(connection) {
    sqlite3_stmt* statement = nullptr;
    // The size counts the terminator.
    int const result = sqlite3_prepare_v2(connection.native(), sql.c_str(),
                                          static_cast<int>(sql.size() + 1), &statement, nullptr);
    statement_.reset(statement);
    check(result);
}

void SqliteStatement::check(int result) const {
    if (result != SQLITE_OK) {
        connection_.fail(result);
    }
}

SqliteStatement& SqliteStatement::bind(std::int64_t number) {
    check(sqlite3_bind_int64(statement_.get(), ++bound_, number));
    return *this;
}

SqliteStatement& SqliteStatement::bind(double number) {
    check(sqlite3_bind_double(statement_.get(), ++bound_, number));
    return *this;
}

SqliteStatement& SqliteStatement::bind(std::string_view text) {
    // A null pointer would be bound as NULL.
    check(sqlite3_bind_text64(statement_.get(), ++bound_, text.empty() ? "" : text.data(),
                              text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
    return *this;
}

SqliteStatement& SqliteStatement::bind(SqliteValue const& value) {
    check(sqlite3_bind_value(statement_.get(), ++bound_, value.get()));
    return *this;
}

bool SqliteStatement::step() {
    int const result = sqlite3_step(statement_.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        connection_.fail(result);
    }
    return result == SQLITE_ROW;
}

CellType SqliteStatement::type(int column) const {
    switch (sqlite3_column_type(statement_.get(), column)) {
    case SQLITE_INTEGER:
        return CellType::INTEGER;
    case SQLITE_FLOAT:
        return CellType::REAL;
    case SQLITE_TEXT:
        return CellType::TEXT;
    case SQLITE_BLOB:
        return CellType::BLOB;
    default:
        return CellType::NONE;
    }
}

std::string_view SqliteStatement::text(int column) const {
    auto const* const text = sqlite3_column_text(statement_.get(), column);
    auto const size = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
    return text == nullptr ? std::string_view()
                           : std::string_view(reinterpret_cast<char const*>(text), size);
}

std::string_view SqliteStatement::blob(int column) const {
    auto const* const bytes = sqlite3_column_blob(statement_.get(), column);
    auto const size = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
    return bytes == nullptr ? std::string_view()
                            : std::string_view(static_cast<char const*>(bytes), size);
}

std::int64_t SqliteStatement::integer(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

SqliteValue SqliteStatement::value(int column) const {
    return SqliteValue(sqlite3_value_dup(sqlite3_column_value(statement_.get(), column)));
}

SqliteTransaction::SqliteTransaction(SqliteConnection& connection, Kind kind)
    : connection_(connection) {
    connection_.execute(kind == Kind::WRITE ? "BEGIN IMMEDIATE" : "BEGIN");
}

SqliteTransaction::~SqliteTransaction() {
    // Some failures have ended it already, and then there is nothing to undo.
    if (open_ && sqlite3_get_autocommit(connection_.native()) == 0) {
        sqlite3_exec(connection_.native(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void SqliteTransaction::commit() {
    connection_.execute("COMMIT");
    open_ = false;
}

std::string quote_name(std::string_view name) {
    std::string text = "\"";
    for (char const c : name) {
        text.append(c == '"' ? 2 : 1, c);
    }
    return text += '"';
}

} // namespace tessaron::database::sqlite
