// SPDX-License-Identifier: GPL-2.0-only
// Puts an array of the md driver together, or stops it. The array is described nowhere but in the kernel. Its device is
// the standard input: while that is open the driver keeps what it has of the device, and it stops none that is open
// twice.
//
//   md_array linear|raid0|raid1 DISK... <DEVICE
//   md_array stop <DEVICE
#include <linux/major.h>
#include <linux/types.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

// The kernel's header wants the ones above.
#include <linux/raid/md_u.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace
{

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "md_array: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

const std::map<std::string, int> levels = {{"linear", -1}, {"raid0", 0}, {"raid1", 1}};
constexpr int ChunkBytes = 65536;
// Of <linux/raid/md_p.h>, whose header does not compile as C++: bits of a disk's state.
constexpr int Active = 1 << 1;
constexpr int InSync = 1 << 2;

void assemble(int array, int level, int count, char** disks)
{
    mdu_array_info_t info = {};
    info.level = level;
    info.nr_disks = info.raid_disks = info.active_disks = info.working_disks = count;
    info.not_persistent = 1;
    info.state = 1; // clean: nothing has to be copied from one half of a mirror to the other
    info.chunk_size = level == 1 ? 0 : ChunkBytes;
    if (ioctl(array, SET_ARRAY_INFO, &info))
        fail("the array cannot be described");
    for (int i = 0; i < count; i++) {
        struct stat disk = {};
        if (stat(disks[i], &disk))
            fail(disks[i]);
        mdu_disk_info_t member = {};
        member.number = member.raid_disk = i;
        member.major = int(major(disk.st_rdev));
        member.minor = int(minor(disk.st_rdev));
        member.state = Active | InSync;
        if (ioctl(array, ADD_NEW_DISK, &member))
            fail(std::string(disks[i]) + " cannot be added");
    }
    if (ioctl(array, RUN_ARRAY, nullptr))
        fail("the array does not start");
}

} // namespace

int main(int argc, char** argv)
{
    const std::string order = argc > 1 ? argv[1] : "";
    if (order == "stop") {
        if (ioctl(0, STOP_ARRAY, nullptr))
            fail("the array cannot be stopped");
    } else if (levels.count(order)) {
        assemble(0, levels.at(order), argc - 2, argv + 2);
    } else {
        std::fprintf(stderr, "usage: md_array stop|linear|raid0|raid1 [DISK...] <DEVICE\n");
        return 2;
    }
}
