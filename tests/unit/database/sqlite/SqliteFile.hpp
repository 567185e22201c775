#pragma once

#include "tests/support/TemporaryDirectory.hpp"

#include <sqlite3.h>

#include <stdexcept>
#include <string>

namespace tessaron::test {

/// An application's own connection to its database, which makes the file.
///
/// Thread safety: one thread at a time, the caller's duty.
class SqliteFile {
public:
    explicit SqliteFile(std::string const& file) : path(file) {
        if (sqlite3_open(path.c_str(), &handle_) != SQLITE_OK) {
            throw std::runtime_error("cannot open " + path);
        }
    }
    ~SqliteFile() { sqlite3_close(handle_); }
    SqliteFile(SqliteFile const&) = delete;
    SqliteFile& operator=(SqliteFile const&) = delete;

    /// Any number of statements; gives their results, cells parted by bars and rows by blanks.
    std::string run(std::string const& sql) {
        std::string rows;
        auto const add = [](void* to, int count, char** cells, char**) {
            auto& text = *static_cast<std::string*>(to);
            for (int i = 0; i < count; ++i) {
                text += (i > 0 ? "|" : text.empty() ? "" : " ");
                text += cells[i] == nullptr ? "NULL" : cells[i];
            }
            return 0;
        };
        if (sqlite3_exec(handle_, sql.c_str(), add, &rows, nullptr) != SQLITE_OK) {
            throw std::runtime_error(sqlite3_errmsg(handle_));
        }
        return rows;
    }

    std::string const path;

private:
    sqlite3* handle_ = nullptr;
};

/// A fresh database in a directory of its own.
struct FreshDatabase {
    FreshDatabase() { file.run("PRAGMA synchronous = OFF"); }

    TemporaryDirectory directory;
    SqliteFile file{directory / "orders.db"};
};

} // namespace tessaron::test
