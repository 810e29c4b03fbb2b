// SPDX-License-Identifier: GPL-2.0-only
#include "jobs.h"

#include "failure.h"
#include "rate.h"

// The header has everything: a program that is linked with no shared library can have it too.
#define TOML_HEADER_ONLY 1
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <limits>
#include <map>
#include <sstream>

namespace qbackup
{
namespace
{

constexpr std::int64_t most_seconds = 1000000000;
constexpr std::int64_t most_of_a_word = std::numeric_limits<std::uint32_t>::max();

[[noreturn]] void failAt(const toml::source_region& where, const std::string& text)
{
    throw Failure{Exit::usage, *where.path + ":" + std::to_string(where.begin.line) + ":" +
                                   std::to_string(where.begin.column) + ": " + text};
}

std::string kindOf(const toml::node& node)
{
    std::ostringstream text;
    text << node.type();
    return text.str();
}

// `what` is a key, as "wait of job nightly".
[[noreturn]] void failType(const toml::node& node, const std::string& what, const std::string& wanted)
{
    failAt(node.source(), what + " is of type " + kindOf(node) + " and has to be " + wanted);
}

std::string textOf(const toml::node& node, const std::string& what)
{
    const auto* text = node.as_string();
    if (text == nullptr)
        failType(node, what, "a string");
    if (text->get().empty() || text->get().find('\0') != std::string::npos)
        failAt(node.source(), what + " is empty, or has a NUL in it");
    return text->get();
}

// Whatever directory this is started in.
fs::path pathOf(const toml::node& node, const std::string& what)
{
    const fs::path path = textOf(node, what);
    if (!path.is_absolute())
        failAt(node.source(), what + " is " + path.string() + ", and has to be a whole path, which begins with /");
    return path;
}

std::int64_t numberOf(const toml::node& node, const std::string& what, std::int64_t least, std::int64_t most)
{
    const std::string wanted = "a whole number from " + std::to_string(least) + " to " + std::to_string(most);
    const auto* number = node.as_integer();
    if (number == nullptr)
        failType(node, what, wanted);
    if (number->get() < least || number->get() > most)
        failAt(node.source(), what + " is " + std::to_string(number->get()) + " and has to be " + wanted);
    return number->get();
}

std::vector<std::string> textsOf(const toml::node& node, const std::string& what)
{
    const toml::array* array = node.as_array();
    if (array == nullptr)
        failType(node, what, "an array of strings");
    if (array->empty())
        failAt(node.source(), what + " is an empty array; give it something, or leave it out");
    std::vector<std::string> texts;
    for (const toml::node& element : *array)
        texts.push_back(textOf(element, "an element of " + what));
    return texts;
}

bool truthOf(const toml::node& node, const std::string& what)
{
    const auto* truth = node.as_boolean();
    if (truth == nullptr)
        failType(node, what, "true or false");
    return truth->get();
}

// As --limit-rate has it.
std::uint64_t rateOf(const toml::node& node, const std::string& what)
{
    const std::string given = textOf(node, what);
    if (const auto rate = qbackup::rateOf(given))
        return *rate;
    failAt(node.source(), what + " is '" + given + "' and has to be a number of bytes a second, as 500K or 20M");
}

Wanted modeOf(const toml::node& node, const std::string& what)
{
    const std::string text = textOf(node, what);
    const auto mode = wanted_modes.find(text);
    if (mode == wanted_modes.end())
        failAt(node.source(), what + " is '" + text + "' and has to be auto, full or inc");
    return mode->second;
}

// What each key of a table is read by. The first key that is none of them ends it.
using Keys = std::map<std::string, std::function<void(const toml::node&, const std::string& what)>>;
void readTable(const toml::node& node, const std::string& name, const Keys& keys)
{
    const toml::table* table = node.as_table();
    if (table == nullptr)
        failType(node, name, "a table");
    for (const auto& [key, value] : *table) {
        const auto known = keys.find(std::string{key.str()});
        if (known == keys.end()) {
            std::string all;
            for (const auto& entry : keys)
                all += (all.empty() ? "" : ", ") + entry.first;
            failAt(key.source(),
                   name + " has the key '" + std::string{key.str()} + "', which is not known; known are " + all);
        }
        known->second(value, known->first + " of " + name);
    }
}

KeepRules keepOf(const toml::node& node, const std::string& what)
{
    KeepRules keep;
    const auto count = [](unsigned& to) {
        return [&to](const toml::node& value, const std::string& what) {
            to = static_cast<unsigned>(numberOf(value, what, 0, most_of_a_word));
        };
    };
    readTable(node, what,
              {{"last", count(keep.last)},
               {"hourly", count(keep.hourly)},
               {"daily", count(keep.daily)},
               {"weekly", count(keep.weekly)},
               {"monthly", count(keep.monthly)},
               {"yearly", count(keep.yearly)}});
    if (!keep.any())
        failAt(node.source(),
               what + " keeps nothing; give one of last, hourly, daily, weekly, monthly and yearly, or leave it out");
    return keep;
}

// Words that need no quoting anywhere: in TOML, in a shell, in the name of a unit.
void expectFitName(const toml::key& name)
{
    constexpr std::string_view fit = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    if (name.str().empty() || name.str().front() == '-' || name.str().find_first_not_of(fit) != std::string_view::npos)
        failAt(name.source(), "'" + std::string{name.str()} +
                                  "' cannot be the name of a job; take letters, digits, - and _, and no - first");
}

Job jobOf(const toml::key& key, const toml::node& node)
{
    expectFitName(key);
    Job job;
    job.name = key.str();
    const std::string name = "job " + job.name;
    readTable(
        node, name,
        {{"devices", [&](const auto& value, const auto& what) { job.devices = textsOf(value, what); }},
         {"target", [&](const auto& value, const auto& what) { job.how.target = pathOf(value, what); }},
         {"mode", [&](const auto& value, const auto& what) { job.how.wanted = modeOf(value, what); }},
         {"host", [&](const auto& value, const auto& what) { job.how.host = textOf(value, what); }},
         {"all-blocks", [&](const auto& value, const auto& what) { job.how.allBlocks = truthOf(value, what); }},
         {"compress", [&](const auto& value, const auto& what) { job.how.compress = truthOf(value, what); }},
         {"spool", [&](const auto& value, const auto& what) { job.how.spool = pathOf(value, what); }},
         {"limit-rate", [&](const auto& value, const auto& what) { job.how.bytesPerSecond = rateOf(value, what); }},
         {"cache-blocks",
          [&](const auto& value, const auto& what) {
              job.how.cacheBlocks = static_cast<std::uint32_t>(numberOf(value, what, 1, most_of_a_word));
          }},
         {"wait",
          [&](const auto& value, const auto& what) {
              job.how.wait = static_cast<std::uint64_t>(numberOf(value, what, 0, most_seconds));
          }},
         {"control", [&](const auto& value, const auto& what) { job.control = pathOf(value, what); }},
         {"keep", [&](const auto& value, const auto& what) { job.keep = keepOf(value, what); }},
         {"before", [&](const auto& value, const auto& what) { job.commands.before = textsOf(value, what); }},
         {"after", [&](const auto& value, const auto& what) { job.commands.after = textsOf(value, what); }},
         {"timeout", [&](const auto& value, const auto& what) {
              job.commands.timeout = std::chrono::seconds{numberOf(value, what, 1, most_seconds)};
          }}});
    if (job.devices.empty())
        failAt(key.source(), name + R"( has no devices; give it some, as devices = ["/dev/sda1"])");
    if (job.how.target.empty())
        failAt(key.source(), name + R"( has no target; give it one, as target = "/mnt/backups")");
    return job;
}

// Nobody else may have written it, or may put another one in its place.
bool isTrusted(const struct stat& st)
{
    const bool sticky = S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX) != 0;
    return (st.st_uid == 0 || st.st_uid == ::geteuid()) && (sticky || (st.st_mode & (S_IWGRP | S_IWOTH)) == 0);
}

void expectTrusted(const File& file, const std::string& job)
{
    struct stat own {
    };
    struct stat directory {
    };
    const fs::path above = fs::canonical(file.path()).parent_path();
    for (const bool trusted : {::fstat(file.fd(), &own) == 0 && isTrusted(own),
                               ::stat(above.c_str(), &directory) == 0 && isTrusted(directory)})
        if (!trusted)
            throw Failure{Exit::refused,
                          file.path().string() + " names commands, in job " + job +
                              ", which run with your rights, and others than root and you may write it, or put another "
                              "file in its place: let it and " +
                              above.string() +
                              " belong to root or you, and take the permission to write from others (chmod go-w)"};
}

} // namespace

std::vector<Job> readJobs(const fs::path& path)
{
    if (!isPresent(path))
        throw Failure{Exit::refused, "there is no " + path.string() +
                                         ", which would name the jobs: see qbackup.toml(5), or give --config"};
    const File file{path, O_RDONLY | O_NONBLOCK};
    if (struct stat st{}; ::fstat(file.fd(), &st) != 0 || !S_ISREG(st.st_mode))
        throw Failure{Exit::refused, path.string() + " is no file"};
    std::string text(file.size(), '\0');
    file.readAt(0, std::as_writable_bytes(std::span{text}));
    std::vector<Job> jobs;
    try {
        const toml::table document = toml::parse(text, path.string());
        readTable(document, "the file", {{"job", [&jobs](const toml::node& node, const std::string& what) {
                                              if (!node.is_table())
                                                  failType(node, what, "a table of jobs, as [job.nightly]");
                                              for (const auto& [key, value] : *node.as_table())
                                                  jobs.push_back(jobOf(key, value));
                                          }}});
    } catch (const toml::parse_error& error) {
        failAt(error.source(), std::string{error.description()});
    }
    for (const Job& job : jobs)
        if (job.commands.any())
            expectTrusted(file, job.name);
    return jobs;
}

} // namespace qbackup
