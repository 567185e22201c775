#include "tools/mirelpack/artifact_inspector.hpp"

#include "tools/mirelpack/GzipReader.hpp"
#include "tools/mirelpack/PackError.hpp"
#include "tools/mirelpack/PayloadIndex.hpp"
#include "tools/mirelpack/Progress.hpp"
#include "tools/mirelpack/Sha256.hpp"
#include "tools/mirelpack/TarReader.hpp"
#include "tools/mirelpack/artifact_format.hpp"
#include "tools/mirelpack/utf8.hpp"

#include <optional>

namespace mirelpack {

using tessaron::json::Value;

namespace {

constexpr std::size_t K_MAX_MANIFEST_SIZE = 1024 * 1024;

PayloadIndex::Entry index_entry(TarMember const& member) {
    using Kind = PayloadIndex::Kind;
    if (member.is_hard_link) {
        return {Kind::HardLink, member.mode, member.link_target};
    }
    switch (member.type) {
    case AE_IFREG:
        return {Kind::File, member.mode, ""};
    case AE_IFDIR:
        return {Kind::Directory, member.mode, ""};
    case AE_IFLNK:
        return {Kind::SymbolicLink, member.mode, member.link_target};
    default:
        return {Kind::Other, member.mode, ""};
    }
}

class Inspector {
public:
    explicit Inspector(std::string const& path)
        : gzip_(path), progress_("mirelpack: checking", 0) {}

    ArtifactFacts run() {
        TarReader outer([this](std::span<char> out) { return gzip_.read(out); });
        while (auto const member = outer.next()) {
            read_outer_member(outer, *member);
        }
        drain_gzip();
        return conclude();
    }

private:
    void read_outer_member(TarReader& outer, TarMember const& member) {
        auto const name = PayloadIndex::normal_path(member.path);
        if (name && name->empty() && member.type == AE_IFDIR) {
            return; // "./", as a tar made with "-C folder ." has it
        }
        bool const is_file = member.type == AE_IFREG && !member.is_hard_link;
        if (name == K_MANIFEST_NAME && is_file && !manifest_text_) {
            read_manifest(outer);
        } else if (name == K_PAYLOAD_NAME && is_file && !payload_seen_) {
            payload_seen_ = true;
            read_payload(outer);
        } else {
            throw PackError("unexpected member \"" + member.path +
                            "\" (an artifact holds one file "
                            "manifest.json and one file payload.tar, nothing else)");
        }
    }

    void read_manifest(TarReader& outer) {
        std::string& text = manifest_text_.emplace();
        std::vector<char> buffer(64 * 1024);
        while (std::size_t const size = outer.read_data(buffer)) {
            text.append(buffer.data(), size);
            if (text.size() > K_MAX_MANIFEST_SIZE) {
                throw PackError("manifest.json is larger than 1 MiB");
            }
        }
    }

    void read_payload(TarReader& outer) {
        auto const source = [&](std::span<char> out) {
            std::size_t const size = outer.read_data(out);
            digest_.update(out.data(), size);
            facts_.payload_size += size;
            progress_.advance(size);
            return size;
        };
        try {
            TarReader payload(source);
            while (auto const member = payload.next()) {
                read_payload_member(*member);
            }
        } catch (TarError const& error) {
            throw PackError(std::string("payload.tar is damaged or not a plain tar: ") +
                            error.what());
        }
        // Whatever follows the end of the inner tar belongs to the digest too.
        std::vector<char> rest(64 * 1024);
        while (source(rest) > 0) {
        }
    }

    void read_payload_member(TarMember const& member) {
        auto const name = PayloadIndex::normal_path(member.path);
        if (!name) {
            throw PackError("payload.tar holds \"" + member.path +
                            "\", which lies outside of the install path");
        }
        if (*name == K_MANIFEST_NAME || *name == K_PAYLOAD_NAME) {
            throw PackError("payload.tar holds \"" + member.path +
                            "\", which would replace the installer's own file");
        }
        if (member.type != AE_IFDIR) {
            ++facts_.file_count;
        }
        index_.add(*name, index_entry(member));
    }

    void drain_gzip() {
        std::vector<char> rest(64 * 1024);
        while (gzip_.read(rest) > 0) {
        }
    }

    ArtifactFacts conclude() {
        if (!manifest_text_) {
            throw PackError("no manifest.json in it");
        }
        if (!payload_seen_) {
            throw PackError("no payload.tar in it");
        }
        parse_manifest();
        std::string const actual = digest_.finish();
        if (facts_.sha256.empty()) {
            throw PackError("manifest.json has no \"sha256\" of the payload");
        }
        if (facts_.sha256 != actual) {
            throw PackError("the payload's SHA-256 is " + actual + ", but manifest.json says " +
                            facts_.sha256);
        }
        check_executable();
        facts_.has_install_script = index_.find_file(K_INSTALL_SCRIPT).has_value();
        facts_.has_uninstall_script = index_.find_file(K_UNINSTALL_SCRIPT).has_value();
        return std::move(facts_);
    }

    void parse_manifest() {
        if (!is_utf8(*manifest_text_)) {
            throw PackError("manifest.json is not UTF-8 text");
        }
        try {
            facts_.manifest = Value::parse(*manifest_text_);
        } catch (std::exception const& error) {
            throw PackError(std::string("malformed manifest.json: ") + error.what());
        }
        if (facts_.manifest.as_object().empty()) {
            throw PackError("manifest.json is not a JSON object with members");
        }
        facts_.executable = facts_.manifest.at("executable").as_string("");
        facts_.description = facts_.manifest.at("description").as_string("");
        facts_.sha256 = facts_.manifest.at("sha256").as_string("");
    }

    void check_executable() {
        if (facts_.executable.empty()) {
            throw PackError("manifest.json names no \"executable\"");
        }
        auto const program = index_.find_file(facts_.executable);
        if (!program) {
            throw PackError("the executable \"" + facts_.executable +
                            "\" is not a file in the payload");
        }
        if ((program->mode & K_EXECUTE_BITS) == 0) {
            facts_.warnings.push_back("the executable \"" + facts_.executable +
                                      "\" has no execute bit");
        }
    }

    GzipReader gzip_;
    Progress progress_;
    Sha256 digest_;
    PayloadIndex index_;
    std::optional<std::string> manifest_text_;
    bool payload_seen_ = false;
    ArtifactFacts facts_;
};

} // namespace

ArtifactFacts inspect_artifact(std::string const& path, std::string const& called) {
    try {
        return Inspector(path).run();
    } catch (PackError const& error) {
        throw PackError(called + ": " + error.what());
    }
}

} // namespace mirelpack
