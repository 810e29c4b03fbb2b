// SPDX-License-Identifier: GPL-2.0-only
// Disks in files: through the page cache and past it, with io_uring and without.
#include "test_driver.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

using namespace hosted;
using test_driver::MemoryDisk;

namespace
{

constexpr std::uint64_t mebibyte = 1 << 20;

class Image
{
  public:
    explicit Image(std::uint64_t bytes)
    {
        // In the build directory, not in /tmp: a tmpfs knows no O_DIRECT on older kernels.
        char name[] = "hosted_image_XXXXXX";
        int fd = mkstemp(name);
        path = name;
        EXPECT_EQ(ftruncate(fd, off_t(bytes)), 0);
        close(fd);
    }
    ~Image() { unlink(path.c_str()); }
    std::vector<std::byte> content() const
    {
        std::ifstream in(path, std::ios::binary);
        std::vector<char> all((std::istreambuf_iterator<char>(in)), {});
        auto* first = reinterpret_cast<std::byte*>(all.data());
        return {first, first + all.size()};
    }
    std::string path;
};

struct Case {
    const char* name;
    FileStoreOptions options;
};

class FileStoreTest : public testing::TestWithParam<Case>
{
};

std::unique_ptr<MemoryDisk> serve(const Image& image, FileStoreOptions options)
{
    return std::make_unique<MemoryDisk>(0, std::vector<PartitionSpec>{}, open_file_store(image.path, options));
}

} // namespace

TEST_P(FileStoreTest, KeepsWhatWasWrittenAtAnyPlaceAndSize)
{
    constexpr std::uint64_t size = 8 * mebibyte + 512;
    Image image(size);
    auto d = serve(image, GetParam().options);
    ASSERT_EQ(d->disk->size(), size);
    std::vector<std::byte> model(size);
    std::mt19937 random(7);
    std::vector<std::byte> buffer(2 * mebibyte + 1);
    for (int i = 0; i < 300; ++i) {
        std::uint64_t bytes = 512 * (1 + random() % (i % 20 == 0 ? 3000 : 40));
        std::uint64_t offset = random() % (size / 512) * 512;
        if (i % 3 == 0) {
            offset &= ~4095ull;
            bytes = (bytes + 4095) & ~4095ull;
        }
        bytes = std::min(bytes, size - offset);
        // An odd address every other time: O_DIRECT does not take it.
        std::byte* data = buffer.data() + i % 2;
        switch (random() % 6) {
        case 0:
            ASSERT_EQ(d->disk->discard(offset, bytes), 0);
            std::fill_n(model.begin() + long(offset), bytes, std::byte{0});
            break;
        case 1:
            ASSERT_EQ(d->disk->write_zeroes(offset, bytes), 0);
            std::fill_n(model.begin() + long(offset), bytes, std::byte{0});
            break;
        case 2:
        case 3:
            for (std::uint64_t k = 0; k < bytes; ++k)
                data[k] = std::byte(random());
            ASSERT_EQ(d->disk->write(offset, {data, std::size_t(bytes)}, 0, i % 5 == 0), 0);
            std::copy_n(data, bytes, model.begin() + long(offset));
            break;
        default:
            ASSERT_EQ(d->disk->read(offset, {data, std::size_t(bytes)}), 0);
            ASSERT_EQ(std::memcmp(data, model.data() + offset, bytes), 0) << "operation " << i;
        }
    }
    ASSERT_EQ(d->disk->flush(), 0);
    d.reset();
    EXPECT_EQ(image.content(), model);
}

TEST(FileStore, ALongReadWhoseSubmitterHasMoreToSendIsCopiedByAnotherThread)
{
    Image image(mebibyte);
    auto store = open_file_store(image.path);
    std::vector<std::byte> content(mebibyte / 2), copy(mebibyte / 2);
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = std::byte(i * 31 >> 5);
    struct Noting : StoreRequest {
        std::thread::id thread;
        int error = 1;
        std::atomic<bool> ended{false};
    };
    const auto transfer = [&](Op op, std::vector<std::byte>& data, bool more) {
        Noting r;
        StoreRequest::Piece piece{data.data(), u32(data.size())};
        r.op = op;
        r.more = more;
        r.offset = 4096;
        r.bytes = data.size();
        r.pieces = {&piece, 1};
        r.done = [](StoreRequest* done, int error) {
            auto* noting = static_cast<Noting*>(done);
            noting->thread = std::this_thread::get_id();
            noting->error = error;
            noting->ended = true;
        };
        store->submit(&r);
        while (!r.ended)
            std::this_thread::yield();
        EXPECT_EQ(r.error, 0);
        return r.thread;
    };
    transfer(Op::write, content, false); // into the page cache
    EXPECT_NE(transfer(Op::read, copy, true), std::this_thread::get_id());
    EXPECT_EQ(copy, content);
    copy.assign(copy.size(), std::byte{0});
    EXPECT_EQ(transfer(Op::read, copy, false), std::this_thread::get_id());
    EXPECT_EQ(copy, content);
}

