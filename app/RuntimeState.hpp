#pragma once

#include <cstddef>
#include <string>

namespace tessaron {

/// What an application wants to find again beside its session records: a short text that tells what
/// it was at.
///
/// Thread safety: safe from any thread; `raw_dump_signal_safe` is async-signal-safe.
/// Errors: none reach the caller.
class IRuntimeState {
public:
    struct RawDump {
        char const* text = nullptr;
        std::size_t length = 0;
    };

    virtual ~IRuntimeState() = default;

    /// Also on any thread that logs an error, for the report of it: it takes no lock that is held
    /// while something is logged.
    virtual std::string dump_named() const = 0;
    virtual void save() = 0;
    /// A text that was prepared before: the state's memory as it stands.
    virtual RawDump raw_dump_signal_safe() const noexcept = 0;
};

namespace app_shell_detail {

/// For applications that have none; its file is never written.
class NoRuntime final : public IRuntimeState {
public:
    explicit NoRuntime(std::string const& /*path*/) {}

    std::string dump_named() const override { return {}; }
    void save() override {}
    RawDump raw_dump_signal_safe() const noexcept override { return {}; }
};

} // namespace app_shell_detail
} // namespace tessaron
