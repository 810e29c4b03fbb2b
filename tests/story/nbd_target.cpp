// SPDX-License-Identifier: GPL-2.0-only
// The story's blocks in an NBD export. Now and then, like a file system, it wants to be sure that they are durable.
#include "block_target.h"

#include <libnbd.h>

#include <stdexcept>

namespace
{

class NbdTarget final : public BlockTarget
{
  public:
    explicit NbdTarget(const std::string& uri) : uri_(uri), nbd_(nbd_create(), nbd_close)
    {
        if (!nbd_ || nbd_connect_uri(nbd_.get(), uri.c_str()) != 0)
            fail();
    }

    void write(std::uint64_t offset, std::span<const char> bytes) override
    {
        ++writes_;
        const bool durable = writes_ % 8 == 0 && nbd_can_fua(nbd_.get()) > 0;
        if (nbd_pwrite(nbd_.get(), bytes.data(), bytes.size(), offset, durable ? LIBNBD_CMD_FLAG_FUA : 0) != 0)
            fail();
        if (writes_ % 32 == 0 && nbd_can_flush(nbd_.get()) > 0 && nbd_flush(nbd_.get(), 0) != 0)
            fail();
    }

  private:
    [[noreturn]] void fail() const { throw std::runtime_error(uri_ + ": " + nbd_get_error()); }

    std::string uri_;
    std::uint64_t writes_ = 0;
    std::unique_ptr<nbd_handle, void (*)(nbd_handle*)> nbd_;
};

} // namespace

std::unique_ptr<BlockTarget> open_block_target(const std::string& name) { return std::make_unique<NbdTarget>(name); }
