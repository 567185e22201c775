#include "tools/mirelpack/PayloadIndex.hpp"

#include <deque>
#include <vector>

namespace mirelpack {

namespace {

constexpr int K_MAX_LINKS = 40; // as the kernel's own limit

std::vector<std::string> components_of(std::string_view path) {
    std::vector<std::string> parts;
    while (!path.empty()) {
        auto const slash = path.find('/');
        auto const part = path.substr(0, slash);
        if (!part.empty() && part != ".") {
            parts.emplace_back(part);
        }
        path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    }
    return parts;
}

std::string joined(std::vector<std::string> const& parts) {
    std::string path;
    for (auto const& part : parts) {
        path += path.empty() ? part : "/" + part;
    }
    return path;
}

} // namespace

std::optional<std::string> PayloadIndex::normal_path(std::string_view member) {
    if (member.starts_with('/')) {
        return std::nullopt;
    }
    auto const parts = components_of(member);
    for (auto const& part : parts) {
        if (part == "..") {
            return std::nullopt;
        }
    }
    return joined(parts);
}

void PayloadIndex::add(std::string const& path, Entry entry) {
    entries_.insert_or_assign(path, std::move(entry));
}

bool PayloadIndex::contains(std::string const& path) const {
    return entries_.contains(path);
}

std::optional<PayloadIndex::Entry> PayloadIndex::find_file(std::string const& path) const {
    if (path.starts_with('/')) {
        return std::nullopt;
    }
    auto const first = components_of(path);
    std::deque<std::string> ahead(first.begin(), first.end());
    std::vector<std::string> here;
    int links = 0;
    std::optional<Entry> found;
    while (!ahead.empty()) {
        std::string const part = ahead.front();
        ahead.pop_front();
        found.reset();
        if (part == "..") {
            if (here.empty()) {
                return std::nullopt;
            }
            here.pop_back();
            continue;
        }
        here.push_back(part);
        auto const entry = entries_.find(joined(here));
        if (entry == entries_.end()) {
            continue; // a folder that has no member of its own, or nothing at all
        }
        Entry const& known = entry->second;
        if (known.kind == Kind::SymbolicLink || known.kind == Kind::HardLink) {
            if (++links > K_MAX_LINKS || known.target.starts_with('/')) {
                return std::nullopt;
            }
            known.kind == Kind::HardLink ? here.clear() : here.pop_back();
            auto const target = components_of(known.target);
            ahead.insert(ahead.begin(), target.begin(), target.end());
        } else if (known.kind != Kind::Directory && !ahead.empty()) {
            return std::nullopt; // a path through a file
        } else {
            found = known;
        }
    }
    return found && found->kind == Kind::File ? found : std::nullopt;
}

} // namespace mirelpack
