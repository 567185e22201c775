#include "proto/json_scan.hpp"

#include <cstring>
#include <type_traits>

namespace proto::detail {

namespace {

/// All zero before the first byte.
struct JsonScan {
    unsigned long position;  ///< Of the next byte to look at.
    unsigned long after_end; ///< Behind the last closing brace or bracket; 0 while there is none.
    long braces;
    long brackets;
    bool in_string;
    bool escaped; ///< The byte before was a backslash.

    bool is_open() const { return braces > 0 || brackets > 0; }
    bool is_broken() const { return braces < 0 || brackets < 0; }
    void look_at(unsigned char byte);
};

static_assert(std::is_trivially_copyable_v<JsonScan> && sizeof(JsonScan) <= 64);

void JsonScan::look_at(unsigned char byte) {
    ++position;
    if (escaped) {
        escaped = false;
    } else if (byte == '\\') {
        escaped = true;
    } else if (byte == '"') {
        in_string = !in_string;
    } else if (!in_string) {
        braces += (byte == '{') - (byte == '}');
        brackets += (byte == '[') - (byte == ']');
        if (byte == '}' || byte == ']') {
            after_end = position;
        }
    }
}

MatchStatus verdict(JsonScan const& scan) {
    if (scan.is_broken()) {
        return MatchStatus::Mismatch;
    }
    if (scan.in_string || scan.is_open()) {
        return MatchStatus::Incomplete;
    }
    return scan.after_end == 0 ? MatchStatus::Mismatch : MatchStatus::Match;
}

} // namespace

MatchStatus scan_json(Field& field) {
    JsonScan scan;
    std::memcpy(&scan, field.scratch(), sizeof scan);
    if (field.read() < scan.position) {
        scan = {};
    }
    // The bytes behind the value belong to other fields, whatever they look like: not a byte
    // further than its last bracket, so that the frame is the same however the stream is cut.
    bool ended = false;
    while (scan.position < field.read() && !ended && !scan.is_broken()) {
        scan.look_at(field.begin()[scan.position]);
        ended = scan.after_end == scan.position && !scan.is_open();
    }
    std::memcpy(field.scratch(), &scan, sizeof scan);
    MatchStatus const status = verdict(scan);
    if (status == MatchStatus::Match) {
        field.set_read(scan.after_end);
        field.assign_size(scan.after_end);
    }
    return status;
}

} // namespace proto::detail