TEST_P(FileStoreTest, ServesManyRequestsAtOnce)
{
    Image image(4 * mebibyte);
    auto d = serve(image, GetParam().options);
    constexpr int requests = 256;
    struct Buffer {
        alignas(4096) std::byte bytes[4096];
    };
    auto buffers = std::make_unique<Buffer[]>(requests);
    std::vector<GuestRequest> all(requests);
    std::atomic<int> done{0};
    for (Op op : {Op::write, Op::read}) {
        done = 0;
        for (int i = 0; i < requests; ++i) {
            std::memset(buffers[i].bytes, op == Op::write ? i : 0xEE, sizeof buffers[i].bytes);
            all[std::size_t(i)] = {};
            GuestRequest& r = all[std::size_t(i)];
            r.op = op;
            r.offset = std::uint64_t(i * 37 % requests) * 4096;
            r.bytes = 4096;
            r.data = buffers[i].bytes;
            r.context = &done;
            r.done = [](GuestRequest* finished, int error) {
                EXPECT_EQ(error, 0);
                ++*static_cast<std::atomic<int>*>(finished->context);
            };
            d->disk->submit(&r);
        }
        while (done != requests)
            std::this_thread::yield();
    }
    for (int i = 0; i < requests; ++i)
        EXPECT_EQ(buffers[i].bytes[4095], std::byte(i));
}

INSTANTIATE_TEST_SUITE_P(Ways, FileStoreTest,
                         testing::Values(Case{"CachedRing", {false, false, true}},
                                         Case{"CachedPool", {false, false, false}},
                                         Case{"DirectRing", {true, false, true}},
                                         Case{"DirectPool", {true, false, false}}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(FileStore, SaysWhatIsWrongWithAPath)
{
    auto message = [](const std::string& path, FileStoreOptions options = {}) -> std::string {
        try {
            open_file_store(path, options);
        } catch (const std::system_error& e) {
            return e.what();
        }
        return "no error";
    };
    EXPECT_NE(message("/nonexistent/disk.img").find("/nonexistent/disk.img: cannot be used as a disk"),
              std::string::npos);
    EXPECT_NE(message("/dev/null").find("neither an image file nor a block device"), std::string::npos);
    Image empty(0);
    EXPECT_NE(message(empty.path).find("smaller than one sector"), std::string::npos);
    Image image(mebibyte);
    auto first = open_file_store(image.path);
    const std::string held = "another program (a second daemon?) serves it already; stop that one first";
    EXPECT_NE(message(image.path).find(held), std::string::npos);
    EXPECT_NE(message(image.path, {false, true, true}).find(held), std::string::npos) << "it changes while it is read";
}

TEST(FileStore, AReadOnlyStoreRefusesChanges)
{
    Image image(mebibyte);
    auto d = serve(image, {false, true, true});
    std::byte sector[512] = {};
    EXPECT_EQ(d->disk->read(0, sector), 0);
    EXPECT_EQ(d->disk->write(0, sector), -EROFS);
    EXPECT_EQ(d->disk->discard(0, 512), -EROFS);
    EXPECT_EQ(d->disk->flush(), 0);
}

TEST(FileStore, AFileThatBecameShorterGivesAnError)
{
    Image image(mebibyte);
    auto d = serve(image, {});
    ASSERT_EQ(truncate(image.path.c_str(), 4096), 0);
    std::byte sector[512] = {};
    EXPECT_EQ(d->disk->read(0, sector), 0);
    EXPECT_EQ(d->disk->read(8192, sector), -EIO);
}
