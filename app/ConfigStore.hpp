#pragma once

#include "app/Config.hpp"
#include "app/IConfigCodec.hpp"
#include "app/config_envelopes.hpp"
#include "bus/IHub.hpp"
#include "bus/LocalClient.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tessaron::config {

/// What the last load of a configuration file found.
struct LoadReport {
    enum class Status {
        none,    ///< No path set.
        created, ///< The file could not be opened; the defaults hold.
        loaded,  ///< Read without an issue.
        healed,  ///< Read, with at least one issue.
    };

    Status status = Status::none;
    std::string path;
    std::vector<DecodeIssue> issues;
};

/// The configuration of one application: one value per field, loaded from a file, healed rather
/// than refused, written back at once, and changed field by field with a line in a history.
///
/// The file is rewritten in place at every `set_path` and every successful `set_field`; it is read
/// once, so a change by hand takes effect at the next start. What cannot be written stays in
/// memory without a report.
///
/// On the bus, whoever likes may list the fields ("list") and set them ("set").
///
/// Ownership: the codec must outlive the store, the hub the time between `listen_on_bus` and
/// `leave_bus`.
/// Thread safety: safe from any thread; one internal lock. `set_field` is not one atomic step: of
/// two concurrent calls both succeed and the last write wins. `listen_on_bus` and `leave_bus` on
/// one thread, the caller's duty.
/// Errors: a name that is not in the list throws `std::out_of_range`.
class ConfigStoreBase {
public:
    template <typename... Specs>
    ConfigStoreBase(std::tuple<Specs...> const& specs, IConfigCodec const& codec,
                    std::string const& path)
        : config_(specs), codec_(codec) {
        if (!path.empty()) {
            set_path(path);
        }
    }

    /// Loads `path`, then rewrites it healed.
    void set_path(std::string const& path) TESSARON_EXCLUDES(mutex_);
    void save() TESSARON_EXCLUDES(mutex_);

    template <typename T>
    T get(std::string const& name) const TESSARON_EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return config_.get<T>(name);
    }
    std::string as_str(FieldSpec<char const*> const& spec) const {
        return get<std::string>(spec.name);
    }
    long long as_int(FieldSpec<long long> const& spec) const { return get<long long>(spec.name); }

    Config snapshot() const TESSARON_EXCLUDES(mutex_);
    LoadReport last_load_report() const TESSARON_EXCLUDES(mutex_);

    /// Sets a field from its text form, saves, and appends to the history if the text changed.
    /// Returns ok and, when not ok, the reason; nothing is changed then.
    [[nodiscard]] std::pair<bool, std::string> set_field(std::string const& name,
                                                         std::string const& value_text)
        TESSARON_EXCLUDES(mutex_);

    /// Parses `value_text` as the type of `default_value` and stores it, without saving. Throws a
    /// standard exception on text that is no such value.
    void set_field_from_variant(std::string const& name, std::string const& value_text,
                                FieldDefault const& default_value) TESSARON_EXCLUDES(mutex_);

    /// "config_history.log" beside the file; empty when there is no file.
    std::string config_history_path() const TESSARON_EXCLUDES(mutex_);

    /// Answers requests from now on, as a node of its own at that address.
    void listen_on_bus(bus::IHub& hub, proto::bus::NodeIdentity const& identity,
                       std::uint32_t address);
    /// Returns when no request is being answered and none will be.
    void leave_bus() { bus_client_.reset(); }

private:
    void load_locked() TESSARON_REQUIRES(mutex_);
    void save_locked() TESSARON_REQUIRES(mutex_);
    void record_change(std::string const& name, std::string const& old_text,
                       std::string const& new_text) TESSARON_EXCLUDES(mutex_);
    ConfigSetReply set(proto::bus::Bytes const& payload);

    mutable Mutex mutex_;
    Config config_ TESSARON_GUARDED_BY(mutex_);
    IConfigCodec const& codec_;
    std::string path_ TESSARON_GUARDED_BY(mutex_);
    LoadReport report_ TESSARON_GUARDED_BY(mutex_);
    std::shared_ptr<bus::LocalClient> bus_client_; ///< Last: its handlers use all of the above.
};

/// The store under its public name. `BufferSize` is the size in bytes of each of the two buffers
/// of the bus node that a store owns where the process has no shared one.
template <std::size_t BufferSize>
class ConfigStore : public ConfigStoreBase {
public:
    using ConfigStoreBase::ConfigStoreBase;
};

} // namespace tessaron::config
