/* SPDX-License-Identifier: GPL-2.0-only */
// One NBD connection: the handshake, then requests in and replies out.
//
// - One thread a connection takes requests off the socket, as many as are there at a time, and hands each to the disk
//   without waiting for it. A reply goes out when its request is through, from whichever thread that is, so replies
//   overtake each other freely.
// - Nothing that sends ever waits: what the socket does not take stays in a queue, and the connection's thread sends
//   it on when there is room. So a client that does not read holds up nobody but itself.
// - The data of a small write stays where it was received, in a piece of memory that the write shares with its
//   neighbours; a large one is received straight into memory of its own.
// - What a client can make the daemon hold is bounded: beyond `most_held` bytes of data, `most_requests` requests that
//   are not answered yet or `most_inputs` such pieces, nothing more is read from it.
#pragma once

#include "base/descriptor.h"
#include "nbd/buffers.h"
#include "nbd/negotiation.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace quendreld::nbd
{

// What all connections of a server share; it outlives them.
struct Shared {
    Exports exports;
    Buffers buffers;
    std::function<void(std::string_view)> report; // a line for the log
};

class Connection
{
  public:
    // `wake`: a non-blocking eventfd of the connection's own.
    Connection(base::Descriptor socket, base::Descriptor wake, Shared& shared);
    ~Connection();

    // Serves the client until it leaves; on the connection's own thread, once. When this returns no request is under
    // way and the socket is closed.
    void run() noexcept;
    // Nothing more is received but what lies in the socket already; what was accepted is still done and answered. A
    // handshake ends at once. From any thread, until run returned.
    void hang_up();

    static constexpr std::size_t most_held = 16 << 20;
    static constexpr unsigned most_requests = 1024;
    static constexpr unsigned most_inputs = 64; // pieces of memory that small writes were received into
    // Of replies in the socket, besides: room for several large ones. With the usual 208 KiB each of them waits in the
    // middle for its client.
    static constexpr int send_buffer = 4 << 20;
    static constexpr auto handshake_patience = std::chrono::seconds(30);
    // For a client to take its last replies, from when they are ready.
    static constexpr auto goodbye_patience = std::chrono::seconds(3);

  private:
    struct Request;
    struct Input;

    // Why no more requests are taken: all that is there has been, those under way are enough, no more will come.
    enum class Taken { all, enough, over };

    void serve();
    Taken take_requests();
    void take_request(const std::byte* header);
    void begin_read(Request* r);
    bool begin_write(Request* r);
    bool end_of_filling();
    void begin_status(Request* r, bool only_one);
    bool receive();
    void make_room();

    Request* new_request(const std::byte* header);
    void submit(Request* r);
    static void disk_done(IoRequest* io, int error);
    void complete(Request* r, int error); // 0 or a negative errno: makes its reply
    void flush();
    void say_goodbye();

    bool paused() const;
    bool wait(bool reading, int patience_ms);
    void append(Request* first, Request** end);
    void send_queue();
    void drop_queue();
    void recycle(Request* r);
    void wake();

    Shared& shared_;
    base::Descriptor socket_;
    base::Descriptor wake_; // the connection's thread looks again
    Agreement agreement_;
    std::atomic<bool> stop_ = false; // hang_up was called

    // Of the connection's thread alone.
    std::shared_ptr<Input> input_;    // the small writes that lie in it share it
    std::size_t begin_ = 0, end_ = 0; // what of it is not taken yet
    Request* filling_ = nullptr;      // a large write, or a refused one: its data is still coming
    std::size_t filled_ = 0;
    bool over_ = false;        // the client said goodbye, or broke the rules
    Request* ready_ = nullptr; // replies to requests that were through at once, sent together
    Request** ready_end_ = &ready_;
    unsigned ready_count_ = 0;
    std::size_t ready_bytes_ = 0;

    std::atomic<unsigned> requests_ = 0; // taken and not answered yet; becomes less under out_ only
    std::atomic<std::size_t> held_ = 0;  // bytes of data of theirs; likewise
    std::atomic<unsigned> inputs_ = 0;   // that there are

    std::mutex out_; // guards what follows, and is held while sending; innermost
    Request* queue_ = nullptr;
    Request** queue_end_ = &queue_;
    bool agreed_ = false;   // the handshake is over
    bool broken_ = false;   // nothing can be sent any more
    bool asleep_ = false;   // the connection's thread waits, ...
    bool for_room_ = false; // ... for room in the socket among others, ...
    bool for_end_ = false;  // ... for the end of any request
    Request* spare_ = nullptr;
    std::vector<std::unique_ptr<Request>> all_; // the owner of all requests, under way and spare
};

} // namespace quendreld::nbd
