#include "tools/mirelpack/PayloadWriter.hpp"

#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "tools/mirelpack/PackError.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace mirelpack {

namespace {

constexpr std::size_t K_COPY_SIZE = 256 * 1024;
constexpr std::time_t K_LATEST_TIME = 077777777777; // eleven octal digits

std::vector<std::string> sorted_names(std::string const& folder) {
    std::unique_ptr<DIR, int (*)(DIR*)> const directory(opendir(folder.c_str()), closedir);
    if (!directory) {
        throw system_error("cannot list " + folder);
    }
    std::vector<std::string> names;
    errno = 0;
    while (dirent const* entry = readdir(directory.get())) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(std::move(name));
        }
    }
    if (errno != 0) {
        throw system_error("cannot list " + folder);
    }
    std::sort(names.begin(), names.end());
    return names;
}

PayloadIndex::Kind kind_of(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return PayloadIndex::Kind::File;
    case S_IFDIR:
        return PayloadIndex::Kind::Directory;
    default:
        return PayloadIndex::Kind::Other;
    }
}

std::string link_target(std::string const& path) {
    std::string target(PATH_MAX, '\0');
    ssize_t const size = readlink(path.c_str(), target.data(), target.size());
    if (size < 0) {
        throw system_error("cannot read the link " + path);
    }
    target.resize(static_cast<std::size_t>(size));
    return target;
}

} // namespace

PayloadWriter::PayloadWriter(int fd, Skip skip)
    : fd_(fd), skip_(std::move(skip)), buffer_(K_COPY_SIZE), progress_("mirelpack: packing", 0),
      owner_names_(archive_read_disk_new()), tar_(archive_write_new()) {
    archive_read_disk_set_standard_lookup(owner_names_.get());
    archive_write_set_format_gnutar(tar_.get());
    archive_write_set_bytes_per_block(tar_.get(), static_cast<int>(K_COPY_SIZE));
    archive_write_set_bytes_in_last_block(tar_.get(), 10240); // tar's own blocking
    if (archive_write_open(tar_.get(), this, nullptr, write_callback, nullptr) != ARCHIVE_OK) {
        throw PackError(std::string("cannot begin the payload: ") +
                        archive_error_string(tar_.get()));
    }
}

la_ssize_t PayloadWriter::write_callback(archive* handle, void* self, void const* bytes,
                                         std::size_t size) {
    auto* const writer = static_cast<PayloadWriter*>(self);
    if (!tessaron::write_all(writer->fd_, {static_cast<char const*>(bytes), size})) {
        archive_set_error(handle, errno, "cannot write the payload");
        return -1;
    }
    try {
        writer->digest_.update(bytes, size);
    } catch (PackError const& error) {
        archive_set_error(handle, EINVAL, "%s", error.what());
        return -1;
    }
    writer->size_ += size;
    writer->progress_.advance(size);
    return static_cast<la_ssize_t>(size);
}

void PayloadWriter::add_contents_of(std::string const& folder) {
    add_folder(folder, "");
}

void PayloadWriter::add_folder(std::string const& path, std::string const& member) {
    for (auto const& name : sorted_names(path)) {
        std::string const child = tessaron::fs_tools::join_path(path, name);
        if (!skip_(child)) {
            add(child, member.empty() ? name : member + "/" + name);
        }
    }
}

void PayloadWriter::add(std::string const& path, std::string const& member) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        throw system_error("cannot read " + path);
    }
    newest_ = std::max<std::time_t>(newest_, info.st_mtime);
    if (S_ISSOCK(info.st_mode)) {
        warnings_.push_back("left out " + path + ": a socket cannot be packed");
    } else if (S_ISLNK(info.st_mode)) {
        add_link(path, member, info);
    } else if (S_ISREG(info.st_mode)) {
        add_file(path, member);
    } else {
        index_.add(member, {kind_of(info.st_mode), info.st_mode, ""});
        write_header(describe(member + (S_ISDIR(info.st_mode) ? "/" : ""), info).get(), path);
        if (S_ISDIR(info.st_mode)) {
            add_folder(path, member);
        }
    }
}

