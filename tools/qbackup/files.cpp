// SPDX-License-Identifier: GPL-2.0-only
#include "files.h"

#include "failure.h"

#include <xxhash.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace qbackup
{
namespace
{

[[noreturn]] void fail(const fs::path& path, const char* what, int number)
{
    throw Failure{exitOf(number), std::string{"cannot "} + what + " " + path.string() + ": " + errnoText(number) + spaceAdvice(number)};
}

// Who may not look for a name may not search the directory.
[[noreturn]] void failToLook(const fs::path& path, int number)
{
    number == EACCES ? fail(path.has_parent_path() ? path.parent_path() : ".", "read the directory", number) : fail(path, "look for", number);
}

} // namespace

std::string spaceAdvice(int number)
{
    return number == ENOSPC || number == EDQUOT ? ". Free some space there, or choose another target, and run the command again" : "";
}

File::File(fs::path path, int flags, unsigned mode) : path_{std::move(path)}
{
    do
        fd_.reset(::open(path_.c_str(), flags | O_CLOEXEC, mode));
    while (!fd_ && errno == EINTR);
    if (!fd_)
        fail(path_, "open", errno);
}

void File::writeAt(std::uint64_t offset, std::span<const std::byte> bytes) const
{
    while (!bytes.empty()) {
        const ssize_t done = ::pwrite(fd_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            fail(path_, "write", done == 0 ? ENOSPC : errno);
        bytes = bytes.subspan(static_cast<std::size_t>(done));
        offset += static_cast<std::uint64_t>(done);
    }
}

void File::readAt(std::uint64_t offset, std::span<std::byte> bytes) const
{
    while (!bytes.empty()) {
        const ssize_t done = ::pread(fd_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done < 0)
            fail(path_, "read", errno);
        if (done == 0)
            throw Failure{Exit::damaged, path_.string() + " ends too early, at byte " + std::to_string(offset)};
        bytes = bytes.subspan(static_cast<std::size_t>(done));
        offset += static_cast<std::uint64_t>(done);
    }
}

std::uint64_t File::size() const
{
    struct stat st {
    };
    if (::fstat(fd_.get(), &st) != 0)
        fail(path_, "stat", errno);
    return static_cast<std::uint64_t>(st.st_size);
}

void File::truncate(std::uint64_t bytes) const
{
    if (::ftruncate(fd_.get(), static_cast<off_t>(bytes)) != 0)
        fail(path_, "set the size of", errno);
}

void File::sync() const
{
    if (::fsync(fd_.get()) != 0)
        fail(path_, "make durable", errno);
}

void File::close()
{
    if (fd_ && ::close(fd_.release()) != 0)
        fail(path_, "close", errno);
}

std::vector<fs::path> entriesOf(const fs::path& directory)
{
    std::error_code error;
    std::vector<fs::path> entries;
    for (fs::directory_iterator entry{directory, error}, end; !error && entry != end; entry.increment(error))
        entries.push_back(entry->path());
    if (error)
        fail(directory, "read the directory", error.value());
    std::sort(entries.begin(), entries.end());
    return entries;
}

void moveFile(const fs::path& from, const fs::path& to)
{
    std::error_code error;
    fs::rename(from, to, error);
    if (error)
        fail(from, ("give the name " + to.filename().string() + " to").c_str(), error.value());
}

bool makeDirectory(const fs::path& path)
{
    std::error_code error;
    const bool made = fs::create_directory(path, error);
    if (error)
        throw Failure{exitOf(error.value(), Exit::refused), "cannot create " + path.string() + ": " + error.message() + spaceAdvice(error.value())};
    return made;
}

bool removeFile(const fs::path& path)
{
    std::error_code error;
    const bool removed = fs::remove(path, error);
    if (error)
        fail(path, "remove", error.value());
    return removed;
}

void syncDirectory(const fs::path& directory) { File{directory, O_RDONLY | O_DIRECTORY}.sync(); }

bool isPresent(const fs::path& path)
{
    struct stat st {
    };
    if (::lstat(path.c_str(), &st) == 0)
        return true;
    if (errno != ENOENT && errno != ENOTDIR)
        failToLook(path, errno);
    return false;
}

fs::file_type typeOf(const fs::path& path)
{
    std::error_code error;
    const fs::file_type type = fs::status(path, error).type();
    if (type == fs::file_type::not_found || error == std::errc::too_many_symbolic_link_levels)
        return fs::file_type::not_found;
    if (error)
        failToLook(path, error.value());
    return type;
}

void writeDurably(const fs::path& path, std::span<const std::byte> bytes)
{
    File file{path, O_WRONLY | O_CREAT | O_EXCL};
    try {
        file.writeAt(0, bytes);
        file.sync();
        file.close();
    } catch (...) {
        std::error_code error;
        fs::remove(path, error);
        throw;
    }
}

std::string readText(const fs::path& path)
{
    const File file{path, O_RDONLY};
    std::string text(file.size(), '\0');
    file.readAt(0, std::as_writable_bytes(std::span{text}));
    return text;
}

std::span<const std::byte> asBytes(const std::string& text) { return std::as_bytes(std::span{text}); }

std::string hashText(std::span<const std::byte> bytes)
{
    const XXH128_hash_t hash = XXH3_128bits(bytes.data(), bytes.size());
    char text[33];
    std::snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(hash.high64),
                  static_cast<unsigned long long>(hash.low64));
    return text;
}

std::string formatBytes(std::uint64_t bytes)
{
    constexpr const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    double value = static_cast<double>(bytes);
    unsigned unit = 0;
    while (value >= 1024 && unit + 1 < std::size(units)) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
    return text;
}

} // namespace qbackup
