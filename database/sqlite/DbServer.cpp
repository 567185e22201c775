#include "database/sqlite/DbServer.hpp"

#include "bus/CallGate.hpp"
#include "database/database_records.hpp"
#include "database/sqlite/SqliteDatabase.hpp"

#include <exception>
#include <filesystem>
#include <utility>

namespace tessaron::database::sqlite {

/// What the hub's handlers share: they outlive the server.
struct DbServer::Served {
    std::string const name;
    std::string const path;
    DbServerLimits const limits;
    bus::CallGate gate;
};

namespace {

template <typename Reply>
Reply refusal(std::string const& error) {
    Reply reply;
    reply.ok = false;
    reply.error = error;
    return reply;
}

/// A request that names its database. `work` fills the reply, or throws.
template <typename Request, typename Reply, typename Served, typename Work>
Reply answer(Served& served, Bytes const& payload, Work const& work) {
    try {
        auto const request = Request::parse(payload);
        bus::CallGate::Pass const pass(served.gate);
        if (!pass || request.db_name != served.name) {
            return refusal<Reply>(K_NOT_ADDRESSED);
        }
        SqliteDatabase database(served.path, served.limits);
        Reply reply;
        work(database, request, reply);
        return reply;
    } catch (std::exception const& error) {
        return refusal<Reply>(error.what());
    }
}

template <typename Request, typename Reply, typename Served, typename Work>
void serve(bus::IHub& hub, char const* topic, std::shared_ptr<Served> const& served,
           Work const& work, char const* description) {
    hub.serve(
        topic,
        [served, work](Bytes const& payload) {
            return answer<Request, Reply>(*served, payload, work).build();
        },
        description);
}

template <typename Served>
Bytes answer_info(Served& served) {
    DbInfoReply reply;
    reply.name = served.name;
    reply.path = served.path;
    bus::CallGate::Pass const pass(served.gate);
    reply.ok = static_cast<bool>(pass);
    if (reply.ok) {
        try {
            reply.tables = SqliteDatabase(served.path, served.limits).tables();
            reply.loaded = true;
        } catch (std::exception const&) {
            reply.loaded = false;
        }
    }
    return reply.build();
}

} // namespace

DbServer::DbServer(bus::IHub& hub, std::string const& name, std::string const& path,
                   DbServerLimits const& limits)
    : served_(new Served{name, std::filesystem::absolute(path), limits, {}}) {
    hub.serve(
        K_INFO_TOPIC, [served = served_](Bytes const&) { return answer_info(*served); },
        "Names this application's database and lists its tables");
    serve<DbTableReadRequest, DbTableReadReply>(
        hub, K_TABLE_READ_TOPIC, served_,
        [](SqliteDatabase& database, DbTableReadRequest const& request, DbTableReadReply& reply) {
            reply = database.read(request.table_name, request.from_row, request.to_row);
        },
        "Gives rows of a table, which count from 1; to_row 0 means the table's end");
    serve<DbEditCellRequest, DbWriteReply>(
        hub, K_CELL_EDIT_TOPIC, served_,
        [](SqliteDatabase& database, DbEditCellRequest const& request, DbWriteReply&) {
            database.edit_cell(request.table_name, request.row_index, request.column_index,
                               request.value);
        },
        "Writes a cell of a table, except in column 0, the primary key");
    serve<DbDeleteRowRequest, DbWriteReply>(
        hub, K_ROW_DELETE_TOPIC, served_,
        [](SqliteDatabase& database, DbDeleteRowRequest const& request, DbWriteReply&) {
            database.delete_row(request.table_name, request.row_index);
        },
        "Deletes a row of a table");
    serve<DbClearTableRequest, DbWriteReply>(
        hub, K_TABLE_CLEAR_TOPIC, served_,
        [](SqliteDatabase& database, DbClearTableRequest const& request, DbWriteReply&) {
            database.clear_table(request.table_name);
        },
        "Deletes all rows of a table");
}

DbServer::~DbServer() {
    served_->gate.close();
}

} // namespace tessaron::database::sqlite
