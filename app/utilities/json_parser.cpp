#include "app/utilities/json_value.hpp"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace tessaron::json {
namespace {

/// `std::stod` with its exceptions, but without the string: a copy of the rest of the text for
/// every number would make a long list of numbers take quadratic time.
double to_double(char const* text, std::size_t& consumed) {
    int const saved_errno = std::exchange(errno, 0);
    char* end = nullptr;
    double const number = std::strtod(text, &end);
    bool const out_of_range = errno == ERANGE;
    errno = saved_errno;
    if (end == text) {
        throw std::invalid_argument("stod");
    }
    if (out_of_range) {
        throw std::out_of_range("stod");
    }
    consumed = static_cast<std::size_t>(end - text);
    return number;
}

/// Parses one document.
///
/// Nothing here recurses. A container whose end is yet to come is a mark in `open_`; its members
/// so far stand at the end of `values_` (and `keys_`) and move into the container when it closes.
/// So a million opening brackets cost a few bytes each, and what a failure throws away is flat.
class Parser {
public:
    explicit Parser(std::string const& text) : text_(text) {}

    Value parse_document();

private:
    struct OpenContainer {
        bool is_object;
        std::size_t first_value;
        std::size_t first_key;
    };

    /// At the beginning of a value. True when it is complete (a scalar, an empty container), false
    /// when it is a container whose first member is due.
    bool begin_value();
    bool begin_array();
    bool begin_object();
    /// Behind a member of the innermost open container. True when that closes the container, false
    /// when another member is due.
    bool end_member();
    void close_array(OpenContainer const& container);
    void close_object(OpenContainer const& container);

    void parse_key();
    std::string parse_string();
    void unescape_into(std::string& value);
    double parse_number();

    void skip_white_space();
    bool next_is(char c) const { return position_ < text_.size() && text_[position_] == c; }
    bool step_over(char c);
    bool step_over(std::string_view word);
    void expect(char c);
    [[noreturn]] void fail_at_offset(std::string const& what) const;

    std::string const& text_;
    std::size_t position_ = 0; // a dropped \u escape may carry it beyond the end
    std::vector<Value> values_;
    std::vector<std::string> keys_;
    std::vector<OpenContainer> open_;
};

Value Parser::parse_document() {
    bool complete = begin_value();
    while (!open_.empty()) {
        complete = complete ? end_member() : begin_value();
    }
    skip_white_space();
    if (position_ != text_.size()) {
        fail_at_offset("trailing garbage after top-level value");
    }
    return std::move(values_.back());
}

bool Parser::begin_value() {
    skip_white_space();
    if (position_ >= text_.size()) {
        throw std::invalid_argument("tiny_json: unexpected end of input");
    }
    if (next_is('"')) {
        values_.emplace_back(parse_string());
    } else if (step_over('{')) {
        return begin_object();
    } else if (step_over('[')) {
        return begin_array();
    } else if (step_over("true")) {
        values_.emplace_back(true);
    } else if (step_over("false")) {
        values_.emplace_back(false);
    } else if (step_over("null")) {
        values_.emplace_back();
    } else {
        values_.emplace_back(parse_number());
    }
    return true;
}

bool Parser::begin_array() {
    skip_white_space();
    if (step_over(']')) {
        values_.emplace_back(Value::Array());
        return true;
    }
    open_.push_back({false, values_.size(), keys_.size()});
    return false;
}

bool Parser::begin_object() {
    skip_white_space();
    if (step_over('}')) {
        values_.emplace_back(Value::Object());
        return true;
    }
    open_.push_back({true, values_.size(), keys_.size()});
    parse_key();
    return false;
}

bool Parser::end_member() {
    OpenContainer const container = open_.back();
    skip_white_space();
    if (step_over(',')) {
        if (container.is_object) {
            parse_key();
        }
        return false;
    }
    expect(container.is_object ? '}' : ']');
    open_.pop_back();
    if (container.is_object) {
        close_object(container);
    } else {
        close_array(container);
    }
    return true;
}

void Parser::close_array(OpenContainer const& container) {
    auto const first = values_.begin() + static_cast<std::ptrdiff_t>(container.first_value);
    Value::Array items(std::make_move_iterator(first), std::make_move_iterator(values_.end()));
    values_.erase(first, values_.end());
    values_.emplace_back(std::move(items));
}

void Parser::close_object(OpenContainer const& container) {
    auto const first_value = values_.begin() + static_cast<std::ptrdiff_t>(container.first_value);
    auto const first_key = keys_.begin() + static_cast<std::ptrdiff_t>(container.first_key);
    Value::Object members;
    auto value = first_value;
    for (auto key = first_key; key != keys_.end(); ++key, ++value) {
        // Does nothing for a key that is there: the first of two equal keys wins.
        members.emplace(std::move(*key), std::move(*value));
    }
    values_.erase(first_value, values_.end());
    keys_.erase(first_key, keys_.end());
    values_.emplace_back(std::move(members));
}

void Parser::parse_key() {
    skip_white_space();
    keys_.push_back(parse_string());
    skip_white_space();
    expect(':');
}

std::string Parser::parse_string() {
    std::string value;
    expect('"');
    while (position_ < text_.size() && text_[position_] != '"') {
        if (text_[position_] == '\\' && position_ + 1 < text_.size()) {
            unescape_into(value);
        } else {
            value += text_[position_++];
        }
    }
    expect('"');
    return value;
}

void Parser::unescape_into(std::string& value) {
    char const escaped = text_[position_ + 1];
    position_ += 2;
    switch (escaped) {
    case 'n':
        value += '\n';
        break;
    case 'r':
        value += '\r';
        break;
    case 't':
        value += '\t';
        break;
    case 'u':
        position_ += 4; // dropped with its digits, whatever they are
        break;
    default:
        value += escaped;
    }
}

double Parser::parse_number() {
    std::size_t consumed = 0;
    double const number = to_double(text_.c_str() + position_, consumed);
    if (consumed == 0) {
        fail_at_offset("invalid value");
    }
    position_ += consumed;
    return number;
}

void Parser::skip_white_space() {
    while (position_ < text_.size() &&
           std::isspace(static_cast<unsigned char>(text_[position_])) != 0) {
        ++position_;
    }
}

bool Parser::step_over(char c) {
    if (!next_is(c)) {
        return false;
    }
    ++position_;
    return true;
}

bool Parser::step_over(std::string_view word) {
    if (text_.compare(position_, word.size(), word) != 0) {
        return false;
    }
    position_ += word.size();
    return true;
}

void Parser::expect(char c) {
    if (!step_over(c)) {
        fail_at_offset(std::string("expected '") + c + "'");
    }
}

void Parser::fail_at_offset(std::string const& what) const {
    throw std::invalid_argument("tiny_json: " + what + " at offset " + std::to_string(position_));
}

} // namespace

Value Value::parse(std::string const& text) {
    return Parser(text).parse_document();
}

} // namespace tessaron::json
