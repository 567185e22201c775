#pragma once

#include "bus/IHub.hpp"
#include "database/sqlite/DbServerLimits.hpp"

#include <memory>
#include <string>

namespace tessaron::database::sqlite {

/// Offers an SQLite database of the application on the bus, so that an operator can look into its
/// tables and correct them: the topics "db.info", "db.table.read", "db.cell.edit", "db.row.delete"
/// and "db.table.clear", whose records are in database_records.hpp.
///
///     database::sqlite::DbServer server(context.hub(), "shop.orders", "/var/lib/shop/orders.db");
///
/// It answers as the application's own node, which hears what is asked of a whole domain. Of a
/// node, one server answers; the answers of a second one would get into its way. The name is how
/// requests tell databases apart: a second database of this name on the bus would be changed along
/// with this one, so it begins with the application's own.
///
/// Whoever can reach the bus can read and change the database; a database that only one's own
/// program may see does not belong there.
///
/// The file is opened for each request and closed again. It may come later, be replaced, or go: a
/// database that is not there, or cannot be read, is listed as not loaded. The application opens it
/// by the same SQLite library as this one does, since two copies of it in one process undo each
/// other's locks, and gives its connections a busy timeout, since a reader may be there when it
/// commits. What the server must wait for too long is refused ("database is locked").
///
/// Ownership: the hub outlives the server. Its handlers stay with the hub, and answer like a node
/// that has no such database when the server is gone.
/// Thread safety: immutable after construction. Requests are answered one at a time on the hub's
/// request worker, at most for `DbServerLimits::time_limit`; the destructor waits for the one under
/// way, and the file is not touched after it.
/// Errors: none; what cannot be done is told in the reply.
class DbServer {
public:
    /// The path is taken from the current directory, if it is relative.
    DbServer(bus::IHub& hub, std::string const& name, std::string const& path,
             DbServerLimits const& limits = {});
    ~DbServer();
    DbServer(DbServer const&) = delete;
    DbServer& operator=(DbServer const&) = delete;

private:
    struct Served;

    std::shared_ptr<Served> const served_;
};

} // namespace tessaron::database::sqlite
