#include "proto/bus/topic_description.hpp"

#include <algorithm>

namespace proto::bus {

namespace {

constexpr char K_LINE_SEPARATOR = '\n';
constexpr char K_PART_SEPARATOR = '\x1F';
constexpr char K_PARAM_SEPARATOR = '\x1E';
constexpr char K_PARAM_PART_SEPARATOR = '\x1D';

char digit(bool value) {
    return value ? '1' : '0';
}

/// What a line or a param has at that place, nothing if it ends before.
std::string_view part(std::vector<std::string_view> const& parts, std::size_t index) {
    return index < parts.size() ? parts[index] : std::string_view{};
}

void append_param(std::string& line, TopicParam const& param) {
    line += param.name;
    line += K_PARAM_PART_SEPARATOR;
    line += param.text;
    line += K_PARAM_PART_SEPARATOR;
    line += digit(param.flag);
}

TopicParam decode_param(std::string_view text) {
    auto const parts = detail::split_by_char(text, K_PARAM_PART_SEPARATOR);
    return {std::string(part(parts, 0)), std::string(part(parts, 1)), part(parts, 2) == "1"};
}

} // namespace

std::string encode_topic_description_line(TopicDescription const& topic) {
    std::string line = topic.name;
    line += K_PART_SEPARATOR;
    line += topic.description;
    line += K_PART_SEPARATOR;
    line += digit(topic.kind == TopicKind::REQUEST);
    line += K_PART_SEPARATOR;
    line += digit(topic.flag);
    line += K_PART_SEPARATOR;
    for (std::size_t i = 0; i < topic.params.size(); ++i) {
        if (i > 0) {
            line += K_PARAM_SEPARATOR;
        }
        append_param(line, topic.params[i]);
    }
    return line;
}

TopicDescription decode_topic_description_line(std::string_view line) {
    auto const parts = detail::split_by_char(line, K_PART_SEPARATOR);
    TopicDescription topic;
    topic.name = part(parts, 0);
    topic.description = part(parts, 1);
    topic.kind = part(parts, 2) == "1" ? TopicKind::REQUEST : TopicKind::EVENT;
    topic.flag = part(parts, 3) == "1";
    if (std::string_view const params = part(parts, 4); !params.empty()) {
        for (std::string_view const param : detail::split_by_char(params, K_PARAM_SEPARATOR)) {
            topic.params.push_back(decode_param(param));
        }
    }
    return topic;
}

std::string join_lines(std::vector<std::string> const& lines) {
    std::string text;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i > 0) {
            text += K_LINE_SEPARATOR;
        }
        text += lines[i];
    }
    return text;
}

std::vector<std::string> split_lines(std::string_view text) {
    if (text.empty()) {
        return {};
    }
    auto const lines = detail::split_by_char(text, K_LINE_SEPARATOR);
    return {lines.begin(), lines.end()};
}

std::string join_topic_descriptions(std::vector<TopicDescription> const& topics) {
    std::vector<std::string> lines(topics.size());
    std::transform(topics.begin(), topics.end(), lines.begin(), encode_topic_description_line);
    return join_lines(lines);
}

std::vector<TopicDescription> split_topic_descriptions(std::string_view text) {
    std::vector<std::string> const lines = split_lines(text);
    std::vector<TopicDescription> topics(lines.size());
    std::transform(lines.begin(), lines.end(), topics.begin(), decode_topic_description_line);
    return topics;
}

namespace detail {

std::vector<std::string_view> split_by_char(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    std::size_t begin = 0;
    for (std::size_t end; (end = text.find(separator, begin)) != std::string_view::npos;
         begin = end + 1) {
        parts.push_back(text.substr(begin, end - begin));
    }
    parts.push_back(text.substr(begin));
    return parts;
}

} // namespace detail

} // namespace proto::bus
