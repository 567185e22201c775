#pragma once

#include "proto/bus/topic_description.hpp"

#include <string>

namespace tessaron::test {

/// A topic of which nothing but its name is told.
inline proto::bus::TopicDescription topic_named(std::string const& name) {
    proto::bus::TopicDescription topic;
    topic.name = name;
    return topic;
}

} // namespace tessaron::test
