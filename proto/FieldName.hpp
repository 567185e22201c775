#pragma once

namespace proto {

/// The kinds of fields that frames are made of. The numbers are fixed.
///
/// Unscoped on purpose: a handler asks for `get_named<VERSION_FIELD>`.
enum FieldName : unsigned char {
    ID_FIELD = 0,
    ID_2_FIELD = 1,
    TYPE_FIELD = 2,
    JSON_FIELD = 3,
    REQ_TYPE_FIELD = 4,
    ANS_TYPE_FIELD = 5,
    LEN_FIELD = 6,
    ALEN_FIELD = 7,
    SOURCE_FIELD = 8,
    DEST_FIELD = 9,
    VERSION_FIELD = 10,
    NUMBER_FIELD = 11,
    DATA_FIELD = 12,
    CRC_FIELD = 13,
    SESSION_FIELD = 14,
    DUMP_FIELD = 15,
    HEADER_FIELD = 16,
    BIN_FIELD = 17,
    TIME_FIELD = 18,
    HEIGHT_FIELD = 19,
    WIDTH_FIELD = 20,
    STATUS_FIELD = 21,
    TTL_FIELD = 22,
    FLAGS_FIELD = 23,
    TOPIC_FIELD = 24,
    SOURCE_2_FIELD = 25,
    CHANNEL_FIELD = 26,
    OPT_FIELD = 27,
};

/// "LEN_FIELD" and so on; "UNKNOWN" for a value without a text, which `JSON_FIELD` and `OPT_FIELD`
/// are too.
char const* to_string(FieldName name) noexcept;

} // namespace proto
