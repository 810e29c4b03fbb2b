// SPDX-License-Identifier: GPL-2.0-only
// Threads of one file that map and unmap its areas at random moments, while others use it.
//
//   mapping_storm CONTROL MAJOR:MINOR BLOCKS FILE SECONDS WHAT      FILE: a new one is made, as the commands' memory
//
//   copies    commands that copy from and to memory whose pages are taken away all the time
//   reads     ReadBlocks into the areas, while they are unmapped, touched, and touched by children that have inherited
//   them
//
// That it ends, and what the kernel's log says meanwhile, is the test; it also demands that enough of all that has
// happened.
#include "control_file.h"

#include <sys/wait.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csetjmp>
#include <csignal>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace
{

constexpr std::size_t kPage = 4096;

std::atomic<bool> g_over{false};
// Where the areas are, or were a moment ago.
std::array<std::atomic<std::byte*>, 2> g_areas;
std::size_t g_area_bytes = 0;
thread_local sigjmp_buf g_touching;

void on_fault(int) { siglongjmp(g_touching, 1); }

// The driver has a line in the log for each command that it refuses: so that they all fit.
void rest(std::mt19937& random) { std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000)); }

// Calls `step` with a generator of its own until time is up, and counts how often it returned true.
class Runner
{
  public:
    Runner(const char* name, unsigned seed, std::function<bool(std::mt19937&)> step)
        : name_(name), thread_([this, seed, step = std::move(step)] {
              std::mt19937 random{seed};
              while (!g_over)
                  count_ += step(random);
          })
    {
    }
    void finish(unsigned long least)
    {
        thread_.join();
        std::printf("%s: %lu\n", name_, count_.load());
        if (count_ < least)
            fail(std::string{name_} + ": fewer than " + std::to_string(least));
    }

  private:
    const char* name_;
    std::atomic<unsigned long> count_{0};
    std::thread thread_; // last: it uses the rest
};

bool touch(const std::byte* area, std::size_t at)
{
    if (area == nullptr || sigsetjmp(g_touching, 1) != 0)
        return false;
    (void)*static_cast<const volatile std::byte*>(area + at);
    return true;
}

bool remap(const ControlFile& file, std::mt19937& random, std::size_t which)
{
    std::byte* area = file.map(g_area_bytes);
    if (area == nullptr)
        return false;
    g_areas[which] = area;
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    ::munmap(area, g_area_bytes);
    return true;
}

bool be_inherited(std::mt19937& random)
{
    const pid_t child = ::fork();
    if (child == 0) {
        // In any order, until the area is gone.
        int touched = 0;
        while (touched < 200 && touch(g_areas[random() % 2], random() % g_area_bytes))
            ++touched;
        ::_exit(touched != 0 ? 0 : 1);
    }
    int status = 1;
    return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::byte* taken_away(const char* path, std::size_t bytes)
{
    const int fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(bytes)) != 0)
        fail(std::string{path} + ": " + std::strerror(errno));
    std::byte* at = low_memory(bytes, PROT_READ | PROT_WRITE, fd);
    ::close(fd);
    return at;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::fprintf(stderr, "usage: mapping_storm CONTROL MAJOR:MINOR BLOCKS FILE SECONDS WHAT\n");
        return 2;
    }
    struct sigaction action {
    };
    action.sa_handler = on_fault;
    ::sigaction(SIGBUS, &action, nullptr);
    ::sigaction(SIGSEGV, &action, nullptr);
    const auto blocks = static_cast<std::uint32_t>(std::atoi(argv[3]));
    const bool reads = std::string{argv[6]} == "reads";
    begin_tracking(argv[1], argv[2], blocks);
    const ControlFile file{argv[1]};
    file.start(argv[2], blocks);
    g_area_bytes = static_cast<std::size_t>(file.state().mmapSize);
    if (reads) {
        demand(file.command(QUENDREL_NO_LOAD_FROM_AUTOMAP), QUENDREL_OK, "NoLoadFromAutoMap");
        demand(file.snapshot({}), QUENDREL_OK, "SnapShot");
    }
    std::byte* const memory = taken_away(argv[4], 16 * kPage);
    // A command each thread: its record in one page, what that points to in the next.
    const auto record = [&](std::size_t number) { return memory + 2 * number * kPage; };
    const auto buffer = [&](std::size_t number) { return memory + (2 * number + 1) * kPage; };

    std::vector<std::unique_ptr<Runner>> runners;
    std::vector<unsigned long> least;
    const auto run = [&](const char* name, unsigned long at_least, std::function<bool(std::mt19937&)> step) {
        runners.push_back(std::make_unique<Runner>(name, static_cast<unsigned>(runners.size() + 1), std::move(step)));
        least.push_back(at_least);
    };
    for (std::size_t which = 0; which < 2; ++which)
        run("areas mapped", 20, [&, which](std::mt19937& random) { return remap(file, random, which); });
    if (reads) {
        for (std::size_t thread = 0; thread < 2; ++thread) {
            run("reads", 20, [&, thread](std::mt19937& random) {
                const ReadBlocks read{static_cast<std::uint32_t>(random() % (blocks - 256)),
                                      static_cast<std::uint32_t>(1 + random() % 256), address(g_areas[random() % 2])};
                std::memcpy(record(thread), &read, sizeof read);
                const bool read_them = file.command(QUENDREL_READ_BLOCKS, record(thread)) == QUENDREL_OK;
                if (!read_them)
                    rest(random);
                return read_them;
            });
        }
        run("pages touched", 20,
            [&](std::mt19937& random) { return touch(g_areas[random() % 2], random() % g_area_bytes); });
        run("children that touched a page", 2, be_inherited);
    } else {
        // The wrong key for a device that is in sync: nothing is done, whenever it is asked for.
        run("keys refused", 20, [&](std::mt19937& random) {
            rest(random);
            const SnapShot snapshot{address(buffer(0)), sizeof(AMSessionKey)};
            std::memcpy(record(0), &snapshot, sizeof snapshot);
            return file.command(QUENDREL_SNAPSHOT, record(0)) == QUENDREL_OK;
        });
        run("states told", 20, [&](std::mt19937&) {
            const GetState get{address(buffer(1)), sizeof(State)};
            std::memcpy(record(1), &get, sizeof get);
            return file.command(QUENDREL_GET_STATE, record(1)) == QUENDREL_OK;
        });
        run("maps refused", 20, [&](std::mt19937& random) {
            rest(random);
            const UserBlockMap map{address(buffer(2)), 8 * kPage};
            std::memcpy(buffer(3), &map, sizeof map);
            const LoadBlockMap load{address(buffer(3)), sizeof map};
            std::memcpy(record(2), &load, sizeof load);
            return file.command(QUENDREL_LOAD_BLOCK_MAP, record(2)) == QUENDREL_REFUSED;
        });
    }
    run("times taken away", 20,
        [&](std::mt19937& random) { return ::madvise(memory + random() % 16 * kPage, kPage, MADV_DONTNEED) == 0; });

    std::this_thread::sleep_for(std::chrono::seconds(std::atoi(argv[5])));
    g_over = true;
    for (std::size_t i = 0; i < runners.size(); ++i)
        runners[i]->finish(least[i]);
    return 0;
}
