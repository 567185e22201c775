#include "proto/FieldName.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace proto {

namespace {

constexpr std::pair<FieldName, char const*> K_FIELD_NAME_STRINGS[] = {
    {ID_FIELD, "ID_FIELD"},
    {ID_2_FIELD, "ID_2_FIELD"},
    {TYPE_FIELD, "TYPE_FIELD"},
    {REQ_TYPE_FIELD, "REQ_TYPE_FIELD"},
    {ANS_TYPE_FIELD, "ANS_TYPE_FIELD"},
    {LEN_FIELD, "LEN_FIELD"},
    {ALEN_FIELD, "ALEN_FIELD"},
    {SOURCE_FIELD, "SOURCE_FIELD"},
    {DEST_FIELD, "DEST_FIELD"},
    {VERSION_FIELD, "VERSION_FIELD"},
    {NUMBER_FIELD, "NUMBER_FIELD"},
    {DATA_FIELD, "DATA_FIELD"},
    {CRC_FIELD, "CRC_FIELD"},
    {SESSION_FIELD, "SESSION_FIELD"},
    {DUMP_FIELD, "DUMP_FIELD"},
    {HEADER_FIELD, "HEADER_FIELD"},
    {BIN_FIELD, "BIN_FIELD"},
    {TIME_FIELD, "TIME_FIELD"},
    {HEIGHT_FIELD, "HEIGHT_FIELD"},
    {WIDTH_FIELD, "WIDTH_FIELD"},
    {STATUS_FIELD, "STATUS_FIELD"},
    {TTL_FIELD, "TTL_FIELD"},
    {FLAGS_FIELD, "FLAGS_FIELD"},
    {TOPIC_FIELD, "TOPIC_FIELD"},
    {SOURCE_2_FIELD, "SOURCE_2_FIELD"},
    {CHANNEL_FIELD, "CHANNEL_FIELD"},
};

} // namespace

char const* to_string(FieldName name) noexcept {
    auto const* const row =
        std::ranges::find(K_FIELD_NAME_STRINGS, name, &std::pair<FieldName, char const*>::first);
    return row == std::end(K_FIELD_NAME_STRINGS) ? "UNKNOWN" : row->second;
}

} // namespace proto
