#include "database/DbClient.hpp"

#include <stdexcept>
#include <utility>

namespace tessaron {
namespace {

using database::DbInfoReply;
using database::DbTableReadReply;
using database::DbWriteReply;

constexpr char K_SERVICE[] = "tessaron_db_client";
constexpr char K_GROUP[] = "db_client";
constexpr char K_ALL_TOPICS[] = "db.*";
constexpr char K_PRIMING[] =
    "Priming providers_for() so db.info/db.table.read calls take the fast path";

/// The payload as a reply that will do.
template <typename Reply>
std::optional<Reply> parse_if(proto::bus::Bytes const& payload, bool (*is_wanted)(Reply const&)) {
    try {
        Reply reply = Reply::parse(payload);
        return is_wanted(reply) ? std::optional<Reply>(std::move(reply)) : std::nullopt;
    } catch (std::invalid_argument const&) {
        return std::nullopt;
    }
}

template <typename Reply>
std::optional<Reply> first_of(DbClient::Replies const& replies, bool (*is_wanted)(Reply const&)) {
    for (auto const& [source, payload] : replies) {
        if (auto reply = parse_if(payload, is_wanted)) {
            return reply;
        }
    }
    return std::nullopt;
}

template <typename Reply>
bool is_ok(Reply const& reply) {
    return reply.ok;
}

bool is_addressed(DbWriteReply const& reply) {
    return reply.error != database::K_NOT_ADDRESSED;
}

} // namespace

std::shared_ptr<DbClient> DbClient::create(bus::IHub& hub, std::uint32_t address,
                                           DbClientParams const& params) {
    auto client =
        hub.connect(address, proto::bus::make_identity(params.name, K_SERVICE, 1, K_GROUP, ""));
    if (params.target == DbClientParams::K_EVERYBODY) {
        client->subscribe(
            K_ALL_TOPICS, [](std::string const&, Bytes const&, std::uint32_t) {}, K_PRIMING);
    }
    return std::shared_ptr<DbClient>(new DbClient(hub, std::move(client), params.target));
}

DbClient::DbClient(bus::IHub& hub, std::shared_ptr<bus::LocalClient> client, std::uint32_t target)
    : hub_(hub), target_(target), client_(std::move(client)) {
}

std::vector<DbInfoReply> DbClient::query_all_db_info(Milliseconds timeout) {
    std::vector<DbInfoReply> all;
    for (auto const& [source, payload] :
         call_or_request_to(database::K_INFO_TOPIC, database::DbInfoRequest().build(), timeout)) {
        if (auto reply = parse_if<DbInfoReply>(payload, is_ok)) {
            reply->source = source;
            all.push_back(std::move(*reply));
        }
    }
    return all;
}

std::optional<DbTableReadReply> DbClient::read_table_rows(std::string const& db_name,
                                                          std::string const& table,
                                                          std::uint64_t from, std::uint64_t to,
                                                          Milliseconds timeout) {
    auto const replies = call_or_request_to(
        database::K_TABLE_READ_TOPIC,
        database::DbTableReadRequest{db_name, table, from, to}.build(), timeout,
        [](Bytes const& reply) { return parse_if<DbTableReadReply>(reply, is_ok).has_value(); });
    return first_of<DbTableReadReply>(replies, is_ok);
}

std::optional<DbWriteReply> DbClient::edit_cell(std::string const& db_name,
                                                std::string const& table, std::uint64_t row_index,
                                                std::uint32_t column_index,
                                                std::string const& value, Milliseconds timeout) {
    return first_write_reply(
        database::K_CELL_EDIT_TOPIC,
        database::DbEditCellRequest{db_name, table, row_index, column_index, value}.build(),
        timeout);
}

std::optional<DbWriteReply> DbClient::delete_row(std::string const& db_name,
                                                 std::string const& table, std::uint64_t row_index,
                                                 Milliseconds timeout) {
    return first_write_reply(database::K_ROW_DELETE_TOPIC,
                             database::DbDeleteRowRequest{db_name, table, row_index}.build(),
                             timeout);
}

std::optional<DbWriteReply> DbClient::clear_table(std::string const& db_name,
                                                  std::string const& table, Milliseconds timeout) {
    return first_write_reply(database::K_TABLE_CLEAR_TOPIC,
                             database::DbClearTableRequest{db_name, table}.build(), timeout);
}

DbClient::Replies DbClient::call_or_request_to(std::string const& topic, Bytes const& payload,
                                               Milliseconds timeout,
                                               bus::LocalClient::IsLast const& is_last) {
    return client_->call(target_, topic, payload, timeout, is_last);
}

std::optional<DbWriteReply>
DbClient::first_write_reply(std::string const& topic, Bytes const& payload, Milliseconds timeout) {
    auto const replies = call_or_request_to(topic, payload, timeout, [](Bytes const& reply) {
        return parse_if<DbWriteReply>(reply, is_addressed).has_value();
    });
    return first_of<DbWriteReply>(replies, is_addressed);
}

} // namespace tessaron
