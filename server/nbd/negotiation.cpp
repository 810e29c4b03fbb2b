// SPDX-License-Identifier: GPL-2.0-only
#include "nbd/negotiation.h"

#include "nbd/protocol.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <string>

namespace quendreld::nbd
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::size_t most_option_bytes = 64 << 10;
constexpr std::size_t most_name_bytes = 4096;

// The client has left, is too slow, or cannot be talked to.
struct Over {
};

class Stream
{
  public:
    Stream(int socket, Clock::time_point deadline) : socket_(socket), deadline_(deadline) {}

    void read(std::byte* to, std::size_t bytes)
    {
        while (bytes) {
            const ssize_t got = ::recv(socket_, to, bytes, MSG_DONTWAIT);
            if (got > 0) {
                to += got;
                bytes -= std::size_t(got);
            } else if (got == 0 || !passing(errno)) {
                throw Over();
            } else {
                wait(POLLIN);
            }
        }
    }
    template <typename T> T read()
    {
        std::byte bytes[sizeof(T)];
        read(bytes, sizeof bytes);
        return load<T>(bytes);
    }
    void write(const std::byte* from, std::size_t bytes)
    {
        while (bytes) {
            const ssize_t put = ::send(socket_, from, bytes, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (put >= 0) {
                from += put;
                bytes -= std::size_t(put);
            } else if (!passing(errno)) {
                throw Over();
            } else {
                wait(POLLOUT);
            }
        }
    }

  private:
    static bool passing(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }
    void wait(short events)
    {
        using std::chrono::milliseconds;
        const auto left = std::chrono::ceil<milliseconds>(deadline_ - Clock::now()).count();
        pollfd p{socket_, events, 0};
        if (left <= 0 || ::poll(&p, 1, int(std::min<long long>(left, INT_MAX))) == 0)
            throw Over();
    }

    const int socket_;
    const Clock::time_point deadline_;
};

// An option's data, read from front to back. Anything that does not fit makes it bad, for good.
class Data
{
  public:
    Data(const std::byte* bytes, std::size_t count) : at_(bytes), left_(count) {}

    template <typename T> T word()
    {
        const std::byte* from = take(sizeof(T));
        return from ? load<T>(from) : T(0);
    }
    std::string text(std::size_t bytes)
    {
        const std::byte* from = take(bytes);
        return from ? std::string(reinterpret_cast<const char*>(from), bytes) : std::string();
    }
    bool good() const { return good_; }
    bool whole() const { return good_ && left_ == 0; } // and nothing is left over

  private:
    const std::byte* take(std::size_t bytes)
    {
        if (!good_ || bytes > left_) {
            good_ = false;
            return nullptr;
        }
        const std::byte* from = at_;
        at_ += bytes;
        left_ -= bytes;
        return from;
    }

    const std::byte* at_;
    std::size_t left_;
    bool good_ = true;
};

class Negotiation
{
  public:
    Negotiation(Stream& stream, const Exports& exports) : stream_(stream), exports_(exports) {}

    std::optional<Agreement> run()
    {
        greet();
        std::vector<std::byte> bytes;
        for (;;) {
            if (stream_.read<std::uint64_t>() != magic_option)
                return std::nullopt;
            option_ = stream_.read<std::uint32_t>();
            const auto count = stream_.read<std::uint32_t>();
            if (count > most_option_bytes) {
                reply(OptionReply::too_big);
                return std::nullopt;
            }
            bytes.resize(count);
            stream_.read(bytes.data(), count);
            Data data(bytes.data(), count);
            switch (answer(data, count)) {
            case Next::option:
                break;
            case Next::requests:
                return agreement_;
            case Next::nothing:
                return std::nullopt;
            }
        }
    }

  private:
    enum class Next { option, requests, nothing };

    void greet()
    {
        std::array<std::byte, 18> greeting;
        std::byte* at = store(greeting.data(), magic_begin);
        at = store(at, magic_option);
        store(at, std::uint16_t(handshake_fixed_newstyle | handshake_no_zeroes));
        stream_.write(greeting.data(), greeting.size());
        const auto flags = stream_.read<std::uint32_t>();
        if (flags & ~std::uint32_t(handshake_fixed_newstyle | handshake_no_zeroes))
            throw Over();
        no_zeroes_ = flags & handshake_no_zeroes;
    }

    Next answer(Data& data, std::size_t count)
    {
        switch (Option(option_)) {
        case Option::export_name:
            return begin_by_name(data.text(count));
        case Option::abort:
            reply(OptionReply::ack);
            return Next::nothing;
        case Option::list:
            if (count)
                return refuse(OptionReply::invalid);
            for (const ServedDisk* disk : exports_)
                list(*disk);
            return accept();
        case Option::structured_reply:
            if (count)
                return refuse(OptionReply::invalid);
            agreement_.structured_replies = true;
            return accept();
        case Option::info:
        case Option::go:
            return inform(data);
        case Option::list_meta_context:
        case Option::set_meta_context:
            return contexts(data);
        default:
            return refuse(OptionReply::unsupported); // starttls as well: see quendreld(8) for TLS
        }
    }

    ServedDisk* find(const std::string& name) const
    {
        for (ServedDisk* disk : exports_)
            if (name.empty() || disk->name() == name)
                return disk;
        return nullptr;
    }

