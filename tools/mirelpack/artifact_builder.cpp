#include "tools/mirelpack/artifact_builder.hpp"

#include "app/utilities/fs_tools.hpp"
#include "app/utilities/json_value.hpp"
#include "tools/mirelpack/PackError.hpp"
#include "tools/mirelpack/PayloadWriter.hpp"
#include "tools/mirelpack/StagedFile.hpp"
#include "tools/mirelpack/artifact_format.hpp"
#include "tools/mirelpack/utf8.hpp"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace mirelpack {

namespace fs_tools = tessaron::fs_tools;
using tessaron::json::Value;

namespace {

constexpr std::size_t K_COPY_SIZE = 256 * 1024;

std::string canonical(std::string const& path) {
    std::error_code error;
    auto const real = std::filesystem::canonical(path, error);
    if (error) {
        throw PackError(path + ": " + error.message());
    }
    return real.string();
}

void check_request(BuildRequest const& request) {
    if (!std::filesystem::is_directory(request.folder)) {
        throw PackError(request.folder + " is not a directory");
    }
    auto const executable = PayloadIndex::normal_path(request.executable);
    if (!executable || executable->empty()) {
        throw PackError("the executable must be a path inside " + request.folder +
                        ", relative to it and without \"..\": " + request.executable);
    }
    if (!is_utf8(request.executable) || !is_utf8(request.description)) {
        throw PackError("the executable and the description must be UTF-8 text, as the manifest "
                        "that holds them is");
    }
    for (char const* name : {K_MANIFEST_NAME, K_PAYLOAD_NAME}) {
        if (fs_tools::path_exists(fs_tools::join_path(request.folder, name))) {
            throw PackError(request.folder + " holds a file " + name +
                            " at its top, where the installer keeps its own");
        }
    }
}

void check_executable(PayloadIndex const& index, BuildRequest const& request) {
    auto const program = index.find_file(request.executable);
    if (!program) {
        throw PackError("the executable " + request.executable +
                        " is not a file (or a link to one) inside " + request.folder);
    }
    if ((program->mode & K_EXECUTE_BITS) == 0) {
        throw PackError("the executable " + request.executable +
                        " may not be executed; chmod +x it first");
    }
}

la_ssize_t write_to_fd(archive* handle, void* fd, void const* bytes, std::size_t size) {
    if (!tessaron::write_all(*static_cast<int*>(fd), {static_cast<char const*>(bytes), size})) {
        archive_set_error(handle, errno, "write failed");
        return -1;
    }
    return static_cast<la_ssize_t>(size);
}

/// The outer, compressed tar.
class OuterWriter {
public:
    OuterWriter(int fd, std::time_t time) : fd_(fd), time_(time), tar_(archive_write_new()) {
        archive_write_set_format_gnutar(tar_.get());
        archive_write_add_filter_gzip(tar_.get());
        check(archive_write_set_filter_option(tar_.get(), "gzip", "compression-level", "6"));
        check(archive_write_set_filter_option(tar_.get(), "gzip", "timestamp", nullptr));
        archive_write_set_bytes_in_last_block(tar_.get(), 1);
        check(archive_write_open(tar_.get(), &fd_, nullptr, write_to_fd, nullptr));
    }

    void begin_member(char const* name, std::uint64_t size) {
        ArchiveEntry const entry(archive_entry_new());
        archive_entry_set_pathname(entry.get(), name);
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0644);
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(size));
        archive_entry_set_mtime(entry.get(), time_, 0);
        check(archive_write_header(tar_.get(), entry.get()));
    }
    void add(std::string_view bytes) {
        if (archive_write_data(tar_.get(), bytes.data(), bytes.size()) !=
            static_cast<la_ssize_t>(bytes.size())) {
            check(ARCHIVE_FATAL);
        }
    }
    void finish() { check(archive_write_close(tar_.get())); }

private:
    void check(int result) {
        if (result != ARCHIVE_OK) {
            throw PackError(std::string("cannot write the artifact: ") +
                            archive_error_string(tar_.get()));
        }
    }

    int fd_;
    std::time_t time_;
    WriteArchive tar_;
};

void copy_payload(int fd, std::uint64_t size, OuterWriter& outer) {
    Progress progress("mirelpack: compressing", size);
    std::vector<char> buffer(K_COPY_SIZE);
    for (std::uint64_t offset = 0; offset < size;) {
        ssize_t const got = pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(offset));
        if (got <= 0) {
            throw system_error("cannot read the payload back");
        }
        outer.add({buffer.data(), static_cast<std::size_t>(got)});
        offset += static_cast<std::uint64_t>(got);
        progress.advance(static_cast<std::uint64_t>(got));
    }
}

} // namespace

BuildResult build_artifact(BuildRequest const& request) {
    check_request(request);
    std::string const output_folder = canonical(fs_tools::dir_name(request.output));
    std::string const output =
        fs_tools::join_path(output_folder, fs_tools::file_name(request.output));
    if (fs_tools::is_dir(output)) {
        throw PackError(request.output + " is a directory");
    }
    // An artifact that is written into its own folder stays out of itself.
    std::string const staged_prefix =
        fs_tools::join_path(output_folder, std::string(StagedFile::K_PREFIX));
    auto const skip = [&](std::string const& path) {
        return path == output || path.starts_with(staged_prefix);
    };

    StagedFile const payload(output_folder);
    PayloadWriter writer(payload.fd(), skip);
    writer.add_contents_of(canonical(request.folder));
    BuildResult const result{writer.finish(), writer.warnings()};
    check_executable(writer.index(), request);

    Value::Object manifest{{"executable", *PayloadIndex::normal_path(request.executable)},
                           {"sha256", result.sha256}};
    if (!request.description.empty()) {
        manifest["description"] = request.description;
    }
    std::string const manifest_text = Value(std::move(manifest)).dump();

    StagedFile artifact(output_folder);
    OuterWriter outer(artifact.fd(), std::max<std::time_t>(writer.newest(), 1));
    outer.begin_member(K_MANIFEST_NAME, manifest_text.size());
    outer.add(manifest_text);
    outer.begin_member(K_PAYLOAD_NAME, writer.size());
    copy_payload(payload.fd(), writer.size(), outer);
    outer.finish();
    artifact.commit(output);
    return result;
}

} // namespace mirelpack
