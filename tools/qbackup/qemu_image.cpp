// SPDX-License-Identifier: GPL-2.0-only
#include "qemu_image.h"

#include "child_process.h"
#include "failure.h"
#include "unix_socket.h"

#include <libnbd.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <thread>
#include <utility>

namespace qbackup
{
namespace
{

using nlohmann::json;

constexpr const char* package = "qemu-utils";
// Of each image in a chain; with QEMU's own default a long chain on a large disk would take hundreds of MiB.
constexpr std::uint32_t table_cache_bytes = 512u << 10;
constexpr std::uint64_t sector_bytes = 512; // QEMU knows no smaller sizes
constexpr const char* own_context = "qemu:allocation-depth";
constexpr const char* zero_context = LIBNBD_CONTEXT_BASE_ALLOCATION;
// Of one request; QEMU's limit is higher.
constexpr std::uint64_t most_zero_bytes = 1ULL << 30;

// How QEMU gets at the file; the first way that works here is taken. Never one that forgets flushes.
struct Way {
    bool direct;
    const char* aio;
};
constexpr Way ways[] = {{true, "io_uring"}, {true, "native"}, {false, "threads"}};
std::atomic<std::size_t> first_way{0}; // those before it have failed in this process

json fileNode(const fs::path& path, const Way& way)
{
    expectUtf8(path);
    return {{"driver", "file"}, {"filename", path.string()}, {"aio", way.aio}, {"cache", {{"direct", way.direct}}}};
}

json imageNode(const fs::path& path, std::span<const fs::path> below, const Way& way)
{
    json chain = nullptr;
    for (std::size_t i = below.size() + 1; i-- > 0;)
        chain = {{"driver", "qcow2"},
                 {"file", fileNode(fs::absolute(i == 0 ? path : below[i - 1]), way)},
                 {"cache", {{"direct", way.direct}}},
                 {"l2-cache-size", table_cache_bytes},
                 {"refcount-cache-size", table_cache_bytes},
                 {"backing", std::move(chain)}};
    return chain;
}

bool canBypassCache(const fs::path& path)
{
    const base::Descriptor fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECT)};
    return static_cast<bool>(fd);
}

struct Sockets {
    base::Descriptor listening;
    base::Descriptor connected;
};

// What has been sent waits here, so that QEMU always has the next request while this process reads and hashes. As much of
// it as is allowed: more than the system's limit only for root.
void enlargeSendBuffer(int socket)
{
    const int bytes = 8 << 20;
    if (::setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0)
        ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

// A listening socket with this process at its other end already. Its name, in a directory that nobody else can enter, is
// gone when this returns: nobody else gets in.
Sockets socketsForChild()
{
    std::string directory = (fs::temp_directory_path() / "qbackup-XXXXXX").string();
    if (::mkdtemp(directory.data()) == nullptr)
        throw Failure{Exit::failed, "cannot make a directory for a socket in " + fs::temp_directory_path().string() + ": " +
                                        errnoText(errno)};
    const auto gone = [&] {
        ::unlink((directory + "/s").c_str());
        ::rmdir(directory.c_str());
    };
    try {
        Sockets sockets{listenOn(directory + "/s"), connectTo(directory + "/s")};
        if (!sockets.connected)
            throw Failure{Exit::failed, "cannot connect to a socket in " + directory + ": " + errnoText(errno)};
        enlargeSendBuffer(sockets.connected.get());
        gone();
        return sockets;
    } catch (...) {
        gone();
        throw;
    }
}

// It has a buffer of a mebibyte for each request, and would get new memory from the system for each: more than half of the
// processor's time that writing an image takes.
const std::vector<std::string> keeping_memory{"env", "MALLOC_MMAP_THRESHOLD_=8388608", "MALLOC_TRIM_THRESHOLD_=67108864", "MALLOC_TOP_PAD_=16777216"};

void waitForEnd(ChildProcess& child)
{
    for (int waits = 0; waits < 100 && child.running(); ++waits)
        std::this_thread::sleep_for(std::chrono::milliseconds{20});
}

std::uint64_t roundedUp(std::uint64_t bytes, std::uint64_t unit) { return (bytes + unit - 1) / unit * unit; }

// Throws Failure that begins with `failing` and has the program's own words.
void runImageTool(const std::vector<std::string>& words, const std::string& failing)
{
    ChildProcess child{words, package};
    if (child.wait())
        return;
    const std::string said = child.said();
    throw Failure{Exit::failed, failing + ": " + said + spaceAdvice(said.ends_with(errnoText(ENOSPC)) ? ENOSPC : 0)};
}

void create(const fs::path& path, std::uint64_t bytes, const std::string& compression, const std::vector<std::string>& more)
{
    // QEMU would make it for everybody to read.
    File{path, O_WRONLY | O_CREAT | O_EXCL}.close();
    // Clusters in parts of 4 KiB: what is scattered takes hardly more than it is.
    std::vector<std::string> words{"qemu-img", "create", "-q", "-f", "qcow2", "-o",
                                   "compat=1.1,extended_l2=on,cluster_size=" + std::to_string(image_cluster_bytes) + compression};
    words.insert(words.end(), more.begin(), more.end());
    words.insert(words.end(), {fs::absolute(path).string(), std::to_string(bytes)});
    runImageTool(words, "cannot make the image " + path.string());
}

// What stands in the text behind the last of those words; without them, all of it.
std::string behind(const std::string& text, const std::string& words)
{
    const std::size_t at = text.rfind(words);
    return at == std::string::npos ? text : text.substr(at + words.size());
}

} // namespace

