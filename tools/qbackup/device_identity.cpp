// SPDX-License-Identifier: GPL-2.0-only
#include "device_identity.h"

namespace qbackup
{

bool DeviceIdentity::matches(const DeviceIdentity& other) const
{
    bool common = marks.empty() || other.marks.empty();
    for (const auto& [name, value] : marks)
        if (const auto there = other.marks.find(name); there != other.marks.end()) {
            if (there->second != value)
                return false;
            common = true;
        }
    return common;
}

std::string DeviceIdentity::text() const
{
    static const std::map<std::string, std::string> words{{"fileSystem", "file system"}, {"mapped", "volume"}};
    std::string all;
    for (const auto& [name, value] : marks) {
        const auto word = words.find(name);
        all += (all.empty() ? "" : ", ") + (word != words.end() ? word->second : name) + " " + value;
    }
    return all.empty() ? "no mark" : all;
}

} // namespace qbackup
