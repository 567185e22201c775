#include "app/utilities/json_value.hpp"

#include <array>
#include <cstdint>
#include <cstdio>

namespace tessaron::json {

/// Writes one value as compact text. Containers whose members are being written stand on a stack of
/// its own, so that nesting depth costs heap and not call stack.
class Value::Writer {
public:
    std::string write(Value const& root) {
        begin(root);
        while (!open_.empty()) {
            go_on();
        }
        return std::move(text_);
    }

private:
    template <typename Contents>
    struct Rest {
        typename Contents::const_iterator next;
        typename Contents::const_iterator end;
    };

    /// Writes a scalar whole; of a container only the opening bracket.
    void begin(Value const& value);
    /// Writes the next member of the innermost open container, or its closing bracket.
    void go_on();
    void close(char bracket);
    void write_separator();
    void write_number(double number);
    void write_string(std::string const& value);

    std::string text_;
    std::vector<std::variant<Rest<Array>, Rest<Object>>> open_;
};

void Value::Writer::begin(Value const& value) {
    if (std::holds_alternative<ArrayPtr>(value.data_)) {
        Array const& items = value.as_array();
        text_ += '[';
        open_.emplace_back(Rest<Array>{items.begin(), items.end()});
    } else if (std::holds_alternative<ObjectPtr>(value.data_)) {
        Object const& members = value.as_object();
        text_ += '{';
        open_.emplace_back(Rest<Object>{members.begin(), members.end()});
    } else if (auto const* const string = std::get_if<std::string>(&value.data_)) {
        write_string(*string);
    } else if (auto const* const number = std::get_if<double>(&value.data_)) {
        write_number(*number);
    } else if (auto const* const boolean = std::get_if<bool>(&value.data_)) {
        text_ += *boolean ? "true" : "false";
    } else {
        text_ += "null";
    }
}

void Value::Writer::go_on() {
    // The iterators advance before `begin`, which may move the stack.
    if (auto* const array = std::get_if<Rest<Array>>(&open_.back())) {
        if (array->next == array->end) {
            close(']');
            return;
        }
        write_separator();
        begin(*array->next++);
    } else {
        auto& object = std::get<Rest<Object>>(open_.back());
        if (object.next == object.end) {
            close('}');
            return;
        }
        write_separator();
        auto const& [key, value] = *object.next++;
        write_string(key);
        text_ += ':';
        begin(value);
    }
}

void Value::Writer::close(char bracket) {
    text_ += bracket;
    open_.pop_back();
}

void Value::Writer::write_separator() {
    // No value's text ends in an opening bracket, so one here belongs to the open container.
    if (text_.back() != '[' && text_.back() != '{') {
        text_ += ',';
    }
}

void Value::Writer::write_number(double number) {
    // Outside this range the conversion to an integer is undefined; not-a-number fails both.
    constexpr double K_INTEGER_END = 0x1p63;
    if (number >= -K_INTEGER_END && number < K_INTEGER_END) {
        auto const integer = static_cast<std::int64_t>(number);
        if (static_cast<double>(integer) == number) {
            text_ += std::to_string(integer);
            return;
        }
    }
    std::array<char, 32> digits;
    int const length = std::snprintf(digits.data(), digits.size(), "%g", number);
    text_.append(digits.data(), static_cast<std::size_t>(length));
}

void Value::Writer::write_string(std::string const& value) {
    constexpr char K_HEX_DIGITS[] = "0123456789abcdef";
    text_ += '"';
    for (char const c : value) {
        auto const byte = static_cast<unsigned char>(c);
        if (c == '\t') {
            text_ += "\\t";
        } else if (c == '\n') {
            text_ += "\\n";
        } else if (c == '\r') {
            text_ += "\\r";
        } else if (c == '"' || c == '\\') {
            text_ += '\\';
            text_ += c;
        } else if (byte < 32) {
            text_ += "\\u00";
            text_ += K_HEX_DIGITS[byte >> 4];
            text_ += K_HEX_DIGITS[byte & 15];
        } else {
            text_ += c;
        }
    }
    text_ += '"';
}

std::string Value::dump() const {
    return Writer().write(*this);
}

} // namespace tessaron::json