void PayloadWriter::add_link(std::string const& path, std::string const& member,
                             struct stat const& info) {
    std::string const target = link_target(path);
    ArchiveEntry const entry = describe(member, info);
    archive_entry_copy_symlink(entry.get(), target.c_str());
    index_.add(member, {PayloadIndex::Kind::SymbolicLink, info.st_mode, target});
    write_header(entry.get(), path);
}

void PayloadWriter::add_file(std::string const& path, std::string const& member) {
    // What is opened is what is described, whatever the name comes to mean meanwhile.
    tessaron::UniqueFd const file = tessaron::open_file(path, O_RDONLY | O_NOFOLLOW);
    struct stat info {};
    if (!file.is_open() || fstat(file.get(), &info) != 0) {
        throw system_error("cannot read " + path);
    }
    ArchiveEntry const entry = describe(member, info);
    if (info.st_nlink > 1) {
        auto const [first, is_new] = hard_links_.try_emplace({info.st_dev, info.st_ino}, member);
        if (!is_new) {
            archive_entry_copy_hardlink(entry.get(), first->second.c_str());
            archive_entry_set_size(entry.get(), 0);
            index_.add(member, {PayloadIndex::Kind::HardLink, info.st_mode, first->second});
            write_header(entry.get(), path);
            return;
        }
    }
    index_.add(member, {PayloadIndex::Kind::File, info.st_mode, ""});
    write_header(entry.get(), path);
    copy_bytes(file.get(), static_cast<std::uint64_t>(info.st_size), path);
}

ArchiveEntry PayloadWriter::describe(std::string const& member, struct stat const& info) {
    ArchiveEntry entry(archive_entry_new());
    archive_entry_copy_pathname(entry.get(), member.c_str());
    archive_entry_set_mode(entry.get(), info.st_mode);
    archive_entry_set_uid(entry.get(), info.st_uid);
    archive_entry_set_gid(entry.get(), info.st_gid);
    archive_entry_copy_uname(entry.get(), archive_read_disk_uname(owner_names_.get(), info.st_uid));
    archive_entry_copy_gname(entry.get(), archive_read_disk_gname(owner_names_.get(), info.st_gid));
    archive_entry_set_mtime(entry.get(), std::clamp<std::time_t>(info.st_mtime, 0, K_LATEST_TIME),
                            0);
    if (S_ISREG(info.st_mode)) {
        archive_entry_set_size(entry.get(), info.st_size);
    }
    if (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) {
        archive_entry_set_rdev(entry.get(), info.st_rdev);
    }
    return entry;
}

void PayloadWriter::write_header(archive_entry* entry, std::string const& path) {
    if (archive_write_header(tar_.get(), entry) != ARCHIVE_OK) {
        throw PackError("cannot pack " + path + ": " + archive_error_string(tar_.get()));
    }
}

void PayloadWriter::copy_bytes(int fd, std::uint64_t size, std::string const& path) {
    while (size > 0) {
        auto const wanted = std::min<std::uint64_t>(size, buffer_.size());
        ssize_t const got = read(fd, buffer_.data(), static_cast<std::size_t>(wanted));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw system_error("cannot read " + path);
        }
        if (got == 0) {
            throw PackError(path + " became shorter while it was packed");
        }
        if (archive_write_data(tar_.get(), buffer_.data(), static_cast<std::size_t>(got)) != got) {
            throw PackError("cannot pack " + path + ": " + archive_error_string(tar_.get()));
        }
        size -= static_cast<std::uint64_t>(got);
    }
}

std::string PayloadWriter::finish() {
    if (archive_write_close(tar_.get()) != ARCHIVE_OK) {
        throw PackError(std::string("cannot end the payload: ") + archive_error_string(tar_.get()));
    }
    return digest_.finish();
}

} // namespace mirelpack
