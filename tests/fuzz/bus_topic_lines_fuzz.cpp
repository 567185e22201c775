// Any text of topic descriptions: what is read of it is written anew as the same topics. Its halves
// are a pattern and a topic, too.

#include "proto/bus/topic_description.hpp"
#include "proto/bus/topic_match.hpp"
#include "tests/fuzz/require.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    require(proto::bus::join_lines(proto::bus::split_lines(text)) == text);
    auto const topics = proto::bus::split_topic_descriptions(text);
    auto const joined = proto::bus::join_topic_descriptions(topics);
    require(proto::bus::split_topic_descriptions(joined) == topics);

    std::string_view const pattern = text.substr(0, size / 2);
    std::string_view const topic = text.substr(size / 2);
    bool const matches = proto::bus::glob_match(pattern, topic);
    if (pattern.find('*') == std::string_view::npos) {
        require(matches == (pattern == topic));
    }
    require(proto::bus::glob_match(text, text));
    return 0;
}
