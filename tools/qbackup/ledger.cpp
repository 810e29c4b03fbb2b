// SPDX-License-Identifier: GPL-2.0-only
#include "ledger.h"

#include "data_file.h"
#include "failure.h"
#include "manifest.h"
#include "utc.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <new>

namespace qbackup
{
namespace
{

using nlohmann::json;
using quendrel::Bitmap;
using quendrel::SessionKey;

constexpr int format_version = 1;
constexpr const char* index_name = "ledger.json";
constexpr const char* time_format = "%Y-%m-%dT%H:%M:%SZ";
// A map is mostly zeros, and a hole takes no space.
constexpr std::size_t hole_bytes = 4096;

void unite(Bitmap& map, const Bitmap& other)
{
    const auto from = other.bytes();
    const auto to = map.bytes();
    for (std::size_t i = 0; i < to.size(); ++i)
        to[i] |= from[i];
}

} // namespace

Ledger::Ledger(fs::path directory, std::string identity, std::uint32_t block_size, std::uint32_t blocks,
               std::uint64_t most_bytes)
    : directory_{std::move(directory)}, identity_{std::move(identity)}, block_size_{block_size}, blocks_{blocks},
      most_bytes_{most_bytes}
{
    load();
}

std::optional<SessionKey> Ledger::newest() const { return newest_; }

void Ledger::begin(const SessionKey& key, std::optional<std::string> written)
{
    links_.clear();
    newest_ = key;
    time_ = utcNow(time_format);
    written_ = std::move(written);
    save();
}

void Ledger::add(const SessionKey& key, const Bitmap& changed, std::optional<std::string> written)
{
    links_.push_back(write({newest_.value()}, changed));
    time_ = utcNow(time_format);
    links_.back().time = time_;
    newest_ = key;
    written_ = std::move(written);
    while (links_.size() > most_links || (links_.size() > 2 && allocated() > most_bytes_))
        uniteOldest();
    save();
}

std::optional<Bitmap> Ledger::since(const SessionKey& key) const
try {
    if (newest_ == key)
        return Bitmap{blocks_};
    const auto holds = [&](const Link& link) { return std::find(link.from.begin(), link.from.end(), key) != link.from.end(); };
    auto link = std::find_if(links_.begin(), links_.end(), holds);
    if (link == links_.end())
        return std::nullopt;
    Bitmap all{blocks_};
    for (; link != links_.end(); ++link) {
        const auto map = read(*link);
        if (!map)
            return std::nullopt;
        unite(all, *map);
    }
    return all;
} catch (const std::bad_alloc&) {
    return std::nullopt;
}

void Ledger::makeDirectory() const
{
    // Of its owner alone, whatever the umask says.
    for (const fs::path& path : {directory_.parent_path(), directory_})
        if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
            throw Failure{exitOf(errno), "cannot make " + path.string() + ": " + errnoText(errno)};
}

std::uint64_t Ledger::allocated(const Link& link) const
{
    struct stat st {
    };
    return ::stat((directory_ / link.map).c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_blocks) * 512 : 0;
}

std::uint64_t Ledger::allocated() const
{
    std::uint64_t sum = 0;
    for (const Link& link : links_)
        sum += allocated(link);
    return sum;
}

std::optional<Ledger> Ledger::at(const fs::path& directory)
try {
    const json document = json::parse(readText(directory / index_name));
    Ledger ledger{directory, document.at("identity"), document.at("blockSize"), document.at("blocks")};
    if (!ledger.newest_)
        return std::nullopt;
    return ledger;
} catch (const json::exception&) {
    return std::nullopt;
} catch (const Failure& failure) {
    if (failure.exitCode() == static_cast<int>(Exit::denied))
        throw;
    return std::nullopt;
}

std::vector<Ledger::Entry> Ledger::entries() const
{
    std::vector<Entry> entries;
    for (auto link = links_.begin(); link != links_.end(); ++link) {
        Entry entry{link->from.front(), link + 1 == links_.end() ? newest_.value() : (link + 1)->from.front(), link->from.size(), link->time, std::nullopt,
                    allocated(*link)};
        if (const auto map = read(*link))
            entry.changed = map->count();
        entries.push_back(std::move(entry));
    }
    return entries;
}

void Ledger::uniteOldest()
{
    auto first = read(links_[0]);
    const auto second = read(links_[1]);
    if (!first || !second) {
        links_.erase(links_.begin());
        return;
    }
    unite(*first, *second);
    // Who asks from the second's key on gets what was written before it, too: more than is needed, and nothing is lost.
    std::vector<SessionKey> from = links_[0].from;
    from.insert(from.end(), links_[1].from.begin(), links_[1].from.end());
    if (from.size() > most_keys)
        from.erase(from.begin(), from.end() - most_keys);
    const std::string time = links_[1].time;
    links_[1] = write(std::move(from), *first);
    links_[1].time = time;
    links_.erase(links_.begin());
}

std::optional<Bitmap> Ledger::read(const Link& link) const
try {
    const File file{directory_ / link.map, O_RDONLY | O_NOFOLLOW};
    Bitmap map{blocks_};
    if (file.size() != map.bytes().size())
        return std::nullopt;
    file.readAt(0, map.bytes());
    if (hashText(map.bytes()) != link.hash)
        return std::nullopt;
    return map;
} catch (const Failure&) {
    return std::nullopt;
}

Ledger::Link Ledger::write(std::vector<SessionKey> from, const Bitmap& map)
{
    makeDirectory();
    Link link{std::move(from), std::to_string(next_map_++) + ".map", hashText(map.bytes())};
    std::error_code error;
    fs::remove(directory_ / link.map, error);
    const File file{directory_ / link.map, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600};
    const auto bytes = map.bytes();
    file.truncate(bytes.size());
    for (std::size_t at = 0; at < bytes.size(); at += hole_bytes)
        if (const auto piece = bytes.subspan(at, std::min(hole_bytes, bytes.size() - at)); !allZero(piece))
            file.writeAt(at, piece);
    file.sync();
    return link;
}

void Ledger::save()
{
    makeDirectory();
    json links = json::array();
    for (const Link& link : links_) {
        json keys = json::array();
        for (const SessionKey& key : link.from)
            keys.push_back(toHex(key));
        links.push_back({{"from", keys}, {"map", link.map}, {"hash", link.hash}, {"time", link.time}});
    }
    json document{{"version", format_version},
                  {"identity", identity_},
                  {"blockSize", block_size_},
                  {"blocks", blocks_},
                  {"newest", toHex(newest_.value())},
                  {"time", time_},
                  {"nextMap", next_map_},
                  {"links", links}};
    if (written_)
        document["written"] = *written_;
    const std::string text = document.dump();
    const fs::path made = directory_ / (std::string{index_name} + ".new");
    std::error_code error;
    fs::remove(made, error);
    {
        File file{made, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600};
        file.writeAt(0, asBytes(text));
        file.sync();
        file.close();
    }
    moveFile(made, directory_ / index_name);
    syncDirectory(directory_);
    // Maps that no link has any more, those of a run that died here among them.
    for (const fs::path& entry : entriesOf(directory_))
        if (entry.extension() == ".map" &&
            std::none_of(links_.begin(), links_.end(), [&](const Link& link) { return link.map == entry.filename(); }))
            fs::remove(entry, error);
}

void Ledger::load()
try {
    const json document = json::parse(readText(directory_ / index_name));
    if (document.at("version") != format_version || document.at("identity") != identity_ ||
        document.at("blockSize") != block_size_ || document.at("blocks") != blocks_)
        return;
    std::vector<Link> links;
    for (const json& entry : document.at("links")) {
        Link link{{}, entry.at("map"), entry.at("hash"), entry.value("time", "")};
        for (const std::string text : entry.at("from"))
            fromHex(text, link.from.emplace_back());
        if (link.from.empty())
            return;
        links.push_back(std::move(link));
    }
    SessionKey newest{};
    fromHex(document.at("newest"), newest);
    std::optional<std::string> written;
    if (document.contains("written"))
        written = document.at("written").get<std::string>();
    const std::string time = document.value("time", "");
    next_map_ = document.at("nextMap");
    links_ = std::move(links);
    newest_ = newest;
    written_ = std::move(written);
    time_ = time;
} catch (const Failure&) {
} catch (const json::exception&) {
} catch (const std::invalid_argument&) {
}

} // namespace qbackup
