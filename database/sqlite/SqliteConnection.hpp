#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;
struct sqlite3_value;

/// What is used of SQLite, with owners for what has to be given back. Values enter statements by
/// binding alone; the names of tables and columns, which cannot be bound, by `quote_name`.
namespace tessaron::database::sqlite {

/// In SQLite's words.
class SqliteError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The time was over.
class SqliteTimeout : public SqliteError {
public:
    using SqliteError::SqliteError;
};

/// A file that is open, for the length of one request.
///
/// It never makes a file that is not there. Foreign keys are held up, and what a file says of
/// itself (its triggers, views and defaults) may not call functions that reach outside of it.
///
/// Ownership: owns the descriptor, which no child inherits; outlives its statements.
/// Thread safety: one thread at a time, the caller's duty. Other connections, of this process and
/// of others, may read and write the same file.
/// Errors: `SqliteError`.
class SqliteConnection {
public:
    using Clock = std::chrono::steady_clock;

    /// Statements that run at the deadline are interrupted. Whoever else writes is waited for until
    /// `busy_timeout` is over.
    SqliteConnection(std::string const& path, std::chrono::milliseconds busy_timeout,
                     Clock::time_point deadline);
    SqliteConnection(SqliteConnection const&) = delete;
    SqliteConnection& operator=(SqliteConnection const&) = delete;

    Clock::time_point deadline() const { return deadline_; }
    void execute(char const* sql);
    /// By the last statement that changed any, without what its triggers did.
    std::int64_t changed_rows() const;
    /// For a result that is none of the good ones.
    [[noreturn]] void fail(int result) const;

    sqlite3* native() const { return handle_.get(); }

private:
    struct Close {
        void operator()(sqlite3* handle) const;
    };

    static int is_over(void* deadline);

    Clock::time_point const deadline_;
    std::unique_ptr<sqlite3, Close> handle_;
};

/// A copy of what a column holds, of whatever type.
struct FreeSqliteValue {
    void operator()(sqlite3_value* value) const;
};
using SqliteValue = std::unique_ptr<sqlite3_value, FreeSqliteValue>;

enum class CellType { INTEGER, REAL, TEXT, BLOB, NONE };

/// One prepared statement.
///
/// Ownership: the connection outlives it.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `SqliteError`.
class SqliteStatement {
public:
    SqliteStatement(SqliteConnection& connection, std::string const& sql);

    /// Each call binds the next parameter. A text may be let go after the call.
    SqliteStatement& bind(std::int64_t number);
    SqliteStatement& bind(double number);
    SqliteStatement& bind(std::string_view text);
    SqliteStatement& bind(SqliteValue const& value);

    /// Whether there is another row.
    bool step();

    // Of the row that `step` has come to; columns count from 0, what is returned lives until the
    // next step. `text` and `blob` are of a cell of any type.
    CellType type(int column) const;
    std::string_view text(int column) const;
    std::string_view blob(int column) const;
    std::int64_t integer(int column) const;
    SqliteValue value(int column) const;

private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };

    void check(int result) const;

    SqliteConnection& connection_;
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
    int bound_ = 0;
};

/// All or nothing: what has not been committed is undone in the end.
///
/// Ownership: the connection outlives it.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `SqliteError`.
class SqliteTransaction {
public:
    enum class Kind { READ, WRITE };

    /// A reader sees one state of the file from its first look on; a writer is the only one from
    /// the start.
    SqliteTransaction(SqliteConnection& connection, Kind kind);
    ~SqliteTransaction();
    SqliteTransaction(SqliteTransaction const&) = delete;
    SqliteTransaction& operator=(SqliteTransaction const&) = delete;

    void commit();

private:
    SqliteConnection& connection_;
    bool open_ = true;
};

/// A name as it may stand in a statement, whatever is in it.
std::string quote_name(std::string_view name);

} // namespace tessaron::database::sqlite
