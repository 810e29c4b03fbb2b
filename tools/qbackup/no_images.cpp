// SPDX-License-Identifier: GPL-2.0-only
// In place of what needs libnbd, libblkid and libext2fs, in a program that is linked with no shared library: it runs on any kernel,
// and repositories of images are not for it.
#include "child_process.h"
#include "device_identity.h"
#include "failure.h"
#include "qemu_image.h"
#include "used_blocks.h"

namespace qbackup
{
namespace
{

[[noreturn]] void refuse()
{
    throw Failure{Exit::refused, "this is the qbackup that runs everywhere; repositories of images need the other one, of the package "
                                 "quendrel. Give a target that is no such repository, and import it from there"};
}

} // namespace

void requireQemu() { refuse(); }
void createImage(const fs::path&, std::uint64_t, const std::string&) { refuse(); }
void createCompressed(const fs::path&, std::uint64_t) { refuse(); }
void endCompressed(const fs::path&, std::uint64_t) { refuse(); }
void expectUtf8(const fs::path&) {}
std::string nameBelow(const fs::path&) { refuse(); }
std::string imageChain(const fs::path&, std::span<const fs::path>) { refuse(); }

OpenImage::OpenImage(const fs::path&, For what, std::span<const fs::path>) : what_{what} { refuse(); }
OpenImage::~OpenImage() = default;
std::int64_t OpenImage::write(std::uint64_t, std::span<const std::byte>) { refuse(); }
std::int64_t OpenImage::zero(std::uint64_t, std::uint64_t) { refuse(); }
std::int64_t OpenImage::read(std::uint64_t, std::span<std::byte>) { refuse(); }
void OpenImage::wait(std::int64_t) { refuse(); }
void OpenImage::flush() { refuse(); }
void OpenImage::finish() { refuse(); }
std::uint64_t OpenImage::size() { refuse(); }
OpenImage::Layout OpenImage::layout() { refuse(); }

UsedBlocks usedBlocks(std::uint32_t, std::uint32_t blocks, std::uint32_t, const BlockReader&) { return {quendrel::Bitmap{blocks, true}, "this qbackup cannot tell"}; }

DeviceIdentity identityOf(const Device&, const fs::path&) { refuse(); }

} // namespace qbackup
