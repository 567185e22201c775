#include "package/registry_file.hpp"

#include "app/utilities/file_io.hpp"

#include <exception>

namespace tessaron::registry_file {

namespace {

json::Value to_json(PackageEntry const& entry) {
    return json::Value::Object{
        {"administratively_stopped", entry.administratively_stopped},
        {"arch", entry.arch},
        {"install_path", entry.install_path},
        {"launch_args", json::Value::Array(entry.launch_args.begin(), entry.launch_args.end())},
        {"manifest", entry.manifest},
        {"name", entry.name},
        {"version", entry.version},
    };
}

PackageEntry from_json(json::Value const& element) {
    PackageEntry entry;
    entry.name = element.at("name").as_string("");
    entry.version = element.at("version").as_string("");
    entry.arch = element.at("arch").as_string("");
    entry.install_path = element.at("install_path").as_string("");
    entry.manifest = element.at("manifest");
    entry.administratively_stopped = element.at("administratively_stopped").as_bool(false);
    json::Value const args = element.at("launch_args");
    for (json::Value const& arg : args.as_array()) {
        entry.launch_args.push_back(arg.as_string(""));
    }
    return entry;
}

} // namespace

std::string to_text(PackageEntries const& entries) {
    json::Value::Array array;
    array.reserve(entries.size());
    for (auto const& [name, entry] : entries) {
        array.push_back(to_json(entry));
    }
    return json::Value(std::move(array)).dump();
}

PackageEntries from_text(std::string const& text) {
    PackageEntries entries;
    try {
        json::Value const document = json::Value::parse(text);
        for (json::Value const& element : document.as_array()) {
            PackageEntry entry = from_json(element);
            std::string name = entry.name;
            entries.insert_or_assign(std::move(name), std::move(entry));
        }
    } catch (std::exception const&) {
        // A registry that cannot be read counts as what could be read of it; the next save
        // replaces it.
    }
    return entries;
}

PackageEntries load(std::string const& path) {
    return from_text(read_file(path).value_or(""));
}

bool save(std::string const& path, PackageEntries const& entries) {
    return replace_file_durably(path, to_text(entries));
}

} // namespace tessaron::registry_file
