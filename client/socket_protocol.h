/* SPDX-License-Identifier: GPL-2.0-only */
// What crosses the daemon's control socket.
//
// The socket is SOCK_SEQPACKET: one packet a message. A connection is one open file of the control device; the
// daemon opens it when the client connects and answers with a Reply that holds the result of the open. From then on
// each Request has exactly one Reply, in order. Closing the connection, or dying, closes the file.
//
// A command's argument and the pointers inside its record are addresses in the client's memory below 4 GiB. The
// daemon reads and writes them there itself, so the thread that sends the request must leave them alone until the
// reply. It is the memory of the client's process: of the one that connected, until another one that holds the socket
// too, a forked child, has taken over. From then on that one is the client, and a request of the former, unless it takes
// over in its turn, ends the connection. A daemon that knows take_over says so in its disks.json ("takeOver": true).
//
// A mapping: the client reserves the address range, asks for it, and on result 0 maps page i of the range from the
// transfer memory at pages[i] x 4096, MAP_PRIVATE and PROT_READ. The descriptor of the transfer memory comes with
// the reply (SCM_RIGHTS) of every successful mmap. Closing a mapping: unmap first, then tell.
//
// A taking over has no arguments, and the result 0; the client stays the same user's. Mappings stay.
//
// A packet of a wrong size, an unknown kind or a wrong argument ends the connection.
#pragma once

#include <cstdint>

namespace quendrel::wire {

constexpr std::uint32_t protocol_version = 1;

enum class Kind : std::uint32_t { ioctl = 1, mmap = 2, munmap = 3, take_over = 4 };

struct Request {
    Kind kind;
    std::uint32_t a;  // ioctl: command; mmap, munmap: address
    std::uint32_t b;  // ioctl: argument; mmap: bytes
    std::uint32_t c;  // mmap: flags, 1 read, 2 write, 8 shared
    std::uint32_t d;  // mmap: page offset
};
static_assert(sizeof(Request) == 20);

constexpr std::uint32_t max_pages = 256;

struct Reply {
    std::int32_t result;    // of open, ioctl or mmap: 0, the driver's positive code, or a negative errno
    std::uint32_t version;  // protocol_version
    std::uint32_t count;    // mmap: pages that follow, else 0
    std::uint32_t pages[max_pages];  // only `count` of them are sent
};
constexpr std::uint32_t reply_header_bytes = 12;
static_assert(sizeof(Reply) == reply_header_bytes + 4 * max_pages);

}  // namespace quendrel::wire
