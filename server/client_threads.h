/* SPDX-License-Identifier: GPL-2.0-only */
// The clients of a socket: who connects gets a thread, up to a bound; beyond it the next one waits in the kernel's
// queue until another leaves.
//
// - A client for whom there is no thread or no memory is turned away, and that is said in the log; the others go on.
// - A client that has left is joined and destroyed soon, by the listening thread.
#pragma once

#include "base/descriptor.h"
#include "listener.h"

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace quendreld
{

class ClientThreads
{
  public:
    class Client
    {
      public:
        virtual ~Client() = default;
        virtual void serve() = 0;     // on the client's thread; when it returns the client has left
        virtual void hang_up() = 0;   // while serve runs, from another thread: makes it return soon
        virtual void turned_away() {} // instead of serve
    };
    struct Options {
        Listener::Options listener;
        std::string thread_name;                                       // at most 8 characters
        std::string client_name;                                       // for the log: "an NBD client"
        std::string when_full;                                         // a line for the log; may be empty
        std::size_t most = 0;                                          // threads
        std::function<std::unique_ptr<Client>(base::Descriptor)> make; // on the listening thread; may throw
    };

    explicit ClientThreads(Options options); // throws std::system_error
    ~ClientThreads();                        // hangs up on all clients, waits until they have left

    std::size_t clients() const; // that have not left

  private:
    struct Entry {
        std::unique_ptr<Client> client;
        bool finished = false; // the thread is about to end
        std::thread thread;
    };

    void listen_loop();
    void take(base::Descriptor socket);
    void run(Entry& entry);
    void reap();

    const Options options_;
    QuietReport quietly_;
    Listener listener_;
    mutable std::mutex mutex_; // guards what follows; before whatever a client's hang_up takes
    std::condition_variable left_;
    std::list<Entry> entries_;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace quendreld
