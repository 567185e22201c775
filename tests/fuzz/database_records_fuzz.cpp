// Any payload as any of the records by which databases are asked for: it is refused by an
// exception, or read; what was read is written and read again as the same bytes, and no row or
// table of a reply has more lines than one.

#include "database/database_records.hpp"
#include "tests/fuzz/require.hpp"

#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace {

using namespace tessaron::database;

bool is_one_line(std::string const& text) {
    return text.find('\n') == std::string::npos;
}

void look_at(DbInfoReply const& reply) {
    for (DbTableInfo const& table : reply.tables) {
        require(is_one_line(table.name) && table.name.find('|') == std::string::npos);
        for (std::string const& column : table.column_names) {
            require(is_one_line(column) && column.find(',') == std::string::npos);
        }
    }
}

void look_at(DbTableReadReply const& reply) {
    for (std::string const& row : reply.rows) {
        require(is_one_line(row));
    }
}

template <typename Record>
void look_at(Record const&) {
}

template <typename Record>
void read_and_write(Bytes const& payload) {
    try {
        auto const record = Record::parse(payload);
        look_at(record);
        Bytes const written = record.build();
        require(Record::parse(written).build() == written);
    } catch (std::invalid_argument const&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Bytes const payload(data, data + size);
    read_and_write<DbInfoRequest>(payload);
    read_and_write<DbInfoReply>(payload);
    read_and_write<DbTableReadRequest>(payload);
    read_and_write<DbTableReadReply>(payload);
    read_and_write<DbEditCellRequest>(payload);
    read_and_write<DbDeleteRowRequest>(payload);
    read_and_write<DbClearTableRequest>(payload);
    read_and_write<DbWriteReply>(payload);
    return 0;
}
