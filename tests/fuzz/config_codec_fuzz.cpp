// Whatever a configuration file holds, decoding heals it: what is encoded afterwards must read
// back without an issue and the same.

#include "app/JsonConfigCodec.hpp"
#include "tests/support/sample_fields.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    tessaron::config::JsonConfigCodec const codec;
    tessaron::config::Config config(tessaron::test::K_SAMPLE_FIELDS);
    codec.decode({reinterpret_cast<char const*>(data), size}, config);
    std::string const healed = codec.encode(config);
    if (codec.decode(healed, config).healed() || codec.encode(config) != healed) {
        std::abort();
    }
    return 0;
}
