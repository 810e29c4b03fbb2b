// SPDX-License-Identifier: GPL-2.0-only
#include "nbd/connection.h"

#include "nbd/protocol.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

namespace quendreld::nbd
{

namespace
{

using hosted::Op;

constexpr std::size_t input_bytes = 128 << 10;
// A write of more data than this has memory of its own.
constexpr std::size_t small_write = 32 << 10;
// Replies go out in small groups: one system call a reply is dear, and a client that waits for a whole batch idles.
constexpr unsigned reply_group = 4;
constexpr std::size_t reply_group_bytes = 64 << 10;
constexpr unsigned most_pieces = 64; // of one send
constexpr std::size_t most_extents = 2048;

// The connection that this thread serves.
thread_local const Connection* serving = nullptr;

Error error_number(int error)
{
    switch (-error) {
    case 0:
        return Error::none;
    case EPERM:
    case EROFS:
        return Error::perm;
    case ENOMEM:
        return Error::no_memory;
    case EINVAL:
        return Error::invalid;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return Error::no_space;
    case ENOTSUP:
        return Error::not_supported;
    default:
        return Error::io;
    }
}

bool passing(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

} // namespace

// What was received last. `writes` that lie in it are under way as long as it is not 0, and the memory stays as it is.
struct Connection::Input {
    Input(Buffer room, std::atomic<unsigned>& all) : memory(std::move(room)), count(all)
    {
        if (!memory)
            throw std::bad_alloc();
        count.fetch_add(1);
    }
    ~Input() { count.fetch_sub(1); }
    Buffer memory;
    std::atomic<unsigned>& count;
    std::atomic<unsigned> writes = 0;
};

struct Connection::Request : IoRequest {
    Connection* connection = nullptr;
    Request* next = nullptr; // in a queue, or among the spare ones
    Command command{};
    std::uint16_t flags = 0;
    std::uint64_t cookie = 0;
    std::uint32_t length = 0;
    std::size_t held = 0; // its part of held_
    int refused = 0;      // the data of a refused write is skipped first
    std::shared_ptr<Input> input;
    Buffer buffer;

