// SPDX-License-Identifier: GPL-2.0-only
// Commands whose buffers lie on pages that take their time to come: a program of ours brings each (userfaultfd). While
// a command waits for one, the same file is mapped, and that must not wait for the command: the program could not bring
// the page any more, since it needs the address space that a mapping keeps locked.
//
//   slow_memory CONTROL MAJOR:MINOR BLOCKS FILE      FILE: on the mounted device; it is written to
//
// Then buffers that are not all there: the results are those of a copy that fails in the middle.
#include "control_file.h"

#include <linux/userfaultfd.h>
#include <poll.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace
{

constexpr std::size_t kPage = 4096;
using namespace std::chrono_literals;

// Two pages that nobody has brought yet.
class SlowPages
{
  public:
    SlowPages() : fd_(static_cast<int>(::syscall(SYS_userfaultfd, O_CLOEXEC | O_NONBLOCK))), at_(low_memory(2 * kPage))
    {
        uffdio_api api{};
        api.api = UFFD_API;
        uffdio_register pages{};
        pages.range = {address(at_), 2 * kPage};
        pages.mode = UFFDIO_REGISTER_MODE_MISSING;
        if (fd_ < 0 || ::ioctl(fd_, UFFDIO_API, &api) != 0 || ::ioctl(fd_, UFFDIO_REGISTER, &pages) != 0)
            fail(std::string{"userfaultfd: "} + std::strerror(errno));
    }
    ~SlowPages() { ::close(fd_); }
    SlowPages(const SlowPages&) = delete;
    SlowPages& operator=(const SlowPages&) = delete;

    std::byte* at() const { return at_; }

    // The page that somebody waits for, or null when nobody does within the time.
    std::byte* awaited(std::chrono::milliseconds time) const
    {
        pollfd end{fd_, POLLIN, 0};
        uffd_msg message{};
        if (::poll(&end, 1, static_cast<int>(time.count())) != 1 ||
            ::read(fd_, &message, sizeof message) != sizeof message)
            return nullptr;
        return at_ + (message.arg.pagefault.address - reinterpret_cast<std::uintptr_t>(at_)) / kPage * kPage;
    }

    void bring(std::byte* page, const std::byte* contents) const
    {
        uffdio_copy copy{};
        copy.dst = address(page);
        copy.src = reinterpret_cast<std::uintptr_t>(contents);
        copy.len = kPage;
        if (::ioctl(fd_, UFFDIO_COPY, &copy) != 0)
            fail(std::string{"a page cannot be brought: "} + std::strerror(errno));
    }

  private:
    int fd_;
    std::byte* at_;
};

// Gives a command whose buffer is slow; `contents` are the buffer's two pages. Both pages must have been waited for.
int slowly(const ControlFile& file, const SlowPages& pages, const std::vector<std::byte>& contents, const char* name,
           unsigned number, const std::byte* record)
{
    std::atomic<int> result{-1};
    std::jthread command{[&] { result = file.command(number, record); }};
    for (int brought = 0; brought < 2; ++brought) {
        std::byte* const page = pages.awaited(20s);
        if (page == nullptr)
            fail(std::string{name} + " does not ask for its pages");
        std::atomic<bool> mapped{false};
        std::jthread mapper{[&] {
            int code = 0;
            if (std::byte* area = file.map(kPage, &code))
                ::munmap(area, kPage);
            demand(code, QUENDREL_OK, "mapping");
            mapped = true;
        }};
        for (int tries = 0; tries < 1000 && !mapped; ++tries)
            std::this_thread::sleep_for(10ms);
        if (!mapped) {
            // Neither thread can be ended.
            std::fprintf(stderr, "a mapping waits for %s, which waits for its memory\n", name);
            std::_Exit(1);
        }
        pages.bring(page, contents.data() + (page - pages.at()));
    }
    command.join();
    return result;
}

template <typename Record> std::byte* placed(const Record& record)
{
    std::byte* at = low_memory(kPage);
    std::memcpy(at, &record, sizeof record);
    return at;
}

void overwrite(const char* path)
{
    const std::vector<char> bytes(1 << 20, 'x');
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) || ::fsync(fd) != 0)
        fail(std::string{"cannot write "} + path);
    ::close(fd);
}

