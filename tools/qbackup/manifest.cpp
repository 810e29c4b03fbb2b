// SPDX-License-Identifier: GPL-2.0-only
#include "manifest.h"

#include "files.h"

#include <nlohmann/json.hpp>

namespace qbackup
{
namespace
{

using nlohmann::json;

constexpr int newest_format = 2;
constexpr const char* self_field = "manifestHash";

// The hash that a manifest carries of itself: of its text without that field. Object keys are sorted, so the text is
// the same whoever writes it.
std::string selfHash(json document)
{
    document.erase(self_field);
    return hashText(asBytes(document.dump(2)));
}

const char* markField(const Manifest& m) { return m.format == 1 ? "manifestHash" : "mark"; }

} // namespace

std::string markOf(const Manifest& m, const std::string& text)
{
    return hashText(asBytes(m.format == 1 ? text : m.id + " " + m.time + " " + toHex(m.key)));
}

std::string toHex(std::span<const std::uint8_t> bytes)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

void fromHex(const std::string& text, std::span<std::uint8_t> bytes)
{
    if (text.size() != bytes.size() * 2 || text.find_first_not_of("0123456789abcdef") != std::string::npos)
        throw std::invalid_argument{"the key is not " + std::to_string(bytes.size() * 2) + " hexadecimal digits"};
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(std::stoi(text.substr(i * 2, 2), nullptr, 16));
}

const char* toString(Mode mode) { return mode == Mode::full ? "full" : "inc"; }

std::string encode(const Manifest& m)
{
    json document{
        {"format", m.format},
        {"id", m.id},
        {"sequence", m.sequence},
        {"mode", toString(m.mode)},
        {"device", {{"name", m.device}, {"major", m.number.major}, {"minor", m.number.minor}}},
        {"blockSize", m.blockSize},
        {"blocks", m.blocks},
        {"deviceBytes", m.deviceBytes},
        {"trackingKey", toHex(m.key)},
        {"time", m.time},
        {"copiedBlocks", m.copiedBlocks},
        {"dataBytes", m.dataBytes},
        {"sumsHash", m.sumsHash},
    };
    if (m.format == 1) {
        document["segmentBytes"] = m.segmentBytes;
        document["mapHash"] = m.mapHash;
    }
    if (m.mode == Mode::incremental)
        document["parent"] = {{"id", m.parent}, {markField(m), m.parentMark}};
    else
        document["fullReason"] = m.fullReason;
    if (m.unusedBlocks != 0)
        document["unusedBlocks"] = m.unusedBlocks;
    if (m.compressed)
        document["compressed"] = true;
    if (m.seconds > 0)
        document["seconds"] = m.seconds;
    if (!m.compared.empty())
        document["comparedBecause"] = m.compared;
    if (!m.instance.empty())
        document["device"]["instance"] = m.instance;
    document[self_field] = selfHash(document);
    return document.dump(2) + "\n";
}

Manifest decode(const std::string& text, const std::string& where)
try {
    const json document = json::parse(text);
    if (const int version = document.at("format"); version < 1 || version > newest_format)
        throw NewerFormat{Exit::damaged, where + " is of format version " + std::to_string(version) +
                                         ", which this program does not know; use a newer qbackup"};
    if (document.at(self_field).get<std::string>() != selfHash(document))
        throw Failure{Exit::damaged, where + " was changed or damaged: it does not match its own hash"};
    Manifest m;
    m.format = document.at("format");
    m.id = document.at("id");
    m.sequence = document.at("sequence");
    m.mode = document.at("mode") == "full" ? Mode::full : Mode::incremental;
    m.device = document.at("device").at("name");
    m.number = {document.at("device").at("major").get<std::uint32_t>(),
                document.at("device").at("minor").get<std::uint32_t>()};
    m.instance = document.at("device").value("instance", "");
    m.blockSize = document.at("blockSize");
    m.blocks = document.at("blocks");
    m.deviceBytes = document.at("deviceBytes");
    fromHex(document.at("trackingKey"), m.key);
    m.time = document.at("time");
    m.seconds = document.value("seconds", 0.0);
    m.compared = document.value("comparedBecause", "");
    m.copiedBlocks = document.at("copiedBlocks");
    m.unusedBlocks = document.value("unusedBlocks", 0u);
    m.compressed = document.value("compressed", false);
    m.dataBytes = document.at("dataBytes");
    if (m.format == 1) {
        m.segmentBytes = document.at("segmentBytes");
        m.mapHash = document.at("mapHash");
    }
    m.sumsHash = document.at("sumsHash");
    if (m.mode == Mode::incremental) {
        m.parent = document.at("parent").at("id");
        m.parentMark = document.at("parent").at(markField(m));
    } else {
        m.fullReason = document.at("fullReason");
    }
    return m;
} catch (const json::exception& error) {
    throw Failure{Exit::damaged, where + " is not a readable manifest: " + error.what()};
} catch (const std::invalid_argument& error) {
    throw Failure{Exit::damaged, where + " is not a readable manifest: " + error.what()};
}

} // namespace qbackup
