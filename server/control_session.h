/* SPDX-License-Identifier: GPL-2.0-only */
// One client's open file of the control device: its packets in, replies out, without the socket.
//
// Nothing of a packet is trusted. A packet of the wrong size, an unknown kind or an argument that no kernel would
// let through ends the session; everything else is the driver's to judge. Destroying the session closes the file in
// the order of a dying process: mappings first.
#pragma once

#include "client/socket_protocol.h"
#include "device_observer.h"
#include "hosted.h"

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>

namespace quendreld
{

// A client's memory, in which the device number of one record stays what it was when it was looked at, whatever the
// client does meanwhile.
class ClientMemory final : public hosted::AddressSpace
{
  public:
    using Number = std::array<u32, 2>; // major, minor

    explicit ClientMemory(std::shared_ptr<hosted::AddressSpace> memory) : memory_(std::move(memory)) {}
    // Another process is the client from now on.
    void replace(std::shared_ptr<hosted::AddressSpace> memory) { memory_ = std::move(memory); }
    // The number at the start of a record, which reads there give from now on; nothing when it cannot be read.
    std::optional<Number> hold_number(u32 record);
    void let_go() { held_.reset(); }
    std::size_t read(u32 from, void* to, std::size_t bytes) override;
    std::size_t write(u32 to, const void* from, std::size_t bytes) override { return memory_->write(to, from, bytes); }

  private:
    std::shared_ptr<hosted::AddressSpace> memory_;
    u32 record_ = 0;
    std::optional<Number> held_;
};

class ControlSession
{
  public:
    // `alone`: no other session has the control device open while this one has. `observer` may be null.
    ControlSession(std::shared_ptr<hosted::AddressSpace> memory, bool alone, DeviceObserver* observer = nullptr)
        : memory_(std::make_shared<ClientMemory>(std::move(memory))), alone_(alone), observer_(observer)
    {
    }
    ~ControlSession();
    ControlSession(const ControlSession&) = delete;
    ControlSession& operator=(const ControlSession&) = delete;

    // Opens the control device; the result of the driver's open. Once, before the first packet.
    int open();

    struct Answer {
        quendrel::wire::Reply reply;
        std::size_t bytes; // of the reply that are sent
        bool pass_memory;  // the transfer memory's descriptor goes with it
    };
    // The answer to one packet; nothing when the session is over.
    std::optional<Answer> handle(const void* packet, std::size_t bytes);

    static Answer answer(int result); // with no pages

    // Another process takes over; whether it may is the caller's to judge. Between two packets.
    static bool is_take_over(const void* packet, std::size_t bytes);
    void take_over(std::shared_ptr<hosted::AddressSpace> memory) { memory_->replace(std::move(memory)); }

  private:
    std::optional<Answer> map(const quendrel::wire::Request& request);
    int command(u32 number, u32 argument);
    int start(u32 record);

    static constexpr std::size_t most_mappings = 64;

    std::shared_ptr<ClientMemory> memory_;
    bool alone_;
    bool began_ = false; // a StartBackup has taken the driver's one backup
    DeviceObserver* observer_;
    std::optional<kdev_t> backed_up_; // the observer knows of its backup
    std::unique_ptr<hosted::ControlFile> file_;
    std::map<u32, std::unique_ptr<hosted::Mapping>> mappings_; // by first address
};

} // namespace quendreld
