#include "logger/ConsoleStreamBuffer.hpp"

#include <iostream>

namespace tessaron {

std::streamsize ConsoleStreamBuffer::xsputn(char const* bytes, std::streamsize count) {
    return std::cout.rdbuf()->sputn(bytes, count);
}

ConsoleStreamBuffer::int_type ConsoleStreamBuffer::overflow(int_type character) {
    if (traits_type::eq_int_type(character, traits_type::eof())) {
        return traits_type::not_eof(character);
    }
    return std::cout.rdbuf()->sputc(traits_type::to_char_type(character));
}

int ConsoleStreamBuffer::sync() {
    return std::cout.rdbuf()->pubsync();
}

} // namespace tessaron