    std::uint16_t flags_of(const ServedDisk& disk) const
    {
        unsigned flags = has_flags | send_flush | send_fua | send_trim | send_write_zeroes | can_multi_conn |
                         send_cache | send_fast_zero;
        if (disk.read_only())
            flags |= read_only;
        if (agreement_.structured_replies)
            flags |= send_df;
        return std::uint16_t(flags);
    }

    // The old way in: there is no answer for a name that is not known.
    Next begin_by_name(const std::string& name)
    {
        ServedDisk* disk = find(name);
        if (!disk)
            return Next::nothing;
        agree(*disk);
        std::array<std::byte, 10 + 124> bytes{};
        std::byte* at = store(bytes.data(), disk->size());
        store(at, flags_of(*disk));
        stream_.write(bytes.data(), no_zeroes_ ? 10 : bytes.size());
        return Next::requests;
    }

    void list(const ServedDisk& disk)
    {
        std::vector<std::byte> bytes(4 + disk.name().size());
        std::byte* at = store(bytes.data(), std::uint32_t(disk.name().size()));
        std::memcpy(at, disk.name().data(), disk.name().size());
        reply(OptionReply::server, bytes.data(), bytes.size());
    }

    Next inform(Data& data)
    {
        const auto length = data.word<std::uint32_t>();
        if (length > most_name_bytes)
            return refuse(OptionReply::invalid);
        const std::string name = data.text(length);
        bool wants_name = false;
        for (unsigned left = data.word<std::uint16_t>(); left && data.good(); --left)
            wants_name |= Info(data.word<std::uint16_t>()) == Info::name;
        if (!data.whole())
            return refuse(OptionReply::invalid);
        ServedDisk* disk = find(name);
        if (!disk)
            return refuse(OptionReply::unknown);

        std::array<std::byte, 14> bytes;
        std::byte* at = store(bytes.data(), Info::export_size);
        at = store(at, disk->size());
        store(at, flags_of(*disk));
        reply(OptionReply::info, bytes.data(), 12);
        at = store(bytes.data(), Info::block_size);
        at = store(at, disk->block_size());
        at = store(at, std::max<std::uint32_t>(disk->block_size(), 4096));
        store(at, most_payload);
        reply(OptionReply::info, bytes.data(), 14);
        if (wants_name) {
            std::vector<std::byte> text(2 + disk->name().size());
            at = store(text.data(), Info::name);
            std::memcpy(at, disk->name().data(), disk->name().size());
            reply(OptionReply::info, text.data(), text.size());
        }
        if (Option(option_) == Option::go)
            agree(*disk);
        reply(OptionReply::ack);
        return Option(option_) == Option::go ? Next::requests : Next::option;
    }

    Next contexts(Data& data)
    {
        const bool set = Option(option_) == Option::set_meta_context;
        // A selection replaces what was selected before, even one that fails, and is for its export only.
        if (set)
            allocation_of_ = nullptr;
        if (set && !agreement_.structured_replies)
            return refuse(OptionReply::invalid);
        const auto length = data.word<std::uint32_t>();
        if (length > most_name_bytes)
            return refuse(OptionReply::invalid);
        const std::string name = data.text(length);
        const auto queries = data.word<std::uint32_t>();
        bool wanted = !set && queries == 0;
        for (auto left = queries; left && data.good(); --left) {
            const std::string query = data.text(data.word<std::uint32_t>());
            wanted |= query == allocation_context || (!set && query == "base:");
        }
        if (!data.whole())
            return refuse(OptionReply::invalid);
        ServedDisk* disk = find(name);
        if (!disk)
            return refuse(OptionReply::unknown);
        if (set && wanted)
            allocation_of_ = disk;
        if (wanted) {
            std::array<std::byte, 4 + allocation_context.size()> bytes;
            std::byte* at = store(bytes.data(), set ? allocation_id : 0u);
            std::memcpy(at, allocation_context.data(), allocation_context.size());
            reply(OptionReply::meta_context, bytes.data(), bytes.size());
        }
        return accept();
    }

    void agree(ServedDisk& disk)
    {
        agreement_.disk = &disk;
        agreement_.allocation = allocation_of_ == &disk;
    }

    Next accept()
    {
        reply(OptionReply::ack);
        return Next::option;
    }
    Next refuse(OptionReply why)
    {
        reply(why);
        return Next::option;
    }
    void reply(OptionReply type, const std::byte* bytes = nullptr, std::size_t count = 0)
    {
        std::vector<std::byte> all(20 + count);
        std::byte* at = store(all.data(), magic_option_reply);
        at = store(at, option_);
        at = store(at, type);
        at = store(at, std::uint32_t(count));
        if (count)
            std::memcpy(at, bytes, count);
        stream_.write(all.data(), all.size());
    }

    Stream& stream_;
    const Exports& exports_;
    Agreement agreement_;
    ServedDisk* allocation_of_ = nullptr;
    std::uint32_t option_ = 0;
    bool no_zeroes_ = false;
};

} // namespace

std::optional<Agreement> negotiate(int socket, const Exports& exports, Clock::time_point deadline)
{
    Stream stream(socket, deadline);
    try {
        return Negotiation(stream, exports).run();
    } catch (const Over&) {
        return std::nullopt;
    }
}

} // namespace quendreld::nbd
