#pragma once

#include "MirelClientApp/diagnostics/DiagnosticsClient.hpp"
#include "bus/IHub.hpp"
#include "database/DbClient.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

namespace mirelclient {

/// Shows and changes the databases of packages: of all databases on the bus, a package's is the one
/// that its application's node or a module of it offers.
///
/// Each operation looks for the database anew, by asking everybody, before it does what it is for:
/// it takes `K_DISCOVERY_PAUSE` and the time of one round of answers longer than that.
///
/// Ownership: a node of its own; the hub and the diagnostics must outlive it.
/// Thread safety: safe from any thread, but not from handlers of the bus; one round of answers at a
/// time.
/// Errors: none; an empty result where the package has no database on the bus or nobody answered in
/// time. What a database refuses is in the reply.
class DbBrowserClient {
public:
    using Milliseconds = std::chrono::milliseconds;

    /// How long the bus is given to tell who is there.
    static constexpr Milliseconds K_DISCOVERY_PAUSE{200};

    /// `address` was claimed for this client.
    DbBrowserClient(tessaron::bus::IHub& hub, std::uint32_t address,
                    DiagnosticsClient const& diagnostics);

    std::optional<tessaron::database::DbInfoReply> list_tables(std::string const& package);
    /// See `DbClient` for the rows.
    std::optional<tessaron::database::DbTableReadReply> read_rows(std::string const& package,
                                                                  std::string const& table,
                                                                  std::uint64_t from,
                                                                  std::uint64_t to);
    std::optional<tessaron::database::DbWriteReply>
    edit_cell(std::string const& package, std::string const& table, std::uint64_t row_index,
              std::uint32_t column_index, std::string const& value);
    std::optional<tessaron::database::DbWriteReply>
    delete_row(std::string const& package, std::string const& table, std::uint64_t row_index);
    std::optional<tessaron::database::DbWriteReply> clear_table(std::string const& package,
                                                                std::string const& table);

    /// For a stop: operations under way end at once, without a result, as do further ones.
    void request_stop() TESSARON_EXCLUDES(stop_mutex_);

private:
    /// A package's, and the domain whose nodes are asked for it.
    struct Database {
        tessaron::database::DbInfoReply info;
        std::uint32_t domain = 0;
    };

    std::optional<Database> resolve(std::string const& package) TESSARON_EXCLUDES(mutex_);
    /// Resolves the package, then calls `operation` with the database's name.
    template <typename Operation>
    std::invoke_result_t<Operation const&, std::string const&>
    with_database(std::string const& package, Operation const& operation) TESSARON_EXCLUDES(mutex_);
    /// False when a stop is requested.
    bool pause() TESSARON_EXCLUDES(stop_mutex_);

    DiagnosticsClient const& diagnostics_;
    std::shared_ptr<tessaron::DbClient> const client_;
    /// Guards the client's target, from setting it to the answers.
    tessaron::Mutex mutex_;

    tessaron::Mutex stop_mutex_;
    std::condition_variable stopped_;
    bool stop_ TESSARON_GUARDED_BY(stop_mutex_) = false;
};

} // namespace mirelclient
