#pragma once

#include "proto/bus/Bytes.hpp"

#include <cstdint>
#include <string>
#include <vector>

/// What an application that offers its database on the bus is asked, and answers: the topics
/// "db.info", "db.table.read", "db.cell.edit", "db.row.delete" and "db.table.clear".
///
/// All are envelopes of texts, with numbers in decimal. A request that names a database
/// (`db_name`) reaches every node of a domain, and is meant for the one that has a database of this
/// name; all others answer that they are not addressed.
///
/// Rows have no names on the wire: a row is its number, from 1, in the order in which its table is
/// read.
///
/// Thread safety: values. Errors: `parse` throws `std::invalid_argument` for a payload that is no
/// envelope, and for a number that is none, except where it says otherwise.
namespace tessaron::database {

using proto::bus::Bytes;

inline constexpr char K_INFO_TOPIC[] = "db.info";
inline constexpr char K_TABLE_READ_TOPIC[] = "db.table.read";
inline constexpr char K_CELL_EDIT_TOPIC[] = "db.cell.edit";
inline constexpr char K_ROW_DELETE_TOPIC[] = "db.row.delete";
inline constexpr char K_TABLE_CLEAR_TOPIC[] = "db.table.clear";

/// How a node says that a request is for a database of another name. Whoever asks a whole domain
/// passes over such answers.
inline constexpr char K_NOT_ADDRESSED[] = "not addressed to this db";

/// A table as it is listed. On the wire, a line of the reply's data:
///
///     name | row_count | column names, parted by commas
///
/// Nothing is escaped: a name must hold no bar and no line break, a column's name no comma either.
struct DbTableInfo {
    std::string name;
    std::uint64_t row_count = 0;
    std::vector<std::string> column_names;

    bool operator==(DbTableInfo const&) const = default;
};

/// Says nothing: whoever has a database answers.
struct DbInfoRequest {
    Bytes build() const;
    static DbInfoRequest parse(Bytes const& payload);
};

struct DbInfoReply {
    bool ok = true;
    std::string name; ///< What requests call the database.
    std::string path;
    bool loaded = false; ///< On the wire exactly "1"; any other text reads as false.
    std::vector<DbTableInfo> tables;
    std::uint32_t source = 0; ///< The address that sent it: not on the wire, the client's to fill.

    Bytes build() const;
    /// A line of fewer than two bars is no table, and a count that is no number is 0.
    static DbInfoReply parse(Bytes const& payload);
};

struct DbTableReadRequest {
    std::string db_name;
    std::string table_name;
    std::uint64_t from_row = 0;
    std::uint64_t to_row = 0; ///< Included; 0 means the table's end.

    Bytes build() const;
    static DbTableReadRequest parse(Bytes const& payload);
};

/// A part of a table. Each row is a line of the reply's data, its cells parted by bars; a cell that
/// holds one reads as two, since nothing is escaped, and no cell can hold a line break. A lone row
/// without any text cannot be told from no rows, and reads as such.
struct DbTableReadReply {
    bool ok = true;
    std::string error;
    std::uint64_t total_rows = 0;
    std::uint64_t from_row = 0; ///< The number of the first of `rows`.
    std::vector<std::string> column_names;
    std::vector<std::string> rows; ///< Not split into cells yet.

    Bytes build() const;
    static DbTableReadReply parse(Bytes const& payload);
};

struct DbEditCellRequest {
    std::string db_name;
    std::string table_name;
    std::uint64_t row_index = 0;
    std::uint32_t column_index = 0; ///< From 0, which is the primary key.
    std::string value;

    Bytes build() const;
    static DbEditCellRequest parse(Bytes const& payload);
};

struct DbDeleteRowRequest {
    std::string db_name;
    std::string table_name;
    std::uint64_t row_index = 0;

    Bytes build() const;
    static DbDeleteRowRequest parse(Bytes const& payload);
};

struct DbClearTableRequest {
    std::string db_name;
    std::string table_name;

    Bytes build() const;
    static DbClearTableRequest parse(Bytes const& payload);
};

/// The answer to whatever changes a database.
struct DbWriteReply {
    bool ok = true;
    std::string error;

    Bytes build() const;
    static DbWriteReply parse(Bytes const& payload);
};

} // namespace tessaron::database
