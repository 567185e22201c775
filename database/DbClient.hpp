#pragma once

#include "bus/IHub.hpp"
#include "bus/LocalClient.hpp"
#include "database/database_records.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tessaron {

inline constexpr std::chrono::milliseconds K_DB_CLIENT_DEFAULT_REQUEST_TIMEOUT{500};

/// Who the client is, and whom it asks at first.
struct DbClientParams {
    /// Asks whoever is there.
    static constexpr std::uint32_t K_EVERYBODY = bus::LocalClient::K_EVERYBODY;

    std::string name = "db_client"; ///< Of its node.
    std::uint32_t target = K_EVERYBODY;
};

/// Asks applications on the bus for their databases: the other end of what a
/// `database::sqlite::DbServer` serves.
///
/// A target is the address of a node, or that of a domain, whose nodes then all are asked: each
/// operation names the database that it is for, and the answers of those who have another are
/// passed over. The operations return as soon as one has come that will do; `query_all_db_info`
/// waits for the whole of its time.
///
/// An empty result means that nobody who has this database answered in time.
///
/// Ownership: a node of its own; the hub must outlive it.
/// Thread safety: safe from any thread, but not from event handlers of the bus; between
/// `set_target` and the call nobody else may set another, the caller's duty.
/// Errors: none; what a database refuses is in the reply.
class DbClient {
public:
    using Bytes = proto::bus::Bytes;
    using Milliseconds = std::chrono::milliseconds;
    using Replies = bus::LocalClient::Replies;

    /// A client without a target lets the bus learn early who has databases, by a subscription.
    static std::shared_ptr<DbClient> create(bus::IHub& hub, std::uint32_t address,
                                            DbClientParams const& params = {});
    DbClient(DbClient const&) = delete;
    DbClient& operator=(DbClient const&) = delete;

    /// Asks everybody who they are; the answers come in later.
    void discover() { hub_.discover(); }
    void set_target(std::uint32_t address) { target_ = address; }

    /// Every database of the target, whether it is loaded or not, in the order of their addresses.
    std::vector<database::DbInfoReply>
    query_all_db_info(Milliseconds timeout = K_DB_CLIENT_DEFAULT_REQUEST_TIMEOUT);

    /// Rows `from` to `to`, both included; a `to` of 0 means the table's end. There may be fewer
    /// than that, as many as the server gives at once. A read that the server refuses is no result.
    std::optional<database::DbTableReadReply>
    read_table_rows(std::string const& db_name, std::string const& table, std::uint64_t from,
                    std::uint64_t to, Milliseconds timeout = K_DB_CLIENT_DEFAULT_REQUEST_TIMEOUT);
    std::optional<database::DbWriteReply>
    edit_cell(std::string const& db_name, std::string const& table, std::uint64_t row_index,
              std::uint32_t column_index, std::string const& value,
              Milliseconds timeout = K_DB_CLIENT_DEFAULT_REQUEST_TIMEOUT);
    std::optional<database::DbWriteReply>
    delete_row(std::string const& db_name, std::string const& table, std::uint64_t row_index,
               Milliseconds timeout = K_DB_CLIENT_DEFAULT_REQUEST_TIMEOUT);
    std::optional<database::DbWriteReply>
    clear_table(std::string const& db_name, std::string const& table,
                Milliseconds timeout = K_DB_CLIENT_DEFAULT_REQUEST_TIMEOUT);

    /// All replies of the target; see `LocalClient::call`.
    Replies call_or_request_to(std::string const& topic, Bytes const& payload, Milliseconds timeout,
                               bus::LocalClient::IsLast const& is_last = {});
    /// The first reply, in the order of addresses, of a node that the request is for: also one that
    /// refuses it.
    std::optional<database::DbWriteReply>
    first_write_reply(std::string const& topic, Bytes const& payload, Milliseconds timeout);

    /// For a stop: operations under way end at once, as if nobody had answered, and so do further
    /// ones.
    void request_stop() { client_->stop_waiting(); }

    std::uint32_t address() const { return client_->address(); }

private:
    DbClient(bus::IHub& hub, std::shared_ptr<bus::LocalClient> client, std::uint32_t target);

    bus::IHub& hub_;
    std::atomic<std::uint32_t> target_;
    std::shared_ptr<bus::LocalClient> const client_;
};

} // namespace tessaron
