// SPDX-License-Identifier: GPL-2.0-only
// Sends a disk what no file system sends, by its own commands.
//
//   past_the_hook scsi-write DISK SECTOR [TIMEOUT]  writes 512 bytes of 0xA5 there; milliseconds (10000)
//   past_the_hook scsi-ask DISK                     commands that change nothing: whether it is ready, what it is, flush, read
//   past_the_hook nvme-write DISK SECTOR            as scsi-write
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

alignas(4096) std::array<unsigned char, 512> data;

bool send_scsi(int disk, std::vector<unsigned char> command, int direction, unsigned timeout = 10000)
{
    std::array<unsigned char, 32> sense{};
    sg_io_hdr_t io{};
    io.interface_id = 'S';
    io.cmdp = command.data();
    io.cmd_len = static_cast<unsigned char>(command.size());
    io.dxfer_direction = direction;
    io.dxferp = data.data();
    io.dxfer_len = direction == SG_DXFER_NONE ? 0 : static_cast<unsigned>(data.size());
    io.sbp = sense.data();
    io.mx_sb_len = sense.size();
    io.timeout = timeout;
    if (ioctl(disk, SG_IO, &io) != 0) {
        std::perror("SG_IO");
        return false;
    }
    if ((io.info & SG_INFO_OK_MASK) != SG_INFO_OK) {
        std::fprintf(stderr, "command %02x: status %02x, sense %02x, host %02x\n", command[0], io.status, sense[2], io.host_status);
        return false;
    }
    return true;
}

std::vector<unsigned char> with_sector(unsigned char code, std::uint32_t sector)
{
    return {code, 0, static_cast<unsigned char>(sector >> 24), static_cast<unsigned char>(sector >> 16),
            static_cast<unsigned char>(sector >> 8), static_cast<unsigned char>(sector), 0, 0, 1, 0};
}

bool ask_scsi(int disk)
{
    return send_scsi(disk, {0x00, 0, 0, 0, 0, 0}, SG_DXFER_NONE) && send_scsi(disk, {0x12, 0, 0, 2, 0, 0}, SG_DXFER_FROM_DEV) &&
           send_scsi(disk, {0x35, 0, 0, 0, 0, 0, 0, 0, 0, 0}, SG_DXFER_NONE) && send_scsi(disk, with_sector(0x28, 0), SG_DXFER_FROM_DEV);
}

bool write_nvme(int disk, std::uint64_t sector)
{
    nvme_user_io io{};
    io.opcode = 0x01;
    io.addr = reinterpret_cast<std::uintptr_t>(data.data());
    io.slba = sector;
    if (const int status = ioctl(disk, NVME_IOCTL_SUBMIT_IO, &io); status != 0) {
        std::fprintf(stderr, "nvme write: %d %s\n", status, status < 0 ? std::strerror(errno) : "");
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string_view what = argc > 1 ? argv[1] : "";
    if (argc != (what == "scsi-ask" ? 3 : 4) && !(what == "scsi-write" && argc == 5)) {
        std::fprintf(stderr, "usage: past_the_hook scsi-write|scsi-ask|nvme-write DISK [SECTOR [TIMEOUT]]\n");
        return 2;
    }
    const int disk = open(argv[2], O_RDWR | O_CLOEXEC);
    if (disk < 0) {
        std::perror(argv[2]);
        return 1;
    }
    const std::uint32_t sector = argc > 3 ? static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 10)) : 0;
    const unsigned timeout = argc > 4 ? static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)) : 10000;
    data.fill(0xA5);
    bool done = false;
    if (what == "scsi-write")
        done = send_scsi(disk, with_sector(0x2a, sector), SG_DXFER_TO_DEV, timeout);
    else if (what == "scsi-ask")
        done = ask_scsi(disk);
    else if (what == "nvme-write")
        done = write_nvme(disk, sector);
    close(disk);
    return done ? 0 : 1;
}
