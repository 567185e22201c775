#include "tools/mirelpack/utf8.hpp"

#include <cstddef>
#include <cstdint>

namespace mirelpack {

bool is_utf8(std::string_view text) {
    static constexpr std::uint32_t K_SMALLEST[] = {0, 0x80, 0x800, 0x10000};
    for (std::size_t i = 0; i < text.size();) {
        auto const lead = static_cast<unsigned char>(text[i++]);
        unsigned const following = lead < 0x80             ? 0
                                   : (lead & 0xe0) == 0xc0 ? 1
                                   : (lead & 0xf0) == 0xe0 ? 2
                                   : (lead & 0xf8) == 0xf0 ? 3
                                                           : 4;
        if (following == 4 || text.size() - i < following) {
            return false;
        }
        std::uint32_t point = following == 0 ? lead : lead & (0x3fU >> following);
        for (unsigned k = 0; k < following; ++k) {
            auto const next = static_cast<unsigned char>(text[i++]);
            if ((next & 0xc0) != 0x80) {
                return false;
            }
            point = (point << 6) | (next & 0x3fU);
        }
        bool const surrogate = point >= 0xd800 && point <= 0xdfff;
        if (point < K_SMALLEST[following] || point > 0x10ffff || surrogate) {
            return false;
        }
    }
    return true;
}

} // namespace mirelpack
