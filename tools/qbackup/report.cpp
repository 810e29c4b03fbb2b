// SPDX-License-Identifier: GPL-2.0-only
#include "report.h"

#include "backup_contents.h"
#include "folder_hold.h"
#include "image_repository.h"
#include "repository.h"
#include "utc.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <span>

namespace qbackup
{
namespace
{

std::uint64_t dataIn(MergedExtents extents)
{
    std::uint64_t bytes = 0;
    for (auto extent = extents.next(); extent; extent = extents.next())
        bytes += extent->zeros ? 0 : extent->bytes;
    return bytes;
}

// As prune does: what is dropped goes into the next one of its chain that is kept, or, when there is none, altogether.
std::uint64_t freedBy(const std::vector<Choice>& choices)
{
    std::uint64_t freed = 0;
    std::vector<StoredBackup> run; // those that go, and what they go into
    const auto sum = [&] {
        std::uint64_t bytes = 0;
        for (const StoredBackup& backup : run)
            bytes += dataIn(mergedExtents({&backup, 1}));
        return bytes;
    };
    for (const Choice& choice : choices) {
        if (choice.backup.manifest.mode == Mode::full) {
            freed += sum();
            run.clear();
        }
        run.push_back(choice.backup);
        if (choice.reasons.empty())
            continue;
        if (run.size() > 1)
            freed += sum() - dataIn(mergedExtents(run));
        run.clear();
    }
    return freed + sum();
}

void addWritten(ReportedBackup& reported)
{
    const std::uint64_t bytes = std::max<std::uint64_t>(reported.backup.manifest.deviceBytes, report_regions);
    const auto region_start = [&](std::size_t region) {
        return bytes / report_regions * region + bytes % report_regions * region / report_regions;
    };
    const auto extents = extentsOf(reported.backup);
    std::size_t region = 0;
    for (auto extent = extents->next(); extent; extent = extents->next()) {
        if (extent->zeros)
            continue;
        std::uint64_t at = extent->offset;
        const std::uint64_t end = std::min(bytes, extent->offset + extent->bytes);
        while (at < end) {
            while (region + 1 < report_regions && region_start(region + 1) <= at)
                ++region;
            const std::uint64_t stop = std::min(end, region + 1 < report_regions ? region_start(region + 1) : bytes);
            const std::uint64_t size =
                (region + 1 < report_regions ? region_start(region + 1) : bytes) - region_start(region);
            reported.written[region] += static_cast<float>(static_cast<double>(stop - at) / static_cast<double>(size));
            at = stop;
        }
    }
}

// ---- text

std::string escaped(const std::string& name)
{
    // A name need not be text in any encoding.
    const std::string text =
        nlohmann::json::parse(nlohmann::json(name).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace))
            .get<std::string>();
    std::string result;
    for (const char c : text)
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        case '\'':
            result += "&#39;";
            break;
        default:
            result += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
        }
    return result;
}

