#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tessaron::json {

/// The small JSON value of everything that speaks REST, manifests and registry documents.
///
/// It differs from strict JSON in ways its callers rely on: every number is a double, objects are
/// ordered maps whose first duplicate key wins, `\uXXXX` escapes are dropped, and numbers follow
/// the grammar of `std::stod` ("+1", "0x10" and "inf" parse). Accessors take a fallback and never
/// throw; `at` chains freely through missing members.
///
/// A value is immutable but for assignment. Arrays and objects are shared between copies, so a
/// copy costs a reference count whatever the size. Parsing, dumping and destroying use no stack in
/// proportion to the nesting depth: depth is bounded by memory alone.
///
/// Thread safety: distinct values from any thread, also when they share contents; one value one
/// thread at a time, the caller's duty.
/// Errors: only `parse` throws.
class Value {
public:
    using Array = std::vector<Value>;
    using Object = std::map<std::string, Value>;

    Value() noexcept = default;
    Value(std::nullptr_t) noexcept {}
    Value(bool value) noexcept : data_(value) {}
    Value(int value) noexcept : data_(static_cast<double>(value)) {}
    Value(double value) noexcept : data_(value) {}
    Value(char const* value) : data_(std::string(value)) {}
    Value(std::string value) noexcept : data_(std::move(value)) {}
    Value(Array items);
    Value(Object members);

    /// Throws `std::invalid_argument` ("tiny_json: ...") on bad text; a number's own conversion
    /// throws `std::invalid_argument` or `std::out_of_range` with the library's text.
    static Value parse(std::string const& text);

    /// Compact text: no white space, keys ascending, whole numbers without a fraction, other
    /// numbers with the 6 significant digits of a default stream.
    std::string dump() const;

    bool is_null() const noexcept;
    bool as_bool(bool fallback) const noexcept;
    double as_double(double fallback) const noexcept;
    std::string as_string(std::string fallback) const;
    /// A shared empty array for any other type; valid as long as this value is.
    Array const& as_array() const noexcept;
    /// A shared empty object for any other type; valid as long as this value is.
    Object const& as_object() const noexcept;
    /// The member, or null if the key is missing or this is not an object.
    Value at(std::string const& key) const;

private:
    class Writer; // dump(), in json_writer.cpp

    // Null only in a value that was moved from, which reads as an empty container; freed without
    // recursion (see json_value.cpp).
    using ArrayPtr = std::shared_ptr<Array const>;
    using ObjectPtr = std::shared_ptr<Object const>;

    std::variant<std::nullptr_t, bool, double, std::string, ArrayPtr, ObjectPtr> data_ = nullptr;
};

} // namespace tessaron::json
