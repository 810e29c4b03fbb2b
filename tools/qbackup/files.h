/* SPDX-License-Identifier: GPL-2.0-only */
// Files with errors that name the file: open, write, read whole, make durable.
#pragma once

#include "base/descriptor.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace qbackup
{

namespace fs = std::filesystem;

class File
{
  public:
    File() noexcept = default;
    // open(2) with O_CLOEXEC added. Throws Failure.
    File(fs::path path, int flags, unsigned mode = 0640);

    int fd() const noexcept { return fd_.get(); }
    const fs::path& path() const noexcept { return path_; }
    void writeAt(std::uint64_t offset, std::span<const std::byte> bytes) const;
    // Reads exactly bytes.size() bytes; fewer is a Failure (damaged).
    void readAt(std::uint64_t offset, std::span<std::byte> bytes) const;
    std::uint64_t size() const;
    void truncate(std::uint64_t bytes) const;
    void sync() const;
    void close();

  private:
    base::Descriptor fd_;
    fs::path path_;
};

// Whether there is something of that name. Unlike the library's it does not take an error for a no. Throws Failure.
bool isPresent(const fs::path& path);
// What the name leads to, with not_found for nothing. Throws Failure when that cannot be told, as on a disk that fails.
fs::file_type typeOf(const fs::path& path);
// What is in a directory, by name. Throws Failure.
std::vector<fs::path> entriesOf(const fs::path& directory);
// As the library's, with a Failure that says what happened to what. Of the last two: whether something was made, removed.
void moveFile(const fs::path& from, const fs::path& to);
bool makeDirectory(const fs::path& path);
bool removeFile(const fs::path& path);
// What to do when an error means that there is no space; else empty.
std::string spaceAdvice(int number);
// Makes the names in a directory durable.
void syncDirectory(const fs::path& directory);
// A new file that is on the disk when this returns; its name is not. It is gone if that fails.
void writeDurably(const fs::path& path, std::span<const std::byte> bytes);
std::string readText(const fs::path& path);
std::span<const std::byte> asBytes(const std::string& text);

// The XXH3-128 hash of the bytes, as 32 hexadecimal digits.
std::string hashText(std::span<const std::byte> bytes);

std::string formatBytes(std::uint64_t bytes);

} // namespace qbackup
