/* SPDX-License-Identifier: GPL-2.0-only */
// qcow2 image files, made, written and read by QEMU's own programs: qemu-img, and a qemu-nbd for each open file that is
// a child of this process, serves this process alone and ends with it.
//
// An image is opened without the one below it, so that nothing is read or copied from there, and opening costs the same
// whatever the chain.
#pragma once

#include "files.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct nbd_handle;

namespace qbackup
{

class ChildProcess;

// A write is at most this long, and so is a read.
constexpr std::uint32_t image_piece_bytes = 1u << 20;
// What an image keeps apart: smaller writes would have QEMU read and copy around them.
constexpr std::uint32_t image_granule_bytes = 4096;
// What is compressed in one piece, and has to be written in one.
constexpr std::uint32_t image_cluster_bytes = 128u << 10;

// Throws Failure (refused) when a program that this needs is not installed.
void requireQemu();

// Throws Failure (refused) when QEMU could not be told of the path.
void expectUtf8(const fs::path& path);

// A new image of that many bytes. `below`: the name of the image that it lies over, in the same directory; empty: none.
void createImage(const fs::path& path, std::uint64_t bytes, const std::string& below);
// A new image for compressed data. Until endCompressed() its size is that of its last cluster's end, as QEMU takes nothing
// else to compress into.
void createCompressed(const fs::path& path, std::uint64_t bytes);
// Gives it that many bytes, as it was created for. It may not be open. Throws Failure.
void endCompressed(const fs::path& path, std::uint64_t bytes);

// The name in the image's header of the one below it; empty: there is none. Throws Failure.
std::string nameBelow(const fs::path& image);

// What QEMU is told to open: `path`, over those in `below`, the nearest first; with none of them nothing is below,
// whatever the file says.
std::string imageChain(const fs::path& path, std::span<const fs::path> below = {});

// An open image: the child and the connection to it.
class OpenImage
{
  public:
    // `compressing`: whole clusters are written, each once.
    enum class For { writing, compressing, reading };
    // `below`: the images that it is read over, the nearest first; none: nothing is. Throws Failure that has QEMU's own
    // words.
    OpenImage(const fs::path& path, For what, std::span<const fs::path> below = {});
    // Whatever was not finished is cut off.
    ~OpenImage();
    OpenImage(const OpenImage&) = delete;
    OpenImage& operator=(const OpenImage&) = delete;

    // Of the three that follow, `data` has to stay until the request is over, which wait() tells of. A number that
    // stands for the request.
    std::int64_t write(std::uint64_t offset, std::span<const std::byte> data);
    std::int64_t zero(std::uint64_t offset, std::uint64_t bytes);
    std::int64_t read(std::uint64_t offset, std::span<std::byte> data);
    // Until the request is over. Throws Failure when it failed.
    void wait(std::int64_t request);
    // Until whatever was written is on the disk.
    void flush();
    // Ends the child and sees that it ended well. Nothing may be asked after.
    void finish();

    std::uint64_t size();
    struct Part {
        std::uint64_t offset;
        std::uint64_t bytes;
    };
    struct Layout {
        std::vector<Part> own;   // what the image holds itself, be it data or zeros
        std::vector<Part> zeros; // what is known to read as zeros; more may
    };
    // Both in ascending order, parts that touch as one. Only of one open for reading.
    Layout layout();

  private:
    [[noreturn]] void fail(const std::string& doing);

    fs::path path_;
    For what_;
    std::unique_ptr<ChildProcess> child_;
    nbd_handle* nbd_ = nullptr;
};

} // namespace qbackup
