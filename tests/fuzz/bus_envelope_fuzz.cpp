// Any payload of an application message: what decodes is written anew as the same envelope, in no
// more bytes; what does not, throws where a value is wanted.

#include "bus/Envelope.hpp"
#include "tests/fuzz/require.hpp"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::vector<std::uint8_t> const payload(data, data + size);
    auto const envelope = tessaron::bus::try_decode_envelope(payload);
    if (envelope) {
        auto const written = tessaron::bus::encode_envelope(*envelope);
        require(written.size() <= payload.size());
        require(tessaron::bus::try_decode_envelope(written) == envelope);
        return 0;
    }
    try {
        tessaron::bus::decode_envelope(payload);
    } catch (std::invalid_argument const&) {
        return 0;
    }
    std::abort();
}
