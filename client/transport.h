/* SPDX-License-Identifier: GPL-2.0-only */
// How commands reach the driver: the seam between the typed interface and the two ways to the control device.
//
// A transport is one open file of the control device. Results are the driver's own: 0, a small positive code, or a
// negative errno. One thread at a time uses a transport. Destroying it closes the file, which ends its backup; when
// the destructor returns the driver has finished closing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace quendrel
{

class Transport
{
  public:
    struct Mapping {
        int result = 0; // 0, or why there is no mapping
        std::byte* data = nullptr;
    };

    virtual ~Transport() = default;
    // `argument` is an address below 4 GiB whose record the driver reads and writes, or 0.
    virtual int command(std::uint32_t number, std::uint32_t argument) = 0;
    // A read-only transfer mapping of `bytes` (whole pages) below 4 GiB.
    virtual Mapping map(std::size_t bytes) = 0;
    virtual void unmap(std::byte* data, std::size_t bytes) noexcept = 0;
    // How many files of the control device have been closed, or nothing when this way does not tell.
    virtual std::optional<std::uint64_t> closes() const { return std::nullopt; }
    // After a fork: this process gives the commands from now on, not the one that did. 0, or why it cannot.
    virtual int takeOver() { return 0; }
};

// Opens the control device at `path`: a character device node, or a socket of the daemon. Throws Error ("open").
std::unique_ptr<Transport> openTransport(const std::string& path);

// The two ways, for openTransport.
std::unique_ptr<Transport> openNodeTransport(const std::string& path);
std::unique_ptr<Transport> openSocketTransport(const std::string& path);

} // namespace quendrel
