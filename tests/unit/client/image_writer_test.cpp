// SPDX-License-Identifier: GPL-2.0-only
// What an image and its sums hold, however the blocks come: in whatever portions, copied or written from where they
// lie.
#include "support.h"

#include "image_layer.h"
#include "image_writer.h"

#include <algorithm>
#include <random>

namespace
{

using namespace test;

constexpr std::size_t granule = image_granule_bytes;
constexpr std::size_t device_bytes = 48u << 20; // more than fits into the way to QEMU

class Written : public ::testing::Test
{
  protected:
    Written()
    {
        // Stretches of data and of zeros, of all lengths.
        for (std::size_t at = 0; at < contents.size();) {
            const std::size_t end = std::min(contents.size(), at + (std::size_t{1} << random() % 9) * granule);
            if (random() % 3 != 0)
                std::generate(contents.begin() + static_cast<std::ptrdiff_t>(at),
                              contents.begin() + static_cast<std::ptrdiff_t>(end),
                              [&] { return static_cast<std::byte>(random() % 255 + 1); });
            at = end;
        }
    }

    struct Result {
        std::string sums;
        std::vector<std::byte> read = std::vector<std::byte>(device_bytes);
    };

    // In portions of at most so many granules.
    Result written(const std::string& name, std::size_t most, bool held)
    {
        const fs::path image = directory / (name + ".qcow2");
        const fs::path sums = directory / (name + ".sums");
        createImage(image, device_bytes, "");
        Result result;
        {
            ImageWriter writer{image, sums, ZerosAre::there};
            for (std::size_t at = 0; at < device_bytes;) {
                const std::size_t bytes = std::min(device_bytes - at, (random() % most + 1) * granule);
                const auto portion = std::span{contents}.subspan(at, bytes);
                // Spoilt when nobody holds it any more.
                const std::shared_ptr<std::byte[]> copy{new std::byte[bytes], [bytes](std::byte* data) {
                                                            std::fill_n(data, bytes, std::byte{0xee});
                                                            delete[] data;
                                                        }};
                std::ranges::copy(portion, copy.get());
                writer.put(at, {copy.get(), bytes}, held ? Hold{copy} : nullptr);
                most_held = std::max<std::size_t>(most_held, static_cast<std::size_t>(copy.use_count()) - 1);
                at += bytes;
            }
            result.sums = writer.finish();
        }
        ImageLayer layer{image, sums, result.sums, device_bytes};
        while (const auto piece = layer.next())
            std::ranges::copy(piece->data, result.read.begin() + static_cast<std::ptrdiff_t>(piece->offset));
        return result;
    }

