#include "TargetStore.hpp"

#include "app/utilities/file_io.hpp"
#include "database/sqlite/SqliteConnection.hpp"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <utility>

namespace portwatch {
namespace {

using tessaron::database::sqlite::SqliteConnection;
using tessaron::database::sqlite::SqliteStatement;
using tessaron::database::sqlite::SqliteTransaction;

/// For an operator who reads or writes in the same moment.
constexpr std::chrono::milliseconds K_BUSY_TIMEOUT{1000};
constexpr std::chrono::seconds K_TIME_LIMIT{5};

SqliteConnection open(std::string const& path) {
    return {path, K_BUSY_TIMEOUT, SqliteConnection::Clock::now() + K_TIME_LIMIT};
}

bool is_empty(SqliteConnection& database) {
    SqliteStatement tables(database, "SELECT 1 FROM sqlite_schema WHERE name = 'targets'");
    return !tables.step();
}

} // namespace

TargetStore::TargetStore(std::string path) : path_(std::move(path)) {
    // A connection never makes a file; an empty one is a database without tables.
    if (!tessaron::open_file(path_, O_RDWR | O_CREAT).is_open()) {
        throw std::runtime_error("cannot make " + path_ + ": " + std::strerror(errno));
    }
    auto database = open(path_);
    SqliteTransaction transaction(database, SqliteTransaction::Kind::WRITE);
    if (is_empty(database)) {
        database.execute("CREATE TABLE targets(id INTEGER PRIMARY KEY, host TEXT NOT NULL, "
                         "port INTEGER NOT NULL, label TEXT NOT NULL DEFAULT '');"
                         "INSERT INTO targets(host, port, label) VALUES "
                         "('127.0.0.1', 7080, 'dashboard'), ('127.0.0.1', 17379, 'redis')");
    }
    database.execute("CREATE TABLE IF NOT EXISTS checks(id INTEGER PRIMARY KEY, target TEXT, "
                     "time TEXT, state TEXT, milliseconds INTEGER, error TEXT)");
    transaction.commit();
}

std::vector<Target> TargetStore::targets() const {
    auto database = open(path_);
    SqliteStatement rows(database, "SELECT id, host, port, label FROM targets ORDER BY id");
    std::vector<Target> targets;
    while (rows.step()) {
        targets.push_back({rows.integer(0), std::string(rows.text(1)), std::string(rows.text(2)),
                           std::string(rows.text(3))});
    }
    return targets;
}

void TargetStore::record(std::vector<Check> const& checks, long long keep) const {
    auto database = open(path_);
    SqliteTransaction transaction(database, SqliteTransaction::Kind::WRITE);
    for (Check const& check : checks) {
        SqliteStatement(database, "INSERT INTO checks(target, time, state, milliseconds, error) "
                                  "VALUES (?, datetime('now'), ?, ?, ?)")
            .bind(check.target.text())
            .bind(check.up ? "up" : "down")
            .bind(std::int64_t{check.took.count()})
            .bind(check.error)
            .step();
    }
    SqliteStatement(database, "DELETE FROM checks WHERE id <= (SELECT max(id) FROM checks) - ?")
        .bind(std::int64_t{keep})
        .step();
    transaction.commit();
}

} // namespace portwatch
