// Random commands, mappings and touches of mapped pages on three files of the control device, right ones and wrong
// ones. What must hold is for others to see: the kernel's log, the disk, a backup afterwards. Commands in the right
// order are frequent, so that all states of a backup are reached.
//
//   control_fuzz CONTROL MAJOR MINOR STEPS SEED
//
// When all steps are done it says so and waits for the end of its input: its files must be closed while nobody writes
// to the disk, since closing one while another's backup holds a write waits for ever, by design.
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
    Fuzzer(const char* control, std::uint32_t major, std::uint32_t minor, unsigned seed)
        : major_(major), minor_(minor), random_(seed), scratch_(low_memory(kScratchBytes, PROT_READ | PROT_WRITE)),
          read_only_(low_memory(4096, PROT_READ))
    {
        for (int& file : files_) {
            file = ::open(control, O_RDWR | O_CLOEXEC);
            if (file < 0) {
                std::perror(control);
                std::exit(1);
            }
        }
    }

    void step()
    {
        const std::uint32_t kind = below(100);
        if (kind < 6)
            map();
        else if (kind < 9)
            unmap();
        else if (kind < 14)
            touch();
        else if (kind < 60)
            likely_command();
        else
            any_command();
    }

    void report() const
    {
        std::printf("%lu commands, %lu mappings, %lu touches, %lu faults; results:", commands_, mappings_, touches_, faults_);
        for (const auto& [result, count] : results_)
            std::printf(" %d:%lu", result, count);
        std::printf("\n");
    }

private:
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

    int file() { return files_[below(8) ? 0 : below(files_.size())]; }

    void command(unsigned request, const void* record, std::size_t bytes)
    {
        std::uint32_t argument = scratch_ + 64;
        if (below(32) == 0)
            argument = pointer();
        else
            std::memcpy(at<void>(argument), record, bytes);
        const int result = ::ioctl(file(), static_cast<unsigned long>(request), at<void>(argument));
        ++commands_;
        ++results_[result < 0 ? -errno : result];
    }

    // The next step of a backup, with arguments as a client would give them.
    void likely_command()
    {
        switch (below(10)) {
        case 0: {
            const StartBackup start{major_, minor_, 6144 + below(2) * below(64), below(4) ? 2048 : below(32)};
            return command(QUENDREL_START_BACKUP, &start, sizeof start);
        }
        case 1: {
            // Freezes the file system: not too often.
            if (below(8))
                return;
            const SnapShot snapshot{scratch_ + 4096, below(4) ? 56u : number()};
            return command(QUENDREL_SNAPSHOT, &snapshot, sizeof snapshot);
        }
        case 2: {
            const UserBlockMap map{scratch_ + 8192, 6144};
            std::memset(at<void>(scratch_ + 8192), static_cast<int>(word()), 768);
            std::memcpy(at<void>(scratch_ + 1024), &map, sizeof map);
            const LoadBlockMap load{scratch_ + 1024, sizeof map};
            return command(below(2) ? QUENDREL_LOAD_BLOCK_MAP : QUENDREL_GET_AUTOMAP, &load, sizeof load);
        }
        case 3: {
            const GetState get{scratch_ + 512, 20};
            return command(QUENDREL_GET_STATE, &get, sizeof get);
        }
        case 4: {
            const GetAutoMapState get{scratch_ + 512, 76};
            return command(QUENDREL_GET_AUTOMAP_STATE, &get, sizeof get);
        }
        case 5: {
            const DirtyBlock get{scratch_ + 512};
            return command(QUENDREL_GET_DIRTY_BLOCK, &get, sizeof get);
        }
        case 6:
        case 7: {
            const Area& area = areas_[below(areas_.size())];
            const ReadBlocks read{below(6200), 1 + below(32), static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(area.start))};
            return command(QUENDREL_READ_BLOCKS, &read, sizeof read);
        }
        case 8: {
            const GetBlockSize get{major_, minor_, scratch_ + 512, 16};
            return command(QUENDREL_GET_BLOCK_SIZE, &get, sizeof get);
        }
        default:
            return command(below(2) ? QUENDREL_NO_LOAD_FROM_AUTOMAP : QUENDREL_NO_START_AUTOMAP, nullptr, 0);
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
                             file(), offset);
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

    std::uint32_t major_, minor_;
    std::mt19937 random_;
    std::uint32_t scratch_, read_only_;
    std::array<int, 3> files_{};
    std::array<Area, 6> areas_{};
    unsigned long commands_ = 0, mappings_ = 0, touches_ = 0, faults_ = 0;
    std::map<int, unsigned long> results_;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 6) {
        std::fprintf(stderr, "usage: control_fuzz CONTROL MAJOR MINOR STEPS SEED\n");
        return 2;
    }
    struct sigaction action {
    };
    action.sa_handler = on_fault;
    ::sigaction(SIGBUS, &action, nullptr);
    ::sigaction(SIGSEGV, &action, nullptr);
    const auto parse = [](const char* text) { return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 0)); };
    Fuzzer fuzzer(argv[1], parse(argv[2]), parse(argv[3]), parse(argv[5]));
    for (std::uint32_t n = parse(argv[4]); n > 0; --n)
        fuzzer.step();
    fuzzer.report();
    std::fflush(stdout);
    while (std::getchar() != EOF)
        ;
    return 0;
}
