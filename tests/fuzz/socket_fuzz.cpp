// SPDX-License-Identifier: GPL-2.0-only
// Fuzzes the daemon's control socket: arbitrary packets, whole requests, passed descriptors, connections that stop
// listening, over up to three connections to a control server in this process. What must hold: every packet is
// answered or ends its connection, answers are well-formed, no crash, no sanitizer report, no byte of the disk
// changed, no descriptor and no mapping left open, and a well-behaved client is served afterwards.
//
// The server uses the memory of this process as the client's. AddressSanitizer keeps its own records from 0x7fff8000
// on, so the addresses in requests stay below that.
#include "fuzz_input.h"
#include "fuzzed_disk.h"
#include "client/socket_protocol.h"
#include "control_server.h"
#include "hosted.h"
#include "quendrel.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace
{

using fuzz::Input;
using fuzz::kBlockBytes;
using fuzz::kBlocks;
using fuzz::kCommands;
using fuzz::require;

namespace wire = quendrel::wire;
using quendreld::ControlServer;
using base::Descriptor;

constexpr u32 kMostBlocks = 1u << 16; // of a map that is really allocated, so that a run stays fast
constexpr u32 kHighest = 0x7fff8000;
constexpr std::size_t kScratchBytes = 65536;

class Connection
{
  public:
    explicit Connection(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        require(::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "one can connect");
        const timeval patience{20, 0};
        ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }

    // False: the connection is over, or the packet was not taken.
    bool send(const void* bytes, std::size_t count, unsigned descriptors = 0)
    {
        iovec part{const_cast<void*>(bytes), count};
        alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))] = {};
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        if (descriptors) {
            header.msg_control = control;
            header.msg_controllen = CMSG_SPACE(descriptors * sizeof(int));
            cmsghdr* c = CMSG_FIRSTHDR(&header);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(descriptors * sizeof(int));
            const std::array<int, 4> passed = {fd_.get(), fd_.get(), fd_.get(), fd_.get()};
            std::memcpy(CMSG_DATA(c), passed.data(), descriptors * sizeof(int));
        }
        return ::sendmsg(fd_.get(), &header, MSG_NOSIGNAL | MSG_DONTWAIT) == ssize_t(count);
    }

    // An answer, checked in form; nothing when the connection is over.
    std::optional<wire::Reply> receive()
    {
        wire::Reply reply{};
        iovec part{&reply, sizeof reply};
        alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))];
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        ssize_t got;
        do { // libFuzzer's alarm interrupts
            got = ::recvmsg(fd_.get(), &header, MSG_CMSG_CLOEXEC);
        } while (got < 0 && errno == EINTR);
        if (got < 0)
            require(errno != EAGAIN, "a packet is answered or ends the connection");
        if (got <= 0)
            return std::nullopt;
        require(got >= ssize_t(wire::reply_header_bytes) && reply.count <= wire::max_pages &&
                    std::size_t(got) == wire::reply_header_bytes + 4 * reply.count,
                "an answer has the size that it says");
        require(reply.version == wire::protocol_version, "an answer has the version");
        Descriptor memory;
        for (cmsghdr* c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
            require(c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS && c->cmsg_len == CMSG_LEN(sizeof(int)),
                    "one descriptor comes along, or none");
            int fd;
            std::memcpy(&fd, CMSG_DATA(c), sizeof fd);
            memory = Descriptor(fd);
        }
        require(bool(memory) == (reply.count != 0), "the memory comes with pages and only then");
        char byte;
        for (u32 i = 0; i < reply.count; i++)
            require(::pread(memory.get(), &byte, 1, off_t(reply.pages[i]) * 4096) == 1, "every page is in the memory");
        if (memory)
            require(::pwrite(memory.get(), "", 1, 0) < 0, "the memory is for reading only");
        return reply;
    }

    void end_of_sending() { ::shutdown(fd_.get(), SHUT_WR); }

  private:
    Descriptor fd_;
};

int entries(const char* directory)
{
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory))
        ++count;
    return count;
}

// Pipes are left out: the server makes none, and libFuzzer keeps a pair to its symbolizer from the first new function
// on.
int open_descriptors()
{
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += !std::filesystem::read_symlink(entry.path(), gone).string().starts_with("pipe:");
    }
    return count;
}
int threads() { return entries("/proc/self/task"); }

void print_descriptors()
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        std::fprintf(stderr, "  %s -> %s\n", entry.path().filename().c_str(),
                     std::filesystem::read_symlink(entry.path(), gone).c_str());
    }
}

// What closes on the server's threads is closed soon.
void require_soon(const std::function<bool()>& holds, const char* what)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!holds()) {
        if (std::chrono::steady_clock::now() >= until)
            print_descriptors();
        require(std::chrono::steady_clock::now() < until, what);
        std::this_thread::yield();
    }
}

