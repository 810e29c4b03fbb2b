// SPDX-License-Identifier: GPL-2.0-only
// Random commands, mappings, touches of mapped pages and writes to the disk, on three files of the control device, right
// ones and wrong ones. What must hold is for others to see: the kernel's log, the disk, a backup afterwards.
//
//   control_fuzz CONTROL MAJOR MINOR FILE STEPS SEED     FILE: on the mounted device; it is written to
//
// One of the files goes through the states of a backup in the right order, among all the rest, so that all states are
// reached; after some thousand steps all files are closed and opened again. Nobody else may write to the device: files
// are closed while no write is held, since closing one while another's backup holds a write waits for ever, by design.
// Starting twice on the running file takes the driver's one place for a backup until it is loaded anew, by design too:
// then the program ends early. It prints how many steps it has done.
#include "quendrel/2.6/quendrel.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>

namespace
{

constexpr std::size_t kScratchBytes = 64 * 1024;
constexpr std::uint32_t kMostBlocks = 1u << 22; // of a map that the kernel really allocates

sigjmp_buf g_touching;

void on_fault(int) { siglongjmp(g_touching, 1); }

#ifdef MAP_32BIT
constexpr int kLow = MAP_32BIT;
#else
constexpr int kLow = 0;
#endif

std::uint32_t low_memory(std::size_t bytes, int protection)
{
    void* at = ::mmap(nullptr, bytes, protection, MAP_PRIVATE | MAP_ANONYMOUS | kLow, -1, 0);
    if (at == MAP_FAILED) {
        std::perror("mmap");
        std::exit(1);
    }
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(at));
}

template <typename T>
T* at(std::uint32_t address)
{
    return reinterpret_cast<T*>(static_cast<std::uintptr_t>(address));
}

struct Area {
    void* start = nullptr;
    std::size_t bytes = 0;
};

class Fuzzer
{
public:
    Fuzzer(const char* control, std::uint32_t major, std::uint32_t minor, const char* written, unsigned seed)
        : control_(control), major_(major), minor_(minor), random_(seed),
          scratch_(low_memory(kScratchBytes, PROT_READ | PROT_WRITE)), read_only_(low_memory(4096, PROT_READ)),
          written_(open_or_exit(written, O_RDWR | O_CREAT))
    {
    }

    // Some thousand steps with the files open. False when the driver takes no more backups.
    bool epoch(std::uint32_t& steps_left)
    {
        for (int& file : files_)
            file = open_or_exit(control_, O_RDWR);
        stage_ = 0;
        started_twice_ = false;
        for (std::uint32_t steps = 1000 + below(5000); steps > 0 && steps_left > 0; --steps, --steps_left)
            step();
        for (Area& area : areas_) {
            if (area.start != nullptr)
                ::munmap(area.start, area.bytes);
            area = {};
        }
        ::syncfs(written_);
        for (int& file : files_)
            ::close(file);
        return !started_twice_;
    }

    void report() const
    {
        std::printf("%lu commands, %lu mappings, %lu touches, %lu faults, %lu writes; results:", commands_, mappings_, touches_, faults_, writes_);
        for (const auto& [result, count] : results_)
            std::printf(" %d:%lu", result, count);
        std::printf("\n");
    }

private:
    static int open_or_exit(const char* path, int flags)
    {
        const int fd = ::open(path, flags | O_CLOEXEC, 0600);
        if (fd < 0) {
            std::perror(path);
            std::exit(1);
        }
        return fd;
    }

    void step()
    {
        const std::uint32_t kind = below(100);
        if (kind < 4)
            map();
        else if (kind < 6)
            unmap();
        else if (kind < 12)
            touch();
        else if (kind < 13)
            write();
        else if (kind < 18)
            next_command();
        else if (kind < 21)
            read();
        else if (kind < 50)
            likely_command();
        else
            any_command();
    }

    std::uint32_t word() { return static_cast<std::uint32_t>(random_()); }
    std::uint32_t below(std::uint32_t bound) { return word() % bound; }