    // The reply.
    std::byte header[32];
    std::size_t header_bytes = 0;
    std::size_t payload_bytes = 0; // of buffer
    std::size_t sent = 0;          // of both
};

Connection::Connection(base::Descriptor socket, base::Descriptor wake, Shared& shared)
    : shared_(shared), socket_(std::move(socket)), wake_(std::move(wake))
{
}

Connection::~Connection() = default;

void Connection::run() noexcept
{
    serving = this;
    // Without the privilege the host's own bound holds.
    if (::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &send_buffer, sizeof send_buffer) != 0)
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
    try {
        serve();
    } catch (const std::bad_alloc&) {
        shared_.report("an NBD connection ended: no memory");
    }
    say_goodbye();
    std::lock_guard lock(out_);
    socket_.reset();
}

void Connection::hang_up()
{
    stop_ = true;
    std::lock_guard lock(out_);
    if (socket_)
        ::shutdown(socket_.get(), agreed_ ? SHUT_RD : SHUT_RDWR);
    wake();
}

void Connection::serve()
{
    const auto agreement =
        negotiate(socket_.get(), shared_.exports, std::chrono::steady_clock::now() + handshake_patience);
    if (!agreement)
        return;
    agreement_ = *agreement;
    input_ = std::make_shared<Input>(shared_.buffers.take(input_bytes), inputs_);
    {
        std::lock_guard lock(out_);
        agreed_ = true;
    }
    for (;;) {
        const Taken taken = take_requests();
        flush();
        if (taken == Taken::over || (taken == Taken::enough && stop_) || (taken == Taken::all && !receive()))
            return;
        if (taken == Taken::enough)
            wait(false, -1);
    }
}

bool Connection::paused() const
{
    return requests_.load() >= most_requests || held_.load() >= most_held || inputs_.load() >= most_inputs;
}

// ---- Requests in

// Takes what has been received, up to a request that is not complete yet or to the bound.
Connection::Taken Connection::take_requests()
{
    for (;;) {
        if (over_)
            return Taken::over;
        if (filling_)
            return Taken::all;
        if (paused())
            return Taken::enough;
        const std::size_t left = end_ - begin_;
        if (left < request_bytes)
            return Taken::all;
        const std::byte* header = input_->memory.data() + begin_;
        if (load<std::uint32_t>(header) != magic_request) {
            shared_.report("an NBD client sent what is no request; its connection ends");
            return Taken::over;
        }
        const auto command = Command(load<std::uint16_t>(header + 6));
        const auto length = load<std::uint32_t>(header + 24);
        if (command == Command::write && length <= small_write && left < request_bytes + length)
            return Taken::all;
        take_request(header);
        if (ready_count_ >= reply_group || ready_bytes_ >= reply_group_bytes)
            flush();
    }
}

void Connection::take_request(const std::byte* header)
{
    Request* r = new_request(header);
    begin_ += request_bytes;
    unsigned known = command_fua;
    switch (r->command) {
    case Command::read:
        known |= command_df;
        break;
    case Command::write_zeroes:
        known |= command_no_hole | command_fast_zero;
        break;
    case Command::block_status:
        known |= command_req_one;
        break;
    default:
        break;
    }
    const bool bad_flags = r->flags & ~known;
    if (bad_flags && r->command != Command::write)
        return complete(r, -EINVAL);

    r->fua = r->flags & command_fua;
    r->bytes = r->length;
    switch (r->command) {
    case Command::read:
        return begin_read(r);
    case Command::write:
        r->refused = bad_flags ? -EINVAL : 0;
        if (!begin_write(r))
            over_ = true;
        return;
    case Command::disconnect:
        over_ = true;
        {
            std::lock_guard lock(out_);
            recycle(r);
        }
        return;
    case Command::flush:
        r->op = Op::flush;
        r->offset = r->bytes = 0;
        return submit(r);
    case Command::trim:
        r->op = Op::discard;
        return submit(r);
    case Command::write_zeroes:
        // Whether the host's file system is fast at it is not known beforehand.
        if (r->flags & command_fast_zero)
            return complete(r, -ENOTSUP);
        r->op = Op::write_zeroes;
        r->may_unmap = !(r->flags & command_no_hole);
        return submit(r);
    case Command::cache:
        return complete(r, agreement_.disk->prefetch(r->offset, r->bytes));
    case Command::block_status:
        return begin_status(r, r->flags & command_req_one);
    }
    complete(r, -EINVAL);
}

void Connection::begin_read(Request* r)
{
    if (r->length == 0 || r->length > most_payload)
        return complete(r, -EINVAL);
    r->buffer = shared_.buffers.take(r->length);
    if (!r->buffer)
        return complete(r, -ENOMEM);
    r->op = Op::read;
    r->data = r->buffer.data();
    submit(r);
}

// False: the connection is over.
bool Connection::begin_write(Request* r)
{
    if (r->length > most_payload) {
        {
            std::lock_guard lock(out_);
            recycle(r);
        }
        shared_.report("an NBD client sent a write of more than the " + std::to_string(most_payload) +
                       " bytes that it was told; its connection ends");
        return false;
    }
    r->op = Op::write;
    if (r->length <= small_write) {
        if (r->refused) {
            begin_ += r->length;
            complete(r, r->refused);
            return true;
        }
        r->data = input_->memory.data() + begin_;
        r->input = input_;
        input_->writes.fetch_add(1, std::memory_order_relaxed);
        begin_ += r->length;
        submit(r);
        return true;
    }
    if (!r->refused) {
        r->buffer = shared_.buffers.take(r->length);
        if (!r->buffer)
            r->refused = -ENOMEM;
        r->data = r->buffer.data();
    }
    const std::size_t here = std::min<std::size_t>(r->length, end_ - begin_);
    if (!r->refused)
        std::memcpy(r->data, input_->memory.data() + begin_, here);
    begin_ += here;
    filling_ = r;
    filled_ = here;
    end_of_filling();
    return true;
}

void Connection::begin_status(Request* r, bool only_one)
{
    if (!agreement_.allocation || r->length == 0)
        return complete(r, -EINVAL);
    r->buffer = shared_.buffers.take(4 + most_extents * 8);
    if (!r->buffer)
        return complete(r, -ENOMEM);
    std::vector<hosted::Extent> extents;
    if (const int error = agreement_.disk->extents(r->offset, r->length, only_one ? 1 : most_extents, extents))
        return complete(r, error);
    std::byte* at = store(r->buffer.data(), allocation_id);
    for (const hosted::Extent& extent : extents) {
        at = store(at, std::uint32_t(extent.bytes));
        at = store(at, extent.hole ? state_hole | state_zero : 0u);
    }
    r->payload_bytes = std::size_t(at - r->buffer.data());
    complete(r, 0);
}

// Receives something, waiting for it. False: the client has left.
bool Connection::receive()
{
    for (;;) {
        std::byte* to;
        std::size_t room;
        if (filling_ && !filling_->refused) {
            to = filling_->data + filled_;
            room = filling_->length - filled_;
        } else {
            make_room();
            to = input_->memory.data() + end_;
            room = input_->memory.size() - end_;
            if (filling_)
                room = std::min<std::size_t>(room, filling_->length - filled_);
        }
        const ssize_t got = ::recv(socket_.get(), to, room, MSG_DONTWAIT);
        if (got < 0 && passing(errno)) {
            wait(true, -1);
            continue;
        }
        if (got <= 0)
            return false;
        if (!filling_) {
            end_ += std::size_t(got);
            return true;
        }
        filled_ += std::size_t(got);
        if (end_of_filling())
            return true;
    }
}

// Goes on with a large write if all of its data is there.
bool Connection::end_of_filling()
{
    if (filled_ != filling_->length)
        return false;
    Request* r = std::exchange(filling_, nullptr);
    r->refused ? complete(r, r->refused) : submit(r);
    return true;
}

// So that what is not taken yet can be received to its end: it lies at the front, or there is room behind it.
void Connection::make_room()
{
    const std::size_t left = end_ - begin_;
    const bool used = input_->writes.load(std::memory_order_acquire) != 0;
    if (left == 0 && !used) {
        begin_ = end_ = 0;
        return;
    }
    if (input_->memory.size() - begin_ >= request_bytes + small_write && end_ < input_->memory.size())
        return;
    if (!used) {
        std::memmove(input_->memory.data(), input_->memory.data() + begin_, left);
    } else {
        auto next = std::make_shared<Input>(shared_.buffers.take(input_bytes), inputs_);
        std::memcpy(next->memory.data(), input_->memory.data() + begin_, left);
        input_ = std::move(next);
    }
    begin_ = 0;
    end_ = left;
}

Connection::Request* Connection::new_request(const std::byte* header)
{
    Request* r;
    {
        std::lock_guard lock(out_);
        if (!spare_) {
            all_.push_back(std::make_unique<Request>());
            spare_ = all_.back().get();
            spare_->next = nullptr;
        }
        r = std::exchange(spare_, spare_->next);
    }
    r->connection = this;
    r->next = nullptr;
    r->op = Op::read;
    r->may_unmap = r->fua = false;
    r->data = nullptr;
    r->done = disk_done;
    r->flags = load<std::uint16_t>(header + 4);
    r->command = Command(load<std::uint16_t>(header + 6));
    r->cookie = load<std::uint64_t>(header + 8);
    r->offset = load<std::uint64_t>(header + 16);
    r->length = load<std::uint32_t>(header + 24);
    r->refused = 0;
    r->header_bytes = r->payload_bytes = r->sent = 0;
    r->held = r->command == Command::read || r->command == Command::write
                  ? std::min<std::size_t>(r->length, most_payload)
                  : 0;
    requests_.fetch_add(1);
    held_.fetch_add(r->held);
    return r;
}

void Connection::submit(Request* r)
{
    // The disk knows one word for a request that it cannot place; a writer wants to hear that there is no more room.
    const bool writes = r->op == Op::write || r->op == Op::write_zeroes;
    const std::uint64_t size = agreement_.disk->size();
    if (writes && !agreement_.disk->read_only() && (r->offset > size || r->bytes > size - r->offset))
        return complete(r, -ENOSPC);
    agreement_.disk->submit(r);
}

// ---- Replies out

void Connection::disk_done(IoRequest* io, int error)
{
    auto* r = static_cast<Request*>(io);
    r->connection->complete(r, error);
}

void Connection::complete(Request* r, int error)
{
    if (r->input) {
        r->input->writes.fetch_sub(1, std::memory_order_release);
        r->input.reset();
    }
    if (r->command == Command::write)
        r->buffer.reset();

    const bool chunked =
        agreement_.structured_replies && (r->command == Command::read || r->command == Command::block_status);
    std::byte* at = r->header;
    if (!chunked) {
        at = store(at, magic_simple_reply);
        at = store(at, error_number(error));
        at = store(at, r->cookie);
        r->payload_bytes = r->command == Command::read && !error ? r->length : 0;
    } else {
        Chunk type = Chunk::error;
        std::size_t bytes = 4 + 2;
        if (!error && r->command == Command::read) {
            type = Chunk::offset_data;
            r->payload_bytes = r->length;
            bytes = 8 + r->payload_bytes;
        } else if (!error) {
            type = Chunk::block_status;
            bytes = r->payload_bytes;
        } else {
            r->payload_bytes = 0;
        }
        at = store(at, magic_chunk);
        at = store(at, chunk_done);
        at = store(at, type);
        at = store(at, r->cookie);
        at = store(at, std::uint32_t(bytes));
        if (type == Chunk::error) {
            at = store(at, error_number(error));
            at = store(at, std::uint16_t(0)); // without a text
        } else if (type == Chunk::offset_data) {
            at = store(at, r->offset);
        }
    }
    r->header_bytes = std::size_t(at - r->header);

    if (serving == this) {
        r->next = nullptr;
        *ready_end_ = r;
        ready_end_ = &r->next;
        ++ready_count_;
        ready_bytes_ += r->payload_bytes;
        return;
    }
    std::lock_guard lock(out_);
    r->next = nullptr;
    append(r, &r->next);
    send_queue();
    // After this the connection may be gone.
    if (asleep_ && (for_end_ || (queue_ && !for_room_)))
        wake();
}

void Connection::flush()
{
    if (!ready_)
        return;
    std::lock_guard lock(out_);
    append(ready_, ready_end_);
    ready_ = nullptr;
    ready_end_ = &ready_;
    ready_count_ = 0;
    ready_bytes_ = 0;
    send_queue();
}

void Connection::append(Request* first, Request** end)
{
    *queue_end_ = first;
    queue_end_ = end;
}

// Sends as much as the socket takes now.
void Connection::send_queue()
{
    if (broken_)
        return drop_queue();
    while (queue_) {
        iovec pieces[most_pieces];
        unsigned count = 0;
        for (Request* r = queue_; r && count + 2 <= most_pieces; r = r->next) {
            if (r->sent < r->header_bytes)
                pieces[count++] = {r->header + r->sent, r->header_bytes - r->sent};
            const std::size_t payload_sent = r->sent > r->header_bytes ? r->sent - r->header_bytes : 0;
            if (payload_sent < r->payload_bytes)
                pieces[count++] = {r->buffer.data() + payload_sent, r->payload_bytes - payload_sent};
        }
        msghdr message{};
        message.msg_iov = pieces;
        message.msg_iovlen = count;
        const ssize_t put = ::sendmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (put < 0 && errno == EINTR)
            continue;
        if (put < 0 && passing(errno))
            return;
        if (put < 0) {
            broken_ = true;
            return drop_queue();
        }
        for (auto left = std::size_t(put); queue_;) {
            Request* r = queue_;
            const std::size_t step = std::min(left, r->header_bytes + r->payload_bytes - r->sent);
            r->sent += step;
            left -= step;
            if (r->sent < r->header_bytes + r->payload_bytes)
                break;
            queue_ = r->next;
            recycle(r);
        }
        if (!queue_)
            queue_end_ = &queue_;
    }
}

void Connection::drop_queue()
{
    while (queue_) {
        Request* r = queue_;
        queue_ = r->next;
        recycle(r);
    }
    queue_end_ = &queue_;
}

void Connection::recycle(Request* r)
{
    r->buffer.reset();
    held_.fetch_sub(r->held);
    requests_.fetch_sub(1);
    r->next = spare_;
    spare_ = r;
}

// ---- Waiting

void Connection::wake()
{
    asleep_ = false;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one); // full: it is awake already
}

