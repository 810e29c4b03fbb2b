// SPDX-License-Identifier: GPL-2.0-only
// One open file of the control device, given commands whose records and buffers the test places itself. Results are the
// driver's codes, or an error's number below 0.
#pragma once

#include "quendrel/2.6/quendrel.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#ifdef MAP_32BIT
constexpr int kLow = MAP_32BIT;
#else
constexpr int kLow = 0;
#endif

[[noreturn]] inline void fail(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

inline void demand(long result, long wanted, const std::string& what)
{
    if (result != wanted)
        fail(what + " answered " + std::to_string(result) + ", not " + std::to_string(wanted));
}

// Memory that the driver's pointers reach; never given back.
inline std::byte* low_memory(std::size_t bytes, int protection = PROT_READ | PROT_WRITE, int fd = -1)
{
    void* at = ::mmap(nullptr, bytes, protection, (fd < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED) | kLow, fd, 0);
    if (at == MAP_FAILED)
        fail(std::string{"no memory: "} + std::strerror(errno));
    return static_cast<std::byte*>(at);
}

inline std::uint32_t address(const void* at)
{
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(at));
}

class ControlFile
{
  public:
    explicit ControlFile(const char* path) : fd_(::open(path, O_RDWR | O_CLOEXEC))
    {
        if (fd_ < 0)
            fail(std::string{path} + ": " + std::strerror(errno));
    }
    ~ControlFile() { ::close(fd_); }
    ControlFile(const ControlFile&) = delete;
    ControlFile& operator=(const ControlFile&) = delete;

    int command(unsigned number, const void* record = nullptr) const
    {
        const int result = ::ioctl(fd_, number, record);
        return result < 0 ? -errno : result;
    }

    // A command of several threads needs a record of its own in low memory for each; this one is for the main thread.
    template <typename Record> int command_with(unsigned number, const Record& record) const
    {
        static std::byte* const place = low_memory(4096);
        std::memcpy(place, &record, sizeof record);
        return command(number, place);
    }

    // An area of the file, or null and the code in *result.
    std::byte* map(std::size_t bytes, int* result = nullptr) const
    {
        void* at = ::mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE | kLow, fd_, 0);
        const auto code = reinterpret_cast<std::uintptr_t>(at);
        const bool made = at != MAP_FAILED && code >= 4096;
        if (result != nullptr)
            *result = made ? 0 : at == MAP_FAILED ? -errno : static_cast<int>(code);
        return made ? static_cast<std::byte*>(at) : nullptr;
    }

    State state() const
    {
        static std::byte* const answer = low_memory(4096);
        demand(command_with(QUENDREL_GET_STATE, GetState{address(answer), sizeof(State)}), QUENDREL_OK, "GetState");
        State state;
        std::memcpy(&state, answer, sizeof state);
        return state;
    }

    AutoMapState tracking() const
    {
        static std::byte* const answer = low_memory(4096);
        demand(command_with(QUENDREL_GET_AUTOMAP_STATE, GetAutoMapState{address(answer), sizeof(AutoMapState)}),
               QUENDREL_OK, "GetAutoMapState");
        AutoMapState state;
        std::memcpy(&state, answer, sizeof state);
        return state;
    }

    // A backup of the device, MAJOR:MINOR, in state 2.
    void start(const char* device, std::uint32_t blocks) const
    {
        StartBackup record{0, 0, blocks, 4096};
        if (std::sscanf(device, "%u:%u", &record.major, &record.minor) != 2)
            fail(std::string{device} + " is no MAJOR:MINOR");
        demand(command_with(QUENDREL_START_BACKUP, record), QUENDREL_OK, "StartBackup");
    }

    int snapshot(const AMSessionKey& key) const
    {
        static std::byte* const place = low_memory(4096);
        std::memcpy(place, &key, sizeof key);
        return command_with(QUENDREL_SNAPSHOT, SnapShot{address(place), sizeof key});
    }

  private:
    int fd_;
};

// Takes a snapshot of the device that starts its tracking, and ends the backup. The key.
inline AMSessionKey begin_tracking(const char* control, const char* device, std::uint32_t blocks)
{
    const ControlFile file{control};
    file.start(device, blocks);
    demand(file.command(QUENDREL_NO_LOAD_FROM_AUTOMAP), QUENDREL_OK, "NoLoadFromAutoMap");
    demand(file.snapshot({}), QUENDREL_OK, "SnapShot");
    demand(file.state().state, QUENDREL_STATE_SNAPSHOT, "GetState");
    const AutoMapState tracking = file.tracking();
    demand(tracking.state, 1, "GetAutoMapState");
    return tracking.amsKey;
}