void expectUtf8(const fs::path& path)
try {
    json(path.string()).dump();
} catch (const json::exception&) {
    throw Failure{Exit::refused, path.string() + " is no name in UTF-8, and QEMU takes no other; give it another name"};
}

void requireQemu()
{
    for (const auto& [program, of] : {std::pair{"qemu-img", package}, std::pair{"qemu-nbd", package}, std::pair{"setpriv", "util-linux"}})
        if (!isInstalled(program))
            throw Failure{Exit::refused, std::string{program} + " is not installed, and the repository is one of images; install the "
                                                                "package " +
                                             of};
}

void createImage(const fs::path& path, std::uint64_t bytes, const std::string& below)
{
    create(path, bytes, "", below.empty() ? std::vector<std::string>{} : std::vector<std::string>{"-u", "-F", "qcow2", "-b", below});
}

void createCompressed(const fs::path& path, std::uint64_t bytes)
{
    create(path, roundedUp(bytes, image_cluster_bytes), ",compression_type=zstd", {});
}

void endCompressed(const fs::path& path, std::uint64_t bytes)
{
    runImageTool({"qemu-img", "resize", "-q", "-f", "qcow2", "--shrink", fs::absolute(path).string(), std::to_string(roundedUp(bytes, sector_bytes))},
                 "cannot complete the image " + path.string());
}

std::string nameBelow(const fs::path& image)
{
    const auto number = [](std::span<const std::byte> bytes) {
        std::uint64_t value = 0;
        for (const std::byte byte : bytes)
            value = value << 8 | std::to_integer<std::uint64_t>(byte);
        return value;
    };
    // Offset and length stand in the header, most significant byte first; the name is at most 1023 bytes long.
    const File file{image, O_RDONLY};
    std::array<std::byte, 20> header{};
    file.readAt(0, header);
    const std::uint64_t offset = number(std::span{header}.subspan(8, 8));
    std::string name(std::min<std::uint64_t>(number(std::span{header}.subspan(16, 4)), 1023), '\0');
    if (offset == 0)
        return "";
    file.readAt(offset, std::as_writable_bytes(std::span{name}));
    return name;
}

std::string imageChain(const fs::path& path, std::span<const fs::path> below)
{
    return "json:" + imageNode(path, below, {canBypassCache(path), "threads"}).dump();
}

OpenImage::OpenImage(const fs::path& path, For what, std::span<const fs::path> below) : path_{path}, what_{what}
{
    requireQemu();
    // For the errors that the system has words for.
    File{path, what == For::reading ? O_RDONLY : O_RDWR}.close();
    const bool direct = canBypassCache(path);
    for (std::size_t i = first_way;; ++i) {
        const Way& way = ways[i];
        if (way.direct && !direct)
            continue;
        Sockets sockets = socketsForChild();
        std::vector<std::string> words = keeping_memory;
        words.push_back("qemu-nbd");
        if (what == For::reading)
            words.insert(words.end(), {"--read-only", "--allocation-depth"});
        else
            words.push_back("--discard=ignore");
        json node = imageNode(path, below, way);
        if (what == For::compressing)
            node = {{"driver", "compress"}, {"file", std::move(node)}};
        words.push_back("json:" + node.dump());
        child_ = std::make_unique<ChildProcess>(withSocket(words), package, sockets.listening.get());
        sockets.listening.reset();
        nbd_ = ::nbd_create();
        if (nbd_ == nullptr)
            throw Failure{Exit::failed, std::string{"cannot speak NBD: "} + ::nbd_get_error()};
        if (what == For::reading)
            for (const char* context : {own_context, zero_context})
                ::nbd_add_meta_context(nbd_, context);
        // The handle owns the descriptor from here on.
        if (::nbd_connect_socket(nbd_, sockets.connected.release()) == 0)
            return;
        ::nbd_close(nbd_);
        nbd_ = nullptr;
        waitForEnd(*child_);
        // Behind the description of what it was to open.
        const std::string said = behind(child_->said(), "}': ");
        const bool ended = !child_->running();
        child_.reset();
        if (said.find("another process using") != std::string::npos)
            throw Failure{Exit::busy, "another program has the image " + path.string() + " open, as one that serves or mounts a backup does; end that first (" +
                                          said + ")"};
        if (i + 1 == std::size(ways))
            throw Failure{what == For::reading && ended ? Exit::damaged : Exit::failed, "cannot open the image " + path.string() + ": " + said};
        if (said.find("aio") != std::string::npos || said.find("io_uring") != std::string::npos)
            first_way = i + 1;
    }
}

