/* SPDX-License-Identifier: GPL-2.0-only */
// The built program, run against a socket with a fake driver behind it.
#pragma once

#include "fake_server.h"
#include "support.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/wait.h>

#include <csignal>
#include <map>
#include <sstream>

namespace test
{

using nlohmann::json;

class Program : public testing::Test
{
  protected:
    Program()
    {
        for (std::uint32_t block = 0; block < Machine::blocks; ++block)
            machine.driver.write(block, 1);
        std::ofstream{run / "disks.json"}
            << R"({"version":1,"takeOver":true,"disks":[{"name":"sda","major":8,"minor":0,"bytes":4000000,
            "file":"/nonexistent","nbd":"x","partitions":[
            {"name":"sda1","major":8,"minor":1,"start":2048,"sectors":5998,"type":"ext4","blockSize":1024}]}]})";
    }

    struct Result {
        int code; // exit code, or 1000 + the signal
        std::string out;
        std::string err;
        json document() const { return json::parse(out); }
        std::vector<json> lines() const // one object a line
        {
            std::vector<json> all;
            std::istringstream in{out};
            for (std::string line; std::getline(in, line);)
                all.push_back(json::parse(line));
            return all;
        }
    };

    pid_t spawn(std::vector<std::string> arguments)
    {
        if (givesControl)
            arguments.insert(arguments.begin(), {"--control", (run / "control.sock").string()});
        arguments.insert(arguments.begin(), QBACKUP_PROGRAM);
        // Now: who waits for what it prints is not to see what the one before has printed.
        for (const char* name : {"out", "err"})
            std::ofstream{run / name}.flush();
        const pid_t child = ::fork();
        if (child == 0) {
            std::vector<char*> words;
            for (std::string& word : arguments)
                words.push_back(word.data());
            words.push_back(nullptr);
            ::dup2(::open((run / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDOUT_FILENO);
            ::dup2(::open((run / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
            for (const auto& [name, value] : environment)
                ::setenv(name.c_str(), value.c_str(), 1);
            ::execv(words[0], words.data());
            ::_exit(99);
        }
        return child;
    }
    Result wait(pid_t child)
    {
        int status = 0;
        ::waitpid(child, &status, 0);
        return {WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status), readText(run / "out"),
                readText(run / "err")};
    }
    Result call(std::vector<std::string> arguments) { return wait(spawn(std::move(arguments))); }
    Result backup(std::vector<std::string> more = {})
    {
        std::vector<std::string> arguments{"backup", "--device", "sda1", "--to", machine.directory.path(), "--json"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return call(arguments);
    }
    // Blocks the driver before the n-th read until release() is called.
    void holdAtRead(int n) { holdAt(QUENDREL_READ_BLOCKS, n); }
    void holdAt(std::uint32_t number, int n)
    {
        machine.driver.before.set([this, number, n, seen = 0](std::uint32_t command) mutable {
            if (command != number || ++seen != n)
                return;
            held = true;
            while (held)
                std::this_thread::sleep_for(std::chrono::milliseconds{5});
        });
    }
    void waitHeld()
    {
        for (int i = 0; i < 2000 && !held; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds{5});
        ASSERT_TRUE(held);
    }
    void release() { held = false; }

    Machine machine;
    Directory run;
    std::atomic<bool> held{false};
    bool givesControl = true;                       // on the command line
    std::map<std::string, std::string> environment; // beside this one's
    fake::Server server{machine.driver, run / "control.sock"};
};

} // namespace test
