#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

namespace tessaron::test {

/// Gives an environment variable a value, or takes it away, for as long as it lives.
class EnvironmentVariable {
public:
    EnvironmentVariable(std::string name, std::optional<std::string> const& value)
        : name_(std::move(name)) {
        if (char const* const former = std::getenv(name_.c_str()); former != nullptr) {
            former_ = former;
        }
        set(value);
    }
    ~EnvironmentVariable() { set(former_); }
    EnvironmentVariable(EnvironmentVariable const&) = delete;
    EnvironmentVariable& operator=(EnvironmentVariable const&) = delete;

    void set(std::optional<std::string> const& value) {
        if (value.has_value()) {
            setenv(name_.c_str(), value->c_str(), 1);
        } else {
            unsetenv(name_.c_str());
        }
    }

private:
    std::string const name_;
    std::optional<std::string> former_;
};

} // namespace tessaron::test