// Disk, driver and server, kept from input to input.
class Ground : public fuzz::FuzzedDisk
{
  public:
    Ground()
    {
        for (std::size_t i = 0; i < bytes.size(); i++)
            bytes[i] = std::byte(i * 7 >> 3);
        original_.assign(bytes.begin(), bytes.end());
        void* low =
            ::mmap(nullptr, kScratchBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
        require(low != MAP_FAILED, "memory below 2 GiB");
        scratch = static_cast<std::byte*>(low);
        std::string name = std::filesystem::temp_directory_path() / "socket-fuzz-XXXXXX";
        require(::mkdtemp(name.data()) != nullptr, "a directory for the socket");
        directory_ = name;
        ControlServer::Options options;
        options.socket = socket = name + "/control.sock";
        server_ = std::make_unique<ControlServer>(std::move(options));
        well();
        (void)hosted::transfer_memory_fd(); // made when it is first asked for
        descriptors_ = open_descriptors();
        require_soon([] { return hosted::driver_references() == 0; }, "the first client's file is closed");
        // The first freeze starts a thread of the disk's that stays.
        require(fuzz::stop_tracking(), "tracking is off, as after loading");
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // the first client's thread ends
        threads_ = threads();
    }
    ~Ground()
    {
        server_.reset();
        std::filesystem::remove_all(directory_);
    }

    // After an input: nothing has changed, nothing is left, and the next client is served. Brings the driver back to
    // how it was loaded.
    void check()
    {
        well();
        require_soon([] { return hosted::driver_references() == 0; }, "the files of ended connections are closed");
        require(std::memcmp(original_.data(), bytes.data(), bytes.size()) == 0, "the disk is as it was");
        require(hosted::live().mappings == 0, "no mapping is left");
        // Connections that have ended go with the next that is accepted, and that one may have ended by now too.
        if (++inputs_ % 16 == 0) {
            require_soon(
                [this] {
                    well();
                    return open_descriptors() <= descriptors_ + 1;
                },
                "no descriptor is left open");
            require_soon([] { return hosted::driver_references() == 0; }, "the files of ended connections are closed");
        }
        hosted::log_clear();
        const bool stopped = fuzz::stop_tracking();
        // Besides, a thread that is about to end can look like a leak to the search for leaks that follows an input.
        require_soon([this] { return threads() <= threads_; }, "the threads of ended connections end");
        if (stopped && inputs_ % 64 != 0)
            return;
        // The one backup slot can be left taken for ever; only a reload gives it back, and with it goes what the
        // driver leaves behind deliberately. A connection that nobody waited for may be let in as late as now.
        require_soon([] { return hosted::unload_driver() == 0; }, "the driver unloads");
        hosted::forget_leaks();
        require(hosted::load_driver() == 0, "the driver loads again");
    }

    std::string socket;
    std::byte* scratch = nullptr;
    u32 scratch_address() const { return u32(reinterpret_cast<std::uintptr_t>(scratch)); }

  private:
    void well()
    {
        Connection client(socket);
        const auto opened = client.receive();
        require(opened && opened->result == 0, "the next client is let in");
        const GetBlockSize record{8, 1, scratch_address() + 64, sizeof(BlockSize)};
        std::memcpy(scratch, &record, sizeof record);
        const wire::Request request{wire::Kind::ioctl, QUENDREL_GET_BLOCK_SIZE, scratch_address(), 0, 0};
        require(client.send(&request, sizeof request), "the next client's request is taken");
        const auto answer = client.receive();
        BlockSize size;
        std::memcpy(&size, scratch + 64, sizeof size);
        require(answer && answer->result == 0 && size.blockSize == int(kBlockBytes), "the next client is served");
    }

    std::vector<std::byte> original_;
    std::string directory_;
    std::unique_ptr<ControlServer> server_;
    int descriptors_ = 0, threads_ = 0;
    unsigned inputs_ = 0;
};

Ground& ground()
{
    static Ground the;
    return the;
}

class Session
{
  public:
    explicit Session(Input& input) : in_(input), ground_(ground()) { std::memset(ground_.scratch, 0, 4096); }

    ~Session()
    {
        for (auto& connection : connections_)
            connection.reset();
        ground_.check();
    }

    void step()
    {
        const u32 op = in_.word(1) % 8;
        auto& slot = connections_[in_.word(1) % connections_.size()];
        if (op == 0) {
            slot.reset();
            return;
        }
        if (!slot) {
            slot.emplace(ground_.socket);
            if (in_.word(1) % 8)
                (void)slot->receive();
        }
        switch (op) {
        case 1:
            return raw(*slot);
        case 2:
            return exchange(*slot, {wire::Kind::mmap, area(), in_.word(1) % 8 ? pages() : in_.word(), flags(),
                                    in_.word(1) % 8 ? 0 : in_.word(1)});
        case 3:
            return exchange(*slot, {wire::Kind::munmap, area(), in_.word(1) % 4 ? 0 : pages(), 0, 0});
        case 4:
            return words(*slot);
        case 5:
            if (in_.word(1) % 4 == 0)
                slot->end_of_sending();
            return;
        default:
            return command(*slot);
        }
    }