// Waits until there is something to receive (when reading), room for replies that wait, or news of the other threads;
// sends what it can. False: the time is over. -1: no limit.
bool Connection::wait(bool reading, int patience_ms)
{
    pollfd polls[2] = {{wake_.get(), POLLIN, 0}, {socket_.get(), short(reading ? POLLIN : 0), 0}};
    {
        std::lock_guard lock(out_);
        if (!reading && (requests_.load() == 0 || (!paused() && patience_ms < 0)))
            return true;
        asleep_ = true;
        for_room_ = queue_ != nullptr;
        for_end_ = !reading;
        if (for_room_)
            polls[1].events |= POLLOUT;
    }
    // A socket that is asked for nothing still tells, again and again, that the other side has gone.
    const int count = ::poll(polls, polls[1].events ? 2 : 1, patience_ms);
    std::lock_guard lock(out_);
    asleep_ = false;
    if (polls[0].revents) {
        std::uint64_t count_read;
        [[maybe_unused]] const auto read_bytes = ::read(wake_.get(), &count_read, sizeof count_read);
    }
    send_queue();
    return count != 0;
}

// Waits for the requests under way, and a little for the client to take the replies.
void Connection::say_goodbye()
{
    using std::chrono::milliseconds;
    flush();
    if (filling_) {
        std::lock_guard lock(out_);
        recycle(std::exchange(filling_, nullptr));
    }
    auto until = std::chrono::steady_clock::now() + goodbye_patience;
    while (requests_.load() != 0) {
        const auto now = std::chrono::steady_clock::now();
        {
            std::lock_guard lock(out_);
            if (!queue_) {
                until = now + goodbye_patience;
            } else if (now >= until) {
                broken_ = true;
                drop_queue();
            }
        }
        wait(false, int(std::max<long long>(std::chrono::ceil<milliseconds>(until - now).count(), 0)) + 1);
    }
    // The last one to end a request may still hold the lock.
    std::lock_guard lock(out_);
}

} // namespace quendreld::nbd
