/* SPDX-License-Identifier: GPL-2.0-only */
// Writes into an image, in ascending order: pieces of data are hashed and written while the next ones come, zeros are
// made. What was written is told in a file of sums.
//
// Data that is compressed goes in whole clusters: zeros are left out where a whole one is zeros, and are data elsewhere.
#pragma once

#include "layer_sums.h"
#include "qemu_image.h"
#include "stored_backup.h"

#include <array>
#include <optional>

namespace qbackup
{

// Whether zeros have to be made, as over another image or over data, or are what an image holds where nothing was written.
enum class ZerosAre { written, there };

// Writes that have been sent and not been answered yet.
constexpr std::size_t image_writes_under_way = 16;

class ImageWriter
{
  public:
    // `sums`: a new file; empty: none is made. Throws Failure.
    ImageWriter(const fs::path& image, const fs::path& sums, ZerosAre zeros);
    // Into a new image that was made for compressed data, of a device of that many bytes. All of it has to come, from its
    // start on, without a gap.
    ImageWriter(const fs::path& image, const fs::path& sums, std::uint64_t device_bytes);

    // What comes with `hold` may be written from where it lies, and is held until it is; anything else is copied.
    void put(std::uint64_t offset, std::span<const std::byte> bytes, const Hold& hold = nullptr);
    void putZeros(std::uint64_t offset, std::uint64_t bytes);
    // Makes the image and the sums durable; the hash of the sums, if there are any.
    std::string finish();

    std::uint64_t dataBytes() const noexcept { return data_bytes_; }
    // With zeros.
    std::uint64_t received() const noexcept { return received_; }

  private:
    struct Slot {
        std::vector<std::byte> data; // made when it is first needed
        Hold hold;                   // of data elsewhere
        std::int64_t request = 0;    // none: 0
    };

    void settle(Slot& slot);
    Slot& current() { return slots_[slot_]; }
    void nextSlot();
    void addData(std::uint64_t offset, std::span<const std::byte> part);
    void endData();
    void sendHeld(std::uint64_t offset, std::span<const std::byte> data, const Hold& hold);
    void send(std::uint64_t offset, std::span<const std::byte> data, std::size_t padding = 0);
    void addZeros(std::uint64_t offset, std::uint64_t bytes);
    void endZeros();

    fs::path path_;
    std::array<Slot, image_writes_under_way> slots_; // used in turn; the current one is free
    std::size_t slot_ = 0;
    OpenImage image_; // behind what it writes from: ends before that goes
    std::optional<SumsWriter> sums_;
    ZerosAre zeros_are_;
    std::optional<std::uint64_t> compressed_; // then the bytes of the device
    std::uint32_t granule_ = image_granule_bytes; // no zeros are told apart that are less
    // Being gathered, at most one of the two; the data in the current slot.
    std::uint64_t data_at_ = 0;
    std::uint32_t data_size_ = 0;
    LayerPiece zeros_;
    std::uint64_t data_bytes_ = 0;
    std::uint64_t received_ = 0;
};

} // namespace qbackup