    std::mt19937 random{1};
    std::vector<std::byte> contents = std::vector<std::byte>(device_bytes);
    Directory directory;
    std::size_t most_held = 0; // of one portion, by how many writes
};

TEST_F(Written, IsTheSameInWhateverPortionsItCame)
{
    const Result whole = written("whole", device_bytes / granule, false);
    EXPECT_TRUE(whole.read == contents);
    for (const std::size_t most : {1u, 20u, 100u, 700u}) {
        const Result parts = written(std::to_string(most), most, false);
        EXPECT_TRUE(parts.read == contents) << most;
        EXPECT_EQ(parts.sums, whole.sums) << most;
    }
    EXPECT_EQ(most_held, 0u);
}

// As where blocks are smaller than a granule, and one of them was read ahead of its turn.
TEST_F(Written, IsReadBackWhateverPartOfAGranuleIsZeros)
{
    constexpr std::size_t block = 1024;
    contents.assign(contents.size(), std::byte{0});
    for (std::size_t at = 0; at < contents.size(); at += block)
        if (random() % 3 == 0)
            std::fill_n(contents.begin() + static_cast<std::ptrdiff_t>(at), block, std::byte{7});
    for (const bool held : {false, true}) {
        const fs::path image = directory / (held ? "held.qcow2" : "copied.qcow2");
        const fs::path sums = directory / (held ? "held.sums" : "copied.sums");
        createImage(image, device_bytes, "");
        std::string hash;
        {
            ImageWriter writer{image, sums, ZerosAre::there};
            const std::shared_ptr<std::byte[]> copy{new std::byte[device_bytes]};
            std::ranges::copy(contents, copy.get());
            for (std::size_t at = 0; at < device_bytes;) {
                const std::size_t bytes = std::min(device_bytes - at, (random() % 8 == 0 ? random() % 400 + 1 : random() % 6 + 1) * block);
                writer.put(at, {copy.get() + at, bytes}, held ? Hold{copy} : nullptr);
                at += bytes;
            }
            hash = writer.finish();
        }
        std::vector<std::byte> read(device_bytes);
        ImageLayer layer{image, sums, hash, device_bytes};
        while (const auto piece = layer.next())
            std::ranges::copy(piece->data, read.begin() + static_cast<std::ptrdiff_t>(piece->offset));
        EXPECT_TRUE(read == contents);
    }
}

// A device that ends within a cluster, and has blocks that are smaller than what the image keeps apart.
TEST_F(Written, IsReadBackFromACompressedImageInWhateverPortionsItCame)
{
    constexpr std::size_t block = 1024;
    constexpr std::size_t bytes = device_bytes / 4 - 70 * block;
    constexpr std::size_t sized = bytes + 700; // what lies beyond the last block is not the device's
    contents.resize(bytes);
    for (const bool held : {false, true})
        for (const std::size_t most : {3u, 300u, 5000u}) {
            const std::string name = std::to_string(most) + (held ? "held" : "copied");
            const fs::path image = directory / (name + ".qcow2");
            const fs::path sums = directory / (name + ".sums");
            createCompressed(image, sized);
            std::string hash;
            std::uint64_t data = 0;
            {
                ImageWriter writer{image, sums, sized};
                const std::shared_ptr<std::byte[]> copy{new std::byte[bytes]};
                std::ranges::copy(contents, copy.get());
                for (std::size_t at = 0; at < bytes;) {
                    const std::size_t part = std::min(bytes - at, (random() % most + 1) * block);
                    if (std::all_of(copy.get() + at, copy.get() + at + part, [](std::byte byte) { return byte == std::byte{0}; }))
                        writer.putZeros(at, part);
                    else
                        writer.put(at, {copy.get() + at, part}, held ? Hold{copy} : nullptr);
                    at += part;
                }
                hash = writer.finish();
                data = writer.dataBytes();
                EXPECT_EQ(writer.received(), bytes);
            }
            std::vector<std::byte> read(bytes);
            std::uint64_t told = 0;
            ImageLayer layer{image, sums, hash, sized};
            while (const auto piece = layer.next()) {
                std::ranges::copy(piece->data, read.begin() + static_cast<std::ptrdiff_t>(piece->offset));
                told += piece->data.size();
            }
            EXPECT_TRUE(read == contents) << name;
            EXPECT_EQ(told, data) << name;
            EXPECT_EQ(std::system(("qemu-img check -q '" + image.string() + "'").c_str()), 0);
        }
}

// Such images were written before.
TEST_F(Written, MayTellOfZerosInAGranuleThatHasDataToo)
{
    const auto image = [&](std::byte first) {
        const fs::path path = directory / ("old" + std::to_string(std::to_integer<int>(first)) + ".qcow2");
        const fs::path sums = fs::path{path}.replace_extension(".sums");
        createImage(path, device_bytes, "");
        std::vector<std::byte> data(4 * granule, std::byte{7});
        std::fill_n(data.begin(), 1024, first);
        std::fill_n(data.end() - 2048, 2048, std::byte{0});
        OpenImage open{path, OpenImage::For::writing};
        open.wait(open.write(0, data));
        open.flush();
        open.finish();
        SumsWriter writer{sums};
        LayerPiece zeros;
        zeros.zeros = true;
        zeros.bytes = 1024;
        writer.add(zeros);
        addPieces(writer, 1024, std::span{data}.subspan(1024, data.size() - 3072));
        zeros.offset = data.size() - 2048;
        zeros.bytes = device_bytes - zeros.offset;
        writer.add(zeros);
        return ImageLayer{path, sums, writer.finish(), device_bytes};
    };
    ImageLayer good = image(std::byte{0});
    std::uint64_t bytes = 0;
    while (const auto piece = good.next())
        bytes += piece->bytes;
    EXPECT_EQ(bytes, device_bytes);
    ImageLayer bad = image(std::byte{1});
    EXPECT_THROW(bad.next(), Failure);
}

TEST_F(Written, IsTheSameFromWhereItLies)
{
    const Result copied = written("copied", 100, false);
    for (const std::size_t most : {1u, 20u, 100u, 700u}) {
        const Result held = written(std::to_string(most), most, true);
        EXPECT_TRUE(held.read == contents) << most;
        EXPECT_EQ(held.sums, copied.sums) << most;
    }
    EXPECT_GE(most_held, 1u);
}

} // namespace
