// SPDX-License-Identifier: GPL-2.0-only
// Fuzzes the command dispatcher: arbitrary numbers, records and pointers, mappings and faults, between writes to the
// disk, on up to three files of the control device. What must hold: no crash, no sanitizer report, no write lost, and
// nothing left when all is closed.
//
// Files are closed at the end only: closing one while another's backup holds a write waits for ever, by design.
#include "fuzz_input.h"
#include "fuzzed_disk.h"
#include "hosted.h"
#include "quendrel.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using fuzz::Input;
using fuzz::kBlocks;
using fuzz::kCommands;
using fuzz::kPartitionStart;
using fuzz::require;

constexpr u32 kMostBlocks = 1u << 22;  // of a map that is really allocated, so that a run stays fast

// The disk and the loaded driver, kept from input to input: loading takes longer than most inputs do.
class Ground : public fuzz::FuzzedDisk
{
  public:
    // Brings the driver back to how it was loaded: tracking off, no backup, nothing allocated.
    void reset()
    {
        hosted::log_clear();
        // The one backup slot can be left taken for ever; only a reload gives it back. What the driver leaves behind
        // deliberately goes with a reload too.
        if (fuzz::stop_tracking() && ++inputs_ % 64 != 0)
            return;
        require(hosted::unload_driver() == 0, "the driver unloads");
        hosted::forget_leaks();
        require(hosted::load_driver() == 0, "the driver loads again");
    }

  private:
    unsigned inputs_ = 0;
};

Ground& ground()
{
    static Ground the;
    return the;
}

class Session
{
  public:
    explicit Session(Input& input)
        : in_(input), memory_(std::make_shared<hosted::SimulatedMemory>()), disk_(ground().disk), bytes_(ground().bytes)
    {
        scratch_ = memory_->allocate(64 * 1024, true, true);
        readOnly_ = memory_->allocate(4096, false);
        written_.assign(bytes_.begin(), bytes_.end());
    }

    ~Session()
    {
        for (auto& area : areas_)
            area.reset();
        for (auto& file : files_)
            file.reset();
        require(std::equal(written_.begin(), written_.end(), bytes_.begin()), "the disk holds every write");
        ground().reset();
    }

    void step()
    {
        switch (in_.word(1) % 8) {
        case 0:
            return openFile();
        case 1:
            return write();
        case 2:
            return map();
        case 3:
            return touch();
        case 4:
            if (auto& area = areas_[in_.word(1) % areas_.size()])
                area.reset();
            return;
        default:
            return command();
        }
    }

  private:
    void openFile()
    {
        auto& file = files_[in_.word(1) % files_.size()];
        if (!file)
            (void)hosted::open_control(QUENDREL_CHRDEV_MAJOR, memory_, file);
    }

    hosted::ControlFile* anyFile()
    {
        const u32 first = in_.word(1);
        for (u32 i = 0; i < files_.size(); i++)
            if (auto& file = files_[(first + i) % files_.size()])
                return file.get();
        return nullptr;
    }

    // An address: mostly a usable one, sometimes at an edge, sometimes anything.
    u32 pointer()
    {
        switch (in_.word(1) % 8) {
        case 0:
            return in_.word();
        case 1:
            return readOnly_;
        case 2:
            return scratch_ + 64 * 1024 - in_.word(1) % 128;
        case 3:
            for (auto& area : areas_)
                if (area)
                    return area->start();
            return 0;
        default:
            return scratch_ + 4096 + in_.word(1) * 64;
        }
    }

    // A number: mostly one that means something here.
    u32 number()
    {
        switch (in_.word(1) % 6) {
        case 0:
            return in_.word();
        case 1:
            return kBlocks;
        case 2:
            return in_.word(1) % (kBlocks + 4);
        case 3:
            return 8;
        case 4:
            return 1;
        default:
            return in_.word(2);
        }
    }

    void command()
    {
        hosted::ControlFile* file = anyFile();
        if (!file)
            return;
        const u32 known = kCommands[in_.word(1) % kCommands.size()];
        const u32 cmd = in_.word(1) % 16 == 0 ? in_.word() : known;
        std::array<u32, 8> record{};
        for (u32& word : record)
            word = in_.word(1) % 2 ? pointer() : number();
        switch (cmd) {
        case QUENDREL_START_BACKUP:
            if (in_.word(1) % 8)
                record = {8, 1, kBlocks, in_.word(1)};
            record[2] %= kMostBlocks;
            break;
        case QUENDREL_GET_BLOCK_SIZE:
            record[0] = 8;
            record[1] = in_.word(1) % 3;
            break;
        case QUENDREL_LOAD_BLOCK_MAP:
        case QUENDREL_GET_AUTOMAP:
            if (in_.word(1) % 8) {
                const std::array<u32, 2> map = {pointer(), in_.word(1) % 8 ? kBlocks : number() % kMostBlocks};
                std::memcpy(memory_->at(scratch_ + 256), map.data(), sizeof map);
                record[0] = scratch_ + 256;
            }
            break;
        default:
            break;
        }
        std::memcpy(memory_->at(scratch_), record.data(), sizeof record);
        (void)file->ioctl(cmd, in_.word(1) % 16 == 0 ? pointer() : scratch_);
    }

    void map()
    {
        hosted::ControlFile* file = anyFile();
        auto& area = areas_[in_.word(1) % areas_.size()];
        if (!file || area)
            return;
        hosted::MmapArguments arguments;
        arguments.address = 0x40000000u + (in_.word(1) % 4) * 0x01000000u;
        arguments.bytes = (1 + in_.word(2) % 260) * PAGE_BYTES;
        arguments.flags = in_.word(1) % 4 ? VM_READ : in_.word(1) & 11;
        arguments.page_offset = in_.word(1) % 8 ? 0 : in_.word(1);
        (void)file->mmap(arguments, area);
    }

    void touch()
    {
        if (auto& area = areas_[in_.word(1) % areas_.size()])
            if (const std::byte* page = area->fault(in_.word(2) % area->pages()))
                sum_ += unsigned(page[in_.word(2) % PAGE_BYTES]);
    }

    void write()
    {
        const u32 sector = in_.word(2) % (kBlocks * 8);
        const u32 sectors = 1 + in_.word(1) % std::min<u32>(32, kBlocks * 8 - sector);
        const std::vector<std::byte> data(sectors * 512, std::byte(in_.word(1)));
        require(disk_->write(u64(sector) * 512, data, 1) == 0, "a write succeeds");
        std::copy(data.begin(), data.end(), written_.begin() + long((kPartitionStart + sector) * 512));
    }

    Input& in_;
    std::shared_ptr<hosted::SimulatedMemory> memory_;
    std::shared_ptr<hosted::Disk> disk_;
    std::span<std::byte> bytes_;
    std::vector<std::byte> written_;
    std::array<std::unique_ptr<hosted::ControlFile>, 3> files_;
    std::array<std::unique_ptr<hosted::Mapping>, 3> areas_;
    u32 scratch_ = 0, readOnly_ = 0;
    unsigned sum_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    Session session(input);
    for (unsigned steps = 0; !input.empty() && steps < 200; steps++)
        session.step();
    return 0;
}
