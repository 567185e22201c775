#include "app/utilities/json_value.hpp"

namespace tessaron::json {
namespace {

/// A container on the heap that knows how to wait for its turn to be freed.
struct Container {
    Container() = default;
    Container(Container const&) = delete;
    Container& operator=(Container const&) = delete;
    virtual ~Container() = default;

    Container* next_dying = nullptr;
};

template <typename Contents>
struct ContainerOf final : Container {
    explicit ContainerOf(Contents&& value) : contents(std::move(value)) {}

    Contents contents;
};

// Trivially destructible, so that values may die as late as in another thread-local's destructor.
thread_local Container* t_first_dying = nullptr;
thread_local bool t_draining = false;

/// Frees a container, and all that dies with it, in a loop: while one is being freed, those inside
/// it that lose their last owner only queue up. Recursion would let a deeply nested document
/// overflow the stack.
struct FreeInLoop {
    void operator()(Container* container) const noexcept {
        container->next_dying = std::exchange(t_first_dying, container);
        if (t_draining) {
            return;
        }
        t_draining = true;
        while (t_first_dying != nullptr) {
            Container* const dying = t_first_dying;
            t_first_dying = dying->next_dying;
            delete dying;
        }
        t_draining = false;
    }
};

template <typename Contents>
std::shared_ptr<Contents const> share(Contents&& contents) {
    auto* const container = new ContainerOf<Contents>(std::move(contents));
    std::shared_ptr<Container> const owner(container, FreeInLoop());
    return std::shared_ptr<Contents const>(owner, &container->contents);
}

} // namespace

Value::Value(Array items) : data_(share(std::move(items))) {
}

Value::Value(Object members) : data_(share(std::move(members))) {
}

bool Value::is_null() const noexcept {
    return std::holds_alternative<std::nullptr_t>(data_);
}

bool Value::as_bool(bool fallback) const noexcept {
    bool const* const value = std::get_if<bool>(&data_);
    return value != nullptr ? *value : fallback;
}

double Value::as_double(double fallback) const noexcept {
    double const* const value = std::get_if<double>(&data_);
    return value != nullptr ? *value : fallback;
}

std::string Value::as_string(std::string fallback) const {
    std::string const* const value = std::get_if<std::string>(&data_);
    if (value != nullptr) {
        return *value;
    }
    return fallback;
}

Value::Array const& Value::as_array() const noexcept {
    static Array const s_empty;
    ArrayPtr const* const items = std::get_if<ArrayPtr>(&data_);
    return items != nullptr && *items != nullptr ? **items : s_empty;
}

Value::Object const& Value::as_object() const noexcept {
    static Object const s_empty;
    ObjectPtr const* const members = std::get_if<ObjectPtr>(&data_);
    return members != nullptr && *members != nullptr ? **members : s_empty;
}

Value Value::at(std::string const& key) const {
    Object const& members = as_object();
    auto const found = members.find(key);
    return found != members.end() ? found->second : Value();
}

} // namespace tessaron::json
