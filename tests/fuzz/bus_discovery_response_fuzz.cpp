// Any discovery response: what is read of it is written anew as the same records.

#include "proto/bus/NodeIdentity.hpp"
#include "proto/bus/discovery_records.hpp"
#include "tests/fuzz/require.hpp"

#include <cstddef>
#include <cstdint>

namespace {

/// A line that lacks parts has them once it is written anew: with room for that in each text of at
/// most 65535 bytes, no line is left out.
constexpr std::size_t K_ROOMY = 6000;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    proto::bus::Bytes const payload(data, data + size);
    auto const identity = proto::bus::decode_identity(payload);
    auto const content = proto::bus::decode_topics_and_roles_after_identity(payload);
    proto::bus::decode_topic_after_identity(payload);
    auto const written = encode_identity_topics_and_roles(identity, content);
    require(proto::bus::decode_identity(written) == identity);
    if (size <= K_ROOMY) {
        require(proto::bus::decode_topics_and_roles_after_identity(written) == content);
    }
    return 0;
}
