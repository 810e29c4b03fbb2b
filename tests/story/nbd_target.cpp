// SPDX-License-Identifier: GPL-2.0-only
// The story's blocks in an NBD export.
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
        if (nbd_pwrite(nbd_.get(), bytes.data(), bytes.size(), offset, 0) != 0)
            fail();
    }

  private:
    [[noreturn]] void fail() const { throw std::runtime_error(uri_ + ": " + nbd_get_error()); }

    std::string uri_;
    std::unique_ptr<nbd_handle, void (*)(nbd_handle*)> nbd_;
};

} // namespace

std::unique_ptr<BlockTarget> open_block_target(const std::string& name) { return std::make_unique<NbdTarget>(name); }
