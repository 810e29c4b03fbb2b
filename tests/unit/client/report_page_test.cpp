// SPDX-License-Identifier: GPL-2.0-only
// The page of a report in a browser: nothing in it fails, everything is there, and nothing lies outside of a narrow
// screen. With REPORT_PICTURES=DIRECTORY the pictures that the browser took stay there.
#include "report.h"

#include "support.h"

#include <cmath>
#include <cstdlib>
#include <ctime>

namespace
{

using namespace test;

// A month of backups, one of them full in between, three days without any.
DeviceReport month(const std::string& device)
{
    DeviceReport report{device, "tern", "/srv/backups/tern/" + device, {}, {}, 300u << 20};
    std::mt19937 random{1};
    for (int i = 0; i < 62; ++i) {
        if (i > 24 && i < 30)
            continue;
        const std::time_t when = 1793000000 + i * 43200;
        std::tm utc{};
        ::gmtime_r(&when, &utc);
        char time[32];
        std::strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%SZ", &utc);
        ReportedBackup one;
        Manifest& m = one.backup.manifest;
        m.format = 2;
        m.time = time;
        m.id = numbered(static_cast<std::uint32_t>(i + 1), "20261121T111641Z");
        m.deviceBytes = 40ull << 30;
        m.mode = i == 0 || i == 40 ? Mode::full : Mode::incremental;
        m.fullReason = "there is no earlier backup in /srv/backups/tern/" + device;
        m.compared = i == 30 ? "changes were not tracked from the backup before on" : "";
        m.dataBytes = m.mode == Mode::full ? 21ull << 30 : (random() % 900 + 20) << 20;
        m.seconds = static_cast<double>(m.dataBytes) / (180 << 20) + 0.4;
        one.allocated = m.dataBytes;
        one.kept = i % 3 == 0 || i > 45;
        for (std::size_t region = 0; region < report_regions; ++region) {
            const bool used = region < 52;
            const double hot =
                std::exp(-std::pow((static_cast<double>(region) - 20 - i / 4.0) / 4, 2)) + (region < 3 ? 0.3 : 0);
            one.written[region] =
                static_cast<float>(m.mode == Mode::full        ? (used ? 0.9 : 0)
                                   : used && random() % 3 == 0 ? hot * static_cast<double>(random() % 100) / 100
                                                               : 0);
        }
        report.backups.push_back(std::move(one));
    }
    return report;
}

TEST(ReportPage, IsDrawnWithoutAnErrorAndFitsOnEveryScreen)
{
    const Directory directory;
    const char* pictures = std::getenv("REPORT_PICTURES");
    const fs::path page = directory / "page.html";
    DeviceReport single = month("vg0-root-with-a-name-that-is-rather-long");
    single.backups.resize(1);
    single.freed.reset();
    single.damaged.push_back({"/x", "/srv/backups/tern/x/000009-20261121T111641Z.json is missing"});
    std::ofstream{page} << htmlOf({month("sda1"), single}, "Backups in /srv/backups");
    const std::string line = std::string{"timeout 200 python3 "} + REPORT_PAGE_SCRIPT + " '" + page.string() + "' '" +
                             (pictures != nullptr ? pictures : directory.path().string()) + "'";
    EXPECT_EQ(std::system(line.c_str()), 0);
}

} // namespace
