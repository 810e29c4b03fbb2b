// SPDX-License-Identifier: GPL-2.0-only
#include "config.h"

#include <nlohmann/json.hpp>

namespace quendreld
{

std::string to_json(const Config& config)
{
    return nlohmann::json{{"images", config.images},
                          {"runDir", config.run_dir},
                          {"direct", config.direct},
                          {"readOnly", config.read_only},
                          {"multiClient", config.multi_client},
                          {"foreground", config.foreground},
                          {"fuse", config.fuse},
                          {"group", config.group},
                          {"readyFd", config.ready_fd},
                          {"guardianFd", config.guardian_fd}}
        .dump();
}

Config config_from_json(const std::string& text)
{
    const nlohmann::json json = nlohmann::json::parse(text);
    Config config;
    json.at("images").get_to(config.images);
    json.at("runDir").get_to(config.run_dir);
    json.at("direct").get_to(config.direct);
    json.at("readOnly").get_to(config.read_only);
    json.at("multiClient").get_to(config.multi_client);
    json.at("foreground").get_to(config.foreground);
    json.at("fuse").get_to(config.fuse);
    json.at("group").get_to(config.group);
    json.at("readyFd").get_to(config.ready_fd);
    json.at("guardianFd").get_to(config.guardian_fd);
    return config;
}

std::string disk_name(unsigned index) { return std::string("sd") + char('a' + index); }

} // namespace quendreld
