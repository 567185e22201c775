#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace proto::bus {

enum class TopicKind : std::uint8_t { EVENT = 0, REQUEST = 1 };

struct TopicParam {
    std::string name;
    std::string text;
    bool flag = false;

    bool operator==(TopicParam const&) const = default;
};

/// What a node says of a topic that it offers or wants.
struct TopicDescription {
    std::string name;
    std::string description;
    TopicKind kind = TopicKind::EVENT;
    std::vector<TopicParam> params;
    bool flag = false;

    bool operator==(TopicDescription const&) const = default;
};

/// One description as a line of text:
///
///     name 1F description 1F kind 1F flag 1F params
///
/// `kind` is "1" for a request and `flag` is "1" when set, else "0"; the params are joined by 1E,
/// each being `name 1D text 1D flag`. Nothing is escaped: texts must not hold the bytes 0A, 1D, 1E
/// and 1F, which is the caller's duty.
std::string encode_topic_description_line(TopicDescription const& topic);

/// Reads as many of the parts as the line has; those that are missing keep their defaults, and
/// those beyond the last are ignored. Only exactly "1" is true.
TopicDescription decode_topic_description_line(std::string_view line);

/// Lines joined with a newline. No lines, and one empty line, both give an empty text.
std::string join_lines(std::vector<std::string> const& lines);

/// An empty text gives no lines.
std::vector<std::string> split_lines(std::string_view text);

std::string join_topic_descriptions(std::vector<TopicDescription> const& topics);
std::vector<TopicDescription> split_topic_descriptions(std::string_view text);

namespace detail {

/// The parts between the separators, empty ones too: always one more than there are separators.
std::vector<std::string_view> split_by_char(std::string_view text, char separator);

} // namespace detail

} // namespace proto::bus