    // Mostly a usable address, sometimes at an edge, sometimes anything.
    std::uint32_t pointer()
    {
        switch (below(8)) {
        case 0:
            return word();
        case 1:
            return read_only_;
        case 2:
            return scratch_ + kScratchBytes - below(128);
        case 3: {
            const Area& area = areas_[below(areas_.size())];
            return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(area.start));
        }
        default:
            return scratch_ + 4096 + below(256) * 64;
        }
    }

    std::uint32_t number()
    {
        switch (below(6)) {
        case 0:
            return word();
        case 1:
            return below(16);
        case 2:
            return major_;
        case 3:
            return minor_;
        case 4:
            return below(8192);
        default:
            return below(65536);
        }
    }

    int command(unsigned request, const void* record, std::size_t bytes, std::size_t number = ~std::size_t{0})
    {
        if (number == ~std::size_t{0})
            number = below(8) ? 0 : below(files_.size());
        if (request == QUENDREL_START_BACKUP && number == 0 && stage_ > 0) {
            if (below(4000))
                return 0;
            started_twice_ = true;
        }
        std::uint32_t argument = scratch_ + 64;
        if (below(32) == 0)
            argument = pointer();
        else if (bytes != 0)
            std::memcpy(at<void>(argument), record, bytes);
        int result = ::ioctl(files_[number], static_cast<unsigned long>(request), at<void>(argument));
        if (result < 0)
            result = -errno;
        ++commands_;
        ++results_[result];
        if (result == 0 && number == 0 && request == QUENDREL_START_BACKUP)
            stage_ = 1;
        return result;
    }

    // The file that goes through a backup: its next command, as a client gives it.
    void next_command()
    {
        switch (stage_) {
        case 0: {
            const StartBackup start{major_, minor_, 6144, below(4) ? 2048 : 16 + below(64)};
            command(QUENDREL_START_BACKUP, &start, sizeof start, 0);
            return;
        }
        case 1: {
            const SnapShot snapshot{scratch_ + 4096, 56};
            if (command(QUENDREL_SNAPSHOT, &snapshot, sizeof snapshot, 0) == 0)
                stage_ = 2;
            return;
        }
        case 2: {
            const UserBlockMap map{scratch_ + 8192, 6144};
            std::memset(at<void>(scratch_ + 8192), static_cast<int>(word()), 768);
            std::memcpy(at<void>(scratch_ + 1024), &map, sizeof map);
            const LoadBlockMap load{scratch_ + 1024, sizeof map};
            if (command(QUENDREL_LOAD_BLOCK_MAP, &load, sizeof load, 0) == 0)
                stage_ = 3;
            return;
        }
        default:
            return read();
        }
    }

    void read()
    {
        const Area& area = areas_[below(areas_.size())];
        const ReadBlocks read{below(6150), 1 + below(16), static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(area.start))};
        command(QUENDREL_READ_BLOCKS, &read, sizeof read, 0);
    }

    void likely_command()
    {
        switch (below(7)) {
        case 0: {
            const UserBlockMap map{scratch_ + 8192, 6144};
            std::memcpy(at<void>(scratch_ + 1024), &map, sizeof map);
            const LoadBlockMap get{scratch_ + 1024, sizeof map};
            command(QUENDREL_GET_AUTOMAP, &get, sizeof get);
            return;
        }
        case 1: {
            const GetState get{scratch_ + 512, 20};
            command(QUENDREL_GET_STATE, &get, sizeof get);
            return;
        }
        case 2: {
            const GetAutoMapState get{scratch_ + 512, 76};
            command(QUENDREL_GET_AUTOMAP_STATE, &get, sizeof get);
            return;
        }
        case 3: {
            const DirtyBlock get{scratch_ + 512};
            command(QUENDREL_GET_DIRTY_BLOCK, &get, sizeof get);
            return;
        }
        case 4:
        case 5: {
            const GetBlockSize get{major_, minor_, scratch_ + 512, 16};
            command(QUENDREL_GET_BLOCK_SIZE, &get, sizeof get);
            return;
        }
        default:
            command(below(2) ? QUENDREL_NO_LOAD_FROM_AUTOMAP : QUENDREL_NO_START_AUTOMAP, nullptr, 0);
        }
    }

    void write()
    {
        // Durable, so that it reaches the driver's hook now.
        char block[4096];
        std::memset(block, static_cast<int>(word()), sizeof block);
        ++writes_;
        if (::pwrite(written_, block, sizeof block, static_cast<off_t>(below(512)) * 4096) < 0 || (below(8) == 0 && ::fdatasync(written_) != 0)) {
            std::perror("writing to the device");
            std::exit(1);
        }
    }

    void any_command()
    {
        std::array<std::uint32_t, 8> record{};
        for (std::uint32_t& one : record)
            one = below(2) ? pointer() : number();
        unsigned request = QUENDREL_COMMAND(below(18), below(4), below(24));
        if (below(2)) {
            static constexpr std::array<unsigned, 16> known{
                QUENDREL_GET_BLOCK_SIZE, QUENDREL_START_BACKUP, QUENDREL_GET_STATE, QUENDREL_GET_AUTOMAP_STATE,
                QUENDREL_NO_LOAD_FROM_AUTOMAP, QUENDREL_NO_START_AUTOMAP, QUENDREL_LOAD_BLOCK_MAP, QUENDREL_GET_AUTOMAP,
                QUENDREL_GET_DIRTY_BLOCK, QUENDREL_READ_BLOCKS, QUENDREL_GET_VERSION_MAJOR, QUENDREL_GET_VERSION_MINOR,
                QUENDREL_SYNC, QUENDREL_SHUTDOWN, QUENDREL_RESERVED16, QUENDREL_GET_BLOCK_SIZE};
            request = known[below(known.size())];
        }
        if (below(64) == 0)
            request = word();
        if (request == QUENDREL_START_BACKUP)
            record[2] %= kMostBlocks;
        if (request == QUENDREL_LOAD_BLOCK_MAP || request == QUENDREL_GET_AUTOMAP) {
            const UserBlockMap map{pointer(), number() % kMostBlocks};
            std::memcpy(at<void>(scratch_ + 2048), &map, sizeof map);
            if (below(4))
                record[0] = scratch_ + 2048;
        }
        command(request, record.data(), sizeof record);
    }

    void map()
    {
        Area& area = areas_[below(areas_.size())];
        if (area.start != nullptr)
            return;
        const std::size_t bytes = below(8) ? 4096 * (1 + below(32)) : 1 + below(4u << 20);
        const off_t offset = below(4) ? 0 : static_cast<off_t>(4096 * below(64));
        void* start = ::mmap(nullptr, bytes, below(4) ? PROT_READ | PROT_WRITE : PROT_READ, (below(8) ? MAP_SHARED : MAP_PRIVATE) | kLow,
                             files_[below(8) ? 0 : below(files_.size())], offset);
        ++mappings_;
        // A small address is a result of the driver.
        if (start != MAP_FAILED && reinterpret_cast<std::uintptr_t>(start) >= 4096)
            area = {start, bytes};
    }

    void unmap()
    {
        Area& area = areas_[below(areas_.size())];
        if (area.start != nullptr && below(4) == 0) {
            ::munmap(area.start, area.bytes);
            area = {};
        }
    }

    void touch()
    {
        const Area& area = areas_[below(areas_.size())];
        if (area.start == nullptr)
            return;
        ++touches_;
        volatile char* byte = static_cast<char*>(area.start) + below(static_cast<std::uint32_t>(area.bytes));
        const bool write = below(2);
        if (sigsetjmp(g_touching, 1) != 0) {
            ++faults_;
            return;
        }
        if (write)
            *byte = 'x';
        else
            (void)*byte;
    }

    const char* control_;
    std::uint32_t major_, minor_;
    std::mt19937 random_;
    std::uint32_t scratch_, read_only_;
    int written_;
    unsigned stage_ = 0; // of the first file's backup: started, snapshot, map loaded
    bool started_twice_ = false;
    std::array<int, 3> files_{};
    std::array<Area, 6> areas_{};
    unsigned long commands_ = 0, mappings_ = 0, touches_ = 0, faults_ = 0, writes_ = 0;
    std::map<int, unsigned long> results_;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::fprintf(stderr, "usage: control_fuzz CONTROL MAJOR MINOR FILE STEPS SEED\n");
        return 2;
    }
    struct sigaction action {
    };
    action.sa_handler = on_fault;
    ::sigaction(SIGBUS, &action, nullptr);
    ::sigaction(SIGSEGV, &action, nullptr);
    const auto parse = [](const char* text) { return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 0)); };
    Fuzzer fuzzer(argv[1], parse(argv[2]), parse(argv[3]), argv[4], parse(argv[6]));
    const std::uint32_t steps = parse(argv[5]);
    std::uint32_t left = steps;
    while (left > 0 && fuzzer.epoch(left))
        ;
    fuzzer.report();
    std::printf("steps: %u\n", steps - left);
    return 0;
}