  private:
    // Sends, and mostly waits for the answer; else answers pile up, or are lost when the connection is closed.
    void exchange(Connection& connection, const wire::Request& request)
    {
        const u32 how = in_.word(1);
        if (how % 16 == 1)
            pass(connection, &request, sizeof request);
        else if (connection.send(&request, sizeof request) && how % 8 != 0)
            (void)connection.receive();
    }

    // Descriptors end the connection. That is waited for: the connection's own one on its way would keep it open.
    void pass(Connection& connection, const void* bytes, std::size_t count)
    {
        if (connection.send(bytes, count, 1 + in_.word(1) % 4))
            while (connection.receive())
                ;
    }

    void raw(Connection& connection)
    {
        std::size_t bytes = in_.word(1);
        if (bytes >= 0xf0)
            bytes = in_.word(2);
        std::vector<u8> packet(bytes, u8(bytes));
        for (std::size_t i = 0; i < std::min<std::size_t>(bytes, 40); i++)
            packet[i] = u8(in_.word(1));
        lower(packet);
        if (in_.word(1) % 4 == 1)
            pass(connection, packet.data(), packet.size());
        else if (connection.send(packet.data(), packet.size()))
            (void)connection.receive();
    }

    // A request of arbitrary words.
    void words(Connection& connection)
    {
        wire::Request request{wire::Kind(in_.word(1) % 5), in_.word(), in_.word() % kHighest, in_.word(1), in_.word(1)};
        guard(request);
        exchange(connection, request);
    }

    // Keeps a whole request's argument out of the sanitizer's memory.
    void lower(std::vector<u8>& packet)
    {
        wire::Request request;
        if (packet.size() != sizeof request)
            return;
        std::memcpy(&request, packet.data(), sizeof request);
        request.b %= kHighest;
        guard(request);
        std::memcpy(packet.data(), &request, sizeof request);
    }

    // A map of the greatest size takes long to clear, and that is all.
    void guard(const wire::Request& request)
    {
        const u32 offset = request.b - ground_.scratch_address();
        if (request.kind != wire::Kind::ioctl || offset > kScratchBytes - sizeof(StartBackup))
            return;
        StartBackup record;
        std::memcpy(&record, ground_.scratch + offset, sizeof record);
        record.totalBlocks %= kMostBlocks;
        if (request.a == QUENDREL_START_BACKUP)
            std::memcpy(ground_.scratch + offset, &record, sizeof record);
    }

    u32 area() { return in_.word(1) % 8 ? 0x20000000 + (in_.word(1) % 4) * 0x01000000 : in_.word() % kHighest; }
    u32 pages() { return (1 + in_.word(2) % 260) * u32(PAGE_BYTES); }
    u32 flags() { return in_.word(1) % 4 ? VM_READ : in_.word(1); }

    // An address: mostly a usable one, sometimes at an edge, sometimes anything below the sanitizer's memory.
    u32 pointer()
    {
        switch (in_.word(1) % 8) {
        case 0:
            return in_.word() % kHighest;
        case 1:
            return ground_.scratch_address() + u32(kScratchBytes) - in_.word(1) % 128;
        case 2:
            return 0x20000000 + (in_.word(1) % 4) * 0x01000000;
        default:
            return ground_.scratch_address() + 4096 + in_.word(1) * 64;
        }
    }

    u32 number()
    {
        switch (in_.word(1) % 5) {
        case 0:
            return in_.word() % kHighest;
        case 1:
            return kBlocks;
        case 2:
            return 8;
        case 3:
            return 1;
        default:
            return in_.word(1);
        }
    }

    void command(Connection& connection)
    {
        const u32 known = kCommands[in_.word(1) % kCommands.size()];
        const u32 cmd = in_.word(1) % 16 == 0 ? in_.word() : known;
        std::array<u32, 4> record{};
        const u32 shape = in_.word(1);
        for (u32& word : record)
            word = in_.word(1) % 2 ? pointer() : number();
        if (shape % 8) {
            if (cmd == QUENDREL_START_BACKUP)
                record = {8, 1, kBlocks, shape};
            const std::array<u32, 2> map = {ground_.scratch_address() + 4096, kBlocks};
            if (cmd == QUENDREL_LOAD_BLOCK_MAP || cmd == QUENDREL_GET_AUTOMAP) {
                std::memcpy(ground_.scratch + 256, map.data(), sizeof map);
                record[0] = ground_.scratch_address() + 256;
            }
        }
        std::memcpy(ground_.scratch, record.data(), sizeof record);
        const wire::Request request{wire::Kind::ioctl, cmd,
                                    in_.word(1) % 16 == 0 ? pointer() : ground_.scratch_address(), 0, 0};
        guard(request);
        exchange(connection, request);
    }

    Input& in_;
    Ground& ground_;
    std::array<std::optional<Connection>, 3> connections_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    Session session(input);
    for (unsigned steps = 0; !input.empty() && steps < 100; steps++)
        session.step();
    return 0;
}
