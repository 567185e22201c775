#include "MirelClientApp/diagnostics/DbBrowserClient.hpp"

#include <algorithm>
#include <utility>
#include <vector>

namespace mirelclient {

using tessaron::DbClient;
using tessaron::MutexLock;
using tessaron::database::DbInfoReply;
using tessaron::database::DbTableReadReply;
using tessaron::database::DbWriteReply;

DbBrowserClient::DbBrowserClient(tessaron::bus::IHub& hub, std::uint32_t address,
                                 DiagnosticsClient const& diagnostics)
    : diagnostics_(diagnostics), client_(DbClient::create(hub, address, {.name = "db_browser"})) {
}

void DbBrowserClient::request_stop() {
    {
        MutexLock lock(stop_mutex_);
        stop_ = true;
    }
    stopped_.notify_all();
    client_->request_stop();
}

bool DbBrowserClient::pause() {
    MutexLock lock(stop_mutex_);
    return !stopped_.wait_for(lock.native(), K_DISCOVERY_PAUSE,
                              [this]() TESSARON_REQUIRES(stop_mutex_) { return stop_; });
}

std::optional<DbBrowserClient::Database> DbBrowserClient::resolve(std::string const& package) {
    auto const location = diagnostics_.hub_location(package);
    if (!location) {
        return std::nullopt;
    }
    std::vector<DbInfoReply> databases;
    {
        MutexLock lock(mutex_);
        client_->discover();
        if (!pause()) {
            return std::nullopt;
        }
        client_->set_target(location->domain);
        databases = client_->query_all_db_info();
    }
    auto const own = std::find_if(databases.begin(), databases.end(), [&](DbInfoReply const& info) {
        return diagnostics_.hub_owns_address(package, info.source);
    });
    if (own == databases.end()) {
        return std::nullopt;
    }
    return Database{std::move(*own), location->domain};
}

template <typename Operation>
std::invoke_result_t<Operation const&, std::string const&>
DbBrowserClient::with_database(std::string const& package, Operation const& operation) {
    auto const database = resolve(package);
    if (!database) {
        return std::nullopt;
    }
    MutexLock lock(mutex_);
    // Another operation may have come between, for a package of another domain.
    client_->set_target(database->domain);
    return operation(database->info.name);
}

std::optional<DbInfoReply> DbBrowserClient::list_tables(std::string const& package) {
    auto database = resolve(package);
    return database ? std::optional(std::move(database->info)) : std::nullopt;
}

std::optional<DbTableReadReply> DbBrowserClient::read_rows(std::string const& package,
                                                           std::string const& table,
                                                           std::uint64_t from, std::uint64_t to) {
    return with_database(package, [&](std::string const& database) {
        return client_->read_table_rows(database, table, from, to);
    });
}

std::optional<DbWriteReply> DbBrowserClient::edit_cell(std::string const& package,
                                                       std::string const& table,
                                                       std::uint64_t row_index,
                                                       std::uint32_t column_index,
                                                       std::string const& value) {
    return with_database(package, [&](std::string const& database) {
        return client_->edit_cell(database, table, row_index, column_index, value);
    });
}

std::optional<DbWriteReply> DbBrowserClient::delete_row(std::string const& package,
                                                        std::string const& table,
                                                        std::uint64_t row_index) {
    return with_database(package, [&](std::string const& database) {
        return client_->delete_row(database, table, row_index);
    });
}

std::optional<DbWriteReply> DbBrowserClient::clear_table(std::string const& package,
                                                         std::string const& table) {
    return with_database(package, [&](std::string const& database) {
        return client_->clear_table(database, table);
    });
}

} // namespace mirelclient