long ones(const std::byte* from, std::size_t bytes)
{
    return std::count_if(from, from + bytes, [](std::byte b) { return b != std::byte{0}; });
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::fprintf(stderr, "usage: slow_memory CONTROL MAJOR:MINOR BLOCKS FILE\n");
        return 2;
    }
    const auto blocks = static_cast<std::uint32_t>(std::atoi(argv[3]));
    const std::size_t bytes = (blocks + 7) / 8;
    if (bytes < 2 || bytes > kPage)
        fail("the map has to fit into a page");
    AMSessionKey key = begin_tracking(argv[1], argv[2], blocks);
    overwrite(argv[4]);

    // Each buffer begins in one page and ends in the next.
    const ControlFile file{argv[1]};
    file.start(argv[2], blocks);
    {
        const SlowPages pages;
        std::vector<std::byte> contents(2 * kPage);
        std::memcpy(contents.data() + kPage - 20, &key, sizeof key);
        const std::byte* record = placed(SnapShot{address(pages.at() + kPage - 20), sizeof key});
        demand(slowly(file, pages, contents, "SnapShot", QUENDREL_SNAPSHOT, record), QUENDREL_OK, "SnapShot");
        demand(file.state().state, QUENDREL_STATE_SNAPSHOT, "GetState after the right key");
    }
    // A map that cannot be written as a whole stays where it is.
    std::byte* half = low_memory(2 * kPage);
    // Not unmapped: what is mapped next might come to lie there.
    ::mprotect(half + kPage, kPage, PROT_NONE);
    const auto get = [&](const std::byte* at) {
        return file.command(QUENDREL_GET_AUTOMAP,
                            placed(GetAutoMap{address(placed(UserBlockMap{address(at), blocks})), 8}));
    };
    demand(get(half + kPage - bytes / 2), QUENDREL_COPY_TO_USER, "GetAutoMap into half a buffer");
    demand(get(low_memory(kPage, PROT_READ)), QUENDREL_COPY_TO_USER, "GetAutoMap into memory that cannot be written");
    demand(get(nullptr), QUENDREL_COPY_TO_USER, "GetAutoMap to no address");
    {
        const SlowPages pages;
        const std::vector<std::byte> contents(2 * kPage);
        std::byte* const map = pages.at() + kPage - bytes / 2;
        const std::byte* record = placed(GetAutoMap{address(placed(UserBlockMap{address(map), blocks})), 8});
        demand(slowly(file, pages, contents, "GetAutoMap", QUENDREL_GET_AUTOMAP, record), QUENDREL_OK, "GetAutoMap");
        const long changed = ones(map, bytes);
        if (changed < 32 || std::memcmp(map, half + kPage - bytes / 2, bytes / 2) != 0)
            fail("the map is not that of a device where 256 blocks were written: " + std::to_string(changed) +
                 " bytes");
        if (ones(pages.at(), kPage - bytes / 2) + ones(map + bytes, kPage - bytes + bytes / 2) != 0)
            fail("something was written beside the map");
    }
    demand(get(low_memory(kPage)), QUENDREL_REFUSED, "a second GetAutoMap");
    {
        const SlowPages pages;
        const std::vector<std::byte> contents(2 * kPage, std::byte{0xff});
        const UserBlockMap map{address(pages.at() + kPage - bytes / 2), blocks};
        const std::byte* record = placed(LoadBlockMap{address(placed(map)), 8});
        demand(slowly(file, pages, contents, "LoadBlockMap", QUENDREL_LOAD_BLOCK_MAP, record), QUENDREL_OK,
               "LoadBlockMap");
        demand(file.state().state, QUENDREL_STATE_MAP_LOADED, "GetState after LoadBlockMap");
    }
    std::printf("no mapping has waited\n");
    return 0;
}
