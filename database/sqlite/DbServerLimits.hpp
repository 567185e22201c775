#pragma once

#include "bus/record_fields.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace tessaron::database::sqlite {

/// How much a server of databases does at once, so that its answers fit into a message and come
/// before whoever asked has given up, which a `DbClient` does after half a second.
struct DbServerLimits {
    static constexpr std::uint64_t K_MAX_ROWS = 1000;
    static constexpr std::size_t K_MAX_CELL_SIZE = 4096;
    static constexpr std::uint64_t K_MAX_COUNTED_ROWS = 1'000'000;
    static constexpr std::chrono::milliseconds K_BUSY_TIMEOUT{250};
    static constexpr std::chrono::milliseconds K_TIME_LIMIT{400};

    /// Of one reply, however many were asked for.
    std::uint64_t max_rows = K_MAX_ROWS;
    /// What a reply has to say of rows, or of tables.
    std::size_t max_reply_size = bus::K_MAX_RECORD_DATA;
    /// What is shown of a cell. Of a table with very many columns it is less, so that any one row
    /// fits into a reply.
    std::size_t max_cell_size = K_MAX_CELL_SIZE;
    /// A table with more, or one that cannot be counted in time, is said to have as many as were
    /// counted until then.
    std::uint64_t max_counted_rows = K_MAX_COUNTED_ROWS;
    /// How long whoever else writes is waited for.
    std::chrono::milliseconds busy_timeout = K_BUSY_TIMEOUT;
    /// Of one request; what is not done by then is undone and refused.
    std::chrono::milliseconds time_limit = K_TIME_LIMIT;
};

} // namespace tessaron::database::sqlite