OpenImage::~OpenImage()
{
    if (nbd_ != nullptr)
        ::nbd_close(nbd_);
}

void OpenImage::fail(const std::string& doing)
{
    const int number = ::nbd_get_errno();
    std::string why = number != 0 ? errnoText(number) : ::nbd_get_error();
    // QEMU parts with who reads what cannot be read, and its own words say why.
    if (::nbd_aio_is_dead(nbd_) > 0 || ::nbd_aio_is_closed(nbd_) > 0) {
        waitForEnd(*child_);
        // Of the others that were under way it says afterwards that nobody takes the answers.
        if (const std::vector<std::string> said = child_->linesSaid(); !said.empty())
            why = behind(said.front(), "Failed to send reply: ");
    }
    throw Failure{exitOf(number), "cannot " + doing + " the image " + path_.string() + ": " + why +
                                      (number == ENOSPC || number == EDQUOT ? ". Make room there, or use another target" : "")};
}

std::int64_t OpenImage::write(std::uint64_t offset, std::span<const std::byte> data)
{
    const std::int64_t request = ::nbd_aio_pwrite(nbd_, data.data(), data.size(), offset, NBD_NULL_COMPLETION, 0);
    if (request < 0)
        fail("write to");
    return request;
}

std::int64_t OpenImage::zero(std::uint64_t offset, std::uint64_t bytes)
{
    while (bytes > most_zero_bytes) {
        wait(zero(offset, most_zero_bytes));
        offset += most_zero_bytes;
        bytes -= most_zero_bytes;
    }
    const std::int64_t request = ::nbd_aio_zero(nbd_, bytes, offset, NBD_NULL_COMPLETION, 0);
    if (request < 0)
        fail("write to");
    return request;
}

std::int64_t OpenImage::read(std::uint64_t offset, std::span<std::byte> data)
{
    const std::int64_t request = ::nbd_aio_pread(nbd_, data.data(), data.size(), offset, NBD_NULL_COMPLETION, 0);
    if (request < 0)
        fail("read");
    return request;
}

void OpenImage::wait(std::int64_t request)
{
    for (;;) {
        const int done = ::nbd_aio_command_completed(nbd_, static_cast<std::uint64_t>(request));
        if (done > 0)
            return;
        if (done < 0 || ::nbd_poll(nbd_, -1) < 0)
            fail(what_ == For::reading ? "read" : "write to");
    }
}

void OpenImage::flush()
{
    if (::nbd_flush(nbd_, 0) < 0)
        fail("write to");
}

void OpenImage::finish()
{
    const bool parted = ::nbd_shutdown(nbd_, 0) == 0;
    ::nbd_close(nbd_);
    nbd_ = nullptr;
    if (!child_->wait() || !parted)
        throw Failure{Exit::failed, "QEMU did not close the image " + path_.string() + " as it should: " + child_->said()};
}

std::uint64_t OpenImage::size()
{
    const std::int64_t bytes = ::nbd_get_size(nbd_);
    if (bytes < 0)
        fail("read");
    return static_cast<std::uint64_t>(bytes);
}

OpenImage::Layout OpenImage::layout()
{
    const std::uint64_t bytes = size();
    struct Walk {
        Layout layout;
        std::uint64_t at = 0;           // asked about
        std::uint64_t reached[2]{0, 0}; // answered, of either context
    } walk;
    const auto note = [](void* data, const char* context, std::uint64_t offset, std::uint32_t* entries, std::size_t count, int*) {
        auto& [layout, at, reached] = *static_cast<Walk*>(data);
        const bool own = std::strcmp(context, own_context) == 0;
        for (std::size_t i = 0; i + 1 < count; i += 2) {
            std::vector<Part>& parts = own ? layout.own : layout.zeros;
            if (own ? entries[i + 1] != 0 : (entries[i + 1] & LIBNBD_STATE_ZERO) != 0) {
                if (!parts.empty() && parts.back().offset + parts.back().bytes == offset)
                    parts.back().bytes += entries[i];
                else
                    parts.push_back({offset, entries[i]});
            }
            offset += entries[i];
        }
        reached[own ? 0 : 1] = offset;
        return 0;
    };
    while (walk.at < bytes) {
        const std::uint64_t ask = std::min(bytes - walk.at, most_zero_bytes);
        const nbd_extent_callback callback{note, &walk, nullptr};
        if (::nbd_block_status(nbd_, ask, walk.at, callback, 0) < 0)
            fail("read");
        // Each context answers as far as it likes; what one has told beyond the other is told again.
        const std::uint64_t both = std::min(walk.reached[0], walk.reached[1]);
        if (both <= walk.at)
            throw Failure{Exit::failed, "QEMU does not tell what the image " + path_.string() + " holds"};
        walk.at = both;
        for (std::vector<Part>* parts : {&walk.layout.own, &walk.layout.zeros}) {
            while (!parts->empty() && parts->back().offset >= both)
                parts->pop_back();
            if (!parts->empty())
                parts->back().bytes = std::min(parts->back().bytes, both - parts->back().offset);
        }
    }
    return std::move(walk.layout);
}

} // namespace qbackup
