/* SPDX-License-Identifier: GPL-2.0-only */
// One client's open file of the control device: its packets in, replies out, without the socket.
//
// Nothing of a packet is trusted. A packet of the wrong size, an unknown kind or an argument that no kernel would
// let through ends the session; everything else is the driver's to judge. Destroying the session closes the file in
// the order of a dying process: mappings first.
#pragma once

#include "client/socket_protocol.h"
#include "hosted.h"

#include <cstddef>
#include <map>
#include <memory>
#include <optional>

namespace quendreld
{

class ControlSession
{
  public:
    explicit ControlSession(std::shared_ptr<hosted::AddressSpace> memory) : memory_(std::move(memory)) {}
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

  private:
    std::optional<Answer> map(const quendrel::wire::Request& request);

    static constexpr std::size_t most_mappings = 64;

    std::shared_ptr<hosted::AddressSpace> memory_;
    std::unique_ptr<hosted::ControlFile> file_;
    std::map<u32, std::unique_ptr<hosted::Mapping>> mappings_; // by first address
};

} // namespace quendreld