std::string number(double value, const char* format = "%.2f")
{
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string duration(double seconds)
{
    if (seconds <= 0)
        return "not known";
    return seconds < 100    ? number(seconds, "%.1f s")
           : seconds < 6000 ? number(seconds / 60, "%.0f min")
                            : number(seconds / 3600, "%.1f h");
}

std::time_t secondsOf(const std::string& time)
{
    std::tm utc{};
    return ::strptime(time.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc) == nullptr ? 0 : ::timegm(&utc);
}

// "11-21 11:16"
std::string shortTime(const std::string& time)
{
    return time.size() < 16 ? time : time.substr(5, 5) + " " + time.substr(11, 5);
}
std::string longTime(const std::string& time)
{
    return time.size() < 16 ? time : time.substr(0, 10) + " " + time.substr(11, 5) + " UTC";
}

const char* kindOf(const Manifest& m)
{
    return m.mode == Mode::full ? "full" : m.compared.empty() ? "inc" : "compared";
}
const char* kindText(const Manifest& m)
{
    return m.mode == Mode::full ? "full" : m.compared.empty() ? "incremental" : "incremental, compared";
}

// ---- drawings

// What each has stored grows upwards, how long it took downwards.
std::string timeLine(const DeviceReport& device)
{
    constexpr double width = 1000;
    constexpr double up = 110;
    constexpr double down = 50;
    const std::time_t first = secondsOf(device.backups.front().backup.manifest.time);
    const std::time_t last = secondsOf(device.backups.back().backup.manifest.time);
    const double bar = std::clamp(width / static_cast<double>(device.backups.size()) * 0.7, 2.0, 24.0);
    double most_bytes = 1;
    double most_seconds = 0;
    for (const ReportedBackup& one : device.backups) {
        most_bytes = std::max(most_bytes, static_cast<double>(one.backup.manifest.dataBytes));
        most_seconds = std::max(most_seconds, one.backup.manifest.seconds);
    }
    // A full backup is often a thousand times an increment, and both are to be seen.
    const auto length = [](double value, double most, double room) {
        return std::max(2.0, room * std::cbrt(value / most));
    };
    std::string svg =
        "<svg class=chart viewBox=\"0 0 1000 164\" preserveAspectRatio=none role=img aria-label=\"Backups in time\">\n"
        "<line class=axis x1=0 x2=1000 y1=112 y2=112 />\n";
    for (const ReportedBackup& one : device.backups) {
        const Manifest& m = one.backup.manifest;
        const double share = last == first ? 0.5 : std::difftime(secondsOf(m.time), first) / std::difftime(last, first);
        const double x = share * (width - bar);
        const double tall = length(static_cast<double>(m.dataBytes), most_bytes, up);
        svg += std::string{"<g class=\""} + kindOf(m) + (one.kept ? "" : " drop") + "\"><title>" +
               escaped(longTime(m.time) + ": " + kindText(m) + ", " + formatBytes(m.dataBytes) + ", " +
                       duration(m.seconds)) +
               "</title><rect x=" + number(x) + " width=" + number(bar) + " y=" + number(112 - tall) +
               " height=" + number(tall) + " />";
        if (m.seconds > 0)
            svg += "<rect class=took x=" + number(x) + " width=" + number(bar) +
                   " y=113 height=" + number(length(m.seconds, most_seconds, down)) + " />";
        svg += "</g>\n";
    }
    svg += "</svg>\n<div class=ends><span>" + escaped(longTime(device.backups.front().backup.manifest.time)) +
           "</span><span>" +
           (device.backups.size() == 1 ? "" : escaped(longTime(device.backups.back().backup.manifest.time))) +
           "</span></div>\n";
    return "<h3>Backups</h3>\n<p class=note>Upwards what each has stored (drawn by its cube root; the most " +
           formatBytes(static_cast<std::uint64_t>(most_bytes)) + ")" +
           (most_seconds > 0 ? ", downwards how long it took (the longest " + duration(most_seconds) + ")" : "") +
           ".</p>\n" + svg +
           "<p class=key><span><i class=full></i>full</span> <span><i class=inc></i>incremental</span> "
           "<span><i class=compared></i>incremental, all read and compared</span>" +
           (device.freed ? " <span><i class=pale></i>paler: prune would drop it</span>" : "") + "</p>\n";
}

struct Rate {
    std::time_t from;
    std::time_t to;
    double bytesAnHour;
};

std::vector<Rate> ratesOf(const DeviceReport& device)
{
    std::vector<Rate> rates;
    for (std::size_t i = 1; i < device.backups.size(); ++i) {
        const Manifest& m = device.backups[i].backup.manifest;
        const Rate rate{secondsOf(device.backups[i - 1].backup.manifest.time), secondsOf(m.time), 0};
        if (m.mode == Mode::incremental && rate.to > rate.from)
            rates.push_back(
                {rate.from, rate.to, static_cast<double>(m.dataBytes) / (std::difftime(rate.to, rate.from) / 3600)});
    }
    return rates;
}

std::string rateChart(const DeviceReport& device)
{
    const std::vector<Rate> rates = ratesOf(device);
    if (rates.empty())
        return "";
    const std::time_t first = secondsOf(device.backups.front().backup.manifest.time);
    const std::time_t last = secondsOf(device.backups.back().backup.manifest.time);
    double most = 1;
    for (const Rate& rate : rates)
        most = std::max(most, rate.bytesAnHour);
    const auto x = [&](std::time_t when) {
        return number(1000 * std::difftime(when, first) / std::difftime(last, first));
    };
    std::string path;
    for (const Rate& rate : rates)
        path += "M" + x(rate.from) + " 80V" + number(80 - std::max(1.0, 78 * rate.bytesAnHour / most)) + "H" +
                x(rate.to) + "V80Z";
    return "<h3>Rate of change</h3>\n<p class=note>What changed in an hour, from one backup to the next; the most " +
           formatBytes(static_cast<std::uint64_t>(most)) +
           ".</p>\n<svg class=rate viewBox=\"0 0 1000 80\" preserveAspectRatio=none role=img aria-label=\"Rate of "
           "change\"><path d=\"" +
           path + "\" /><line class=axis x1=0 x2=1000 y1=80 y2=80 /></svg>\n";
}

std::string spaceBar(const DeviceReport& device)
{
    std::uint64_t all = 0;
    std::uint64_t full = 0;
    for (const ReportedBackup& one : device.backups) {
        all += one.allocated;
        full += one.backup.manifest.mode == Mode::full ? one.allocated : 0;
    }
    if (all == 0)
        return "";
    const std::uint64_t freed = std::min(device.freed.value_or(0), all);
    const auto part = [&](std::uint64_t bytes) {
        return number(100.0 * static_cast<double>(bytes) / static_cast<double>(all));
    };
    std::string text =
        "<h3>Space</h3>\n<div class=bar role=img aria-label=\"Space\"><span class=full style=\"width:" + part(full) +
        "%\"></span><span class=inc style=\"width:" + part(all - full) + "%\"></span></div>\n<p class=note>" +
        formatBytes(all) + " on the disk: " + formatBytes(full) + " full, " + formatBytes(all - full) +
        " incremental.</p>\n";
    if (device.freed) {
        const auto dropped = std::count_if(device.backups.begin(), device.backups.end(),
                                           [](const ReportedBackup& one) { return !one.kept; });
        text +=
            "<div class=bar role=img aria-label=\"After a prune\"><span class=stay style=\"width:" + part(all - freed) +
            "%\"></span><span class=drop style=\"width:" + part(freed) +
            "%\"></span></div>\n<p class=note>By the rules, prune would drop " + std::to_string(dropped) + " of " +
            std::to_string(device.backups.size()) + " backups and free about " + formatBytes(freed) + ".</p>\n";
    }
    return text;
}

// Neighbours of one shade are one rectangle.
std::string heatRow(const ReportedBackup& one)
{
    const auto shade = [&](std::size_t region) {
        const float part = one.written[region];
        return part <= 0 ? 0 : part < 0.02F ? 1 : part < 0.15F ? 2 : part < 0.6F ? 3 : 4;
    };
    std::string svg;
    for (std::size_t from = 0; from < report_regions;) {
        std::size_t to = from + 1;
        while (to < report_regions && shade(to) == shade(from))
            ++to;
        if (shade(from) != 0)
            svg += "<rect class=h" + std::to_string(shade(from)) + " x=" + std::to_string(from) +
                   " width=" + std::to_string(to - from) + " height=1 />";
        from = to;
    }
    return svg;
}

std::string heatMap(const DeviceReport& device)
{
    const std::span rows = std::span{device.backups}.last(std::min(device.backups.size(), report_rows));
    std::string text =
        "<h3>Where the disk changed</h3>\n<p class=note>From left to right the disk, " +
        formatBytes(rows.back().backup.manifest.deviceBytes) + "; a line is a backup" +
        (rows.size() < device.backups.size() ? " (the newest " + std::to_string(rows.size()) + ")" : "") +
        ", the stronger the more of that part it holds. Full backups, in grey, show what is in use.</p>\n<div "
        "class=heat>\n";
    for (const ReportedBackup& one : rows) {
        const Manifest& m = one.backup.manifest;
        text += std::string{"<div class=\"row "} + kindOf(m) + "\"><span>" + escaped(shortTime(m.time)) +
                "</span><svg viewBox=\"0 0 " + std::to_string(report_regions) +
                " 1\" preserveAspectRatio=none role=img aria-label=\"" + escaped(m.id) + "\"><title>" +
                escaped(m.id + ": " + formatBytes(m.dataBytes)) + "</title>" + heatRow(one) + "</svg></div>\n";
    }
    return text +
           "</div>\n<p class=key>part that was written: <span><i class=h1></i>a little</span> <span><i "
           "class=h2></i>2 %</span> <span><i class=h3></i>15 %</span> <span><i class=h4></i>60 % and more</span></p>\n";
}

std::string table(const DeviceReport& device)
{
    std::string text =
        "<details><summary>" +
        (device.backups.size() == 1 ? "The backup" : "All " + std::to_string(device.backups.size()) + " backups") +
        "</summary>\n<div class=wide><table><thead><tr><th>Backup<th>Kind<th>Stored<th>On the "
        "disk<th>Took<th>Time</tr></thead><tbody>\n";
    for (auto one = device.backups.rbegin(); one != device.backups.rend(); ++one) {
        const Manifest& m = one->backup.manifest;
        const std::string why = m.mode == Mode::full ? m.fullReason : m.compared;
        text += "<tr><td>" + escaped(m.id) + "<td>" + kindText(m) +
                (why.empty() ? "" : "<small>" + escaped(why) + "</small>") + "<td class=n>" + formatBytes(m.dataBytes) +
                "<td class=n>" + formatBytes(one->allocated) + "<td class=n>" +
                (m.seconds > 0 ? duration(m.seconds) : "\u2013") + "<td>" + escaped(longTime(m.time)) + "</tr>\n";
    }
    return text + "</tbody></table></div></details>\n";
}

std::string tile(const std::string& name, const std::string& value)
{
    return "<div class=tile><b>" + escaped(value) + "</b><span>" + escaped(name) + "</span></div>\n";
}

std::string section(const DeviceReport& device)
{
    std::string text = "<section>\n<h2>" + escaped(device.device) +
                       (device.host.empty() ? "" : " <small>of " + escaped(device.host) + "</small>") +
                       "</h2>\n<p class=note>" + escaped(device.folder.string()) + "</p>\n";
    for (const DamagedBackup& one : device.damaged)
        text += "<p class=bad><b>Damaged:</b> " + escaped(one.problem) + "</p>\n";
    if (device.backups.empty())
        return text + "<p>There is no readable backup.</p>\n</section>\n";
    std::uint64_t allocated = 0;
    std::uint64_t changed = 0;
    for (const ReportedBackup& one : device.backups) {
        allocated += one.allocated;
        changed += one.backup.manifest.mode == Mode::full ? 0 : one.backup.manifest.dataBytes;
    }
    const Manifest& newest = device.backups.back().backup.manifest;
    const double days =
        std::difftime(secondsOf(newest.time), secondsOf(device.backups.front().backup.manifest.time)) / 86400;
    text += "<div class=tiles>\n" +
            tile(device.backups.size() == 1 ? "backup" : "backups", std::to_string(device.backups.size())) +
            tile("the newest, UTC", longTime(newest.time).substr(0, 16)) +
            tile("size of the device", formatBytes(newest.deviceBytes)) + tile("on the disk", formatBytes(allocated)) +
            (days >= 1 ? tile("changed in a day",
                              formatBytes(static_cast<std::uint64_t>(static_cast<double>(changed) / days)))
                       : "") +
            "</div>\n";
    return text + timeLine(device) + rateChart(device) + heatMap(device) + spaceBar(device) + table(device) +
           "</section>\n";
}

constexpr const char* style = R"(
:root{color-scheme:light dark;--page:#f4f5f7;--card:#fff;--ink:#1b1f24;--soft:#5b6470;--line:#d9dde3;--full:#3567b0;--inc:#2a9d78;--compared:#c27c1a;--heat:#2a78c9;--grey:#8a93a0;--bad:#b3261e}
@media(prefers-color-scheme:dark){:root{--page:#14171b;--card:#1d2126;--ink:#e8eaed;--soft:#9aa4b0;--line:#343a42;--full:#6f9fe3;--inc:#4cc39b;--compared:#e0a24a;--heat:#62a8f0;--grey:#79828e;--bad:#f2857d}}
*{box-sizing:border-box}
body{margin:0;background:var(--page);color:var(--ink);font:1rem/1.5 system-ui,sans-serif;overflow-wrap:anywhere}
main{max-width:64rem;margin:0 auto;padding:1.5rem 1rem 3rem}
h1{font-size:1.6rem;margin:0 0 .25rem}h2{font-size:1.3rem;margin:0}h3{font-size:1rem;margin:1.75rem 0 .25rem}
h2 small{font-weight:400;color:var(--soft)}
section{background:var(--card);border:1px solid var(--line);border-radius:.75rem;padding:1.25rem;margin-top:1.25rem}
.note{margin:0 0 .5rem;color:var(--soft);font-size:.875rem}
.tiles{display:grid;grid-template-columns:repeat(auto-fit,minmax(8.5rem,1fr));gap:.75rem;margin-top:1rem}
.tile{border:1px solid var(--line);border-radius:.5rem;padding:.6rem .75rem}.tile b{display:block;font-variant-numeric:tabular-nums}.tile span{color:var(--soft);font-size:.8rem}
svg{display:block;width:100%}.chart{height:10.25rem}.rate{height:5rem}
.axis{stroke:var(--line);stroke-width:1;vector-effect:non-scaling-stroke}
g.full,span.full,i.full{fill:var(--full);background:var(--full)}g.inc,span.inc,i.inc{fill:var(--inc);background:var(--inc)}g.compared,i.compared{fill:var(--compared);background:var(--compared)}
g.drop{fill-opacity:.35}.took{fill-opacity:.45}g.drop .took{fill-opacity:.2}
i.pale{background:var(--inc);opacity:.35}.bar .drop{background:repeating-linear-gradient(135deg,var(--grey) 0 .2rem,transparent .2rem .4rem)}.bar .stay{background:var(--heat)}
.rate path{fill:var(--heat);fill-opacity:.7}
.ends{display:flex;justify-content:space-between;gap:1rem;color:var(--soft);font-size:.8rem}
.key{margin:.4rem 0 0;color:var(--soft);font-size:.8rem}.key span{white-space:nowrap;margin-right:.6rem}.key i{display:inline-block;width:.75rem;height:.75rem;border-radius:.15rem;margin-right:.3rem;vertical-align:-.06rem}
.bar{display:flex;height:1.1rem;border-radius:.3rem;overflow:hidden;background:var(--line);margin:.4rem 0 .25rem}.bar span{display:block}
.heat{border:1px solid var(--line);border-radius:.4rem;padding:.35rem .5rem}
.row{display:flex;align-items:center;gap:.6rem;color:var(--heat)}.row.full{color:var(--grey)}.row span{flex:0 0 5.6rem;color:var(--soft);font-size:.75rem;font-variant-numeric:tabular-nums;white-space:nowrap}.row svg{flex:1;min-width:0;height:1rem;border-bottom:1px solid var(--card);background:color-mix(in srgb,var(--line) 35%,transparent)}
.row rect{fill:currentColor}.h1{opacity:.28}.h2{opacity:.5}.h3{opacity:.75}.h4{opacity:1}.row.full rect{opacity:.45}.key .h1,.key .h2,.key .h3,.key .h4{background:var(--heat)}
details{margin-top:1.5rem}summary{cursor:pointer;color:var(--soft)}.wide{overflow-x:auto}
table{border-collapse:collapse;width:100%;font-size:.85rem;margin-top:.5rem;overflow-wrap:normal}th,td{text-align:left;padding:.35rem .75rem .35rem 0;border-top:1px solid var(--line);white-space:nowrap;vertical-align:top}th{border-top:0;color:var(--soft);font-weight:500}.n{text-align:right;font-variant-numeric:tabular-nums}td small{display:block;color:var(--soft);white-space:normal;min-width:14rem}
.bad{border-left:.25rem solid var(--bad);padding:.25rem .75rem;margin:.75rem 0 0}
@media(max-width:30rem){main{padding:1rem .5rem 2rem}section{padding:1rem .75rem}.row{gap:.35rem}.row span{flex-basis:4.9rem;font-size:.68rem}}
)";

} // namespace

DeviceReport reportOf(const fs::path& folder, const KeepRules& rules)
{
    settle(folder);
    const base::Descriptor hold = holdForReading(folder);
    DeviceReport report;
    report.folder = fs::canonical(folder);
    report.device = report.folder.filename();
    const auto backups = Repository{folder}.backups(&report.damaged);
    const bool images = std::all_of(backups.begin(), backups.end(),
                                    [](const StoredBackup& backup) { return backup.manifest.format == 2; });
    if (!backups.empty() && images)
        if (const auto host = hostOf(report.folder.parent_path()))
            report.host = host->name;
    // Folders are not pruned.
    const bool ruled = rules.any() && images && report.damaged.empty();
    const std::vector<Choice> choices = chooseKept(backups, rules);
    for (const Choice& choice : choices) {
        report.backups.push_back({choice.backup, allocatedBytes(choice.backup), !ruled || !choice.reasons.empty()});
        addWritten(report.backups.back());
    }
    if (ruled)
        report.freed = freedBy(choices);
    return report;
}

std::string htmlOf(const std::vector<DeviceReport>& devices, const std::string& title)
{
    std::string page = "<!DOCTYPE html>\n<html lang=en>\n<head>\n<meta charset=utf-8>\n<meta name=viewport "
                       "content=\"width=device-width, initial-scale=1\">\n"
                       "<link rel=icon href=\"data:,\">\n<title>" +
                       escaped(title) + "</title>\n<style>" + style + "</style>\n</head>\n<body>\n<main>\n<h1>" +
                       escaped(title) + "</h1>\n<p class=note>As of " + utcNow("%Y-%m-%d %H:%M UTC") +
                       ", by qbackup.</p>\n";
    for (const DeviceReport& device : devices)
        page += section(device);
    return page + "</main>\n</body>\n</html>\n";
}

} // namespace qbackup
