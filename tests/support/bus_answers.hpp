#pragma once

#include "tests/support/bus_nodes.hpp"

#include <string>

namespace tessaron::test {

/// A hub or a client answers what it is asked on a topic with a record, and shows what was asked.
template <typename Node, typename Reply>
void answer(Node& node, std::string const& topic, Reply const& reply,
            Collected<Bytes> const& asked = {}) {
    node.serve(
        topic,
        [reply, asked](Bytes const& request) {
            asked.add(request);
            return reply.build();
        },
        "");
}

} // namespace tessaron::test
